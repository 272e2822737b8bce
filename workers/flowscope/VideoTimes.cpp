#include "VideoTimes.h"

#include "ClockTurns.h"
#include "Leaps.h"
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
// Headers and counts may be hostile.
constexpr double MOST_FRAMES = 100'000;
constexpr auto LONGEST_FRAME = static_cast<double>(longestFrame);
// Frames that a decoder holds back at most (H.264, A.3.1).
constexpr double REORDERED = 16;

} // namespace

// What one frame lasts: by the rate, or where that is not known by the last step. 0 before the first.
double VideoTimes::frameUnits(double frameRate) const noexcept {
    return std::min(LONGEST_FRAME, frameRate > 0 ? static_cast<double>(PTS::units_per_second) / frameRate
                                                 : static_cast<double>(m_lastStep) / m_framesOfLastStep);
}

std::int64_t VideoTimes::expected(const Place& place, double frames) const noexcept {
    const double byRate =
        place.frameRate > 0 ? static_cast<double>(PTS::units_per_second) / place.frameRate : 0;
    const double frame = std::min(LONGEST_FRAME, std::max(byRate, m_usualStep));
    return std::llround(frame * std::min(frames, MOST_FRAMES));
}

VideoTimes::Times VideoTimes::continued(PTS rawPts, PTS rawDts, const Place& place) {
    double frames = m_framesHeld + place.frames;
    for (const Held& held : m_held)
        frames += held.place.frames;
    return follow(rawPts, rawDts, place, frames, false);
}

VideoTimes::Times VideoTimes::follow(PTS rawPts, PTS rawDts, const Place& place, double frames,
                                     bool confirmed) {
    Times times{{}, unwrapped(shifted(rawDts, m_shift), m_lastDts), rawPts, rawDts};
    if (!m_lastDts.is_absent()) {
        frames = std::min(frames, MOST_FRAMES);
        const double frame = frameUnits(place.frameRate);
        const auto next = static_cast<std::int64_t>(std::llround(frame * frames));
        const std::int64_t step = times.dts - m_lastDts;
        const auto most = static_cast<std::int64_t>(frame * (frames + GAP)) + ROUNDED;
        const bool newTimeBase = std::exchange(m_newTimeBase, false) && (step <= 0 || step > most);
        // Time that went back by mistake, and is right again.
        const PTS again = m_shiftBefore && step > longLeap
                              ? unwrapped(shifted(rawDts, *m_shiftBefore), m_lastDts)
                              : m_lastDts;
        if (newTimeBase) {
            m_shift += next - step;
            times.dts = PTS(m_lastDts + next);
            times.newBase = true;
        } else if (again - m_lastDts > 0 && again - m_lastDts <= most) {
            m_shift = *m_shiftBefore;
            times.dts = again;
        } else if (const std::int64_t wanted = expected(place, frames); leaps(step, wanted) && !confirmed) {
            times.leaps = true;
            times.dts = PTS(m_lastDts + wanted);
        } else if (step < -longLeap) {
            times.back = true;
            m_shiftBefore = m_shift;
            m_shift += next - step;
            times.dts = PTS(m_lastDts + next);
        }
    }
    times.pts = unwrapped(shifted(rawPts, m_shift), times.dts);
    return times;
}

void VideoTimes::take(const Times& times, const Place& place, Findings& findings) {
    m_latestDts = times.dts;
    if (times.leaps) {
        m_held.push_back({times, place});
        return;
    }
    while (!m_held.empty())
        dropHeld("before and behind it", findings);
    keep(times, place, findings);
}

void VideoTimes::keep(const Times& times, const Place& place, Findings& findings) {
    const auto ticks = [](PTS time) { return static_cast<long long>(time.ticks()); };
    const std::string where = format("packet %llu, PID %d: ", place.packet, place.pid);
    if (times.pts < times.dts)
        findings.add("timestamps", where + format("PTS %lld lies before DTS %lld", ticks(times.rawPts),
                                                  ticks(times.rawDts)));
    ++m_taken;
    if (m_firstDts.is_absent())
        m_firstDts = times.dts;
    m_beganBase = times.newBase;
    if (m_taken == 1 || m_beganBase)
        m_first = {times, place};
    if (!m_lastDts.is_absent()) {
        const double frames = std::exchange(m_framesHeld, 0) + place.frames;
        const std::int64_t step = times.dts - m_lastDts;
        const double frame = frameUnits(place.frameRate);
        const double most = frame * (frames + GAP) + ROUNDED;
        // Where the rate of the headers is wrong, the steps are longer all the time.
        const double usual = static_cast<double>(m_lastStep) / m_framesOfLastStep * (frames + GAP) + ROUNDED;
        if (times.back || step <= 0)
            findings.add("timestamps", where + format("DTS %lld does not follow %lld", ticks(times.rawDts),
                                                      ticks(m_lastRawDts)));
        else if (frame > 0 && static_cast<double>(step) > std::max(most, usual)) {
            std::string gap = where + format("a gap of %.1f frames before DTS %lld",
                                             static_cast<double>(step) / frame, ticks(times.rawDts));
            if (m_lastStep > 0)
                findings.add("timestamps", gap);
            else
                m_gapToTell = std::move(gap);
        }
        // Without a step before it, the one behind it shows whether all are that long.
        if (m_lastStep > 0) {
            if (!m_gapToTell.empty() && step > 0 && static_cast<double>(step) <= most)
                findings.add("timestamps", m_gapToTell);
            m_gapToTell.clear();
        }
        if (step > 0) {
            if (m_steps.size() < MOST_STEPS || m_steps.contains(step))
                ++m_steps[step];
            const double each = static_cast<double>(step) / frames;
            m_usualStep =
                m_lastStep > 0 ? std::min(each, static_cast<double>(m_lastStep) / m_framesOfLastStep) : each;
        }
        m_lastStep = step;
        m_framesOfLastStep = frames;
    }
    m_lastDts = m_latestDts = times.dts;
    m_lastRawDts = times.rawDts;
    keepPts(times, place, findings);
}

int VideoTimes::outside(std::int64_t offset, const Place& place) const noexcept {
    if (offset < m_leastOffset - longLeap)
        return -1;
    return offset > std::max({m_mostOffset, expected(place, REORDERED), longLeap}) ? 1 : 0;
}

void VideoTimes::widen(PTS pts) noexcept {
    m_lowestPts = m_lowestPts.is_absent() ? pts : PTS(std::min<std::int64_t>(m_lowestPts, pts));
    m_highestPts = m_highestPts.is_absent() ? pts : PTS(std::max<std::int64_t>(m_highestPts, pts));
}

// A damaged PTS is to be as harmless as a damaged DTS: one far from its DTS waits for another that is.
void VideoTimes::keepPts(const Times& times, const Place& place, Findings& findings) {
    const std::int64_t offset = times.pts - times.dts;
    const int side = outside(offset, place);
    const std::optional<Held> held = std::exchange(m_heldPts, std::nullopt);
    // Of the first one it may be told only now that it lies no further than pictures are held back.
    const std::int64_t before = held ? held->times.pts - held->times.dts : 0;
    if (side == 0) {
        if (held && outside(before, place) == 0)
            widen(held->times.pts);
        else if (held)
            tellPts(*held, findings);
        widen(times.pts);
        return;
    }
    if (held && outside(before, place) == side) {
        m_leastOffset = std::min({m_leastOffset, offset, before});
        m_mostOffset = std::max({m_mostOffset, offset, before});
        widen(held->times.pts);
        widen(times.pts);
        return;
    }
    if (held)
        tellPts(*held, findings);
    m_heldPts = Held{times, place};
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
