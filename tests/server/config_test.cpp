// The configuration: every mistake is one line with file, line and key; the shipped example is good.
#include "config.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

using namespace zorvan::gridftp;

namespace {

constexpr const char* users = "[users]\nfile = \"/u\"\n";

server_config good(const std::string& text) {
    return parse_config(text + users, "/etc/z/s.toml");
}

std::string problem(const std::string& text) {
    try {
        parse_config(text, "s.toml");
    } catch (const config_error& error) {
        return error.what();
    }
    return "<no error>";
}

}  // namespace

TEST(Config, DefaultsStandWithoutKeys) {
    const server_config config = good("");
    ASSERT_EQ(config.listen.size(), 1U);
    EXPECT_EQ(config.listen[0].address.to_string(), "127.0.0.1");
    EXPECT_EQ(config.listen[0].port, 2811);
    EXPECT_EQ(config.backend_name, "ceph");
    EXPECT_EQ(config.block_size, 262144U);
    EXPECT_FALSE(config.backend_options);
    EXPECT_TRUE(config.spool_enabled);
    EXPECT_EQ(config.passive_first, 0);
    EXPECT_EQ(config.idle.count(), 600);
    EXPECT_NE(config.module_dir.find("/zorvan"), std::string::npos);
}

TEST(Config, LettersBeyondAsciiAreForStringsAndComments) {
    const server_config config =
        good("# \xd0\xbd \"\n[server]\nbanner = \"\xd0\xbd \\\" \xd0\xbd\" # \xd0\xbd\n");
    EXPECT_EQ(config.banner, "\xd0\xbd \" \xd0\xbd");
    EXPECT_EQ(good("\xef\xbb\xbf[server]\nbanner = '\xd0\xbd\\'\n").banner, "\xd0\xbd\\");
    EXPECT_EQ(problem("[server]\nlisten = [ \"\xd0\xbd\" , '\xd0\xbd' ] # \xd0\xbd\n").substr(0, 17),
              "s.toml:2: server.");
    constexpr const char* stray =
        "letters beyond ASCII may stand only in comments and in strings of one line";
    EXPECT_EQ(problem("BG\xd0\xbd "), std::string("s.toml:1: ") + stray);
    EXPECT_EQ(problem("# \"\n[server]\nbanner = \"x\" \xc2\xa0\n"), std::string("s.toml:3: ") + stray);
    EXPECT_EQ(problem("[server]\nbanner = \xe2\x80\x9cx\xe2\x80\x9d\n"), std::string("s.toml:2: ") + stray);
    EXPECT_EQ(problem("a = '''\n\n'''\n\xd0\xbd = 1\n"), std::string("s.toml:4: ") + stray);
    EXPECT_EQ(problem("[server]\nbanner = \"\"\"\n\xd0\xbd\"\"\"\n"), std::string("s.toml:3: ") + stray);
    EXPECT_EQ(problem("a = 0[['\xd0\xbd'\n"), std::string("s.toml:1: ") + stray);
}

