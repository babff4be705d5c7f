// A server that plays a script: each request gets the next step, byte for byte, over plain sockets, and is
// written down. It binds a free port of 127.0.0.1; one thread accepts, one thread serves each connection; the
// destructor closes everything and joins.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "loopback_listener.h"

namespace s3test {

struct SeenRequest {
    int connection = 0;
    std::string method;
    std::string target;
    std::map<std::string, std::string> headers;  // names in lower case
    std::string body;

    std::string header(const std::string& name) const {
        const auto found = headers.find(name);
        return found == headers.end() ? "" : found->second;
    }
};

struct Step {
    enum class Continue { kSend, kWithhold };

    std::string reply;
    /// Close the connection after the reply; nothing else ends a connection but the client.
    bool close = false;
    /// The same with a reset instead of an orderly end.
    bool reset = false;
    /// Reply as soon as the headers were read, whatever body was announced, and read nothing more.
    bool before_body = false;
    /// Reply once so many body bytes were read (after the 100, if one was wanted). Unless the connection is
    /// closed then, the rest of the body is read and dropped.
    long reply_after_body_bytes = -1;
    /// Called when the reply was sent and the connection ended, if it was to be.
    std::function<void()> parted;
    /// Send no reply and keep the connection open until the client leaves.
    bool hang = false;
    /// After the reply hang as above instead of serving the next request.
    bool hang_after = false;
    /// Close without any reply once so many body bytes were read.
    long close_after_body_bytes = -1;
    /// What to do about "Expect: 100-continue".
    Continue on_expect = Continue::kSend;
    /// Called when the headers were read, before anything is answered.
    std::function<void(const SeenRequest&)> look;
    /// Runs after the reply was sent; then rest follows.
    std::function<void()> before_rest;
    std::string rest;
    /// Sent after the reply again and again until the client leaves.
    std::string again_for_ever;
    /// Makes the reply from the whole request; replaces reply.
    std::function<std::string(const SeenRequest&)> answer;
};

class ScriptServer {
  public:
    ScriptServer();
    ~ScriptServer();
    ScriptServer(const ScriptServer&) = delete;
    ScriptServer& operator=(const ScriptServer&) = delete;

    int port() const { return listener_.port(); }
    /// "127.0.0.1:port".
    std::string host() const { return listener_.host(); }

    ScriptServer& then(Step step);
    ScriptServer& then(std::string reply) {
        Step step;
        step.reply = std::move(reply);
        return then(std::move(step));
    }

    /// What was asked so far, in order; a request that found the script at its end is there too.
    std::vector<SeenRequest> requests();
    int connections();
    /// Steps that nobody has used.
    size_t steps_left();
    /// Closes all present connections from this side.
    void drop_connections();

  private:
    void accept_loop();
    void serve(int socket, int number);
    bool serve_one(int socket, int number, std::string& input);

    LoopbackListener listener_{64};
    std::mutex mutex_;
    std::deque<Step> script_;
    std::vector<SeenRequest> requests_;
    std::vector<int> sockets_;
    std::vector<std::thread> workers_;
    int connections_ = 0;
    bool stopping_ = false;
    std::thread acceptor_;
};

using HeaderPairs = std::vector<std::pair<std::string, std::string>>;

/// A reply with Content-Length (unless given) and the given headers.
std::string reply(int status, const HeaderPairs& headers = {}, const std::string& body = "");
/// A reply that promises more than it brings and then closes.
Step cut_reply(int status, const HeaderPairs& headers, const std::string& sent, size_t promised);
/// A Content-Range value.
std::string range_of(size_t first, size_t last, size_t total);
/// An XML error document.
std::string error_reply(int status, const std::string& code, const std::string& message = "");

}  // namespace s3test
