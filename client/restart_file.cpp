// Restart files; see restart_file.h.
#include "restart_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>

#include "failure.h"
#include "local_file.h"
#include "socket.h"
#include "text.h"

namespace zorvan::copy {
namespace {

constexpr std::string_view title = "zorvan-copy restart file, version 1";
// More than any list of ranges needs that is worth keeping.
constexpr std::size_t largest = 16U << 20U;

/// Paths may hold line ends.
std::string escaped(std::string_view text) {
    constexpr std::string_view digits = "0123456789abcdef";
    std::string out;
    for (const char byte : text) {
        const auto value = static_cast<unsigned char>(byte);
        if (byte == '%' || value < 0x20 || value == 0x7f) {
            out += '%';
            out += digits[value >> 4U];
            out += digits[value & 15U];
        } else {
            out += byte;
        }
    }
    return out;
}

std::optional<std::string> unescaped(std::string_view text) {
    std::string out;
    const auto value = [](char digit) {
        constexpr std::string_view digits = "0123456789abcdef";
        return digits.find(digit);
    };
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (text[at] != '%') {
            out += text[at];
            continue;
        }
        if (at + 2 >= text.size()) return std::nullopt;
        const auto high = value(text[at + 1]);
        const auto low = value(text[at + 2]);
        if (high == std::string_view::npos || low == std::string_view::npos) return std::nullopt;
        out += static_cast<char>(high * 16 + low);
        at += 2;
    }
    return out;
}

/// The value of the next line, which has to begin with this word.
std::optional<std::string_view> take_line(std::string_view& text, std::string_view word) {
    const auto end = text.find('\n');
    if (end == std::string_view::npos || !text.starts_with(word)) return std::nullopt;
    auto line = text.substr(word.size(), end - word.size());
    text.remove_prefix(end + 1);
    if (!line.empty()) {
        if (line.front() != ' ') return std::nullopt;
        line.remove_prefix(1);
    }
    return line;
}

std::optional<std::string> read_start(const std::string& path, std::size_t limit) {
    const descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!file) return std::nullopt;
    std::string text;
    std::array<char, 65536> buffer{};
    while (text.size() < limit) {
        const auto count = ::read(file.fd(), buffer.data(), std::min(buffer.size(), limit - text.size()));
        if (count < 0) return std::nullopt;
        if (count == 0) break;
        text.append(buffer.data(), static_cast<std::size_t>(count));
    }
    return text;
}

}  // namespace

std::string_view restart_file_title() {
    return title;
}

bool restart_record::same_transfer(const restart_record& other) const {
    return upload == other.upload && remote == other.remote && local == other.local && size == other.size &&
           stamp == other.stamp;
}

std::string format_restart(const restart_record& record) {
    std::string text(title);
    text += std::string("\ndirection ") + (record.upload ? "upload" : "download");
    text += "\nremote " + escaped(record.remote);
    text += "\nlocal " + escaped(record.local);
    text += "\nsize " + std::to_string(record.size);
    text += "\nstamp " + escaped(record.stamp);
    text += "\nranges " + record.ranges.text();
    text += "\nend\n";
    return text;
}

std::optional<restart_record> parse_restart(std::string_view text) {
    const auto first = take_line(text, title);
    const auto direction = take_line(text, "direction");
    const auto remote = take_line(text, "remote");
    const auto local = take_line(text, "local");
    const auto size = take_line(text, "size");
    const auto stamp = take_line(text, "stamp");
    const auto ranges = take_line(text, "ranges");
    const auto end = take_line(text, "end");
    if (!first || !first->empty() || !direction || !remote || !local || !size || !stamp || !ranges || !end ||
        !end->empty() || !text.empty()) {
        return std::nullopt;
    }
    if (*direction != "upload" && *direction != "download") return std::nullopt;
    restart_record record;
    record.upload = *direction == "upload";
    auto remote_text = unescaped(*remote);
    auto local_text = unescaped(*local);
    auto stamp_text = unescaped(*stamp);
    const auto size_value = gridftp::parse_decimal(*size);
    auto list = ranges->empty() ? gridftp::range_list() : gridftp::range_list::parse(*ranges);
    if (!remote_text || !local_text || !stamp_text || !size_value || !list) return std::nullopt;
    record.remote = std::move(*remote_text);
    record.local = std::move(*local_text);
    record.stamp = std::move(*stamp_text);
    record.size = static_cast<std::uint64_t>(*size_value);
    record.ranges = std::move(*list);
    if (!record.ranges.empty() && record.ranges.ranges().back().second > record.size) return std::nullopt;
    return record;
}

std::optional<restart_record> read_restart_file(const std::string& path) {
    const auto text = read_start(path, largest + 1);
    return text && text->size() <= largest ? parse_restart(*text) : std::nullopt;
}

void write_restart_file(const std::string& path, const restart_record& record) {
    const auto text = format_restart(record);
    const auto beside = path + ".new";
    {
        const descriptor file(
            ::open(beside.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0666));
        if (!file) throw failure(exit_status::write_failed, file_problem("cannot write", beside, errno));
        for (std::string_view left = text; !left.empty();) {
            const auto count = ::write(file.fd(), left.data(), left.size());
            if (count < 0 && errno == EINTR) continue;
            if (count < 0)
                throw failure(exit_status::write_failed, file_problem("cannot write", beside, errno));
            left.remove_prefix(static_cast<std::size_t>(count));
        }
    }
    if (::rename(beside.c_str(), path.c_str()) != 0) {
        throw failure(exit_status::write_failed, file_problem("cannot write", path, errno));
    }
}

void remove_restart_file(const std::string& path) noexcept {
    if (is_restart_file(path)) ::unlink(path.c_str());
}

bool is_restart_file(const std::string& path) {
    const auto start = read_start(path, title.size());
    return start && *start == title;
}

}  // namespace zorvan::copy
