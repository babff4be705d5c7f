// Arguments that are no good: numbers beyond every limit, addresses of others, paths that climb out, names
// with bytes that no path can hold. None is taken for something else, and the session goes on.
#include <gtest/gtest.h>

#include "live_server.h"

using namespace ftp_test;
using namespace std::string_literals;

namespace {

/// Texts that are no number from 0 to 2^63-1.
const std::vector<std::string>& no_numbers() {
    static const std::vector<std::string> texts = {"-1",
                                                   "-0",
                                                   "+1",
                                                   "9223372036854775808",
                                                   "18446744073709551615",
                                                   "18446744073709551616",
                                                   "99999999999999999999999999999999999999",
                                                   "-9223372036854775809",
                                                   "0x10",
                                                   "1e3",
                                                   "1.5",
                                                   "1,5",
                                                   "5x",
                                                   "five",
                                                   "\0"s,
                                                   "5\0"s};
    return texts;
}

}  // namespace

TEST(HostileArgument, NumbersBeyondTheirRange) {
    LiveServer server;
    put("/bucket/x", "12345");
    Client client = server.client();
    for (const std::string& number : no_numbers()) {
        for (const std::string& line :
             {"REST " + number, "ALLO " + number, "ALLO 5 R " + number, "SBUF " + number,
              "ERET P " + number + " 5 /bucket/x", "ERET P 0 " + number + " /bucket/x",
              "ESTO A " + number + " /bucket/x", "CKSM MD5 " + number + " 5 /bucket/x"}) {
            EXPECT_EQ(client.command(line).code, 501) << ::testing::PrintToString(line);
        }
    }
    // What was refused left nothing behind: the whole file comes.
    Reply last;
    EXPECT_EQ(client.fetch("RETR /bucket/x", last), "12345");
}

TEST(HostileArgument, TheLargestNumbers) {
    LiveServer server;
    put("/bucket/x", "12345");
    Client client = server.client();
    const std::string largest = "9223372036854775807";
    Reply last;
    EXPECT_EQ(client.command("REST " + largest).text,
              "350 Restarting at " + largest + ". Send STOR or RETR.\r\n");
    EXPECT_EQ(client.fetch("RETR /bucket/x", last), "");
    EXPECT_GE(last.code, 200);
    EXPECT_EQ(client.fetch("RETR /bucket/x", last), "12345") << "a restart counts once";

    EXPECT_EQ(client.command("ALLO " + largest).code, 200);
    EXPECT_GE(client.store("STOR /bucket/short", "data").code, 400)
        << "four bytes are not as many as announced";
    EXPECT_FALSE(stored("/bucket/short"));

    EXPECT_EQ(client.command("REST " + largest).code, 350);
    EXPECT_GE(client.store("STOR /bucket/far", "data").code, 400);
    EXPECT_FALSE(stored("/bucket/far"));

    // Offset and length whose sum has no number.
    client.fetch("ERET P " + largest + " " + largest + " /bucket/x", last);
    EXPECT_GE(last.code, 200);
    Reply sum = client.command("CKSM MD5 " + largest + " " + largest + " /bucket/x");
    while (sum.code == 113)
        sum = client.reply();
    EXPECT_GE(sum.code, 200);
    EXPECT_EQ(client.command("SBUF " + largest).code, 200);
    EXPECT_EQ(client.fetch("RETR /bucket/x", last), "12345");
    EXPECT_EQ(last.code, 226);
}

TEST(HostileArgument, TimesThatAreNone) {
    LiveServer server;
    Client client = server.client();
    for (const char* time :
         {"20231301000000", "20230229000000", "20240101240000", "20240101006000", "99999999999999",
          "00000101000000", "2024010100000", "202401010000000", "20240101000000.", "20240101000000.x",
          "-2024010100000", "99999999999999999999999"}) {
        EXPECT_EQ(client.command("MFMT "s + time + " /bucket/x").code, 501) << time;
    }
}

