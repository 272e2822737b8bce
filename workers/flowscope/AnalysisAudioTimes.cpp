// What the times of the sound's PES packets tell.
#include "Analysis.h"
#include "ClockTurns.h"
#include "Leaps.h"
#include "capture/Failure.h"

#include <algorithm>
#include <cmath>
#include <optional>
#include <utility>

namespace kestrel::flowscope {
namespace {

using capture::format;
using Audio = Analysis::Audio;

std::int64_t unitsOf(double seconds) {
    return std::llround(seconds * static_cast<double>(PTS::units_per_second));
}

// For so many seconds of frames in so many PES packets. Of a coding that is not looked into no frames are
// counted.
std::int64_t expected(const Audio& audio, double counted, std::int64_t packets) {
    return std::max(unitsOf(counted), audio.usualStep * packets);
}

PTS heldPts(const Audio& audio, std::size_t index) {
    return unwrapped(audio.held[index].pts, audio.track.lastPts());
}

// From the time that is held in that place to the next.
Leap leapOf(const Audio& audio, std::size_t index, const Audio::Time& next) {
    const PTS last = audio.track.lastPts();
    const PTS time = heldPts(audio, index);
    const auto packetsOn = static_cast<std::int64_t>(audio.held.size() - index);
    const std::int64_t packets = audio.dropped + static_cast<std::int64_t>(audio.held.size()) + 1;
    return {time - last,
            expected(audio, audio.held[index].place.seconds - audio.secondsAtLast, packets - packetsOn),
            unwrapped(next.pts, last) - last,
            expected(audio, next.place.seconds - audio.secondsAtLast, packets),
            unwrapped(next.pts, time) - time,
            expected(audio, next.place.seconds - audio.held[index].place.seconds, packetsOn)};
}

Audio::Time takeHeld(Audio& audio) {
    Audio::Time held = audio.held.front();
    held.pts = heldPts(audio, 0);
    audio.held.erase(audio.held.begin());
    return held;
}

// From time to time: step by the times, nothing where a new time base begins; counted by the frames. A time
// that departs from the frames is followed by one that departs as far the other way where it was wrong; where
// no frames are counted, the next step makes up for one that goes back by less than a leap.
void addElapsed(Audio& audio, std::optional<double> step, double counted) {
    constexpr double AGREES = 0.02;
    const double departs = step && counted > 0 ? *step - counted : 0;
    const bool returns = std::abs(departs) > AGREES && std::abs(departs + audio.departed) <= AGREES;
    constexpr double LEAP = static_cast<double>(longLeap) / PTS::units_per_second;
    const bool goesBack = step && *step < 0 && (counted > 0 || *step < -LEAP);
    double added = step && !goesBack ? *step : counted;
    if (returns)
        added = counted - audio.addedTooMuch;
    audio.elapsed += added;
    audio.departed = departs;
    audio.addedTooMuch = added - counted;
}

} // namespace

void Analysis::takeAudioTimes(Audio& audio) {
    if (audio.reader.pts().is_absent())
        return;
    const PTS raw = audio.reader.pts();
    const auto next = [&] {
        const PTS last = audio.track.lastPts();
        return Audio::Time{unwrapped(raw, last.is_absent() ? m_times.latestDts() : last), m_packets - 1,
                           audio.track.place()};
    };
    settleAudioTimes(audio, next());
    const Audio::Time time = next();
    const PTS last = audio.track.lastPts();
    const std::int64_t packets = audio.dropped + static_cast<std::int64_t>(audio.held.size()) + 1;
    if (!last.is_absent() && !audio.newTimeBase &&
        leaps(time.pts - last, expected(audio, time.place.seconds - audio.secondsAtLast, packets))) {
        audio.held.push_back(time);
    } else {
        while (!audio.held.empty())
            dropHeld(audio, "before and behind it");
        keepAudioTime(audio, time);
    }
    if (m_limit.asked()) {
        m_limit.sound(audio.elapsed);
        m_full = m_full || m_limit.passed();
    }
}

void Analysis::settleAudioTimes(Audio& audio, const Audio::Time& next) {
    while (!audio.held.empty()) {
        const Leap first = leapOf(audio, 0, next);
        const auto second =
            audio.held.size() < mostHeld ? std::nullopt : std::optional(leapOf(audio, 1, next));
        const Verdict verdict = judged(first, second ? &*second : nullptr, audio.newTimeBase);
        if (verdict == Verdict::unclear)
            return;
        if (verdict == Verdict::damaged) {
            dropHeld(audio, "before and behind it");
            continue;
        }
        const Audio::Time held = takeHeld(audio);
        // A time base that was announced since begins behind it.
        const bool announced = std::exchange(audio.newTimeBase, false);
        if (audio.times == 1 && first.fromWrongFirst()) {
            tellWrongFirst(audio, held);
            const double counted = held.place.seconds - audio.secondsAtLast;
            const std::int64_t step = second ? second->step - first.step : first.on;
            audio.track.correctFirst(PTS(held.pts - (counted > 0 ? unitsOf(counted) : step)));
        } else if (audio.beganBase && first.fromWrongFirst()) {
            tellWrongFirst(audio, held);
            audio.newTimeBase = true; // it begins here
        }
        keepAudioTime(audio, held);
        audio.newTimeBase = announced;
    }
}

// Of three times the second and the third agree: the first one is wrong.
void Analysis::tellWrongFirst(const Audio& audio, const Audio::Time& second) {
    const PTS last = audio.track.lastPts();
    const auto ticks = [](PTS time) { return static_cast<long long>(time.ticks()); };
    m_findings.add("audio timestamps",
                   second.pts > last
                       ? format("packet %llu, PID %d: PTS %lld lies %.1f s before the times behind it",
                                audio.firstTimePacket, audio.pid, ticks(last),
                                kestrel::flowscope::seconds(second.pts - last))
                       : format("packet %llu, PID %d: PTS %lld does not follow %lld", second.packet,
                                audio.pid, ticks(second.pts), ticks(last)));
}

void Analysis::dropHeld(Audio& audio, const char* around) {
    const Audio::Time held = takeHeld(audio);
    ++audio.dropped;
    const PTS last = audio.track.lastPts();
    const std::string where = format("packet %llu, PID %d: PTS %lld ", held.packet, audio.pid,
                                     static_cast<long long>(held.pts.ticks()));
    m_findings.add("audio timestamps",
                   where + (held.pts < last
                                ? format("does not follow %lld", static_cast<long long>(last.ticks()))
                                : format("lies %.1f s ahead of the times %s",
                                         kestrel::flowscope::seconds(held.pts - last), around)));
}

void Analysis::endAudioTimes(Audio& audio) {
    if (audio.held.empty())
        return;
    // Of times of which nothing tells how far they are apart none is wrong.
    const std::int64_t step = heldPts(audio, 0) - audio.track.lastPts();
    const bool slow = audio.usualStep >= longLeap && audio.held.size() == mostHeld;
    const bool inOrder = (audio.times == 1 || slow) && step > 0 &&
                         (audio.held.size() < mostHeld
                              ? expected(audio, audio.held[0].place.seconds - audio.secondsAtLast, 1) == 0
                              : follows(heldPts(audio, 1) - heldPts(audio, 0)));
    while (inOrder && !audio.held.empty())
        keepAudioTime(audio, takeHeld(audio));
    while (!audio.held.empty())
        dropHeld(audio, "before it");
}

void Analysis::keepAudioTime(Audio& audio, const Audio::Time& time) {
    AudioTrack& track = audio.track;
    const PTS last = track.lastPts();
    const PTS pts = time.pts;
    const std::optional<double> departure = track.stamp(pts, time.place);
    // Frames go on from base to base.
    const double counted = time.place.seconds - std::exchange(audio.secondsAtLast, time.place.seconds);
    const bool newTimeBase = std::exchange(audio.newTimeBase, false);
    const std::int64_t packets = std::exchange(audio.dropped, 0) + 1;
    audio.beganBase = newTimeBase;
    if (audio.times++ == 0 || newTimeBase)
        audio.firstTimePacket = time.packet;
    if (last.is_absent())
        return;
    addElapsed(audio, newTimeBase ? std::nullopt : std::optional(kestrel::flowscope::seconds(pts - last)),
               counted);
    if (newTimeBase)
        return;
    const std::int64_t step = std::clamp<std::int64_t>((pts - last) / packets, 0, longestFrame);
    audio.usualStep = audio.lastStep > 0 ? std::min(step, audio.lastStep) : step;
    audio.lastStep = step;
    const AudioFormat& sound = track.format();
    const double tolerance = sound.samplingRate == 0 ? 0 : 0.5 * sound.samples / sound.samplingRate;
    if (pts <= last)
        m_findings.add("audio timestamps",
                       format("packet %llu, PID %d: PTS %lld does not follow %lld", time.packet, audio.pid,
                              static_cast<long long>(pts.ticks()), static_cast<long long>(last.ticks())));
    else if (departure && std::abs(*departure) > tolerance)
        m_findings.add("audio timestamps",
                       format("packet %llu, PID %d: PTS %lld is %.1f ms %s than the frames before it last",
                              time.packet, audio.pid, static_cast<long long>(pts.ticks()),
                              std::abs(*departure) * 1000, *departure > 0 ? "later" : "earlier"));
}

} // namespace kestrel::flowscope
