// One connection: read a head, let the router perform the request with the
// body streamed from the socket, send the reply, again. Heads are parsed by
// Beast; bodies of known length go straight from the socket to where they are
// stored, and stored blocks straight back to the socket.
#include "http_session.h"

#include <poll.h>

#include <array>
#include <boost/asio/as_tuple.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http.hpp>
#include <cstring>
#include <iostream>

#include "router.h"
#include "text.h"

namespace zorvan::devstore {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = boost::beast::http;
using tcp = asio::ip::tcp;
using boost::system::error_code;

constexpr auto use_tuple = asio::as_tuple(asio::use_awaitable);
constexpr std::size_t head_limit = 64 * 1024;
// A refused body up to this size is read and dropped to keep the connection; a larger one ends it.
constexpr std::uint64_t drain_limit = 256 * 1024;
constexpr std::chrono::seconds linger_limit{5};

using head_parser = http::request_parser<http::buffer_body>;

class session;

// The body of the current request, read off the session's socket.
class socket_body final : public body_reader {
  public:
    explicit socket_body(session& owner) : owner_(owner) {}
    asio::awaitable<std::size_t> read_some(std::span<char> room) override;

  private:
    session& owner_;
};

class session {
  public:
    session(tcp::socket socket, store& data, std::uint64_t number)
        : stream_(std::move(socket)), data_(data), number_(number) {}

    asio::awaitable<void> run();

  private:
    friend class socket_body;

    asio::awaitable<bool> read_head();
    asio::awaitable<bool> exchange_once();
    asio::awaitable<http_response> perform();
    asio::awaitable<std::size_t> read_body(std::span<char> room);
    asio::awaitable<std::size_t> read_plain(std::span<char> room);
    asio::awaitable<std::size_t> read_chunked(std::span<char> room);
    asio::awaitable<void> send_continue();
    asio::awaitable<bool> drain_body();
    asio::awaitable<void> send(const http_response& response, bool close);
    asio::awaitable<void> send_content(const http_response& response, std::string head, std::uint64_t length);
    asio::awaitable<void> write_head(std::string head);
    asio::awaitable<void> write_counted(std::string_view data);
    asio::awaitable<void> stall();
    asio::awaitable<void> linger();
    void cut();
    void note(std::string_view outcome);
    void note_end(std::uint64_t still_to_send);
    [[nodiscard]] bool body_pending() const;

    beast::tcp_stream stream_;
    store& data_;
    std::uint64_t number_;
    beast::flat_buffer buffer_{};

