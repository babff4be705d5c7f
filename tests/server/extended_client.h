// The client's side of uploads in extended mode: blocks, and a session that sends them over connections of
// its own.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "block_text.h"
#include "live_server.h"

namespace ftp_test {

/// A session in extended mode that uploads.
class Uploader {
  public:
    explicit Uploader(LiveServer& server) : client(server.client()) {
        EXPECT_EQ(client.command("MODE E").code, 200);
    }
    /// Listen anew, with so many connections.
    void connect(std::size_t count) {
        port = client.passive_port();
        sockets.clear();
        more(count);
    }
    void more(std::size_t count) {
        for (std::size_t i = 0; i < count; ++i)
            sockets.push_back(Socket::connect("127.0.0.1", port));
    }
    /// The final reply to a command that was sent.
    Reply final_reply() {
        Reply answer = client.reply();
        while (answer.code != 0 && answer.code < 200)
            answer = client.reply();
        return answer;
    }
    /// One upload that consists of this on each connection, written by a thread for each.
    Reply store(const std::string& line, const std::vector<std::string>& data) {
        if (sockets.size() < data.size()) connect(data.size());
        client.send(line + "\r\n");
        std::vector<std::jthread> writers;
        for (std::size_t i = 0; i < data.size(); ++i) {
            writers.emplace_back([this, i, &data] { sockets[i].write(data[i]); });
        }
        const Reply answer = final_reply();
        for (auto& writer : writers)
            writer.join();
        return answer;
    }

    Client client;
    std::uint16_t port = 0;
    std::vector<Socket> sockets;
};

/// Blocks of a file, dealt out to connections in turn.
inline std::vector<std::string> deal(const std::string& data, std::size_t connections, std::size_t size) {
    std::vector<std::string> dealt(connections);
    for (std::size_t at = 0, turn = 0; at < data.size(); at += size, ++turn) {
        dealt[turn % connections] += block(std::string_view(data).substr(at, size), at);
    }
    for (std::size_t i = 0; i < connections; ++i) {
        dealt[i] += i == 0 ? end_of_file(connections) : end_of_data();
    }
    return dealt;
}

inline std::string allo(const std::string& data) {
    return "ALLO " + std::to_string(data.size());
}

}  // namespace ftp_test
