// When each packet of a transport stream is due, by the stream's own clock.
#pragma once

#include "PacketWindow.h"
#include "PcrClock.h"

#include <cstddef>

namespace kestrel::capture {

// Sets the times of the packets of a window by the PCRs among them, see PcrClock. The first packet is at 0;
// packets before the first PCR have the pace that begins there.
class PcrTimeline {
public:
    using Ticks = PacketWindow::Ticks;

    // The packet at this index was accepted.
    void take(PacketWindow& window, std::size_t index, const ProgramTables& tables);
    // The tables have changed.
    void follow(const ProgramTables& tables) { m_clock.follow(tables); }
    // No PCR is to be waited for: all packets get a time at the pace there was, and any clock may follow.
    void settle(PacketWindow& window);
    // The window has released so many packets.
    void released(std::size_t count) noexcept { m_timed -= count; }

    // Packets of the window whose time is known.
    [[nodiscard]] std::size_t timed() const noexcept { return m_timed; }
    // Two PCRs have told a pace.
    [[nodiscard]] bool known() const noexcept { return m_clock.ticksEach() > 0; }

private:
    void timeUntil(PacketWindow& window, std::size_t end);

    PcrClock m_clock;
    Ticks m_elapsed = 0; // at the packet m_timed
    std::size_t m_timed = 0;
};

} // namespace kestrel::capture
