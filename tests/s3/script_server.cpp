// A server that plays a script, see the header.
#include "script_server.h"

#include <fcntl.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>

namespace s3test {
namespace {

bool send_all(int socket, std::string_view data) {
    while (!data.empty()) {
        const ssize_t sent = send(socket, data.data(), data.size(), MSG_NOSIGNAL);
        if (sent <= 0) return false;
        data.remove_prefix(static_cast<size_t>(sent));
    }
    return true;
}

bool receive_more(int socket, std::string& input) {
    char buffer[65536];
    const ssize_t got = recv(socket, buffer, sizeof(buffer), 0);
    if (got <= 0) return false;
    input.append(buffer, static_cast<size_t>(got));
    return true;
}

SeenRequest parse(const std::string& head, int connection) {
    SeenRequest request;
    request.connection = connection;
    size_t at = head.find("\r\n");
    const std::string first = head.substr(0, at);
    const size_t blank = first.find(' ');
    request.method = first.substr(0, blank);
    request.target = first.substr(blank + 1, first.rfind(' ') - blank - 1);
    while (at != std::string::npos && at + 2 < head.size()) {
        const size_t end = head.find("\r\n", at + 2);
        const std::string line = head.substr(at + 2, end - at - 2);
        const size_t colon = line.find(':');
        if (colon != std::string::npos) {
            std::string name = line.substr(0, colon);
            std::transform(name.begin(), name.end(), name.begin(),
                           [](unsigned char c) { return std::tolower(c); });
            const size_t value = line.find_first_not_of(' ', colon + 1);
            request.headers[name] = value == std::string::npos ? "" : line.substr(value);
        }
        at = end;
    }
    return request;
}

void wait_for_client_to_leave(int socket) {
    std::string ignored;
    while (receive_more(socket, ignored))
        ignored.clear();
}

// Closes for good, so that the peer's next byte is answered with a reset: after a mere shutdown a peer whose
// window is full by then would wait. The number stays taken.
void abandon(int socket) {
    const int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (nothing < 0) return;
    dup2(nothing, socket);
    close(nothing);
}

// What was sent arrives all the same: it is in the peer's buffer already. What the peer has no room for yet
// would be thrown away.
void reset(int socket) {
    int unsent = 0;
    for (int round = 0; round < 10000 && ioctl(socket, SIOCOUTQNSD, &unsent) == 0 && unsent > 0; ++round)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    const linger at_once{1, 0};
    setsockopt(socket, SOL_SOCKET, SO_LINGER, &at_once, sizeof(at_once));
    abandon(socket);
}

}  // namespace

ScriptServer::ScriptServer() {
    acceptor_ = std::thread([this] { accept_loop(); });
}

ScriptServer::~ScriptServer() {
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
        for (const int socket : sockets_)
            shutdown(socket, SHUT_RDWR);
    }
    listener_.stop();
    acceptor_.join();
    for (std::thread& worker : workers_)
        worker.join();
    for (const int socket : sockets_)
        close(socket);
}

ScriptServer& ScriptServer::then(Step step) {
    const std::lock_guard lock(mutex_);
    script_.push_back(std::move(step));
    return *this;
}

std::vector<SeenRequest> ScriptServer::requests() {
    const std::lock_guard lock(mutex_);
    return requests_;
}

int ScriptServer::connections() {
    const std::lock_guard lock(mutex_);
    return connections_;
}

size_t ScriptServer::steps_left() {
    const std::lock_guard lock(mutex_);
    return script_.size();
}

void ScriptServer::drop_connections() {
    const std::lock_guard lock(mutex_);
    for (const int socket : sockets_)
        shutdown(socket, SHUT_RDWR);
}

void ScriptServer::accept_loop() {
    for (;;) {
        const int socket = listener_.accept();
        if (socket < 0) return;
        const std::lock_guard lock(mutex_);
        sockets_.push_back(socket);
        if (stopping_) return;
        const int number = ++connections_;
        workers_.emplace_back([this, socket, number] { serve(socket, number); });
    }
}

