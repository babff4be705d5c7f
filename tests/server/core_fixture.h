// What the tests of the data storage interface share: a host with I/O threads, the forwarding back end behind
// the real loader, a client's end of a data connection, and records of what was called back.
#pragma once

#include <arpa/inet.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/use_future.hpp>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "backend.h"
#include "backend_session.h"
#include "data_stream.h"
#include "host.h"
#include "promise_backend.h"
#include "resource_census.h"

namespace zorvan::gridftp::testing_support {

using namespace std::chrono_literals;
constexpr auto patience = 30s;  // a bound for what must happen; no test is decided by it

/// The client's end of a data connection: a blocking socket.
class client_socket {
  public:
    explicit client_socket(int socket) : socket_(socket) {
        const timeval limit{30, 0};
        ::setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        ::setsockopt(socket_, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    }
    client_socket(const client_socket&) = delete;
    client_socket& operator=(const client_socket&) = delete;
    ~client_socket() { close(); }

    bool write(const std::string& data) {
        std::size_t done = 0;
        while (done < data.size()) {
            const auto count = ::send(socket_, data.data() + done, data.size() - done, MSG_NOSIGNAL);
            if (count <= 0) {
                return false;
            }
            done += static_cast<std::size_t>(count);
        }
        return true;
    }
    void end() { ::shutdown(socket_, SHUT_WR); }
    void reset() {
        const linger now{1, 0};
        ::setsockopt(socket_, SOL_SOCKET, SO_LINGER, &now, sizeof now);
        close();
    }
    void close() {
        if (socket_ >= 0) {
            ::close(std::exchange(socket_, -1));
        }
    }
    /// Everything until the end. `clean` says whether the end was one, and not a reset.
    std::string read_all(bool* clean = nullptr) {
        std::string data;
        char piece[65536];
        for (;;) {
            const auto count = ::recv(socket_, piece, sizeof piece, 0);
            if (count <= 0) {
                if (clean != nullptr) {
                    *clean = count == 0;
                }
                return data;
            }
            data.append(piece, static_cast<std::size_t>(count));
        }
    }
    std::string read_exactly(std::size_t size) {
        std::string data(size, '\0');
        std::size_t done = 0;
        while (done < size) {
            const auto count = ::recv(socket_, data.data() + done, size - done, 0);
            if (count <= 0) {
                break;
            }
            done += static_cast<std::size_t>(count);
        }
        data.resize(done);
        return data;
    }

  private:
    int socket_;
};

/// Hands a connected pair's server end to the core, or an error.
class test_connector final : public data_connector {
  public:
    explicit test_connector(const asio::any_io_executor& strand) : event_(strand), strand_(strand) {}

    /// Make the pair; the client's end. Before the transfer starts.
    std::unique_ptr<client_socket> open() {
        asio::ip::tcp::acceptor acceptor(strand_, {asio::ip::address_v4::loopback(), 0});
        const int client = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(acceptor.local_endpoint().port());
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (::connect(client, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
            ADD_FAILURE() << "connect";
        }
        socket_.emplace(acceptor.accept());
        return std::make_unique<client_socket>(client);
    }
    /// The connect fails with this. Without either, it waits for cancel().
    void fail_with(int code, std::string text) {
        code_ = code;
        error_ = std::move(text);
    }

    task<connect_result> connect() override {
        ++connects;
        connect_result result;
        if (socket_) {
            result.stream = make_tcp_stream(std::move(*socket_));
            co_return result;
        }
        while (!error_ && !cancelled) {
            co_await event_.wait();
        }
        result.reply_code = code_;
        result.error = error_.value_or("cancelled");
        co_return result;
    }
    void cancel() noexcept override {
        cancelled = true;
        event_.notify();
    }
    /// Close what nobody asked for.
    void discard() { socket_.reset(); }
    std::atomic<int> connects{0};
    std::atomic<bool> cancelled{false};

  private:
    async_event event_;
    asio::any_io_executor strand_;
    std::optional<asio::ip::tcp::socket> socket_;
    int code_ = 425;
    std::optional<std::string> error_;
};

class test_events final : public transfer_events {
  public:
    task<void> on_first_data() override {
        ++announced;
        if (broken) {
            throw std::runtime_error("the control connection is gone");
        }
        co_return;
    }
    bool control_alive() noexcept override { return alive; }
    std::atomic<int> announced{0};
    std::atomic<bool> alive{true};
    std::atomic<bool> broken{false};
};

/// One callback, as it came.
struct called {
    bool failed = false;
    std::string data;
    std::int64_t offset = 0;
    bool eof = false;
    std::size_t bytes = 0;
    void* argument = nullptr;
    std::thread::id thread;
};

/// Keeps buffers for an operation and what was called back, in order.
class recorder {
  public:
    recorder() = default;
    recorder(const recorder&) = delete;
    recorder& operator=(const recorder&) = delete;
    /// Every accepted buffer came back once, a refused one never, and none was touched afterwards.
    ~recorder() {
        for (const auto& lent : buffers_) {
            EXPECT_EQ(lent->calls, lent->accepted ? 1 : 0);
            if (lent->calls > 0) {
                EXPECT_EQ(lent->data.find_first_not_of(returned_mark), std::string::npos);
            }
        }
    }

