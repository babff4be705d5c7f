// Memory runs out on the threads that serve the network, at every allocation that a log-in, a listing and
// each kind of transfer make there. What a client asked for happens or fails - with a reply, or with the end
// of its connection -, and nothing else: the server and its other sessions go on, nothing is left over,
// nothing waits for ever.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <functional>
#include <stdexcept>
#include <thread>

#include "block_text.h"
#include "failing_system.h"
#include "live_server.h"

using namespace ftp_test;
using zorvan::test::FailingMarkedThreads;
namespace bits = zorvan::gridftp;

namespace {

constexpr long most_allocations = 2000;
constexpr std::size_t file_size = 200000;

// Every allocation fails in its turn; where a round takes long, every so many of them.
#if defined(__SANITIZE_THREAD__)
constexpr long step = 16;
#elif defined(__SANITIZE_ADDRESS__)
constexpr long step = 4;
#else
constexpr long step = 1;
#endif

/// The connection has ended before everything was said; a round may end so when memory failed in it.
struct broken_off : std::runtime_error {
    using std::runtime_error::runtime_error;
};

int expect_reply(const Reply& reply) {
    if (reply.code == 0) throw broken_off("the control connection has ended");
    return reply.code;
}

Client log_in(LiveServer& server) {
    Client client(server.port());
    expect_reply(client.reply());
    for (const char* line : {"USER alice", "PASS secret", "TYPE I"})
        expect_reply(client.command(line));
    return client;
}

int final_reply(Client& client) {
    int code = expect_reply(client.reply());
    while (code < 200)
        code = expect_reply(client.reply());
    return code;
}

/// The file that lies in the blocks of one connection.
std::string joined(std::string_view blocks) {
    std::string file;
    while (blocks.size() >= bits::block_header_size) {
        std::array<unsigned char, bits::block_header_size> head{};
        std::copy_n(blocks.begin(), head.size(), head.begin());
        const auto header = bits::decode(head);
        blocks.remove_prefix(head.size());
        const std::size_t count = std::min<std::size_t>(blocks.size(), header.count);
        if (file.size() < header.offset + count) file.resize(header.offset + count);
        file.replace(header.offset, count, blocks.substr(0, count));
        blocks.remove_prefix(count);
    }
    return file;
}

/// Takes what the server sends over the one connection that it makes.
class Receiver {
  public:
    Receiver() : listener_(Socket::listen("127.0.0.1")) {
        thread_ = std::thread([this] { receive(); });
    }
    ~Receiver() { (void)finish(); }
    Receiver(const Receiver&) = delete;
    Receiver& operator=(const Receiver&) = delete;
    std::uint16_t port() const { return listener_.local_port(); }
    /// All that has come, once nothing more will.
    std::string finish() {
        over_ = true;
        if (thread_.joinable()) thread_.join();
        return data_;
    }

  private:
    static bool ready(const Socket& socket) {
        pollfd entry{socket.number(), POLLIN, 0};
        return ::poll(&entry, 1, 5) > 0;
    }
    void receive() {
        Socket data;
        for (;;) {
            const bool last = over_;
            const Socket& waited = data.number() < 0 ? listener_ : data;
            if (!ready(waited)) {
                if (last) return;
            } else if (data.number() < 0) {
                data = listener_.accept();
            } else {
                char piece[65536];
                const std::size_t count = data.read(piece, sizeof piece);
                if (count == 0) return;
                data_.append(piece, count);
            }
        }
    }
    Socket listener_;
    std::atomic<bool> over_{false};
    std::string data_;
    std::thread thread_;
};

class LiveOutOfMemory : public ::testing::TestWithParam<long> {
  protected:
    LiveOutOfMemory() { put("/bucket/known", file); }

    /// Runs `round` with each allocation failing - GetParam() in a row -, until none did.
    /// @param round  says whether everything was done that was asked for
    void fail_each(const std::function<bool()>& round) {
        long after = 0;
        for (bool failed = true; failed; after += step * GetParam()) {
            SCOPED_TRACE(after);
            ASSERT_LT(after, most_allocations);
            std::string ended;
            bool done = false;
            {
                const FailingMarkedThreads failing(after, GetParam());
                try {
                    done = round();
                } catch (const std::runtime_error& error) {
                    ended = error.what();
                }
                failed = failing.failed();
            }
            EXPECT_EQ(ended.find("in a minute"), std::string::npos) << ended;
            EXPECT_TRUE(failed || done) << ended;
            check_server();
            if (HasFailure()) return;
        }
        RecordProperty("allocations", static_cast<int>(after));
        EXPECT_GE(after, 5);
    }

    /// It serves another session as if nothing had been, and has nothing left of the former.
    void check_server() {
        {
            Client other = server.client();
            EXPECT_EQ(other.command("SIZE /bucket/known").text, "213 " + std::to_string(file_size) + "\r\n");
            EXPECT_EQ(other.command("QUIT").code, 221);
        }
        EXPECT_TRUE(eventually([this] {
            const auto counts = server.counters();
            return counts.sessions == 0 && counts.operations == 0 && counts.callbacks == 0 &&
                   counts.spool_bytes == 0 && counts.receive_locks == 0;
        })) << "something is left";
        EXPECT_EQ(store().open_sessions(), 0U);
    }

