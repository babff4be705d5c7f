// Uploads of unknown size, uploads that wait for each other, and appending.
#include <dirent.h>
#include <sys/stat.h>

#include "core_fixture.h"
#include "spool.h"

using namespace zorvan::gridftp;
using namespace zorvan::gridftp::testing_support;

namespace {

class spooled : public core_test {
  protected:
    static receive_request unknown(std::string path = "/bucket/file") {
        receive_request request;
        request.path = std::move(path);
        return request;
    }
    // A back end that reads to the end inside its entry.
    void reading_backend(std::size_t block = 1000) {
        the_script().recv = [this, block](op_handle op, const zorvan_gridftp_server_transfer_info_t* info) {
            alloc_size = info->alloc_size;
            truncate = info->truncate;
            zorvan_off_t length = 0;
            EXPECT_EQ(zorvan_gridftp_server_get_write_range(op, &write_offset, &length), ZORVAN_SUCCESS);
            zorvan_gridftp_server_begin_transfer(op, 0, nullptr);
            std::size_t count = 0;
            for (;;) {
                EXPECT_EQ(reads.read(op, block), ZORVAN_SUCCESS);
                const auto calls = reads.wait(++count);
                if (calls.size() < count || calls.back().eof) {
                    break;
                }
            }
            ++receives;
            zorvan_gridftp_server_finished_transfer(op, ZORVAN_SUCCESS);
        };
    }
    transfer_outcome upload(const std::string& data, receive_request request) {
        auto client = connector.open();
        auto outcome = start_receive(std::move(request));
        EXPECT_TRUE(client->write(data));
        client->end();
        return result_of(std::move(outcome));
    }

