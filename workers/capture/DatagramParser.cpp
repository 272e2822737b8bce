#include "DatagramParser.h"

#include "Limits.h"

namespace kestrel::capture {
namespace {

constexpr unsigned char syncByte = 0x47;
constexpr std::size_t rtpFixedHeader = 12;

unsigned read16(std::span<const unsigned char> bytes, std::size_t at) noexcept {
    return static_cast<unsigned>(bytes[at] << 8 | bytes[at + 1]);
}

// Cuts the RTP header, CSRC list, extension and padding off (RFC 3550, 5.1 and 5.3.1). False when the
// datagram is shorter than they say.
bool stripRtp(std::span<const unsigned char>& bytes, Datagram& datagram) noexcept {
    if (bytes.size() < rtpFixedHeader || bytes[0] >> 6 != 2)
        return false;
    std::size_t header = rtpFixedHeader + 4u * (bytes[0] & 0x0F);
    if (bytes[0] & 0x10) {
        if (bytes.size() < header + 4)
            return false;
        header += 4 + 4u * read16(bytes, header + 2);
    }
    const std::size_t padding = bytes[0] & 0x20 ? bytes.back() : 0;
    if (bytes.size() < header + padding)
        return false;
    datagram.sequence = static_cast<std::uint16_t>(read16(bytes, 2));
    datagram.source = static_cast<std::uint32_t>(read16(bytes, 8)) << 16 | read16(bytes, 10);
    bytes = bytes.subspan(header, bytes.size() - header - padding);
    return true;
}

} // namespace

Datagram parseDatagram(std::span<const unsigned char> bytes) noexcept {
    Datagram datagram;
    if (bytes.empty())
        return datagram;
    // The two version bits of RTP (2) and of a sync byte (1) never agree.
    std::span<const unsigned char> payload = bytes;
    if (bytes[0] != syncByte) {
        datagram.rtp = stripRtp(payload, datagram);
        if (!datagram.rtp || (!payload.empty() && payload[0] != syncByte)) {
            datagram.rtp = false;
            datagram.strayBytes = bytes.size();
            return datagram;
        }
    }
    datagram.packets = payload.first(payload.size() / packetSize * packetSize);
    datagram.strayBytes = payload.size() - datagram.packets.size();
    return datagram;
}

void RtpSequence::begin(std::uint16_t sequence) noexcept {
    m_newest = sequence;
    m_missing.reset();
    m_candidate.reset();
}

// A duplicate, or one that was sent before the first that was received, was never missing.
RtpSequence::Step RtpSequence::takeLate(unsigned behind) noexcept {
    Step step;
    step.late = true;
    step.fillsGap = m_missing.test(behind);
    m_missing.reset(behind);
    return step;
}

RtpSequence::Step RtpSequence::next(std::uint16_t sequence, std::uint32_t source) noexcept {
    Step step;
    if (!m_known || source != m_source) {
        m_known = true;
        m_source = source;
        begin(sequence);
        return step;
    }
    const unsigned ahead = static_cast<std::uint16_t>(sequence - m_newest);
    if (ahead == 0 || ahead >= 0x10000 - remembered)
        return takeLate(ahead == 0 ? 0 : 0x10000 - ahead);
    if (ahead < largestGap) {
        step.lost = ahead - 1;
        m_missing <<= ahead; // all of them, from a step as long as the memory on
        for (unsigned behind = 1; behind < ahead && behind <= remembered; ++behind)
            m_missing.set(behind);
        m_newest = sequence;
        m_candidate.reset();
        return step;
    }
    // One datagram alone may be a stray; the second shows that the sender means it.
    if (m_candidate == sequence) {
        begin(sequence);
        step.restarted = true;
    } else {
        m_candidate = static_cast<std::uint16_t>(sequence + 1);
    }
    return step;
}

} // namespace kestrel::capture
