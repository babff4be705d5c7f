// Extended mode over sockets against the real server: blocks of several connections in any order, ends of
// data that do and do not add up, restarts, and clients that break the rules.
#include <gtest/gtest.h>

#include <poll.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <thread>
#include <vector>

#include "extended_client.h"

using namespace ftp_test;
using zorvan::gridftp::block_header;
using zorvan::gridftp::block_header_size;
namespace bits = zorvan::gridftp;

namespace {

class LiveExtended : public ::testing::TestWithParam<bool> {
  protected:
    /// Announce the size, in the runs that do.
    void announce(Uploader& up, const std::string& data) const {
        if (GetParam()) {
            EXPECT_EQ(up.client.command(allo(data)).code, 200);
        }
    }
};

INSTANTIATE_TEST_SUITE_P(Sizes, LiveExtended, ::testing::Bool(),
                         [](const auto& run) { return run.param ? "Announced" : "Unknown"; });

}  // namespace

TEST_P(LiveExtended, UploadsOverSeveralConnections) {
    LiveServer server;
    Uploader up(server);
    const std::string data = pattern(5000011);
    announce(up, data);
    EXPECT_EQ(up.store("STOR /bucket/x", deal(data, 4, 65536)).text, "226 Transfer complete.\r\n");
    EXPECT_TRUE(content("/bucket/x") == data);
}

TEST_P(LiveExtended, KeepsTheConnectionsForTheNextTransfer) {
    LiveServer server;
    Uploader up(server);
    up.connect(3);
    for (const char* name : {"/bucket/a", "/bucket/b", "/bucket/c"}) {
        const std::string data = pattern(300000);
        announce(up, data);
        EXPECT_EQ(up.store(std::string("STOR ") + name, deal(data, 3, 10000)).code, 226);
        EXPECT_TRUE(content(name) == data);
    }
}

TEST_P(LiveExtended, TakesLateConnectionsAndClosedOnes) {
    LiveServer server;
    Uploader up(server);
    const std::string data = pattern(100000);
    announce(up, data);
    up.connect(1);
    up.client.send("STOR /bucket/x\r\n");
    up.sockets[0].write(block(data.substr(60000), 60000) + end_of_data(bits::block_closes));
    up.sockets[0].close();
    EXPECT_EQ(up.client.reply().code, 150);
    up.more(1);
    up.sockets[1].write(block(data.substr(0, 60000), 0) + end_of_file(2));
    EXPECT_EQ(up.final_reply().code, 226);
    EXPECT_TRUE(content("/bucket/x") == data);
}

TEST_P(LiveExtended, TakesBlocksInReverseOrder) {
    LiveServer server("[server]\nblock_size = 4096\n");
    Uploader up(server);
    const std::string data = pattern(3000000);
    announce(up, data);
    std::string blocks;
    for (std::size_t at = data.size(); at > 0; at -= 10000) {
        blocks += block(std::string_view(data).substr(at - 10000, 10000), at - 10000);
    }
    EXPECT_EQ(up.store("STOR /bucket/x", {blocks + end_of_file(1)}).code, 226);
    EXPECT_TRUE(content("/bucket/x") == data);
}

TEST_P(LiveExtended, TakesAContiguousPartFromEachConnection) {
    LiveServer server("[server]\nblock_size = 4096\n");
    Uploader up(server);
    const std::string data = pattern(8000000);
    announce(up, data);
    EXPECT_EQ(up.store("STOR /bucket/x", deal(data, 4, 2000000)).code, 226);
    EXPECT_TRUE(content("/bucket/x") == data);
}

// A client that writes one connection after the other, the first part last, and more than the network holds.
TEST_P(LiveExtended, TheFirstPartMayComeLast) {
    LiveServer server("[server]\nblock_size = 4096\n");
    Uploader up(server);
    const std::string data = pattern(24U << 20U);
    announce(up, data);
    up.connect(4);
    up.client.send("STOR /bucket/x\r\n");
    const auto dealt = deal(data, 4, data.size() / 4);
    for (const std::size_t which : {3U, 2U, 1U, 0U})
        ASSERT_TRUE(up.sockets[which].write(dealt[which]));
    EXPECT_EQ(up.final_reply().code, 226);
    EXPECT_TRUE(content("/bucket/x") == data);
}

TEST_P(LiveExtended, AnIdleConnectionHoldsNobodyUp) {
    LiveServer server("[server]\nblock_size = 4096\n");
    Uploader up(server);
    const std::string data = pattern(4000000);
    announce(up, data);
    up.connect(3);
    EXPECT_EQ(up.store("STOR /bucket/x", deal(data, 2, 4000)).code, 226);
    EXPECT_TRUE(content("/bucket/x") == data);
}

