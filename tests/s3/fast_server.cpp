// A store for many requests, see the header.
#include "fast_server.h"

#include <sys/socket.h>
#include <unistd.h>

#include <charconv>
#include <string_view>

#include "script_server.h"

namespace s3test {
namespace {

// Replies by the key's first letter, so that every kind of end is met: e(rror), l(isting), else an object.
struct Replies {
    std::string object = reply(
        200, {{"ETag", "\"e\""}, {"x-amz-meta-n", "value"}, {"x-amz-request-id", "tx1"}}, "small object");
    std::string head = reply(200, {{"ETag", "\"e\""}, {"x-amz-meta-n", "value"}, {"Content-Length", "12"}});
    std::string stored = reply(200, {{"ETag", "\"e\""}});
    std::string gone = reply(204);
    std::string error = error_reply(404, "NoSuchKey", "none of that name");
    std::string listing =
        reply(200, {},
              "<ListBucketResult><IsTruncated>false</IsTruncated><Contents><Key>a</Key><Size>1</Size><ETag>e"
              "</ETag></Contents><CommonPrefixes><Prefix>d/</Prefix></CommonPrefixes></ListBucketResult>");

    const std::string& choose(std::string_view head_line) const {
        if (head_line.starts_with("PUT")) return stored;
        if (head_line.starts_with("DELETE")) return gone;
        if (head_line.starts_with("HEAD")) return head;
        if (head_line.starts_with("GET /bucket/error")) return error;
        return head_line.starts_with("GET /bucket/?") ? listing : object;
    }
};

size_t body_length(std::string_view head) {
    constexpr std::string_view kName = "\r\nContent-Length: ";
    const size_t at = head.find(kName);
    size_t length = 0;
    if (at != std::string_view::npos)
        std::from_chars(head.data() + at + kName.size(), head.data() + head.size(), length);
    return length;
}

}  // namespace

FastServer::FastServer() {
    acceptor_ = std::thread([this] { accept_loop(); });
}

FastServer::~FastServer() {
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
        for (const int socket : open_)
            shutdown(socket, SHUT_RDWR);
    }
    listener_.stop();
    acceptor_.join();
    wait_until_all_left();
}

void FastServer::wait_until_all_left() {
    std::unique_lock lock(mutex_);
    left_.wait(lock, [this] { return open_.empty(); });
}

void FastServer::accept_loop() {
    for (;;) {
        const int socket = listener_.accept();
        if (socket < 0) return;
        const std::lock_guard lock(mutex_);
        if (stopping_) {
            close(socket);
            return;
        }
        ++connections_;
        open_.insert(socket);
        std::thread([this, socket] { serve_until_it_leaves(socket); }).detach();
    }
}

void FastServer::serve_until_it_leaves(int socket) {
    serve(socket);
    const std::lock_guard lock(mutex_);
    close(socket);
    open_.erase(socket);
    left_.notify_all();
}

void FastServer::serve(int socket) {
    const Replies replies;
    std::string input;
    char buffer[16384];
    for (;;) {
        size_t end = 0;
        while ((end = input.find("\r\n\r\n")) == std::string::npos ||
               input.size() < end + 4 + body_length({input.data(), end})) {
            const ssize_t got = recv(socket, buffer, sizeof(buffer), 0);
            if (got <= 0) return;
            input.append(buffer, static_cast<size_t>(got));
        }
        ++requests_;
        const std::string& answer = replies.choose(input);
        input.erase(0, end + 4 + body_length({input.data(), end}));
        if (send(socket, answer.data(), answer.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(answer.size()))
            return;
    }
}

}  // namespace s3test
