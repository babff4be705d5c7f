// Sets of byte ranges in a tree by their beginnings; see range_list.h.
#include "range_list.h"

#include <algorithm>
#include <iterator>

#include "text.h"

namespace zorvan::gridftp {

void range_list::add(std::uint64_t begin, std::uint64_t end) {
    if (begin >= end) {
        return;
    }
    auto next = ranges_.upper_bound(begin);
    if (next != ranges_.begin() && std::prev(next)->second >= begin) {
        --next;
        begin = next->first;
    }
    std::uint64_t replaced = 0;
    auto last = next;
    while (last != ranges_.end() && last->first <= end) {
        end = std::max(end, last->second);
        replaced += last->second - last->first;
        ++last;
    }
    if (next != last && next->first == begin) {
        // The node that is there grows, which needs no memory.
        next->second = end;
        ranges_.erase(std::next(next), last);
    } else {
        ranges_.emplace_hint(next, begin, end);
        ranges_.erase(next, last);
    }
    bytes_ = bytes_ - replaced + (end - begin);
}

bool range_list::add_new(std::uint64_t begin, std::uint64_t end) {
    if (begin >= end) {
        return true;
    }
    const auto next = ranges_.upper_bound(begin);
    if ((next != ranges_.begin() && std::prev(next)->second > begin) ||
        (next != ranges_.end() && next->first < end)) {
        return false;
    }
    add(begin, end);
    return true;
}

std::uint64_t range_list::run_end(std::uint64_t begin) const {
    const auto next = ranges_.upper_bound(begin);
    return next != ranges_.begin() && std::prev(next)->second > begin ? std::prev(next)->second : begin;
}

std::string range_list::text() const {
    std::string list;
    for (const auto& [begin, end] : ranges_) {
        list += list.empty() ? "" : ",";
        list += std::to_string(begin) + "-" + std::to_string(end);
    }
    return list;
}

std::optional<range_list> range_list::parse(std::string_view text) {
    range_list list;
    for (;;) {
        const auto comma = text.find(',');
        const auto item = text.substr(0, comma);
        const auto dash = item.find('-');
        if (dash == std::string_view::npos) {
            return std::nullopt;
        }
        const auto begin = parse_decimal(trim(item.substr(0, dash)));
        const auto end = parse_decimal(trim(item.substr(dash + 1)));
        if (!begin || !end || *begin > *end) {
            return std::nullopt;
        }
        list.add(static_cast<std::uint64_t>(*begin), static_cast<std::uint64_t>(*end));
        if (comma == std::string_view::npos) {
            return list;
        }
        text.remove_prefix(comma + 1);
    }
}

}  // namespace zorvan::gridftp