    // Of the current exchange.
    std::optional<head_parser> parser_;
    http_request request_;
    std::optional<fault_action> fault_;
    logged_request entry_;
    std::uint64_t remaining_ = 0;  ///< body bytes of a known length not yet read
    bool expects_continue_ = false;
    std::vector<char> scratch_;
};

asio::awaitable<std::size_t> socket_body::read_some(std::span<char> room) {
    return owner_.read_body(room);
}

void session::note(std::string_view outcome) {
    entry_.outcome = outcome;
    data_.log.update(entry_);
}

// Called before the last write of a reply: whoever has read the reply finds the exchange ended in the log.
void session::note_end(std::uint64_t still_to_send) {
    auto state = entry_;
    state.bytes_out += still_to_send;
    state.outcome = "done";
    data_.log.update(state);
}

bool session::body_pending() const {
    return request_.chunked ? !parser_->is_done() : remaining_ > 0;
}

void session::cut() {
    note("cut");
    error_code ignored;
    if (fault_ && fault_->reset) {
        stream_.socket().set_option(asio::socket_base::linger(true, 0), ignored);
    } else {
        stream_.socket().shutdown(tcp::socket::shutdown_both, ignored);
    }
    stream_.socket().close(ignored);
    throw connection_lost();
}

// Holds the exchange until the rules are cleared or the peer is gone.
asio::awaitable<void> session::stall() {
    asio::steady_timer timer(co_await asio::this_coro::executor);
    while (data_.faults.generation() == fault_->generation) {
        pollfd state{stream_.socket().native_handle(), POLLRDHUP, 0};
        if (::poll(&state, 1, 0) > 0 && (state.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0) {
            note("lost");
            throw connection_lost();
        }
        timer.expires_after(std::chrono::milliseconds(20));
        co_await timer.async_wait(use_tuple);
    }
}

asio::awaitable<bool> session::read_head() {
    parser_.emplace();
    parser_->header_limit(head_limit);
    parser_->body_limit(boost::none);
    stream_.expires_after(data_.config.idle_timeout);
    const auto [error, size] = co_await http::async_read_header(stream_, buffer_, *parser_, use_tuple);
    if (error) {
        const bool malformed =
            error.category() == http::make_error_code(http::error::bad_method).category() &&
            error != http::error::end_of_stream && error != http::error::partial_message;
        if (malformed)
            co_await write_head("HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
        co_return false;
    }
    const auto& head = parser_->get();
    request_ = {};
    request_.method = std::string(head.method_string());
    set_target(request_, std::string_view(head.target().data(), head.target().size()));
    for (const auto& field : head)
        request_.headers.emplace_back(
            to_lower(std::string_view(field.name_string().data(), field.name_string().size())),
            std::string(field.value()));
    request_.chunked = parser_->chunked();
    if (const auto length = parser_->content_length()) request_.content_length = *length;
    request_.keep_alive = parser_->keep_alive();
    remaining_ = request_.content_length.value_or(0);
    expects_continue_ = equals_ignoring_case(request_.header("expect"), "100-continue");
    co_return true;
}

asio::awaitable<void> session::send_continue() {
    expects_continue_ = false;
    if (fault_ && fault_->withhold_continue) co_return;
    entry_.sent_continue = true;
    co_await write_head("HTTP/1.1 100 Continue\r\n\r\n");
}

asio::awaitable<std::size_t> session::read_plain(std::span<char> room) {
    const auto wanted = static_cast<std::size_t>(std::min<std::uint64_t>(room.size(), remaining_));
    std::size_t n = 0;
    if (buffer_.size() > 0) {
        n = std::min(wanted, buffer_.size());
        std::memcpy(room.data(), buffer_.data().data(), n);
        buffer_.consume(n);
    } else {
        stream_.expires_after(data_.config.idle_timeout);
        const auto [error, size] =
            co_await stream_.async_read_some(asio::buffer(room.data(), wanted), use_tuple);
        if (error || size == 0) {
            note("lost");
            throw connection_lost();
        }
        n = size;
    }
    remaining_ -= n;
    co_return n;
}

asio::awaitable<std::size_t> session::read_chunked(std::span<char> room) {
    while (!parser_->is_done()) {
        auto& body = parser_->get().body();
        body.data = room.data();
        body.size = room.size();
        body.more = true;
        stream_.expires_after(data_.config.idle_timeout);
        const auto [error, size] = co_await http::async_read_some(stream_, buffer_, *parser_, use_tuple);
        if (error && error != http::error::need_buffer) {
            note("lost");
            throw connection_lost();
        }
        if (const auto n = room.size() - body.size; n > 0) co_return n;
    }
    co_return 0;
}

asio::awaitable<std::size_t> session::read_body(std::span<char> room) {
    // Also for an empty body: the real gateway does, and botocore waits for it.
    if (expects_continue_) co_await send_continue();
    if (!body_pending()) co_return 0;
    if (fault_) {
        // Room is narrowed so that the fault strikes at its byte.
        for (const auto& [limit, is_cut] :
             {std::pair{fault_->cut_request_after, true}, std::pair{fault_->stall_request_after, false}}) {
            if (!limit) continue;
            if (entry_.bytes_in >= *limit) {
                if (is_cut) cut();
                fault_->stall_request_after.reset();
                co_await stall();
            } else {
                room = room.first(
                    static_cast<std::size_t>(std::min<std::uint64_t>(room.size(), *limit - entry_.bytes_in)));
            }
        }
    }
    std::size_t n = 0;
    if (request_.chunked) {
        n = co_await read_chunked(room);
    } else {
        n = co_await read_plain(room);
    }
    entry_.bytes_in += n;
    co_return n;
}

asio::awaitable<bool> session::drain_body() {
    std::array<char, 16 * 1024> dropped{};
    std::uint64_t total = 0;
    while (body_pending() && total < drain_limit) {
        std::size_t n = 0;
        if (request_.chunked) {
            n = co_await read_chunked(dropped);
        } else {
            n = co_await read_plain(dropped);
        }
        if (n == 0) break;
        total += n;
    }
    co_return !body_pending();
}

asio::awaitable<void> session::write_head(std::string head) {
    stream_.expires_after(data_.config.idle_timeout);
    const auto [error, size] = co_await asio::async_write(stream_, asio::buffer(head), use_tuple);
    if (error) {
        note("lost");
        throw connection_lost();
    }
}

// Writes body bytes; a cut or a stall strikes at its byte.
asio::awaitable<void> session::write_counted(std::string_view data) {
    while (!data.empty()) {
        std::string_view piece = data;
        if (fault_ && fault_->cut_reply_after) {
            if (entry_.bytes_out >= *fault_->cut_reply_after) cut();
            piece = piece.substr(0, *fault_->cut_reply_after - entry_.bytes_out);
        }
        if (fault_ && fault_->stall_reply_after) {
            if (entry_.bytes_out >= *fault_->stall_reply_after) {
                fault_->stall_reply_after.reset();
                co_await stall();
                continue;
            }
            piece = piece.substr(0, *fault_->stall_reply_after - entry_.bytes_out);
        }
        stream_.expires_after(data_.config.idle_timeout);
        const auto [error, size] = co_await asio::async_write(stream_, asio::buffer(piece), use_tuple);
        entry_.bytes_out += size;
        if (error) {
            note("lost");
            throw connection_lost();
        }
        data.remove_prefix(piece.size());
    }
    if (fault_ && fault_->cut_reply_after && entry_.bytes_out >= *fault_->cut_reply_after) cut();
}

asio::awaitable<void> session::send_content(const http_response& response, std::string head,
                                            std::uint64_t length) {
    std::uint64_t sent = 0;
    if (scratch_.empty()) scratch_.resize(block_size);
    while (sent < length) {
        auto piece = response.body.read(response.body_offset + sent, scratch_);
        piece = piece.substr(0, length - sent);
        if (sent + piece.size() == length && !fault_) note_end(piece.size());
        if (!head.empty() && !fault_) {
            // Head and first bytes leave in one segment: a small object costs one write.
            const std::array<asio::const_buffer, 2> both = {asio::buffer(head), asio::buffer(piece)};
            stream_.expires_after(data_.config.idle_timeout);
            const auto [error, size] = co_await asio::async_write(stream_, both, use_tuple);
            entry_.bytes_out += size > head.size() ? size - head.size() : 0;
            if (error) {
                note("lost");
                throw connection_lost();
            }
            head.clear();
        } else {
            if (!head.empty()) co_await write_head(std::exchange(head, {}));
            co_await write_counted(piece);
        }
        sent += piece.size();
    }
    if (!head.empty()) co_await write_head(std::move(head));
}

asio::awaitable<void> session::send(const http_response& response, bool close) {
    const bool bodiless = request_.method == "HEAD" || response.status == 204 || response.status == 304;
    std::uint64_t length = response.length();
    if (fault_ && fault_->short_body > 0) length -= std::min(length, fault_->short_body);
    std::string head = "HTTP/1.1 " + std::to_string(response.status) + " " +
                       std::string(reason_phrase(response.status)) + "\r\n";
    bool has_length = response.status == 204 || response.status == 304;
    for (const auto& [name, value] : response.headers) {
        has_length = has_length || equals_ignoring_case(name, "content-length");
        head += name;
        head += ": ";
        head += value;
        head += "\r\n";
    }
    if (!has_length) head += "Content-Length: " + std::to_string(length) + "\r\n";
    head += "Date: " + http_date(data_.clock.request_time() * 1000) + "\r\n";
    head += close ? "Connection: close\r\n\r\n" : "Connection: Keep-Alive\r\n\r\n";
    entry_.status = response.status;
    const std::uint64_t extra = fault_ && !bodiless ? fault_->overlong : 0;
    // A fault may still cut or hold what follows, and says so itself.
    const bool steady = !fault_ || !(fault_->cut_reply_after || fault_->stall_reply_after);
    if (bodiless || length == 0) {
        if (steady) note_end(0);
        co_await write_head(std::move(head));
    } else if (response.body_length) {
        if (fault_ && steady) note_end(length + extra);
        co_await send_content(response, std::move(head), length);
    } else if (fault_) {
        if (steady) note_end(length + extra);
        co_await write_head(std::move(head));
        co_await write_counted(std::string_view(response.text).substr(0, length));
    } else {
        note_end(length);
        co_await write_head(head + response.text);
        entry_.bytes_out = length;
    }
    if (fault_ && fault_->cut_reply_after && !bodiless && length == 0) cut();
    if (extra > 0) co_await write_counted(std::string(static_cast<std::size_t>(extra), 'x'));
}

asio::awaitable<http_response> session::perform() {
    socket_body body(*this);
    const bool scripted = fault_ && fault_->answers();
    http_response response;
    if (scripted && !fault_->perform) {
        if (fault_->read_body) {
            std::array<char, 16 * 1024> dropped{};
            while (co_await body.read_some(dropped) > 0) {
            }
        }
        response.set("x-amz-request-id", new_request_id(data_));
    } else {
        if (fault_) request_.ignore_range = fault_->ignore_range;
        response = co_await handle(data_, request_, body);
    }
    if (fault_) apply_fault(*fault_, response);
    co_return response;
}

// After a refusal the peer may still be sending: an immediate close would throw the reply away with a reset.
asio::awaitable<void> session::linger() {
    error_code ignored;
    stream_.socket().shutdown(tcp::socket::shutdown_send, ignored);
    std::vector<char> dropped(64 * 1024);
    stream_.expires_after(linger_limit);
    for (;;) {
        const auto [error, size] = co_await stream_.async_read_some(asio::buffer(dropped), use_tuple);
        if (error) co_return;
    }
}

asio::awaitable<bool> session::exchange_once() {
    entry_ = {};
    entry_.id = data_.log.begin(number_, request_);
    note_bucket_request(data_, request_);
    fault_ = data_.faults.match(request_);
    if (fault_ && fault_->delay_ms > 0) {
        asio::steady_timer timer(co_await asio::this_coro::executor);
        timer.expires_after(std::chrono::milliseconds(fault_->delay_ms));
        co_await timer.async_wait(use_tuple);
    }
    const auto response = co_await perform();
    if (fault_ && fault_->cut_before_reply) cut();
    if (fault_ && fault_->stall_before_reply) co_await stall();

    // A body whose 100 was never sent may or may not follow; one too large to drain is not worth waiting for.
    const bool unread = body_pending();
    const bool droppable = unread && !expects_continue_ && !request_.chunked && remaining_ <= drain_limit;
    const bool close = !request_.keep_alive || (unread && !droppable) || (fault_ && fault_->overlong > 0);
    co_await send(response, close);
    note("done");
    if (close) {
        co_await linger();
        co_return false;
    }
    if (!unread) co_return true;
    const bool drained = co_await drain_body();
    co_return drained;
}

asio::awaitable<void> session::run() {
    error_code ignored;
    auto& socket = stream_.socket();
    socket.set_option(tcp::no_delay(true), ignored);
    if (const int size = data_.config.socket_buffer; size > 0) {
        socket.set_option(asio::socket_base::receive_buffer_size(size), ignored);
        socket.set_option(asio::socket_base::send_buffer_size(size), ignored);
    }
    try {
        // One co_await per condition: g++ 12 does not short-circuit several.
        for (;;) {
            const bool more = co_await read_head();
            if (!more) break;
            const bool kept = co_await exchange_once();
            if (!kept) break;
        }
    } catch (const connection_lost&) {
        // Noted where it happened.
    }
    socket.shutdown(tcp::socket::shutdown_both, ignored);
}

asio::awaitable<void> run_session(tcp::socket socket, store& data, std::uint64_t number) {
    session connection(std::move(socket), data, number);
    co_await connection.run();
}

}  // namespace

asio::awaitable<void> serve(tcp::acceptor& acceptor, store& data) {
    std::uint64_t number = 0;
    for (;;) {
        auto [error, socket] =
            co_await acceptor.async_accept(asio::make_strand(acceptor.get_executor()), use_tuple);
        if (error == asio::error::operation_aborted) co_return;
        if (error) {
            // Out of descriptors, most likely: wait for some to be closed.
            asio::steady_timer timer(acceptor.get_executor());
            timer.expires_after(std::chrono::milliseconds(100));
            co_await timer.async_wait(use_tuple);
            continue;
        }
        auto executor = socket.get_executor();
        asio::co_spawn(executor, run_session(tcp::socket(std::move(socket)), data, ++number),
                       [](std::exception_ptr failure) {
                           if (!failure) return;
                           try {
                               std::rethrow_exception(failure);
                           } catch (const std::exception& problem) {
                               std::cerr << "connection failed: " << problem.what() << std::endl;
                           }
                       });
    }
}

}  // namespace zorvan::devstore
