#include "PcrClock.h"

#include "mpeg/packet_view.h"

#include <utility>

namespace kestrel::capture {
namespace {

constexpr std::size_t pcrBytes = 6;
// A longer step from one PCR to the next is no time of the stream.
constexpr std::int64_t longestStep = 27'000'000;

// From one PCR to another, the shorter way around.
std::int64_t stepBetween(std::int64_t pcr, std::int64_t next) noexcept {
    constexpr std::int64_t range = (std::int64_t{1} << 33) * 300;
    const std::int64_t step = (next - pcr + range) % range;
    return step < range / 2 ? step : step - range;
}

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

bool isDiscontinuity(const unsigned char* packet) noexcept {
    const ts::bytes field = ts::adaptation_field(packet);
    return !field.empty() && (field[0] & 0x80);
}

bool PcrClock::take(const unsigned char* packet, const ProgramTables& tables) {
    const int number = ts::pid(packet);
    const Ticks pcr = m_pid < 0 || number == m_pid ? pcrOf(packet) : -1;
    if (pcr < 0 || (!tables.pcrPids().empty() && !tables.isPcr(number))) {
        if (++m_since > mostSilent)
            lose();
        return false;
    }
    const Ticks last = std::exchange(m_last, pcr);
    const auto packets = static_cast<double>(std::exchange(m_since, 1));
    const bool goesOn = std::exchange(m_pid, number) >= 0 && !isDiscontinuity(packet);
    const Ticks step = last < 0 ? 0 : stepBetween(last, pcr);
    m_unplayed = 0;
    if (goesOn && step > 0 && step <= longestStep)
        m_ticksEach = static_cast<double>(step) / packets;
    else if (last >= 0 && m_ticksEach > 0)
        m_unplayed = step - static_cast<Ticks>(m_ticksEach * packets);
    return true;
}

void PcrClock::follow(const ProgramTables& tables) {
    if (m_pid >= 0 && !tables.pcrPids().empty() && !tables.isPcr(m_pid))
        lose();
}

} // namespace kestrel::capture
