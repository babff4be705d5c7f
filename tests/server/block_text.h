// The blocks of extended mode as a client writes them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "block_codec.h"

namespace ftp_test {

inline std::string header(unsigned char flags, std::uint64_t count, std::uint64_t offset) {
    const auto bytes = zorvan::gridftp::encode({flags, count, offset});
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

inline std::string block(std::string_view data, std::uint64_t offset, unsigned char flags = 0) {
    return header(flags, data.size(), offset) + std::string(data);
}

inline std::string end_of_data(unsigned char more = 0) {
    return header(static_cast<unsigned char>(zorvan::gridftp::block_end_of_data | more), 0, 0);
}

inline std::string end_of_file(std::uint64_t connections) {
    return header(zorvan::gridftp::block_end_of_file | zorvan::gridftp::block_end_of_data, 0, connections);
}

}  // namespace ftp_test
