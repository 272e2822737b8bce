// The recording of what comes back of a source that is played: where in it the source's frames are.
#include "Recording.h"

#include "foundation/ErrorCodes.h"
#include "foundation/Logger.h"
#include "mpeg/mpeg2.h"

#include <algorithm>

namespace kestrel::capture {
namespace {

constexpr const char* module = "Capture";

} // namespace

void Recording::sourceBegins(const LabelReference& begin) {
    if (m_state != RecordingState::waiting)
        return;
    m_played.sourceBegins(begin);
    if (m_probe)
        m_probe->sourceBegins(begin);
    tellFirstPlayed();
}

void Recording::tellFirstPlayed() {
    if (const auto told = m_played.reference(); told && m_plan.mode == CaptureMode::marks)
        m_labels.refer(*told);
}

void Recording::noteBefore() {
    LogUtil::Info(module, "%s: pictures come before the source is played", m_plan.name.c_str());
    if (!m_labelsOfSource)
        tellFirstPlayed();
}

PlayedReturn::Frame Recording::frame() const {
    return {m_now, m_analyzer.frameRateCode(), m_clock, m_labels, m_label, m_video};
}

// Labels of the source do not count on into other video.
void Recording::followVideo() {
    const int video =
        m_analyzer.videoPid() < 0 ? 0 : static_cast<int>(m_analyzer.codec()) << 13 | m_analyzer.videoPid();
    const bool other = video != m_video && m_video != 0;
    m_video = video;
    if (!other || !m_plan.played)
        return;
    m_labels.breakOff();
    m_played.breakOff();
    m_label.reset();
}

// Whether the frames of a mezzanine are found by the stream's own timecodes.
bool Recording::byStreamLabels() const noexcept {
    return m_plan.played && m_labels.origin() == LabelOrigin::stream;
}

// Whether the marks of a mezzanine were found by a count that an encoder, or the source's own timecodes, need
// not go on with: over a leap.
bool Recording::countedOverLeap() const noexcept {
    const LabelOrigin origin = m_labels.origin();
    return m_plan.played && (origin == LabelOrigin::counted || origin == LabelOrigin::deck) &&
           !m_plan.sourceLeaps.empty();
}

// Labels by which a leap moves what goes on by its time.
std::int64_t Recording::labelsOf(const SourceLeap& leap) const {
    const std::int64_t period = std::max(MPEG::SH::decode_PCRs_per_frame(m_plan.sourceRateCode), 1);
    return (leap.excess + period / 2) / period;
}

// Those that leaps may have left out between the marks: such as are not before mark-in, and have room.
std::int64_t Recording::leapLabels() const {
    std::int64_t labels = 0;
    for (std::size_t i = m_plan.leapsBefore; i < m_plan.sourceLeaps.size(); ++i)
        if (const std::int64_t more = labelsOf(m_plan.sourceLeaps[i]); more <= m_range.length() - 2)
            labels += more;
    return labels;
}

// A count that goes on over a leap between the marks knows not which frames have the labels behind it where
// these go on by the time that was left out: it ends before mark-out then. Where no label lacks a frame the
// source's count its frames as it does, or all are behind the leap, which has moved them alike.
bool Recording::countLeavesOut() const {
    return m_plan.mode == CaptureMode::marks && countedOverLeap() && leapLabels() > 0 &&
           (!m_plan.labelsKnown || !m_plan.labelsLacking.empty());
}

// Whether what comes now has another frame rate than the source.
bool Recording::unlikeSource() const noexcept {
    return m_played.unlikeSource(m_analyzer.frameRateCode());
}

void Recording::settlePlayed(const VideoUnit& unit) {
    const bool point = unit.known && unit.randomAccess && m_analyzer.programKnown();
    const bool begun = m_now >= m_played.begin();
    if (point && begun && !m_played.ranBefore()) {
        m_clock.begin();
        m_begin = unit;
        return startRecording();
    }
    if (point && !begun) {
        m_held.erase(m_held.begin(), m_held.begin() + static_cast<std::ptrdiff_t>(m_unitAt));
        m_unitAt = 0;
        m_played.dropPoints();
    }
    if (point)
        holdPoint(unit);
    if (!m_groupHeld)
        return m_held.clear();
    if (m_played.firstCame(unit, frame()))
        return beginWith(m_played.beginByLabels(frame()));
    if (begun && (m_plan.labelledFrames == 0 || m_now >= m_played.begin() + m_timing.longestReturn))
        beginByTime();
}

void Recording::holdPoint(const VideoUnit& unit) {
    m_played.hold({m_unitAt, unit, m_clock.place(), m_now, m_labels.shown()});
    m_groupHeld = true;
}

// Whether the label of the current frame may tell where the marks are.
bool Recording::labelCounts() const {
    return m_label &&
           (!m_plan.played || m_labels.origin() != LabelOrigin::stream || m_played.mayBeSources(frame()));
}

// Looks at a packet before it is taken, and takes those that need not be held back any more.
void Recording::probe(const Packet& packet) {
    passHeld(m_probe->take(packet, m_now, m_played.sourceLabels()));
    if (m_state == RecordingState::waiting)
        endProbe(m_probe->verdict(m_now, m_played.sourceLabels()));
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
    if (verdict == ReturnProbe::Verdict::theSources) {
        // What is told counts no more than what the encoder labelled before.
        m_labels = FrameLabels(true, m_plan.marksCountPairs, m_plan.labelTolerance);
        m_label.reset();
        m_groupLabel.reset();
        m_labelsOfSource = true;
        m_played.trustLabels();
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

// Some of what comes back lies before the source's first frame, and some will behind its last.
void Recording::beginByTime() {
    if (!m_played.holdsPoint() || m_now < m_played.begin()) {
        m_groupHeld = false;
        m_held.clear();
        m_played.dropPoints();
        return;
    }
    LogUtil::Warning(module,
                     "%s: pictures came before the source was played, and no timecodes of the source are "
                     "recognised: recording from when the play-out began",
                     m_plan.name.c_str());
    beginWith(m_played.beginByTime());
}

void Recording::beginWith(const PlayedReturn::Point& point) {
    m_held.erase(m_held.begin(), m_held.begin() + static_cast<std::ptrdiff_t>(point.at));
    m_unitAt -= std::min(m_unitAt, point.at);
    m_clock.begin(point.place);
    m_begin = point.unit;
    startRecording();
}

// Before all that is merely described: whoever keeps only the beginning of the text keeps that.
std::string Recording::describeUnknown() const {
    if (!m_plan.played)
        return "";
    if (m_probeCut)
        return ", ended before it was known whether its timecodes are the source's";
    if (m_plan.mode != CaptureMode::marks)
        return m_played.describeUnknown(recordedRate(), m_file.frames(), m_complete);
    std::string text;
    if (m_unknown)
        text += ", not known whether all came back: the source may have no frame for some timecodes";
    if (countedOverLeap())
        text += ", the marks may be off: the source's timestamps leap before mark-out";
    return text;
}

std::string Recording::describePlayed() const {
    if (!m_plan.played || m_probeCut)
        return "";
    if (m_plan.mode == CaptureMode::marks)
        return m_labels.origin() == LabelOrigin::deck ? ", counted from when the play-out began" : "";
    return m_played.describe(recordedRate(), m_complete);
}

} // namespace kestrel::capture
