/*
 * The users file; see users_file.h.
 */
#include "users_file.h"

#include <crypt.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>

#include "text.h"

namespace zorvan::gridftp {

namespace {

// A yescrypt hash of a random text that was thrown away: what an empty file compares with.
constexpr std::string_view built_in_decoy =
    "$y$j9T$hL6GWc0mTYWWG0TlV3sXe0$Yv0p7H7yN9Q7oGkqXoCzQF0r2bI1n3jJv1XlZ1rF0d4";

class descriptor {
  public:
    explicit descriptor(int number) : number_(number) {}
    ~descriptor() {
        if (number_ >= 0) ::close(number_);
    }
    descriptor(const descriptor&) = delete;
    descriptor& operator=(const descriptor&) = delete;
    int get() const { return number_; }

  private:
    int number_;
};

/** Hash a password under the method and salt of `setting`. Empty when crypt(3) refuses. */
std::string hash_password(const std::string& password, const std::string& setting) {
    // 32 KiB: too much for the stack of a small thread. Wiped because it holds the password's traces.
    const auto data = std::make_unique<crypt_data>();
    std::memset(data.get(), 0, sizeof(crypt_data));
    const char* hash = ::crypt_r(password.c_str(), setting.c_str(), data.get());
    std::string result;
    if (hash != nullptr && hash[0] != '*') result = hash;
    ::explicit_bzero(data.get(), sizeof(crypt_data));
    return result;
}

/** Equality in a time that depends on the lengths alone. */
bool equal_in_constant_time(std::string_view left, std::string_view right) {
    if (left.size() != right.size()) return false;
    unsigned difference = 0;
    for (std::size_t index = 0; index < left.size(); ++index) {
        difference |= static_cast<unsigned char>(left[index]) ^ static_cast<unsigned char>(right[index]);
    }
    return difference == 0;
}

}  // namespace

users_file users_file::parse(std::string_view text, const std::string& name) {
    users_file users;
    std::size_t number = 0;
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        std::string_view line = text.substr(0, end);
        text.remove_prefix(std::min(end + 1, text.size()));
        ++number;
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        line = trim(line);
        if (line.empty() || line.front() == '#') continue;
        const std::size_t colon = line.find(':');
        if (colon == std::string_view::npos || colon == 0) {
            throw users_file_error(fmt::format("{}:{}: expected \"user:hash\"", name, number));
        }
        const std::string user(line.substr(0, colon));
        const std::string hash(line.substr(colon + 1));
        // crypt_checksalt judges the method and the salt without computing anything. It takes any two letters
        // for a traditional DES salt, and so a password in plain text for a hash; only methods with a "$" are
        // let in.
        const int verdict = hash.starts_with('$') ? ::crypt_checksalt(hash.c_str()) : CRYPT_SALT_INVALID;
        if (verdict != CRYPT_SALT_OK && verdict != CRYPT_SALT_METHOD_LEGACY) {
            throw users_file_error(fmt::format("{}:{}: the hash of user \"{}\" is none that crypt knows",
                                               name, number, printable(user)));
        }
        if (!users.hashes_.emplace(user, hash).second) {
            throw users_file_error(
                fmt::format("{}:{}: user \"{}\" is given twice", name, number, printable(user)));
        }
        if (users.decoy_.empty()) users.decoy_ = hash;
    }
    if (users.decoy_.empty()) users.decoy_ = built_in_decoy;
    return users;
}

users_file users_file::load(const std::filesystem::path& file) {
    const std::string name = file.string();
    const descriptor input(::open(name.c_str(), O_RDONLY | O_CLOEXEC));
    if (input.get() < 0) throw users_file_error(fmt::format("{}: {}", name, std::strerror(errno)));
    // The open file is examined, not the name: nobody can swap the file in between.
    struct stat status{};
    if (::fstat(input.get(), &status) != 0) {
        throw users_file_error(fmt::format("{}: {}", name, std::strerror(errno)));
    }
    if (!S_ISREG(status.st_mode)) throw users_file_error(fmt::format("{}: is not a regular file", name));
    if ((status.st_mode & S_IRWXO) != 0) {
        throw users_file_error(fmt::format("{}: is accessible to others (mode {:04o}); chmod o-rwx it", name,
                                           status.st_mode & 07777U));
    }
    std::string text;
    std::array<char, 16384> buffer{};
    for (;;) {
        const ssize_t count = ::read(input.get(), buffer.data(), buffer.size());
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) throw users_file_error(fmt::format("{}: {}", name, std::strerror(errno)));
        if (count == 0) break;
        text.append(buffer.data(), static_cast<std::size_t>(count));
    }
    return parse(text, name);
}

bool users_file::check(const std::string& user, const std::string& password) const {
    const auto entry = hashes_.find(user);
    const bool known = entry != hashes_.end();
    const std::string& expected = known ? entry->second : decoy_;
    const std::string computed = hash_password(password, expected);
    // crypt(3) reads a C string: what stands behind a NUL it would not see.
    const bool whole = password.find('\0') == std::string::npos;
    const bool equal = whole && !computed.empty() && equal_in_constant_time(computed, expected);
    return known && equal;
}

}  // namespace zorvan::gridftp
