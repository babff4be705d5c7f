// Replies of an FTP server (RFC 959 section 4.2), taken apart from whatever bytes come. No I/O; one user at a
// time.
#pragma once

#include <cstddef>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zorvan::copy {

struct reply {
    int code = 0;
    std::vector<std::string> lines;  ///< without line ends; the first and the last with their code

    bool preliminary() const noexcept { return code < 200; }
    bool good() const noexcept { return code >= 200 && code < 300; }
    bool wants_more() const noexcept { return code >= 300 && code < 400; }
    bool passing() const noexcept { return code >= 400 && code < 500; }
    /// The text of the last line, without its code.
    std::string last() const;
    /// The text of the first line, without its code: a word for programs, in the gateway's errors.
    std::string word() const;
    /// One line for people, safe for a terminal: the code, the word and the text of the last line.
    std::string summary() const;
};

class reply_parser {
  public:
    /// A server whose replies are larger is no server that anybody wants to listen to.
    static constexpr std::size_t longest_line = 65536;
    static constexpr std::size_t largest_reply = 1 << 20;

    /// @throws failure  weird_reply for what is no reply, or a limit is passed; the parser is of no use then
    void feed(std::string_view bytes);
    /// The next reply that is complete, preliminary ones included.
    std::optional<reply> take();

  private:
    void take_line(std::string_view line);

    std::string line_;
    std::optional<reply> open_;  ///< lines are still to come
    std::size_t size_ = 0;       ///< of the open one
    std::deque<reply> ready_;
};

/// The ranges of a "111 Range Marker 0-29,40-99" as they stand there; nothing if it is none.
std::optional<std::string> range_marker(const reply& from);

/// The port of a "229 ... (|||port|)" (RFC 2428); nothing if it has none.
std::optional<unsigned> extended_passive_port(const reply& from);

/// The port of a "227 ... h1,h2,h3,h4,p1,p2" (RFC 959, RFC 1123 section 4.1.2.6); nothing if it has none. The
/// address is left out on purpose: data connections go to the host of the control connection.
std::optional<unsigned> passive_port(const reply& from);

}  // namespace zorvan::copy
