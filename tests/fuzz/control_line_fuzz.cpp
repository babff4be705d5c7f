// Control lines: the bytes of a control connection. However they are cut into segments the lines are the
// same, none is longer than the limit, and memory stays bounded.
#include "control_line.h"

#include <algorithm>
#include <vector>

#include "fuzz.h"
#include "text.h"

namespace {

using namespace zorvan::gridftp;

struct Outcome {
    std::vector<std::string> lines;  ///< a long one as "<long>", which no line can be: LF is not part of it
    std::string answers;
    control_line_state left_over;

    bool operator==(const Outcome& other) const {
        return lines == other.lines && answers == other.answers && left_over.line == other.left_over.line &&
               left_over.too_long == other.left_over.too_long && left_over.phase == other.left_over.phase;
    }
};

/// Parse everything; `segment(n)` says how long the next segment is when n bytes are left.
template <class Segment>
Outcome parse(std::string_view bytes, Segment segment) {
    Outcome outcome;
    while (!bytes.empty()) {
        std::string_view rest = bytes.substr(0, std::max<std::size_t>(1, segment(bytes.size())));
        bytes.remove_prefix(rest.size());
        while (!rest.empty()) {
            control_line_step step = parse_control_line(outcome.left_over, rest);
            FUZZ_CHECK(step.consumed > 0 && step.consumed <= rest.size());
            FUZZ_CHECK(step.complete || step.consumed == rest.size());
            FUZZ_CHECK(!step.complete || rest[step.consumed - 1] == '\n');
            FUZZ_CHECK(outcome.left_over.line.size() <= control_line_limit + 1);
            FUZZ_CHECK(step.line.size() <= control_line_limit);
            FUZZ_CHECK(step.line.find('\n') == std::string::npos);
            // Each refusal answers an offer of three bytes with three bytes.
            FUZZ_CHECK(step.answer.size() % 3 == 0);
            rest.remove_prefix(step.consumed);
            outcome.answers += step.answer;
            if (step.complete) outcome.lines.push_back(step.too_long ? "\n<long>" : std::move(step.line));
        }
    }
    return outcome;
}

void check_line(std::string_view line) {
    const command_line parts = split_command_line(line);
    FUZZ_CHECK(parts.verb.find_first_of(" \t") == std::string_view::npos);
    FUZZ_CHECK(!parts.verb.empty() || line.find_first_not_of(" \t") == std::string_view::npos);
    FUZZ_CHECK(parts.verb.size() + parts.argument.size() <= line.size());
    const std::string shown = loggable_line(line);
    FUZZ_CHECK(std::none_of(shown.begin(), shown.end(), [](char byte) {
        const auto value = static_cast<unsigned char>(byte);
        return value < 0x20 || value == 0x7f;
    }));
    FUZZ_CHECK(shown == printable(shown));
    if (equals_ignoring_case(parts.verb, "PASS")) FUZZ_CHECK(shown == "PASS ****");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    const Outcome whole = parse(bytes, [](std::size_t left) { return left; });
    for (const std::string& line : whole.lines) {
        if (!line.starts_with('\n')) check_line(line);
    }
    FUZZ_CHECK(whole == parse(bytes, [](std::size_t) { return std::size_t{1}; }));
    std::size_t state = size;
    FUZZ_CHECK(whole == parse(bytes, [&state](std::size_t) { return (state = state * 31 + 7) % 13; }));
    return 0;
}
