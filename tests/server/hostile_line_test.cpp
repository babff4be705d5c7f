// Control lines from clients that mean harm, or are broken: Telnet sequences everywhere, lines without an
// end, bytes that no command holds, floods. Each gets its reply, the session goes on, and others do not
// notice.
#include <gtest/gtest.h>

#include <cstdio>

#include "live_server.h"

using namespace ftp_test;
using namespace std::string_literals;

namespace {

/// A reply's code behind the refusals of Telnet options that the server may have put in front of it.
int code_behind_telnet(const Reply& reply) {
    std::string_view text = reply.text;
    while (text.starts_with('\xff'))
        text.remove_prefix(std::min<std::size_t>(3, text.size()));
    return std::atoi(std::string(text).c_str());
}

/// Pages of this process in memory, in bytes.
std::size_t resident() {
    std::FILE* file = std::fopen("/proc/self/statm", "r");
    unsigned long all = 0;
    unsigned long pages = 0;
    if (std::fscanf(file, "%lu %lu", &all, &pages) != 2) pages = 0;
    std::fclose(file);
    return pages * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
}

}  // namespace

TEST(HostileLine, TelnetAnywhereInALine) {
    LiveServer server;
    Client client = server.client();
    const std::string line = "SYST\r\n";
    for (const std::string& sequence :
         {"\xff\xf1"s, "\xff\xf4"s, "\xff\xf2"s, "\xff\xf4\xff\xf2"s, "\xff\xfb\x01"s, "\xff\xfc\x01"s,
          "\xff\xfd\x01"s, "\xff\xfe\x01"s, "\xff\xfb\xff"s, "\xff\xfa\x18\x00xterm\xff\xff\xff\xf0"s}) {
        for (std::size_t position = 0; position < line.size(); ++position) {
            client.send(line.substr(0, position) + sequence + line.substr(position));
            EXPECT_EQ(code_behind_telnet(client.reply()), 215)
                << position << " " << ::testing::PrintToString(sequence);
        }
    }
}

TEST(HostileLine, ALoneIacIsDropped) {
    LiveServer server;
    Client client = server.client();
    for (const char* line : {"\xffSYST\r\n", "SY\xffST\r\n", "SYST\xff\r\n", "SYST\r\xff\n"}) {
        client.send(line);
        EXPECT_EQ(client.reply().code, 215) << line;
    }
}

TEST(HostileLine, AnEscapedIacIsPartOfAName) {
    LiveServer server;
    Client client = server.client();
    EXPECT_EQ(client.command("MKD /bucket/a\xff\xff").text, "257 \"/bucket/a\xff\" created.\r\n");
    EXPECT_EQ(client.command("CWD /bucket/a\xff\xff").code, 250);
    EXPECT_EQ(client.command("RMD /bucket/a\xff\xff").code, 250);
}

TEST(HostileLine, AnUnfinishedSequenceSwallowsNoLine) {
    LiveServer server;
    Client client = server.client();
    client.send("SYST\xff\xfa\x18 never ended\r\nNOOP\r\n");
    EXPECT_EQ(client.reply().code, 215);
    EXPECT_EQ(client.reply().code, 200);
    // At the very end of the input: nobody waits for the rest.
    client.send("SYST\r\n\xff");
    client.control().shutdown_write();
    EXPECT_EQ(client.reply().code, 215);
    EXPECT_EQ(client.reply().code, 0);
}

TEST(HostileLine, AborBehindUrgentData) {
    LiveServer server;
    static const std::string large = pattern(64U << 20U);
    put("/bucket/large", large);
    Client client = server.client();
    for (const bool lost_mark : {false, true}) {
        const Socket data = client.open_data();
        EXPECT_EQ(client.command("RETR /bucket/large").code, 150);
        // As Telnet wants it: IAC IP, then IAC as urgent data, then DM and the command.
        const std::string signal = "\xff\xf4\xff";
        ASSERT_EQ(::send(client.control().number(), signal.data(), signal.size(), MSG_OOB), 3);
        client.send(lost_mark ? "ABOR\r\n" : "\xf2"s + "ABOR\r\n");
        EXPECT_EQ(client.reply().code, 426);
        EXPECT_EQ(client.reply().code, 226);
    }
    EXPECT_EQ(client.command("NOOP").code, 200);
}

TEST(HostileLine, TheLongestLineAndLongerOnes) {
    LiveServer server;
    Client client = server.client();
    for (const char* end : {"\r\n", "\n"}) {
        client.send("NOOP " + std::string(8192 - 5, 'x') + end);
        EXPECT_EQ(client.reply().code, 200);
        for (const std::size_t size : {8193U, 8194U, 65536U, 1U << 20U}) {
            client.send("NOOP " + std::string(size - 5, 'x') + end + "SYST\r\n");
            EXPECT_EQ(client.reply().text, "500 Line too long.\r\n") << size;
            EXPECT_EQ(client.reply().code, 215) << size;
        }
    }
    // The rest of a long line is skipped, whatever stands in it.
    client.send(std::string(9000, 'x') + " MKD /bucket/made\rMKD /bucket/made\r\n");
    EXPECT_EQ(client.reply().code, 500);
    EXPECT_EQ(client.command("CWD /bucket/made").code, 550);
}

TEST(HostileLine, ALineWithoutAnEndCostsNoMemory) {
    LiveServer server;
    Client client(server.port());
    client.reply();
    const std::string block(1U << 20U, 'x');
    client.send(block);
    const std::size_t before = resident();
    for (int count = 0; count < 32; ++count)
        client.send(block);
    client.send("\r\n");
    EXPECT_EQ(client.reply().code, 500);
    EXPECT_LT(resident(), before + (16U << 20U)) << "32 MiB went by";
    EXPECT_EQ(client.command("NOOP").code, 200);
}

