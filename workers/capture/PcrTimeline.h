// When each packet of a transport stream is due, by the stream's own clock.
#pragma once

#include "PacketWindow.h"
#include "ProgramTables.h"

#include <cstddef>
#include <cstdint>

namespace kestrel::capture {

// The PCR of a packet in 27 MHz ticks (ISO/IEC 13818-1, 2.4.3.5); -1 when it has none.
[[nodiscard]] std::int64_t pcrOf(const unsigned char* packet) noexcept;
// From one PCR of a clock to the next, in 27 MHz ticks; -1 when it is no time: more than a second, or back.
[[nodiscard]] std::int64_t pcrStep(std::int64_t pcr, std::int64_t next) noexcept;
// discontinuity_indicator.
[[nodiscard]] bool isDiscontinuity(const unsigned char* packet) noexcept;

// Sets the times of the packets of a window. Between two PCRs of one PID time goes by evenly with the packets
// (2.4.2.2); where the clock jumps, is missing or changes to another PID, the pace there was goes on. The
// first packet is at 0; packets before the first PCR have the pace that begins there.
class PcrTimeline {
public:
    using Ticks = PacketWindow::Ticks;

    // The packet at this index was accepted. Once the tables know whose PCRs are a clock, only those are.
    void take(PacketWindow& window, std::size_t index, const ProgramTables& tables);
    // The tables have changed.
    void follow(const ProgramTables& tables);
    // No PCR is to be waited for: all packets get a time at the pace there was, and any clock may follow.
    void settle(PacketWindow& window);
    // The window has released so many packets.
    void released(std::size_t count) noexcept;

    // Packets of the window whose time is known.
    [[nodiscard]] std::size_t timed() const noexcept { return m_timed; }
    // Two PCRs have told a pace.
    [[nodiscard]] bool known() const noexcept { return m_ticksEach > 0; }

private:
    void timeUntil(PacketWindow& window, std::size_t end);

    int m_pid = -1; // whose PCRs are the clock
    Ticks m_last = 0;
    std::size_t m_lastAt = 0; // where that was, in the window
    double m_ticksEach = 0;   // from packet to packet, by the last two PCRs
    Ticks m_elapsed = 0;      // at the packet m_timed
    std::size_t m_timed = 0;
};

} // namespace kestrel::capture
