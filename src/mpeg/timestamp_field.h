// The 5-byte timestamp coding that PES headers and the adaptation field share (ISO/IEC 13818-1, 2.4.3.6):
// 4 bits of prefix, 3 + 15 + 15 bits of a 90 kHz count, each group followed by a marker bit.
#pragma once

#include "mpeg/pts.h"

#include <cstdint>

namespace kestrel::ts {

// Bits of each of the five bytes that belong to the timestamp.
inline constexpr unsigned char timestamp_bits[5] = {0x0E, 0xFF, 0xFE, 0xFF, 0xFE};
// The marker bits.
inline constexpr unsigned char timestamp_markers[5] = {0x01, 0x00, 0x01, 0x00, 0x01};

// Decodes the field at position first of anything that can be indexed.
template <typename Bytes>
PTS decode_timestamp(const Bytes& source, int first) {
    const auto at = [&](int i) { return static_cast<std::int64_t>(source[first + i]); };
    return PTS::from_ticks(((at(0) >> 1) & 7) << 30 | at(1) << 22 | (at(2) >> 1) << 15 | at(3) << 7 |
                           at(4) >> 1);
}

// Byte i of the field for a value, prefix and marker bits 0.
constexpr unsigned char timestamp_byte(PTS value, int i) {
    const std::int64_t ticks = value.ticks();
    switch (i) {
    case 0:
        return static_cast<unsigned char>((ticks >> 29) & timestamp_bits[0]);
    case 1:
        return static_cast<unsigned char>((ticks >> 22) & timestamp_bits[1]);
    case 2:
        return static_cast<unsigned char>((ticks >> 14) & timestamp_bits[2]);
    case 3:
        return static_cast<unsigned char>((ticks >> 7) & timestamp_bits[3]);
    default:
        return static_cast<unsigned char>((ticks << 1) & timestamp_bits[4]);
    }
}

} // namespace kestrel::ts