    zorvan_result_t read(zorvan_gridftp_server_operation_t op, std::size_t size) {
        auto* lent = lend(std::string(size, '#'));
        zorvan_result_t result = ZORVAN_SUCCESS;
        around_call([&] {
            result = zorvan_gridftp_server_register_read(
                op, reinterpret_cast<unsigned char*>(lent->data.data()), size, read_done, lent);
        });
        accepted(*lent, result);
        return result;
    }
    zorvan_result_t write(zorvan_gridftp_server_operation_t op, std::string data, std::int64_t offset) {
        const auto size = data.size();
        auto* lent = lend(std::move(data));
        zorvan_result_t result = ZORVAN_SUCCESS;
        around_call([&] {
            result = zorvan_gridftp_server_register_write(
                op, reinterpret_cast<unsigned char*>(lent->data.data()), size, offset, -1, write_done, lent);
        });
        accepted(*lent, result);
        return result;
    }
    /// Wait until so many callbacks have come and in_callback has returned from each. @return all of them
    std::vector<called> wait(std::size_t count) {
        std::unique_lock lock(mutex_);
        if (!changed_.wait_for(lock, patience, [&] { return ended_ >= count; })) {
            ADD_FAILURE() << "only " << ended_ << " of " << count << " callbacks";
        }
        return calls_;
    }
    std::vector<called> calls() {
        const std::lock_guard lock(mutex_);
        return calls_;
    }
    std::string data() {
        std::string all;
        for (const auto& call : calls()) {
            all += call.data;
        }
        return all;
    }
    std::size_t accepted() {
        const std::lock_guard lock(mutex_);
        return accepted_;
    }
    /// Does the call that registers.
    std::function<void(const std::function<void()>&)> around_call = [](const auto& call) { call(); };
    /// Runs inside the callback, after it was recorded.
    std::function<void(const called&)> in_callback;