void ScriptServer::serve(int socket, int number) {
    std::string input;
    while (serve_one(socket, number, input)) {
    }
    // Descriptors stay open until the end, so that no number is used twice; the peer sees the end all the
    // same.
    shutdown(socket, SHUT_RDWR);
}

bool ScriptServer::serve_one(int socket, int number, std::string& input) {
    size_t end = 0;
    while ((end = input.find("\r\n\r\n")) == std::string::npos) {
        if (!receive_more(socket, input)) return false;
    }
    SeenRequest request = parse(input.substr(0, end + 2), number);
    input.erase(0, end + 4);
    Step step;
    size_t index = 0;
    {
        const std::lock_guard lock(mutex_);
        index = requests_.size();
        requests_.push_back(request);
        if (script_.empty()) return false;
        step = std::move(script_.front());
        script_.pop_front();
    }
    if (step.look) step.look(request);
    if (step.hang) {
        wait_for_client_to_leave(socket);
        return false;
    }
    if (step.before_body) {
        send_all(socket, step.reply);
        if (step.reset) reset(socket);
        if (step.reset || step.close) return false;
        wait_for_client_to_leave(socket);
        return false;
    }
    const std::string announced = request.header("content-length");
    const size_t length = announced.empty() ? 0 : std::stoul(announced);
    if (request.header("expect") == "100-continue" && step.on_expect == Step::Continue::kSend)
        send_all(socket, "HTTP/1.1 100 Continue\r\n\r\n");
    const long enough = std::max(step.close_after_body_bytes, step.reply_after_body_bytes);
    const size_t wanted = enough >= 0 ? static_cast<size_t>(enough) : length;
    bool whole = true;
    while (input.size() < wanted && (whole = receive_more(socket, input))) {
    }
    request.body = input.substr(0, std::min(length, input.size()));
    input.erase(0, request.body.size());
    {
        const std::lock_guard lock(mutex_);
        requests_[index].body = request.body;
    }
    if (step.close_after_body_bytes >= 0) abandon(socket);
    if (!whole || step.close_after_body_bytes >= 0) return false;
    if (!send_all(socket, step.answer ? step.answer(request) : step.reply)) return false;
    if (!step.again_for_ever.empty()) {
        while (send_all(socket, step.again_for_ever)) {
        }
        return false;
    }
    if (step.before_rest) {
        step.before_rest();
        if (!send_all(socket, step.rest)) return false;
    }
    if (step.reset) reset(socket);
    if (step.close) shutdown(socket, SHUT_RDWR);
    if (step.parted) step.parted();
    if (step.reset || step.close) return false;
    if (step.hang_after) {
        wait_for_client_to_leave(socket);
        return false;
    }
    const size_t unread = length - request.body.size();
    while (input.size() < unread) {
        if (!receive_more(socket, input)) return false;
    }
    input.erase(0, unread);
    return true;
}

std::string reply(int status, const HeaderPairs& headers, const std::string& body) {
    std::string out = "HTTP/1.1 " + std::to_string(status) + " Scripted\r\n";
    bool has_length = status == 204 || status == 304;
    for (const auto& [name, value] : headers) {
        out += name + ": " + value + "\r\n";
        has_length = has_length || name == "Content-Length" || name == "Transfer-Encoding";
    }
    if (!has_length) out += "Content-Length: " + std::to_string(body.size()) + "\r\n";
    return out + "\r\n" + body;
}

Step cut_reply(int status, const HeaderPairs& headers, const std::string& sent, size_t promised) {
    HeaderPairs all = headers;
    all.emplace_back("Content-Length", std::to_string(promised));
    Step step;
    step.reply = reply(status, all, sent);
    step.close = true;
    return step;
}

std::string range_of(size_t first, size_t last, size_t total) {
    return "bytes " + std::to_string(first) + "-" + std::to_string(last) + "/" + std::to_string(total);
}

std::string error_reply(int status, const std::string& code, const std::string& message) {
    return reply(status, {{"Content-Type", "application/xml"}},
                 "<?xml version=\"1.0\" encoding=\"UTF-8\"?><Error><Code>" + code + "</Code><Message>" +
                     message + "</Message><RequestId>tx1</RequestId></Error>");
}

}  // namespace s3test
