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
    m_points.push_back({m_unitAt, unit, m_clock.place(), m_labels.shown()});
    m_groupHeld = true;
}

// Whether the stream's timecodes have become the source's. Those of an encoder that counts by itself go on as
// before, those of one that has none stand still, and no frame comes back before it is played.
bool Recording::firstPlayedCame(const VideoUnit& unit) {
    const LabelRule& rule = m_labels.rule();
    if (m_plan.labelledFrames == 0 || !m_label || !unit.gopTimecode || m_clock.period() == 0 ||
        rule.rateCode != m_plan.sourceRateCode || m_range.settle(rule))
        return false;
    const std::int64_t position = m_range.position(*m_label);
    const std::int64_t line = m_labels.shown() - position * m_clock.period();
    const auto near = [&](const std::optional<std::int64_t>& other, std::int64_t frames) {
        return other && std::llabs(*other - line) <= frames * m_clock.period() / 2;
    };
    if (m_now < sourceBegin()) {
        m_lineBefore = line;
        return false;
    }
    const double most =
        (std::chrono::duration<double>(m_now - sourceBegin()).count() + lostSeconds) * rule.framesPerSecond();
    if (position < 0 || position >= m_range.length() || static_cast<double>(position) > most ||
        near(m_lineBefore, 2)) {
        m_line.reset();
        return false;
    }
    const bool confirmed = near(m_line, 1);
    m_line = line;
    return confirmed;
}

// With the random access point from which the source's first frame can be shown.
void Recording::beginByLabels() {
    const std::int64_t period = m_clock.period();
    const HeldPoint* begin = &m_points.front();
    for (const HeldPoint& point : m_points)
        if (point.shown <= *m_line + period / 2)
            begin = &point;
    m_playedBy = PlayedBy::labels;
    m_leadIn = std::max<std::int64_t>((*m_line - begin->shown + period / 2) / period, 0);
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
                     "%s: pictures came before the source was played, and no timecodes of the source come: "
                     "recording from when the play-out began",
                     m_plan.name.c_str());
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
    const bool late = m_sourceEnded && m_now >= *m_sourceEnded + m_timing.longestReturn;
    if (m_playedBy == PlayedBy::count)
        return playedDurationReached();
    return late || (m_playedBy == PlayedBy::labels && labelledEndCame());
}

// Nothing that was recorded while the source still had frames to come was its last frame.
bool Recording::playedDurationReached() const {
    return durationReached() &&
           (m_sourceEnded || (m_wanted > 0 && m_now >= sourceBegin() + timeOf(m_wanted)));
}

bool Recording::labelledEndCame() const {
    const bool through = m_plan.labelledFrames == playedTotal();
    if (through && m_range.complete())
        return true;
    if (through && m_label && m_labels.origin() == LabelOrigin::stream) {
        const std::int64_t position = m_range.position(*m_label);
        if (position >= 0 && position < m_range.length())
            return false;
    }
    const std::int64_t margin = through ? mostReordered * m_clock.period() : 0;
    return m_wanted > 0 && m_clock.elapsed() + m_clock.period() / 2 >= m_wanted + margin;
}

// Frames of the source that can come back.
std::uint64_t Recording::playedTotal() const {
    const bool hidden = m_playedBy == PlayedBy::labels;
    return m_plan.wantedFrames - (hidden ? m_plan.hiddenFrames : 0);
}

std::uint64_t Recording::playedFrames() const {
    const auto before = m_playedBy == PlayedBy::labels ? static_cast<std::uint64_t>(m_leadIn) : 0;
    return m_file.frames() - std::min(m_file.frames(), before);
}

// The same at the rate at which they come.
std::uint64_t Recording::expectedFrames() const {
    const std::uint64_t total = playedTotal();
    const int rate = m_analyzer.frameRateCode();
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
    if (m_plan.mode == CaptureMode::marks)
        return m_labels.origin() == LabelOrigin::deck ? ", counted from when the play-out began" : "";
    std::string text;
    const int rate = m_analyzer.frameRateCode();
    if (rate != 0 && m_plan.sourceRateCode != 0 && rate != m_plan.sourceRateCode)
        text += format(", at frame rate code %d, the source has %d", rate, m_plan.sourceRateCode);
    if (m_playedBy == PlayedBy::time)
        text += format(", the stream ran before the play-out and shows no timecode of the source: up to %d s "
                       "of other pictures at either end",
                       static_cast<int>(m_timing.longestReturn.count() / 1000));
    if (m_playedBy == PlayedBy::labels) {
        const LabelRule& rule = m_labels.rule();
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