  private:
    struct lent_buffer {
        recorder* owner;
        std::string data;
        bool accepted = false;
        int calls = 0;
    };
    static constexpr char returned_mark = '~';
    lent_buffer* lend(std::string data) {
        const std::lock_guard lock(mutex_);
        buffers_.push_back(std::make_unique<lent_buffer>(lent_buffer{this, std::move(data), false, 0}));
        return buffers_.back().get();
    }
    void accepted(lent_buffer& lent, zorvan_result_t result) {
        const std::lock_guard lock(mutex_);
        lent.accepted = result == ZORVAN_SUCCESS;
        accepted_ += result == ZORVAN_SUCCESS ? 1 : 0;
    }
    void record(lent_buffer& lent, called call) {
        {
            const std::lock_guard lock(mutex_);
            ++lent.calls;
            // It is the back end's again.
            std::fill(lent.data.begin(), lent.data.end(), returned_mark);
            calls_.push_back(call);
        }
        if (in_callback) {
            in_callback(call);
        }
        // Only now: a test that waits for the call may see its end as well. Locked: it may destroy us then.
        const std::lock_guard lock(mutex_);
        ++ended_;
        changed_.notify_all();
    }
    static void read_done(zorvan_gridftp_server_operation_t, zorvan_result_t result, unsigned char* buffer,
                          std::size_t bytes, zorvan_off_t offset, int eof, void* argument) {
        auto* lent = static_cast<lent_buffer*>(argument);
        EXPECT_EQ(static_cast<void*>(buffer), static_cast<void*>(lent->data.data()));
        lent->owner->record(*lent, {result != ZORVAN_SUCCESS, lent->data.substr(0, bytes), offset, eof != 0,
                                    bytes, argument, std::this_thread::get_id()});
    }
    static void write_done(zorvan_gridftp_server_operation_t, zorvan_result_t result, unsigned char* buffer,
                           std::size_t bytes, void* argument) {
        auto* lent = static_cast<lent_buffer*>(argument);
        EXPECT_EQ(static_cast<void*>(buffer), static_cast<void*>(lent->data.data()));
        lent->owner->record(*lent, {result != ZORVAN_SUCCESS, lent->data.substr(0, bytes), 0, false, bytes,
                                    argument, std::this_thread::get_id()});
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::unique_ptr<lent_buffer>> buffers_;
    std::vector<called> calls_;
    std::size_t ended_ = 0;
    std::size_t accepted_ = 0;
};

/// A flag that one thread raises and another waits for.
class flag {
  public:
    void raise() {
        const std::lock_guard lock(mutex_);
        raised_ = true;
        changed_.notify_all();
    }
    void wait() {
        std::unique_lock lock(mutex_);
        EXPECT_TRUE(changed_.wait_for(lock, patience, [&] { return raised_; }));
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool raised_ = false;
};

using op_handle = zorvan_gridftp_server_operation_t;

/// The back end's entries of the running test.
struct script {
    std::function<void(op_handle, const zorvan_gridftp_server_session_info_t*)> session_start;
    std::function<void(void*)> session_destroy;
    std::function<void(op_handle, const zorvan_gridftp_server_transfer_info_t*)> send;
    std::function<void(op_handle, const zorvan_gridftp_server_transfer_info_t*)> recv;
    std::function<void(op_handle, const zorvan_gridftp_server_command_info_t*)> command;
    std::function<void(op_handle, const zorvan_gridftp_server_stat_info_t*)> stat;
};

inline script& the_script() {
    static script current;
    return current;
}

/// The loaded forwarding back end; one per process, as in the server.
inline backend& promise_module() {
    static std::unique_ptr<backend> loaded = [] {
        std::string error;
        auto made = backend::load(ZORVAN_TEST_MODULE_DIR, "promise", "the options", error);
        if (!made) {
            throw std::runtime_error(error);
        }
        void* object =
            ::dlopen(ZORVAN_TEST_MODULE_DIR "/libzorvan_gridftp_server_promise.so", RTLD_NOW | RTLD_NOLOAD);
        auto& entries = *static_cast<zorvan_promise_entries_s*>(::dlsym(object, "zorvan_promise_entries"));
        entries.session_start = [](auto op, auto info) { the_script().session_start(op, info); };
        entries.session_destroy = [](void* session) { the_script().session_destroy(session); };
        entries.send = [](auto op, auto info, void*) { the_script().send(op, info); };
        entries.recv = [](auto op, auto info, void*) { the_script().recv(op, info); };
        entries.command = [](auto op, auto info, void*) { the_script().command(op, info); };
        entries.stat = [](auto op, auto info, void*) { the_script().stat(op, info); };
        return made;
    }();
    return *loaded;
}

class core_test : public ::testing::Test {
  protected:
    void SetUp() override {
        config.block_size = 1000;
        config.concurrency = 3;
        // Loaded before anything is counted: it stays.
        (void)promise_module();
        census.emplace();
        spool_directory.emplace();
        config.spool.directory = spool_directory->path();
        config.spool.memory = 1 << 20;
        config.spool.limit = 8 << 20;
        config.idle_thread = 100ms;
        the_script() = {};
        the_script().session_start = [](op_handle op, auto) {
            zorvan_gridftp_server_finished_session_start(op, ZORVAN_SUCCESS, session_value(), nullptr,
                                                         nullptr);
        };
        the_script().session_destroy = [this](void* destroyed) {
            EXPECT_EQ(destroyed, session_value());
            ++destroyed_sessions;
        };
        for (int i = 0; i < 2; ++i) {
            threads_.emplace_back([this] { io.run(); });
        }
    }

