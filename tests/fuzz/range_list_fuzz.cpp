// Lists of byte ranges as REST brings them: a list that is taken is in order and reads back as itself, and
// holds the bytes that a set of single bytes holds.
#include "range_list.h"

#include <set>

#include "fuzz.h"

namespace {

using zorvan::gridftp::range_list;

/// Beyond it a set of single bytes takes too long.
constexpr std::uint64_t model_end = 2048;

void check_form(const range_list& list) {
    std::uint64_t bytes = 0;
    std::uint64_t before = 0;
    bool first = true;
    for (const auto& [begin, end] : list.ranges()) {
        FUZZ_CHECK(begin < end);
        FUZZ_CHECK(first || begin > before);
        FUZZ_CHECK(list.run_end(begin) == end && list.run_end(end - 1) == end && list.run_end(end) == end);
        bytes += end - begin;
        before = end;
        first = false;
    }
    FUZZ_CHECK(list.bytes() == bytes);
    FUZZ_CHECK(list.empty() == (bytes == 0) && list.size() == list.ranges().size());
    if (list.empty()) return;
    const auto again = range_list::parse(list.text());
    FUZZ_CHECK(again && again->ranges() == list.ranges());
}

void check_against_bytes(const range_list& parsed) {
    // The same ranges from the last to the first, each once as a whole and once in halves.
    range_list list;
    std::set<std::uint64_t> model;
    const auto ranges = parsed.ranges();
    if (ranges.empty() || ranges.back().second > model_end) return;
    for (auto range = ranges.rbegin(); range != ranges.rend(); ++range) {
        const auto [begin, end] = *range;
        const std::uint64_t middle = begin + (end - begin) / 2;
        list.add(middle, end);
        FUZZ_CHECK(list.add_new(begin, middle));
        FUZZ_CHECK(!list.add_new(begin, end));
        list.add(begin, end);
        for (std::uint64_t byte = begin; byte < end; ++byte)
            model.insert(byte);
        check_form(list);
    }
    FUZZ_CHECK(list.ranges() == ranges && list.bytes() == model.size());
    for (std::uint64_t byte = 0; byte < model_end; ++byte)
        FUZZ_CHECK((list.run_end(byte) > byte) == model.contains(byte));
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text = fuzz::Input(data, size).rest();
    const auto list = range_list::parse(text);
    if (!list) return 0;
    FUZZ_CHECK(!fuzz::breaks_a_line(text));
    check_form(*list);
    check_against_bytes(*list);
    return 0;
}