TEST(Config, EveryKeyIsRead) {
    const server_config config = good(R"([server]
listen = ["127.0.0.1:0", "[::1]:21"]
port_file = "ports"
threads = 3
banner = "hi"
public_address = "192.0.2.1"
passive_ports = "50000-50010"
block_size = "1MiB"
concurrency = 7
update_interval = 9
checksums_per_user = 3
data_connections = 16
[backend]
name = "memory"
module_dir = "/m"
options = "x.conf"
root_holds_only_directories = false
[spool]
enabled = false
directory = "/s"
memory = 10
limit = "2 GiB"
[log]
level = "debug"
file = "/l"
[timeouts]
login = 1
idle = 2
data_connect = 3
data_stall = 4
receive_wait = 5
shutdown = 6
held_up_ms = 7
[[collection]]
name = "a"
hosts = ["A.example"]
policy = "a.json"
default = true
[[collection]]
name = "b"
)");
    ASSERT_EQ(config.listen.size(), 2U);
    EXPECT_EQ(config.listen[1].address.to_string(), "::1");
    EXPECT_EQ(config.listen[1].port, 21);
    EXPECT_EQ(config.port_file, "/etc/z/ports");
    EXPECT_EQ(config.threads, 3U);
    EXPECT_EQ(config.banner, "hi");
    EXPECT_EQ(config.public_address_v4->to_string(), "192.0.2.1");
    EXPECT_EQ(config.passive_first, 50000);
    EXPECT_EQ(config.passive_last, 50010);
    EXPECT_EQ(config.block_size, 1048576U);
    EXPECT_EQ(config.concurrency, 7);
    EXPECT_EQ(config.update_interval, 9);
    EXPECT_EQ(config.checksums_per_user, 3U);
    EXPECT_EQ(config.data_connections, 16U);
    EXPECT_EQ(config.held_up.count(), 7);
    EXPECT_EQ(config.backend_name, "memory");
    EXPECT_EQ(config.module_dir, "/m");
    EXPECT_EQ(config.backend_options, "/etc/z/x.conf");
    EXPECT_FALSE(config.root_holds_only_directories);
    EXPECT_FALSE(config.spool_enabled);
    EXPECT_EQ(config.spool_directory, "/s");
    EXPECT_EQ(config.spool_memory, 10U);
    EXPECT_EQ(config.spool_limit, 2ULL << 30U);
    EXPECT_EQ(config.log_level, "debug");
    EXPECT_EQ(config.log_file, "/l");
    EXPECT_EQ(config.users_file, "/u");
    EXPECT_EQ(config.login.count(), 1);
    EXPECT_EQ(config.idle.count(), 2);
    EXPECT_EQ(config.data_connect.count(), 3);
    EXPECT_EQ(config.data_stall.count(), 4);
    EXPECT_EQ(config.receive_wait.count(), 5);
    EXPECT_EQ(config.shutdown.count(), 6);
    ASSERT_EQ(config.collections.size(), 2U);
    EXPECT_EQ(config.collections[0].hosts, std::vector<std::string>{"a.example"});
    EXPECT_EQ(config.collections[0].policy, "/etc/z/a.json");
    EXPECT_TRUE(config.collections[0].is_default);
    EXPECT_EQ(config.collections[1].policy, "");
}

TEST(Config, MistakesNameFileLineAndKey) {
    EXPECT_EQ(problem("[server]\nlistne = 1\n"), "s.toml:2: server.listne: unknown key");
    EXPECT_EQ(problem("\n[sever]\n"), "s.toml:2: sever: unknown key");
    EXPECT_EQ(problem("[server]\n\nthreads = \"4\"\n"),
              "s.toml:3: server.threads: must be a whole number, not a string");
    EXPECT_EQ(problem("[server]\nlisten = \"127.0.0.1:1\"\n"),
              "s.toml:2: server.listen: must be an array of strings, not a string");
    EXPECT_EQ(
        problem("[server]\nlisten = [\"localhost:1\"]\n"),
        "s.toml:2: server.listen: \"localhost:1\" is not of the form \"ADDRESS:PORT\" or \"[ADDRESS]:PORT\" "
        "with a numeric address");
    EXPECT_EQ(problem("[server]\nlisten = []\n"), "s.toml:2: server.listen: at least one address is needed");
    EXPECT_EQ(problem("[server]\nconcurrency = 0\n"),
              "s.toml:2: server.concurrency: 0 is not between 1 and 1024");
    EXPECT_EQ(problem("[spool]\nmemory = \"64MB\"\n"), "s.toml:2: spool.memory: \"64MB\" is not a size");
    EXPECT_EQ(problem("[spool]\nenabled = 1\n"),
              "s.toml:2: spool.enabled: must be a boolean, not a whole number");
    EXPECT_EQ(problem("[log]\nlevel = \"loud\"\n"),
              "s.toml:2: log.level: must be \"error\", \"warning\", \"transfer\", \"info\" or \"debug\"");
    EXPECT_EQ(
        problem("[server]\npassive_ports = \"80-90\"\n"),
        "s.toml:2: server.passive_ports: \"80-90\" is not a range of ports like \"50000-51000\" between 1024 "
        "and 65535");
    EXPECT_EQ(problem("[backend]\nname = \"../x\"\n"),
              "s.toml:2: backend.name: must be a word of letters, digits and underscores");
    EXPECT_EQ(problem("users = 1\n"), "s.toml:1: users: must be a table, not a whole number");
    EXPECT_EQ(problem("[[collection]]\nhosts = []\n"),
              "s.toml:1: collection.name: every collection needs a name");
    EXPECT_EQ(problem("[server]\ndata_connections = 0\n"),
              "s.toml:2: server.data_connections: 0 is not between 1 and 1024");
    EXPECT_EQ(problem("[server]\ndata_connections = 1025\n"),
              "s.toml:2: server.data_connections: 1025 is not between 1 and 1024");
    EXPECT_EQ(problem("[timeouts]\nheld_up_ms = 0\n"),
              "s.toml:2: timeouts.held_up_ms: 0 is not between 1 and 60000");
    EXPECT_EQ(problem("[timeouts]\nheld_up_ms = 60001\n"),
              "s.toml:2: timeouts.held_up_ms: 60001 is not between 1 and 60000");
    EXPECT_EQ(problem("[timeouts]\nidle = 0\n"), "s.toml:2: timeouts.idle: 0 is not between 1 and 604800");
}

