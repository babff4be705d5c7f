// A logged-in session: what the transfers and the folder walk ask of a server, one call a question. One
// thread.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "control.h"

namespace zorvan::copy {

/// One name of a folder's listing.
struct listed_name {
    std::string name;
    bool folder = false;
    bool operator==(const listed_name&) const = default;
};

/// Read one line of an MLSD listing (RFC 3659 section 7.2).
/// @return nothing for the folder itself, its parent, and whatever is neither file nor folder
/// @throws failure  weird_reply for a line that is none, and for a name that would lead out of the folder
std::optional<listed_name> parse_listing_line(const std::string& line);

class session {
  public:
    /// Connects and logs in, in binary mode. @param interrupt  outlives the session
    session(const server_address& server, const std::string& user, const std::string& password,
            const time_limits& limits, const flag& interrupt, bool verbose);

    control_connection& control() noexcept { return control_; }

    /// MODE, when it is not that mode already.
    void set_extended(bool extended);
    /// Ask for so many connections in the next downloads.
    void set_parallelism(unsigned connections);
    /// The size of a file. @return nothing if the server does not tell  @throws failure  not_found
    std::optional<std::uint64_t> size(const std::string& path);
    /// The modification time as the server writes it; "" if it does not tell.
    std::string modification_time(const std::string& path);
    /// Whether the path is that of a folder.
    bool is_folder(const std::string& path);
    void make_folder(const std::string& path);
    /// The names in a folder. @throws failure
    std::vector<listed_name> list(const std::string& path);
    /// MD5 of a whole file, in lower case. @return nothing if the server has no such command  @throws failure
    std::optional<std::string> md5(const std::string& path);
    /// Where the server waits for data connections.
    endpoint passive();
    /// Tell the server where to connect to. @throws failure  active_refused
    void active(const endpoint& listener);
    /// QUIT, without caring for the outcome.
    void quit() noexcept;

  private:
    control_connection control_;
    bool extended_ = false;
    unsigned parallelism_ = 0;
    bool no_epsv_ = false;
};

}  // namespace zorvan::copy
