#include "VideoTimes.h"

#include "ClockTurns.h"
#include "capture/Failure.h"

#include <algorithm>
#include <cmath>

namespace kestrel::flowscope {
namespace {

using capture::format;

// Different steps that are counted; a hostile stream has no more effect.
constexpr std::size_t MOST_STEPS = 256;
// A step of more than so many frames is a gap.
constexpr double GAP = 1.5;

PTS shifted(PTS raw, std::int64_t shift) {
    return raw.is_absent() ? raw : PTS(raw + shift);
}

} // namespace

VideoTimes::Times VideoTimes::continued(PTS rawPts, PTS rawDts, double frameRate) {
    PTS dts = unwrapped(shifted(rawDts, m_shift), m_lastDts);
    if (m_newTimeBase && !m_lastDts.is_absent()) {
        m_newTimeBase = false;
        const std::int64_t frame =
            frameRate > 0 ? std::llround(static_cast<double>(PTS::units_per_second) / frameRate) : m_lastStep;
        const std::int64_t step = dts - m_lastDts;
        if (step <= 0 || static_cast<double>(step) > GAP * static_cast<double>(frame)) {
            m_shift += frame - step;
            dts = PTS(m_lastDts + frame);
        }
    }
    return {unwrapped(shifted(rawPts, m_shift), dts), dts};
}

void VideoTimes::take(const Times& times, double frameRate, unsigned long long packet, Findings& findings) {
    const auto ticks = [](PTS time) { return static_cast<long long>(time.ticks()); };
    if (times.pts < times.dts)
        findings.add("timestamps", format("packet %llu: PTS %lld lies before DTS %lld", packet,
                                          ticks(times.pts), ticks(times.dts)));
    ++m_taken;
    if (m_firstDts.is_absent())
        m_firstDts = times.dts;
    if (!m_lastDts.is_absent()) {
        const std::int64_t step = times.dts - m_lastDts;
        const double frame = frameRate > 0 ? static_cast<double>(PTS::units_per_second) / frameRate
                                           : static_cast<double>(m_lastStep);
        if (step <= 0)
            findings.add("timestamps", format("packet %llu: DTS %lld does not follow %lld", packet,
                                              ticks(times.dts), ticks(m_lastDts)));
        else if (frame > 0 && m_lastStep > 0 &&
                 static_cast<double>(step) > GAP * std::max(frame, static_cast<double>(m_lastStep)))
            findings.add("timestamps", format("packet %llu: a gap of %.1f frames before DTS %lld", packet,
                                              static_cast<double>(step) / frame, ticks(times.dts)));
        if (step > 0 && (m_steps.size() < MOST_STEPS || m_steps.contains(step)))
            ++m_steps[step];
        m_lastStep = step;
    }
    m_lastDts = times.dts;
    m_lowestPts = m_lowestPts.is_absent() ? times.pts : PTS(std::min<std::int64_t>(m_lowestPts, times.pts));
    m_highestPts =
        m_highestPts.is_absent() ? times.pts : PTS(std::max<std::int64_t>(m_highestPts, times.pts));
}

double VideoTimes::shownSeconds() const noexcept {
    return m_highestPts.is_absent() ? 0 : seconds(m_highestPts - m_lowestPts);
}

double VideoTimes::decodingSeconds(PTS dts) const noexcept {
    return m_firstDts.is_absent() ? 0 : seconds(dts - m_firstDts);
}

FrameRate VideoTimes::frameRate(std::uint64_t frames) const {
    const auto usual = std::max_element(m_steps.begin(), m_steps.end(),
                                        [](const auto& a, const auto& b) { return a.second < b.second; });
    if (usual == m_steps.end())
        return {};
    // A clock of 90 kHz, or a coarser one of the multiplexer, cannot tell every rate in one step: the mean of
    // those that are alike does.
    double sum = 0;
    double count = 0;
    for (const auto& [step, times] : m_steps)
        if (std::abs(static_cast<double>(step - usual->first)) <= 0.25 * static_cast<double>(usual->first)) {
            sum += static_cast<double>(step) * static_cast<double>(times);
            count += static_cast<double>(times);
        }
    // A PES packet holds a frame, a field or several frames.
    const double each = static_cast<double>(frames) / static_cast<double>(m_taken);
    const double framesOfStep = each < 0.75 ? 0.5 : std::max(1.0, std::round(each));
    return nominalFrameRate(static_cast<double>(PTS::units_per_second) * framesOfStep * count / sum);
}

} // namespace kestrel::flowscope
