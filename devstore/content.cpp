// Contents as sequences of blob slices; see content.h.
#include "content.h"

#include <algorithm>
#include <cstring>

namespace zorvan::devstore {

bool all_zero(std::string_view data) {
    return data.empty() ||
           (data[0] == '\0' && std::memcmp(data.data(), data.data() + 1, data.size() - 1) == 0);
}

content::content(blob_ptr whole) {
    const auto length = whole->size();
    append({std::move(whole), 0, length});
}

void content::append(segment piece) {
    if (piece.length == 0) return;
    starts_.push_back(size_);
    size_ += piece.length;
    segments_.push_back(std::move(piece));
}

void content::append(const content& other) {
    for (const auto& piece : other.segments_)
        append(piece);
}

content content::slice(std::uint64_t offset, std::uint64_t length) const {
    content out;
    for (std::size_t i = 0; i < segments_.size() && length > 0; ++i) {
        const auto& piece = segments_[i];
        if (starts_[i] + piece.length <= offset) continue;
        const std::uint64_t skip = offset - starts_[i];
        const std::uint64_t take = std::min(length, piece.length - skip);
        out.append({piece.source, piece.offset + skip, take});
        offset += take;
        length -= take;
    }
    return out;
}

std::string_view content::read(std::uint64_t offset, std::span<char> scratch) const {
    const auto after = std::upper_bound(starts_.begin(), starts_.end(), offset);
    const auto index = static_cast<std::size_t>(after - starts_.begin()) - 1;
    const auto& piece = segments_[index];
    const std::uint64_t inside = offset - starts_[index];
    const auto view = piece.source->read(piece.offset + inside, scratch);
    return view.substr(0, std::min<std::uint64_t>(view.size(), piece.length - inside));
}

}  // namespace zorvan::devstore
