#include "PcrTimeline.h"

#include "mpeg/packet_view.h"

namespace kestrel::capture {
namespace {

constexpr std::size_t pcrBytes = 6;

} // namespace

std::int64_t pcrOf(const unsigned char* packet) noexcept {
    const ts::bytes field = ts::adaptation_field(packet);
    if (field.size() <= pcrBytes || !(field[0] & 0x10))
        return -1;
    std::int64_t base = 0;
    for (std::size_t i = 1; i < 5; ++i)
        base = base << 8 | field[i];
    base = base << 1 | field[5] >> 7;
    return base * 300 + ((field[5] & 1) << 8 | field[6]);
}

std::int64_t pcrStep(std::int64_t pcr, std::int64_t next) noexcept {
    constexpr std::int64_t range = (std::int64_t{1} << 33) * 300;
    constexpr std::int64_t longestStep = 27'000'000;
    const std::int64_t step = (next - pcr + range) % range;
    return step <= longestStep ? step : -1;
}

bool isDiscontinuity(const unsigned char* packet) noexcept {
    const ts::bytes field = ts::adaptation_field(packet);
    return !field.empty() && (field[0] & 0x80);
}

void PcrTimeline::take(PacketWindow& window, std::size_t index, const ProgramTables& tables) {
    const unsigned char* packet = window.packet(index);
    const int number = ts::pid(packet);
    if (m_pid >= 0 && number != m_pid)
        return;
    const Ticks pcr = pcrOf(packet);
    if (pcr < 0)
        return;
    if (!tables.pcrPids().empty() && !tables.isPcr(number))
        return;
    const Ticks step = pcrStep(m_last, pcr);
    if (m_pid >= 0 && step > 0 && index > m_lastAt && !isDiscontinuity(packet))
        m_ticksEach = static_cast<double>(step) / static_cast<double>(index - m_lastAt);
    if (known())
        timeUntil(window, index);
    m_pid = number;
    m_last = pcr;
    m_lastAt = index;
}

void PcrTimeline::follow(const ProgramTables& tables) {
    if (m_pid >= 0 && !tables.pcrPids().empty() && !tables.isPcr(m_pid))
        m_pid = -1;
}

void PcrTimeline::settle(PacketWindow& window) {
    timeUntil(window, window.count());
    m_pid = -1;
}

void PcrTimeline::timeUntil(PacketWindow& window, std::size_t end) {
    const std::size_t begin = m_timed;
    const auto after = [&](std::size_t index) {
        return m_elapsed + static_cast<Ticks>(m_ticksEach * static_cast<double>(index - begin));
    };
    for (; m_timed < end; ++m_timed)
        window.note(m_timed).time = after(m_timed);
    m_elapsed = after(end);
}

void PcrTimeline::released(std::size_t count) noexcept {
    m_timed -= count;
    // It is only used while packets from there on are in the window.
    m_lastAt -= count < m_lastAt ? count : m_lastAt;
}

} // namespace kestrel::capture
