// Lines of listings: the first line holds the numbers of a record ("mode nlink uid gid size mtime now
// facts"), the rest its name and, behind an ESC, the target of a link. Whatever they are, a listing gets
// exactly one line, and a client reads the record back from it.
#include "listing.h"

#include <fmt/format.h>

#include <charconv>
#include <vector>

#include "ftp_time.h"
#include "fuzz.h"
#include "text.h"

namespace {

using namespace zorvan::gridftp;

/// A number of any sign that fits; 0 for anything else.
template <class Number>
Number number(const std::vector<std::string_view>& words, std::size_t index) {
    Number value = 0;
    if (index >= words.size()) return 0;
    const std::string_view word = words[index];
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), value);
    return error == std::errc{} ? value : Number{0};
}

void check_facts(const listing_entry& entry, unsigned facts) {
    bool replaced = false;
    const std::string line = facts_line(entry, facts, false, replaced);
    FUZZ_CHECK(!fuzz::breaks_a_line(line));
    FUZZ_CHECK(replaced == fuzz::breaks_a_line(entry.name));
    const std::string name = single_line(entry.name);
    FUZZ_CHECK(line.ends_with(" " + name));

    // "name=value;" each, then a blank (RFC 3659, 7.2): no fact holds a blank, so the first one ends them.
    fuzz::Input input(reinterpret_cast<const std::uint8_t*>(line.data()), line.size());
    std::string_view list = input.until(' ');
    FUZZ_CHECK(input.rest() == name);
    unsigned seen = 0;
    while (!list.empty()) {
        const std::size_t equals = list.find('=');
        const std::size_t end = list.find(';');
        FUZZ_CHECK(equals != std::string_view::npos && end != std::string_view::npos && equals < end);
        const std::string_view fact = list.substr(0, equals);
        const std::string_view value = list.substr(equals + 1, end - equals - 1);
        const unsigned bit = parse_facts(fact);
        FUZZ_CHECK(bit != 0 && (seen & bit) == 0);
        seen |= bit;
        if (bit == fact_size) FUZZ_CHECK(value == std::to_string(entry.size));
        if (bit == fact_type) FUZZ_CHECK(value == (entry.is_directory() ? "dir" : "file"));
        if (bit == fact_modify) FUZZ_CHECK(parse_time_value(value) == entry.mtime);
        if (bit == fact_unix_owner) FUZZ_CHECK(value == std::to_string(entry.uid));
        list.remove_prefix(end + 1);
    }
    // Only the size of a directory and an unknown time may be left out.
    unsigned optional = format_time_value(entry.mtime) ? 0U : static_cast<unsigned>(fact_modify);
    if (entry.is_directory()) optional |= fact_size;
    FUZZ_CHECK((seen | optional) == ((facts & fact_all) | optional));
    FUZZ_CHECK((seen & ~facts) == 0);

    const std::string self = facts_line(entry, facts, true, replaced);
    FUZZ_CHECK(!fuzz::breaks_a_line(self) && self.ends_with(" " + name));
}

void check_long_line(const listing_entry& entry, std::int64_t now) {
    bool replaced = false;
    const std::string line = long_line(entry, now, replaced);
    FUZZ_CHECK(!fuzz::breaks_a_line(line));
    FUZZ_CHECK(replaced == (fuzz::breaks_a_line(entry.name) || fuzz::breaks_a_line(entry.symlink_target)));
    // Eight fields, then the name, as clients split it.
    const std::vector<std::string_view> words = split_words(line);
    FUZZ_CHECK(words.size() >= 8 && words[0].size() == 10);
    FUZZ_CHECK((words[0][0] == 'd') == entry.is_directory());
    FUZZ_CHECK(words[1] == std::to_string(entry.nlink));
    FUZZ_CHECK(words[2] == std::to_string(entry.uid) && words[3] == std::to_string(entry.gid));
    FUZZ_CHECK(words[4] == std::to_string(entry.size));
    const std::string time = format_list_time(entry.mtime, now);
    FUZZ_CHECK(time.size() == 12);
    std::string end = fmt::format(" {} {}", time, single_line(entry.name));
    if (!entry.symlink_target.empty()) end += " -> " + single_line(entry.symlink_target);
    FUZZ_CHECK(line.ends_with(end));
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    const std::vector<std::string_view> numbers = split_words(input.line());
    listing_entry entry;
    entry.mode = number<std::uint32_t>(numbers, 0);
    entry.nlink = number<std::uint32_t>(numbers, 1);
    entry.uid = number<std::uint32_t>(numbers, 2);
    entry.gid = number<std::uint32_t>(numbers, 3);
    entry.size = number<std::int64_t>(numbers, 4);
    entry.mtime = number<std::int64_t>(numbers, 5);
    // A clock, whatever is asked for: forty bits of seconds.
    const std::int64_t now = number<std::int64_t>(numbers, 6) & 0xffffffffff;
    const auto facts = number<unsigned>(numbers, 7) & fact_all;
    entry.name = input.until('\x1b');
    entry.symlink_target = input.rest();
    check_facts(entry, facts);
    check_long_line(entry, now);
    return 0;
}