TEST_P(LiveExtended, TakesThousandsOfTinyBlocks) {
    LiveServer server;
    Uploader up(server);
    const std::string data = pattern(4000);
    announce(up, data);
    auto dealt = deal(data, 3, 1);
    dealt[1] = header(0, 0, 0) + header(0, 0, ~0ULL) + dealt[1];
    EXPECT_EQ(up.store("STOR /bucket/x", dealt).code, 226);
    EXPECT_TRUE(content("/bucket/x") == data);
}

TEST_P(LiveExtended, RestartsBehindWhatIsThere) {
    LiveServer server;
    Uploader up(server);
    put("/bucket/x", "0123456789");
    put("/bucket/y", "0123456789");
    EXPECT_EQ(up.client.command("REST 0-4").code, 350);
    announce(up, "abc");
    EXPECT_EQ(up.store("STOR /bucket/x", {block("abc", 4) + end_of_file(1)}).code, 226);
    EXPECT_EQ(content("/bucket/x"), "0123abc");
    announce(up, "abc");
    EXPECT_EQ(up.store("ESTO A 4 /bucket/y", {block("abc", 0) + end_of_file(1)}).code, 226);
    EXPECT_EQ(content("/bucket/y"), "0123abc");
    EXPECT_EQ(up.client.command("REST 0-4,6-8").code, 350);
    EXPECT_EQ(up.client.command("STOR /bucket/x").code, 553);
    EXPECT_EQ(up.client.command("REST 2-4").code, 350);
    EXPECT_EQ(up.client.command("STOR /bucket/x").code, 553);
    EXPECT_EQ(content("/bucket/x"), "0123abc");
}

TEST_P(LiveExtended, WhatDoesNotAddUpStoresNothing) {
    LiveServer server("[timeouts]\ndata_stall = 1\n");
    const std::string data = "0123456789";
    const auto half = block("01234", 0);
    const auto rest = block("56789", 5);
    const std::map<std::string, std::vector<std::string>> uploads = {
        {"a hole", {block("0123", 0) + block("56789", 5) + end_of_file(1)}},
        {"an overlap", {block("012345", 0) + rest + end_of_file(1)}},
        {"a block twice", {half + half + rest + end_of_file(1)}},
        {"no end of file", {half + rest + end_of_data()}},
        {"no end of data", {half + rest}},
        {"a missing end of data", {half + rest + end_of_file(2)}},
        {"more ends than announced", {half + end_of_data(), rest + end_of_data() + end_of_file(1)}},
        {"two ends of data on a connection", {half + rest + end_of_data() + end_of_file(2)}},
        {"no connection announced", {half + rest + end_of_file(0)}},
        {"too many announced", {half + rest + end_of_file(~0ULL)}},
        {"data behind the end", {half + end_of_file(1) + rest}},
        {"a second end of file", {half + rest + header(0x40, 0, 2) + end_of_file(2)}},
        {"unknown bits", {half + block("56789", 5, 0x02) + end_of_file(1)}},
        {"a restart marker", {half + block("56789", 5, 0x10) + end_of_file(1)}},
        {"suspect data", {half + block("56789", 5, 0x20) + end_of_file(1)}},
        {"an end of file with data", {half + rest + block("x", 1, 0x48)}},
        {"a huge offset", {half + block("56789", ~0ULL - 2) + end_of_file(1)}},
        {"an offset of 2^63", {half + block("56789", 1ULL << 63U) + end_of_file(1)}},
        {"a huge count", {half + header(0, ~0ULL, 5) + "56789"}},
    };
    for (const auto& [name, blocks] : uploads) {
        Uploader up(server);
        announce(up, data);
        const Reply reply = up.store("STOR /bucket/x", blocks);
        EXPECT_GE(reply.code, 400) << name << ": " << reply.text;
        EXPECT_FALSE(stored("/bucket/x")) << name;
        EXPECT_EQ(up.client.command("NOOP").code, 200) << name;
    }
}

TEST_P(LiveExtended, ABrokenConnectionStoresNothing) {
    LiveServer server;
    const std::string data = pattern(1000000);
    for (const bool in_a_block : {true, false}) {
        Uploader up(server);
        announce(up, data);
        up.connect(2);
        up.client.send("STOR /bucket/x\r\n");
        up.sockets[1].write(block(data.substr(500000), 500000) + end_of_file(2));
        up.sockets[0].write(in_a_block ? block(data.substr(0, 500000), 0).substr(0, 300000)
                                       : block(data.substr(0, 500000), 0));
        up.sockets[0].close();
        EXPECT_EQ(up.final_reply().code, 426);
        EXPECT_FALSE(stored("/bucket/x"));
    }
}