    recorder reads;
    std::int64_t alloc_size = -1;
    int truncate = -1;
    zorvan_off_t write_offset = -1;
    std::atomic<int> receives{0};
};

TEST_F(spooled, the_back_end_sees_an_ordinary_sized_upload) {
    log_in();
    reading_backend();
    const auto data = pattern(2500);
    const auto result = upload(data, unknown());
    EXPECT_FALSE(result.error);
    EXPECT_TRUE(result.store_confirmed);
    EXPECT_EQ(result.bytes, 2500u);
    EXPECT_EQ(alloc_size, 2500);
    EXPECT_EQ(truncate, 1);
    EXPECT_EQ(write_offset, 0);
    EXPECT_EQ(reads.data(), data);
    EXPECT_TRUE(reads.calls().back().eof);
    EXPECT_EQ(events.announced, 1);
}

// What an upload took of the process's spool is there for others as soon as it has ended, whatever its
// session does next.
TEST_F(spooled, an_idle_session_keeps_nothing_of_its_last_upload) {
    log_in();
    reading_backend();
    EXPECT_FALSE(upload(pattern(300'000), unknown()).error);
    const auto limit = std::chrono::steady_clock::now() + patience;
    while (shared->counters().operations != 0 && std::chrono::steady_clock::now() < limit) {
        std::this_thread::yield();
    }
    EXPECT_EQ(shared->counters().operations, 0u);
    EXPECT_EQ(shared->counters().spool_bytes, 0u);
}

TEST_F(spooled, an_empty_upload_ends_at_once) {
    log_in();
    reading_backend();
    EXPECT_FALSE(upload("", unknown()).error);
    EXPECT_EQ(alloc_size, 0);
    ASSERT_EQ(reads.calls().size(), 1u);
    EXPECT_TRUE(reads.calls()[0].eof);
    EXPECT_EQ(reads.calls()[0].bytes, 0u);
    EXPECT_EQ(reads.calls()[0].offset, 0);
}

TEST_F(spooled, what_does_not_fit_into_memory_goes_through_the_file) {
    config.spool.memory = 300'000;
    config.block_size = 100'000;
    log_in();
    reading_backend(100'000);
    std::string asked;
    the_script().stat = [&](op_handle op, const zorvan_gridftp_server_stat_info_t* info) {
        asked = info->pathname;
        EXPECT_NE(info->file_only, 0);
        zorvan_gridftp_server_stat_t record{};
        record.name = "bucket";
        record.mode = S_IFDIR | 0755;
        zorvan_gridftp_server_finished_stat(op, ZORVAN_SUCCESS, &record, 1);
    };
    const auto data = pattern(3'000'000);
    EXPECT_FALSE(upload(data, unknown("/bucket/dir/file")).error);
    EXPECT_EQ(asked, "/bucket") << "the bucket is looked at before the disk is used";
    EXPECT_EQ(alloc_size, 3'000'000);
    EXPECT_TRUE(reads.data() == data);
}

TEST_F(spooled, a_bucket_that_is_refused_stops_the_upload_early) {
    config.spool.memory = 0;
    log_in();
    reading_backend();
    the_script().stat = [](op_handle op, auto) {
        zorvan_gridftp_server_finished_stat(op, new_error("no such bucket"), nullptr, 0);
    };
    const auto result = upload(pattern(100), unknown());
    ASSERT_TRUE(result.error);
    EXPECT_EQ(result.error->friendly_lines, std::vector<std::string>{"no such bucket"});
    EXPECT_EQ(receives, 0);
}

TEST_F(spooled, a_full_spool_is_a_552_and_nothing_is_stored) {
    config.spool.memory = 0;
    config.spool.limit = 1 << 20;
    log_in();
    reading_backend();
    the_script().stat = [](op_handle op, auto) {
        zorvan_gridftp_server_finished_stat(op, ZORVAN_SUCCESS, nullptr, 0);
    };
    const auto result = upload(pattern(3 << 20), unknown());
    ASSERT_TRUE(result.error);
    EXPECT_EQ(result.error->ftp_code, 552);
    EXPECT_EQ(receives, 0);
}

TEST_F(spooled, without_a_spool_the_client_is_told_to_announce) {
    config.spool.enabled = false;
    log_in();
    const auto result = result_of(start_receive(unknown()));
    ASSERT_TRUE(result.error);
    EXPECT_EQ(result.error->ftp_code, 504);
    EXPECT_NE(result.error->text_lines.front().find("ALLO"), std::string::npos);
    EXPECT_EQ(connector.connects, 0);
}

TEST_F(spooled, a_broken_upload_never_reaches_the_store) {
    log_in();
    reading_backend();
    auto client = connector.open();
    auto outcome = start_receive(unknown());
    client->write(pattern(500));
    while (events.announced == 0) {
        std::this_thread::yield();
    }
    client->reset();
    const auto result = result_of(std::move(outcome));
    ASSERT_TRUE(result.error);
    EXPECT_EQ(result.error->ftp_code, 426);
    EXPECT_EQ(receives, 0);
}

TEST_F(spooled, a_dead_client_with_a_tidy_end_never_reaches_the_store) {
    log_in();
    reading_backend();
    events.alive = false;
    const auto result = upload(pattern(500), unknown());
    ASSERT_TRUE(result.error);
    EXPECT_EQ(result.error->ftp_code, 426);
    EXPECT_EQ(receives, 0);
}

TEST_F(spooled, an_abort_never_reaches_the_store) {
    log_in();
    reading_backend();
    auto client = connector.open();
    auto outcome = start_receive(unknown());
    client->write(pattern(500));
    while (connector.connects == 0) {
        std::this_thread::yield();
    }
    abort();
    const auto result = result_of(std::move(outcome));
    ASSERT_TRUE(result.error);
    EXPECT_TRUE(result.aborted);
    EXPECT_EQ(receives, 0);
}

TEST_F(spooled, a_wrong_md5_never_reaches_the_store) {
    log_in();
    reading_backend();
    auto request = unknown();
    request.expected_checksum = std::string(32, 'f');
    request.expected_checksum_algorithm = "MD5";
    const auto result = upload(pattern(500), request);
    ASSERT_TRUE(result.error);
    EXPECT_EQ(result.error->ftp_code, 550);
    EXPECT_EQ(result.error->ftp_word, "INCORRECT_CHECKSUM");
    EXPECT_EQ(receives, 0);
}

TEST_F(spooled, appending_begins_at_the_end_of_what_is_there) {
    log_in();
    reading_backend();
    the_script().stat = [](op_handle op, const zorvan_gridftp_server_stat_info_t* info) {
        EXPECT_STREQ(info->pathname, "/bucket/file");
        zorvan_gridftp_server_stat_t record{};
        record.name = "file";
        record.mode = S_IFREG | 0644;
        record.size = 777;
        zorvan_gridftp_server_finished_stat(op, ZORVAN_SUCCESS, &record, 1);
    };
    auto request = unknown();
    request.append = true;
    request.announced_size = 5;  // means nothing before an append
    EXPECT_FALSE(upload(pattern(50), request).error);
    EXPECT_EQ(write_offset, 777);
    EXPECT_EQ(truncate, 0);
    EXPECT_EQ(alloc_size, 50);
    EXPECT_EQ(reads.calls().front().offset, 777);
}

TEST_F(spooled, appending_to_what_is_not_there_is_an_ordinary_store) {
    log_in();
    reading_backend();
    the_script().stat = [](op_handle op, auto) {
        zorvan_gridftp_server_finished_stat(op,
                                            zorvan_error_put(zorvan_gfs_ftp_response_error_construct(
                                                nullptr, nullptr, 550, "PATH_NOT_FOUND", nullptr)),
                                            nullptr, 0);
    };
    auto request = unknown();
    request.append = true;
    EXPECT_FALSE(upload(pattern(50), request).error);
    EXPECT_EQ(write_offset, 0);
    EXPECT_EQ(truncate, 1);
}

TEST_F(spooled, appending_to_what_cannot_be_looked_at_overwrites_nothing) {
    log_in();
    reading_backend();
    the_script().stat = [](op_handle op, auto) {
        zorvan_gridftp_server_finished_stat(op,
                                            zorvan_error_put(zorvan_gfs_ftp_response_error_construct(
                                                nullptr, nullptr, 451, "TOO_BUSY", nullptr)),
                                            nullptr, 0);
    };
    auto request = unknown();
    request.append = true;
    const auto result = upload(pattern(50), request);
    ASSERT_TRUE(result.error);
    EXPECT_EQ(result.error->ftp_word, "TOO_BUSY");
    EXPECT_EQ(receives, 0);
}

TEST_F(spooled, a_second_upload_to_a_path_waits_for_the_first_ones_finish) {
    log_in();
    flag first_runs;
    flag go_on;
    std::atomic<int> running{0};
    the_script().recv = [&](op_handle op, auto) {
        EXPECT_EQ(++running, 1);
        if (++receives == 1) {
            first_runs.raise();
            go_on.wait();
        }
        --running;
        zorvan_gridftp_server_finished_transfer(op, new_error("never mind"));
    };
    auto client = connector.open();
    auto first = start_receive(sized(10));
    first_runs.wait();
    // The first client's leaving changes nothing: the store may be just committing.
    on_strand([this] { session->client_gone(); });

    auto other = result_of(
        start(backend_session::start(promise_module(), *shared, strand, {"other", "127.0.0.1", "", {}, {}})));
    ASSERT_NE(other.session, nullptr);
    ++expected_destroys;
    test_connector other_connector(strand);
    test_events other_events;
    auto second = start(other.session->receive(sized(10), other_connector, other_events));
    EXPECT_EQ(second.wait_for(100ms), std::future_status::timeout);
    EXPECT_EQ(receives, 1);
    go_on.raise();
    EXPECT_TRUE(result_of(std::move(first)).error);
    EXPECT_EQ(result_of(std::move(second)).error->friendly_lines.front(), "never mind");
    EXPECT_EQ(receives, 2);
    on_strand([&] { other.session.reset(); });
}

TEST_F(spooled, a_second_upload_that_waits_too_long_is_a_450) {
    config.receive_wait = 100ms;
    log_in();
    auto holder = result_of(start(shared->locks().acquire(std::string("\0/bucket/file", 13),
                                                          async_event(strand), 1s, [] { return false; })));
    ASSERT_TRUE(holder);
    const auto result = result_of(start_receive(sized(10)));
    ASSERT_TRUE(result.error);
    EXPECT_EQ(result.error->ftp_code, 450);
    EXPECT_EQ(connector.connects, 0);
}

TEST(spool_memory, is_given_back_and_read_across_its_pieces) {
    spool_config config;
    config.directory = ::testing::TempDir();
    config.memory = 400'000;
    config.limit = 2'000'000;
    spool_budget budget(config);
    {
        spool kept(budget, config);
        const auto data = pattern(1'000'000);
        std::size_t at = 0;
        for (auto room = kept.memory_room(); !room.empty(); room = kept.memory_room()) {
            const auto part = std::min<std::size_t>(room.size(), 70'001);
            std::copy_n(data.data() + at, part, room.data());
            kept.memory_filled(part);
            at += part;
        }
        EXPECT_LE(budget.used(), 400'000u);
        ASSERT_EQ(kept.open_file(), 0);
        const auto* rest = reinterpret_cast<const unsigned char*>(data.data());
        ASSERT_EQ(kept.append_to_file({rest + at, 500'000}), 0);
        ASSERT_EQ(kept.append_to_file({rest + at + 500'000, data.size() - at - 500'000}), 0);
        EXPECT_EQ(kept.size(), data.size());
        EXPECT_EQ(kept.append_to_file({rest, 1'000'000}), 0);
        EXPECT_EQ(kept.append_to_file({rest, 1'000'000}), ENOSPC);
        std::string back(data.size(), '\0');
        for (std::size_t from = 0; from < data.size(); from += 99'999) {
            const auto part = std::min<std::size_t>(99'999, data.size() - from);
            ASSERT_TRUE(kept.fill(reinterpret_cast<unsigned char*>(back.data()) + from, part, from));
        }
        EXPECT_TRUE(back == data);
    }
    EXPECT_EQ(budget.used(), 0u);
}

}  // namespace
