// Directories and listings over sockets against the real server.
#include <gtest/gtest.h>

#include "live_server.h"

using namespace ftp_test;

namespace {

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> result;
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = text.find("\r\n", begin);
        if (end == std::string::npos) {
            ADD_FAILURE() << "a line without CRLF: " << text.substr(begin);
            break;
        }
        result.push_back(text.substr(begin, end - begin));
        begin = end + 2;
    }
    return result;
}

}  // namespace

TEST(LiveListing, ChangesDirectories) {
    LiveServer server;
    put("/bucket/file", "x");
    Client client = server.client();
    EXPECT_EQ(client.command("CWD bucket").code, 250);
    EXPECT_EQ(client.command("PWD").text, "257 \"/bucket\" is the current directory.\r\n");
    EXPECT_EQ(client.command("MKD sub \"dir\"").text, "257 \"/bucket/sub \"\"dir\"\"\" created.\r\n");
    EXPECT_EQ(client.command("CWD sub \"dir\"").code, 250);
    EXPECT_EQ(client.command("XPWD").text, "257 \"/bucket/sub \"\"dir\"\"\" is the current directory.\r\n");
    EXPECT_EQ(client.command("CDUP").code, 250);
    EXPECT_EQ(client.command("XCUP").code, 250);
    EXPECT_EQ(client.command("CDUP").code, 250);
    EXPECT_EQ(client.command("PWD").text, "257 \"/\" is the current directory.\r\n");
    EXPECT_EQ(client.command("CWD /bucket/file").text, "550 Not a directory.\r\n");
    EXPECT_EQ(client.command("CWD /none").code, 550);
    EXPECT_EQ(client.command("XMKD /bucket/a").code, 257);
    EXPECT_EQ(client.command("MKD /bucket/a").code, 553);
    EXPECT_EQ(client.command("XCWD /bucket/a/").code, 250);
    EXPECT_EQ(client.command("RMD /bucket").code, 550);
    EXPECT_EQ(client.command("XRMD /bucket/a").code, 250);
}

TEST(LiveListing, LongLines) {
    LiveServer server;
    put("/bucket/file", "12345");
    store().make_directory("/bucket/dir");
    Client client = server.client();
    Reply last;
    for (const char* line : {"LIST /bucket", "LIST -la /bucket", "LIST -a -l /bucket/"}) {
        const std::vector<std::string> listed = lines(client.fetch(line, last));
        EXPECT_EQ(last.code, 226);
        ASSERT_EQ(listed.size(), 2U) << line;
        EXPECT_EQ(listed[0].substr(0, 11), "drwxr-xr-x ");
        EXPECT_EQ(listed[0].substr(listed[0].size() - 4), " dir");
        EXPECT_EQ(listed[1].substr(0, 11), "-rw-r--r-- ");
        EXPECT_NE(listed[1].find("           5 "), std::string::npos);
        EXPECT_EQ(listed[1].substr(listed[1].size() - 5), " file");
    }
    const std::vector<std::string> single = lines(client.fetch("LIST /bucket/file", last));
    ASSERT_EQ(single.size(), 1U);
    EXPECT_EQ(single[0].substr(single[0].size() - 5), " file");
}

TEST(LiveListing, Names) {
    LiveServer server;
    put("/bucket/file", "12345");
    store().make_directory("/bucket/dir");
    Client client = server.client();
    Reply last;
    EXPECT_EQ(client.fetch("NLST /bucket", last), "dir\r\nfile\r\n");
    EXPECT_EQ(client.fetch("NLST /bucket/file", last), "/bucket/file\r\n");
    EXPECT_EQ(client.fetch("NLST /bucket/dir", last), "");
    EXPECT_EQ(last.code, 226);
    client.command("CWD /bucket");
    EXPECT_EQ(client.fetch("NLST", last), "dir\r\nfile\r\n");
}

