#include "PcrTimeline.h"

namespace kestrel::capture {

void PcrTimeline::take(PacketWindow& window, std::size_t index, const ProgramTables& tables) {
    const bool pcr = m_clock.take(window.packet(index), tables);
    if (known() && m_clock.silent())
        timeUntil(window, index + 1);
    else if (known() && pcr)
        timeUntil(window, index);
}

void PcrTimeline::settle(PacketWindow& window) {
    timeUntil(window, window.count());
    m_clock.lose();
}

void PcrTimeline::timeUntil(PacketWindow& window, std::size_t end) {
    const std::size_t begin = m_timed;
    const auto after = [&](std::size_t index) {
        return m_elapsed + static_cast<Ticks>(m_clock.ticksEach() * static_cast<double>(index - begin));
    };
    for (; m_timed < end; ++m_timed)
        window.note(m_timed).time = after(m_timed);
    m_elapsed = after(end);
}

} // namespace kestrel::capture
