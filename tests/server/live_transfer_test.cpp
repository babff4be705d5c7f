// Downloads and uploads over sockets against the real server: offsets, announced and unknown sizes,
// checksums, aborts, clients that vanish, and whom data connections may reach.
#include <gtest/gtest.h>
#include <openssl/evp.h>

#include "live_server.h"

using namespace ftp_test;

namespace {

std::string md5(std::string_view data) {
    unsigned char sum[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(data.data(), data.size(), sum, &length, EVP_md5(), nullptr);
    std::string text;
    for (unsigned index = 0; index < length; ++index) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02x", sum[index]);
        text += digits;
    }
    return text;
}

/// Far more than the kernel's buffers hold, so that a transfer cannot end by itself.
const std::string& large() {
    static const std::string data = pattern(64U << 20U);
    return data;
}

}  // namespace

TEST(LiveTransfer, Downloads) {
    LiveServer server;
    const std::string data = pattern(3000001);
    put("/bucket/x", data);
    Client client = server.client();
    Reply last;
    EXPECT_TRUE(client.fetch("RETR /bucket/x", last) == data);
    EXPECT_EQ(last.text, "226 Transfer complete.\r\n");
    client.command("CWD /bucket");
    EXPECT_TRUE(client.fetch("RETR x", last) == data);
    EXPECT_TRUE(client.fetch("RETR ../bucket//./x", last) == data);
}

TEST(LiveTransfer, DownloadsNothingAfterA150) {
    LiveServer server;
    put("/bucket/empty", "");
    Client client = server.client();
    Reply last;
    EXPECT_EQ(client.fetch("RETR /bucket/empty", last), "");
    EXPECT_EQ(last.code, 226);
}

TEST(LiveTransfer, AMissingObjectGetsItsErrorAlone) {
    LiveServer server;
    Client client = server.client();
    const Socket data = client.open_data();
    const Reply reply = client.command("RETR /bucket/none");
    EXPECT_EQ(reply.text, "550-PATH_NOT_FOUND\r\n550-No such file or directory: /bucket/none\r\n550 \r\n");
    EXPECT_EQ(client.command("NOOP").code, 200);
}

TEST(LiveTransfer, ErrorsOfTheStorage) {
    LiveServer server;
    Client client = server.client();
    const auto retrieve = [&](const char* path) {
        const Socket data = client.open_data();
        return client.command(std::string("RETR ") + path).text;
    };
    EXPECT_EQ(retrieve("/bucket/error-plain"), "500 command not supported by this storage\r\n");
    EXPECT_EQ(retrieve("/bucket/error-generic"), "550 something generic\r\n");
    EXPECT_EQ(retrieve("/bucket/error-system").substr(0, 4), "552 ");
    EXPECT_EQ(retrieve("/bucket/error-553"), "553-ASKED_FOR\r\n553-line one\r\n553-line two\r\n553 \r\n");
    EXPECT_EQ(client.command("MKD /bucket/error-generic").text, "550 something generic\r\n");
    EXPECT_EQ(client.command("MKD /bucket/error-plain").code, 500);
    EXPECT_EQ(client.store("STOR /bucket/error-generic", "data").text, "550 something generic\r\n");
}

TEST(LiveTransfer, RestartsDownloads) {
    LiveServer server;
    put("/bucket/x", "0123456789");
    Client client = server.client();
    Reply last;
    EXPECT_EQ(client.command("REST 4").code, 350);
    EXPECT_EQ(client.fetch("RETR /bucket/x", last), "456789");
    EXPECT_EQ(client.fetch("RETR /bucket/x", last), "0123456789") << "REST is for one transfer only";
    client.command("REST 3");
    client.command("REST 0");
    EXPECT_EQ(client.fetch("RETR /bucket/x", last), "0123456789");
    EXPECT_EQ(client.fetch("ERET P 2 3 /bucket/x", last), "234");
    EXPECT_EQ(client.command("ERET P 2 /bucket/x").code, 501);
    EXPECT_EQ(client.command("ERET X 2 3 /bucket/x").code, 504);
}

TEST(LiveTransfer, NeedsADataConnection) {
    LiveServer server;
    put("/bucket/x", "data");
    Client client = server.client();
    EXPECT_EQ(client.command("RETR /bucket/x").code, 425);
    EXPECT_EQ(client.command("STOR /bucket/y").code, 425);
    EXPECT_EQ(client.command("LIST").code, 425);
    Reply last;
    EXPECT_EQ(client.fetch("RETR /bucket/x", last), "data");
    EXPECT_EQ(client.command("RETR /bucket/x").code, 425) << "a data connection is for one transfer only";
}