    void TearDown() override {
        if (session) {
            close_session();
        }
        if (shared) {
            EXPECT_TRUE(shared->wait_idle(30s));
            expect_nothing_alive(shared->counters());
        }
        shared.reset();
        work_.reset();
        for (auto& thread : threads_) {
            thread.join();
        }
        connector.discard();
        EXPECT_EQ(destroyed_sessions, expected_destroys);
        spool_directory.reset();
        EXPECT_EQ(zorvan_error_table_count(), 0u);
        census->check_nothing_added();
    }

    static void* session_value() { return reinterpret_cast<void*>(0x5e551); }

    /// Run a coroutine on the strand; the future gives its outcome.
    template <class T>
    std::future<T> start(task<T> coroutine) {
        return asio::co_spawn(strand, std::move(coroutine), asio::use_future);
    }
    template <class T>
    static T result_of(std::future<T> future) {
        if (future.wait_for(patience) != std::future_status::ready) {
            // Nothing can be unwound from here: the coroutine has references to the test's objects.
            std::fprintf(stderr, "a coroutine did not return\n");
            std::abort();
        }
        return future.get();
    }
    void on_strand(std::function<void()> function) {
        std::promise<void> done;
        asio::post(strand, [&] {
            function();
            done.set_value();
        });
        done.get_future().wait();
    }

    /// Log in, with the configuration as it is now.
    void log_in() {
        if (!shared) {
            shared = std::make_unique<host>(config, io.get_executor());
        }
        auto outcome = result_of(start(
            backend_session::start(promise_module(), *shared, strand, {"user", "127.0.0.1", "", {}, {}})));
        ASSERT_NE(outcome.session, nullptr);
        session = std::move(outcome.session);
        ++expected_destroys;
    }
    void close_session() {
        on_strand([this] { session.reset(); });
    }
    /// Wait until no back-end code runs any more: for tests whose entries use the test's own variables after
    /// they have finished their operation.
    void settle() {
        if (session) {
            close_session();
        }
        EXPECT_TRUE(shared->wait_idle(30s));
    }
    /// Wait until every buffer came back and no thread is inside the back end, the session kept.
    void settle_threads() {
        const auto limit = std::chrono::steady_clock::now() + patience;
        for (auto counts = shared->counters(); counts.callbacks != 0 || counts.busy_threads != 0;
             counts = shared->counters()) {
            ASSERT_LT(std::chrono::steady_clock::now(), limit) << "an operation does not end";
            std::this_thread::yield();
        }
    }
    void abort() {
        on_strand([this] { session->abort(); });
    }

    std::future<transfer_outcome> start_receive(receive_request request) {
        return start(session->receive(std::move(request), connector, events));
    }
    std::future<transfer_outcome> start_send(send_request request) {
        return start(session->send(std::move(request), connector, events));
    }
    static receive_request sized(std::uint64_t size, std::string path = "/bucket/file") {
        receive_request request;
        request.path = std::move(path);
        request.announced_size = size;
        return request;
    }
    static zorvan_result_t new_error(const char* text = "it went wrong") {
        return zorvan_error_put(zorvan_error_construct_error(nullptr, nullptr, ZORVAN_ERROR_TYPE_GENERIC,
                                                             "test", "test", 1, "%s", text));
    }

    std::optional<resource_census> census;
    std::optional<empty_directory> spool_directory;
    asio::io_context io;
    asio::any_io_executor strand = asio::make_strand(io);
    host_config config;
    std::unique_ptr<host> shared;
    std::unique_ptr<backend_session> session;
    test_connector connector{strand};
    test_events events;
    std::atomic<int> destroyed_sessions{0};
    int expected_destroys = 0;

  private:
    asio::executor_work_guard<asio::io_context::executor_type> work_ = asio::make_work_guard(io);
    std::vector<std::thread> threads_;
};

/// Text of `size` bytes that differs from place to place.
inline std::string pattern(std::size_t size, unsigned seed = 1) {
    std::string text(size, '\0');
    for (std::size_t i = 0; i < size; ++i) {
        seed = seed * 1664525u + 1013904223u;
        text[i] = static_cast<char>(seed >> 24);
    }
    return text;
}

}  // namespace zorvan::gridftp::testing_support
