// Where the packets of a transport stream begin in a file, whatever lies between them.
#pragma once

#include "Limits.h"

#include <cstddef>
#include <cstdint>
#include <span>

namespace kestrel::capture {

// What a file consists of.
enum class SourceShape {
    unknown,   // not enough has been seen
    transport, // packets of 188 bytes
    packets192,
    packets204,
    other,
};

// Bytes of the beginning of a file that are searched before it is no transport stream.
inline constexpr std::size_t shapeSearchBytes = 1024 * 1024;

// Judges the beginning of a file. whole: nothing follows it. A transport stream shows five sync bytes in a
// row, a shorter file as many as it has packets; other bytes may come before.
[[nodiscard]] SourceShape shapeOf(std::span<const unsigned char> beginning, bool whole) noexcept;

// What stands at a position.
struct SyncStep {
    enum class What {
        packet, // a whole packet
        gap,    // bytes up to `next` that belong to none
        more,   // not to be said before further bytes are there
    };
    What what;
    std::size_t next; // where to go on
};

// Judges the bytes at a position. inSync: the packet before ended there, so that one sync byte is enough,
// with another behind the packet. When no other follows and packets begin inside it, the packet had been cut
// short and is a gap. Not inSync, after a gap: packets begin again where five follow each other, or all that
// are left. last: nothing follows these bytes.
[[nodiscard]] SyncStep nextPacket(std::span<const unsigned char> bytes, std::size_t at, bool inSync,
                                  bool last) noexcept;

} // namespace kestrel::capture