TEST(LiveTransfer, UploadsOfUnknownSize) {
    LiveServer server;
    Client client = server.client();
    const std::string data = pattern(2500003);
    EXPECT_EQ(client.store("STOR /bucket/x", data).code, 226);
    EXPECT_TRUE(content("/bucket/x") == data);
    EXPECT_EQ(client.store("STOR /bucket/empty", "").code, 226);
    EXPECT_EQ(content("/bucket/empty"), "");
    client.command("TYPE A");
    EXPECT_EQ(client.store("STOR /bucket/text", "a\nb\r\n\xff").code, 226);
    EXPECT_EQ(content("/bucket/text"), "a\nb\r\n\xff") << "bytes pass unchanged in TYPE A";
}

TEST(LiveTransfer, UploadsOfAnnouncedSize) {
    LiveServer server;
    Client client = server.client();
    const std::string data = pattern(2500003);
    EXPECT_EQ(client.command("ALLO " + std::to_string(data.size())).code, 200);
    EXPECT_EQ(client.store("STOR /bucket/x", data).code, 226);
    EXPECT_TRUE(content("/bucket/x") == data);
}

TEST(LiveTransfer, ShortAndOverlongUploadsStoreNothing) {
    LiveServer server;
    put("/bucket/old", "old");
    Client client = server.client();
    client.command("ALLO 1000");
    EXPECT_GE(client.store("STOR /bucket/short", pattern(999)).code, 400);
    EXPECT_FALSE(stored("/bucket/short"));
    client.command("ALLO 1000");
    EXPECT_GE(client.store("STOR /bucket/long", pattern(1001)).code, 400);
    EXPECT_FALSE(stored("/bucket/long"));
    client.command("ALLO 1000");
    EXPECT_GE(client.store("STOR /bucket/old", pattern(500)).code, 400);
    EXPECT_EQ(content("/bucket/old"), "old");
    EXPECT_EQ(client.store("STOR /bucket/next", "xyz").code, 226) << "ALLO binds one upload only";
}

TEST(LiveTransfer, AlloCountsNotInTypeANorForAppe) {
    LiveServer server;
    Client client = server.client();
    client.command("TYPE A");
    client.command("ALLO 1000");
    EXPECT_EQ(client.store("STOR /bucket/a", "abc").code, 226);
    client.command("TYPE I");
    client.command("ALLO 1000");
    EXPECT_EQ(client.store("APPE /bucket/b", "abc").code, 226);
    client.command("ALLO 0");
    EXPECT_EQ(client.store("STOR /bucket/c", "abc").code, 226);
}

TEST(LiveTransfer, WithoutASpoolTheClientLearnsOfAllo) {
    LiveServer server("[spool]\nenabled = false\n");
    Client client = server.client();
    const Reply reply = client.store("STOR /bucket/x", "data");
    EXPECT_EQ(reply.code, 504);
    EXPECT_NE(reply.text.find("ALLO"), std::string::npos) << reply.text;
    client.command("ALLO 4");
    EXPECT_EQ(client.store("STOR /bucket/x", "data").code, 226);
}

TEST(LiveTransfer, AFullSpoolIs552) {
    LiveServer server("[spool]\nmemory = \"1MiB\"\nlimit = \"2MiB\"\n");
    Client client = server.client();
    EXPECT_EQ(client.store("STOR /bucket/x", pattern(5U << 20U)).code, 552);
    EXPECT_FALSE(stored("/bucket/x"));
    const std::string data = pattern(1500000);
    EXPECT_EQ(client.store("STOR /bucket/y", data).code, 226);
    EXPECT_TRUE(content("/bucket/y") == data);
}

