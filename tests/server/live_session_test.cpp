// Log-in, session commands and the end of sessions, over sockets against the real server.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>

#include "live_server.h"

using namespace ftp_test;

TEST(LiveSession, LogsIn) {
    LiveServer server;
    Client client(server.port());
    EXPECT_EQ(client.reply().text, "220 Storage gateway ready.\r\n");
    EXPECT_EQ(client.command("PWD").code, 530);
    EXPECT_EQ(client.command("PASS secret").code, 503);
    EXPECT_EQ(client.command("USER alice").code, 331);
    EXPECT_EQ(client.command("PASS secret").code, 230);
    EXPECT_EQ(client.command("PWD").text, "257 \"/\" is the current directory.\r\n");
    EXPECT_EQ(client.command("USER alice").code, 503);
    EXPECT_EQ(client.command("ACCT x").code, 202);
    EXPECT_EQ(client.command("QUIT").code, 221);
    EXPECT_EQ(client.reply().code, 0);
}

TEST(LiveSession, AWrongPasswordAndAnUnknownUserLookTheSame) {
    LiveServer server;
    const std::size_t before = store().destroyed_sessions();
    Client client(server.port());
    client.reply();
    const std::string known = client.command("USER alice").text;
    const std::string wrong = client.command("PASS nonsense").text;
    const std::string unknown = client.command("USER mallory").text;
    EXPECT_EQ(known, unknown);
    EXPECT_EQ(client.command("PASS nonsense").text, wrong);
    EXPECT_EQ(wrong, "530 Login incorrect.\r\n");
    EXPECT_EQ(store().destroyed_sessions(), before) << "the storage must not be asked for a wrong password";
    EXPECT_EQ(store().open_sessions(), 0U);
    EXPECT_EQ(client.command("PASS secret").code, 503) << "a failed PASS needs a new USER";
}

TEST(LiveSession, TheStorageMayRefuse) {
    LiveServer server;
    Client client(server.port());
    client.reply();
    client.command("USER refused");
    EXPECT_EQ(client.command("PASS secret").text, "530 no keys for this user\r\n");
    client.command("USER nosession");
    const Reply reply = client.command("PASS secret");
    EXPECT_EQ(reply.code, 530);
    EXPECT_NE(reply.text.find("no storage session for this collection"), std::string::npos) << reply.text;
    client.command("USER alice");
    EXPECT_EQ(client.command("PASS secret").code, 230);
}

TEST(LiveSession, TheseWorkBeforeLogin) {
    LiveServer server;
    Client client(server.port());
    client.reply();
    EXPECT_EQ(client.command("FEAT").code, 211);
    EXPECT_EQ(client.command("OPTS UTF8 ON").code, 200);
    EXPECT_EQ(client.command("CLNT test").code, 200);
    EXPECT_EQ(client.command("HOST x").code, 220);
    EXPECT_EQ(client.command("SYST").text, "215 UNIX Type: L8\r\n");
    EXPECT_EQ(client.command("noop").code, 200);
    EXPECT_EQ(client.command("HELP").code, 214);
    EXPECT_EQ(client.command("HELP RETR").text, "214 Syntax: RETR <path>\r\n");
    EXPECT_EQ(client.command("HELP XYZ").code, 502);
    for (const char* line :
         {"RETR /bucket/x", "LIST", "PASV", "STAT", "SITE HELP", "TYPE I", "MKD x", "ABOR"}) {
        EXPECT_EQ(client.command(line).code, 530) << line;
    }
}

TEST(LiveSession, FeatListsWhatClientsActOn) {
    LiveServer server;
    Client client(server.port());
    client.reply();
    const std::string text = client.command("FEAT").text;
    for (const char* line :
         {" UTF8\r\n", " SIZE\r\n", " MDTM\r\n", " REST STREAM\r\n", " TVFS\r\n", " EPSV\r\n", " EPRT\r\n",
          " CLNT\r\n", " HOST\r\n", " HASH MD5*\r\n", " XMD5\r\n",
          " MLST type*;size*;modify*;UNIX.mode*;UNIX.owner*;UNIX.group*;perm*;\r\n"}) {
        EXPECT_NE(text.find(line), std::string::npos) << line;
    }
    EXPECT_EQ(text.find("MFMT"), std::string::npos);
    EXPECT_EQ(text.find("AUTH"), std::string::npos);
    EXPECT_EQ(text.substr(0, 5), "211-F");
    EXPECT_EQ(text.substr(text.size() - 9), "211 End\r\n");
}

