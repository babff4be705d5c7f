// Control port; see control.h. Requests are short and handled in place.
#include "control.h"

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http.hpp>

#include <algorithm>
#include "digest.h"
#include "json.h"

#include "operations.h"
#include "text.h"

namespace zorvan::devstore {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = boost::beast::http;
using tcp = asio::ip::tcp;

constexpr auto use_tuple = asio::as_tuple(asio::use_awaitable);
constexpr std::uint64_t largest_exact_md5 = 64U << 20U;
constexpr std::uint64_t sparse_part = 64U << 20U;

constexpr std::string_view help_text = R"(Control port of zorvan-devstore

GET    /log                 {"requests":[{id, connection, method, path, query, headers, status, bytes_in, bytes_out,
                            continue, outcome}]}: all requests seen; outcome is running, done, cut or lost
DELETE /log                 forgets them
GET    /log/buckets         {"requests":[{method, bucket, parameters, agent, count}]}: all requests ever on buckets
                            themselves, HEAD excepted; parameters are the names in the query
POST   /clock               {"offset":S} shifts modification times and restores, {"request_offset":S} the time that
                            request dates are judged by; seconds, both optional
POST   /users               {"users":[...]} in the form of the users file: adds or replaces users
POST   /archive             {"bucket":B,"key":K,"status":"ARCHIVE_ACCESS"|"DEEP_ARCHIVE_ACCESS"|""}: moves an object of
                            class INTELLIGENT_TIERING into an archive tier or out of it
PUT    /sparse/BUCKET/KEY?size=N[&etag=E|md5]
                            makes an object of N zero bytes at once, in an existing bucket. Its ETag: E when given;
                            the MD5 with etag=md5 (about 2 s per GiB) or when N is at most 64 MiB; otherwise the one
                            that a multipart upload in parts of 64 MiB would have
POST   /faults              {"match":{...},"action":{...}} adds a rule; the first rule that fits a request is used
DELETE /faults              removes all rules, releases stalled exchanges
GET    /                    this text

match:  method, path and query (regular expressions, searched in the raw text), skip (matches to let pass first),
        count (matches to act on, default 1, 0: all)
action: delay_ms            wait first
        status, body, headers {name: value or null}   answer this; with "perform":true after performing the request,
                            with "read_body":true after reading its body, otherwise at once (headers alone only change
                            the reply)
        redirect            Location of the answer, status 307 unless given
        withhold_continue   take the body without sending 100
        cut_request_after, stall_request_after        at so many bytes of the request's body
        cut_before_reply, stall_before_reply          after the request was performed
        cut_reply_after, stall_reply_after            at so many bytes of the reply's body
        reset               cuts send RST instead of FIN
        short_body          so many bytes less, Content-Length accordingly
        overlong            so many bytes more than Content-Length says, then close
        etag                "wrong" or "missing", in headers and XML
        truncate_xml        half of the document, Content-Length accordingly
        ignore_range        200 and the whole object
A stall ends when the peer goes or the rules are removed.
)";

struct answer {
    unsigned status = 200;
    std::string type = "application/json";
    std::string text = "{}";
};

std::string sparse_etag(const content& body, bool exact) {
    static const std::string zeros(block_size, '\0');
    const auto md5_of_zeros = [](std::uint64_t size) {
        auto sum = digest::md5();
        for (; size > 0; size -= std::min<std::uint64_t>(size, zeros.size()))
            sum.update(std::string_view(zeros).substr(
                0, static_cast<std::size_t>(std::min<std::uint64_t>(size, zeros.size()))));
        return sum.finish();
    };
    if (exact || body.size() <= largest_exact_md5) return hex(md5_of_zeros(body.size()));
    const auto whole = md5_of_zeros(sparse_part);
    std::string sums;
    const auto parts = (body.size() + sparse_part - 1) / sparse_part;
    for (std::uint64_t i = 0; i + 1 < parts; ++i)
        sums += whole;
    sums += md5_of_zeros(body.size() - (parts - 1) * sparse_part);
    return hex(md5_of(sums)) + "-" + std::to_string(parts);
}

// The bucket's owner, under whose name the control port acts.
template <class F>
void write_as_owner(store& data, const std::string& name, F&& change) {
    for (const auto& uid : data.users.uids()) {
        const auto owned = data.index.owned_by(uid);
        if (std::any_of(owned.begin(), owned.end(), [&](const auto& b) { return b.first == name; })) {
            data.index.write(name, uid, std::forward<F>(change));
            return;
        }
    }
    throw s3_failure("NoSuchBucket");
}