TEST(HostileArgument, AddressesOfOthers) {
    LiveServer server;
    put("/bucket/x", "data");
    // Somebody who must get no connection, whatever a client says.
    const Socket victim = Socket::listen("127.0.0.2");
    const std::string port = std::to_string(victim.local_port());
    const std::string numbers =
        std::to_string(victim.local_port() / 256) + "," + std::to_string(victim.local_port() % 256);
    Client client = server.client();
    for (const std::string& line :
         {"PORT 127,0,0,2," + numbers, "PORT 0,0,0,0," + numbers, "PORT 255,255,255,255," + numbers,
          "PORT 10,0,0,1," + numbers, "PORT 127,0,0,1,0,0"s, "PORT 127,0,0,1,0,21"s, "PORT 127,0,0,1,3,255"s,
          "EPRT |1|127.0.0.2|" + port + "|", "EPRT |1|0.0.0.0|" + port + "|", "EPRT |1|127.0.0.1|21|"s,
          "EPRT |1|127.0.0.1|1023|"s, "EPRT |2|::1|" + port + "|", "EPRT |2|::ffff:127.0.0.2|" + port + "|",
          "EPRT |2|::|" + port + "|"}) {
        EXPECT_EQ(client.command(line).code, 504) << line;
    }
    EXPECT_EQ(client.command("RETR /bucket/x").code, 425) << "no address was taken";
    pollfd waiting{victim.number(), POLLIN, 0};
    EXPECT_EQ(::poll(&waiting, 1, 0), 0);

    if (!has_ipv6()) return;
    Client client_v6 = Client::logged_in(server.port_v6(), "::1");
    EXPECT_EQ(client_v6.command("PORT 127,0,0,1," + numbers).code, 504)
        << "an IPv4 address is not that of this client";
}

TEST(HostileArgument, AddressesThatAreNone) {
    LiveServer server;
    Client client = server.client();
    for (const std::string& argument :
         {"127,0,0,1,5"s, "127,0,0,1,5,6,7"s, "127,0,0,1,5,"s, ",127,0,0,1,5,6"s, "256,0,0,1,5,6"s,
          "127,0,0,1,256,6"s, "127,0,0,1,-5,6"s, "127,0,0,1,99999999999999999999,6"s, "127.0.0.1,5,6"s,
          "::1,5,6"s, "0x7f,0,0,1,5,6"s, "127,0,0,1,5,6 x"s, "127,0,0,1,5,6\0"s, "a,b,c,d,e,f"s, ",,,,,"s,
          std::string(8000, ',')}) {
        EXPECT_EQ(client.command("PORT " + argument).code, 501) << ::testing::PrintToString(argument);
    }
    for (const std::string& argument :
         {"|1|127.0.0.1|"s, "|1|127.0.0.1|5000"s, "|1|127.0.0.1|5000||"s, "|1|127.0.0.1|65536|"s,
          "|1|127.0.0.1|-5000|"s, "|1|127.0.0.1|0|"s, "|1|localhost|5000|"s, "|1|::1|5000|"s,
          "|2|127.0.0.1|5000|"s, "|1|127.0.0.1\0x|5000|"s, "|1|127.1|99999999999999999999|"s,
          "|-1|127.0.0.1|5000|"s, "|||||"s, "x"s, std::string(8000, '|')}) {
        EXPECT_EQ(client.command("EPRT " + argument).code, 501) << ::testing::PrintToString(argument);
    }
    for (const char* argument : {"|3|127.0.0.1|5000|", "|99|x|y|"})
        EXPECT_EQ(client.command("EPRT "s + argument).code, 522) << argument;
    for (const char* argument : {"-1", "x", "1 2", "ALL ALL"})
        EXPECT_EQ(client.command("EPSV "s + argument).code, 501) << argument;
    EXPECT_EQ(client.command("EPSV 99999999999999999999").code, 522);
    EXPECT_EQ(client.command("RETR /bucket/x").code, 425);
}

TEST(HostileArgument, OptionsThatAreNone) {
    LiveServer server;
    Client client = server.client();
    for (const std::string& option :
         {"NONE"s, "RETR Parallelism=99999999999999999999,1,1;"s, "RETR Parallelism=-1;"s,
          "RETR StripeLayout=Partitioned;"s, "HASH "s + std::string(5000, 'x'), "%n"s, "MLST\0"s}) {
        EXPECT_EQ(client.command("OPTS " + option).code, 501) << ::testing::PrintToString(option);
    }
    std::string facts;
    for (int count = 0; count < 1000; ++count)
        facts += "type;x;";
    EXPECT_EQ(client.command("OPTS MLST " + facts).text, "200 MLST OPTS type;\r\n");
    for (const char* type : {"L 9", "L", "L -8", "E", "A X", "I 8", "AI", "L 8 8"})
        EXPECT_EQ(client.command("TYPE "s + type).code, 504) << type;
}