TEST(LiveTransfer, AppendsAndRestartsUploads) {
    LiveServer server;
    Client client = server.client();
    EXPECT_EQ(client.store("APPE /bucket/x", "abc").code, 226);
    EXPECT_EQ(client.store("APPE /bucket/x", "def").code, 226);
    EXPECT_EQ(content("/bucket/x"), "abcdef");
    EXPECT_EQ(client.command("REST 4").code, 350);
    EXPECT_EQ(client.store("STOR /bucket/x", "XY").code, 226);
    EXPECT_EQ(content("/bucket/x"), "abcdXY");
    EXPECT_EQ(client.command("REST 5").code, 350);
    EXPECT_EQ(client.store("APPE /bucket/x", "Z").code, 226);
    EXPECT_EQ(content("/bucket/x"), "abcdXZ") << "the place that REST names, not the end";
    EXPECT_EQ(client.store("ESTO A 2 /bucket/x", "1234").code, 226);
    EXPECT_EQ(content("/bucket/x"), "ab1234");
    client.command("REST 0");
    EXPECT_EQ(client.store("STOR /bucket/x", "new").code, 226);
    EXPECT_EQ(content("/bucket/x"), "new");
    client.command("MODE E");
    EXPECT_EQ(client.command("REST 0-1,2-3").code, 350);
    client.command("MODE S");
    EXPECT_EQ(client.command("APPE /bucket/x").code, 553) << "ranges that are not one first part";
    EXPECT_EQ(client.store("APPE /bucket/x", "er").code, 226) << "and forgotten with that";
    EXPECT_EQ(content("/bucket/x"), "newer");
}

TEST(LiveTransfer, FileNamesThatCannotBeFiles) {
    LiveServer server;
    put("/bucket/x", "data");
    Client client = server.client();
    for (const char* line : {"STOR /bucket/x/", "APPE /bucket/x/", "RETR /bucket/x/", "ESTO A 0 /bucket/x/",
                             "ERET P 0 1 /bucket/x/", "STOR /x", "RETR /x", "STOR /", "STOR /bucket/.."}) {
        EXPECT_EQ(client.command(line).code, 553) << line;
    }
    EXPECT_EQ(client.command("DELE /bucket/x/").code, 550);
    EXPECT_EQ(client.command("DELE /x").code, 550);
    EXPECT_EQ(content("/bucket/x"), "data");
}

TEST(LiveTransfer, ComparesAnAnnouncedChecksum) {
    LiveServer server;
    Client client = server.client();
    const std::string data = pattern(700000);
    for (const bool announced : {false, true}) {
        if (announced) client.command("ALLO 700000");
        EXPECT_EQ(client.command("SCKS MD5 " + md5("something else")).code, 200);
        const Reply reply = client.store("STOR /bucket/x", data);
        EXPECT_EQ(reply.code, 550);
        EXPECT_NE(reply.text.find("INCORRECT_CHECKSUM"), std::string::npos) << reply.text;
        EXPECT_FALSE(stored("/bucket/x"));
    }
    EXPECT_EQ(client.store("STOR /bucket/y", data).code, 226) << "SCKS binds one upload only";
    client.command("SCKS md5 " + md5(data));
    EXPECT_EQ(client.store("STOR /bucket/x", data).code, 226);
    EXPECT_EQ(client.command("SCKS SHA1 abc").code, 504);
    EXPECT_EQ(client.command("SCKS MD5 abc").code, 501);
}

TEST(LiveTransfer, SizesAndTimes) {
    LiveServer server;
    put("/bucket/x", "12345");
    Client client = server.client();
    EXPECT_EQ(client.command("SIZE /bucket/x").text, "213 5\r\n");
    EXPECT_EQ(client.command("SIZE /bucket").code, 550);
    EXPECT_EQ(client.command("SIZE /bucket/none").code, 550);
    const std::string time = client.command("MDTM /bucket/x").text;
    EXPECT_EQ(time.substr(0, 4), "213 ");
    EXPECT_EQ(time.size(), 4 + 14 + 2);
    EXPECT_EQ(client.command("MFMT 20200102030405 /bucket/x").code, 504);
    EXPECT_EQ(client.command("MFMT 20200102030405 /bucket/new").text,
              "213 Modify=20200102030405; /bucket/new\r\n");
    EXPECT_EQ(client.command("MFMT nonsense /bucket/new").code, 501);
    EXPECT_EQ(client.store("STOR /bucket/new", "x").code, 226);
    EXPECT_EQ(client.command("MDTM /bucket/new").text, "213 20200102030405\r\n");
    EXPECT_EQ(client.store("STOR /bucket/other", "x").code, 226);
    EXPECT_NE(client.command("MDTM /bucket/other").text, "213 20200102030405\r\n");
}

