// What a pass comes to: durations, rates, offsets.
#include "Analysis.h"
#include "ClockTurns.h"

#include <algorithm>
#include <cmath>

namespace kestrel::flowscope {

const Program* Analysis::asset() const noexcept {
    return m_video == nullptr ? nullptr : m_tables.find(m_assetNumber);
}

double Analysis::videoSeconds() const {
    if (m_video == nullptr || m_video->frames() == 0)
        return 0;
    const double rate = m_video->format().rate();
    if (rate <= 0)
        return m_times.shownSeconds();
    // A PES packet may hold several pictures, of which only the first has a time: the frames are counted too.
    // A frame with a repeated field lasts longer than the others.
    const double counted = static_cast<double>(m_video->fields()) / 2 / rate;
    if (m_times.lowestPts().is_absent())
        return counted;
    // Behind the last time come its picture and those that have none; which is shown last is not told of
    // several. Nor is it of those before the first time.
    const double untimed =
        static_cast<double>(m_video->fields() - m_positionAtTime.shown) / 2 + m_times.framesHeld();
    const double behind = std::max(1.0, untimed);
    const double before = static_cast<double>(m_fieldsBeforeTimes) / 2;
    // A bounded pass ends in the order of decoding: pictures are missing that are shown before its last ones.
    const bool cut = m_full && m_limit.asked();
    const double timed = cut ? m_times.decodingSeconds(m_times.lastDts()) : m_times.shownSeconds();
    const double shown = timed + (before + behind) / rate;
    constexpr double REORDERED = 3;
    const double tolerance = 1.5 + (behind >= 2 || before > 0 ? REORDERED : 0);
    // Where time went back, it may have gone over the same seconds twice.
    const bool agreed = std::abs(shown - counted) * rate < tolerance;
    return agreed || (m_times.wentBack() && shown < counted) ? counted : shown;
}

std::int64_t Analysis::videoFrames() const {
    const double rate = m_video == nullptr ? 0 : m_video->format().rate();
    if (rate > 0)
        return std::llround(videoSeconds() * rate);
    return m_video == nullptr ? 0 : static_cast<std::int64_t>(m_video->frames());
}

// The sound may have begun before any video time was there to tell the turn of the clock by.
PTS Analysis::firstSound(const Audio& audio) const {
    return unwrapped(audio.track.firstPts(), m_times.firstDts());
}

double Analysis::firstShown() const {
    const double rate = m_video->format().rate();
    const double before = rate <= 0 ? 0 : static_cast<double>(m_fieldsBeforeTimes) / 2 / rate;
    return kestrel::flowscope::seconds(m_times.lowestPts()) - before;
}

double Analysis::seconds() const {
    if (m_video == nullptr || m_times.lowestPts().is_absent())
        return videoSeconds();
    double begin = firstShown();
    double end = begin + videoSeconds();
    for (const Audio& each : m_audios) {
        if (each.track.firstPts().is_absent())
            continue;
        const double first = kestrel::flowscope::seconds(firstSound(each));
        begin = std::min(begin, first);
        end = std::max(end, first + each.seconds());
    }
    return end - begin;
}

double Analysis::videoBitsPerSecond() const {
    const double duration = videoSeconds();
    if (duration <= 0)
        return 0;
    const double bits = static_cast<double>(m_video->bytes()) * 8;
    // At either end of a file the buffer may hold any part of what it can (13818-2, C.3; H.264, C.1.1), so
    // that a short file measures up to so much more, or less, than the rate that it is sent at.
    const auto coded = m_video->codedRate();
    const double excess = coded ? bits - coded->bitsPerSecond * duration : 0;
    // Delimiters may be a multiplexer's, of which the encoder knew nothing.
    const double least = coded ? -coded->bufferBits - lostVideoBits(coded->bitsPerSecond) : 0;
    if (coded && excess >= least && excess <= coded->bufferBits + m_video->delimiterBits())
        return coded->bitsPerSecond;
    return bits / duration;
}

// The counters turn at 16, and may have been written anew behind the loss. Where the multiplex is of constant
// rate its clock tells of more, of any PID; elsewhere the frames that are missing do.
double Analysis::lostVideoBits(double bitsPerSecond) const {
    constexpr double PAYLOAD_BITS = 184 * 8;
    const double packets = std::max(static_cast<double>(m_lostVideoPackets), m_clock.lostPackets());
    const double rate = m_video->format().rate();
    const double counted = rate > 0 ? static_cast<double>(m_video->fields()) / 2 / rate : videoSeconds();
    return packets * PAYLOAD_BITS + std::max(0.0, videoSeconds() - counted) * bitsPerSecond;
}

double Analysis::neededShare() const {
    // The decoder's buffer lets single pictures come later than the mean, for fractions of a second: the lead
    // over the clock rises and falls with their sizes, and where it is short, some come late.
    constexpr std::int64_t SWING = PTS::units_per_second / 2;
    constexpr double TOLERANCE = 0.01;
    const std::int64_t lost = m_lead.sent - m_lead.decoded;
    if (!m_lead.late || m_lead.decoded <= 0 || lost <= SWING)
        return 1;
    const double share = static_cast<double>(m_lead.sent) / static_cast<double>(m_lead.decoded);
    return share > 1 + TOLERANCE ? share : 1;
}

double Analysis::muxBitsPerSecond() const {
    // The streams begin and end up to a second behind the packets that bear them: no number of seconds gives
    // a constant rate exactly, which a limit may be just as high as.
    const auto rate = m_clock.rate();
    if (rate && (m_nullPackets > 0 || rate->farthestUs <= ClockCheck::jitterLimitUs))
        return std::round(rate->packetsPerSecond * ts::packet_size * 8 * neededShare());
    const double duration = seconds();
    return duration <= 0 ? 0
                         : static_cast<double>(m_packets - m_packetsBefore) * ts::packet_size * 8 / duration;
}

bool Analysis::constantBitRate() const {
    if (m_video != nullptr && m_video->constantBitRate())
        return *m_video->constantBitRate();
    // A stream that does not say: its slowest second within a twentieth of its fastest. Not the multiplex's,
    // which null packets make constant whatever the video does.
    constexpr double TOLERANCE = 0.05;
    return m_videoRates.constant(TOLERANCE);
}

double Analysis::nullPercent() const {
    return m_packets == 0 ? 0 : 100 * static_cast<double>(m_nullPackets) / static_cast<double>(m_packets);
}

std::optional<double> Analysis::audioOffsetMs() const {
    if (m_audios.empty() || m_times.lowestPts().is_absent() || m_audios.front().track.firstPts().is_absent())
        return std::nullopt;
    return kestrel::flowscope::seconds(firstSound(m_audios.front()) - m_times.lowestPts()) * 1000;
}

std::optional<double> Analysis::pcrJitterUs() const {
    return m_nullPackets == 0 ? std::nullopt : m_clock.jitterUs();
}

} // namespace kestrel::flowscope