TEST(HostileArgument, PathsCannotClimbOut) {
    LiveServer server;
    put("/bucket/x", "12345");
    Client client = server.client();
    for (const char* path : {"..", "../..", "../../../../../../..", "/..", "/..//.", "/../../..",
                             "/bucket/../..", "./../.", "/bucket/x/../../..", "////", "/./././"}) {
        EXPECT_EQ(client.command("CWD /bucket").code, 250);
        EXPECT_EQ(client.command("CWD "s + path).code, 250) << path;
        EXPECT_EQ(client.command("PWD").text, "257 \"/\" is the current directory.\r\n") << path;
    }
    // Names that only look like steps upwards stay names.
    for (const char* path :
         {"/bucket/%2e%2e", "/bucket/..%2f..", "/bucket/...", "/bucket/..\\..", "/bucket/.. ", "/bucket/..;",
          "/bucket/\xc0\xae\xc0\xae", "/bucket/~root", "/bucket/$HOME", "/bucket/C:\\x"}) {
        EXPECT_EQ(client.command("MKD "s + path).text, "257 \""s + path + "\" created.\r\n");
        EXPECT_EQ(client.command("RMD "s + path).code, 250) << path;
    }
    for (const char* path : {"../etc/passwd", "/etc/passwd", "/bucket/../etc/passwd", "/../etc/passwd"}) {
        EXPECT_EQ(client.command("SIZE "s + path).code, 550) << path;
        Reply last;
        EXPECT_EQ(client.fetch("RETR "s + path, last), "");
        EXPECT_GE(last.code, 500) << path;
    }
    client.command("CWD /");
    EXPECT_EQ(client.command("SIZE /../bucket/./y/../x").text, "213 5\r\n");
}

TEST(HostileArgument, NamesThatNoPathCanHold) {
    LiveServer server;
    put("/bucket/x", "12345");
    Client client = server.client();
    for (const std::string& name : {"/bucket/a\rb"s, "/bucket/a\0b"s, "/bucket/\0"s, "\0"s, "\r/bucket"s,
                                    "/bucket/x\0.txt"s, "/bucket/x\r226 done"s}) {
        const std::string shown = ::testing::PrintToString(name);
        EXPECT_EQ(client.command("MKD " + name).code, 553) << shown;
        EXPECT_EQ(client.command("RNFR /bucket/x").code, 350);
        EXPECT_EQ(client.command("RNTO " + name).code, 553) << shown;
        EXPECT_EQ(client.command("RNTO /bucket/y").code, 503) << "a refused RNTO ends the renaming";
        EXPECT_EQ(client.command("STOR " + name).code, 553) << shown;
        EXPECT_EQ(client.command("RETR " + name).code, 553) << shown;
        EXPECT_EQ(client.command("APPE " + name).code, 553) << shown;
        for (const char* verb :
             {"CWD", "RMD", "DELE", "SIZE", "MDTM", "RNFR", "MLST", "STAT", "SITE STAGE", "XMD5"})
            EXPECT_EQ(client.command(std::string(verb) + " " + name).code, 550) << verb << shown;
    }
    EXPECT_EQ(content("/bucket/x"), "12345");
}

TEST(HostileArgument, QuotesAreDoubledIn257) {
    LiveServer server;
    Client client = server.client();
    EXPECT_EQ(client.command("MKD /bucket/a\"b").text, "257 \"/bucket/a\"\"b\" created.\r\n");
    EXPECT_EQ(client.command("MKD /bucket/\"\" created.").text,
              "257 \"/bucket/\"\"\"\" created.\" created.\r\n");
    EXPECT_EQ(client.command("CWD /bucket/a\"b").code, 250);
    EXPECT_EQ(client.command("PWD").text, "257 \"/bucket/a\"\"b\" is the current directory.\r\n");
}

TEST(HostileArgument, ALongPathIsAPath) {
    LiveServer server;
    Client client = server.client();
    std::string path = "/bucket";
    for (int depth = 0; depth < 2000; ++depth)
        path += "/a";
    EXPECT_EQ(client.command("SIZE " + path).code, 550);
    EXPECT_EQ(client.command("CWD " + path + "/" + std::string(3000, '.')).code, 550);
    std::string up = "/bucket";
    for (int depth = 0; depth < 2000; ++depth)
        up += "/..";
    EXPECT_EQ(client.command("CWD " + up).code, 250);
}
