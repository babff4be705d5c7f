// The program itself, as a child: exit status and standard error of what goes wrong at the start, and its
// orderly end.
#include <crypt.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <thread>
#include <vector>

#include "ftp_client.h"

namespace {

namespace fs = std::filesystem;

std::string read_file(const fs::path& file) {
    std::ifstream stream(file);
    std::ostringstream text;
    text << stream.rdbuf();
    return text.str();
}

class Program : public ::testing::Test {
  protected:
    void SetUp() override {
        char name[] = "/tmp/zorvan-program-XXXXXX";
        ASSERT_NE(::mkdtemp(name), nullptr);
        folder_ = name;
        write("users", "alice:$5$rounds=1000$saltsalt$x\n", 0640);
    }
    void TearDown() override {
        if (child_ > 0) {
            ::kill(child_, SIGKILL);
            wait();
        }
        fs::remove_all(folder_);
    }

    void write(const std::string& name, const std::string& text, mode_t mode = 0644) {
        std::ofstream(folder_ / name) << text;
        ASSERT_EQ(::chmod((folder_ / name).c_str(), mode), 0);
    }

    void write_config(const std::string& backend = "memory", const std::string& more = "") {
        write("s.toml", "[server]\nlisten = [\"127.0.0.1:0\"" +
                            std::string(ftp_test::has_ipv6() ? ", \"[::1]:0\"" : "") +
                            "]\nport_file = \"ports\"\n[backend]\nname = \"" + backend +
                            "\"\nmodule_dir = \"" ZORVAN_TEST_MODULE_DIR "\"\n" + more +
                            "[users]\nfile = \"users\"\n");
    }

    /// Wait until the program has said where it listens. @return the IPv4 port
    std::uint16_t wait_for_port() {
        wait_for([this] { return fs::exists(folder_ / "ports"); });
        std::istringstream ports(read_file(folder_ / "ports"));
        std::string address;
        std::uint16_t port = 0;
        ports >> address >> port;
        return port;
    }

    /// Wait a minute at most. @return whether it came true
    static bool wait_for(const std::function<bool()>& condition) {
        for (int round = 0; round < 6000; ++round) {
            if (condition()) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return false;
    }

    /// Wait until the program has said something.
    bool wait_for_output(const std::string& text) {
        return wait_for([&] { return output().find(text) != std::string::npos; });
    }

    void start(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), ZORVAN_TEST_SERVER);
        std::vector<char*> pointers;
        for (std::string& argument : arguments)
            pointers.push_back(argument.data());
        pointers.push_back(nullptr);
        child_ = ::fork();
        ASSERT_GE(child_, 0);
        if (child_ == 0) {
            const int output = ::open((folder_ / "stderr").c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0600);
            ::dup2(output, STDERR_FILENO);
            ::dup2(output, STDOUT_FILENO);
            ::execv(pointers[0], pointers.data());
            ::_exit(127);
        }
    }

    /// Wait for the child's end. @return its exit status, 1000 + signal when one killed it
    int wait() {
        int status = 0;
        while (::waitpid(child_, &status, 0) < 0 && errno == EINTR) {
        }
        child_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
    }

    int run(std::vector<std::string> arguments) {
        start(std::move(arguments));
        return wait();
    }

    std::string output() const { return read_file(folder_ / "stderr"); }
    std::string path(const std::string& name) const { return (folder_ / name).string(); }

    fs::path folder_;
    pid_t child_ = -1;
};

}  // namespace

TEST_F(Program, MistakesAreOneLineAndStatusOne) {
    write_config();
    EXPECT_EQ(run({"--config", path("none.toml")}), 1);
    EXPECT_EQ(output(), "zorvan-gridftp-server: " + path("none.toml") + ": No such file or directory\n");
    write("bad.toml", "[server]\nlisten = 1\n");
    EXPECT_EQ(run({"--config", path("bad.toml")}), 1);
    EXPECT_EQ(output(), "zorvan-gridftp-server: " + path("bad.toml") +
                            ":2: server.listen: must be an array of strings, not a whole number\n");
    ASSERT_EQ(::chmod(path("users").c_str(), 0644), 0);
    EXPECT_EQ(run({"--config", path("s.toml")}), 1);
    EXPECT_NE(output().find("users: is accessible to others (mode 0644)"), std::string::npos) << output();
    EXPECT_EQ(run({}), 1);
    EXPECT_EQ(run({"--nonsense"}), 1);
}

TEST_F(Program, AMissingModuleIsNamed) {
    write_config("nonesuch");
    EXPECT_EQ(run({"--config", path("s.toml")}), 1);
    EXPECT_NE(output().find("libzorvan_gridftp_server_nonesuch.so"), std::string::npos) << output();
}

