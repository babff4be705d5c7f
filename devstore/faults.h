// Scripted faults: rules that tests put in through the control port and that
// the session consults at defined points of an exchange. Nothing outside this
// file and the session knows of them. Thread-safe.
//
// Points, in order: head read (delay, direct reply) - body read (cut or stall
// after n bytes, withheld 100) - operation done (status, headers, ETag, XML
// changed) - before the reply (cut, stall) - within the reply (cut or stall
// after n bytes, short or overlong body).
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <regex>
#include <string>
#include <string_view>
#include <vector>

#include "http_message.h"

namespace zorvan::devstore {

/// What happens to a matching exchange. All byte counts are of body bytes.
struct fault_action {
    std::uint64_t delay_ms = 0;       ///< wait before anything else
    std::optional<unsigned> status;   ///< answer this status instead of performing the request
    std::optional<std::string> body;  ///< the body of the reply
    std::vector<name_value> headers;  ///< set in the reply
    std::vector<std::string> remove_headers;
    std::string redirect;            ///< Location of the reply; status 307 unless given
    bool perform = false;            ///< with status/body/redirect: perform first, then answer this
    bool read_body = false;          ///< with status/body/redirect: read the request's body first
    bool withhold_continue = false;  ///< read the body without sending 100
    std::optional<std::uint64_t> cut_request_after;
    std::optional<std::uint64_t> stall_request_after;
    bool cut_before_reply = false;
    bool stall_before_reply = false;
    std::optional<std::uint64_t> cut_reply_after;
    std::optional<std::uint64_t> stall_reply_after;
    bool reset = false;            ///< cuts end with RST instead of FIN
    std::uint64_t short_body = 0;  ///< a well-formed reply with that many bytes less than it should have
    std::uint64_t overlong = 0;    ///< so many bytes more than Content-Length says
    std::string etag;              ///< "wrong" or "missing", in headers and XML
    bool truncate_xml = false;     ///< a well-formed reply whose XML ends in the middle
    bool ignore_range = false;     ///< 200 and the whole object for a ranged GET
    std::uint64_t generation = 0;  ///< of the rules that matched; a stall lasts as long as they do

    /// The reply is written by the rule, not by the operation.
    [[nodiscard]] bool answers() const { return status || body || !redirect.empty(); }
};

/// The rules in force.
class fault_plan {
  public:
    /// Adds a rule from its JSON text (the form is in the control port's help). Throws std::invalid_argument.
    void add(std::string_view json);
    /// Removes all rules and releases every stalled exchange.
    void clear();
    /// The action for a request whose head was just read; counts the match. The first fitting rule wins.
    std::optional<fault_action> match(const http_request& request);
    /// Changes with every clear(); a stall ends when it is another than that of the match.
    [[nodiscard]] std::uint64_t generation() const;

  private:
    struct rule {
        std::string method;
        std::optional<std::regex> path;
        std::optional<std::regex> query;
        std::uint64_t skip = 0;
        std::uint64_t count = 1;  ///< 0: without end
        bool endless = false;
        fault_action action;
    };
    mutable std::mutex mutex_;
    std::vector<rule> rules_;
    std::uint64_t generation_ = 0;
};

/// Applies the changes a rule asks for to the finished reply: status, body, headers, ETag, XML.
void apply_fault(const fault_action& action, http_response& response);

}  // namespace zorvan::devstore