TEST(LiveTransfer, NamesChange) {
    LiveServer server;
    put("/bucket/x", "data");
    Client client = server.client();
    EXPECT_EQ(client.command("RNTO /bucket/y").code, 503);
    EXPECT_EQ(client.command("RNFR /bucket/none").code, 350) << "nothing is asked before RNTO";
    EXPECT_EQ(client.command("RNTO /bucket/y").code, 550);
    EXPECT_EQ(client.command("RNTO /bucket/y").code, 503);
    EXPECT_EQ(client.command("RNFR /bucket/error-system/x").code, 350);
    EXPECT_EQ(client.command("RNFR /bucket/x").code, 350) << "the second takes the first one's place";
    EXPECT_EQ(client.command("RNTO /bucket/y").code, 250);
    EXPECT_EQ(client.command("RNTO /bucket/z").code, 503);
    EXPECT_EQ(content("/bucket/y"), "data");
    EXPECT_EQ(client.command("DELE /bucket/y").code, 250);
    EXPECT_EQ(client.command("DELE /bucket/y").code, 550);
    EXPECT_EQ(client.command("SITE STAGE /bucket/none").code, 550);
    put("/bucket/cold", "data");
    EXPECT_EQ(client.command("SITE STAGE /bucket/cold").text, "250 staged /bucket/cold\r\n");
}

TEST(LiveTransfer, AbortsADownload) {
    LiveServer server;
    put("/bucket/large", large());
    Client client = server.client();
    const Socket data = client.open_data();
    EXPECT_EQ(client.command("RETR /bucket/large").code, 150);
    EXPECT_EQ(client.command("NOOP").code, 200) << "NOOP is answered while a transfer runs";
    const Reply status = client.command("STAT");
    EXPECT_EQ(status.code, 211);
    EXPECT_NE(status.text.find("A transfer is in progress"), std::string::npos) << status.text;
    client.send(
        "\xff\xf4\xff\xf2"
        "ABOR\r\n");
    EXPECT_EQ(client.reply().code, 426);
    EXPECT_EQ(client.reply().code, 226);
    EXPECT_LT(data.read_all().size(), large().size());
    EXPECT_EQ(client.command("ABOR").code, 226) << "with nothing to abort";
    Reply last;
    put("/bucket/x", "next");
    EXPECT_EQ(client.fetch("RETR /bucket/x", last), "next");
}

TEST(LiveTransfer, AbortsAnUpload) {
    LiveServer server;
    Client client = server.client();
    for (const bool announced : {true, false}) {
        if (announced) client.command("ALLO 1000000");
        const Socket data = client.open_data();
        client.send("STOR /bucket/x\r\n");
        EXPECT_EQ(client.reply().code, 150);
        data.write(pattern(500000));
        client.send("ABOR\r\n");
        EXPECT_EQ(client.reply().code, 426);
        EXPECT_EQ(client.reply().code, 226);
        EXPECT_FALSE(stored("/bucket/x"));
    }
}

TEST(LiveTransfer, PipelinedCommandsWaitForTheTransfer) {
    LiveServer server;
    put("/bucket/large", large());
    Client client = server.client();
    const Socket data = client.open_data();
    client.send("RETR /bucket/large\r\nPWD\r\nNOOP\r\nQUIT\r\n");
    EXPECT_EQ(client.reply().code, 150);
    EXPECT_TRUE(data.read_all() == large());
    for (const int code : {226, 257, 200, 221})
        EXPECT_EQ(client.reply().code, code);
}

TEST(LiveTransfer, AClientThatVanishesStoresNothing) {
    LiveServer server;
    put("/bucket/old", "old");
    for (const bool announced : {true, false}) {
        for (const bool reset : {true, false}) {
            Client client = server.client();
            if (announced) client.command("ALLO 300000");
            Socket data = client.open_data();
            client.send("STOR /bucket/old\r\n");
            EXPECT_EQ(client.reply().code, 150);
            data.write(pattern(299999));
            // The control connection goes first, then the data end as if all were well.
            if (reset) {
                client.control().reset();
            } else {
                client.control().close();
            }
            EXPECT_TRUE(eventually([] { return store().open_sessions() == 0; }));
            data.write("x");
            data.close();
            EXPECT_TRUE(content("/bucket/old") == "old") << announced << reset;
        }
    }
}

TEST(LiveTransfer, AClientThatIsKilledStoresNothing) {
    LiveServer server;
    put("/bucket/old", "old");
    for (int round = 0; round < 20; ++round) {
        Client client = server.client();
        Socket data = client.open_data();
        client.send("STOR /bucket/old\r\n");
        EXPECT_EQ(client.reply().code, 150);
        data.write(pattern(1000));
        // As the kernel does it for a process that dies: everything ends in good order, one right after the
        // other.
        client.control().close();
        data.close();
        EXPECT_TRUE(eventually([] { return store().open_sessions() == 0; }));
        ASSERT_EQ(content("/bucket/old"), "old") << round;
    }
}