TEST_P(LiveExtended, AbortsAndLostClientsStoreNothing) {
    LiveServer server;
    const std::string data = pattern(100000);
    {
        Uploader up(server);
        announce(up, data);
        up.connect(2);
        up.client.send("STOR /bucket/x\r\n");
        EXPECT_EQ(up.client.reply().code, 150);
        up.sockets[0].write(block(data, 0) + end_of_file(2));
        up.client.send("ABOR\r\n");
        EXPECT_EQ(up.client.reply().code, 426);
        EXPECT_EQ(up.client.reply().code, 226);
    }
    {
        Uploader up(server);
        announce(up, data);
        up.connect(1);
        up.client.send("STOR /bucket/x\r\n");
        EXPECT_EQ(up.client.reply().code, 150);
        up.sockets[0].write(block(data, 0));
        up.client.control().close();
        up.sockets[0].write(end_of_file(1));
    }
    server.stop();
    EXPECT_FALSE(stored("/bucket/x"));
}

TEST(LiveExtendedUpload, BlocksBeyondTheAnnouncedSizeAreRefused) {
    LiveServer server;
    Uploader up(server);
    EXPECT_EQ(up.client.command("ALLO 5").code, 200);
    EXPECT_EQ(up.store("STOR /bucket/x", {block("01234", 0) + block("5", 5) + end_of_file(1)}).code, 552);
    EXPECT_FALSE(stored("/bucket/x"));
    up.sockets.clear();
    EXPECT_EQ(up.client.command("ALLO 6").code, 200);
    EXPECT_EQ(up.store("STOR /bucket/x", {block("01234", 0) + end_of_file(1)}).code, 550);
    EXPECT_FALSE(stored("/bucket/x"));
}

TEST(LiveExtendedUpload, HasALimitOfConnections) {
    LiveServer server;
    Uploader up(server);
    up.connect(1);
    up.client.send("STOR /bucket/x\r\n");
    EXPECT_EQ(up.client.reply().code, 150);
    std::vector<Socket> many;
    try {
        for (int i = 0; i < 100; ++i)
            many.push_back(Socket::connect("127.0.0.1", up.port));
    } catch (const std::runtime_error&) {
        // The listener has gone already.
    }
    EXPECT_EQ(up.final_reply().code, 426);
    EXPECT_FALSE(stored("/bucket/x"));
}

TEST(LiveExtendedUpload, TheLimitOfConnectionsIsConfigured) {
    LiveServer server("[server]\ndata_connections = 2\n[timeouts]\nheld_up_ms = 1\n");
    const std::string data = pattern(100000);
    Uploader up(server);
    up.connect(2);
    EXPECT_EQ(up.client.command(allo(data)).code, 200);
    EXPECT_EQ(up.store("STOR /bucket/x", deal(data, 2, 10000)).code, 226);
    EXPECT_EQ(up.client.command(allo(data)).code, 200);
    EXPECT_EQ(up.store("STOR /bucket/y", {block("0", 0) + end_of_file(3)}).text,
              "550 More than 2 data connections are not allowed. Transfer aborted.\r\n");
    up.connect(3);
    EXPECT_EQ(up.client.command(allo(data)).code, 200);
    EXPECT_EQ(up.client.command("STOR /bucket/y").code, 150);
    EXPECT_EQ(up.final_reply().text,
              "426 More than 2 data connections are not allowed. Transfer aborted.\r\n");
    EXPECT_FALSE(stored("/bucket/y"));
}

TEST(LiveExtendedUpload, WantsTheSenderToConnect) {
    LiveServer server;
    put("/bucket/x", "data");
    Uploader up(server);
    up.connect(1);
    EXPECT_EQ(up.client.command("RETR /bucket/x").code, 425);
    EXPECT_EQ(up.client.command("STOR /bucket/y").code, 425) << "a refusal uses the listener up";
    const Socket listener = Socket::listen("127.0.0.1");
    const int port = listener.local_port();
    const std::string address = "127,0,0,1," + std::to_string(port / 256) + "," + std::to_string(port % 256);
    EXPECT_EQ(up.client.command("SPOR " + address).code, 200);
    EXPECT_EQ(up.client.command("STOR /bucket/y").code, 425);
    EXPECT_EQ(up.client.command("SPOR " + address + " " + address).code, 504);
    EXPECT_EQ(up.client.command("MLSD /bucket").code, 504);
    EXPECT_EQ(up.client.command("APPE /bucket/x").code, 504);
    const Reply striped = up.client.command("SPAS");
    EXPECT_EQ(striped.code, 229);
    EXPECT_EQ(striped.text.find("229-Entering Striped Passive Mode.\r\n 127,0,0,1,"), 0U) << striped.text;
    EXPECT_EQ(up.client.command("MODE B").code, 504);
    EXPECT_EQ(up.client.command("MODE S").code, 200);
    EXPECT_EQ(up.client.command("REST 0-5").code, 501) << "lists are for extended mode";
}

// ----------------------------------------------------------------------------- downloads