answer make_sparse(store& data, const http_request& request) {
    const std::string_view path = std::string_view(request.path).substr(8);
    const auto slash = path.find('/');
    const auto size = parse_number(request.parameter_or_empty("size"));
    if (slash == std::string_view::npos || slash + 1 == path.size() || !size)
        throw std::invalid_argument("PUT /sparse/BUCKET/KEY?size=N");
    auto object = std::make_shared<object_record>();
    if (*size > 0) object->body = content(data.blobs->create_zero(*size));
    const auto etag = request.parameter_or_empty("etag");
    object->etag = !etag.empty() && etag != "md5" ? etag : sparse_etag(object->body, etag == "md5");
    object->modified = data.clock.now();
    object_ptr replaced;
    const auto key = url_decode(path.substr(slash + 1));
    write_as_owner(data, url_decode(path.substr(0, slash)),
                   [&](bucket& b) { replaced = b.store(key, object); });
    answer out;
    const json_ptr root(json_object());
    json_object_set_new(root.get(), "etag", json_from(object->etag));
    json_object_set_new(root.get(), "size", json_integer(static_cast<json_int_t>(*size)));
    out.text = dump_json(root.get());
    return out;
}

void set_clock(store& data, std::string_view text) {
    const auto root = parse_json(text);
    data.clock.offset_seconds = json_number(root.get(), "offset", data.clock.offset_seconds);
    data.clock.request_offset_seconds =
        json_number(root.get(), "request_offset", data.clock.request_offset_seconds);
}

void set_archive(store& data, std::string_view text) {
    const auto root = parse_json(text);
    const auto key = json_text(root.get(), "key");
    object_ptr old;
    write_as_owner(data, json_text(root.get(), "bucket"), [&](bucket& b) {
        const auto object = b.find(key);
        if (!object) throw s3_failure("NoSuchKey");
        auto changed = std::make_shared<object_record>(*object);
        changed->archive_status = json_text(root.get(), "status");
        changed->restore.reset();
        old = b.store(key, changed);
    });
}

answer respond(store& data, const http_request& request, const std::string& body) {
    const std::string what = request.method + " " + request.path;
    answer out;
    if (what == "GET /") return {200, "text/plain", std::string(help_text)};
    if (what == "GET /log") {
        out.text = data.log.json();
    } else if (what == "GET /log/buckets") {
        out.text = data.log.on_buckets_json();
    } else if (what == "DELETE /log") {
        data.log.clear();
    } else if (what == "POST /clock") {
        set_clock(data, body);
    } else if (what == "POST /users") {
        data.users.load_json(body);
    } else if (what == "POST /archive") {
        set_archive(data, body);
    } else if (what == "POST /faults") {
        data.faults.add(body);
    } else if (what == "DELETE /faults") {
        data.faults.clear();
    } else if (what.starts_with("PUT /sparse/")) {
        return make_sparse(data, request);
    } else {
        return {404, "text/plain", "unknown, see GET /\n"};
    }
    return out;
}

asio::awaitable<void> run_control(tcp::socket socket, store& data) {
    beast::tcp_stream stream(std::move(socket));
    stream.socket().set_option(tcp::no_delay(true));
    beast::flat_buffer buffer;
    for (;;) {
        http::request<http::string_body> message;
        const auto [error, size] = co_await http::async_read(stream, buffer, message, use_tuple);
        if (error) co_return;
        http_request request;
        request.method = std::string(message.method_string());
        set_target(request, std::string_view(message.target().data(), message.target().size()));
        answer result;
        try {
            result = respond(data, request, message.body());
        } catch (const s3_failure& failure) {
            result = {failure.entry().status, "text/plain", std::string(failure.entry().code) + "\n"};
        } catch (const std::exception& problem) {
            result = {400, "text/plain", std::string(problem.what()) + "\n"};
        }
        http::response<http::string_body> reply(static_cast<http::status>(result.status), message.version());
        reply.set(http::field::content_type, result.type);
        reply.keep_alive(message.keep_alive());
        reply.body() = std::move(result.text);
        reply.prepare_payload();
        const auto [write_error, written] = co_await http::async_write(stream, reply, use_tuple);
        if (write_error || !reply.keep_alive()) break;
    }
    boost::system::error_code ignored;
    stream.socket().shutdown(tcp::socket::shutdown_send, ignored);
}

}  // namespace

std::string_view control_help() {
    return help_text;
}

asio::awaitable<void> serve_control(tcp::acceptor& acceptor, store& data) {
    for (;;) {
        auto [error, socket] =
            co_await acceptor.async_accept(asio::make_strand(acceptor.get_executor()), use_tuple);
        if (error == asio::error::operation_aborted) co_return;
        if (error) continue;
        auto executor = socket.get_executor();
        asio::co_spawn(executor, run_control(tcp::socket(std::move(socket)), data), asio::detached);
    }
}

}  // namespace zorvan::devstore
