// The recording of what comes back of a source that is played: where in it the source's frames are.
#include "Recording.h"

#include "foundation/ErrorCodes.h"
#include "foundation/Logger.h"
#include "mpeg/mpeg2.h"

#include <algorithm>
#include <cinttypes>
#include <cstdlib>

namespace kestrel::capture {
namespace {

constexpr const char* module = "Capture";

// Frames by which what is coded may lag behind what is shown.
constexpr std::int64_t mostReordered = 4;

// Pictures of H.264 that can be kept back until they are shown (ITU-T H.264, A.3.1: MaxDpbFrames).
constexpr std::int64_t mostDelayed = 16;

Clock::duration timeOf(std::int64_t units) {
    return std::chrono::microseconds(units * 1'000'000 / PTS::units_per_second);
}

} // namespace

// Whether all frames of a source are recorded, rather than those between two marks.
bool Recording::playsBack() const noexcept {
    return m_plan.played && m_plan.mode == CaptureMode::timed;
}

Clock::time_point Recording::sourceBegin() const {
    return m_source ? m_source->at : Clock::time_point::max();
}

void Recording::sourceBegins(const LabelReference& begin) {
    if (m_state != RecordingState::waiting)
        return;
    m_source = begin;
    if (m_probe)
        m_probe->sourceBegins(begin);
    tellFirstPlayed();
}

// An encoder that waits for its decoder returns the first frame as its first; of one that goes on all the
// time only when it was played is known.
void Recording::tellFirstPlayed() {
    if (m_plan.mode != CaptureMode::marks || !m_source)
        return;
    m_source->first = !m_ranBefore;
    m_labels.refer(*m_source);
}

void Recording::noteBefore() {
    m_ranBefore = true;
    LogUtil::Info(module, "%s: pictures come before the source is played", m_plan.name.c_str());
    tellFirstPlayed();
}

void Recording::settlePlayed(const VideoUnit& unit) {
    const bool point = unit.known && unit.randomAccess && m_analyzer.programKnown();
    const bool begun = m_now >= sourceBegin();
    if (point && begun && !m_ranBefore) {
        m_clock.begin();
        m_begin = unit;
        return startRecording();
    }
    if (point && !begun) {
        m_held.erase(m_held.begin(), m_held.begin() + static_cast<std::ptrdiff_t>(m_unitAt));
        m_unitAt = 0;
        m_points.clear();
    }
    if (point)
        holdPoint(unit);
    if (!m_groupHeld)
        return m_held.clear();
    if (firstPlayedCame(unit))
        return beginByLabels();
    if (begun && (m_plan.labelledFrames == 0 || m_now >= sourceBegin() + m_timing.longestReturn))
        beginByTime();
}

void Recording::holdPoint(const VideoUnit& unit) {
    m_points.push_back({m_unitAt, unit, m_clock.place(), m_now, m_labels.shown()});
    m_groupHeld = true;
}

// Whether the stream's timecodes have become the source's.
bool Recording::firstPlayedCame(const VideoUnit& unit) {
    const LabelRule& rule = m_labels.rule();
    if (m_plan.labelledFrames == 0 || !m_label || !unit.gopTimecode || m_clock.period() == 0 ||
        rule.rateCode != m_plan.sourceRateCode || m_range.settle(rule))
        return false;
    const std::int64_t position = m_range.position(*m_label);
    if (m_now >= sourceBegin() && position >= m_range.length()) {
        m_sourceLabels.refuse();
        return false;
    }
    return m_sourceLabels.confirms({position, m_labels.shown(), m_clock.period(), m_now - sourceBegin()});
}

// Whether the label of the current frame may tell where the marks are. Of what is played timecodes count only
// where they can be the source's, of which those of a decoder that stops for a while come later and later.
bool Recording::labelCounts() const {
    if (!m_plan.played || m_labels.origin() != LabelOrigin::stream)
        return true;
    const LabelRule& rule = m_labels.rule();
    const auto begin = m_source ? rule.number(m_source->text) : std::nullopt;
    return begin && m_sourceLabels.possible({rule.distance(*begin, *m_label), m_labels.shown(),
                                             m_clock.period(), m_now - m_source->at});
}

// Looks at a packet before it is taken, and takes those that need not be held back any more.
void Recording::probe(const Packet& packet) {
    passHeld(m_probe->take(packet, m_now, m_sourceLabels));
    if (m_state == RecordingState::waiting)
        endProbe(m_probe->verdict(m_now, m_sourceLabels));
}

// Each as at the time when it came.
void Recording::passHeld(std::size_t packets) {
    const Clock::time_point now = m_now;
    for (std::size_t i = 0; i < packets && m_state != RecordingState::ended; ++i) {
        m_now = m_probe->held()[i].came;
        takePacket(m_probe->held()[i].packet);
    }
    m_now = now;
    m_probe->drop(packets);
}

void Recording::endProbe(ReturnProbe::Verdict verdict) {
    if (verdict == ReturnProbe::Verdict::open)
        return;
    if (verdict == ReturnProbe::Verdict::otherRate)
        return fail(failure(error::sourceFrameRateMismatch, m_probe->frameRateCode(), m_plan.sourceRateCode));
    if (verdict == ReturnProbe::Verdict::others) {
        if (m_plan.useStreamLabels && !m_probeCut)
            LogUtil::Warning(module,
                             "%s: no timecodes of the source are recognised in the stream: frames are "
                             "counted from the begin of the play-out",
                             m_plan.name.c_str());
        countFromBegin();
    }
    passHeld(m_probe->held().size());
    m_probe.reset();
}

void Recording::countFromBegin() {
    m_labels = FrameLabels(false, m_plan.marksCountPairs, m_plan.labelTolerance);
    m_label.reset();
    m_groupLabel.reset();
    tellFirstPlayed();
}

// Whether what comes now has another frame rate than the source.
bool Recording::unlikeSource() const noexcept {
    const int rate = m_analyzer.frameRateCode();
    return m_plan.played && m_plan.sourceRateCode != 0 && rate != 0 && rate != m_plan.sourceRateCode;
}

// With the random access point from which the source's first frame can be shown.
void Recording::beginByLabels() {
    const std::int64_t period = m_clock.period();
    const std::int64_t line = m_sourceLabels.line().value_or(m_points.front().shown);
    const HeldPoint* begin = &m_points.front();
    for (const HeldPoint& point : m_points)
        if (point.shown <= line + period / 2)
            begin = &point;
    m_playedBy = PlayedBy::labels;
    const std::int64_t ahead = (line - begin->shown + (line < begin->shown ? -period : period) / 2) / period;
    m_leadIn = std::max<std::int64_t>(ahead, 0);
    const VideoUnit& unit = begin->unit;
    if (unit.gopTimecode && unit.temporalReference >= 0) {
        m_leading = unit.temporalReference;
        m_before = std::max<std::int64_t>(m_leading + ahead, 0);
    } else {
        m_leading = std::clamp<std::int64_t>((begin->shown - begin->place.start) / period, 0, mostDelayed);
        m_before = m_leadIn; // how many of those there are is not known
    }
    const std::int64_t first = m_range.out() - m_range.length() + 1;
    m_range.begin(first - m_leadIn, 0);
    m_range.note(first - m_leadIn, *m_label);
    beginWith(*begin);
}

// Some of what comes back lies before the source's first frame, and some will behind its last.
void Recording::beginByTime() {
    if (m_points.empty() || m_now < sourceBegin()) {
        m_groupHeld = false;
        m_held.clear();
        m_points.clear();
        return;
    }
    m_playedBy = PlayedBy::time;
    LogUtil::Warning(module,
                     "%s: pictures came before the source was played, and no timecodes of the source are "
                     "recognised: recording from when the play-out began",
                     m_plan.name.c_str());
    m_beganLate = std::max(m_points.front().came - sourceBegin(), Clock::duration::zero());
    beginWith(HeldPoint(m_points.front()));
}

void Recording::beginWith(const HeldPoint& point) {
    m_held.erase(m_held.begin(), m_held.begin() + static_cast<std::ptrdiff_t>(point.at));
    m_unitAt -= std::min(m_unitAt, point.at);
    m_clock.begin(point.place);
    m_begin = point.unit;
    startRecording();
}

// Whether a label is one of the source's, or of the frames around them that were taken.
bool Recording::isPlayed(std::int64_t label) const {
    const std::int64_t position = m_range.position(label);
    return position >= -m_leadIn && position < m_range.length() + mostReordered;
}

// Whether the recording ends before the frame that begins here.
bool Recording::endsPlayedBefore() {
    // Behind the last frame the encoder falls back to a rate of its own.
    if (rateChanges() && m_playedBy != PlayedBy::time && playedFrames() >= expectedFrames() &&
        (m_playedBy == PlayedBy::labels || playedFor(m_wanted)))
        return true;
    const bool late = m_sourceEnded && m_now >= *m_sourceEnded + m_timing.longestReturn;
    if (m_playedBy == PlayedBy::count)
        return playedDurationReached();
    return late || (m_playedBy == PlayedBy::labels && labelledEndCame());
}

// Nothing that was recorded while the source still had frames to come was its last frame.
bool Recording::playedDurationReached() const {
    return durationReached() && playedFor(m_wanted);
}

bool Recording::playedFor(std::int64_t units) const {
    return m_sourceEnded || (units > 0 && m_now >= sourceBegin() + timeOf(units));
}

bool Recording::labelledEndCame() const {
    const bool through = m_plan.labelledFrames == playedTotal();
    if (through && m_range.complete())
        return true;
    if (through && m_label && m_labels.origin() == LabelOrigin::stream && !unlikeSource()) {
        const std::int64_t position = m_range.position(*m_label);
        if (position >= 0 && position < m_range.length())
            return false;
    }
    // Rather some frames too many than one too few.
    const std::int64_t margin = (m_leading + mostReordered) * m_clock.period();
    return m_wanted > 0 && m_clock.elapsed() + m_clock.period() / 2 >= m_wanted + margin;
}

// Frames of the source that can come back. A decoder that is played those before the first that can be shown
// leaves them out, an encoder that passes on what it is sent does not.
std::uint64_t Recording::playedTotal() const {
    return m_plan.wantedFrames - std::min(m_plan.wantedFrames, m_plan.hiddenFrames);
}

std::uint64_t Recording::playedFrames() const {
    const std::uint64_t no = static_cast<std::uint64_t>(m_before) + m_others;
    return m_file.frames() - std::min(m_file.frames(), no);
}

// The same at the rate at which they come.
std::uint64_t Recording::expectedFrames() const {
    const std::uint64_t total = playedTotal();
    const int rate = recordedRate();
    if (rate == 0 || m_plan.sourceRateCode == 0 || rate == m_plan.sourceRateCode)
        return total;
    const auto period = [](int code) {
        return std::max<std::uint64_t>(static_cast<std::uint64_t>(MPEG::SH::decode_PCRs_per_frame(code)), 1);
    };
    // The last may be shown for less than its time.
    return std::max<std::uint64_t>(total * period(m_plan.sourceRateCode) / period(rate), 2) - 1;
}

std::string Recording::describePlayed() const {
    if (!m_plan.played)
        return "";
    if (m_probeCut)
        return ", ended before it was known whether its timecodes are the source's";
    if (m_plan.mode == CaptureMode::marks)
        return m_labels.origin() == LabelOrigin::deck ? ", counted from when the play-out began" : "";
    std::string text;
    const int rate = recordedRate();
    if (rate != 0 && m_plan.sourceRateCode != 0 && rate != m_plan.sourceRateCode)
        text += format(", at frame rate code %d, the source has %d", rate, m_plan.sourceRateCode);
    if (m_playedBy == PlayedBy::time)
        text += format(", the stream ran before the play-out and no timecodes of the source were recognised "
                       "in it: up to %d s of other pictures at either end",
                       static_cast<int>(m_timing.longestReturn.count() / 1000));
    if (m_playedBy == PlayedBy::labels) {
        const LabelRule& rule = m_rule;
        text += ", by the source's timecodes from " + m_plan.markIn + " to " +
                rule.text(m_range.out() - m_range.length() + 1 + m_range.highest());
        if (m_leadIn > 0)
            text += format(", %" PRId64 " frame%s before", m_leadIn, m_leadIn == 1 ? "" : "s");
        if (m_complete && m_plan.labelledFrames == playedTotal() && m_range.missing() > 0)
            text += ", the last frame is missing";
    }
    return text;
}

} // namespace kestrel::capture