namespace {

/// The client's end of downloads in extended mode.
class Downloader {
  public:
    Downloader(LiveServer& server, std::size_t connections)
        : client(server.client()), count_(connections), listener_(Socket::listen("127.0.0.1")) {
        EXPECT_EQ(client.command("MODE E").code, 200);
        const auto text = std::to_string(connections);
        EXPECT_EQ(client.command("OPTS RETR Parallelism=" + text + "," + text + "," + text + ";").code, 200);
        const int port = listener_.local_port();
        EXPECT_EQ(
            client.command("PORT 127,0,0,1," + std::to_string(port / 256) + "," + std::to_string(port % 256))
                .code,
            200);
    }

    /// What arrives, by offset; the ends of data are checked.
    std::string fetch(const std::string& line, Reply& last, std::uint64_t* first_offset = nullptr) {
        client.send(line + "\r\n");
        while (sockets_.size() < count_)
            sockets_.push_back(listener_.accept());
        std::map<std::uint64_t, std::string> blocks;
        std::uint64_t announced = 0;
        std::size_t used = 0;
        for (const auto& socket : sockets_) {
            bool ended = false;
            bool any = false;
            while (!ended) {
                const auto head = exactly(socket, block_header_size);
                if (head.size() < block_header_size) break;
                const block_header one =
                    zorvan::gridftp::decode(std::span<const unsigned char, block_header_size>(
                        reinterpret_cast<const unsigned char*>(head.data()), block_header_size));
                if ((one.bits & bits::block_end_of_file) != 0) announced = one.offset;
                if (one.count > 0) {
                    blocks[one.offset] = exactly(socket, one.count);
                    any = true;
                }
                ended = (one.bits & bits::block_end_of_data) != 0;
            }
            EXPECT_TRUE(ended);
            used += any ? 1 : 0;
        }
        EXPECT_EQ(announced, sockets_.size());
        connections_used = used;
        last = client.reply();
        while (last.code < 200 && last.code != 0)
            last = client.reply();
        std::string all;
        if (first_offset != nullptr && !blocks.empty()) *first_offset = blocks.begin()->first;
        for (const auto& [offset, data] : blocks)
            all += data;
        offsets.clear();
        for (const auto& [offset, data] : blocks)
            offsets.emplace_back(offset, offset + data.size());
        return all;
    }

    Client client;
    std::size_t connections_used = 0;
    std::vector<std::pair<std::uint64_t, std::uint64_t>> offsets;

  private:
    static std::string exactly(const Socket& socket, std::size_t size) {
        std::string data(size, '\0');
        std::size_t done = 0;
        while (done < size) {
            const std::size_t count = socket.read(data.data() + done, size - done);
            if (count == 0) break;
            done += count;
        }
        data.resize(done);
        return data;
    }

    std::size_t count_;
    Socket listener_;
    std::vector<Socket> sockets_;
};

}  // namespace

TEST(LiveExtendedDownload, ComesOverSeveralConnectionsThatAreUsedAgain) {
    LiveServer server("[server]\nblock_size = 65536\n");
    const std::string data = pattern(3000001);
    put("/bucket/x", data);
    put("/bucket/empty", "");
    Downloader down(server, 3);
    Reply last;
    for (int round = 0; round < 3; ++round) {
        EXPECT_TRUE(down.fetch("RETR /bucket/x", last) == data);
        EXPECT_EQ(last.text, "226 Transfer complete.\r\n");
        EXPECT_GE(down.connections_used, 1U);
        EXPECT_EQ(down.fetch("RETR /bucket/empty", last), "");
        EXPECT_EQ(last.code, 226);
    }
}

TEST(LiveExtendedDownload, SendsWhatIsMissing) {
    LiveServer server;
    put("/bucket/x", "0123456789");
    Downloader down(server, 1);
    Reply last;
    EXPECT_EQ(down.client.command("REST 0-2,5-7").code, 350);
    EXPECT_EQ(down.fetch("RETR /bucket/x", last), "234789");
    EXPECT_EQ(last.code, 226);
    const std::vector<std::pair<std::uint64_t, std::uint64_t>> missing{{2, 5}, {7, 10}};
    EXPECT_EQ(down.offsets, missing);
    EXPECT_EQ(down.client.command("REST 4").code, 350);
    EXPECT_EQ(down.fetch("RETR /bucket/x", last), "456789");
    std::uint64_t first = 99;
    EXPECT_EQ(down.fetch("ERET P 3 4 /bucket/x", last, &first), "3456");
    EXPECT_EQ(first, 0U) << "the offsets of a part are those within the part";
}

TEST(LiveExtendedDownload, RefusesWhatItCannotDo) {
    LiveServer server;
    Downloader down(server, 2);
    EXPECT_EQ(down.client.command("RETR /bucket/none").code, 550) << "its error alone";
    for (const char* bad : {"Parallelism=1,1;", "Parallelism=0,1,1;", "Parallelism=a,b,c;",
                            "Parallelism=1,1,1", "Parallelism=1,1,1,1;", "Other=1;", ""}) {
        EXPECT_EQ(down.client.command(std::string("OPTS RETR ") + bad).code, 501) << bad;
    }
}

