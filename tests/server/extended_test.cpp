// Extended mode at the data storage interface: what a back end that stores strictly in order has to keep,
// whatever the order in which blocks arrive, how much goes to the spool, ends before the end, and reports of
// progress.
#include <algorithm>
#include <limits>
#include <map>
#include <new>
#include <random>

#include "block_text.h"
#include "core_fixture.h"
#include "loopback_connector.h"

using namespace zorvan::gridftp;
using namespace zorvan::gridftp::testing_support;
using ftp_test::block;
using ftp_test::end_of_data;
using ftp_test::end_of_file;
using ftp_test::header;

namespace {

/// Lets the streams of a listener through and notes what is asked of them.
class watched_connector final : public loopback_connector {
  public:
    using loopback_connector::loopback_connector;

    std::atomic<std::size_t> accepted{0};
    std::atomic<std::size_t> receive_sizes_set{0};
    std::atomic<int> writes_without_memory{0};
    std::atomic<std::size_t> smallest_receive_size{~std::size_t{0}};

  private:
    class watched_stream final : public passing_stream {
      public:
        watched_stream(std::unique_ptr<data_stream> inner, watched_connector& owner)
            : passing_stream(std::move(inner)), owner_(owner) {}
        task<io_result> write_some(std::span<const asio::const_buffer> buffers) override {
            if (owner_.writes_without_memory > 0) {
                --owner_.writes_without_memory;
                throw std::bad_alloc();
            }
            return inner().write_some(buffers);
        }
        void set_buffer_sizes(std::size_t receive, std::size_t send) noexcept override {
            ++owner_.receive_sizes_set;
            owner_.smallest_receive_size = std::min(owner_.smallest_receive_size.load(), receive);
            inner().set_buffer_sizes(receive, send);
        }

      private:
        watched_connector& owner_;
    };

    std::unique_ptr<data_stream> wrap(std::unique_ptr<data_stream> stream) override {
        auto wrapped = std::make_unique<watched_stream>(std::move(stream), *this);
        ++accepted;
        return wrapped;
    }
};

/// Takes reports, or refuses them.
class progress_events final : public transfer_events {
  public:
    task<void> on_first_data() override {
        announced = true;
        co_return;
    }
    bool on_progress(const transfer_progress& progress) override {
        const std::lock_guard lock(mutex_);
        EXPECT_TRUE(announced);
        EXPECT_FALSE(over);
        ++asked_;
        changed_.notify_all();
        if (!takes) {
            return false;
        }
        if (progress.durable_changed) {
            told_.push_back(progress.durable.text());
        }
        bytes_ = progress.bytes;
        return true;
    }
    /// Wait until it was asked so often.
    void wait_asked(int times) {
        std::unique_lock lock(mutex_);
        const int until = asked_ + times;
        EXPECT_TRUE(changed_.wait_for(lock, patience, [&] { return asked_ >= until; }));
    }
    template <class Condition>
    bool wait_for(Condition condition) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, patience, [&] { return condition(told_, bytes_); });
    }
    std::vector<std::string> told() {
        const std::lock_guard lock(mutex_);
        return told_;
    }
    std::atomic<bool> announced{false};
    std::atomic<bool> takes{true};
    std::atomic<bool> over{false};

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    int asked_ = 0;
    std::uint64_t bytes_ = 0;
    std::vector<std::string> told_;  // range lists
};

/// Stores strictly in order and keeps what comes early, as a back end over HTTP has to.
class in_order_backend {
  public:
    /// Register reads as long as fewer than the concurrency are outstanding. The entry; also in callbacks.
    void begin(op_handle op, host& shared) {
        const std::lock_guard lock(mutex_);
        shared_ = &shared;
        zorvan_off_t length = 0;
        EXPECT_EQ(zorvan_gridftp_server_get_write_range(op, &next_, &length), ZORVAN_SUCCESS);
        EXPECT_EQ(zorvan_gridftp_server_get_optimal_concurrency(op, &concurrency), ZORVAN_SUCCESS);
        EXPECT_EQ(zorvan_gridftp_server_get_block_size(op, &block), ZORVAN_SUCCESS);
        zorvan_gridftp_server_begin_transfer(op, 0, nullptr);
        register_locked(op);
    }
    std::string stored() {
        const std::lock_guard lock(mutex_);
        return stored_;
    }
    /// Bytes that were kept for later at one time, at most.
    std::size_t most_kept() {
        const std::lock_guard lock(mutex_);
        return most_kept_;
    }
    std::uint64_t most_spooled() {
        const std::lock_guard lock(mutex_);
        return most_spooled_;
    }
    /// Called after each block with the bytes stored; an error or a success ends the operation there.
    std::function<std::optional<zorvan_result_t>(op_handle, std::size_t)> judge;
    int concurrency = 0;
    std::size_t block = 0;

