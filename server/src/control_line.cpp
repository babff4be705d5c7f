/*
 * The control line parser; see control_line.h. No threads, no ownership beyond the state's own string.
 */
#include "control_line.h"

#include <algorithm>

#include "text.h"

namespace zorvan::gridftp {

namespace {

constexpr unsigned char iac = 255;
constexpr unsigned char dont = 254;
constexpr unsigned char do_ = 253;
constexpr unsigned char wont = 252;
constexpr unsigned char will = 251;
constexpr unsigned char subnegotiation_begin = 250;
constexpr unsigned char subnegotiation_end = 240;
constexpr unsigned char lowest_command = 240;

void append(control_line_state& state, char byte) {
    if (state.too_long) return;
    // One byte more than the limit is let in: it may be the CR of the line's end.
    if (state.line.size() > control_line_limit || (state.line.size() == control_line_limit && byte != '\r')) {
        state.too_long = true;
        state.line.clear();
        return;
    }
    state.line.push_back(byte);
}

void refuse(std::string& answer, unsigned char verb, unsigned char option) {
    answer.push_back(static_cast<char>(iac));
    answer.push_back(static_cast<char>(verb));
    answer.push_back(static_cast<char>(option));
}

/** Take one byte of a Telnet sequence. @return true when the byte belongs to the line after all */
bool telnet_byte(control_line_state& state, unsigned char byte, std::string& answer) {
    using telnet = control_line_state::telnet;
    const telnet phase = state.phase;
    state.phase = telnet::none;
    switch (phase) {
        case telnet::iac:
            switch (byte) {
                case iac:
                    return true;
                case will:
                    state.phase = telnet::will;
                    return false;
                case wont:
                    state.phase = telnet::wont;
                    return false;
                case do_:
                    state.phase = telnet::do_;
                    return false;
                case dont:
                    state.phase = telnet::dont;
                    return false;
                case subnegotiation_begin:
                    state.phase = telnet::subnegotiation;
                    return false;
                default:
                    // Below the commands there is only data: a lone IAC in front of it is dropped, so that an
                    // ABOR survives a Telnet signal whose urgent byte went missing.
                    return byte < lowest_command;
            }
        case telnet::will:
            refuse(answer, dont, byte);
            return false;
        case telnet::do_:
            refuse(answer, wont, byte);
            return false;
        case telnet::wont:
        case telnet::dont:
            return false;
        case telnet::subnegotiation:
            state.phase = byte == iac ? telnet::subnegotiation_iac : telnet::subnegotiation;
            return false;
        case telnet::subnegotiation_iac:
            state.phase = byte == subnegotiation_end ? telnet::none : telnet::subnegotiation;
            return false;
        case telnet::none:
            break;
    }
    return true;
}

}  // namespace

control_line_step parse_control_line(control_line_state& state, std::string_view bytes) {
    using telnet = control_line_state::telnet;
    control_line_step step;
    for (const char byte : bytes) {
        ++step.consumed;
        const auto value = static_cast<unsigned char>(byte);
        if (state.phase != telnet::none) {
            // A line end never hides inside an unfinished sub-negotiation: garbage must not swallow the
            // session.
            if (byte == '\n' && state.phase >= telnet::subnegotiation) {
                state.phase = telnet::none;
            } else {
                const bool escaped_iac = state.phase == telnet::iac && value == iac;
                if (!telnet_byte(state, value, step.answer)) continue;
                if (escaped_iac) {
                    append(state, byte);
                    continue;
                }
            }
        } else if (value == iac) {
            state.phase = telnet::iac;
            continue;
        }
        if (byte != '\n') {
            append(state, byte);
            continue;
        }
        step.complete = true;
        step.too_long = state.too_long;
        if (!state.line.empty() && state.line.back() == '\r') state.line.pop_back();
        if (state.line.size() > control_line_limit) step.too_long = true;
        if (!step.too_long) step.line = std::move(state.line);
        state = control_line_state{};
        break;
    }
    return step;
}

command_line split_command_line(std::string_view line) {
    const std::size_t begin = line.find_first_not_of(" \t");
    if (begin == std::string_view::npos) return {};
    line.remove_prefix(begin);
    const std::size_t blank = line.find_first_of(" \t");
    if (blank == std::string_view::npos) return {line, {}};
    return {line.substr(0, blank), line.substr(blank + 1)};
}

std::string loggable_line(std::string_view line) {
    const command_line parts = split_command_line(line);
    if (equals_ignoring_case(parts.verb, "PASS") || equals_ignoring_case(parts.verb, "ACCT")) {
        return ascii_upper(parts.verb) + " ****";
    }
    constexpr std::size_t shown = 256;
    std::string text = printable(line.substr(0, std::min(line.size(), shown)));
    if (line.size() > shown) text += "...";
    return text;
}

}  // namespace zorvan::gridftp