TEST(LiveExtendedDownload, AClientThatVanishesIsNoTrouble) {
    LiveServer server;
    put("/bucket/x", pattern(64U << 20U));
    Client client = server.client();
    client.command("MODE E");
    client.command("OPTS RETR Parallelism=2,2,2;");
    const Socket listener = Socket::listen("127.0.0.1");
    const int port = listener.local_port();
    client.command("PORT 127,0,0,1," + std::to_string(port / 256) + "," + std::to_string(port % 256));
    client.send("RETR /bucket/x\r\n");
    Socket first = listener.accept();
    Socket second = listener.accept();
    EXPECT_EQ(client.reply().code, 150);
    first.reset();
    EXPECT_EQ(client.reply().code, 426);
    EXPECT_EQ(client.command("NOOP").code, 200);
}

// ------------------------------------------------------------------------------- markers

namespace {

/// The back end reports what it has stored, and says that it is durable or not. Made before the server.
class ReportedRanges {
  public:
    explicit ReportedRanges(bool durable) { store().report_ranges(1, durable ? 1 : 0); }
    ~ReportedRanges() { store().report_ranges(0, 0); }
    ReportedRanges(const ReportedRanges&) = delete;
    ReportedRanges& operator=(const ReportedRanges&) = delete;
    /// Wait until so many bytes have been reported since.
    bool come_to(std::uint64_t bytes) const {
        return eventually([&] { return store().reported_bytes() - before_ >= bytes; });
    }

  private:
    std::uint64_t before_ = store().reported_bytes();
};

constexpr const char* each_second = "[server]\nupdate_interval = 1\n";
constexpr const char* no_interval = "[server]\nupdate_interval = 0\n";

/// The bytes that a performance marker tells; it is checked letter by letter. -1: it is none
std::int64_t bytes_of(const Reply& marker) {
    static const std::regex form(
        "112-Perf Marker\r\n Timestamp: ([0-9]+)\\.[0-9]\r\n Stripe Index: 0\r\n"
        " Stripe Bytes Transferred: ([0-9]+)\r\n Total Stripe Count: 1\r\n112 End\r\n");
    std::smatch parts;
    if (!std::regex_match(marker.text, parts, form)) {
        ADD_FAILURE() << marker.text;
        return -1;
    }
    EXPECT_LE(std::llabs(std::stoll(parts[1]) - std::time(nullptr)), 60);
    return std::stoll(parts[2]);
}

/// A session whose markers tell the others' time: wait until it got so many.
class MarkerClock {
  public:
    explicit MarkerClock(LiveServer& server) : up_(server) {
        up_.connect(1);
        EXPECT_EQ(up_.client.command("ALLO 10").code, 200);
        up_.client.send("STOR /bucket/clock\r\n");
        EXPECT_EQ(up_.client.reply().code, 150);
    }
    ~MarkerClock() {
        up_.sockets[0].write(block("0123456789", 0) + end_of_file(1));
        EXPECT_EQ(up_.final_reply().code, 226);
    }
    MarkerClock(const MarkerClock&) = delete;
    MarkerClock& operator=(const MarkerClock&) = delete;
    void wait(int markers) {
        for (int i = 0; i < markers; ++i)
            EXPECT_EQ(up_.client.reply().code, 112);
    }
    /// Wait until it gets one that was made after this call, in the next second. @return how many it got
    int wait_for_the_next() {
        const auto begin = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
        for (int markers = 1;; ++markers) {
            const Reply marker = up_.client.reply();
            const auto place = marker.text.find("Timestamp: ");
            if (place == std::string::npos) {
                ADD_FAILURE() << marker.text;
                return markers;
            }
            if (std::atoll(marker.text.c_str() + place + 11) > begin) return markers;
        }
    }

  private:
    Uploader up_;
};

/// What the kernel holds for the server's end of a control connection: replies not sent, commands not read.
std::string held_for_the_server(Client& client, std::uint16_t server_port) {
    char own[8];
    char other[8];
    std::snprintf(own, sizeof own, ":%04X", static_cast<unsigned>(server_port));
    std::snprintf(other, sizeof other, ":%04X", static_cast<unsigned>(client.control().local_port()));
    std::ifstream table("/proc/net/tcp");
    for (std::string line; std::getline(table, line);) {
        std::istringstream fields(line);
        std::string number, local, remote, state, queues;
        fields >> number >> local >> remote >> state >> queues;
        if (local.ends_with(own) && remote.ends_with(other)) return queues;
    }
    return {};
}

}  // namespace

