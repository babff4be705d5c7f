/*
 * Replies: every fixed text that the server says, and the forms that RFC 959 (4.2) gives to replies.
 *
 * Pure functions and constants, any thread. Whatever goes into a reply goes through single_line() here, so
 * that no file name can ever end a reply or begin another.
 */
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zorvan::gridftp {

/** One line: "CODE text" with CRLF. CR, LF and NUL in the text become "?". */
std::string reply(int code, std::string_view text);

/**
 * A reply of several lines: "CODE-first", each of `middle` as it is behind `prefix`, "CODE last".
 * @param prefix  put before each middle line: " " as in FEAT, "" for a listing, "CODE-" for an error
 */
std::string multi_line_reply(int code, std::string_view first, const std::vector<std::string>& middle,
                             std::string_view last, std::string_view prefix = " ");

/** One line of the middle of a reply, with CRLF. */
std::string reply_line(std::string_view text);

/** The 111 marker of an upload in extended mode (GFD.20). @param ranges  as range_list::text() */
std::string range_marker(std::string_view ranges);

/** The 112 marker of a transfer in extended mode (GFD.20): of the only stripe. @param bytes  moved so far */
std::string performance_marker(std::chrono::system_clock::time_point time, std::uint64_t bytes);

/** Fixed texts, by what has happened. */
namespace texts {
inline constexpr std::string_view goodbye = "Goodbye.";
inline constexpr std::string_view need_user = "Please log in with USER and PASS first.";
inline constexpr std::string_view need_user_first = "Log in with USER first.";
inline constexpr std::string_view need_password = "Password required.";
inline constexpr std::string_view logged_in = "Logged in.";
inline constexpr std::string_view already_logged_in = "Already logged in; use REIN to begin anew.";
inline constexpr std::string_view login_incorrect = "Login incorrect.";
inline constexpr std::string_view need_host = "Choose a collection with HOST first.";
inline constexpr std::string_view storage_unavailable = "The storage of this collection is not available.";
inline constexpr std::string_view storage_refused = "The storage refused the log-in.";
inline constexpr std::string_view storage_cannot = "command not supported by this storage";
inline constexpr std::string_view unknown_error = "unknown error";
inline constexpr std::string_view superfluous = "ACCT is superfluous here.";
inline constexpr std::string_view reinitialized = "Session reset; log in with USER.";
inline constexpr std::string_view host_accepted = "Host accepted.";
inline constexpr std::string_view host_unknown = "Unknown host.";
inline constexpr std::string_view host_too_late = "HOST comes before USER.";
inline constexpr std::string_view line_too_long = "Line too long.";
inline constexpr std::string_view unknown_command = "Unknown command.";
inline constexpr std::string_view too_many_errors = "Too many unknown commands; closing.";
inline constexpr std::string_view not_implemented = "Command not implemented.";
inline constexpr std::string_view no_argument_wanted = "The command takes no argument.";
inline constexpr std::string_view argument_wanted = "The command needs an argument.";
inline constexpr std::string_view bad_argument = "Bad argument.";
inline constexpr std::string_view bad_parameter = "Parameter not supported.";
inline constexpr std::string_view bad_path = "The path holds a byte that no path can hold.";
inline constexpr std::string_view ok = "OK.";
inline constexpr std::string_view system_type = "UNIX Type: L8";
inline constexpr std::string_view login_timeout = "Log-in took too long; closing.";
inline constexpr std::string_view idle_timeout = "Idle for too long; closing.";
inline constexpr std::string_view shutting_down = "The server is shutting down.";
inline constexpr std::string_view out_of_resources = "The server is out of resources; closing.";

inline constexpr std::string_view need_data_connection = "Use PASV, EPSV, PORT or EPRT first.";
inline constexpr std::string_view extended_upload_passive =
    "In extended mode the sender opens the data connections: use PASV, EPSV or SPAS before an upload.";
inline constexpr std::string_view extended_download_active =
    "In extended mode the sender opens the data connections: use PORT, EPRT or SPOR before a download.";
inline constexpr std::string_view no_extended_listing = "Listings are sent in stream mode only: use MODE S.";
inline constexpr std::string_view bad_restart =
    "An upload can be restarted only behind one part that begins at 0.";
inline constexpr std::string_view append_in_stream = "Appending is possible in stream mode only: use MODE S.";
inline constexpr std::string_view one_stripe = "This server has one stripe: name one address.";
inline constexpr std::string_view cannot_listen = "Cannot open a data port.";
inline constexpr std::string_view only_epsv = "Only EPSV is accepted after EPSV ALL.";
inline constexpr std::string_view pasv_needs_ipv4 = "PASV works over IPv4 only; use EPSV.";
inline constexpr std::string_view spas_needs_ipv4 = "SPAS works over IPv4 only; use EPSV.";
inline constexpr std::string_view spor_needs_ipv4 = "SPOR works over IPv4 only; use EPRT.";
inline constexpr std::string_view port_refused =
    "Data connections go to the client's own address and to ports above 1023.";
inline constexpr std::string_view opening_data = "Opening the data connection.";
inline constexpr std::string_view transfer_complete = "Transfer complete.";
inline constexpr std::string_view transfer_aborted = "Transfer aborted.";
inline constexpr std::string_view listing_aborted = "Listing aborted.";
inline constexpr std::string_view cannot_open_data = "Cannot open the data connection.";
inline constexpr std::string_view data_failed = "The data connection failed.";
inline constexpr std::string_view abort_done = "ABOR done.";

inline constexpr std::string_view cwd_done = "Directory changed.";
inline constexpr std::string_view not_a_directory = "Not a directory.";
inline constexpr std::string_view not_a_file = "Not a regular file.";
inline constexpr std::string_view not_a_listing = "Not a directory; use MLST.";
inline constexpr std::string_view removed = "Removed.";
inline constexpr std::string_view deleted = "Deleted.";
inline constexpr std::string_view renamed = "Renamed.";
inline constexpr std::string_view rename_pending = "Ready for RNTO.";
inline constexpr std::string_view need_rnfr = "Use RNFR first.";
inline constexpr std::string_view no_such_file = "No such file or directory.";
inline constexpr std::string_view time_unknown = "The modification time is not known.";
inline constexpr std::string_view time_fixed = "The time of a stored object cannot be changed.";
inline constexpr std::string_view names_directory = "The name is that of a directory.";
inline constexpr std::string_view below_root = "There are only directories here.";
inline constexpr std::string_view behind_the_end = "The range begins behind the end of the file.";
inline constexpr std::string_view checksum_noted = "Checksum noted; the next upload is compared with it.";
inline constexpr std::string_view checksum_recorded =
    "Checksum noted; in extended mode it is recorded and not compared.";
inline constexpr std::string_view stage_done = "OK";
}  // namespace texts

}  // namespace zorvan::gridftp
