/*
 * The control connection: reading, queueing, dispatching, replying, ending; see session.h. What the session
 * does at the back end is in session_storage.cpp.
 */
#include "session.h"

#include <fmt/format.h>
#include <poll.h>
#include <string.h>

#include <algorithm>
#include <array>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <exception>

#include "command_table.h"
#include "data_address.h"
#include "out_of_memory.h"
#include "replies.h"
#include "server_log.h"
#include "text.h"
#include "timer_entry.h"

namespace zorvan::gridftp {

namespace {

using clock = std::chrono::steady_clock;

/** Lines that may wait while a command runs; more stay in the network. */
constexpr std::size_t most_waiting_lines = 64;
/** Unsent output beyond which a coroutine waits, bytes. */
constexpr std::size_t most_unsent = 65536;
/** Unknown commands before log-in after which this is no FTP client (a browser's request, a port scan). */
constexpr unsigned most_bad_commands = 20;
/** How long a client may take to close its side after the last reply. */
constexpr std::chrono::seconds linger_time{2};
/** How long a client may leave replies unread. */
constexpr std::chrono::seconds write_time{120};

std::unique_ptr<data_stream> make_control_stream(asio::ip::tcp::socket socket) {
    boost::system::error_code ignored;
    socket.set_option(asio::ip::tcp::no_delay(true), ignored);
    socket.set_option(asio::socket_base::keep_alive(true), ignored);
    // Clients send the Telnet signal before ABOR as urgent data; taken out of line, its last byte would go
    // missing.
    socket.set_option(asio::socket_base::out_of_band_inline(true), ignored);
    return make_tcp_stream(std::move(socket));
}

template <class Socket>
asio::ip::address remote_address(const Socket& socket) {
    boost::system::error_code ignored;
    return unmapped(socket.remote_endpoint(ignored).address());
}

template <class Socket>
asio::ip::address local_address_of(const Socket& socket) {
    boost::system::error_code ignored;
    return unmapped(socket.local_endpoint(ignored).address());
}

}  // namespace

session::session(const session_environment& environment, asio::ip::tcp::socket socket)
    : environment_(environment),
      executor_(socket.get_executor()),
      control_socket_(socket.native_handle()),
      client_address_(remote_address(socket)),
      local_address_(local_address_of(socket)),
      line_event_(executor_),
      room_event_(executor_),
      helper_event_(executor_),
      watchdog_(executor_),
      began_(clock::now()),
      last_activity_(began_) {
    control_ = make_control_stream(std::move(socket));
    for (const collection_config& collection : environment_.config.collections) {
        if (collection.is_default) collection_ = &collection;
    }
}

session::~session() = default;

void session::log(int level, std::string_view text) const {
    if (!log_enabled(level)) return;
    const std::string& user = parameters_.user;
    const bool whole = run_without_throwing([&] {
        log_line(level, fmt::format("[{}{}{}] {}", client_address_.to_string(), user.empty() ? "" : " ",
                                    printable(user), text));
    });
    if (!whole) log_line(level, text);
}

// ------------------------------------------------------------------ the three coroutines

void session::start_helper(task<void> body) {
    ++helpers_;
    auto self = shared_from_this();
    try {
        asio::co_spawn(executor_, std::move(body), [self](const std::exception_ptr& error) {
            if (error) {
                self->log(ZORVAN_GFS_LOG_ERROR, "the session ends: out of resources");
                self->input_ended(true);
            }
            --self->helpers_;
            self->helper_event_.notify();
            self->watchdog_.cancel();
        });
    } catch (...) {
        // It has not begun and will not end.
        --helpers_;
        throw;
    }
}

task<void> session::run() {
    const auto self = shared_from_this();
    log(ZORVAN_GFS_LOG_INFO, "connected");
    start_helper(read_lines());
    start_helper(watch());
    bool broken = false;
    try {
        co_await serve();
        // What another coroutine is sending goes out before the end of the connection.
        co_await wait_for_output(0);
    } catch (const std::exception& error) {
        log(ZORVAN_GFS_LOG_ERROR, "the session ends with an exception");
        log(ZORVAN_GFS_LOG_ERROR, error.what());
        broken = true;
    }
    if (broken) {
        try {
            co_await send(reply(421, texts::out_of_resources));
            co_await wait_for_output(0);
        } catch (const std::exception&) {
            // Then it is closed without a word.
            input_ended(true);
        }
    }
    done_ = true;
    parameters_.connector.reset();
    storage_.reset();
    if (!lost_) co_await control_->shutdown();
    if (input_ended_) control_->close();
    // The last reply must not be lost to a reset: wait, for a while, until the client has closed its side.
    linger_until_ = clock::now() + linger_time;
    watchdog_.cancel();
    room_event_.notify();
    while (helpers_ != 0)
        co_await helper_event_.wait();
    control_->close();
    log(ZORVAN_GFS_LOG_INFO, "disconnected");
}

task<void> session::serve() {
    co_await answer(220, config().banner);
    while (!closing_ && !lost_) {
        if (!waiting_.empty() && !draining_) {
            waiting_line line = std::move(waiting_.front());
            waiting_.pop_front();
            room_event_.notify();
            handling_ = true;
            if (line.too_long) {
                co_await answer(500, texts::line_too_long);
            } else {
                co_await dispatch(std::move(line.text));
            }
            handling_ = false;
            note_activity();
            // A client that keeps the commands coming leaves the watchdog no moment between two of them.
            end_late_login();
            continue;
        }
        if (draining_) {
            end(texts::shutting_down);
        } else if (input_ended_) {
            break;
        } else {
            co_await line_event_.wait();
        }
    }
    if (!end_reply_.empty()) co_await send(end_reply_);
}

task<void> session::dispatch(std::string line) {
    const command_line parts = split_command_line(line);
    log(ZORVAN_GFS_LOG_DEBUG, loggable_line(line));
    const command_entry* entry = find_command(parts.verb);
    if (entry == nullptr) {
        if (!logged_in() && ++bad_commands_ >= most_bad_commands) {
            end(texts::too_many_errors);
        } else {
            co_await answer(500, texts::unknown_command);
        }
        co_return;
    }
    if (!entry->before_login && !logged_in()) {
        co_await answer(530, texts::need_user);
        co_return;
    }
    const bool blank = trim(parts.argument).empty();
    if (entry->argument == argument_rule::none && !blank) {
        co_await answer(501, texts::no_argument_wanted);
    } else if (entry->argument == argument_rule::required && blank) {
        co_await answer(501, texts::argument_wanted);
    } else {
        co_await entry->handler(*this, parts.argument);
    }
    if (entry->verb == "PASS") ::explicit_bzero(line.data(), line.size());
}

task<void> session::read_lines() {
    control_line_state state;
    std::array<char, 4096> buffer;
    for (;;) {
        while (waiting_.size() >= most_waiting_lines && !done_)
            co_await room_event_.wait();
        const io_result result = co_await control_->read_some(asio::buffer(buffer));
        std::string_view rest(buffer.data(), result.bytes);
        while (!rest.empty() && !done_) {
            control_line_step step = parse_control_line(state, rest);
            rest.remove_prefix(step.consumed);
            if (!step.answer.empty()) co_await send(std::move(step.answer));
            if (step.complete) co_await take_line(std::move(step.line), step.too_long);
        }
        if (result.error) {
            input_ended(result.error != asio::error::eof);
            co_return;
        }
    }
}

task<void> session::take_line(std::string line, bool too_long) {
    if (line.empty() && !too_long) co_return;
    if (!too_long && (operation_running_ || watched_connector_ != nullptr)) {
        const command_line parts = split_command_line(line);
        if (equals_ignoring_case(parts.verb, "ABOR")) {
            log(ZORVAN_GFS_LOG_DEBUG, "ABOR of the running operation");
            abort_operation();
        } else if (!data_announced_ || !waiting_.empty()) {
            // The client takes the next reply for that of an earlier command.
        } else if (equals_ignoring_case(parts.verb, "NOOP")) {
            co_await answer(200, texts::ok);
            co_return;
        } else if (equals_ignoring_case(parts.verb, "STAT") && trim(parts.argument).empty()) {
            co_await send(multi_line_reply(211, "Status of the server:", status_lines(), "End of status."));
            co_return;
        }
    }
    waiting_.push_back({std::move(line), too_long});
    line_event_.notify();
}

void session::note_activity() {
    // The watchdog reads this when its timer ends and sets the timer anew: cheaper than a timer per command.
    last_activity_ = clock::now();
}

bool session::end_late_login() {
    if (logged_in() || closing_ || clock::now() < began_ + config().login) return false;
    log(ZORVAN_GFS_LOG_INFO, "log-in timed out");
    end(texts::login_timeout);
    return true;
}

void session::end(std::string_view reason) {
    if (closing_) return;
    closing_ = true;
    end_reply_ = reply(421, reason);
    line_event_.notify();
}

task<void> session::watch() {
    for (;;) {
        const auto now = clock::now();
        auto next = now + std::chrono::hours{1};
        if (writing_) {
            next = std::min(next, write_began_ + write_time);
            if (now >= write_began_ + write_time) {
                log(ZORVAN_GFS_LOG_INFO, "the client does not read its replies");
                input_ended(true);
                control_->reset();
            }
        } else {
            next = std::min(next, now + write_time);
        }
        if (done_) {
            if (helpers_ <= 1) co_return;
            next = std::min(next, linger_until_);
            if (now >= linger_until_) {
                control_->close();
                co_return;
            }
        } else if (!handling_ && !closing_) {
            const auto idle_end = last_activity_ + config().idle;
            const auto login_end = began_ + config().login;
            if (end_late_login()) {
                // Said and done.
            } else if (now >= idle_end) {
                log(ZORVAN_GFS_LOG_INFO, "idle for too long");
                end(texts::idle_timeout);
            } else {
                next = std::min(next, logged_in() ? idle_end : std::min(login_end, idle_end));
            }
        } else {
            // Time stands still while a command runs; its end sets last_activity_.
            next = std::min(next, now + std::min(config().idle, config().login));
        }
        watchdog_.expires_at(std::max(next, now + std::chrono::milliseconds{10}));
        boost::system::error_code ignored;
        enter_timer(watchdog_);
        co_await watchdog_.async_wait(asio::redirect_error(asio::use_awaitable, ignored));
    }
}

// ---------------------------------------------------------------------------- sending

task<void> session::send(std::string text) {
    if (lost_) co_return;
    output_ += text;
    if (writing_) {
        co_await wait_for_output(most_unsent);
        co_return;
    }
    writing_ = true;
    co_await write_output();
}

bool session::offer(std::string text) {
    if (lost_ || done_ || writing_) return false;
    output_ = std::move(text);
    writing_ = true;
    try {
        start_helper(write_output());
    } catch (const std::exception&) {
        writing_ = false;
        output_.clear();
        return false;
    }
    return true;
}

void session::wake_senders() {
    for (const async_event& each : senders_)
        each.notify();
}

/** Wait until at most so much waits behind what is being written; 0: until nothing is. */
task<void> session::wait_for_output(std::size_t most) {
    const auto blocked = [this, most] { return writing_ && !lost_ && (most == 0 || output_.size() > most); };
    if (!blocked()) co_return;
    const auto own = senders_.emplace(senders_.end(), executor_);
    while (blocked())
        co_await own->wait();
    senders_.erase(own);
}

task<void> session::write_output() {
    while (!output_.empty() && !lost_) {
        const std::string chunk = std::exchange(output_, {});
        std::size_t done = 0;
        write_began_ = clock::now();
        while (done < chunk.size() && !lost_) {
            const std::array<asio::const_buffer, 1> buffers{
                asio::const_buffer(chunk.data() + done, chunk.size() - done)};
            const io_result result = co_await control_->write_some(buffers);
            done += result.bytes;
            if (result.error) input_ended(true);
        }
        wake_senders();
    }
    writing_ = false;
    wake_senders();
}

task<void> session::answer(int code, std::string_view text) {
    co_await send(reply(code, text));
}

// ----------------------------------------------------------------------------- ending

void session::input_ended(bool lost) {
    input_ended_ = true;
    lost_ = lost_ || lost;
    if (storage_ && (lost_ || data_running_ || watched_connector_ != nullptr)) {
        storage_->client_gone();
        abort_operation();
    }
    line_event_.notify();
    room_event_.notify();
    wake_senders();
}

bool session::client_is_there() const noexcept {
    if (lost_ || input_ended_) return false;
    // What the reader has not come to yet counts too: a client that was killed ends all its connections at
    // once.
    pollfd entry{control_socket_, POLLRDHUP, 0};
    return ::poll(&entry, 1, 0) == 0;
}

void session::abort_operation() {
    if (storage_) storage_->abort();
    if (watched_connector_ != nullptr) watched_connector_->cancel();
    if (watched_stream_ != nullptr) watched_stream_->reset();
}

void session::drain() {
    asio::post(executor_, [self = shared_from_this()] {
        self->draining_ = true;
        self->line_event_.notify();
    });
}

void session::cut() {
    asio::post(executor_, [self = shared_from_this()] {
        self->input_ended(true);
        self->control_->reset();
    });
}

}  // namespace zorvan::gridftp
