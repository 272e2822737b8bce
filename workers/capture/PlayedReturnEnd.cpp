// When a recording of a source that is played ends, and whether all of the source came back.
#include "PlayedReturn.h"

#include "CountedNoun.h"
#include "mpeg/mpeg2.h"

#include <algorithm>

namespace kestrel::capture {
namespace {

Clock::duration timeOf(std::int64_t units) {
    return std::chrono::microseconds(units * 1'000'000 / PTS::units_per_second);
}

} // namespace

void PlayedReturn::measure(std::uint64_t frames, int rateCode) {
    const int measure = m_sourceRateCode != 0 ? m_sourceRateCode : rateCode;
    const std::int64_t period = MPEG::SH::decode_PCRs_per_frame(measure);
    m_wanted = static_cast<std::int64_t>(frames) * period;
    m_longer = m_sourceTime > m_wanted + period / 2;
    if (!m_uniform || m_longer)
        m_wanted = m_sourceTime;
    // Frames that cannot be shown are counted too: an encoder that passes on what it is sent returns them.
    if (m_by == By::labels)
        m_wanted += m_leadIn * MPEG::SH::decode_PCRs_per_frame(rateCode);
}

// Whether the current picture is shown behind the source's last.
bool PlayedReturn::shownBehind(const Frame& frame) const {
    const std::int64_t period = frame.clock.period();
    if (m_unstamped || !m_delay)
        return frame.clock.end() - m_leapt - period / 2 >= m_wanted;
    return elapsed(frame) + *m_delay + period / 2 >= shownEnd();
}

// Whether it is not of the kind that is recorded, which the source has throughout.
bool PlayedReturn::otherVideo(int recordedRate, const Frame& frame) const noexcept {
    const bool otherRate = recordedRate != 0 && frame.rateCode != 0 && frame.rateCode != recordedRate;
    return m_uniform && (otherRate || frame.video != m_video);
}

bool PlayedReturn::late(Clock::time_point now) const {
    return m_sourceEnded && now >= *m_sourceEnded + m_longestReturn;
}

bool PlayedReturn::endsBefore(const Frame& frame, int recordedRate, std::uint64_t frames) const {
    // Behind the last frame the encoder falls back to a format of its own.
    if (otherVideo(recordedRate, frame) && m_by != By::time && !tooFew(recordedRate) &&
        returned(frames) >= expected(recordedRate, frames) && (m_by == By::labels || playedFor(frame.now)))
        return true;
    // What may still be shown before the last frame is not kept out by a picture that is coded before it.
    const bool wanted = m_by == By::count && !told() && m_wanted > 0 && !shownBehind(frame);
    return (!wanted && lastCame(frame, frames)) ||
           ((m_by != By::count || told() || mayGoOver()) && late(frame.now));
}

bool PlayedReturn::lastCame(const Frame& frame, std::uint64_t frames) const {
    if (told())
        return m_range.complete();
    // Nothing that was recorded while the source still had frames to come was its last frame.
    if (m_by == By::count)
        return !mayGoOver() && lastDecoded(frame, frames) && playedFor(frame.now) && !mayHold(frame);
    return m_by == By::labels && labelledEndCame(frame) && !mayHold(frame);
}

// Whether a decoder may have shown a frame for some time where the source leaps, so that its last come as
// much later.
bool PlayedReturn::mayHold(const Frame& frame) const {
    return m_leapsCame < m_leaps.size() && !late(frame.now);
}

bool PlayedReturn::lastPassed(const Frame& frame) const {
    return told() && (m_range.highest() >= m_range.length() - 1 || labelledEndCame(frame));
}

// Of the frames recorded, those that are shown from the source's first to its last.
std::uint64_t PlayedReturn::inside(std::uint64_t frames) const {
    std::uint64_t no = m_others;
    if (!m_unstamped && m_wanted > 0)
        no += static_cast<std::uint64_t>(
            std::count_if(m_early.begin(), m_early.end(),
                          [this](std::int64_t shown) { return shown + m_period / 2 >= shownEnd(); }));
    return frames - std::min(frames, no);
}

// By their number: none was lost.
bool PlayedReturn::countComplete(std::uint64_t frames) const {
    const std::uint64_t there = inside(frames);
    if (m_rateVaried)
        return !m_uniform && there >= m_wantedFrames;
    return static_cast<std::int64_t>(there) * m_period + m_period / 2 >= m_wanted;
}

// Whether all frames of the source have come that can come: each is decoded no later than it is shown. Where
// it is not known when that is, some frames may be coded behind others that are shown behind them.
bool PlayedReturn::lastDecoded(const Frame& frame, std::uint64_t frames) const {
    const std::int64_t period = frame.clock.period();
    if (m_wanted == 0)
        return frames >= m_wantedFrames + mostReordered;
    bool time = false;
    if (m_unstamped || !m_delay)
        time = elapsed(frame) + period / 2 >= m_wanted + mostReordered * period;
    else
        time = countComplete(frames) || elapsed(frame) + period / 4 >= shownEnd() - period;
    return time && (m_uniform || !m_rateVaried || frames >= m_wantedFrames);
}

// Whether the number of the source's frames does not tell when all have come: they take longer.
bool PlayedReturn::longer() const noexcept {
    return m_uniform && m_longer && m_sourceRateCode != 0 && !told() && m_by != By::time;
}

// Whether fewer came than the source has itself, at the least.
bool PlayedReturn::tooFew(int recordedRate) const noexcept {
    return longer() && m_places.known() && recordedRate == m_sourceRateCode && m_places.count() < total();
}

// Of a source whose frames take longer than their number tells: those of its own that came, where nothing
// came between them. An encoder behind a decoder returns one for each period.
std::optional<std::uint64_t> PlayedReturn::cameAsItIs() const {
    if (!longer() || !m_places.known() || m_period != MPEG::SH::decode_PCRs_per_frame(m_sourceRateCode))
        return std::nullopt;
    std::optional<std::uint64_t> most;
    if (m_by == By::count) {
        most = m_places.own(m_places.earliest(), m_period, false);
        return m_hiddenFrames == 0 ? most : std::max(most, m_places.own(m_places.earliest(), m_period, true));
    }
    // Timecodes do not tell it to the frame where one of a GOP before theirs is shown for longer.
    for (const std::int64_t shown : m_places.around(m_sourceShown, 2 * m_period))
        most = std::max(most, m_places.own(shown, m_period, false));
    return most;
}

// Frames of a source that takes longer when one comes back for each period.
std::uint64_t PlayedReturn::onePerPeriod() const {
    const std::int64_t time = (m_by == By::count ? m_wanted : m_sourceTime) - hiddenTime();
    return static_cast<std::uint64_t>(std::max<std::int64_t>((time + m_period / 2 - 1) / m_period, 0));
}

// For how long those would be shown that cannot be when playing begins with the source's first frame.
std::int64_t PlayedReturn::hiddenTime() const {
    return m_places.sourceKnown() ? m_places.hiddenTime()
                                  : static_cast<std::int64_t>(m_hiddenFrames) *
                                        MPEG::SH::decode_PCRs_per_frame(m_sourceRateCode);
}

// Whether nothing tells one that comes back with its own gaps from one that has lost as many frames.
bool PlayedReturn::notKnown(int recordedRate, std::uint64_t frames) const {
    if (!longer() || recordedRate != m_sourceRateCode)
        return false;
    const bool few = m_period > 0 && byNumber(frames) < onePerPeriod();
    return few && (!m_places.known() || (!m_places.sourceKnown() && byNumber(frames) <= total()));
}

// Whether a decoder may have repeated some frames where the source leaps: those may stand for others that
// were lost.
bool PlayedReturn::mayRepeat(std::uint64_t frames) const {
    if (told() || m_by == By::time || m_leapsCame == m_leaps.size())
        return false;
    const std::int64_t came = (static_cast<std::int64_t>(frames) - m_before) * m_period;
    const std::int64_t wanted = m_wanted - (m_by == By::labels ? m_leadIn * m_period : 0) - hiddenTime();
    return came + m_period / 2 >= wanted;
}

bool PlayedReturn::playedFor(Clock::time_point now) const {
    return m_sourceEnded || (m_wanted > 0 && now >= begin() + timeOf(m_wanted));
}

// Labels that jump do not tell which is the last frame.
bool PlayedReturn::labelledEndCame(const Frame& frame) const {
    // Rather some frames too many than one too few.
    const std::int64_t margin = (m_leading + mostReordered) * frame.clock.period();
    return m_wanted > 0 && elapsed(frame) + frame.clock.period() / 2 >= m_wanted + margin;
}

// Frames of the source that can come back. A decoder that is played those before the first that can be shown
// leaves them out, an encoder that passes on what it is sent does not.
std::uint64_t PlayedReturn::total() const noexcept {
    return m_wantedFrames - std::min(m_wantedFrames, m_hiddenFrames);
}

std::uint64_t PlayedReturn::returned(std::uint64_t frames) const {
    if (told())
        return static_cast<std::uint64_t>(m_range.length() - absent());
    const auto own = cameAsItIs();
    return own ? *own : byNumber(frames);
}

// Of the source's frames, by labels; none when they are all there by either of two readings.
std::int64_t PlayedReturn::absent() const {
    return m_fromHidden && m_fromHidden->absent() == 0 ? 0 : m_range.absent();
}

std::uint64_t PlayedReturn::byNumber(std::uint64_t frames) const {
    if (m_by == By::count)
        return inside(frames);
    if (longer() && m_places.known()) {
        const std::int64_t begin = m_sourceShown - m_period / 2;
        return m_places.between(begin, begin + m_sourceTime - hiddenTime());
    }
    const std::uint64_t no = static_cast<std::uint64_t>(m_before) + m_others;
    return frames - std::min(frames, no);
}

bool PlayedReturn::othersMayBe(std::uint64_t frames) const {
    return told() && !m_eachLabelled && byNumber(frames) > returned(frames);
}

std::uint64_t PlayedReturn::expected(int recordedRate, std::uint64_t frames) const {
    if (longer() && recordedRate == m_sourceRateCode && m_period > 0 && !cameAsItIs())
        return notKnown(recordedRate, frames) ? total() : onePerPeriod();
    // One that has other rates in its middle comes back with them, or as long at a single one.
    const bool asItIs = m_uniform ? recordedRate == m_sourceRateCode : m_rateVaried || m_sourceTime == 0;
    if (recordedRate == 0 || m_sourceRateCode == 0 || asItIs)
        return total();
    const auto period = [](int code) {
        return std::max<std::uint64_t>(static_cast<std::uint64_t>(MPEG::SH::decode_PCRs_per_frame(code)), 1);
    };
    // The last may be shown for less than its time.
    const std::int64_t shownTime = m_sourceTime - (longer() ? std::min(hiddenTime(), m_sourceTime) : 0);
    const std::uint64_t time =
        m_uniform && !longer() ? total() * period(m_sourceRateCode) : static_cast<std::uint64_t>(shownTime);
    return std::max<std::uint64_t>(time / period(recordedRate), 2) - 1;
}

std::string PlayedReturn::describeUnknown(int recordedRate, std::uint64_t frames, bool ended) const {
    std::string text;
    if (m_by == By::time)
        text +=
            format(", not known whether it is complete: the stream ran before the play-out and %s: up to %d "
                   "s of other pictures at either end",
                   m_jumps ? "the source's timecodes jump near its begin"
                           : "no timecodes of the source were recognised in it",
                   static_cast<int>(m_longestReturn.count() / 1000));
    if (ended && notKnown(recordedRate, frames) && byNumber(frames) >= total())
        text +=
            ", not known whether it is complete: some of the source's frames are shown for longer, and not "
            "all have timestamps";
    if (ended && mayRepeat(frames) && returned(frames) >= expected(recordedRate, frames))
        text += ", not known whether all came back: a decoder may have shown frames for longer where the "
                "source's timestamps leap";
    return text;
}

std::string PlayedReturn::describe(int recordedRate, bool ended) const {
    std::string text;
    if (unlikeSource(recordedRate))
        text += format(", at frame rate code %d, the source has %d", recordedRate, m_sourceRateCode);
    if (m_by == By::labels || (told() && ended && absent() > 0)) {
        text += ", by the source's timecodes from " + m_range.text(m_offset) + " to " +
                m_range.text(m_offset + std::min(m_range.highest(), m_range.length() - 1));
        if (m_by == By::labels && told() && m_credited > 0)
            text += ", those before " + m_range.text(m_credited) + " by the clock";
        if (m_leadIn > 0)
            text += ", " + counted(static_cast<std::uint64_t>(m_leadIn), "frame") + " before";
        if (ended && told() && m_range.missing() > 0)
            text += ", the last frame is missing";
    }
    return text;
}

} // namespace kestrel::capture
