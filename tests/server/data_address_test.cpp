// PORT, EPRT, PASV and EPSV addresses, and whom a data connection may reach.
#include "data_address.h"

#include <gtest/gtest.h>

#include "command_table.h"
#include "replies.h"

using namespace zorvan::gridftp;
namespace ip = boost::asio::ip;

TEST(DataAddress, Port) {
    const auto endpoint = parse_port_argument("192,0,2,7,4,1");
    ASSERT_TRUE(endpoint);
    EXPECT_EQ(endpoint->address().to_string(), "192.0.2.7");
    EXPECT_EQ(endpoint->port(), 1025);
    for (const char* text : {"", "1,2,3,4,5", "1,2,3,4,5,6,7", "1,2,3,4,5,256", "1,2,3,4,5,-6", "1,2,3,4,,6",
                             "1.2.3.4,5,6", "a,b,c,d,e,f", "1,2,3,4,5,6,"}) {
        EXPECT_FALSE(parse_port_argument(text)) << text;
    }
}

TEST(DataAddress, Eprt) {
    ip::tcp::endpoint endpoint;
    EXPECT_EQ(parse_eprt_argument("|1|132.235.1.2|6275|", endpoint), eprt_verdict::good);
    EXPECT_EQ(endpoint, ip::tcp::endpoint(ip::make_address("132.235.1.2"), 6275));
    EXPECT_EQ(parse_eprt_argument("!2!1080::8:800:200C:417A!5282!", endpoint), eprt_verdict::good);
    EXPECT_EQ(endpoint, ip::tcp::endpoint(ip::make_address("1080::8:800:200C:417A"), 5282));
    // Whatever the client calls its interface.
    for (const char* text : {"|2|fe80::1%eth7|5282|", "|2|fe80::1%|5282|"}) {
        EXPECT_EQ(parse_eprt_argument(text, endpoint), eprt_verdict::good) << text;
        EXPECT_EQ(endpoint, ip::tcp::endpoint(ip::make_address("fe80::1"), 5282)) << text;
    }
    EXPECT_EQ(parse_eprt_argument("|3|x|1|", endpoint), eprt_verdict::unknown_protocol);
    for (const char* text : {"", "|1|1.2.3.4|21", "|1|::1|2100|", "|2|1.2.3.4|2100|", "|1|1.2.3.4|70000|",
                             "|1|1.2.3.4|0|", "|2|fe80::1%\xa6\xa6|5282|", "|2|fe80::1%a b|5282|",
                             "|1|1.2.3.4|", "|1|1.2.3.4|2100|x|", "|x|1.2.3.4|2100|"}) {
        EXPECT_EQ(parse_eprt_argument(text, endpoint), eprt_verdict::malformed) << text;
    }
    EXPECT_EQ(parse_eprt_argument(std::string_view("|1|1.2.3.4\0x|2100|", 18), endpoint),
              eprt_verdict::malformed);
}

TEST(DataAddress, AnAddressIsTheWholeText) {
    EXPECT_EQ(parse_address("192.0.2.7"), ip::make_address("192.0.2.7"));
    EXPECT_EQ(parse_address("::1"), ip::make_address("::1"));
    EXPECT_EQ(parse_address("fe80::1%lo"), ip::make_address("fe80::1%lo"));
    EXPECT_EQ(parse_address("fe80::1%4294967295")->to_v6().scope_id(), 4294967295U);
    for (const std::string_view text :
         {std::string_view("1.2.3.4\0", 8), std::string_view("::1\0x", 5), std::string_view("1.2.3.4 "),
          std::string_view("host"), std::string_view(), std::string_view("fe80::1%"),
          std::string_view("fe80::1%none"), std::string_view("fe80::1%0"), std::string_view("fe80::1%-1"),
          std::string_view("fe80::1%4294967296"),
          std::string_view("fe80::1%\xa6\xa6"
                           "9"),
          std::string_view("192.0.2.7%lo")}) {
        EXPECT_EQ(parse_address(text), std::nullopt) << text;
    }
}

TEST(DataAddress, OnlyTheClientItselfAndNoSystemPort) {
    const auto client = ip::make_address("192.0.2.7");
    EXPECT_TRUE(is_allowed_data_peer({client, 1024}, client));
    EXPECT_FALSE(is_allowed_data_peer({client, 1023}, client));
    EXPECT_FALSE(is_allowed_data_peer({client, 25}, client));
    EXPECT_FALSE(is_allowed_data_peer({ip::make_address("192.0.2.8"), 2000}, client));
    EXPECT_FALSE(is_allowed_data_peer({ip::make_address("::1"), 2000}, client));
    EXPECT_TRUE(is_allowed_data_peer({ip::make_address("::ffff:192.0.2.7"), 2000}, client));
    EXPECT_TRUE(is_allowed_data_peer({ip::make_address("fe80::1"), 2000}, ip::make_address("fe80::1%lo")));
}

TEST(DataAddress, PassiveReplies) {
    EXPECT_EQ(passive_text(ip::make_address_v4("192.0.2.7"), 50001),
              "Entering Passive Mode (192,0,2,7,195,81)");
    EXPECT_EQ(extended_passive_text(50001), "Entering Extended Passive Mode (|||50001|)");
}

TEST(CommandTable, FindsVerbsWhateverTheirCase) {
    ASSERT_NE(find_command("retr"), nullptr);
    EXPECT_EQ(find_command("rEtR")->verb, "RETR");
    EXPECT_EQ(find_command("RETRX"), nullptr);
    EXPECT_EQ(find_command(""), nullptr);
    for (const command_entry& entry : all_commands())
        EXPECT_EQ(find_command(entry.verb), &entry);
}

TEST(CommandTable, OnlyTheseWorkBeforeLogin) {
    const std::string_view expected[] = {"ACCT", "AUTH", "CCC",  "CLNT", "DCAU", "FEAT",
                                         "HELP", "HOST", "LANG", "NOOP", "OPTS", "PASS",
                                         "PBSZ", "PROT", "QUIT", "REIN", "SYST", "USER"};
    std::vector<std::string_view> found;
    for (const command_entry& entry : all_commands()) {
        if (entry.before_login) found.push_back(entry.verb);
    }
    EXPECT_EQ(found, std::vector<std::string_view>(std::begin(expected), std::end(expected)));
}

TEST(Replies, Forms) {
    EXPECT_EQ(reply(220, "Hi."), "220 Hi.\r\n");
    EXPECT_EQ(reply(550, "a\r\nb"), "550 a??b\r\n");
    EXPECT_EQ(multi_line_reply(211, "Features:", {"UTF8", "a\nb"}, "End"),
              "211-Features:\r\n UTF8\r\n a?b\r\n211 End\r\n");
}
