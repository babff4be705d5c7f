/*
 * Listing lines; see listing.h.
 */
#include "listing.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <array>

#include "ftp_time.h"
#include "text.h"

namespace zorvan::gridftp {

namespace {

struct fact_name {
    listing_fact fact;
    std::string_view name;
};

constexpr std::array<fact_name, 7> fact_table = {{
    {fact_type, "type"},
    {fact_size, "size"},
    {fact_modify, "modify"},
    {fact_unix_mode, "UNIX.mode"},
    {fact_unix_owner, "UNIX.owner"},
    {fact_unix_group, "UNIX.group"},
    {fact_perm, "perm"},
}};

/** Value of the "perm" fact (RFC 3659, 7.5.5) as far as the owner's permission bits tell. */
std::string permissions(const listing_entry& entry) {
    const bool readable = (entry.mode & S_IRUSR) != 0;
    const bool writable = (entry.mode & S_IWUSR) != 0;
    const bool searchable = (entry.mode & S_IXUSR) != 0;
    std::string value;
    if (entry.is_directory()) {
        if (writable) value += "c";
        if (writable) value += "d";
        if (searchable) value += "e";
        if (writable) value += "f";
        if (readable) value += "l";
        if (writable) value += "mp";
        return value;
    }
    if (writable) value += "adf";
    if (readable) value += "r";
    if (writable) value += "w";
    return value;
}

char type_letter(std::uint32_t mode) {
    switch (mode & S_IFMT) {
        case S_IFDIR:
            return 'd';
        case S_IFLNK:
            return 'l';
        default:
            return '-';
    }
}

}  // namespace

bool listing_entry::is_directory() const {
    return S_ISDIR(mode);
}

unsigned parse_facts(std::string_view text) {
    unsigned facts = 0;
    text = trim(text);
    while (!text.empty()) {
        const std::size_t end = text.find(';');
        const std::string_view name = text.substr(0, end);
        for (const fact_name& known : fact_table) {
            if (equals_ignoring_case(known.name, name)) facts |= known.fact;
        }
        if (end == std::string_view::npos) break;
        text.remove_prefix(end + 1);
    }
    return facts;
}

std::string fact_names(unsigned facts) {
    std::string text;
    for (const fact_name& known : fact_table) {
        if ((facts & known.fact) != 0) text += fmt::format("{};", known.name);
    }
    return text;
}

std::string facts_feature(unsigned facts) {
    std::string text = "MLST ";
    for (const fact_name& known : fact_table) {
        text += fmt::format("{}{};", known.name, (facts & known.fact) != 0 ? "*" : "");
    }
    return text;
}

std::string facts_line(const listing_entry& entry, unsigned facts, bool is_self, bool& replaced) {
    std::string line;
    if ((facts & fact_type) != 0) {
        line += entry.is_directory() ? (is_self ? "type=cdir;" : "type=dir;") : "type=file;";
    }
    if ((facts & fact_size) != 0 && !entry.is_directory()) line += fmt::format("size={};", entry.size);
    if ((facts & fact_modify) != 0) {
        if (const auto time = format_time_value(entry.mtime)) line += fmt::format("modify={};", *time);
    }
    if ((facts & fact_unix_mode) != 0) line += fmt::format("UNIX.mode={:04o};", entry.mode & 07777U);
    if ((facts & fact_unix_owner) != 0) line += fmt::format("UNIX.owner={};", entry.uid);
    if ((facts & fact_unix_group) != 0) line += fmt::format("UNIX.group={};", entry.gid);
    if ((facts & fact_perm) != 0) line += fmt::format("perm={};", permissions(entry));
    line += ' ';
    line += single_line(entry.name, &replaced);
    return line;
}

std::string long_line(const listing_entry& entry, std::int64_t now, bool& replaced) {
    constexpr std::string_view letters = "rwxrwxrwx";
    std::string line(1, type_letter(entry.mode));
    for (unsigned bit = 0; bit < letters.size(); ++bit) {
        line += (entry.mode & (0400U >> bit)) != 0 ? letters[bit] : '-';
    }
    line += fmt::format(" {:3} {:<8} {:<8} {:>12} {} {}", entry.nlink, entry.uid, entry.gid, entry.size,
                        format_list_time(entry.mtime, now), single_line(entry.name, &replaced));
    if (!entry.symlink_target.empty()) line += " -> " + single_line(entry.symlink_target, &replaced);
    return line;
}

std::string_view without_list_options(std::string_view argument) {
    while (!argument.empty() && (argument.front() == ' ' || argument.front() == '\t'))
        argument.remove_prefix(1);
    while (!argument.empty() && argument.front() == '-') {
        const std::size_t blank = argument.find_first_of(" \t");
        if (blank == std::string_view::npos) return {};
        argument.remove_prefix(blank);
        const std::size_t next = argument.find_first_not_of(" \t");
        if (next == std::string_view::npos) return {};
        argument.remove_prefix(next);
    }
    return argument;
}

}  // namespace zorvan::gridftp