  private:
    struct lent {
        in_order_backend* owner;
        std::vector<unsigned char> bytes;
    };
    void register_locked(op_handle op) {
        while (!ended_ && outstanding_ < concurrency) {
            auto buffer = std::make_unique<lent>(lent{this, std::vector<unsigned char>(block)});
            EXPECT_EQ(
                zorvan_gridftp_server_register_read(op, buffer->bytes.data(), block, done, buffer.get()),
                ZORVAN_SUCCESS);
            (void)buffer.release();
            ++outstanding_;
        }
    }
    static void done(op_handle op, zorvan_result_t result, unsigned char*, std::size_t bytes,
                     zorvan_off_t offset, int eof, void* argument) {
        const std::unique_ptr<lent> buffer(static_cast<lent*>(argument));
        buffer->owner->take(op, result, *buffer, bytes, offset, eof != 0);
    }
    void take(op_handle op, zorvan_result_t result, const lent& buffer, std::size_t bytes,
              zorvan_off_t offset, bool eof) {
        std::unique_lock lock(mutex_);
        --outstanding_;
        ended_ = ended_ || eof;
        if (result != ZORVAN_SUCCESS && outcome_ == ZORVAN_SUCCESS) {
            outcome_ = result;
        }
        if (bytes > 0) {
            early_.emplace(offset, std::string(buffer.bytes.begin(),
                                               buffer.bytes.begin() + static_cast<std::ptrdiff_t>(bytes)));
            zorvan_gridftp_server_update_bytes_recvd(op, static_cast<zorvan_off_t>(bytes), offset);
        }
        while (!early_.empty() && early_.begin()->first == next_) {
            stored_ += early_.begin()->second;
            next_ += static_cast<zorvan_off_t>(early_.begin()->second.size());
            early_.erase(early_.begin());
        }
        std::size_t kept = 0;
        for (const auto& [at, data] : early_) {
            kept += data.size();
        }
        most_kept_ = std::max(most_kept_, kept);
        most_spooled_ = std::max(most_spooled_, shared_->counters().spool_bytes);
        if (!finished_ && judge) {
            if (const auto verdict = judge(op, stored_.size())) {
                finished_ = ended_ = true;
                zorvan_gridftp_server_finished_transfer(op, *verdict);
            }
        }
        register_locked(op);
        if (ended_ && outstanding_ == 0 && !finished_) {
            finished_ = true;
            const auto outcome = outcome_;
            lock.unlock();
            zorvan_gridftp_server_finished_transfer(op, outcome);
        }
    }

    std::mutex mutex_;
    host* shared_ = nullptr;
    zorvan_off_t next_ = 0;
    int outstanding_ = 0;
    bool ended_ = false;
    bool finished_ = false;
    zorvan_result_t outcome_ = ZORVAN_SUCCESS;
    std::map<zorvan_off_t, std::string> early_;
    std::string stored_;
    std::size_t most_kept_ = 0;
    std::uint64_t most_spooled_ = 0;
};

