// Sets of byte ranges of a file: which bytes are there, and the lists of REST and of range markers (GFD.20):
// "0-29,40-99", where a range ends before the byte that its second number names.
//
// A plain value; the caller guards it.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace zorvan::gridftp {

class range_list {
  public:
    /// [first, second): never empty, in order, never touching each other.
    using range = std::pair<std::uint64_t, std::uint64_t>;

    /// Add [begin, end), which may lie over what is there. An empty one changes nothing.
    void add(std::uint64_t begin, std::uint64_t end);
    /// Add [begin, end) if no byte of it is there. @return false, and nothing is changed, if one is
    bool add_new(std::uint64_t begin, std::uint64_t end);
    /// Where the unbroken run of bytes from `begin` on ends; `begin` itself if that byte is not there.
    std::uint64_t run_end(std::uint64_t begin) const;
    /// The number of ranges.
    std::size_t size() const noexcept { return ranges_.size(); }
    bool empty() const noexcept { return ranges_.empty(); }
    /// How many bytes are there.
    std::uint64_t bytes() const noexcept { return bytes_; }
    std::vector<range> ranges() const { return {ranges_.begin(), ranges_.end()}; }
    /// "0-29,40-99"; "" for the empty set.
    std::string text() const;

    /// Read the list of a REST. Ranges may come in any order and may overlap.
    /// @return nothing when it is no list, or too long a one
    static std::optional<range_list> parse(std::string_view text);

  private:
    std::map<std::uint64_t, std::uint64_t> ranges_;  // begin, end
    std::uint64_t bytes_ = 0;
};

}  // namespace zorvan::gridftp
