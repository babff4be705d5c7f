// The blocks of extended mode (MODE E, Open Grid Forum GFD.20): what stands in front of every piece of data.
//
// A header has 17 bytes: descriptor bits (one byte), number of data bytes that follow (64 bits) and an offset
// (64 bits), both big-endian. Pure functions on plain values, any thread; this pair of files needs nothing
// but the standard library, so that both ends of a connection can use it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace zorvan::gridftp {

/// Descriptor bits. The others have no meaning.
enum block_bits : std::uint8_t {
    block_closes = 0x04,          ///< the sender will send nothing more on this connection, and close it
    block_end_of_data = 0x08,     ///< the last block of this file on this connection
    block_restart_marker = 0x10,  ///< the data are a restart marker, not the file's
    block_suspect = 0x20,         ///< the sender suspects errors in the data
    block_end_of_file = 0x40,     ///< the offset is the number of connections that send an end of data
    block_end_of_record = 0x80    ///< says nothing for files without records
};

constexpr std::size_t block_header_size = 17;

struct block_header {
    std::uint8_t bits = 0;     ///< of block_bits
    std::uint64_t count = 0;   ///< data bytes that follow the header
    std::uint64_t offset = 0;  ///< of the first of them in the file; see block_end_of_file
    bool operator==(const block_header&) const = default;
};

/// The bytes of a header.
std::array<unsigned char, block_header_size> encode(const block_header& header) noexcept;

/// The header that these bytes are; any 17 bytes are one.
block_header decode(std::span<const unsigned char, block_header_size> bytes) noexcept;

/// What a receiver of files has to say about a header.
enum class header_verdict : std::uint8_t {
    good,
    unknown_bits,  ///< bits without a meaning, or one whose meaning a receiver of files has no use for
    suspect,       ///< data that their sender does not trust
    bad_count,     ///< an end of file that carries data
    bad_offset     ///< the data would reach beyond the largest offset of a file
};

/// Judge a header by itself.
header_verdict judge(const block_header& header) noexcept;

}  // namespace zorvan::gridftp