TEST(LiveTransfer, ADataConnectionThatIsResetStoresNothing) {
    LiveServer server;
    Client client = server.client();
    client.command("ALLO 300000");
    Socket data = client.open_data();
    client.send("STOR /bucket/x\r\n");
    EXPECT_EQ(client.reply().code, 150);
    data.write(pattern(300000));
    data.reset();
    const Reply reply = client.reply();
    EXPECT_GE(reply.code, 400) << reply.text;
    EXPECT_FALSE(stored("/bucket/x"));
    EXPECT_EQ(client.command("NOOP").code, 200);
}

TEST(LiveTransfer, AClientThatVanishesDuringADownload) {
    LiveServer server;
    put("/bucket/large", large());
    Client client = server.client();
    const Socket data = client.open_data();
    EXPECT_EQ(client.command("RETR /bucket/large").code, 150);
    client.control().reset();
    EXPECT_TRUE(
        eventually([&] { return server.counters().operations == 0 && store().open_sessions() == 0; }));
}

TEST(LiveTransfer, AClientThatStopsReadingIsCut) {
    LiveServer server("[timeouts]\ndata_stall = 1\n");
    put("/bucket/large", large());
    Client client = server.client();
    const Socket data = client.open_data();
    EXPECT_EQ(client.command("RETR /bucket/large").code, 150);
    const Reply reply = client.reply();
    EXPECT_EQ(reply.code, 426) << reply.text;
    EXPECT_EQ(client.command("NOOP").code, 200);
}

TEST(LiveTransfer, NobodyConnects) {
    LiveServer server("[timeouts]\ndata_connect = 1\n");
    put("/bucket/x", "data");
    Client client = server.client();
    for (const char* line : {"RETR /bucket/x", "LIST /bucket"}) {
        client.passive_port();
        Reply reply = client.command(line);
        if (reply.code == 150) reply = client.reply();
        EXPECT_EQ(reply.code, 425) << line;
    }
    EXPECT_EQ(client.command("NOOP").code, 200);
}

// Some clients connect to the passive port only after they have seen the 150.
TEST(LiveTransfer, AClientMayConnectAfterThe150) {
    LiveServer server;
    put("/bucket/x", "data");
    Client client = server.client();
    for (const char* line :
         {"RETR /bucket/x", "LIST /bucket", "NLST /bucket", "MLSD /bucket", "LIST /bucket/x"}) {
        const std::uint16_t port = client.passive_port();
        ASSERT_EQ(client.command(line).code, 150) << line;
        EXPECT_NE(Socket::connect("127.0.0.1", port).read_all(), "") << line;
        EXPECT_EQ(client.reply().code, 226) << line;
    }
    for (const char* announcement : {"ALLO 4", "NOOP"}) {
        client.command(announcement);
        const std::uint16_t port = client.passive_port();
        ASSERT_EQ(client.command("STOR /bucket/late").code, 150) << announcement;
        Socket data = Socket::connect("127.0.0.1", port);
        data.write("late");
        data.close();
        EXPECT_EQ(client.reply().code, 226) << announcement;
        EXPECT_EQ(content("/bucket/late"), "late");
    }
    // A failure comes alone, connected or not.
    for (const char* line : {"RETR /bucket/none", "LIST /bucket/none"}) {
        client.passive_port();
        EXPECT_EQ(client.command(line).code, 550) << line;
    }
}

// A size is counted in bytes as they are stored: in TYPE A nobody knows how many come.
TEST(LiveTransfer, AlloInTypeACountsNotAfterTypeI) {
    LiveServer server;
    Client client = server.client();
    client.command("TYPE A");
    client.command("ALLO 3");
    client.command("TYPE I");
    EXPECT_EQ(client.store("STOR /bucket/x", "more than three").code, 226);
    EXPECT_EQ(content("/bucket/x"), "more than three");
}

