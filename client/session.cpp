// Questions to a server; see session.h.
#include "session.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>

#include "text.h"

namespace zorvan::copy {
namespace {

constexpr std::size_t largest_listing = 1U << 28U;

[[noreturn]] void weird_listing(const std::string& what) {
    throw failure(exit_status::weird_reply, "weird listing: " + what);
}

bool is_unknown_command(int code) {
    return code == 500 || code == 502 || code == 504;
}

}  // namespace

std::optional<listed_name> parse_listing_line(const std::string& line) {
    const auto blank = line.find(' ');
    if (blank == std::string::npos) weird_listing("\"" + gridftp::printable(line.substr(0, 80)) + "\"");
    listed_name entry;
    entry.name = line.substr(blank + 1);
    const auto facts = ";" + gridftp::ascii_lower(line.substr(0, blank));
    constexpr std::string_view key = ";type=";
    const auto begin = facts.find(key);
    if (begin == std::string::npos) weird_listing("a name without a type");
    const auto type = facts.substr(begin + key.size(), facts.find(';', begin + 1) - begin - key.size());
    if (type == "cdir" || type == "pdir") return std::nullopt;
    entry.folder = type == "dir";
    if (!entry.folder && type != "file") return std::nullopt;
    if (entry.name.empty() || entry.name == "." || entry.name == ".." ||
        entry.name.find_first_of(std::string_view("/\r\n\0", 4)) != std::string::npos) {
        weird_listing("the name \"" + gridftp::printable(entry.name.substr(0, 80)) + "\"");
    }
    return entry;
}

session::session(const server_address& server, const std::string& user, const std::string& password,
                 const time_limits& limits, const flag& interrupt, bool verbose)
    : control_(server, limits, interrupt, verbose) {
    control_.log_in(user, password);
    const auto answer = control_.command("TYPE", "I");
    if (!answer.good()) throw refusal(answer, exit_status::command_refused, "binary mode refused");
}

void session::set_extended(bool extended) {
    if (extended == extended_) return;
    const auto answer = control_.command("MODE", extended ? "E" : "S");
    if (!answer.good()) {
        throw refusal(
            answer, exit_status::command_refused,
            extended ? "the server has no extended mode, and so no parallel streams" : "stream mode refused");
    }
    extended_ = extended;
}

void session::set_parallelism(unsigned connections) {
    if (connections == parallelism_) return;
    const auto number = std::to_string(connections);
    const auto answer =
        control_.command("OPTS", "RETR Parallelism=" + number + "," + number + "," + number + ";");
    if (!answer.good()) {
        throw refusal(answer, exit_status::command_refused,
                      "the server refuses " + number + " parallel streams");
    }
    parallelism_ = connections;
}

std::optional<std::uint64_t> session::size(const std::string& path) {
    const auto answer = control_.command("SIZE", path);
    if (answer.code == 213) {
        const auto value = gridftp::parse_decimal(gridftp::trim(answer.last()));
        if (!value) throw failure(exit_status::weird_reply, "weird server reply: " + answer.summary());
        return static_cast<std::uint64_t>(*value);
    }
    if (is_unknown_command(answer.code)) return std::nullopt;
    throw refusal(answer, answer.code == 550 ? exit_status::not_found : exit_status::download_refused,
                  "cannot read the remote file");
}

std::string session::modification_time(const std::string& path) {
    const auto answer = control_.command("MDTM", path);
    return answer.code == 213 ? std::string(gridftp::trim(answer.last())) : std::string();
}

bool session::is_folder(const std::string& path) {
    const auto answer = control_.command("MLST", path);
    if (answer.code != 250) {
        throw refusal(answer, answer.code == 550 ? exit_status::not_found : exit_status::download_refused,
                      "cannot look at the remote path");
    }
    return std::any_of(answer.lines.begin(), answer.lines.end(), [](const std::string& line) {
        const auto facts = gridftp::ascii_lower(gridftp::trim(line));
        return facts.find("type=dir;") != std::string::npos || facts.find("type=cdir;") != std::string::npos;
    });
}

void session::make_folder(const std::string& path) {
    const auto answer = control_.command("MKD", path);
    if (!answer.good()) throw refusal(answer, exit_status::upload_refused, "cannot make the remote folder");
}

std::vector<listed_name> session::list(const std::string& path) {
    set_extended(false);
    const stop_flags stop{&control_.interrupt(), nullptr};
    auto data = connect_to(passive(), control_.limits().connect, stop);
    auto answer = control_.command("MLSD", path);
    if (!answer.preliminary()) throw refusal(answer, exit_status::not_found, "cannot list the remote folder");
    std::string text;
    std::array<unsigned char, 65536> buffer{};
    while (const auto count = receive(data.fd(), buffer, clock::now() + control_.limits().stall, stop)) {
        text.append(reinterpret_cast<const char*>(buffer.data()), count);
        if (text.size() > largest_listing) weird_listing("it does not end");
    }
    answer = control_.read_final_reply(control_.limits().completion);
    if (!answer.good()) throw refusal(answer, exit_status::partial_file, "the listing broke off");
    std::vector<listed_name> names;
    for (std::string_view rest = text; !rest.empty();) {
        const auto end = rest.find('\n');
        auto line = rest.substr(0, end);
        rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
        if (line.ends_with('\r')) line.remove_suffix(1);
        if (auto entry = parse_listing_line(std::string(line))) names.push_back(std::move(*entry));
    }
    return names;
}

std::optional<std::string> session::md5(const std::string& path) {
    control_.send("CKSM", "MD5 0 -1 " + path);
    const auto answer = control_.read_final_reply(control_.limits().completion);
    if (is_unknown_command(answer.code)) return std::nullopt;
    if (answer.code != 213)
        throw refusal(answer, exit_status::command_refused, "no checksum from the server");
    auto sum = gridftp::ascii_lower(gridftp::trim(answer.last()));
    if (sum.size() != 32 || sum.find_first_not_of("0123456789abcdef") != std::string::npos) {
        throw failure(exit_status::weird_reply, "weird server reply: " + answer.summary());
    }
    return sum;
}

endpoint session::passive() {
    auto where = control_.peer();
    std::optional<unsigned> port;
    reply answer;
    if (!no_epsv_) {
        answer = control_.command("EPSV");
        port = extended_passive_port(answer);
        // An old server; those of today that have no EPSV have no IPv6 either.
        no_epsv_ = is_unknown_command(answer.code) && where.family() == AF_INET;
    }
    if (no_epsv_) {
        answer = control_.command("PASV");
        port = passive_port(answer);
    }
    if (!port) {
        if (answer.good())
            throw failure(exit_status::weird_passive_reply, "weird server reply: " + answer.summary());
        throw refusal(answer, exit_status::weird_passive_reply, "no data connection");
    }
    where.set_port(*port);
    return where;
}

void session::active(const endpoint& listener) {
    const std::string kind = listener.family() == AF_INET6 ? "2" : "1";
    auto answer = control_.command(
        "EPRT", "|" + kind + "|" + listener.text() + "|" + std::to_string(listener.port()) + "|");
    if (is_unknown_command(answer.code) && listener.family() == AF_INET) {
        auto numbers = listener.text();
        std::replace(numbers.begin(), numbers.end(), '.', ',');
        answer = control_.command("PORT", numbers + "," + std::to_string(listener.port() / 256) + "," +
                                              std::to_string(listener.port() % 256));
    }
    if (!answer.good())
        throw refusal(answer, exit_status::active_refused, "the server will not connect to this host");
}

void session::quit() noexcept {
    try {
        control_.command("QUIT");
    } catch (const std::exception&) {
        // Whatever there was to do is done.
    }
}

}  // namespace zorvan::copy
