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
constexpr int REORDERED = 16;

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
    if (times.pts < times.dts)
        findings.add("timestamps", format("packet %llu, PID %d: PTS %lld lies before DTS %lld", place.packet,
                                          place.pid, ticks(times.rawPts), ticks(times.rawDts)));
    ++m_taken;
    if (m_firstDts.is_absent())
        m_firstDts = times.dts;
    m_beganBase = times.newBase;
    if (m_taken == 1 || m_beganBase)
        m_first = {times, place};
    std::optional<std::int64_t> ordinaryStep;
    if (!m_lastDts.is_absent()) {
        const double frames = m_framesHeld + place.frames;
        const std::int64_t step = times.dts - m_lastDts;
        const bool ordinary = judgeStep(times, place, frames, findings) && m_framesHeld <= 0;
        m_framesHeld = 0;
        if (ordinary && !times.newBase)
            ordinaryStep = step;
        if (ordinaryStep && place.allAtRate)
            m_byRate.add(static_cast<double>(step), frames, place.leastFrames, place.frameRate);
        else
            m_byRate.leaveOut();
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
    m_lastPlace = place;
    keepPts(times, place, findings);
    judgeShowing(times, place, ordinaryStep, findings);
}

// From the last time to this one, behind so many frames.
bool VideoTimes::judgeStep(const Times& times, const Place& place, double frames, Findings& findings) {
    const auto ticks = [](PTS time) { return static_cast<long long>(time.ticks()); };
    const auto where = [&] { return format("packet %llu, PID %d: ", place.packet, place.pid); };
    const std::int64_t step = times.dts - m_lastDts;
    const bool behindShort = std::exchange(m_lastShort, false);
    if (times.back || step <= 0) {
        findings.add("timestamps", where() + format("DTS %lld does not follow %lld", ticks(times.rawDts),
                                                    ticks(m_lastRawDts)));
        if (m_lastStep > 0)
            m_stepToTell.clear();
        m_lastShort = !times.back;
        return false;
    }
    const auto length = static_cast<double>(step);
    const double frame = frameUnits(place.frameRate);
    // Where the rate of the headers is wrong, the steps are longer, or shorter, all the time.
    const double longer = std::max(frame, m_usualStep);
    const double shorter = m_lastStep > 0 ? std::min(frame, m_usualStep) : frame;
    const auto atMost = [&](double each, double count) { return each * (count + GAP) + ROUNDED; };
    // Behind a frame that is repeated a step may be a field shorter; where times were left out more than one.
    const double least = m_framesHeld > 0 ? 0 : place.leastFrames;
    const auto atLeast = [&](double each) { return each * (least - GAP) - ROUNDED; };
    const bool ofHeaders = place.frameRate > 0;
    // One time that is early is told once.
    const bool madeUp =
        behindShort && length > atMost(frame, frames) &&
        length + static_cast<double>(m_lastStep) <= atMost(longer, frames + m_framesOfLastStep);
    std::string text;
    bool ordinary = !madeUp;
    if (frame > 0 && length > atMost(longer, frames) && !madeUp) {
        ++m_gaps;
        text = where() + format("a gap of %.1f frames before DTS %lld", length / frame, ticks(times.rawDts));
    } else if (ofHeaders && length < atLeast(shorter)) {
        m_lastShort = true;
        text = where() + format("a step of %.2f frames to DTS %lld, where %.1f are sent", length / frame,
                                ticks(times.rawDts), least);
    }
    ordinary = ordinary && text.empty();
    if (m_lastStep > 0) {
        // Without a step before it, the one behind it shows whether all are that long.
        const bool usual = length <= atMost(frame, frames) && (!ofHeaders || length >= atLeast(frame));
        if (!m_stepToTell.empty() && (usual || madeUp))
            findings.add("timestamps", m_stepToTell);
        m_stepToTell.clear();
        if (!text.empty())
            findings.add("timestamps", text);
    } else if (!text.empty()) {
        m_stepToTell = std::move(text);
    }
    return ordinary;
}

void VideoTimes::judgeShowing(const Times& times, const Place& place, std::optional<std::int64_t> step,
                              Findings& findings) {
    // Of several pictures only the first has a time; where the others are shown is not told.
    constexpr double SEVERAL = 1.75;
    if (!step || place.frames > SEVERAL) {
        m_showing.interrupt(times.dts);
    } else if (place.frameRate > 0) {
        // Where the rate of the headers is wrong, the steps between decoding times are as long.
        const double frame = frameUnits(place.frameRate);
        const double each = static_cast<double>(*step) / place.frames;
        if (m_taken == 2 && place.beginsWhole)
            m_showing.beginsWhole();
        const double longest = std::max({frame, each, m_usualStep});
        m_showing.lasts(
            {longest * place.frames, std::min({frame, each, m_usualStep}) * place.leastFrames, longest});
    }
    if (times.pts < times.dts) {
        m_showing.tolerate(times.dts); // that has been told
        return;
    }
    m_showing.add(times.dts, {times.pts, times.rawPts, place.packet, place.pid}, findings);
    if (outside(times.pts - times.dts, place) != 0)
        m_showing.tolerate(times.dts);
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

// A damaged PTS is to be as harmless as a damaged DTS: one far from its DTS waits for another that is, or for
// the decoding to come to it, as it does behind a pause across which pictures are reordered.
void VideoTimes::keepPts(const Times& times, const Place& place, Findings& findings) {
    const std::int64_t offset = times.pts - times.dts;
    const int side = outside(offset, place);
    bool borneOut = side == 0;
    for (auto held = m_heldPts.begin(); held != m_heldPts.end();) {
        const std::int64_t before = held->times.pts - held->times.dts;
        const int sideBefore = outside(before, place);
        const bool agree = held->since == 0 && side != 0 && sideBefore == side;
        if (agree) {
            m_leastOffset = std::min({m_leastOffset, offset, before});
            m_mostOffset = std::max({m_mostOffset, offset, before});
            borneOut = true;
        }
        // Of the first one it may be told only now that it lies no further than pictures are held back.
        if (agree || sideBefore == 0 || (sideBefore > 0 && times.dts >= held->times.pts)) {
            widen(held->times.pts);
        } else if (sideBefore > 0 && ++held->since < REORDERED) {
            ++held;
            continue;
        } else {
            tellPts(*held, findings);
        }
        held = m_heldPts.erase(held);
    }
    if (borneOut)
        widen(times.pts);
    else
        m_heldPts.push_back({{times, place}});
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