TEST(LiveTransfer, OnlyTheClientsAddressGetsIn) {
    LiveServer server;
    put("/bucket/x", "secret data");
    Client client = server.client();
    const std::uint16_t port = client.passive_port();
    const Socket thief = Socket::connect("127.0.0.1", port, "127.0.0.2");
    client.send("RETR /bucket/x\r\n");
    EXPECT_EQ(thief.read_all(), "") << "a stranger gets nothing";
    const Socket own = Socket::connect("127.0.0.1", port);
    EXPECT_EQ(own.read_all(), "secret data") << "and the listener goes on";
    EXPECT_EQ(client.reply().code, 150);
    EXPECT_EQ(client.reply().code, 226);
}

TEST(LiveTransfer, ActiveMode) {
    LiveServer server;
    put("/bucket/x", "data");
    Client client = server.client();
    const Socket listener = Socket::listen("127.0.0.1");
    const std::uint16_t port = listener.local_port();
    const std::string numbers = std::to_string(port / 256) + "," + std::to_string(port % 256);
    EXPECT_EQ(client.command("PORT 127,0,0,1," + numbers).code, 200);
    client.send("RETR /bucket/x\r\n");
    EXPECT_EQ(listener.accept().read_all(), "data");
    EXPECT_EQ(client.reply().code, 150);
    EXPECT_EQ(client.reply().code, 226);
    EXPECT_EQ(client.command("EPRT |1|127.0.0.1|" + std::to_string(port) + "|").code, 200);
    client.send("RETR /bucket/x\r\n");
    EXPECT_EQ(listener.accept().read_all(), "data");
    client.reply();
    client.reply();

    EXPECT_EQ(client.command("PORT 127,0,0,2," + numbers).code, 504);
    EXPECT_EQ(client.command("PORT 127,0,0,1,3,255").code, 504);
    EXPECT_EQ(client.command("PORT 127,0,0,1").code, 501);
    EXPECT_EQ(client.command("EPRT |1|127.0.0.2|5000|").code, 504);
    EXPECT_EQ(client.command("EPRT |3|127.0.0.1|5000|").code, 522);
    EXPECT_EQ(client.command("RETR /bucket/x").code, 425) << "what was refused is not used";
}

TEST(LiveTransfer, PassiveModeSaysWhere) {
    LiveServer server("[server]\npublic_address = \"192.0.2.9\"\npassive_ports = \"42000-42100\"\n");
    Client client = server.client();
    const std::string text = client.command("PASV").text;
    int numbers[6] = {};
    ASSERT_EQ(std::sscanf(text.c_str(), "227 Entering Passive Mode (%d,%d,%d,%d,%d,%d)", &numbers[0],
                          &numbers[1], &numbers[2], &numbers[3], &numbers[4], &numbers[5]),
              6)
        << text;
    EXPECT_EQ(numbers[0], 192);
    EXPECT_EQ(numbers[3], 9);
    const int port = numbers[4] * 256 + numbers[5];
    EXPECT_GE(port, 42000);
    EXPECT_LE(port, 42100);
}

TEST(LiveTransfer, AfterEpsvAllNothingElse) {
    LiveServer server;
    put("/bucket/x", "data");
    Client client = server.client();
    EXPECT_EQ(client.command("EPSV 2").text, "522 Network protocol not supported, use (1)\r\n");
    EXPECT_EQ(client.command("EPSV x").code, 501);
    EXPECT_EQ(client.command("EPSV ALL").code, 200);
    EXPECT_EQ(client.command("PASV").code, 503);
    EXPECT_EQ(client.command("PORT 127,0,0,1,20,20").code, 503);
    EXPECT_EQ(client.command("EPRT |1|127.0.0.1|5000|").code, 503);
    Reply last;
    EXPECT_EQ(client.fetch("RETR /bucket/x", last), "data");
}

TEST(LiveTransfer, ShutdownLetsATransferEnd) {
    LiveServer server;
    put("/bucket/large", large());
    Client client = server.client();
    const Socket data = client.open_data();
    EXPECT_EQ(client.command("RETR /bucket/large").code, 150);
    server.ask_to_stop();
    EXPECT_TRUE(data.read_all() == large());
    EXPECT_EQ(client.reply().code, 226);
    EXPECT_EQ(client.reply().code, 421);
}

TEST(LiveTransfer, ShutdownCutsATransferAtTheLimit) {
    LiveServer server("[timeouts]\nshutdown = 1\n");
    put("/bucket/large", large());
    Client client = server.client();
    const Socket data = client.open_data();
    EXPECT_EQ(client.command("RETR /bucket/large").code, 150);
    server.stop();
    EXPECT_LT(data.read_all().size(), large().size());
}