TEST(LiveSession, OptsAndParameters) {
    LiveServer server;
    Client client = server.client();
    EXPECT_EQ(client.command("OPTS MLST type;size;nothing;").text, "200 MLST OPTS type;size;\r\n");
    EXPECT_NE(client.command("FEAT").text.find(" MLST type*;size*;modify;UNIX.mode;"), std::string::npos);
    EXPECT_EQ(client.command("OPTS HASH MD5").code, 200);
    EXPECT_EQ(client.command("OPTS HASH SHA-1").code, 501);
    EXPECT_EQ(client.command("OPTS UTF8 OFF").code, 504);
    EXPECT_EQ(client.command("OPTS WHAT x").code, 501);
    EXPECT_EQ(client.command("LANG").code, 200);
    EXPECT_EQ(client.command("LANG en-GB").code, 200);
    EXPECT_EQ(client.command("LANG de").code, 504);
    for (const char* line :
         {"TYPE A", "TYPE a n", "TYPE I", "TYPE L 8", "MODE E", "MODE S", "STRU F", "DCAU N", "SBUF 65536"}) {
        EXPECT_EQ(client.command(line).code, 200) << line;
    }
    for (const char* line : {"TYPE E", "TYPE L 36", "MODE B", "STRU R", "DCAU A", "AUTH GSSAPI",
                             "SITE UTIME x", "SITE CHMOD 777 x"}) {
        EXPECT_EQ(client.command(line).code, 504) << line;
    }
    EXPECT_EQ(client.command("AUTH TLS").code, 502);
    EXPECT_EQ(client.command("PBSZ 0").code, 503);
    EXPECT_EQ(client.command("PROT P").code, 503);
    EXPECT_EQ(client.command("CCC").code, 534);
    EXPECT_EQ(client.command("STOU").code, 502);
    EXPECT_EQ(client.command("TYPE").code, 501);
    EXPECT_EQ(client.command("PWD x").code, 501);
    EXPECT_EQ(client.command("REST x").code, 501);
    EXPECT_EQ(client.command("SPOR x").code, 501);
    EXPECT_EQ(client.command("ALLO x").code, 501);
    EXPECT_EQ(client.command("ALLO 5 R").code, 501);
    EXPECT_EQ(client.command("ALLO 5 R 5").code, 200);
    EXPECT_EQ(client.command("SITE HELP").code, 214);
    EXPECT_EQ(client.command("SITE WHAT").code, 500);
    EXPECT_EQ(client.command("WHAT").code, 500);
}

TEST(LiveSession, ReinBeginsAnew) {
    LiveServer server;
    Client client = server.client();
    EXPECT_EQ(client.command("CWD /bucket").code, 250);
    EXPECT_EQ(client.command("REIN").code, 220);
    EXPECT_EQ(client.command("PWD").code, 530);
    EXPECT_TRUE(eventually([] { return store().open_sessions() == 0; }));
    client.command("USER alice");
    EXPECT_EQ(client.command("PASS secret").code, 230);
    EXPECT_NE(client.command("PWD").text.find("\"/\""), std::string::npos);
}

TEST(LiveSession, HostChoosesTheCollection) {
    const std::string policy = "/tmp/zorvan-policy-" + std::to_string(::getpid());
    std::ofstream(policy) << "{}";
    LiveServer server(
        "[[collection]]\nname = \"one\"\nhosts = [\"one.example\"]\npolicy = \"" + policy +
        "\"\n[[collection]]\nname = \"two\"\nhosts = [\"two.example\"]\npolicy = \"/nonexistent\"\n");
    const auto login = [&](const char* host) {
        Client client(server.port());
        client.reply();
        if (host != nullptr) {
            if (client.command(std::string("HOST ") + host).code != 220) return 504;
        }
        client.command("USER alice");
        return client.command("PASS secret").code;
    };
    EXPECT_EQ(login("ONE.example"), 230);
    EXPECT_EQ(login("two.example"), 530) << "a policy that cannot be read refuses the log-in";
    EXPECT_EQ(login("three.example"), 504);
    EXPECT_EQ(login(nullptr), 530) << "there is no default collection";
    std::ofstream(policy, std::ios::trunc).flush();
    EXPECT_EQ(login("one.example"), 530) << "an empty policy refuses the log-in";
    std::remove(policy.c_str());

    Client client(server.port());
    client.reply();
    client.command("USER alice");
    EXPECT_EQ(client.command("HOST one.example").code, 503);
}

TEST(LiveSession, PipelinedCommandsAreAnsweredInOrder) {
    LiveServer server;
    Client client = server.client();
    client.send("PWD\r\nCWD /bucket\r\nPWD\nSIZE nothing\r\nSYST\r\nNOOP\r\nQUIT\r\nPWD\r\n");
    for (const int code : {257, 250, 257, 550, 215, 200, 221})
        EXPECT_EQ(client.reply().code, code);
    EXPECT_EQ(client.reply().code, 0);
}

TEST(LiveSession, NoReplyOvertakesTheOneOfAnEarlierCommand) {
    LiveServer server;
    put("/bucket/x", "12345");
    Client client = server.client();
    for (int round = 0; round < 50; ++round) {
        // Two segments: the second may come while the first command is at the back end.
        client.send("SIZE /bucket/x\r\n");
        client.send("NOOP\r\n");
        EXPECT_EQ(client.reply().code, 213);
        EXPECT_EQ(client.reply().code, 200);
    }
}

