// CKSM, HASH and XMD5 over the wire: arguments, replies, ABOR and lost clients, the limit for each user.
#include "digest.h"
#include "live_server.h"

using namespace ftp_test;

namespace {

std::string md5(std::string_view data) {
    zorvan::gridftp::md5_digest digest;
    digest.update({reinterpret_cast<const unsigned char*>(data.data()), data.size()});
    return digest.finish();
}

constexpr const char* nothing = "d41d8cd98f00b204e9800998ecf8427e";

/// Keeps checksums from ending.
class Held {
  public:
    Held() { store().hold_checksums(1); }
    ~Held() { release(); }
    Held(const Held&) = delete;
    Held& operator=(const Held&) = delete;
    static void release() { store().hold_checksums(0); }
    static void wait_for(std::size_t count) {
        EXPECT_TRUE(eventually([&] { return store().held_checksums() == count; }));
    }
};

TEST(LiveChecksum, ThreeWaysToAsk) {
    LiveServer server;
    const std::string data = pattern(100000);
    put("/bucket/x y", data);
    Client client = server.client();
    EXPECT_EQ(client.command("CKSM MD5 0 -1 /bucket/x y").text, "113 100000\r\n");
    EXPECT_EQ(client.reply().text, "213 " + md5(data) + "\r\n");
    EXPECT_EQ(client.command("CKSM MD5 10 20 /bucket/x y").code, 113);
    EXPECT_EQ(client.reply().text, "213 " + md5(data.substr(10, 20)) + "\r\n");
    EXPECT_EQ(client.command("HASH /bucket/x y").text, "213 MD5 0-100000 " + md5(data) + " /bucket/x y\r\n");
    EXPECT_EQ(client.command("XMD5 /bucket/x y").text, "250 " + md5(data) + "\r\n");
    EXPECT_EQ(client.command("CKSM MD5 0 -1 /bucket/none").code, 550);
    EXPECT_EQ(client.command("HASH /bucket/none").code, 550);
    EXPECT_EQ(client.command("XMD5 /bucket/none").code, 550);
}

TEST(LiveChecksum, ProgressCanBeTurnedOff) {
    LiveServer server("[server]\nupdate_interval = 0\n");
    put("/bucket/x", "data");
    Client client = server.client();
    EXPECT_EQ(client.command("CKSM MD5 0 -1 /bucket/x").text, "213 " + md5("data") + "\r\n");
}

TEST(LiveChecksum, BadArguments) {
    LiveServer server;
    put("/bucket/x", "data");
    Client client = server.client();
    for (const char* line : {"CKSM",
                             "CKSM MD5",
                             "CKSM MD5 0",
                             "CKSM MD5 0 -1",
                             "CKSM MD5 0 /bucket/x",
                             "CKSM MD5 -1 -1 /bucket/x",
                             "CKSM MD5 0 -2 /bucket/x",
                             "CKSM MD5 0 -10 /bucket/x",
                             "CKSM MD5 x -1 /bucket/x",
                             "CKSM MD5 0 1x /bucket/x",
                             "CKSM MD5 +1 -1 /bucket/x",
                             "CKSM MD5 9223372036854775808 -1 /bucket/x",
                             "CKSM MD5 0 9223372036854775808 /bucket/x",
                             "HASH",
                             "XMD5",
                             "XMD5 \"/bucket/x",
                             "XMD5 \"/bucket/x\"5",
                             "XMD5 \"/bucket/x\" x",
                             "XMD5 \"/bucket/x\" 3 2",
                             "XMD5 \"/bucket/x\" 1 2 3",
                             "XMD5 \"/bucket/x\" -1 2",
                             "XMD5 \""}) {
        EXPECT_EQ(client.command(line).code, 501) << line;
    }
    for (const char* line : {"CKSM MD5 0 -1 /bucket/", "CKSM MD5 0 -1 /bucket", "CKSM MD5 0 -1 /",
                             "HASH /bucket/x/", "XMD5 /bucket", "XMD5 \"\""}) {
        EXPECT_EQ(client.command(line).code, 550) << line;
    }
}

TEST(LiveChecksum, NamesInQuotesAndRanges) {
    LiveServer server;
    const std::string data = pattern(1000);
    put("/bucket/x y", data);
    put("/bucket/say \"hi\"", "quoted");
    put("/bucket/5 9", "numbers");
    Client client = server.client();
    const auto answer = [](std::string_view of) { return "250 " + md5(of) + "\r\n"; };
    EXPECT_EQ(client.command("XMD5 \"/bucket/x y\"").text, answer(data));
    EXPECT_EQ(client.command("XMD5 \"/bucket/x y\" 5").text, answer(data.substr(5)));
    EXPECT_EQ(client.command("XMD5 \"/bucket/x y\" 5 9").text, answer(data.substr(5, 4)));
    EXPECT_EQ(client.command("XMD5 \"/bucket/x y\" 0 1000").text, answer(data));
    EXPECT_EQ(client.command("XMD5 \"/bucket/say \"\"hi\"\"\"").text, answer("quoted"));
    EXPECT_EQ(client.command("XMD5 \"/bucket/say \"hi\"\" 0 6").text, answer("quoted"));
    EXPECT_EQ(client.command("XMD5 /bucket/5 9").text, answer("numbers")) << "no range without quotes";
    client.command("CWD /bucket");
    EXPECT_EQ(client.command("XMD5 \"x y\"").text, answer(data));
}

TEST(LiveChecksum, ARangeOfNoBytes) {
    LiveServer server;
    put("/bucket/x", "12345");
    store().make_directory("/bucket/dir");
    Client client = server.client();
    const std::string empty = nothing;
    EXPECT_EQ(client.command("CKSM MD5 0 0 /bucket/x").text, "213 " + empty + "\r\n");
    EXPECT_EQ(client.command("CKSM md5 5 0 /bucket/x").text, "213 " + empty + "\r\n");
    EXPECT_EQ(client.command("XMD5 \"/bucket/x\" 2 2").text, "250 " + empty + "\r\n");
    EXPECT_EQ(client.command("CKSM MD5 6 0 /bucket/x").code, 550);
    EXPECT_EQ(client.command("CKSM MD5 0 0 /bucket/none").code, 550);
    EXPECT_EQ(client.command("CKSM MD5 0 0 /bucket/dir").code, 550);
}

TEST(LiveChecksum, AnAbortIsAnsweredAtOnce) {
    LiveServer server;
    put("/bucket/x", "data");
    Client client = server.client();
    const Held held;
    for (const std::string line : {"CKSM MD5 0 -1 /bucket/x", "HASH /bucket/x", "XMD5 /bucket/x"}) {
        const auto before = store().held_checksums();
        client.send(line + "\r\n");
        Held::wait_for(before + 1);
        EXPECT_EQ(client.command("ABOR").code, 426) << line;
        EXPECT_EQ(client.reply().code, 226);
        EXPECT_EQ(client.command("NOOP").code, 200);
    }
    EXPECT_EQ(server.counters().checksums, 3U);
    Held::release();
    EXPECT_EQ(client.command("CKSM MD5 0 -1 /bucket/x").code, 113);
    EXPECT_EQ(client.reply().text, "213 " + md5("data") + "\r\n")
        << "no reply of the abandoned ones comes late";
    EXPECT_TRUE(eventually([&] { return server.counters().operations == 0; }));
    EXPECT_EQ(server.counters().checksums, 0U);
}

TEST(LiveChecksum, ALostClientTakesItsSessionAlong) {
    LiveServer server;
    put("/bucket/x", "data");
    const Held held;
    {
        Client client = server.client();
        client.send("CKSM MD5 0 -1 /bucket/x\r\n");
        Held::wait_for(1);
        client.control().reset();
    }
    EXPECT_EQ(server.counters().checksums, 1U);
    EXPECT_EQ(store().open_sessions(), 1U);
    Held::release();
    EXPECT_TRUE(eventually([&] { return store().open_sessions() == 0; }));
}

TEST(LiveChecksum, TheLimitIsForEachUser) {
    LiveServer server("[server]\nchecksums_per_user = 2\n");
    put("/bucket/x", "data");
    const Held held;
    Client first = server.client();
    Client second = server.client();
    Client third = server.client();
    Client bob = Client::logged_in(server.port(), "127.0.0.1", "bob");
    first.send("CKSM MD5 0 -1 /bucket/x\r\n");
    Held::wait_for(1);
    EXPECT_EQ(first.command("ABOR").code, 426);
    EXPECT_EQ(first.reply().code, 226);
    second.send("XMD5 /bucket/x\r\n");
    Held::wait_for(2);
    const std::string refusal =
        "450 2 checksums are running for you, as many as checksums_per_user allows; try again when one has "
        "ended.\r\n";
    EXPECT_EQ(third.command("CKSM MD5 0 -1 /bucket/x").text, refusal);
    EXPECT_EQ(third.command("HASH /bucket/x").text, refusal);
    EXPECT_EQ(third.command("CKSM MD5 0 0 /bucket/x").code, 213) << "reads nothing";
    bob.send("XMD5 /bucket/x\r\n");
    Held::wait_for(3);
    Held::release();
    EXPECT_EQ(second.reply().text, "250 " + md5("data") + "\r\n");
    EXPECT_EQ(bob.reply().text, "250 " + md5("data") + "\r\n");
    EXPECT_TRUE(eventually([&] { return server.counters().operations == 0; }));
    EXPECT_EQ(server.counters().checksums, 0U);
    EXPECT_EQ(third.command("XMD5 /bucket/x").text, "250 " + md5("data") + "\r\n");
}

// A session that began to idle after this one's command and is over before it ends: the limit has passed in
// between.
TEST(LiveChecksum, TheIdleTimerStandsStillMeanwhile) {
    LiveServer server("[timeouts]\nidle = 3\n");
    put("/bucket/x", "data");
    const Held held;
    Client busy = server.client();
    busy.send("XMD5 /bucket/x\r\n");
    Held::wait_for(1);
    Client idle = server.client();
    EXPECT_EQ(idle.reply().code, 421);
    Held::release();
    EXPECT_EQ(busy.reply().text, "250 " + md5("data") + "\r\n");
    EXPECT_EQ(busy.command("NOOP").code, 200);
}

TEST(LiveChecksum, AStorageWithoutTheCommandSaysSo) {
    LiveServer server;
    Client client = server.client();
    const std::string answer = "500 command not supported by this storage\r\n";
    EXPECT_EQ(client.command("CKSM MD5 0 -1 /bucket/error-plain/x").text, answer);
    EXPECT_EQ(client.command("SITE STAGE /bucket/error-plain/x").text, answer);
    EXPECT_EQ(client.command("MKD /bucket/error-plain/x").text, answer);
    EXPECT_EQ(client.command("RMD /bucket/error-plain/x").text, answer);
    EXPECT_EQ(client.command("DELE /bucket/error-plain/x").text, answer);
    EXPECT_EQ(client.command("RNFR /bucket/x").code, 350);
    EXPECT_EQ(client.command("RNTO /bucket/error-plain/x").text, answer);
    EXPECT_EQ(client.command("NOOP").code, 200);
}

}  // namespace