TEST(LiveExtendedMarkers, TellHowFarAnUploadHasCome) {
    const ReportedRanges ranges(true);
    LiveServer server(each_second);
    Uploader up(server);
    up.connect(1);
    EXPECT_EQ(up.client.command("ALLO 10").code, 200);
    up.client.send("STOR /bucket/x\r\n");
    up.sockets[0].write(block("01234", 0));
    EXPECT_EQ(up.client.reply().code, 150) << "before any marker";
    ASSERT_TRUE(ranges.come_to(5));
    Reply marker = up.client.reply();
    while (marker.code == 112)
        marker = up.client.reply();
    EXPECT_EQ(marker.text, "111 Range Marker 0-5\r\n");
    EXPECT_EQ(bytes_of(up.client.reply()), 5);
    EXPECT_EQ(bytes_of(up.client.reply()), 5) << "an unchanged set of ranges is not told again";
    up.sockets[0].write(block("5678", 5));
    ASSERT_TRUE(ranges.come_to(9));
    do {
        marker = up.client.reply();
        ASSERT_TRUE(marker.code == 111 || marker.code == 112) << marker.text;
    } while (marker.text != "111 Range Marker 0-9\r\n");
    up.sockets[0].write(block("9", 9) + end_of_file(1));
    EXPECT_EQ(up.final_reply().code, 226);
    EXPECT_EQ(up.client.command("NOOP").code, 200) << "nothing comes behind the final reply";
    EXPECT_EQ(content("/bucket/x"), "0123456789");
}

TEST(LiveExtendedMarkers, CountWhatARestartKept) {
    const ReportedRanges ranges(true);
    LiveServer server(each_second);
    for (const bool adjusted : {false, true}) {
        put("/bucket/x", "0123456789");
        Uploader up(server);
        up.connect(1);
        if (!adjusted) {
            EXPECT_EQ(up.client.command("REST 0-4").code, 350);
        }
        EXPECT_EQ(up.client.command("ALLO 6").code, 200);
        up.client.send(adjusted ? "ESTO A 4 /bucket/x\r\n" : "STOR /bucket/x\r\n");
        EXPECT_EQ(up.client.reply().code, 150);
        up.sockets[0].write(block("abc", adjusted ? 0 : 4));
        Reply marker = up.client.reply();
        while (marker.code == 112)
            marker = up.client.reply();
        EXPECT_EQ(marker.text, "111 Range Marker 0-7\r\n");
        up.sockets[0].write(block("def", adjusted ? 3 : 7) + end_of_file(1));
        EXPECT_EQ(up.final_reply().code, 226);
        EXPECT_EQ(content("/bucket/x"), "0123abcdef");
    }
}

TEST(LiveExtendedMarkers, OfRangesComeFromDurableOnesAlone) {
    const ReportedRanges ranges(false);
    LiveServer server(each_second);
    Uploader up(server);
    up.connect(1);
    EXPECT_EQ(up.client.command("ALLO 10").code, 200);
    up.client.send("STOR /bucket/x\r\n");
    EXPECT_EQ(up.client.reply().code, 150);
    up.sockets[0].write(block("01234", 0));
    ASSERT_TRUE(ranges.come_to(5));
    std::int64_t told = 0;
    while (told == 0)
        told = bytes_of(up.client.reply());
    EXPECT_EQ(told, 5);
    EXPECT_EQ(bytes_of(up.client.reply()), 5);
    up.sockets[0].close();
    EXPECT_EQ(up.client.reply().code, 426);
}

TEST(LiveExtendedMarkers, AFailedUploadTellsWhatItLeaves) {
    const ReportedRanges ranges(true);
    LiveServer server(no_interval);
    for (const bool aborted : {false, true}) {
        const ReportedRanges reported(true);
        Uploader up(server);
        up.connect(1);
        EXPECT_EQ(up.client.command("ALLO 10").code, 200);
        up.client.send("STOR /bucket/x\r\n");
        EXPECT_EQ(up.client.reply().code, 150);
        up.sockets[0].write(block("01234", 0));
        ASSERT_TRUE(reported.come_to(5));
        if (aborted) {
            up.client.send("ABOR\r\n");
            EXPECT_EQ(up.client.reply().code, 426) << "no marker behind ABOR";
            EXPECT_EQ(up.client.reply().code, 226);
        } else {
            up.sockets[0].close();
            EXPECT_EQ(up.client.reply().text, "111 Range Marker 0-5\r\n");
            EXPECT_EQ(up.client.reply().code, 426);
        }
        EXPECT_EQ(up.client.command("NOOP").code, 200);
    }
    // Nothing new, nothing told.
    Uploader up(server);
    put("/bucket/x", "0123456789");
    EXPECT_EQ(up.client.command("REST 0-4").code, 350);
    EXPECT_EQ(up.client.command("ALLO 6").code, 200);
    up.connect(1);
    up.client.send("STOR /bucket/x\r\n");
    EXPECT_EQ(up.client.reply().code, 150);
    up.sockets[0].write(block("x", 0));
    EXPECT_EQ(up.client.reply().code, 550);
}

