// ~/.netrc files.
#include "netrc.h"

#include <gtest/gtest.h>

#include "failure.h"

namespace zorvan::copy {
namespace {

constexpr const char* sample = R"(# people's machines
machine one.example login alice password "a b\"c"
machine two.example
    login bob
    account x
    password p2
macdef init
    machine three.example login no password no

machine two.example login carol password p3
default login guest password g
)";

TEST(Netrc, FindsAHost) {
    EXPECT_EQ(find_netrc_entry(sample, "one.example", ""), (netrc_entry{"alice", "a b\"c"}));
    EXPECT_EQ(find_netrc_entry(sample, "TWO.example", ""), (netrc_entry{"bob", "p2"}));
    EXPECT_EQ(find_netrc_entry(sample, "two.example", "carol"), (netrc_entry{"carol", "p3"}));
}

TEST(Netrc, FallsBackToTheDefault) {
    EXPECT_EQ(find_netrc_entry(sample, "three.example", ""), (netrc_entry{"guest", "g"}));
    EXPECT_FALSE(find_netrc_entry(sample, "three.example", "alice"));
    EXPECT_FALSE(find_netrc_entry("machine a login b password c", "x", ""));
}

TEST(Netrc, SurvivesWhatIsNone) {
    for (const char* text : {"", "machine", "machine x login", "default", "\"", "\"\\", "password x",
                             "macdef", "#", "# x", "garbage in here"}) {
        const auto found = find_netrc_entry(text, "x", "");
        EXPECT_TRUE(!found || (found->user.empty() && found->password.empty())) << text;
    }
}

TEST(Netrc, HasToBeThere) {
    try {
        read_netrc("/nonexistent/netrc");
        FAIL();
    } catch (const failure& error) {
        EXPECT_EQ(error.status(), exit_status::bad_usage);
    }
}

}  // namespace
}  // namespace zorvan::copy
