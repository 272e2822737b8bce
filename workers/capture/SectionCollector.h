// Collects the sections of one table from the packets of its PID (ISO/IEC 13818-1, 2.4.4) and keeps the
// packets that carried the latest, so that a recording can begin with them.
#pragma once

#include "PacketRing.h"

#include <array>
#include <cstddef>
#include <functional>
#include <span>

namespace kestrel::capture {

// Bounded: a section of at most 1024 bytes, in at most as many packets as such a section needs.
class SectionCollector {
public:
    using Listener = std::function<void(std::span<const unsigned char> section)>;

    // each, when given, hears of every section, of those too that end in one packet with another.
    explicit SectionCollector(int tableId, Listener each = {})
        : m_tableId(tableId), m_each(std::move(each)) {}

    // Takes the next packet of the PID. True when it completed a section of the table whose CRC is right and
    // which is in force (current_next_indicator).
    bool take(const unsigned char* packet) noexcept;

    // The latest section, from table_id to its CRC; empty before the first.
    [[nodiscard]] std::span<const unsigned char> section() const noexcept {
        return {m_section.data(), m_sectionLength};
    }
    // The packets that carried it.
    [[nodiscard]] std::span<const Packet> packets() const noexcept {
        return {m_packets.data(), m_packetCount};
    }
    // A section has begun that is not at its end, of whatever table.
    [[nodiscard]] bool open() const noexcept { return m_collecting || m_skipping; }
    // Forgets everything.
    void reset() noexcept;

private:
    static constexpr std::size_t maxSection = 1024;
    static constexpr std::size_t maxPackets = 8;

    void begin() noexcept;
    std::size_t append(const unsigned char* packet, std::span<const unsigned char> bytes) noexcept;
    bool complete() const noexcept;
    bool accept() noexcept;

    int m_tableId;
    Listener m_each;
    bool m_collecting = false;
    bool m_skipping = false; // what has begun is not collected
    std::array<unsigned char, maxSection> m_buffer{};
    std::size_t m_length = 0;
    std::array<Packet, maxPackets> m_carriers{};
    std::size_t m_carrierCount = 0;

    std::array<unsigned char, maxSection> m_section{};
    std::size_t m_sectionLength = 0;
    std::array<Packet, maxPackets> m_packets{};
    std::size_t m_packetCount = 0;
};

} // namespace kestrel::capture
