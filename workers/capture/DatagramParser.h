// Takes transport packets out of UDP datagrams: plain, or in RTP (RFC 3550, RFC 2250), told apart by content.
#pragma once

#include <bitset>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace kestrel::capture {

// One datagram taken apart. Views into it.
struct Datagram {
    std::span<const unsigned char> packets; // whole transport packets; their sync bytes are not checked
    std::size_t strayBytes = 0;             // payload that is no whole packet
    bool rtp = false;
    std::uint16_t sequence = 0; // RTP sequence number
    std::uint32_t source = 0;   // RTP SSRC
};

// A datagram that is neither form, or too short for its own header, has no packets and only stray bytes.
[[nodiscard]] Datagram parseDatagram(std::span<const unsigned char> bytes) noexcept;

// Follows RTP sequence numbers, by the rules of RFC 3550, A.1: a step ahead is a gap, a small step back a
// datagram that comes late, and a large step either way is a sender that began anew, once a second datagram
// follows the first of them in sequence.
class RtpSequence {
public:
    struct Step {
        unsigned lost = 0;      // datagrams missing before this one
        bool late = false;      // older than one that came before
        bool fillsGap = false;  // late, and among those that were told as lost
        bool restarted = false; // the sequence began anew with the datagram before this one
    };

    // A new source begins a new sequence.
    Step next(std::uint16_t sequence, std::uint32_t source) noexcept;

private:
    // Sequence numbers behind the newest that are remembered, and up to which a datagram is late.
    static constexpr unsigned remembered = 100;
    static constexpr unsigned largestGap = 3000;

    void begin(std::uint16_t sequence) noexcept;
    Step takeLate(unsigned behind) noexcept;

    bool m_known = false;
    std::uint16_t m_newest = 0;
    std::uint32_t m_source = 0;
    // Bit n: n behind the newest, and still missing.
    std::bitset<remembered + 1> m_missing;
    // What would follow a datagram that was a large step away.
    std::optional<std::uint16_t> m_candidate;
};

} // namespace kestrel::capture