    /// The reply to an upload must say what has become of it. @return whether it was stored
    bool stored_as_told(int code) const {
        const bool good = code == 226;
        if (good) {
            EXPECT_TRUE(content("/bucket/new") == file);
        } else if (code >= 400 && code != 421) {
            // 421 ends the session and says nothing of the upload.
            EXPECT_FALSE(stored("/bucket/new"));
        }
        return good;
    }

    bool upload_blocks(bool announces) {
        store().clear();
        put("/bucket/known", file);
        Client client = log_in(server);
        expect_reply(client.command("MODE E"));
        if (announces) expect_reply(client.command("ALLO " + std::to_string(file.size())));
        const std::uint16_t port = client.passive_port();
        const Socket one = Socket::connect("127.0.0.1", port);
        const Socket other = Socket::connect("127.0.0.1", port);
        client.send("STOR /bucket/new\r\n");
        // One block comes before its time.
        const std::string_view data = file;
        one.write(block(data.substr(100000), 100000) + end_of_file(2));
        other.write(block(data.substr(0, 100000), 0) + end_of_data());
        return stored_as_told(final_reply(client));
    }

    /// Begin a transfer, send this, and give it up.
    bool abort_transfer(const std::string& line, std::string_view sent) {
        Client client = log_in(server);
        if (!sent.empty()) expect_reply(client.command("ALLO " + std::to_string(file.size())));
        const Socket data = client.open_data();
        if (expect_reply(client.command(line)) != 150) return false;
        data.write(sent);
        const int of_transfer = expect_reply(client.command("ABOR"));
        return of_transfer == 426 && final_reply(client) == 226;
    }

    const std::string file = pattern(file_size);
    LiveServer server{"[server]\nblock_size = 16384\n"};
};

INSTANTIATE_TEST_SUITE_P(Times, LiveOutOfMemory, ::testing::Values(1L, 3L),
                         [](const auto& run) { return run.param == 1 ? "Once" : "ThreeTimes"; });

}  // namespace

TEST_P(LiveOutOfMemory, InALogIn) {
    fail_each([&] {
        Client client = log_in(server);
        return expect_reply(client.command("QUIT")) == 221;
    });
}

TEST_P(LiveOutOfMemory, InAListing) {
    for (int i = 0; i < 50; ++i)
        put("/bucket/a-name-that-is-beyond-a-short-one-" + std::to_string(i), "x");
    std::string whole;
    fail_each([&] {
        Client client = log_in(server);
        Reply last;
        const std::string lines = client.fetch("MLSD /bucket", last);
        if (expect_reply(last) != 226) return false;
        if (whole.empty()) whole = lines;
        EXPECT_TRUE(lines == whole);
        return true;
    });
    EXPECT_GE(std::count(whole.begin(), whole.end(), '\n'), 51);
}

TEST_P(LiveOutOfMemory, InADownload) {
    fail_each([&] {
        Client client = log_in(server);
        Reply last;
        const std::string data = client.fetch("RETR /bucket/known", last);
        if (expect_reply(last) != 226) return false;
        EXPECT_TRUE(data == file);
        return true;
    });
}

TEST_P(LiveOutOfMemory, InAnUploadOfAnnouncedSize) {
    fail_each([&] {
        store().clear();
        put("/bucket/known", file);
        Client client = log_in(server);
        expect_reply(client.command("ALLO " + std::to_string(file.size())));
        const Reply last = client.store("STOR /bucket/new", file);
        return stored_as_told(last.code);
    });
}

TEST_P(LiveOutOfMemory, InAnUploadOfUnknownSize) {
    fail_each([&] {
        store().clear();
        put("/bucket/known", file);
        Client client = log_in(server);
        const Reply last = client.store("STOR /bucket/new", file);
        return stored_as_told(last.code);
    });
}

TEST_P(LiveOutOfMemory, InADownloadInExtendedMode) {
    fail_each([&] {
        Receiver receiver;
        Client client = log_in(server);
        expect_reply(client.command("MODE E"));
        expect_reply(client.command("EPRT |1|127.0.0.1|" + std::to_string(receiver.port()) + "|"));
        client.send("RETR /bucket/known\r\n");
        if (final_reply(client) != 226) return false;
        EXPECT_TRUE(joined(receiver.finish()) == file);
        return true;
    });
}

TEST_P(LiveOutOfMemory, InAnUploadOfAnnouncedSizeInExtendedMode) {
    fail_each([&] { return upload_blocks(true); });
}

TEST_P(LiveOutOfMemory, InAnUploadOfUnknownSizeInExtendedMode) {
    fail_each([&] { return upload_blocks(false); });
}

TEST_P(LiveOutOfMemory, InAnAbortOfAnUpload) {
    fail_each(
        [&] { return abort_transfer("STOR /bucket/new", std::string_view(file).substr(0, file_size / 2)); });
    EXPECT_FALSE(stored("/bucket/new"));
}

TEST_P(LiveOutOfMemory, InAnAbortOfADownload) {
    put("/bucket/large", pattern(8U << 20U));
    fail_each([&] { return abort_transfer("RETR /bucket/large", {}); });
}
