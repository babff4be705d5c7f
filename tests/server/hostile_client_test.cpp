// Clients that hold on to what they have: silent ones, slow ones, half-closed and reset connections. The
// server lets go of each in its time, and of everything that belonged to it.
#include <gtest/gtest.h>

#include "live_server.h"

using namespace ftp_test;

namespace {

/// Whether there is something to read, within some milliseconds.
bool readable(const Client& client, int milliseconds) {
    pollfd entry{const_cast<Client&>(client).control().number(), POLLIN, 0};
    return ::poll(&entry, 1, milliseconds) > 0;
}

/// Send a text again and again, as long as the server says nothing else than `expected`.
Reply drip(Client& client, std::string_view text, int expected) {
    Reply reply;
    const bool ended = eventually([&] {
        client.send(text);
        while (readable(client, 1)) {
            reply = client.reply();
            if (reply.code != expected) return true;
        }
        return false;
    });
    EXPECT_TRUE(ended);
    return reply;
}

}  // namespace

TEST(HostileClient, AHundredThatSayNothing) {
    LiveServer server;
    put("/bucket/x", "data");
    std::vector<Client> silent;
    for (int count = 0; count < 100; ++count)
        silent.emplace_back(server.port());
    for (int round = 0; round < 5; ++round) {
        Client client = server.client();
        Reply last;
        EXPECT_EQ(client.fetch("RETR /bucket/x", last), "data");
    }
    for (Client& client : silent)
        EXPECT_EQ(client.reply().code, 220);
}

TEST(HostileClient, SilentOnesAreSentAway) {
    LiveServer server("[timeouts]\nlogin = 1\n");
    std::vector<Client> silent;
    for (int count = 0; count < 100; ++count)
        silent.emplace_back(server.port());
    for (Client& client : silent) {
        EXPECT_EQ(client.reply().code, 220);
        EXPECT_EQ(client.reply().text, "421 Log-in took too long; closing.\r\n");
        EXPECT_EQ(client.reply().code, 0);
    }
}

TEST(HostileClient, OneByteAtATimeIsNoLogin) {
    LiveServer server("[timeouts]\nlogin = 1\n");
    Client client(server.port());
    client.reply();
    EXPECT_EQ(drip(client, "U", 0).text, "421 Log-in took too long; closing.\r\n");
}

TEST(HostileClient, CommandsWithoutEndAreNoLogin) {
    LiveServer server("[timeouts]\nlogin = 1\n");
    Client client(server.port());
    client.reply();
    // Always a command under way and more of them waiting: there is no quiet moment to notice the time in.
    std::thread writer([&client] {
        std::string lines;
        for (int count = 0; count < 10000; ++count)
            lines += "NOOP\r\n";
        while (client.control().write(lines)) {
        }
    });
    Reply reply = client.reply();
    while (reply.code == 200)
        reply = client.reply();
    EXPECT_EQ(reply.text, "421 Log-in took too long; closing.\r\n");
    ::shutdown(client.control().number(), SHUT_RDWR);
    writer.join();
}

TEST(HostileClient, OneByteAtATimeIsIdle) {
    LiveServer server("[timeouts]\nidle = 3\n");
    Client client = server.client();
    EXPECT_EQ(drip(client, "N", 0).text, "421 Idle for too long; closing.\r\n");
}

TEST(HostileClient, AHalfClosedConnectionEnds) {
    LiveServer server;
    Client client = server.client();
    client.control().shutdown_write();
    EXPECT_EQ(client.reply().code, 0);
    EXPECT_TRUE(eventually([] { return store().open_sessions() == 0; }));
}

TEST(HostileClient, ALineThatIsCutOffIsNoCommand) {
    LiveServer server;
    put("/bucket/x", "data");
    for (const char* line : {"DELE /bucket/x", "DELE /bucket/x\r", "RMD /bucket"}) {
        Client client = server.client();
        client.send(line);
        client.control().shutdown_write();
        EXPECT_EQ(client.reply().code, 0) << line;
        EXPECT_EQ(content("/bucket/x"), "data") << line;
    }
}

TEST(HostileClient, ResetConnectionsLeaveNothing) {
    LiveServer server;
    for (int round = 0; round < 100; ++round) {
        Client client(server.port());
        if (round % 2 == 0) client.send("USER alice\r\nPASS secret\r\nCWD /bucket\r\nLIST\r\n");
        client.control().reset();
    }
    EXPECT_TRUE(eventually([] { return store().open_sessions() == 0; }));
    EXPECT_EQ(server.client().command("NOOP").code, 200);
}

TEST(HostileClient, LogInAndOutWithoutEnd) {
    LiveServer server;
    Client client(server.port());
    client.reply();
    for (int round = 0; round < 50; ++round) {
        client.send("USER alice\r\nPASS secret\r\nEPSV\r\nREIN\r\n");
        for (const int code : {331, 230, 229, 220})
            ASSERT_EQ(client.reply().code, code) << round;
    }
    EXPECT_TRUE(eventually([] { return store().open_sessions() == 0; }));
    EXPECT_EQ(client.command("PWD").code, 530);
}

TEST(HostileClient, LongNamesAndPasswords) {
    LiveServer server;
    Client client(server.port());
    client.reply();
    EXPECT_EQ(client.command("USER " + std::string(8000, 'u')).code, 331);
    EXPECT_EQ(client.command("PASS " + std::string(8000, 'p')).code, 530);
    EXPECT_EQ(client.command(std::string("USER alice\0x", 12)).code, 331);
    EXPECT_EQ(client.command("PASS secret").code, 530) << "a name does not end at a NUL";
    EXPECT_EQ(client.command("USER alice").code, 331);
    EXPECT_EQ(client.command(std::string("PASS secret\0x", 13)).code, 530) << "nor does a password";
    EXPECT_EQ(client.command("USER alice").code, 331);
    EXPECT_EQ(client.command("PASS secret").code, 230);
}
