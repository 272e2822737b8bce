#include "PlayedReturn.h"

#include "ClockTurn.h"
#include "mpeg/mpeg2.h"

#include <algorithm>
#include <cstdlib>
#include <numeric>
#include <utility>

namespace kestrel::capture {
namespace {

// Random access points that are remembered while the source's labels may still come.
constexpr std::size_t mostGroups = 64;

// Some frames of a film are shown for three fields, and where frames were lost the one before stands.
bool takesLonger(const RecordingPlan& plan) {
    const std::int64_t period = MPEG::SH::decode_PCRs_per_frame(plan.sourceRateCode);
    return plan.sourceRateCode != 0 &&
           plan.sourceTime > static_cast<std::int64_t>(plan.wantedFrames) * period + period / 2;
}

// The timecodes of a whole source are looked for as far as they count its frames.
std::int64_t unplayed(const RecordingPlan& plan) {
    if (plan.mode != CaptureMode::marks)
        return 0;
    return std::accumulate(plan.sourceLeaps.begin(), plan.sourceLeaps.end(), std::int64_t{0},
                           [](std::int64_t sum, const SourceLeap& leap) { return sum + leap.excess; });
}

} // namespace

PlayedReturn::PlayedReturn(const RecordingPlan& plan, const Timing& timing)
    : m_played(plan.played), m_whole(plan.played && plan.mode == CaptureMode::timed),
      m_sourceRateCode(plan.sourceRateCode), m_uniform(plan.sourceUniform), m_sourceTime(plan.sourceTime),
      m_wantedFrames(plan.wantedFrames), m_labelledFrames(plan.labelledFrames),
      m_hiddenFrames(plan.hiddenFrames), m_firstLabel(plan.markIn), m_longestReturn(timing.longestReturn),
      m_sourceLabels(timing.longestReturn, unplayed(plan)),
      m_range(plan.markIn, plan.markOut, plan.marksCountPairs), m_longer(m_whole && takesLonger(plan)),
      m_places(plan.sourceShown, plan.hiddenFrames), m_leaps(plan.sourceLeaps) {}

Clock::time_point PlayedReturn::begin() const {
    return m_source ? m_source->at : Clock::time_point::max();
}

std::optional<LabelReference> PlayedReturn::reference() const {
    std::optional<LabelReference> told = m_source;
    if (told)
        told->first = !m_ranBefore;
    return told;
}

void PlayedReturn::came(Clock::time_point now) {
    m_sentBefore = m_sentBefore || (m_played && now < begin());
}

bool PlayedReturn::ranBefore(Clock::time_point now) {
    if (!m_played || m_ranBefore || now >= begin())
        return false;
    m_ranBefore = true;
    return true;
}

bool PlayedReturn::unlikeSource(int rateCode) const noexcept {
    return m_played && m_uniform && m_sourceRateCode != 0 && rateCode != 0 && rateCode != m_sourceRateCode;
}

// Whether labels of the source are those of a drop-frame count.
bool PlayedReturn::dropsFrames() const {
    return tellsDropFrame(m_whole || !m_source ? m_firstLabel : m_source->text);
}

// Frames from the source's first to the current label; none where that is no timecode or is counted otherwise
// than the source's.
std::optional<std::int64_t> PlayedReturn::position(const Frame& frame) {
    const LabelRule& rule = frame.labels.rule();
    if (!frame.label || frame.labels.origin() != LabelOrigin::stream || rule.rateCode != m_sourceRateCode ||
        rule.drop != dropsFrames())
        return std::nullopt;
    if (!m_whole) {
        const auto begin = m_source ? rule.number(m_source->text) : std::nullopt;
        return begin ? std::optional(rule.distance(*begin, *frame.label)) : std::nullopt;
    }
    if (m_labelledFrames == 0 || m_range.settle(rule))
        return std::nullopt;
    return m_range.position(*frame.label);
}

void PlayedReturn::picture(const VideoUnit& unit, const Frame& frame) {
    m_delay = displayDelay(unit);
    noteLeap(unit, frame);
    if (!m_recording)
        notePlace(frame);
    if (!unit.randomAccess)
        m_eachLabelled = unit.gopTimecode.has_value();
    // A few may begin GOPs that are no random access points.
    if (!unit.randomAccess && m_own.own())
        m_labelledMore += unit.gopTimecode ? 1 : -1;
    if (unit.randomAccess && m_whole && m_by == By::count && !m_agreed) {
        if (m_groups.size() >= mostGroups)
            m_groups.erase(m_groups.begin());
        m_groups.push_back({0, unit, frame.clock.place(), frame.now, frame.labels.shown()});
    }
    const auto at = position(frame);
    const std::int64_t period = frame.clock.period();
    if (unit.gopTimecode) {
        m_candidate = false;
        m_countedFrom = frame.labels.groupLabel();
    }
    if (period == 0)
        return m_own.breakOff();
    if (!at)
        return m_own.refuse();
    const ReturnedLabel label{*at, frame.labels.shown(), period, frame.now - begin(),
                              !unit.gopTimecode && goesBack(frame)};
    // Those of an encoder may be some frames behind.
    ReturnedLabel due = label;
    if (due.frame < 0 && due.frame >= -mostReordered) {
        due.shown -= due.frame * period;
        due.frame = 0;
    }
    const bool possible = m_sourceLabels.possible(due);
    if (unit.gopTimecode)
        noteTimecode(label, std::max(unit.temporalReference, 0), possible);
    if (unit.gopTimecode && m_whole && *at >= 0 && *at < m_range.length())
        notePairs(unit, frame);
    m_own.begin(label, unit.gopTimecode.has_value(), unit.randomAccess, possible);
}

// When the current frame is shown.
void PlayedReturn::notePlace(const Frame& frame) {
    if (!m_longer || !m_uniform)
        return;
    if (m_delay && frame.clock.unitFrames() <= 1)
        m_places.came(frame.clock.place().start - m_leapt + *m_delay);
    else
        m_places.came(std::nullopt);
}

// The same step as in the source is one that took no time when it was played.
void PlayedReturn::noteLeap(const VideoUnit& unit, const Frame& frame) {
    const std::int64_t begun = frame.clock.place().start;
    const std::int64_t taken = begun - std::exchange(m_begunAt, begun);
    const auto stamped = stampedStep(unit.dts, std::exchange(m_begunDts, unit.dts));
    if (!m_whole || m_leapsCame == m_leaps.size() || frame.now < begin())
        return;
    const SourceLeap& leap = m_leaps[m_leapsCame];
    // Of a long step the stream's clock takes the time of the frames only.
    const std::int64_t step = leap.step < StreamClock::largestStep ? taken : stamped.value_or(taken);
    if (4 * std::llabs(step - leap.step) > frame.clock.period())
        return;
    m_leapt += leap.excess - (step - taken);
    ++m_leapsCame;
}

// Its label by the timecode before is the source's, by when it is shown.
bool PlayedReturn::goesBack(const Frame& frame) {
    Frame other = frame;
    other.label = frame.labels.earlier();
    const auto at = position(other);
    const std::int64_t period = frame.clock.period();
    return at && m_own.line() &&
           2 * std::llabs(frame.labels.shown() - *at * period - *m_own.line()) <= period;
}

// One that stands still is no candidate.
void PlayedReturn::noteTimecode(const ReturnedLabel& label, int leading, bool possible) {
    const std::int64_t line = label.shown - label.frame * label.period;
    m_candidate = m_recording && possible && label.frame - leading < m_range.length() &&
                  m_timecode != label.frame && line - m_firstSeen > label.period / 2;
    m_timecode = label.frame;
}

// At the double rates, what the timecode says when it counts each frame, and what when it counts pairs.
void PlayedReturn::notePairs(const VideoUnit& unit, const Frame& frame) {
    const LabelRule& rule = frame.labels.rule();
    const std::int64_t period = frame.clock.period();
    if (!rule.doubled())
        return;
    const bool ofGop = unit.temporalReference > 0;
    const std::int64_t label = *frame.label - (ofGop ? unit.temporalReference : 0);
    const std::int64_t shown = frame.labels.shown() - (ofGop ? unit.temporalReference * period : 0);
    const auto pair = rule.number(rule.text(label), true);
    if (!pair) { // a pair has no such label
        ++m_single;
        return;
    }
    const LabelPair now{label, *pair, shown};
    const LabelPair from = std::exchange(m_pair, m_pair.value_or(now)).value_or(now);
    if (from.label == label)
        return;
    const auto off = [&](std::int64_t begin, std::int64_t end) {
        return std::llabs(framesOf(shown - from.shown, period) - rule.distance(begin, end));
    };
    const bool single = off(from.label, label) == 0;
    const bool paired = off(from.pair, *pair) <= 1;
    m_single += single && !paired ? 1 : 0;
    m_paired += paired && !single ? 1 : 0;
    if (!single && !paired)
        m_pair = now;
}

std::vector<OwnLabels::Range> PlayedReturn::note(std::int64_t first, std::int64_t last) {
    m_own.add(first, last);
    if (m_countedFrom && m_own.counts())
        m_countedOn = std::max(m_countedOn, last - *m_countedFrom);
    if (m_whole && !m_recording)
        return {};
    auto ranges = m_own.take();
    if (m_whole)
        takeOwn(ranges);
    return ranges;
}

void PlayedReturn::takeOwn(const std::vector<OwnLabels::Range>& ranges) {
    if (ranges.empty() || m_by == By::time)
        return;
    if (m_by == By::count && !m_agreed)
        agree(ranges);
    for (const auto& [first, last] : ranges) {
        m_range.note(first - m_offset, last - m_offset);
        if (m_fromHidden)
            m_fromHidden->note(first - m_hiddenBy, last - m_hiddenBy);
    }
}

void PlayedReturn::trustLabels() {
    if (const auto line = m_sourceLabels.line())
        m_own.trust(*line, 1);
}

bool PlayedReturn::owns(const Frame& frame) const {
    return frame.label && (frame.labels.origin() != LabelOrigin::stream || m_own.own());
}

bool PlayedReturn::mayBeSources(const Frame& frame) const {
    const LabelRule& rule = frame.labels.rule();
    const auto begin = m_source ? rule.number(m_source->text) : std::nullopt;
    return begin && rule.drop == dropsFrames() &&
           m_sourceLabels.possible({rule.distance(*begin, *frame.label), frame.labels.shown(),
                                    frame.clock.period(), frame.now - m_source->at});
}

void PlayedReturn::recordingBegins(const Frame& frame) {
    m_recording = true;
    if (m_by == By::count)
        m_places.drop(m_places.count() - std::min<std::size_t>(m_places.count(), 1));
    m_firstTaken = position(frame) ? frame.label : std::nullopt;
    m_beginShown = frame.labels.shown();
    if (!m_groups.empty())
        m_groups.erase(m_groups.begin(), m_groups.end() - 1);
    m_video = frame.video;
    noteShown(frame);
}

// A picture is recorded.
void PlayedReturn::noteShown(const Frame& frame) {
    m_period = frame.clock.period();
    if (m_seen < 2 * mostDelayed)
        m_firstSeen = m_seen++ == 0 ? frame.labels.shown() : std::min(m_firstSeen, frame.labels.shown());
    // The stamps of a PES packet are those of its first picture.
    m_unstamped = m_unstamped || !m_delay || frame.clock.unitFrames() > 1;
    if (m_unstamped)
        return;
    const std::int64_t shown = elapsed(frame) + *m_delay;
    if (m_early.size() < 2 * mostDelayed) {
        m_firstShown = m_early.empty() ? shown : std::min(m_firstShown, shown);
        m_early.push_back(shown);
    }
}

bool PlayedReturn::recorded(unsigned frames, int recordedRate, const Frame& frame) {
    if (!m_whole)
        return !m_played || owns(frame);
    m_rateVaried = m_rateVaried || (recordedRate != 0 && frame.rateCode != recordedRate);
    // By time other pictures come first, of whatever codec.
    const bool otherCodec = m_uniform && m_by != By::time && frame.video != m_video;
    const bool others = otherCodec || (recordedRate == m_sourceRateCode && unlikeSource(frame.rateCode));
    const std::int64_t period = frame.clock.period();
    bool beyond =
        m_by == By::labels && m_wanted > 0 && elapsed(frame) + period / 2 >= m_wanted + m_leading * period;
    if (m_by == By::count && !others) {
        const std::size_t early = m_early.size();
        noteShown(frame);
        beyond = m_wanted > 0 && m_early.size() == early && shownBehind(frame);
    }
    if (!others)
        notePlace(frame);
    if (others || beyond)
        m_others += frames;
    return !others;
}

// Whether the source's labels count its frames one by one up to its last.
bool PlayedReturn::through() const noexcept {
    return m_labelledFrames != 0 && m_labelledFrames == total();
}

// Whether labels tell which frames are the source's.
bool PlayedReturn::told() const noexcept {
    return through() && !inPairs() && (m_by == By::labels || m_agreed);
}

} // namespace kestrel::capture