TEST(LiveExtendedMarkers, TellHowFarTheReceptionOfAnUnknownSizeHasCome) {
    LiveServer server(each_second);
    Uploader up(server);
    up.connect(1);
    up.client.send("STOR /bucket/x\r\n");
    EXPECT_EQ(up.client.reply().code, 150);
    up.sockets[0].write(block("01234", 0) + header(0, 5, 5));
    while (bytes_of(up.client.reply()) < 5) {
    }
    up.sockets[0].write("56789" + end_of_file(1));
    EXPECT_EQ(up.final_reply().code, 226);
    EXPECT_EQ(content("/bucket/x"), "0123456789");
}

TEST(LiveExtendedMarkers, BelongToExtendedModeAlone) {
    const ReportedRanges ranges(true);
    LiveServer server(each_second);
    MarkerClock clock(server);
    put("/bucket/big", pattern(64U << 20U));
    Client up = server.client();
    const Socket data = up.open_data();
    EXPECT_EQ(up.command("ALLO 10").code, 200);
    EXPECT_EQ(up.command("STOR /bucket/x").code, 150);
    data.write("01234");
    ASSERT_TRUE(ranges.come_to(5));
    Client down = server.client();
    const Socket source = down.open_data();
    EXPECT_EQ(down.command("RETR /bucket/big").code, 150);
    clock.wait(2);
    data.write("56789");
    data.shutdown_write();
    EXPECT_EQ(up.reply().code, 226);
    EXPECT_TRUE(source.read_all() == content("/bucket/big"));
    EXPECT_EQ(down.reply().code, 226);
}

TEST(LiveExtendedMarkers, TellHowFarADownloadHasCome) {
    LiveServer server(each_second);
    put("/bucket/x", pattern(64U << 20U));
    Client client = server.client();
    client.command("MODE E");
    const Socket listener = Socket::listen("127.0.0.1");
    // What is sent and not read must not be all of it.
    const int room = 1 << 18;
    ASSERT_EQ(::setsockopt(listener.number(), SOL_SOCKET, SO_RCVBUF, &room, sizeof room), 0);
    const int port = listener.local_port();
    client.command("PORT 127,0,0,1," + std::to_string(port / 256) + "," + std::to_string(port % 256));
    client.send("RETR /bucket/x\r\n");
    Socket data = listener.accept();
    EXPECT_EQ(client.reply().code, 150);
    std::string some(1U << 20U, '\0');
    EXPECT_GT(data.read(some.data(), some.size()), 0U);
    std::int64_t first = 0;
    while (first == 0)
        first = bytes_of(client.reply());
    EXPECT_GT(first, 0);
    EXPECT_LT(first, 64 << 20);
    for (std::size_t left = 32U << 20U; left > 0;)
        left -= data.read(some.data(), std::min(left, some.size()));
    // Markers of the way there may come before: the reply's time limit ends the wait for the one of the end.
    std::int64_t later = first;
    while (later < (32 << 20) - (1 << 20)) {
        const std::int64_t next = bytes_of(client.reply());
        ASSERT_GE(next, later);
        later = next;
    }
    EXPECT_LE(later, 64 << 20);
    data.reset();
    Reply last = client.reply();
    while (last.code == 112)
        last = client.reply();
    EXPECT_EQ(last.code, 426) << "and a download has no range markers";
}

// A client that leaves its replies unread holds up neither its data nor the server's memory.
TEST(LiveExtendedMarkers, DoNotPileUpBeforeAClientThatDoesNotRead) {
    LiveServer server(each_second);
    MarkerClock clock(server);
    Uploader up(server);
    up.connect(1);
    EXPECT_EQ(up.client.command("ALLO 10").code, 200);
    (void)clock.wait_for_the_next();
    up.client.send("STOR /bucket/x\r\n");
    EXPECT_EQ(up.client.reply().code, 150);
    const int control = up.client.control().number();
    const int room = 1 << 16;
    ASSERT_EQ(::setsockopt(control, SOL_SOCKET, SO_SNDBUF, &room, sizeof room), 0);
    std::string flood;
    for (int i = 0; i < 1000; ++i)
        flood += "STAT\r\n";
    std::size_t sent = 0;
    // Until the server takes no more, because it cannot get rid of its replies: nothing moves any more while
    // it has the time for others.
    int until_then = 0;
    for (std::string held = "?"; held != held_for_the_server(up.client, server.port());) {
        for (pollfd entry{control, POLLOUT, 0}; ::poll(&entry, 1, 0) == 1;) {
            const std::size_t at = sent % flood.size();
            const ssize_t count =
                ::send(control, flood.data() + at, flood.size() - at, MSG_DONTWAIT | MSG_NOSIGNAL);
            if (count < 0) {
                ASSERT_EQ(errno, EAGAIN);
                continue;
            }
            sent += static_cast<std::size_t>(count);
        }
        held = held_for_the_server(up.client, server.port());
        ASSERT_NE(held, "");
        until_then += clock.wait_for_the_next();
    }
    clock.wait(5);
    up.sockets[0].write(block("0123456789", 0) + end_of_file(1));
    EXPECT_TRUE(eventually([] { return stored("/bucket/x"); }));
    int markers = 0;
    Reply reply = up.client.reply();
    for (; reply.code != 226 && reply.code != 0; reply = up.client.reply()) {
        markers += reply.code == 112 ? 1 : 0;
        EXPECT_TRUE(reply.code == 211 || reply.code == 112) << reply.text;
    }
    EXPECT_EQ(reply.code, 226);
    EXPECT_LE(markers, until_then + 2) << "one more for when its second begins, one that waited";
}

