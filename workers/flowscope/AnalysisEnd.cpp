// What only the end of a pass tells: what did not come, and what ended early.
#include "Analysis.h"
#include "ClockTurns.h"
#include "capture/Failure.h"

#include <algorithm>

namespace kestrel::flowscope {
namespace {

using capture::format;

// 13818-1, 2.7.2
constexpr double LONGEST_INTERVAL = 0.1;
// Streams of one program need not end with the same picture.
constexpr double EARLY = 1;

} // namespace

double Analysis::delay() const {
    return m_times.decodingSeconds(m_times.latestDts()) - m_clock.elapsedSeconds();
}

void Analysis::noteDelay() {
    if (m_times.firstDts().is_absent() || m_clock.count() == 0)
        return;
    const double now = delay();
    m_mostDelay = m_leastDelay ? std::max(m_mostDelay, now) : now;
    m_leastDelay = m_leastDelay ? std::min(*m_leastDelay, now) : now;
}

void Analysis::end() {
    for (const Program& program : m_tables.programs())
        if (!program.mapped)
            m_findings.add("program", format("program %d: its map has not come on PID %d", program.number,
                                             program.pmtPid));
    if (m_video == nullptr)
        return;
    endVideoTimes();
    m_video->end();
    m_video->assumeFrameRate(m_times.frameRate(m_video->frames()));
    tellTimecodes();
    for (Audio& each : m_audios) {
        each.track.end();
        tellFormat(each);
        endAudioTimes(each);
    }
    judgeClock();
    // Of a stream that is read in part nothing is told of its end.
    if (m_full && m_limit.asked())
        return;
    judgePresence();
    judgeEnds();
}

void Analysis::judgeClock() {
    if (m_clock.count() == 0) {
        m_findings.add("PCR interval", format("PID %d: no PCR comes", m_pcrPid));
    } else if (m_leastDelay) {
        // Video is sent ahead of its decoding, and at a constant rate more or less so: what was seen of that
        // is no time that passed.
        constexpr double MOST_SPREAD = 1;
        const double passed = delay() - m_mostDelay;
        if (passed > LONGEST_INTERVAL + std::min(m_mostDelay - *m_leastDelay, MOST_SPREAD))
            m_findings.add("PCR interval", format("packet %llu, PID %d: the last PCR, %.1f s before the end",
                                                  m_lastClockPacket, m_lastClockPid, passed));
    }
    if (const auto jitter = pcrJitterUs(); jitter && *jitter > ClockCheck::jitterLimitUs)
        m_findings.add(
            "PCR jitter",
            format("packet %llu, PID %d: a PCR lies %.3f us from the constant rate of the multiplex, "
                   "more than the %.1f us that are allowed",
                   static_cast<unsigned long long>(m_clock.jitterPacket().value_or(0)), m_pcrPid, *jitter,
                   ClockCheck::jitterLimitUs));
}

void Analysis::judgePresence() {
    for (const StreamEntry& stream : asset()->streams) {
        if ((!stream.video && !stream.audio) || stream.pid == m_videoPid)
            continue;
        const Audio* const sound = audio(stream.pid);
        const bool counted = sound != nullptr && sound->track.codec() != AudioCodec::unknown;
        if (m_previous[static_cast<std::size_t>(stream.pid)] == nullptr)
            m_findings.add("missing stream", format("PID %d: no packet comes of the %s that is announced",
                                                    stream.pid, stream.description.c_str()));
        else if (counted && sound->track.frames() == 0)
            m_findings.add("missing stream",
                           format("packet %llu, PID %d: up to its last packet no frame comes of "
                                  "the %s that is announced",
                                  sound->lastPacket, stream.pid, stream.description.c_str()));
    }
}

void Analysis::judgeEnds() {
    // What the frames of files that are joined last is told by one rate, the latest.
    if (m_video->rateChanged())
        return;
    struct End {
        int pid;
        unsigned long long packet;
        double seconds;
    };
    std::vector<End> ends;
    if (!m_times.lowestPts().is_absent() && m_video->frames() != 0)
        ends.push_back({m_videoPid, m_lastVideoPacket, firstShown() + videoSeconds()});
    for (const Audio& each : m_audios)
        if (!each.track.firstPts().is_absent())
            ends.push_back(
                {each.pid, each.lastPacket, kestrel::flowscope::seconds(firstSound(each)) + each.seconds()});
    double last = ends.empty() ? 0 : ends.front().seconds;
    for (const End& each : ends)
        last = std::max(last, each.seconds);
    for (const End& each : ends)
        if (last - each.seconds > EARLY)
            m_findings.add("missing stream",
                           format("packet %llu, PID %d: its last one, %.1f s before the others end",
                                  each.packet, each.pid, last - each.seconds));
}

} // namespace kestrel::flowscope
