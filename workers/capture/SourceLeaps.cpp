#include "SourceLeaps.h"

#include "mpeg/packet_view.h"
#include "mpeg/pts.h"

#include <algorithm>
#include <utility>

namespace kestrel::capture {
namespace {

constexpr std::int64_t ticksEachUnit = 27'000'000 / PTS::units_per_second;

} // namespace

void SourceLeaps::take(const unsigned char* packet, std::uint64_t offset) {
    if (m_tables.carries(ts::pid(packet)) && !(packet[1] & 0x80) && m_tables.take(packet, 0))
        m_clock.follow(m_tables);
    if (!m_clock.take(packet, m_tables))
        return;
    const std::uint64_t before = std::exchange(m_pcrAt, offset);
    if (const std::int64_t time = m_clock.unplayed() / ticksEachUnit; time > 0 && m_unplayed.size() < most)
        m_unplayed.push_back({before, offset, time});
}

void SourceLeaps::late(const Leap& leap, std::uint64_t from, std::uint64_t to) {
    if (m_late.size() < most)
        m_late.push_back({leap, from, to});
}

std::vector<SourceLeaps::Leap> SourceLeaps::found(std::int64_t least) {
    std::vector<Leap> leaps;
    auto first = m_unplayed.begin();
    for (Late& late : m_late) {
        while (first != m_unplayed.end() && first->to <= late.from)
            ++first;
        SourceLeap& size = late.leap.size;
        const std::int64_t later = late.leap.later = std::exchange(size.excess, 0);
        for (auto step = first; step != m_unplayed.end() && step->from < late.to; ++step) {
            const std::int64_t time = std::min(step->time, later - size.excess);
            size.excess += time;
            step->time -= time;
        }
        // At its pace what is between two PCRs is played to some milliseconds only.
        if (later - size.excess <= least / 2)
            size.excess = later;
        // Of one that the PCRs do not follow the timestamp is wrong, or begins anew.
        const bool followed = late.leap.clocked || later - size.excess < PTS::units_per_second;
        if (size.excess > least && followed)
            leaps.push_back(late.leap);
    }
    return leaps;
}

} // namespace kestrel::capture