// ------------------------------------------------------------------------------ refusals

TEST(LiveExtendedRefusals, StripedAddressesAreOneAndOfVersion4) {
    LiveServer server;
    Uploader up(server);
    EXPECT_EQ(up.client.command("SPOR 127,0,0,1,200,0 127,0,0,1,200,1").text,
              "504 This server has one stripe: name one address.\r\n");
    EXPECT_EQ(up.client.command("SPOR 127,0,0,1,200").code, 501);
    EXPECT_EQ(up.client.command("SPOR 127,0,0,1,200,0,127,0,0,1,200,1").code, 501);
    if (!has_ipv6()) return;
    Client six = Client::logged_in(server.port_v6(), "::1");
    EXPECT_EQ(six.command("MODE E").code, 200);
    EXPECT_EQ(six.command("SPAS").text, "425 SPAS works over IPv4 only; use EPSV.\r\n");
    EXPECT_EQ(six.command("SPOR 127,0,0,1,200,0").text, "504 SPOR works over IPv4 only; use EPRT.\r\n");
    EXPECT_EQ(six.command("RETR /bucket/x").code, 425) << "neither has left an address";
}

TEST(LiveExtendedRefusals, OffsetsEndAtTheLargestOne) {
    LiveServer server;
    put("/bucket/x", "0123456789");
    Uploader up(server);
    const std::string largest = "9223372036854775807";
    const std::string beyond = "9223372036854775808";
    for (const std::string& command : std::vector<std::string>{
             "ERET P " + beyond + " 1 /bucket/x", "ERET P 1 " + beyond + " /bucket/x",
             "ERET P 1 " + largest + " /bucket/x", "ERET P " + largest + " 1 /bucket/x",
             "ERET P -1 1 /bucket/x", "ERET P 1 -1 /bucket/x", "ERET P 1 /bucket/x", "ERET P",
             "ESTO A " + beyond + " /bucket/x", "ESTO A -1 /bucket/x", "ESTO A 1", "REST " + beyond,
             "REST 0-" + beyond, "REST 5-4", "ALLO " + beyond}) {
        EXPECT_EQ(up.client.command(command).code, 501) << command;
    }
    for (const char* command : {"ERET X 0 1 /bucket/x", "ESTO X 0 /bucket/x"})
        EXPECT_EQ(up.client.command(command).code, 504) << command;
    // What fits alone does not fit behind the other.
    for (const std::string& command : {"ESTO A " + largest + " /bucket/y", std::string("STOR /bucket/y")}) {
        up.connect(1);
        EXPECT_EQ(up.client.command("ALLO 5").code, 200);
        if (command[0] == 'S') {
            EXPECT_EQ(up.client.command("REST 0-" + largest).code, 350);
        }
        EXPECT_EQ(up.client.command(command).code, 552) << command;
    }
    up.connect(1);
    EXPECT_EQ(up.store("ESTO A " + largest + " /bucket/y", {block("01234", 0) + end_of_file(1)}).code, 550);
    EXPECT_FALSE(stored("/bucket/y"));
    EXPECT_EQ(up.client.command("NOOP").code, 200);
}

// ----------------------------------------------------------------------------------- drain

// A server that is asked to end lets the transfer come to its end, and the markers go on meanwhile.
TEST(LiveExtendedUpload, AShutdownWaitsForIt) {
    LiveServer server("[server]\nupdate_interval = 1\n");
    Uploader up(server);
    up.connect(2);
    const std::string data = pattern(1000000);
    EXPECT_EQ(up.client.command(allo(data)).code, 200);
    up.client.send("STOR /bucket/x\r\n");
    EXPECT_EQ(up.client.reply().code, 150);
    ASSERT_TRUE(up.sockets[0].write(block(std::string_view(data).substr(0, 500000), 0) + end_of_data()));
    server.ask_to_stop();
    // Nobody gets in any more.
    EXPECT_TRUE(eventually([&] {
        try {
            (void)Socket::connect("127.0.0.1", server.port());
            return false;
        } catch (const std::runtime_error&) {
            return true;
        }
    }));
    EXPECT_EQ(up.client.reply().code, 112);
    ASSERT_TRUE(up.sockets[1].write(block(std::string_view(data).substr(500000), 500000) + end_of_file(2)));
    EXPECT_EQ(up.final_reply().code, 226);
    EXPECT_EQ(up.client.reply().code, 421);
    EXPECT_TRUE(content("/bucket/x") == data);
}
