/*
 * The users file: lines "user:hash" with hashes of crypt(3) as mkpasswd writes them (yescrypt by default).
 *
 * A users_file is immutable once loaded and may be asked from any thread. check() costs a password hash (tens
 * of milliseconds), so it never runs on a network thread.
 */
#pragma once

#include <filesystem>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>

namespace zorvan::gridftp {

/** A users file that cannot be used. what() is one line with the file, and the line where there is one. */
class users_file_error : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/** Users and the hashes of their passwords. */
class users_file {
  public:
    /**
     * Read a file. Empty lines and lines that begin with "#" are skipped.
     * @throws users_file_error for a file that is missing, unreadable, or accessible to others than its owner
     * and group, for a line without a user or with a hash that crypt(3) does not know, and for a user given
     * twice
     */
    static users_file load(const std::filesystem::path& file);

    /** The same from a text. @param name  its name, for messages */
    static users_file parse(std::string_view text, const std::string& name);

    /**
     * Whether the password is the user's. Costs the same for a user who does not exist: a hash of the same
     * strength is computed and thrown away, and hashes are compared in constant time. Any thread; blocks for
     * the time of one hash.
     */
    bool check(const std::string& user, const std::string& password) const;

    /** How many users there are. */
    std::size_t size() const { return hashes_.size(); }

  private:
    std::map<std::string, std::string, std::less<>> hashes_;
    std::string decoy_; /**< hash that stands in for a user who does not exist */
};

}  // namespace zorvan::gridftp