TEST(HostileLine, BytesThatNoCommandHolds) {
    LiveServer server;
    put("/bucket/x", "data");
    Client client = server.client();
    for (const std::string& line :
         {"NO\0OP"s, "\0NOOP"s, "NOOP\0"s, "\rNOOP"s, "NO\rOP"s, "\x1b[2J"s, "\x80"s, "\xc3\x28"s,
          "NOOP\x0b"s, "\xef\xbb\xbfNOOP"s, "%s%s%s%n"s, "{}{0}"s, "NOOP;NOOP"s}) {
        EXPECT_EQ(client.command(line).text, "500 Unknown command.\r\n") << ::testing::PrintToString(line);
    }
    EXPECT_EQ(client.command("NOOP\r").code, 500) << "one CR belongs to the end of the line, two do not";
    // Blank lines are no commands; a bare LF ends a line.
    client.send("\n\r\n \r\n\nNOOP\nSYST\n");
    Reply reply = client.reply();
    if (reply.code == 500) reply = client.reply();
    EXPECT_EQ(reply.code, 200);
    EXPECT_EQ(client.reply().code, 215);
}

TEST(HostileLine, FormatStringsAreText) {
    LiveServer server;
    Client client = server.client();
    const std::string name = "%s%n%x%%{}{0}\\n$(id)`id`";
    EXPECT_EQ(client.command("MKD /bucket/" + name).text, "257 \"/bucket/" + name + "\" created.\r\n");
    EXPECT_EQ(client.command("CWD /bucket/" + name).code, 250);
    EXPECT_EQ(client.command("PWD").text, "257 \"/bucket/" + name + "\" is the current directory.\r\n");
    EXPECT_EQ(client.store("STOR /bucket/" + name + "/" + name, "data").code, 226);
    EXPECT_EQ(client.command("SIZE " + name).text, "213 4\r\n");
    for (const char* verb :
         {"HELP", "OPTS", "SITE", "CLNT", "LANG", "TYPE", "MODE", "AUTH", "HOST", "PORT", "EPRT", "REST",
          "ALLO", "SCKS", "CKSM", "MFMT", "ERET", "ESTO", "DELE", "RMD",  "RNFR", "MLST", "STAT"}) {
        const Reply reply = client.command(std::string(verb) + " %n%s%n%s {:>99999}");
        EXPECT_GE(reply.code, 200) << verb;
        EXPECT_LT(reply.text.size(), 1000U) << verb;
    }
    Client other(server.port());
    other.reply();
    EXPECT_EQ(other.command("USER %n%n%s").code, 331);
    EXPECT_EQ(other.command("PASS %n%n%s").code, 530);
}

TEST(HostileLine, ThousandsOfPipelinedCommands) {
    LiveServer server;
    Client client = server.client();
    constexpr int rounds = 3000;
    std::string lines;
    for (int round = 0; round < rounds; ++round)
        lines += "NOOP\r\nSYST\nPWD\r\nNONE\r\n";
    client.send(lines);
    for (int round = 0; round < rounds; ++round) {
        for (const int code : {200, 215, 257, 500})
            ASSERT_EQ(client.reply().code, code) << round;
    }
}

TEST(HostileLine, OneClientThatFloodsAndNeverReads) {
    LiveServer server;
    put("/bucket/x", "data");
    Client flood(server.port());
    std::thread writer([&flood] {
        // Blocks once the server has stopped reading, until the connection is shut down.
        const std::string lines = [] {
            std::string text;
            for (int count = 0; count < 10000; ++count)
                text += "HELP\r\n";
            return text;
        }();
        while (flood.control().write(lines)) {
        }
    });
    for (int round = 0; round < 20; ++round) {
        Client client = server.client();
        Reply last;
        EXPECT_EQ(client.fetch("RETR /bucket/x", last), "data");
    }
    ::shutdown(flood.control().number(), SHUT_RDWR);
    writer.join();
}

TEST(HostileLine, BeforeLoginNothingReachesTheStorage) {
    LiveServer server;
    put("/bucket/x", "data");
    Client client(server.port());
    client.reply();
    for (const char* line : {"RETR /bucket/x",
                             "STOR /bucket/y",
                             "APPE /bucket/x",
                             "DELE /bucket/x",
                             "MKD /bucket/d",
                             "RMD /bucket",
                             "RNFR /bucket/x",
                             "RNTO /bucket/y",
                             "CWD /bucket",
                             "CDUP",
                             "PWD",
                             "LIST",
                             "NLST",
                             "MLSD",
                             "MLST /bucket/x",
                             "STAT /bucket",
                             "STAT",
                             "SIZE /bucket/x",
                             "MDTM /bucket/x",
                             "MFMT 20240101000000 /bucket/x",
                             "ALLO 5",
                             "REST 5",
                             "PASV",
                             "EPSV",
                             "PORT 127,0,0,1,200,1",
                             "EPRT |1|127.0.0.1|5000|",
                             "SITE STAGE /bucket/x",
                             "CKSM MD5 0 -1 /bucket/x",
                             "HASH /bucket/x",
                             "XMD5 /bucket/x",
                             "ERET P 0 1 /bucket/x",
                             "ESTO A 0 /bucket/x",
                             "ABOR",
                             "TYPE I",
                             "XCWD /",
                             "XMKD /bucket/d",
                             "XRMD /bucket",
                             "XPWD"}) {
        EXPECT_EQ(client.command(line).text, "530 Please log in with USER and PASS first.\r\n") << line;
    }
    EXPECT_EQ(content("/bucket/x"), "data");
    EXPECT_EQ(store().open_sessions(), 0U);
}
