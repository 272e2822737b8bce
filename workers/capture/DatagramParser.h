// Takes transport packets out of UDP datagrams: plain, or in RTP (RFC 3550, RFC 2250), told apart by content.
#pragma once

#include <cstddef>
#include <cstdint>
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

// Follows RTP sequence numbers.
class RtpSequence {
public:
    struct Step {
        unsigned lost = 0; // datagrams missing before this one
        bool late = false; // older than one that came before
    };

    // A new source begins a new sequence.
    Step next(std::uint16_t sequence, std::uint32_t source) noexcept;

private:
    bool m_known = false;
    std::uint16_t m_expected = 0;
    std::uint32_t m_source = 0;
};

} // namespace kestrel::capture
