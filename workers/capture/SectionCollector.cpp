#include "SectionCollector.h"

#include "mpeg/CaptureEngUtils.h"
#include "mpeg/packet_view.h"

#include <algorithm>
#include <cstring>

namespace kestrel::capture {
namespace {

constexpr std::size_t sectionHead = 3;
// Head, table_id_extension to last_section_number, CRC.
constexpr std::size_t shortestSection = 12;

} // namespace

void SectionCollector::reset() noexcept {
    m_collecting = false;
    m_skipping = false;
    m_sectionLength = 0;
    m_packetCount = 0;
}

void SectionCollector::begin() noexcept {
    m_collecting = true;
    m_length = 0;
    m_carrierCount = 0;
}

bool SectionCollector::complete() const noexcept {
    return m_length >= sectionHead &&
           m_length == sectionHead + (static_cast<std::size_t>(m_buffer[1] & 0x0F) << 8 | m_buffer[2]);
}

// Adds bytes up to the end of the section; returns how many it took. Gives up on a section too long to be
// one.
std::size_t SectionCollector::append(const unsigned char* packet,
                                     std::span<const unsigned char> bytes) noexcept {
    if (m_carrierCount == maxPackets) {
        m_collecting = false;
        m_skipping = true;
        return bytes.size();
    }
    std::memcpy(m_carriers[m_carrierCount++].data(), packet, packetSize);
    std::size_t taken = 0;
    while (taken < bytes.size() && m_length < sectionHead)
        m_buffer[m_length++] = bytes[taken++];
    if (m_length < sectionHead)
        return taken;
    const std::size_t whole = sectionHead + (static_cast<std::size_t>(m_buffer[1] & 0x0F) << 8 | m_buffer[2]);
    if (whole > maxSection || whole < m_length) {
        m_collecting = false;
        m_skipping = true;
        return bytes.size();
    }
    const std::size_t rest = std::min(whole - m_length, bytes.size() - taken);
    std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(taken), rest,
                m_buffer.begin() + static_cast<std::ptrdiff_t>(m_length));
    m_length += rest;
    return taken + rest;
}

bool SectionCollector::accept() noexcept {
    m_collecting = false;
    if (m_buffer[0] != m_tableId || m_length < shortestSection || !(m_buffer[5] & 0x01) ||
        crc32(reinterpret_cast<const char*>(m_buffer.data()), static_cast<int>(m_length)) != 0)
        return false;
    std::copy_n(m_buffer.begin(), m_length, m_section.begin());
    m_sectionLength = m_length;
    std::copy_n(m_carriers.begin(), m_carrierCount, m_packets.begin());
    m_packetCount = m_carrierCount;
    if (m_each)
        m_each(section());
    return true;
}

bool SectionCollector::take(const unsigned char* packet) noexcept {
    if (!ts::has_payload(packet))
        return false;
    ts::bytes rest = ts::payload(packet);
    if (rest.empty())
        return false;
    bool found = false;
    if (!ts::payload_unit_start(packet)) {
        if (m_collecting) {
            append(packet, rest);
            if (m_collecting && complete())
                found = accept();
        }
        return found;
    }
    m_skipping = false;
    const std::size_t pointer = rest[0];
    rest = rest.subspan(1);
    if (pointer > rest.size()) {
        m_collecting = false;
        return false;
    }
    if (m_collecting && pointer > 0) {
        append(packet, rest.first(pointer));
        if (m_collecting && complete())
            found = accept();
    }
    // Stuffing after the last section is 0xFF, which is no table_id.
    for (rest = rest.subspan(pointer); !rest.empty() && rest[0] != 0xFF;) {
        begin();
        rest = rest.subspan(append(packet, rest));
        if (!m_collecting || !complete())
            break;
        found = accept() || found;
    }
    return found;
}

} // namespace kestrel::capture
