// Data connections in the wrong hands or at the wrong time: strangers at the passive port, a second
// connection, one that comes before its command or for none at all, and clients that open ports without end.
#include <gtest/gtest.h>

#include <filesystem>

#include "live_server.h"

using namespace ftp_test;

namespace {

/// Open descriptors of this process.
std::size_t descriptors() {
    const auto entries = std::filesystem::directory_iterator("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

/// A port that nobody has: below those that the system gives to whoever does not name one.
std::uint16_t a_free_port() {
    for (auto port = static_cast<std::uint16_t>(20000 + ::getpid() % 10000);; ++port) {
        try {
            (void)Socket::bind("127.0.0.1", port);
            return port;
        } catch (const std::runtime_error&) {
            // Somebody has it.
        }
    }
}

}  // namespace

TEST(HostileData, StrangersNeitherReadNorWrite) {
    LiveServer server;
    put("/bucket/x", "secret data");
    Client client = server.client();
    {
        const std::uint16_t port = client.passive_port();
        std::vector<Socket> strangers;
        for (int count = 0; count < 30; ++count)
            strangers.push_back(Socket::connect("127.0.0.1", port, "127.0.0.2"));
        const Socket own = Socket::connect("127.0.0.1", port);
        EXPECT_EQ(client.command("RETR /bucket/x").code, 150);
        EXPECT_EQ(own.read_all(), "secret data");
        EXPECT_EQ(client.reply().code, 226);
        for (const Socket& stranger : strangers)
            EXPECT_EQ(stranger.read_all(), "");
    }
    const std::uint16_t port = client.passive_port();
    const Socket stranger = Socket::connect("127.0.0.1", port, "127.0.0.3");
    stranger.write("forged");
    stranger.shutdown_write();
    Socket own = Socket::connect("127.0.0.1", port);
    own.write("mine");
    own.close();
    client.send("STOR /bucket/y\r\n");
    EXPECT_EQ(client.reply().code, 150);
    EXPECT_EQ(client.reply().code, 226);
    EXPECT_EQ(content("/bucket/y"), "mine");
}

TEST(HostileData, ASecondConnectionGetsNothing) {
    LiveServer server;
    static const std::string large = pattern(32U << 20U);
    put("/bucket/large", large);
    Client client = server.client();
    const std::uint16_t port = client.passive_port();
    const Socket first = Socket::connect("127.0.0.1", port);
    const Socket second = Socket::connect("127.0.0.1", port);
    EXPECT_EQ(client.command("RETR /bucket/large").code, 150);
    EXPECT_EQ(second.read_all(), "");
    // The transfer runs: the port is closed.
    EXPECT_THROW(Socket::connect("127.0.0.1", port), std::runtime_error);
    EXPECT_TRUE(first.read_all() == large);
    EXPECT_EQ(client.reply().code, 226);
}

TEST(HostileData, DataAheadOfTheCommand) {
    LiveServer server;
    Client client = server.client();
    Socket data = client.open_data();
    data.write("early");
    data.close();
    client.send("STOR /bucket/x\r\n");
    EXPECT_EQ(client.reply().code, 150);
    EXPECT_EQ(client.reply().code, 226);
    EXPECT_EQ(content("/bucket/x"), "early");
}

TEST(HostileData, AConnectionThatIsResetAheadOfTheCommand) {
    LiveServer server;
    Client client = server.client();
    // It counts as the client's: waiting for another one would only end with the time for it.
    Socket data = client.open_data();
    data.write("lost");
    data.reset();
    client.send("STOR /bucket/x\r\n");
    EXPECT_EQ(client.reply().code, 150);
    EXPECT_EQ(client.reply().code, 426);
    EXPECT_FALSE(stored("/bucket/x"));
    // A stranger's does not.
    const std::uint16_t port = client.passive_port();
    Socket::connect("127.0.0.1", port, "127.0.0.2").reset();
    Socket own = Socket::connect("127.0.0.1", port);
    own.write("mine");
    own.close();
    client.send("STOR /bucket/x\r\n");
    EXPECT_EQ(client.reply().code, 150);
    EXPECT_EQ(client.reply().code, 226);
    EXPECT_EQ(content("/bucket/x"), "mine");
}

TEST(HostileData, AConnectionForNoTransfer) {
    LiveServer server;
    put("/bucket/x", "data");
    Client client = server.client();
    const Socket unused = client.open_data();
    unused.write("RETR /bucket/x\r\nDELE /bucket/x\r\n");
    EXPECT_EQ(client.command("NOOP").code, 200);
    // A new port takes the place of the old one.
    Reply last;
    EXPECT_EQ(client.fetch("RETR /bucket/x", last), "data");
    EXPECT_EQ(unused.read_all(), "");
    EXPECT_EQ(client.command("RETR /bucket/x").code, 425) << "a port serves one transfer";
    // The session ends with a port open and somebody connected to it.
    const Socket left_over = client.open_data();
    EXPECT_EQ(client.command("QUIT").code, 221);
    EXPECT_EQ(left_over.read_all(), "");
}

TEST(HostileData, ControlAndDataAreNotMixedUp) {
    LiveServer server;
    Client client = server.client();
    const Socket data = client.open_data();
    // Commands on the data connection are data, data on the control connection are commands.
    client.send("STOR /bucket/x\r\nABCD\r\n");
    EXPECT_EQ(client.reply().code, 150);
    data.write("QUIT\r\n");
    data.shutdown_write();
    EXPECT_EQ(client.reply().code, 226);
    EXPECT_EQ(client.reply().code, 500);
    EXPECT_EQ(content("/bucket/x"), "QUIT\r\n");
}

TEST(HostileData, AFloodOfCommandsDuringATransfer) {
    LiveServer server;
    static const std::string large = pattern(32U << 20U);
    put("/bucket/large", large);
    Client client = server.client();
    const Socket data = client.open_data();
    EXPECT_EQ(client.command("RETR /bucket/large").code, 150);
    std::string lines;
    constexpr int count = 2000;
    for (int round = 0; round < count; ++round)
        lines += "USER bob\r\nPASV\r\n";
    client.send(lines);
    EXPECT_TRUE(data.read_all() == large);
    EXPECT_EQ(client.reply().code, 226);
    for (int round = 0; round < count; ++round) {
        ASSERT_EQ(client.reply().code, 503) << round;
        ASSERT_EQ(client.reply().code, 227) << round;
    }
}

TEST(HostileData, PortsAreNotHeldWithoutEnd) {
    LiveServer server;
    Client client = server.client();
    client.command("PASV");
    const std::size_t before = descriptors();
    for (int count = 0; count < 500; ++count) {
        EXPECT_EQ(client.command("PASV").code, 227);
        EXPECT_EQ(client.command("EPSV").code, 229);
        EXPECT_EQ(client.command("PORT 127,0,0,1,200,1").code, 200);
    }
    EXPECT_TRUE(eventually([before] { return descriptors() <= before; })) << descriptors();
}

TEST(HostileData, APortRangeThatOthersHold) {
    const std::string free_port = std::to_string(a_free_port());
    LiveServer server("[server]\npassive_ports = \"" + free_port + "\"\n");
    Client first = server.client();
    if (first.command("EPSV").code != 229) GTEST_SKIP() << "somebody else has the port";
    Client second = server.client();
    EXPECT_EQ(second.command("PASV").code, 425);
    EXPECT_EQ(second.command("EPSV").code, 425);
    EXPECT_EQ(first.command("EPSV").code, 229) << "its own port may be asked for again";
    EXPECT_EQ(first.command("QUIT").code, 221);
    EXPECT_EQ(first.reply().code, 0);
    EXPECT_TRUE(eventually([&second] { return second.command("EPSV").code == 229; }));
}

TEST(HostileData, NobodyListensWhereTheClientPoints) {
    LiveServer server;
    put("/bucket/x", "data");
    Client client = server.client();
    const Socket silent = Socket::bind("127.0.0.1");
    EXPECT_EQ(client.command("EPRT |1|127.0.0.1|" + std::to_string(silent.local_port()) + "|").code, 200);
    client.send("RETR /bucket/x\r\n");
    Reply reply = client.reply();
    if (reply.code == 150) reply = client.reply();
    EXPECT_EQ(reply.code, 425);
    EXPECT_EQ(client.command("NOOP").code, 200);
}
