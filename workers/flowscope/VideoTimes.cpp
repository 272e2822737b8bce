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
constexpr double LONGEST_FRAME = 100.0 * PTS::units_per_second;
// Frames that a decoder holds back at most (H.264, A.3.1).
constexpr double REORDERED = 16;

PTS shifted(PTS raw, std::int64_t shift) {
    return raw.is_absent() ? raw : PTS(raw + shift);
}

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
    return follow(rawPts, rawDts, place, false);
}

VideoTimes::Times VideoTimes::follow(PTS rawPts, PTS rawDts, const Place& place, bool confirmed) {
    Times times{{}, unwrapped(shifted(rawDts, m_shift), m_lastDts), rawPts, rawDts};
    if (!m_lastDts.is_absent()) {
        const double frame = frameUnits(place.frameRate);
        const double frames = std::min(m_framesHeld + place.frames, MOST_FRAMES);
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

bool VideoTimes::settle(PTS rawDts, const Place& place, std::optional<int> seconds, Findings& findings) {
    if (!m_held)
        return true;
    const Held held = *std::exchange(m_held, std::nullopt);
    const PTS time = unwrapped(shifted(held.times.rawDts, m_shift), m_lastDts);
    const PTS next = unwrapped(shifted(rawDts, m_shift), time);
    const double frames = m_framesHeld + held.place.frames;
    const Leap leap{time - m_lastDts, unwrapped(shifted(rawDts, m_shift), m_lastDts) - m_lastDts,
                    expected(place, frames + place.frames), next - time, expected(place, place.frames)};
    if (!leap.confirmed()) {
        tellDamaged(held, "before and behind it", findings);
        m_framesHeld = frames;
        return true;
    }
    // A time base that was announced since begins behind it.
    const bool newTimeBase = std::exchange(m_newTimeBase, false);
    if (m_taken == 1 && leap.fromWrongFirst())
        beginBefore(time, held, findings);
    const Times times = follow(held.times.rawPts, held.times.rawDts, held.place, true);
    m_newTimeBase = newTimeBase;
    if (seconds && decodingSeconds(times.dts) >= *seconds) {
        m_framesHeld = frames;
        return false;
    }
    keep(times, held.place, findings);
    return true;
}

// Of three times the second and the third agree: the first one is wrong.
void VideoTimes::beginBefore(PTS dts, const Held& second, Findings& findings) {
    const Times first = m_first.times;
    if (dts > m_lastDts)
        findings.add("timestamps",
                     format("packet %llu, PID %d: DTS %lld lies %.1f s before the times behind it",
                            m_first.place.packet, m_first.place.pid,
                            static_cast<long long>(first.rawDts.ticks()), seconds(dts - m_lastDts)));
    else
        findings.add("timestamps",
                     format("packet %llu, PID %d: DTS %lld does not follow %lld", second.place.packet,
                            second.place.pid, static_cast<long long>(second.times.rawDts.ticks()),
                            static_cast<long long>(first.rawDts.ticks())));
    m_firstDts = m_lastDts = PTS(dts - expected(second.place, m_framesHeld + second.place.frames));
    m_lowestPts = m_highestPts = PTS();
    m_heldPts.reset();
    // Both of its times may be wrong, or one.
    const std::int64_t own = unwrapped(first.rawPts, m_firstDts) - m_firstDts;
    const std::int64_t both = unwrapped(first.rawPts, first.rawDts) - first.rawDts;
    for (const std::int64_t offset : {own, both})
        if (outside(offset, second.place) == 0) {
            widen(PTS(m_firstDts + offset));
            break;
        }
}

void VideoTimes::tellDamaged(const Held& held, const char* around, Findings& findings) const {
    const auto dts = static_cast<long long>(held.times.rawDts.ticks());
    const std::string where =
        format("packet %llu, PID %d: DTS %lld ", held.place.packet, held.place.pid, dts);
    const std::int64_t step = unwrapped(shifted(held.times.rawDts, m_shift), m_lastDts) - m_lastDts;
    findings.add("timestamps",
                 where + (step < 0
                              ? format("does not follow %lld", static_cast<long long>(m_lastRawDts.ticks()))
                              : format("lies %.1f s ahead of the times %s", seconds(step), around)));
}

void VideoTimes::tellPts(const Held& held, Findings& findings) const {
    // Where it lies before its DTS, that has been told.
    if (held.times.pts > held.times.dts)
        findings.add("timestamps",
                     format("packet %llu, PID %d: PTS %lld lies %.1f s behind DTS %lld", held.place.packet,
                            held.place.pid, static_cast<long long>(held.times.rawPts.ticks()),
                            seconds(held.times.pts - held.times.dts),
                            static_cast<long long>(held.times.rawDts.ticks())));
}

void VideoTimes::end(Findings& findings) {
    if (m_held) {
        const Held held = *std::exchange(m_held, std::nullopt);
        const bool ahead = unwrapped(shifted(held.times.rawDts, m_shift), m_lastDts) > m_lastDts;
        if (m_taken == 1 && ahead && expected(held.place, 1) == 0) {
            // Of two times without a rate neither is wrong.
            keep(follow(held.times.rawPts, held.times.rawDts, held.place, true), held.place, findings);
        } else {
            tellDamaged(held, "before it", findings);
            m_framesHeld += held.place.frames;
        }
    }
    if (m_heldPts && m_lowestPts.is_absent())
        widen(m_heldPts->times.pts);
    else if (m_heldPts)
        tellPts(*m_heldPts, findings);
    m_heldPts.reset();
}

void VideoTimes::take(const Times& times, const Place& place, Findings& findings) {
    m_latestDts = times.dts;
    if (times.leaps)
        m_held = Held{times, place};
    else
        keep(times, place, findings);
}

void VideoTimes::keep(const Times& times, const Place& place, Findings& findings) {
    const auto ticks = [](PTS time) { return static_cast<long long>(time.ticks()); };
    const std::string where = format("packet %llu, PID %d: ", place.packet, place.pid);
    if (times.pts < times.dts)
        findings.add("timestamps", where + format("PTS %lld lies before DTS %lld", ticks(times.rawPts),
                                                  ticks(times.rawDts)));
    ++m_taken;
    if (m_firstDts.is_absent()) {
        m_firstDts = times.dts;
        m_first = {times, place};
    }
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
        else if (frame > 0 && m_lastStep > 0 && static_cast<double>(step) > std::max(most, usual))
            findings.add("timestamps",
                         where + format("a gap of %.1f frames before DTS %lld",
                                        static_cast<double>(step) / frame, ticks(times.rawDts)));
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
    if (side == 0) {
        if (held)
            tellPts(*held, findings);
        widen(times.pts);
        return;
    }
    const std::int64_t before = held ? held->times.pts - held->times.dts : 0;
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