TEST(Config, AMessageIsOneLineWhateverTheKeyIs) {
    EXPECT_EQ(problem("[server]\n\"a\\nb\" = 1\n"), "s.toml:2: server.a\\x0ab: unknown key");
    EXPECT_EQ(problem("\"\\r\" = 1\n"), "s.toml:1: \\x0d: unknown key");
}

TEST(Config, NobodyCouldLogInWithoutAUsersFile) {
    EXPECT_EQ(problem(""), "s.toml: users.file: is missing: nobody could log in");
}

TEST(Config, TwoCollectionsCannotShareAName) {
    EXPECT_EQ(problem("[[collection]]\nname = \"a\"\n[[collection]]\nname = \"a\"\n"),
              "s.toml:3: collection.name: \"a\" is given twice");
    EXPECT_EQ(
        problem(
            "[[collection]]\nname = \"a\"\nhosts = [\"H\"]\n[[collection]]\nname = \"b\"\nhosts = [\"h\"]\n"),
        "s.toml:6: collection.hosts: \"h\" belongs to two collections");
    EXPECT_EQ(
        problem(
            "[[collection]]\nname = \"a\"\ndefault = true\n[[collection]]\nname = \"b\"\ndefault = true\n"),
        "s.toml:6: collection.default: only one collection can be the default");
}

TEST(Config, SyntaxErrorsNameTheLine) {
    const std::string text = problem("[server]\nthreads = = 4\n");
    EXPECT_EQ(text.rfind("s.toml:2: ", 0), 0U) << text;
    EXPECT_EQ(text.find('\n'), std::string::npos) << text;
}

TEST(Config, AnyMistakeInAHeaderIsAMessage) {
    for (const char* header : {"[}sers]", "[", "[[", "[[a]", "[=]", "[]", "{}", "=", "[a.]", "[.a]"})
        EXPECT_EQ(problem(std::string(header) + "\n").rfind("s.toml:", 0), 0U) << header;
}

TEST(Config, UnsetVariablesInFileNamesAreNamed) {
    ::unsetenv("ZORVAN_TEST_UNSET");
    const std::string text = problem("[users]\nfile = \"${ZORVAN_TEST_UNSET}/u\"\n");
    EXPECT_EQ(text.rfind("s.toml:2: users.file: ", 0), 0U) << text;
    EXPECT_NE(text.find("ZORVAN_TEST_UNSET"), std::string::npos) << text;
}

TEST(Config, UnreadableFilesAreNamed) {
    try {
        load_config("/nonexistent/s.toml");
        FAIL() << "no error";
    } catch (const config_error& error) {
        EXPECT_STREQ(error.what(), "/nonexistent/s.toml: No such file or directory");
    }
    try {
        load_config("/tmp");
        FAIL() << "no error";
    } catch (const config_error& error) {
        EXPECT_STREQ(error.what(), "/tmp: is a directory");
    }
}

TEST(Config, Sizes) {
    EXPECT_EQ(parse_size("0"), 0U);
    EXPECT_EQ(parse_size("64MiB"), 64ULL << 20U);
    EXPECT_EQ(parse_size(" 1 tib "), 1ULL << 40U);
    EXPECT_EQ(parse_size("9223372036854775807"), 9223372036854775807ULL);
    for (const char* text :
         {"", "MiB", "1.5GiB", "-1", "1MB", "9223372036854775807KiB", "8388608TiB", "1 2"}) {
        EXPECT_FALSE(parse_size(text)) << text;
    }
}

