// What a copy can fail with. The numbers are curl's where it has one for the case: scripts know them.
#pragma once

#include <stdexcept>
#include <string>

namespace zorvan::copy {

/// Exit statuses of the program.
enum class exit_status : int {
    ok = 0,
    bad_usage = 2,
    malformed_url = 3,
    host_not_resolved = 6,
    connect_failed = 7,
    weird_reply = 8,
    access_denied = 9,
    weird_passive_reply = 14,
    partial_file = 18,
    download_refused = 19,
    command_refused = 21,
    write_failed = 23,
    upload_refused = 25,
    read_failed = 26,
    timed_out = 28,
    active_refused = 30,
    restart_refused = 31,
    send_failed = 55,
    receive_failed = 56,
    login_denied = 67,
    not_found = 78,
    checksum_mismatch = 100,  ///< curl has none
    interrupted = 130         ///< as a shell shows a program that Ctrl-C ended
};

/// A copy failed. The text is for people: one line, without a password, safe for a terminal.
class failure : public std::runtime_error {
  public:
    /// @param passing  another try might succeed
    failure(exit_status status, const std::string& text, bool passing = false)
        : std::runtime_error(text), status_(status), passing_(passing) {}
    exit_status status() const noexcept { return status_; }
    bool passing() const noexcept { return passing_; }

  private:
    exit_status status_;
    bool passing_;
};

/// Thrown out of a wait that another part of the same transfer has ended; its reason is reported there.
class cancelled : public std::exception {
  public:
    const char* what() const noexcept override { return "cancelled"; }
};

}  // namespace zorvan::copy