TEST_F(Program, ChecksAndTellsAboutItself) {
    write_config();
    EXPECT_EQ(run({"--config", path("s.toml"), "--check"}), 0);
    EXPECT_EQ(run({"--version"}), 0);
    EXPECT_EQ(output().rfind("zorvan-gridftp-server ", 0), 0U);
    EXPECT_EQ(run({"--help"}), 0);
    EXPECT_NE(output().find("--backend-options"), std::string::npos);
}

TEST_F(Program, WritesItsPortsServesAndEnds) {
    for (const int signal : {SIGTERM, SIGINT}) {
        write_config();
        fs::remove(folder_ / "ports");
        start({"--config", path("s.toml")});
        wait_for_port();
        std::istringstream ports(read_file(folder_ / "ports"));
        std::string v4;
        std::string v6;
        std::uint16_t port = 0;
        std::uint16_t port_v6 = 0;
        ports >> v4 >> port >> v6 >> port_v6;
        ASSERT_EQ(v4, "127.0.0.1") << output();
        ASSERT_EQ(v6, ftp_test::has_ipv6() ? "::1" : "");
        ftp_test::Client client(port);
        EXPECT_EQ(client.reply().code, 220);
        if (ftp_test::has_ipv6()) {
            EXPECT_EQ(ftp_test::Client(port_v6, "::1").reply().code, 220);
        }
        ASSERT_EQ(::kill(child_, signal), 0);
        EXPECT_EQ(client.reply().code, 421);
        EXPECT_EQ(wait(), 0);
        EXPECT_NE(output().find("listening on 127.0.0.1:" + std::to_string(port)), std::string::npos)
            << output();
    }
}

// What log rotation needs: the file is moved away, and the server is told to begin a new one.
TEST_F(Program, AHangUpBeginsTheLogFileAnew) {
    write_config("memory", "[log]\nfile = \"log\"\n");
    start({"--config", path("s.toml")});
    const std::uint16_t port = wait_for_port();
    // The port is told before the log is.
    ASSERT_TRUE(wait_for([this] {
        return read_file(folder_ / "log").find("listening on") != std::string::npos;
    })) << output();
    fs::rename(folder_ / "log", folder_ / "log.1");
    ASSERT_EQ(::kill(child_, SIGHUP), 0);
    ASSERT_TRUE(wait_for([this] { return fs::exists(folder_ / "log"); })) << output();
    EXPECT_EQ(ftp_test::Client(port).reply().code, 220) << "nothing else ends or begins";
    ASSERT_EQ(::kill(child_, SIGTERM), 0);
    EXPECT_EQ(wait(), 0);
    EXPECT_NE(read_file(folder_ / "log.1").find("listening on"), std::string::npos);
    EXPECT_EQ(read_file(folder_ / "log.1").find("shutting down"), std::string::npos);
    EXPECT_NE(read_file(folder_ / "log").find("signal 15: shutting down"), std::string::npos);
    EXPECT_EQ(output(), "") << "nothing goes to standard error";
}

// A worker that sits in a request for ever holds nobody up: no new sessions, the running ones are cut at the
// limit, and after a grace the process ends as it is.
TEST_F(Program, EndsWithAWorkerThatNeverReturns) {
    crypt_data data{};
    write("users", std::string("alice:") + ::crypt_r("secret", "$5$rounds=1000$saltsalt$", &data) + "\n",
          0640);
    write_config("memory", "[timeouts]\nshutdown = 1\n");
    // It ends as it is, with threads that nobody has joined: no fault to the thread sanitizer here.
    const char* sanitizer = std::getenv("TSAN_OPTIONS");
    const std::string options = sanitizer != nullptr ? sanitizer : "";
    ::setenv("TSAN_OPTIONS", (options + ":report_thread_leaks=0").c_str(), 1);
    start({"--config", path("s.toml")});
    ::setenv("TSAN_OPTIONS", options.c_str(), 1);
    const std::uint16_t port = wait_for_port();
    auto client = ftp_test::Client::logged_in(port);
    client.send("SIZE /bucket/hang\r\n");
    ASSERT_TRUE(wait_for_output("a stat hangs")) << output();
    ASSERT_EQ(::kill(child_, SIGTERM), 0);
    ASSERT_TRUE(wait_for_output("shutting down")) << output();
    EXPECT_TRUE(wait_for([port] {
        try {
            (void)ftp_test::Client(port);
            return false;
        } catch (const std::runtime_error&) {
            return true;
        }
    })) << "no new sessions";
    EXPECT_EQ(client.reply().code, 0) << "cut, without an answer";
    EXPECT_EQ(wait(), 0);
    EXPECT_NE(output().find("ending with back-end work still running"), std::string::npos) << output();
    EXPECT_EQ(output().find(" ended"), std::string::npos) << "nothing is deactivated";
}
