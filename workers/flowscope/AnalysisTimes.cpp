// What the times of the PES packets tell: order, gaps, durations.
#include "Analysis.h"
#include "ClockTurns.h"
#include "Leaps.h"
#include "capture/Failure.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace kestrel::flowscope {
namespace {

using capture::format;

std::int64_t unitsOf(double seconds) {
    return std::llround(seconds * static_cast<double>(PTS::units_per_second));
}

} // namespace

void Analysis::takeVideoTimes() {
    const PTS rawPts = m_videoReader.pts();
    const PTS rawDts = m_videoReader.dts();
    if (rawPts.is_absent())
        return;
    // By either way of counting; where a frame is repeated they differ by a field.
    const VideoTrack::Position position = m_video->position();
    const std::uint64_t fields =
        std::max(position.shown - m_positionAtTime.shown, position.decoded - m_positionAtTime.decoded);
    constexpr std::uint64_t FRAME = 2; // where no picture was found since
    const VideoTimes::Place place{m_packets - 1, m_videoPid, m_video->format().rate(),
                                  static_cast<double>(fields == 0 ? FRAME : fields) / 2};
    const bool settled = m_times.settle(rawDts, place, m_limit.asked(), m_findings);
    const VideoTimes::Times times = m_times.continued(rawPts, rawDts, place);
    if (!settled && m_videoAtLeap != nullptr)
        *m_video = *m_videoAtLeap; // the picture that leapt is one too many, too
    m_videoAtLeap = m_limit.asked() && times.leaps ? std::make_unique<VideoTrack>(*m_video) : nullptr;
    if (m_limit.asked() && (!settled || m_times.decodingSeconds(times.dts) >= *m_limit.asked())) {
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
    m_times.take(times, place, m_findings);
    if (first)
        noteDelay();
    m_rates.add(m_times.decodingSeconds(times.dts), (m_packets - m_ratedPackets) * ts::packet_size);
    m_ratedPackets = m_packets;
}

void Analysis::takeAudioTimes(Audio& audio) {
    if (audio.reader.pts().is_absent())
        return;
    const PTS raw = audio.reader.pts();
    const auto next = [&] {
        const PTS last = audio.track.lastPts();
        return Audio::Time{unwrapped(raw, last.is_absent() ? m_times.latestDts() : last), m_packets - 1,
                           audio.track.place()};
    };
    if (audio.held)
        settleAudioTime(audio, next());
    const Audio::Time time = next();
    const PTS last = audio.track.lastPts();
    const double counted = time.place.seconds - audio.secondsAtLast;
    if (!last.is_absent() && !audio.newTimeBase &&
        leaps(time.pts - last, std::max(unitsOf(counted), audio.lastStep)))
        audio.held = time;
    else
        keepAudioTime(audio, time);
    if (m_limit.asked()) {
        m_limit.sound(audio.elapsed);
        m_full = m_full || m_limit.passed();
    }
}

void Analysis::settleAudioTime(Audio& audio, const Audio::Time& next) {
    const Audio::Time held = *audio.held;
    AudioTrack& track = audio.track;
    const PTS last = track.lastPts();
    const auto wanted = [&audio](double counted) { return std::max(unitsOf(counted), audio.lastStep); };
    const double counted = held.place.seconds - audio.secondsAtLast;
    const Leap leap{held.pts - last, next.pts - last, wanted(next.place.seconds - audio.secondsAtLast),
                    unwrapped(next.pts, held.pts) - held.pts,
                    wanted(next.place.seconds - held.place.seconds)};
    if (!leap.confirmed()) {
        tellDamaged(audio, "before and behind it");
        audio.held.reset();
        return;
    }
    audio.held.reset();
    if (audio.times == 1 && leap.fromWrongFirst()) {
        // Of three times the second and the third agree: the first one is wrong.
        m_findings.add("audio timestamps",
                       leap.step > 0
                           ? format("packet %llu, PID %d: PTS %lld lies %.1f s before the times behind it",
                                    audio.firstTimePacket, audio.pid, static_cast<long long>(last.ticks()),
                                    kestrel::flowscope::seconds(leap.step))
                           : format("packet %llu, PID %d: PTS %lld does not follow %lld", held.packet,
                                    audio.pid, static_cast<long long>(held.pts.ticks()),
                                    static_cast<long long>(last.ticks())));
        // Of a coding that is not looked into no frames are counted.
        track.correctFirst(PTS(held.pts - (counted > 0 ? unitsOf(counted) : leap.on)));
    }
    // A time base that was announced since begins behind it.
    const bool newTimeBase = std::exchange(audio.newTimeBase, false);
    keepAudioTime(audio, held);
    audio.newTimeBase = newTimeBase;
}

void Analysis::tellDamaged(const Audio& audio, const char* around) {
    const PTS last = audio.track.lastPts();
    const PTS pts = audio.held->pts;
    const std::string where = format("packet %llu, PID %d: PTS %lld ", audio.held->packet, audio.pid,
                                     static_cast<long long>(pts.ticks()));
    m_findings.add("audio timestamps",
                   where + (pts < last ? format("does not follow %lld", static_cast<long long>(last.ticks()))
                                       : format("lies %.1f s ahead of the times %s",
                                                kestrel::flowscope::seconds(pts - last), around)));
}

void Analysis::keepAudioTime(Audio& audio, const Audio::Time& time) {
    AudioTrack& track = audio.track;
    const PTS last = track.lastPts();
    const PTS pts = time.pts;
    const std::optional<double> departure = track.stamp(pts, time.place);
    // Frames go on from base to base.
    const double counted = time.place.seconds - std::exchange(audio.secondsAtLast, time.place.seconds);
    const bool newTimeBase = std::exchange(audio.newTimeBase, false);
    if (audio.times++ == 0)
        audio.firstTimePacket = time.packet;
    if (last.is_absent())
        return;
    audio.elapsed += newTimeBase || pts < last ? counted : kestrel::flowscope::seconds(pts - last);
    if (newTimeBase)
        return;
    audio.lastStep = std::clamp<std::int64_t>(pts - last, 0, longLeap);
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