TEST(LiveSession, AScriptMayCloseItsSideEarly) {
    LiveServer server;
    Client client(server.port());
    client.send("USER alice\r\nPASS secret\r\nMKD /bucket/made\r\nQUIT\r\n");
    client.control().shutdown_write();
    for (const int code : {220, 331, 230, 257, 221})
        EXPECT_EQ(client.reply().code, code);
}

TEST(LiveSession, EndsAnIdleSession) {
    LiveServer server("[timeouts]\nidle = 3\n");
    Client client = server.client();
    EXPECT_EQ(client.reply().text, "421 Idle for too long; closing.\r\n");
    EXPECT_EQ(client.reply().code, 0);
}

TEST(LiveSession, EndsASessionThatDoesNotLogIn) {
    LiveServer server("[timeouts]\nlogin = 1\n");
    Client client(server.port());
    client.reply();
    EXPECT_EQ(client.reply().text, "421 Log-in took too long; closing.\r\n");
    EXPECT_EQ(client.reply().code, 0);
}

TEST(LiveSession, SaysGoodbyeWhenTheServerEnds) {
    LiveServer server;
    Client client = server.client();
    server.ask_to_stop();
    EXPECT_EQ(client.reply().text, "421 The server is shutting down.\r\n");
    EXPECT_EQ(client.reply().code, 0);
}

TEST(LiveSession, LongLinesAndGarbage) {
    LiveServer server;
    Client client = server.client();
    EXPECT_EQ(client.command("CWD " + std::string(9000, 'x')).code, 500);
    EXPECT_EQ(client.command("NOOP").code, 200);
    client.send(std::string(3000000, 'y') + "\r\n");
    EXPECT_EQ(client.reply().code, 500);
    EXPECT_EQ(client.command("CWD " + std::string("a\0b", 3)).code, 550);
    EXPECT_EQ(client.command("CWD a\rb").code, 550);
    EXPECT_EQ(client.command(std::string("\x01\x02\x80\xfe", 4)).code, 500);
    client.send("\r\n\r\nNOOP\r\n");
    EXPECT_EQ(client.reply().code, 200);
    client.send("\xff\xf4\xff\xf2NOOP\r\n");
    EXPECT_EQ(client.reply().code, 200);
}

TEST(LiveSession, RefusesTelnetOptions) {
    LiveServer server;
    Client client = server.client();
    client.send("\xff\xfd\x01NOOP\r\n");
    const std::string text = client.reply().text;
    EXPECT_NE((text + client.command("NOOP").text).find("\xff\xfc\x01"), std::string::npos);
}

TEST(LiveSession, HangsUpOnWhatIsNoFtpClient) {
    LiveServer server;
    Client client(server.port());
    client.reply();
    std::string request = "GET / HTTP/1.1\r\n";
    for (int line = 0; line < 30; ++line)
        request += "X-Header: value\r\n";
    client.send(request);
    Reply reply = client.reply();
    while (reply.code == 500)
        reply = client.reply();
    EXPECT_EQ(reply.code, 421);
}

TEST(LiveSession, RandomBytesDoNoHarm) {
    LiveServer server;
    std::uint32_t state = 99;
    for (int round = 0; round < 20; ++round) {
        Client client(server.port());
        std::string bytes;
        for (int index = 0; index < 4000; ++index) {
            state = state * 1664525U + 1013904223U;
            bytes += static_cast<char>(state >> 24U);
        }
        client.send(bytes + "\r\nQUIT\r\n");
        client.control().shutdown_write();
        EXPECT_EQ(client.reply().code, 220);
        client.control().read_all();
    }
    EXPECT_EQ(server.client().command("NOOP").code, 200);
}

TEST(LiveSession, WorksOverIpv6) {
    if (!has_ipv6()) GTEST_SKIP() << "there is no ::1";
    LiveServer server;
    put("/bucket/x", "hello");
    Client client = Client::logged_in(server.port_v6(), "::1");
    EXPECT_EQ(client.command("PASV").code, 425);
    EXPECT_EQ(client.command("EPSV 1").code, 522);
    EXPECT_EQ(client.command("EPSV 2").code, 229);
    Reply last;
    EXPECT_EQ(client.fetch("RETR /bucket/x", last), "hello");
    EXPECT_EQ(last.code, 226);
    const Socket listener = Socket::listen("::1");
    EXPECT_EQ(client.command("EPRT |2|::1|" + std::to_string(listener.local_port()) + "|").code, 200);
    client.send("RETR /bucket/x\r\n");
    EXPECT_EQ(listener.accept().read_all(), "hello");
}

TEST(LiveSession, ManyAtOnce) {
    LiveServer server;
    put("/bucket/x", "hello");
    std::vector<Client> clients;
    for (int index = 0; index < 50; ++index)
        clients.push_back(server.client());
    for (Client& client : clients) {
        Reply last;
        EXPECT_EQ(client.fetch("RETR /bucket/x", last), "hello");
    }
}
