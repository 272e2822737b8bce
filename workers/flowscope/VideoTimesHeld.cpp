// What times that leap are worth.
#include "ClockTurns.h"
#include "Leaps.h"
#include "VideoTimes.h"
#include "capture/Failure.h"

#include <string>
#include <utility>

namespace kestrel::flowscope {

using capture::format;

namespace {

// Pictures are sent as far ahead of their decoding as those before them, more or less.
constexpr std::int64_t CLOCK_AGREES = PTS::units_per_second / 2;

} // namespace

Leap VideoTimes::leapOf(std::size_t index, PTS rawDts, const Place& next) const {
    double framesTo = m_framesHeld;
    double framesOn = next.frames;
    for (std::size_t i = 0; i < m_held.size(); ++i)
        (i <= index ? framesTo : framesOn) += m_held[i].place.frames;
    const PTS raw = shifted(rawDts, m_shift);
    const PTS time = unwrapped(shifted(m_held[index].times.rawDts, m_shift), m_lastDts);
    return {time - m_lastDts,
            expected(next, framesTo),
            unwrapped(raw, m_lastDts) - m_lastDts,
            expected(next, framesTo + framesOn),
            unwrapped(raw, time) - time,
            expected(next, framesOn)};
}

VideoTimes::Held VideoTimes::takeHeld() {
    const Held held = m_held.front();
    m_held.erase(m_held.begin());
    return held;
}

void VideoTimes::dropHeld(const char* around, Findings& findings) {
    const Held held = takeHeld();
    tellDamaged(held, around, findings);
    m_framesHeld += held.place.frames;
}

std::optional<std::size_t> VideoTimes::settle(PTS rawDts, const Place& place, std::optional<int> seconds,
                                              Findings& findings) {
    for (std::size_t index = 0; !m_held.empty(); ++index) {
        const Leap first = leapOf(0, rawDts, place);
        const auto second = m_held.size() < mostHeld ? std::nullopt : std::optional(leapOf(1, rawDts, place));
        const bool borneOut =
            !m_newTimeBase && clockAgrees(m_lastPlace, m_held.front().place).value_or(false);
        const Verdict verdict =
            borneOut ? Verdict::real : judged(first, second ? &*second : nullptr, m_newTimeBase);
        if (verdict == Verdict::unclear)
            break;
        if (verdict == Verdict::damaged) {
            dropHeld("before and behind it", findings);
            continue;
        }
        const Held held = takeHeld();
        // A time base that was announced since begins behind it.
        const bool announced = std::exchange(m_newTimeBase, false);
        const PTS time(m_lastDts + first.step);
        const bool wrongFirst =
            first.fromWrongFirst() && !clockAgrees(m_first.place, held.place).value_or(false);
        if (m_taken == 1 && wrongFirst) {
            tellWrongFirst(time, held, findings);
            beginBefore(time, held);
        } else if (m_beganBase && wrongFirst) {
            tellWrongFirst(time, held, findings);
            m_newTimeBase = true; // it begins here
        }
        const bool within = keepHeld(held, seconds, findings);
        m_newTimeBase = announced;
        if (!within)
            return index;
    }
    return std::nullopt;
}

// Of three times the second and the third agree: the first one is wrong.
void VideoTimes::tellWrongFirst(PTS dts, const Held& second, Findings& findings) const {
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
}

void VideoTimes::beginBefore(PTS dts, const Held& second) {
    const Times first = m_first.times;
    m_firstDts = m_lastDts = PTS(dts - expected(second.place, m_framesHeld + second.place.frames));
    m_lowestPts = m_highestPts = PTS();
    m_heldPts.clear();
    m_showing = {};
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

void VideoTimes::tellPts(const Held& held, Findings& findings) {
    m_showing.remove(held.place.packet);
    // Where it lies before its DTS, that has been told.
    if (held.times.pts > held.times.dts)
        findings.add("timestamps",
                     format("packet %llu, PID %d: PTS %lld lies %.1f s behind DTS %lld", held.place.packet,
                            held.place.pid, static_cast<long long>(held.times.rawPts.ticks()),
                            seconds(held.times.pts - held.times.dts),
                            static_cast<long long>(held.times.rawDts.ticks())));
}

void VideoTimes::tellRate(Findings& findings) const {
    if (const auto rates = m_byRate.contradiction())
        findings.add(
            "timestamps",
            format("packet %llu, PID %d: up to its last time %.5g frames are decoded a second, where "
                   "the headers name %.5g",
                   m_lastPlace.packet, m_lastPlace.pid, rates->measured, rates->ofHeaders));
}

std::optional<bool> VideoTimes::clockAgrees(const Place& from, const Place& to) noexcept {
    if (!from.ahead || !to.ahead)
        return std::nullopt;
    return std::abs(*to.ahead - *from.ahead) <= CLOCK_AGREES;
}

// Where no rate tells how far the last times are apart, or pictures are shown for seconds, none of them is
// wrong; nor are two that follow each other where no clock speaks against it.
bool VideoTimes::endsInOrder() const {
    if (m_held.empty())
        return false;
    const auto timeOf = [this](const Held& held) {
        return unwrapped(shifted(held.times.rawDts, m_shift), m_lastDts);
    };
    const Held& held = m_held.front();
    const std::int64_t usual = expected(held.place, 1);
    const std::int64_t step = timeOf(held) - m_lastDts;
    if (m_held.size() < mostHeld)
        return m_taken == 1 && usual == 0 && step >= 0;
    const bool two = step >= 0 && follows(timeOf(m_held.back()) - timeOf(held));
    const bool slow = m_taken == 1 || usual >= longLeap;
    return two && (slow || (follows(step) && !clockAgrees(m_lastPlace, held.place)));
}

bool VideoTimes::keepHeld(const Held& held, std::optional<int> seconds, Findings& findings) {
    const double frames = m_framesHeld + held.place.frames;
    const Times times = follow(held.times.rawPts, held.times.rawDts, held.place, frames, true);
    if (seconds && decodingSeconds(times.dts) >= *seconds) {
        m_framesHeld = frames;
        m_held.clear();
        return false;
    }
    keep(times, held.place, findings);
    return true;
}

std::optional<std::size_t> VideoTimes::end(std::optional<int> seconds, Findings& findings) {
    // Of the last time nothing behind it tells what it is worth, but the clock does.
    const bool inOrder = endsInOrder();
    std::optional<std::size_t> end;
    for (std::size_t index = 0; !m_held.empty(); ++index) {
        const bool real = inOrder || clockAgrees(m_lastPlace, m_held.front().place).value_or(false);
        if (!real)
            dropHeld("before it", findings);
        else if (!keepHeld(takeHeld(), seconds, findings))
            end = index;
    }
    for (const HeldPts& held : m_heldPts)
        if (m_lowestPts.is_absent())
            widen(held.times.pts);
        else
            tellPts(held, findings);
    m_heldPts.clear();
    m_showing.end(findings);
    tellRate(findings);
    return end;
}

} // namespace kestrel::flowscope