TEST(LiveListing, Facts) {
    LiveServer server;
    put("/bucket/file", "12345");
    store().make_directory("/bucket/dir");
    Client client = server.client();
    client.command("OPTS MLST type;size;");
    Reply last;
    EXPECT_EQ(client.fetch("MLSD /bucket", last),
              "type=cdir; .\r\ntype=dir; dir\r\ntype=file;size=5; file\r\n");
    EXPECT_EQ(last.code, 226);
    EXPECT_EQ(client.fetch("MLSD /bucket/file", last), "");
    EXPECT_EQ(last.code, 501);
    EXPECT_EQ(client.command("MLST /bucket/file").text,
              "250-Listing /bucket/file\r\n type=file;size=5; /bucket/file\r\n250 End\r\n");
    EXPECT_EQ(client.command("MLST /bucket").text,
              "250-Listing /bucket\r\n type=dir; /bucket\r\n250 End\r\n");
    client.command("CWD /bucket");
    EXPECT_EQ(client.command("MLST").text, "250-Listing /bucket\r\n type=dir; /bucket\r\n250 End\r\n");
    EXPECT_EQ(client.command("MLST none").code, 550);
    EXPECT_EQ(client.fetch("MLSD none", last), "");
    EXPECT_EQ(last.code, 550);
}

TEST(LiveListing, OnTheControlConnection) {
    LiveServer server;
    put("/bucket/file", "12345");
    Client client = server.client();
    const std::vector<std::string> listed = lines(client.command("STAT /bucket").text);
    ASSERT_EQ(listed.size(), 3U);
    EXPECT_EQ(listed[0], "213-Status of /bucket:");
    EXPECT_EQ(listed[1].substr(listed[1].size() - 5), " file");
    EXPECT_EQ(listed[2], "213 End of status.");
    EXPECT_EQ(client.command("STAT /none").code, 550);
    EXPECT_EQ(client.command("STAT").code, 211);
}

TEST(LiveListing, AFailedListingGetsItsErrorAlone) {
    LiveServer server;
    Client client = server.client();
    for (const char* line : {"LIST /none", "NLST /none", "MLSD /none", "LIST /bucket/error-generic"}) {
        const Socket data = client.open_data();
        EXPECT_EQ(client.command(line).code, 550) << line;
    }
}

TEST(LiveListing, LongListingsComeWhole) {
    LiveServer server;
    std::string expected;
    for (int index = 0; index < 5000; ++index) {
        char name[16];
        std::snprintf(name, sizeof name, "n%05d", index);
        put(std::string("/bucket/") + name, "");
        expected += std::string(name) + "\r\n";
    }
    Client client = server.client();
    Reply last;
    for (const int batch : {1, 32, 1000}) {
        store().set_batch(batch);
        EXPECT_TRUE(client.fetch("NLST /bucket", last) == expected) << batch;
        EXPECT_EQ(last.code, 226);
    }
}

TEST(LiveListing, ANameCannotAddALine) {
    LiveServer server;
    put("/bucket/a\r\n226 done", "x");
    put("/bucket/b\nc", "x");
    put("/bucket/..", "x");
    Client client = server.client();
    Reply last;
    EXPECT_EQ(client.fetch("NLST /bucket", last), "a??226 done\r\nb?c\r\n");
    EXPECT_EQ(lines(client.fetch("LIST /bucket", last)).size(), 2U);
    EXPECT_EQ(lines(client.fetch("MLSD /bucket", last)).size(), 3U);
    const std::vector<std::string> status = lines(client.command("STAT /bucket").text);
    ASSERT_EQ(status.size(), 4U);
    EXPECT_EQ(status.back(), "213 End of status.");
}

TEST(LiveListing, AbortsAListing) {
    LiveServer server("[timeouts]\ndata_connect = 600\n");
    for (int index = 0; index < 3000; ++index)
        put("/bucket/name" + std::to_string(index), "");
    Client client = server.client();
    client.passive_port();  // and nobody connects
    client.send("LIST /bucket\r\n");
    EXPECT_TRUE(eventually([&] { return server.counters().operations == 1; }));
    client.send("ABOR\r\n");
    EXPECT_EQ(client.reply().code, 426);
    EXPECT_EQ(client.reply().code, 226);
    Reply last;
    EXPECT_EQ(lines(client.fetch("NLST /bucket", last)).size(), 3000U);
}

TEST(LiveListing, AClientThatVanishesDuringAListing) {
    LiveServer server("[timeouts]\ndata_connect = 600\n");
    for (int index = 0; index < 3000; ++index)
        put("/bucket/name" + std::to_string(index), "");
    Client client = server.client();
    client.passive_port();
    client.send("LIST /bucket\r\n");
    EXPECT_TRUE(eventually([&] { return server.counters().operations == 1; }));
    client.control().close();
    EXPECT_TRUE(eventually([] { return store().open_sessions() == 0; }));
}
