// The users file: hashes as mkpasswd writes them, refused when others may read it.
#include "users_file.h"

#include <crypt.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

using namespace zorvan::gridftp;

namespace {

// mkpasswd -m yescrypt correct-horse
constexpr const char* yescrypt = "$y$j9T$mBB/2lECcW.SWCKhWxBPZ0$dyDJT/PN/FOgRJZA6GgcV4xzig9UyWpmaLVELZKil65";
// mkpasswd -m sha512crypt -R 1000 secret
const std::string& sha512() {
    static const std::string hash = [] {
        crypt_data data{};
        return std::string(::crypt_r("secret", "$6$rounds=1000$saltsalt$", &data));
    }();
    return hash;
}

std::string problem(const std::string& text) {
    try {
        users_file::parse(text, "users");
    } catch (const users_file_error& error) {
        return error.what();
    }
    return "<no error>";
}

class TemporaryFile {
  public:
    explicit TemporaryFile(const std::string& text) {
        const int descriptor = ::mkstemp(name_);
        EXPECT_GE(descriptor, 0);
        ::close(descriptor);
        std::ofstream(name_) << text;
    }
    ~TemporaryFile() { ::unlink(name_); }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;
    const char* name() const { return name_; }

  private:
    char name_[32] = "/tmp/zorvan-users-XXXXXX";
};

}  // namespace

TEST(UsersFile, ChecksPasswords) {
    const users_file users = users_file::parse(
        "# comment\n\nalice:" + std::string(yescrypt) + "\r\nbob:" + sha512() + "\n", "users");
    EXPECT_EQ(users.size(), 2U);
    EXPECT_TRUE(users.check("alice", "correct-horse"));
    EXPECT_FALSE(users.check("alice", "correct-horsf"));
    EXPECT_FALSE(users.check("alice", ""));
    EXPECT_FALSE(users.check("alice", "secret"));
    EXPECT_TRUE(users.check("bob", "secret"));
    EXPECT_FALSE(users.check("bob", "correct-horse"));
    EXPECT_FALSE(users.check("ALICE", "correct-horse"));
    EXPECT_FALSE(users.check("", "correct-horse"));
}

TEST(UsersFile, APasswordDoesNotEndAtANul) {
    const users_file users = users_file::parse("bob:" + sha512() + "\n", "users");
    EXPECT_TRUE(users.check("bob", "secret"));
    EXPECT_FALSE(users.check("bob", std::string("secret\0", 7)));
    EXPECT_FALSE(users.check("bob", std::string("secret\0more", 11)));
    EXPECT_FALSE(users.check(std::string("bob\0", 4), "secret"));
}

TEST(UsersFile, AnUnknownUserIsRefusedEvenWithTheDecoysPassword) {
    const users_file users = users_file::parse("alice:" + std::string(yescrypt) + "\n", "users");
    EXPECT_FALSE(users.check("mallory", "correct-horse"));
}

TEST(UsersFile, AnEmptyFileLetsNobodyIn) {
    const users_file users = users_file::parse("", "users");
    EXPECT_EQ(users.size(), 0U);
    EXPECT_FALSE(users.check("alice", ""));
}

TEST(UsersFile, MistakesNameTheLine) {
    EXPECT_EQ(problem("alice\n"), "users:1: expected \"user:hash\"");
    EXPECT_EQ(problem("\n:x\n"), "users:2: expected \"user:hash\"");
    EXPECT_EQ(problem("alice:plain-text\n"), "users:1: the hash of user \"alice\" is none that crypt knows");
    EXPECT_EQ(problem("alice:\n"), "users:1: the hash of user \"alice\" is none that crypt knows");
    EXPECT_EQ(problem("a:" + sha512() + "\na:" + sha512() + "\n"), "users:2: user \"a\" is given twice");
}

TEST(UsersFile, IsRefusedWhenOthersMayReadIt) {
    const TemporaryFile file("alice:" + std::string(yescrypt) + "\n");
    ASSERT_EQ(::chmod(file.name(), 0640), 0);
    EXPECT_EQ(users_file::load(file.name()).size(), 1U);
    ASSERT_EQ(::chmod(file.name(), 0644), 0);
    try {
        users_file::load(file.name());
        FAIL() << "no error";
    } catch (const users_file_error& error) {
        EXPECT_EQ(std::string(error.what()),
                  std::string(file.name()) + ": is accessible to others (mode 0644); chmod o-rwx it");
    }
}

TEST(UsersFile, AMissingFileIsNamed) {
    try {
        users_file::load("/nonexistent/users");
        FAIL() << "no error";
    } catch (const users_file_error& error) {
        EXPECT_STREQ(error.what(), "/nonexistent/users: No such file or directory");
    }
}

TEST(UsersFile, TheShippedExampleIsGood) {
    std::ifstream stream(ZORVAN_PACKAGING_DIR "/users.example");
    const std::string text((std::istreambuf_iterator<char>(stream)), std::istreambuf_iterator<char>());
    EXPECT_TRUE(users_file::parse(text, "users").check("alice", "correct-horse"));
}