class extended : public core_test {
  protected:
    void SetUp() override {
        core_test::SetUp();
        config.block_size = 4096;
        config.most_connections = 4;
        config.held_up_wait = 20ms;
        config.spool.limit = 64 << 20;
        listener = std::make_unique<watched_connector>(strand);
    }
    void TearDown() override {
        clients.clear();
        on_strand([this] { listener.reset(); });
        core_test::TearDown();
    }
    void connect(std::size_t count) {
        for (std::size_t i = 0; i < count; ++i) {
            const int number = ::socket(AF_INET, SOCK_STREAM, 0);
            sockaddr_in address{};
            address.sin_family = AF_INET;
            address.sin_port = htons(listener->port());
            address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            ASSERT_EQ(::connect(number, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
            clients.push_back(std::make_unique<client_socket>(number));
        }
    }
    static receive_request blocks(std::uint64_t size) {
        auto request = sized(size);
        request.extended = true;
        return request;
    }
    std::future<transfer_outcome> upload(receive_request request) {
        the_script().recv = [this](op_handle op, auto) { store.begin(op, *shared); };
        return start(session->receive(std::move(request), *listener, progress));
    }
    /// Blocks of the given size, dealt out in turn; the last connections may get none.
    static std::vector<std::string> deal(const std::string& data, std::size_t size, std::size_t connections,
                                         const std::function<void(std::vector<std::size_t>&)>& order) {
        std::vector<std::size_t> places;
        for (std::size_t at = 0; at < data.size(); at += size) {
            places.push_back(at);
        }
        order(places);
        std::vector<std::string> dealt(connections);
        for (std::size_t i = 0; i < places.size(); ++i) {
            dealt[i % connections] += block(std::string_view(data).substr(places[i], size), places[i]);
        }
        for (std::size_t i = 0; i < connections; ++i) {
            dealt[i] += i == 0 ? end_of_file(connections) : end_of_data();
        }
        return dealt;
    }
    /// Write all of it, each connection from a thread of its own.
    void write_all(const std::vector<std::string>& dealt, const std::function<void(std::size_t)>& before) {
        std::vector<std::jthread> writers;
        for (std::size_t i = 0; i < dealt.size(); ++i) {
            writers.emplace_back([this, i, &dealt, &before] {
                before(i);
                EXPECT_TRUE(clients[i]->write(dealt[i])) << i;
            });
        }
    }
    /// What a good upload has to have come to, and to have cost.
    void expect_stored(std::future<transfer_outcome> outcome, const std::string& data) {
        const auto result = result_of(std::move(outcome));
        progress.over = true;
        EXPECT_FALSE(result.error);
        EXPECT_TRUE(result.store_confirmed);
        EXPECT_EQ(result.bytes, data.size());
        EXPECT_TRUE(store.stored() == data);
        // A read more than connections is the concurrency, and twice as many blocks may wait for their turn.
        EXPECT_GE(store.concurrency, static_cast<int>(config.most_connections) + 1);
        EXPECT_LE(store.most_kept(), 2 * static_cast<std::size_t>(store.concurrency) * store.block);
        // The spool counts whole pieces of memory.
        EXPECT_LE(store.most_spooled(), data.size() + (1 << 20));
    }
    void wait_accepted(std::size_t count) {
        const auto limit = std::chrono::steady_clock::now() + patience;
        while (listener->accepted < count && std::chrono::steady_clock::now() < limit) {
            std::this_thread::yield();
        }
    }
    void wait_stored(std::size_t count) {
        const auto limit = std::chrono::steady_clock::now() + patience;
        while (store.stored().size() < count && std::chrono::steady_clock::now() < limit) {
            std::this_thread::yield();
        }
    }
    void wait_spooled() {
        const auto limit = std::chrono::steady_clock::now() + patience;
        while (shared->counters().spool_bytes == 0 && std::chrono::steady_clock::now() < limit) {
            std::this_thread::yield();
        }
    }

    std::unique_ptr<watched_connector> listener;
    std::vector<std::unique_ptr<client_socket>> clients;
    in_order_backend store;
    progress_events progress;
};

const auto at_once = [](std::size_t) {};
const auto in_turn = [](std::vector<std::size_t>&) {};

TEST_F(extended, a_slow_connection_of_four_holds_nobody_up) {
    log_in();
    connect(4);
    const auto data = pattern(6'000'000);
    auto outcome = upload(blocks(data.size()));
    // The one with the first byte sends nothing before the others' blocks have had to go somewhere.
    write_all(deal(data, 10'000, 4, in_turn), [this](std::size_t which) {
        if (which == 0) {
            wait_spooled();
        }
    });
    expect_stored(std::move(outcome), data);
    EXPECT_GT(store.most_spooled(), 0u);
}

TEST_F(extended, an_idle_connection_is_kept_and_holds_nobody_up) {
    log_in();
    connect(4);
    const auto data = pattern(2'000'000);
    auto outcome = upload(blocks(data.size()));
    write_all(deal(data, 10'000, 3, in_turn), [this](std::size_t which) {
        if (which == 0) {
            wait_accepted(4);
        }
    });
    expect_stored(std::move(outcome), data);
    EXPECT_EQ(listener->kept.size(), 4u);
}

TEST_F(extended, each_of_four_connections_may_send_a_quarter) {
    log_in();
    connect(4);
    const auto data = pattern(8'000'000);
    auto outcome = upload(blocks(data.size()));
    write_all(deal(data, 2'000'000, 4, in_turn), at_once);
    expect_stored(std::move(outcome), data);
}

TEST_F(extended, blocks_may_come_in_reverse) {
    log_in();
    connect(2);
    const auto data = pattern(3'000'000);
    auto outcome = upload(blocks(data.size()));
    write_all(deal(data, 10'000, 2, [](auto& places) { std::reverse(places.begin(), places.end()); }),
              at_once);
    expect_stored(std::move(outcome), data);
    EXPECT_GT(store.most_spooled(), 0u);
}

TEST_F(extended, up_to_the_limit_of_connections_all_take_part) {
    config.most_connections = 32;
    log_in();
    const auto data = pattern(4'000'000);
    for (const std::size_t count : {16u, 32u}) {
        connect(count - clients.size());
        in_order_backend fresh;
        the_script().recv = [this, &fresh](op_handle op, auto) { fresh.begin(op, *shared); };
        auto outcome = start(session->receive(blocks(data.size()), *listener, progress));
        write_all(deal(data, 5'000, count,
                       [](auto& places) { std::shuffle(places.begin(), places.end(), std::minstd_rand(7)); }),
                  at_once);
        const auto result = result_of(std::move(outcome));
        EXPECT_FALSE(result.error);
        EXPECT_TRUE(fresh.stored() == data);
        EXPECT_EQ(fresh.concurrency, 33);
        EXPECT_LE(fresh.most_kept(), 2u * 33 * 4096);
        settle_threads();
    }
    EXPECT_EQ(listener->accepted, 32u) << "the second upload took the first one's connections over";
}

TEST_F(extended, one_connection_more_than_the_limit_is_refused) {
    log_in();
    connect(5);
    auto result = result_of(upload(blocks(1'000'000)));
    ASSERT_TRUE(result.error);
    EXPECT_EQ(result.error->ftp_code, 426);
    EXPECT_EQ(store.stored(), "");
    settle_threads();
}

TEST_F(extended, a_back_end_that_fails_early_has_the_connections_drained) {
    log_in();
    connect(4);
    const auto data = pattern(16'000'000);
    store.judge = [](op_handle, std::size_t stored) {
        return stored > 0 ? std::optional(new_error("no more")) : std::nullopt;
    };
    auto outcome = upload(blocks(data.size()));
    // More than the network holds: who is not read would be cut off in the middle.
    write_all(deal(data, 10'000, 4, in_turn), at_once);
    const auto result = result_of(std::move(outcome));
    ASSERT_TRUE(result.error);
    EXPECT_EQ(result.error->friendly_lines, std::vector<std::string>{"no more"});
    EXPECT_FALSE(result.store_confirmed);
    EXPECT_TRUE(listener->kept.empty());
    for (const auto& client : clients) {
        client->end();
        bool clean = false;
        EXPECT_EQ(client->read_all(&clean), "");
        EXPECT_TRUE(clean) << "a reset could overtake the reply";
    }
}

TEST_F(extended, a_back_end_that_is_content_early_is_not_believed) {
    log_in();
    connect(2);
    const auto data = pattern(1'000'000);
    store.judge = [](op_handle, std::size_t stored) {
        return stored > 0 ? std::optional(ZORVAN_SUCCESS) : std::nullopt;
    };
    auto outcome = upload(blocks(data.size()));
    write_all(deal(data, 10'000, 2, in_turn), at_once);
    const auto result = result_of(std::move(outcome));
    ASSERT_TRUE(result.error);
    EXPECT_EQ(result.error->ftp_code, 451);
}

TEST_F(extended, a_write_without_memory_ends_the_download_and_calls_all_back) {
    log_in();
    recorder writes;
    the_script().send = [&](op_handle op, auto) {
        zorvan_gridftp_server_begin_transfer(op, 0, nullptr);
        for (std::int64_t at = 0; at < 8; ++at) {
            (void)writes.write(op, pattern(4096), at * 4096);
        }
        (void)writes.wait(writes.accepted());
        zorvan_gridftp_server_finished_transfer(op, ZORVAN_SUCCESS);
    };
    listener->writes_without_memory = 1;
    connect(2);
    const auto result = result_of(start(session->send({"/bucket/file", {{}}, 2}, *listener, progress)));
    progress.over = true;
    ASSERT_TRUE(result.error);
    EXPECT_EQ(result.error->errno_value, ENOMEM);
    EXPECT_EQ(listener->writes_without_memory, 0);
    settle_threads();
}

TEST_F(extended, the_concurrency_is_above_the_number_of_connections) {
    config.most_connections = 9;
    log_in();
    std::vector<int> seen;
    const auto ask = [&seen](op_handle op) {
        int count = 0;
        EXPECT_EQ(zorvan_gridftp_server_get_optimal_concurrency(op, &count), ZORVAN_SUCCESS);
        seen.push_back(count);
        int interval = 0;
        EXPECT_EQ(zorvan_gridftp_server_get_update_interval(op, &interval), ZORVAN_SUCCESS);
        seen.push_back(interval);
    };
    the_script().send = [&](op_handle op, auto) {
        ask(op);
        zorvan_gridftp_server_finished_transfer(op, new_error());
    };
    the_script().recv = the_script().send;
    for (const std::size_t connections : {0u, 1u, 7u}) {
        send_request request;
        request.path = "/bucket/file";
        request.connections = connections;
        EXPECT_TRUE(result_of(start(session->send(std::move(request), *listener, progress))).error);
    }
    EXPECT_TRUE(result_of(start(session->receive(blocks(1'000'000), *listener, progress))).error);
    settle();
    EXPECT_EQ(seen, (std::vector<int>{3, 0, 3, 5, 8, 5, 10, 5})) << "concurrency and interval of each";
}

TEST_F(extended, what_the_client_sends_ahead_has_room) {
    log_in();
    connect(3);
    const auto data = pattern(100'000);
    auto outcome = upload(blocks(data.size()));
    write_all(deal(data, 10'000, 3, in_turn), at_once);
    expect_stored(std::move(outcome), data);
    EXPECT_EQ(listener->receive_sizes_set, 3u);
    EXPECT_GE(listener->smallest_receive_size, config.concurrency * config.block_size);
}

// ------------------------------------------------------------------- reports of progress

class extended_progress : public extended {
  protected:
    void SetUp() override {
        extended::SetUp();
        config.update_interval = 20ms;
        config.partial_block_wait = 1ms;
        says_durable(true);
    }
    void TearDown() override {
        says_durable(false);
        extended::TearDown();
    }
    static void says_durable(bool durable) {
        // The module's own table, which it does not look at itself.
        auto& table = const_cast<zorvan_gridftp_server_dsi_t&>(promise_module().table());
        constexpr std::uintptr_t flag = ZORVAN_GRIDFTP_SERVER_DSI_DURABLE_RANGES;
        table.descriptor = durable ? table.descriptor | flag : table.descriptor & ~flag;
    }
    /// A back end that calls each 100 bytes durable, once they are there.
    void report_hundreds() {
        store.judge = [this](op_handle op, std::size_t stored) -> std::optional<zorvan_result_t> {
            for (; reported + 100 <= stored; reported += 100) {
                zorvan_gridftp_server_update_range_recvd(op, base + static_cast<zorvan_off_t>(reported), 100);
            }
            return std::nullopt;
        };
    }
    using texts = std::vector<std::string>;

    std::size_t reported = 0;
    zorvan_off_t base = 0;
};

TEST_F(extended_progress, is_reported_again_until_it_is_taken) {
    log_in();
    connect(1);
    report_hundreds();
    const auto data = pattern(1000);
    progress.takes = false;
    auto outcome = upload(blocks(data.size()));
    clients[0]->write(block(data.substr(0, 250), 0));
    wait_stored(250);
    progress.wait_asked(5);
    EXPECT_EQ(progress.told(), texts{});
    progress.takes = true;
    EXPECT_TRUE(progress.wait_for([](auto& told, auto bytes) { return !told.empty() && bytes == 250; }));
    progress.wait_asked(3);
    EXPECT_EQ(progress.told(), texts{"0-200"}) << "once";
    clients[0]->write(block(data.substr(250, 500), 250));
    EXPECT_TRUE(progress.wait_for([](auto& told, auto) { return !told.empty() && told.back() == "0-700"; }));
    clients[0]->write(block(data.substr(750), 750) + end_of_file(1));
    expect_stored(std::move(outcome), data);
}

TEST_F(extended_progress, of_a_restart_begins_with_what_is_kept) {
    log_in();
    connect(1);
    report_hundreds();
    base = 300;
    auto request = blocks(1000);
    request.write_offset = 300;
    auto outcome = upload(request);
    const auto data = pattern(1000);
    clients[0]->write(block(data.substr(0, 200), 300));
    EXPECT_TRUE(progress.wait_for([](auto& told, auto) { return !told.empty(); }));
    EXPECT_EQ(progress.told().front().substr(0, 2), "0-");
    EXPECT_TRUE(progress.wait_for([](auto& told, auto) { return !told.empty() && told.back() == "0-500"; }));
    clients[0]->write(block(data.substr(200), 500) + end_of_file(1));
    expect_stored(std::move(outcome), data);
}

TEST_F(extended_progress, leaves_a_failed_upload_with_what_was_not_told) {
    log_in();
    connect(1);
    report_hundreds();
    progress.takes = false;
    auto outcome = upload(blocks(1000));
    clients[0]->write(block(pattern(250), 0));
    wait_stored(250);
    clients[0]->reset();
    const auto result = result_of(std::move(outcome));
    progress.over = true;
    ASSERT_TRUE(result.error);
    ASSERT_TRUE(result.restart);
    EXPECT_EQ(result.restart->text(), "0-200");
}

TEST_F(extended_progress, leaves_nothing_to_tell_when_all_was_told_or_the_client_aborted) {
    log_in();
    for (const bool aborted : {false, true}) {
        clients.clear();
        connect(1);
        in_order_backend fresh;
        fresh.judge = [done = false](op_handle op, std::size_t) mutable -> std::optional<zorvan_result_t> {
            if (!std::exchange(done, true)) {
                zorvan_gridftp_server_update_range_recvd(op, 0, 100);
            }
            return std::nullopt;
        };
        the_script().recv = [&](op_handle op, auto) { fresh.begin(op, *shared); };
        progress_events own;
        own.takes = !aborted;
        auto outcome = start(session->receive(blocks(1000), *listener, own));
        clients[0]->write(block(pattern(250), 0));
        if (aborted) {
            own.wait_asked(2);
            abort();
        } else {
            EXPECT_TRUE(own.wait_for([](auto& told, auto) { return !told.empty(); }));
            clients[0]->reset();
        }
        const auto result = result_of(std::move(outcome));
        own.over = true;
        EXPECT_TRUE(result.error);
        EXPECT_FALSE(result.restart) << aborted;
        settle_threads();
    }
}

TEST_F(extended_progress, has_no_ranges_from_a_back_end_that_does_not_say_durable) {
    says_durable(false);
    log_in();
    connect(1);
    report_hundreds();
    auto outcome = upload(blocks(1000));
    clients[0]->write(block(pattern(250), 0));
    EXPECT_TRUE(progress.wait_for([](auto&, auto bytes) { return bytes == 250; }));
    progress.wait_asked(2);
    EXPECT_EQ(progress.told(), texts{});
    clients[0]->reset();
    const auto result = result_of(std::move(outcome));
    EXPECT_TRUE(result.error);
    EXPECT_FALSE(result.restart);
}

TEST_F(extended_progress, takes_no_range_that_cannot_be) {
    log_in();
    connect(1);
    store.judge = [](op_handle op, std::size_t) -> std::optional<zorvan_result_t> {
        constexpr zorvan_off_t largest = std::numeric_limits<zorvan_off_t>::max();
        zorvan_gridftp_server_update_range_recvd(op, -5, 10);
        zorvan_gridftp_server_update_range_recvd(op, 5, -1);
        zorvan_gridftp_server_update_range_recvd(op, 5, 0);
        zorvan_gridftp_server_update_range_recvd(op, largest, largest);
        zorvan_gridftp_server_update_range_recvd(op, 100, 50);
        zorvan_gridftp_server_update_range_recvd(op, 20, 90);
        return std::nullopt;
    };
    auto outcome = upload(blocks(1000));
    clients[0]->write(block(pattern(250), 0));
    // A report may come between the two that are good.
    EXPECT_TRUE(progress.wait_for([](auto& told, auto) { return !told.empty() && told.back() == "20-150"; }));
    EXPECT_LE(progress.told().size(), 2u) << progress.told().front();
    clients[0]->reset();
    EXPECT_TRUE(result_of(std::move(outcome)).error);
}

}  // namespace
