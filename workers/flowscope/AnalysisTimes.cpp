// What the times of the video's PES packets tell: order, gaps, durations.
#include "Analysis.h"
#include "ClockTurns.h"
#include "Leaps.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

namespace kestrel::flowscope {
namespace {

PTS ofReference(std::int64_t pcr) {
    constexpr std::int64_t TICKS = 27'000'000 / PTS::units_per_second;
    return PTS(pcr / TICKS);
}

} // namespace

std::optional<std::int64_t> Analysis::aheadOfClock(PTS rawDts) const {
    if (m_lastClock < 0)
        return std::nullopt;
    const PTS clock = ofReference(m_lastClock);
    return unwrapped(rawDts, clock) - clock;
}

// A stream that its multiplex has no room for comes ever later: in the end behind the time at which it is
// decoded (2.4.2.3), at a rate of the clock that it does not keep to.
void Analysis::noteLead(PTS rawDts) {
    // A damaged time is off once, and so is a reference, or a join, as only one time is compared with each.
    constexpr int IN_A_ROW = 3;
    const auto ahead = aheadOfClock(rawDts);
    if (!ahead || m_lead.references == m_clock.count())
        return;
    m_lead.references = m_clock.count();
    // Where many null packets are sent there is room: the video is only sent late.
    constexpr std::uint64_t ROOM = 10; // one of so many
    const bool full = (m_nullPackets - m_lead.nullPackets) * ROOM < m_packets - m_lead.packets;
    m_lead.nullPackets = m_nullPackets;
    m_lead.packets = m_packets;
    m_lead.lateInARow = *ahead < 0 && full ? m_lead.lateInARow + 1 : 0;
    m_lead.late = m_lead.late || m_lead.lateInARow >= IN_A_ROW;

    const PTS clock = ofReference(m_lastClock);
    const std::uint64_t jumps = m_clock.jumps() + m_clock.newTimeBases();
    if (!m_lead.dts.is_absent()) {
        // What is off by little, and then no more, counts both ways, and comes to nothing.
        const std::int64_t decoded = unwrapped(rawDts, m_lead.dts) - m_lead.dts;
        const std::int64_t sent = unwrapped(clock, m_lead.clock) - m_lead.clock;
        const bool jumped = jumps != m_lead.jumps && std::abs(sent) > longLeap;
        const bool together = std::abs(decoded - sent) <= longLeap;
        // While the video catches up, lost packets may hold more of its time than of the clock's by far. Of a
        // damaged time among them the next one takes back what it departed by.
        const bool known = *ahead >= m_lead.least - longLeap && *ahead <= m_lead.most + longLeap;
        const bool lost = m_losses != m_lead.losses;
        const bool counts = !jumped && (together || (known && (lost || m_lead.bridged)));
        // A single one that leads apart is left out, as if it had not come.
        if (!counts && !jumped && !std::exchange(m_lead.apart, true))
            return;
        if (counts) {
            m_lead.decoded += decoded;
            m_lead.sent += sent;
            m_lead.least = std::min(m_lead.least, *ahead);
            m_lead.most = std::max(m_lead.most, *ahead);
        }
        m_lead.bridged = counts && (lost || !together);
    } else {
        m_lead.least = m_lead.most = *ahead;
    }
    m_lead.apart = false;
    m_lead.losses = m_losses;
    m_lead.dts = rawDts;
    m_lead.clock = clock;
    m_lead.jumps = jumps;
}

double Analysis::now() const {
    if (m_times.firstDts().is_absent())
        return 0;
    return m_times.decodingSeconds(m_times.latestDts()) + m_clock.elapsedSeconds() - m_clockAtTime;
}

void Analysis::takeVideoTimes() {
    const PTS rawPts = m_videoReader.pts();
    const PTS rawDts = m_videoReader.dts();
    if (rawPts.is_absent())
        return;
    noteLead(rawDts);
    // By either way of counting; where a frame is repeated they differ by a field.
    const VideoTrack::Position position = m_video->position();
    const auto [least, fields] =
        std::minmax({position.shown - m_positionAtTime.shown, position.decoded - m_positionAtTime.decoded});
    constexpr std::uint64_t FRAME = 2; // where no picture was found since
    // H.264 may show its frames longer (E.2.1, fixed_frame_rate_flag).
    const bool allAtRate = m_video->codec() == VideoCodec::mpeg2 && !m_lostSinceTime;
    const VideoTimes::Place place{m_packets - 1,
                                  m_videoPid,
                                  m_video->format().rate(),
                                  static_cast<double>(fields == 0 ? FRAME : fields) / 2,
                                  static_cast<double>(least) / 2,
                                  m_fieldsBeforeTimes == 0 && m_video->beginsDecodable(),
                                  aheadOfClock(rawDts),
                                  allAtRate};
    const std::uint64_t gaps = m_times.gaps();
    const double known = m_times.decodingSeconds(m_times.latestDts());
    const auto end = m_times.settle(rawDts, place, m_limit.asked(), m_findings);
    const VideoTimes::Times times = m_times.continued(rawPts, rawDts, place);
    if (times.leaps || times.back || times.newBase)
        m_video->realign(); // it may be another file
    // The next time tells how far one leads that is held.
    bool lost = std::exchange(m_lostSinceTime, m_lostSinceTime && times.leaps);
    if (end && *end < m_atLeaps.size()) {
        *m_video = m_atLeaps[*end].video; // the picture that leapt is one too many, too
        m_positionAtTime = m_atLeaps[*end].position;
    }
    while (m_atLeaps.size() > m_times.held())
        m_atLeaps.erase(m_atLeaps.begin());
    if (m_limit.asked() && (end || m_times.decodingSeconds(times.dts) >= *m_limit.asked())) {
        m_full = true;
        m_videoReader.drop(); // the picture that begins here is one too many
        return;
    }
    // The bytes so far are those of the pictures before this one.
    if (!m_times.latestDts().is_absent())
        m_videoRates.add(m_times.decodingSeconds(m_times.latestDts()), m_video->bytes() - m_ratedVideoBytes);
    m_ratedVideoBytes = m_video->bytes();
    m_positionAtTime = position;
    const bool first = m_times.firstDts().is_absent();
    if (first)
        m_fieldsBeforeTimes = position.shown;
    m_times.take(times, place, m_findings);
    if (m_times.gaps() != gaps) {
        // Where packets of video are lost, and sixteen, or a multiple, no counter tells.
        m_clock.suspectLoss();
        m_video->realign();
        lost = true;
    }
    const double latest = m_times.decodingSeconds(m_times.latestDts());
    if (lost || latest - known > kestrel::flowscope::seconds(longLeap))
        m_videoRates.lose(known, latest);
    if (first)
        noteDelay();
    if (m_limit.asked()) {
        m_limit.decoded(m_times.decodingSeconds(m_times.latestDts()));
        if (times.leaps)
            m_atLeaps.push_back({*m_video, position});
        else
            m_atLeaps.clear();
    }
    m_rates.add(m_times.decodingSeconds(times.dts), (m_packets - m_ratedPackets) * ts::packet_size);
    m_ratedPackets = m_packets;
    m_clockAtTime = m_clock.elapsedSeconds();
}

void Analysis::endVideoTimes() {
    const auto end = m_times.end(m_limit.asked(), m_findings);
    if (!end || *end >= m_atLeaps.size())
        return;
    *m_video = m_atLeaps[*end].video; // the picture that leapt is one too many
    m_positionAtTime = m_atLeaps[*end].position;
    m_full = true;
}

} // namespace kestrel::flowscope