TEST(Config, ListenAddresses) {
    EXPECT_TRUE(parse_listen_address("0.0.0.0:0"));
    EXPECT_TRUE(parse_listen_address("[::]:65535"));
    for (const char* text :
         {"", "1.2.3.4", ":21", "::1:21", "[1.2.3.4]:21", "1.2.3.4:65536", "1.2.3.4:", "a:1"}) {
        EXPECT_FALSE(parse_listen_address(text)) << text;
    }
}

TEST(Config, AnAddressDoesNotEndAtANul) {
    EXPECT_FALSE(parse_listen_address(std::string_view("127.0.0.1\0x:80", 14)));
    EXPECT_EQ(problem("[server]\npublic_address = \"192.0.2.1\\u0000x\"\n"),
              "s.toml:2: server.public_address: \"192.0.2.1\\x00x\" is not a numeric IPv4 address");
}

TEST(Config, TheShippedExampleIsGood) {
    const server_config config = load_config(ZORVAN_PACKAGING_DIR "/zorvan-gridftp-server.toml");
    const server_config defaults = good("");
    EXPECT_EQ(config.listen.size(), 2U);
    EXPECT_EQ(config.backend_options, ZORVAN_PACKAGING_DIR "/zorvan-gridftp-server-ceph.conf");
    EXPECT_EQ(config.block_size, defaults.block_size);
}

TEST(Config, TheShippedExampleShowsTheDefaults) {
    std::ifstream stream(ZORVAN_PACKAGING_DIR "/zorvan-gridftp-server.toml");
    ASSERT_TRUE(stream);
    // What is commented out as "#key = value" is read as if it were not.
    std::string text;
    std::string line;
    while (std::getline(stream, line)) {
        if (line == "#[[collection]]") break;
        if (line.size() > 1 && line[0] == '#' && line[1] != ' ') line.erase(0, 1);
        if (line.rfind("listen = [\"0", 0) == 0 || line.rfind("options = \"z", 0) == 0) continue;
        text += line + "\n";
    }
    const server_config shown = parse_config(text, "/etc/z/s.toml");
    const server_config defaults = good("");
    EXPECT_EQ(shown.listen.size(), 1U);
    EXPECT_EQ(shown.listen[0].port, defaults.listen[0].port);
    EXPECT_EQ(shown.port_file, defaults.port_file);
    EXPECT_EQ(shown.threads, defaults.threads);
    EXPECT_EQ(shown.banner, defaults.banner);
    EXPECT_EQ(shown.public_address_v4, defaults.public_address_v4);
    EXPECT_EQ(shown.passive_first, defaults.passive_first);
    EXPECT_EQ(shown.block_size, defaults.block_size);
    EXPECT_EQ(shown.concurrency, defaults.concurrency);
    EXPECT_EQ(shown.update_interval, defaults.update_interval);
    EXPECT_EQ(shown.checksums_per_user, defaults.checksums_per_user);
    EXPECT_EQ(shown.backend_name, defaults.backend_name);
    EXPECT_EQ(shown.module_dir, defaults.module_dir);
    EXPECT_EQ(shown.backend_options, defaults.backend_options);
    EXPECT_EQ(shown.root_holds_only_directories, defaults.root_holds_only_directories);
    EXPECT_EQ(shown.spool_enabled, defaults.spool_enabled);
    EXPECT_EQ(shown.spool_directory, defaults.spool_directory);
    EXPECT_EQ(shown.spool_memory, defaults.spool_memory);
    EXPECT_EQ(shown.spool_limit, defaults.spool_limit);
    EXPECT_EQ(shown.log_level, defaults.log_level);
    EXPECT_EQ(shown.log_file, defaults.log_file);
    EXPECT_EQ(shown.login, defaults.login);
    EXPECT_EQ(shown.idle, defaults.idle);
    EXPECT_EQ(shown.data_connect, defaults.data_connect);
    EXPECT_EQ(shown.data_stall, defaults.data_stall);
    EXPECT_EQ(shown.receive_wait, defaults.receive_wait);
    EXPECT_EQ(shown.shutdown, defaults.shutdown);
    EXPECT_EQ(shown.data_connections, defaults.data_connections);
    EXPECT_EQ(shown.held_up, defaults.held_up);
}
