#include "VideoTimes.h"

#include "ClockTurns.h"
#include "capture/Failure.h"

#include <algorithm>
#include <cmath>
#include <string>
#include <utility>

namespace kestrel::flowscope {
namespace {

using capture::format;

// Different steps that are counted; a hostile stream has no more effect.
constexpr std::size_t MOST_STEPS = 256;
// A step that is longer than its frames by more than so many of them is a gap. Times are rounded to 90 kHz,
// and those of the frames in between with them.
constexpr double GAP = 0.5;
constexpr std::int64_t ROUNDED = 8 * PTS::units_per_second / 90'000;
// Time that goes back by more than this has another base.
constexpr std::int64_t NEW_BASE = PTS::units_per_second;

PTS shifted(PTS raw, std::int64_t shift) {
    return raw.is_absent() ? raw : PTS(raw + shift);
}

} // namespace

// What one frame lasts: by the rate, or where that is not known by the last step. 0 before the first.
double VideoTimes::frameUnits(double frameRate) const noexcept {
    // Headers may name a rate of one frame in centuries.
    constexpr double LONGEST = 100.0 * PTS::units_per_second;
    return std::min(LONGEST, frameRate > 0 ? static_cast<double>(PTS::units_per_second) / frameRate
                                           : static_cast<double>(m_lastStep) / m_framesOfLastStep);
}

VideoTimes::Times VideoTimes::continued(PTS rawPts, PTS rawDts, const Place& place) {
    Times times{{}, unwrapped(shifted(rawDts, m_shift), m_lastDts), rawPts, rawDts};
    if (!m_lastDts.is_absent()) {
        const double frame = frameUnits(place.frameRate);
        constexpr double MOST_FRAMES = 100'000;
        const double frames = std::min(place.frames, MOST_FRAMES);
        const auto expected = static_cast<std::int64_t>(std::llround(frame * frames));
        const std::int64_t step = times.dts - m_lastDts;
        const auto most = static_cast<std::int64_t>(frame * (frames + GAP)) + ROUNDED;
        const bool newTimeBase = std::exchange(m_newTimeBase, false) && (step <= 0 || step > most);
        times.back = !newTimeBase && step < -NEW_BASE;
        if (times.back)
            m_shiftBefore = m_shift;
        if (newTimeBase || times.back) {
            m_shift += expected - step;
            times.dts = PTS(m_lastDts + expected);
        } else if (m_shiftBefore && step > NEW_BASE) {
            // One time that was wrong, and the next is right again.
            const PTS again = unwrapped(shifted(rawDts, *m_shiftBefore), m_lastDts);
            if (again - m_lastDts > 0 && again - m_lastDts <= most) {
                m_shift = *m_shiftBefore;
                times.dts = again;
            }
        }
    }
    times.pts = unwrapped(shifted(rawPts, m_shift), times.dts);
    return times;
}

void VideoTimes::take(const Times& times, const Place& place, Findings& findings) {
    const auto ticks = [](PTS time) { return static_cast<long long>(time.ticks()); };
    const std::string where = format("packet %llu, PID %d: ", place.packet, place.pid);
    if (times.pts < times.dts)
        findings.add("timestamps", where + format("PTS %lld lies before DTS %lld", ticks(times.rawPts),
                                                  ticks(times.rawDts)));
    ++m_taken;
    if (m_firstDts.is_absent())
        m_firstDts = times.dts;
    if (!m_lastDts.is_absent()) {
        const std::int64_t step = times.dts - m_lastDts;
        const double frame = frameUnits(place.frameRate);
        const double most = frame * (place.frames + GAP) + ROUNDED;
        // Where the rate of the headers is wrong, the steps are longer all the time.
        const double usual =
            static_cast<double>(m_lastStep) / m_framesOfLastStep * (place.frames + GAP) + ROUNDED;
        if (times.back || step <= 0)
            findings.add("timestamps", where + format("DTS %lld does not follow %lld", ticks(times.rawDts),
                                                      ticks(m_lastRawDts)));
        else if (frame > 0 && m_lastStep > 0 && static_cast<double>(step) > std::max(most, usual))
            findings.add("timestamps",
                         where + format("a gap of %.1f frames before DTS %lld",
                                        static_cast<double>(step) / frame, ticks(times.rawDts)));
        if (step > 0 && (m_steps.size() < MOST_STEPS || m_steps.contains(step)))
            ++m_steps[step];
        m_lastStep = step;
        m_framesOfLastStep = place.frames;
    }
    m_lastDts = times.dts;
    m_lastRawDts = times.rawDts;
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
