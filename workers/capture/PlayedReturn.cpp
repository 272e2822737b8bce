#include "PlayedReturn.h"

#include "CountedNoun.h"
#include "mpeg/mpeg2.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

namespace kestrel::capture {
namespace {

// Frames by which what is coded may lag behind what is shown.
constexpr std::int64_t mostReordered = 4;

// Pictures of H.264 that can be kept back until they are shown (ITU-T H.264, A.3.1: MaxDpbFrames).
constexpr std::int64_t mostDelayed = 16;

// Random access points that are remembered while the source's labels may still come.
constexpr std::size_t mostGroups = 64;

// No picture is kept back longer until it is shown (ISO/IEC 13818-1, 2.7.10; 2.14.3.1): else a timestamp is
// wrong.
constexpr std::int64_t longestDelay = 10 * std::int64_t{PTS::units_per_second};

std::optional<std::int64_t> delayOf(const VideoUnit& unit) {
    constexpr std::int64_t wrap = std::int64_t{4} << 33; // the 33-bit clock in PTS units
    if (unit.pts.is_absent() || unit.dts.is_absent())
        return std::nullopt;
    const std::int64_t delay = ((unit.pts - unit.dts) % wrap + wrap) % wrap;
    return delay <= longestDelay ? std::optional(delay) : std::nullopt;
}

// To the nearest.
std::int64_t framesOf(std::int64_t time, std::int64_t period) {
    return (time + (time < 0 ? -period : period) / 2) / period;
}

Clock::duration timeOf(std::int64_t units) {
    return std::chrono::microseconds(units * 1'000'000 / PTS::units_per_second);
}

} // namespace

PlayedReturn::PlayedReturn(const RecordingPlan& plan, const Timing& timing)
    : m_played(plan.played), m_whole(plan.played && plan.mode == CaptureMode::timed),
      m_sourceRateCode(plan.sourceRateCode), m_uniform(plan.sourceUniform), m_sourceTime(plan.sourceTime),
      m_wantedFrames(plan.wantedFrames), m_labelledFrames(plan.labelledFrames),
      m_hiddenFrames(plan.hiddenFrames), m_firstLabel(plan.markIn), m_longestReturn(timing.longestReturn),
      m_sourceLabels(timing.longestReturn), m_range(plan.markIn, plan.markOut, plan.marksCountPairs) {}

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
    m_delay = delayOf(unit);
    if (!unit.randomAccess) {
        m_eachLabelled = unit.gopTimecode.has_value();
    } else if (m_whole && m_by == By::count && !m_agreed) {
        if (m_groups.size() >= mostGroups)
            m_groups.erase(m_groups.begin());
        m_groups.push_back({0, unit, frame.clock.place(), frame.now, frame.labels.shown()});
    }
    const auto at = position(frame);
    const std::int64_t period = frame.clock.period();
    if (unit.gopTimecode)
        m_candidate = false;
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

// By count: whether the next timecode may tell that others came before the source.
bool PlayedReturn::mayGoOver() const noexcept {
    return m_by == By::count && !m_agreed && m_candidate && through() && !inPairs();
}

std::vector<OwnLabels::Range> PlayedReturn::note(std::int64_t first, std::int64_t last) {
    m_own.add(first, last);
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

// The first labels of the source have come from an encoder that was silent. Where they are those of its first
// frame, too, they may be ahead or behind; else they tell where the source's first frame was.
void PlayedReturn::agree(const std::vector<OwnLabels::Range>& ranges) {
    if (inPairs())
        return;
    m_agreed = true;
    // Labels that do not count the source's frames one by one tell nothing of where it begins.
    if (!through())
        return;
    std::int64_t lowest = placeOf(ranges.front());
    for (const OwnLabels::Range& range : ranges)
        lowest = std::min(lowest, placeOf(range));
    const std::int64_t line = m_own.line().value_or(m_beginShown);
    const auto isFirst = [this](const OwnLabels::Range& range) {
        return range.first <= *m_firstTaken && *m_firstTaken <= range.second;
    };
    const std::int64_t began = m_beginShown - (m_firstTaken ? m_range.position(*m_firstTaken) : 0) * m_period;
    const bool fromFirst = m_firstTaken && 2 * std::llabs(began - line) <= m_period &&
                           std::any_of(ranges.begin(), ranges.end(), isFirst);
    if (!fromFirst)
        return goOver(line, lowest);
    // Frames that cannot be shown may have come too, or the encoder counts by itself from the label of the
    // first of these.
    const bool hidden = lowest <= 0 && lowest >= -static_cast<std::int64_t>(m_hiddenFrames);
    m_offset = hidden ? 0 : lowest;
    m_range.begin(m_range.out() - m_range.length() + 1, 0);
    if (!hidden || lowest == 0)
        return;
    m_fromHidden = m_range;
    m_hiddenBy = lowest;
}

// What came first was of others, or its label was not the source's yet.
void PlayedReturn::goOver(std::int64_t line, std::int64_t lowest) {
    const std::int64_t period = std::max<std::int64_t>(m_period, 1);
    const std::int64_t ahead = framesOf(line - m_firstSeen, period);
    m_by = By::labels;
    m_leadIn = m_before = std::max<std::int64_t>(ahead, 0);
    m_offset = std::max<std::int64_t>(-ahead, 0);
    m_leading = m_unstamped ? mostReordered : std::clamp<std::int64_t>(m_firstShown / period, 0, mostDelayed);
    m_wanted += m_wanted > 0 ? m_leadIn * period : 0;
    m_others = 0; // they were told by where the count ends
    const std::int64_t first = m_range.out() - m_range.length() + 1;
    m_range.begin(first - m_leadIn, 0);
    m_range.note(first - m_leadIn, first - 1);
    if (m_groups.empty())
        return;
    const auto behind = std::find_if(m_groups.begin(), m_groups.end(),
                                     [&](const Point& point) { return point.shown > line + period / 2; });
    const bool fromBegin = m_groups.front().shown == m_beginShown;
    // An encoder whose first frame is the source's may have begun before it knew a timecode.
    if (ahead <= 0 && fromBegin)
        credit(m_groups, m_groups.front(), m_firstSeen, line, period, lowest);
    else if (behind != m_groups.begin() || fromBegin)
        creditOpenGroup(m_groups, behind == m_groups.begin() ? *behind : *(behind - 1), line, period, lowest);
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

bool PlayedReturn::firstCame(const VideoUnit& unit, const Frame& frame) {
    const LabelRule& rule = frame.labels.rule();
    if (m_labelledFrames == 0 || !frame.label || !unit.gopTimecode || frame.clock.period() == 0 ||
        rule.rateCode != m_sourceRateCode || rule.drop != dropsFrames() || m_range.settle(rule))
        return false;
    if (inPairs()) // where the first frame is they do not tell to the frame
        return false;
    const std::int64_t position = m_range.position(*frame.label);
    if (frame.now >= begin() && position >= m_range.length()) {
        m_sourceLabels.refuse();
        return false;
    }
    return m_sourceLabels.confirms(
        {position, frame.labels.shown(), frame.clock.period(), frame.now - begin()});
}

PlayedReturn::Point PlayedReturn::beginByLabels(const Frame& frame) {
    const std::int64_t period = frame.clock.period();
    const std::int64_t line = m_sourceLabels.line().value_or(m_points.front().shown);
    const Point* begin = &m_points.front();
    for (const Point& point : m_points)
        if (point.shown <= line + period / 2)
            begin = &point;
    m_by = By::labels;
    const std::int64_t ahead = framesOf(line - begin->shown, period);
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
    // The GOP in which the first frame is may still have another timecode.
    m_own.trust(line, period);
    const auto ranges = m_own.take();
    std::int64_t lowest = m_range.position(*frame.label);
    for (const OwnLabels::Range& range : ranges)
        lowest = std::min(lowest, placeOf(range));
    m_range.note(first - m_leadIn, first - 1);
    creditOpenGroup(m_points, *begin, line, period, lowest);
    takeOwn(ranges);
    return *begin;
}

std::int64_t PlayedReturn::placeOf(const OwnLabels::Range& range) const {
    return m_range.position(range.first);
}

// The GOP that was open when the source came has one label, from before. The frames of the source in it
// cannot be known; those of the GOPs behind it would have had labels of their own.
void PlayedReturn::creditOpenGroup(const std::vector<Point>& points, const Point& begin, std::int64_t line,
                                   std::int64_t period, std::int64_t lowest) {
    // One that begins with the source or behind it, and has another label, tells that it has none of them.
    const std::int64_t groupBegin = begin.shown - std::max(begin.unit.temporalReference, 0) * period;
    if (m_eachLabelled || (begin.unit.gopTimecode && groupBegin + period / 2 > line))
        return;
    credit(points, begin, groupBegin, line, period, lowest);
}

void PlayedReturn::credit(const std::vector<Point>& points, const Point& begin, std::int64_t groupBegin,
                          std::int64_t line, std::int64_t period, std::int64_t lowest) {
    for (const Point& point : points) {
        if (!point.unit.gopTimecode || point.shown <= std::max(line, begin.shown) + period / 2)
            continue;
        // A group that begins before the source, with B pictures, has its label from before, too.
        const std::int64_t place =
            framesOf(point.shown - line, period) - std::max(point.unit.temporalReference, 0);
        if (place >= 0)
            lowest = std::min(lowest, place);
    }
    m_credited = std::max<std::int64_t>(lowest, 0);
    const std::int64_t first = m_range.out() - m_range.length() + 1;
    const std::int64_t notThere = std::max<std::int64_t>((groupBegin - line + period / 2) / period, 0);
    if (notThere < m_credited)
        m_range.note(first + notThere - m_offset, first + m_credited - 1 - m_offset);
}

PlayedReturn::Point PlayedReturn::beginByTime() {
    m_by = By::time;
    m_beganLate = std::max(m_points.front().came - begin(), Clock::duration::zero());
    return m_points.front();
}

void PlayedReturn::measure(std::uint64_t frames, int rateCode) {
    const int measure = m_sourceRateCode != 0 ? m_sourceRateCode : rateCode;
    const std::int64_t period = MPEG::SH::decode_PCRs_per_frame(measure);
    m_wanted = static_cast<std::int64_t>(frames) * period;
    // Some frames of a film are shown for three fields, and where frames were lost the one before stands.
    m_longer = m_sourceTime > m_wanted + period / 2;
    if (!m_uniform || m_longer)
        m_wanted = m_sourceTime;
    // Frames that cannot be shown are counted too: an encoder that passes on what it is sent returns them.
    if (m_by == By::labels)
        m_wanted += m_leadIn * MPEG::SH::decode_PCRs_per_frame(rateCode);
}

void PlayedReturn::recordingBegins(const Frame& frame) {
    m_recording = true;
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
    const std::int64_t shown = frame.clock.elapsed() + *m_delay;
    if (m_early.size() < 2 * mostDelayed) {
        m_firstShown = m_early.empty() ? shown : std::min(m_firstShown, shown);
        m_early.push_back(shown);
    }
    if (shown + m_period / 2 < shownEnd())
        m_lastShown = std::max(m_lastShown, shown);
}

// Whether the current picture is shown behind the source's last.
bool PlayedReturn::shownBehind(const Frame& frame) const {
    const std::int64_t period = frame.clock.period();
    if (m_unstamped || !m_delay)
        return frame.clock.end() - period / 2 >= m_wanted;
    return frame.clock.elapsed() + *m_delay + period / 2 >= shownEnd();
}

// Whether it is not of the kind that is recorded, which the source has throughout.
bool PlayedReturn::otherVideo(int recordedRate, const Frame& frame) const noexcept {
    const bool otherRate = recordedRate != 0 && frame.rateCode != 0 && frame.rateCode != recordedRate;
    return m_uniform && (otherRate || frame.video != m_video);
}

bool PlayedReturn::recorded(unsigned frames, int recordedRate, const Frame& frame) {
    if (!m_whole)
        return !m_played || owns(frame);
    m_rateVaried = m_rateVaried || (recordedRate != 0 && frame.rateCode != recordedRate);
    // By time other pictures come first, of whatever codec.
    const bool otherCodec = m_uniform && m_by != By::time && frame.video != m_video;
    const bool others = otherCodec || (recordedRate == m_sourceRateCode && unlikeSource(frame.rateCode));
    const std::int64_t period = frame.clock.period();
    bool beyond = m_by == By::labels && m_wanted > 0 &&
                  frame.clock.elapsed() + period / 2 >= m_wanted + m_leading * period;
    if (m_by == By::count && !others) {
        const std::size_t early = m_early.size();
        noteShown(frame);
        beyond = m_wanted > 0 && m_early.size() == early && shownBehind(frame);
    }
    if (others || beyond)
        m_others += frames;
    return !others;
}

bool PlayedReturn::late(Clock::time_point now) const {
    return m_sourceEnded && now >= *m_sourceEnded + m_longestReturn;
}

bool PlayedReturn::endsBefore(const Frame& frame, int recordedRate, std::uint64_t frames) const {
    // Behind the last frame the encoder falls back to a format of its own.
    if (otherVideo(recordedRate, frame) && m_by != By::time &&
        returned(frames) >= expected(recordedRate, frames) && (m_by == By::labels || playedFor(frame.now)))
        return true;
    // What may still be shown before the last frame is not kept out by a picture that is coded before it.
    const bool wanted = m_by == By::count && !told() && m_wanted > 0 && !shownBehind(frame);
    return (!wanted && lastCame(frame, frames)) ||
           ((m_by != By::count || told() || mayGoOver()) && late(frame.now));
}

// Whether the source's labels count its frames one by one up to its last.
bool PlayedReturn::through() const noexcept {
    return m_labelledFrames != 0 && m_labelledFrames == total();
}

// Whether labels tell which frames are the source's.
bool PlayedReturn::told() const noexcept {
    return through() && !inPairs() && (m_by == By::labels || m_agreed);
}

bool PlayedReturn::lastCame(const Frame& frame, std::uint64_t frames) const {
    if (told())
        return m_range.complete();
    // Nothing that was recorded while the source still had frames to come was its last frame.
    if (m_by == By::count)
        return !mayGoOver() && lastDecoded(frame, frames) && playedFor(frame.now);
    return m_by == By::labels && labelledEndCame(frame);
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
        time = frame.clock.elapsed() + period / 2 >= m_wanted + mostReordered * period;
    else
        time = countComplete(frames) || frame.clock.elapsed() + period / 4 >= shownEnd() - period;
    return time && (m_uniform || !m_rateVaried || frames >= m_wantedFrames);
}

// Of a source whose frames take longer than their number tells, whether its own came back: not more than it
// has, and some of them for longer, up to its end. An encoder behind a decoder returns one for each period.
bool PlayedReturn::cameAsItIs(std::uint64_t frames) const {
    const std::uint64_t there = inside(frames);
    const std::int64_t span = framesOf(m_lastShown - m_firstShown, m_period) + 1;
    return there <= total() && static_cast<std::int64_t>(there) < span &&
           m_lastShown + 2 * m_period >= shownEnd();
}

bool PlayedReturn::playedFor(Clock::time_point now) const {
    return m_sourceEnded || (m_wanted > 0 && now >= begin() + timeOf(m_wanted));
}

// Labels that jump do not tell which is the last frame.
bool PlayedReturn::labelledEndCame(const Frame& frame) const {
    // Rather some frames too many than one too few.
    const std::int64_t margin = (m_leading + mostReordered) * frame.clock.period();
    return m_wanted > 0 && frame.clock.elapsed() + frame.clock.period() / 2 >= m_wanted + margin;
}

// Frames of the source that can come back. A decoder that is played those before the first that can be shown
// leaves them out, an encoder that passes on what it is sent does not.
std::uint64_t PlayedReturn::total() const noexcept {
    return m_wantedFrames - std::min(m_wantedFrames, m_hiddenFrames);
}

std::uint64_t PlayedReturn::returned(std::uint64_t frames) const {
    return told() ? static_cast<std::uint64_t>(m_range.length() - absent()) : byNumber(frames);
}

// Of the source's frames, by labels; none when they are all there by either of two readings.
std::int64_t PlayedReturn::absent() const {
    return m_fromHidden && m_fromHidden->absent() == 0 ? 0 : m_range.absent();
}

std::uint64_t PlayedReturn::byNumber(std::uint64_t frames) const {
    if (m_by == By::count)
        return inside(frames);
    const std::uint64_t no = static_cast<std::uint64_t>(m_before) + m_others;
    return frames - std::min(frames, no);
}

bool PlayedReturn::othersMayBe(std::uint64_t frames) const {
    return told() && !m_eachLabelled && byNumber(frames) > returned(frames);
}

std::uint64_t PlayedReturn::expected(int recordedRate, std::uint64_t frames) const {
    const bool longer = m_uniform && m_longer && !told();
    if (longer && m_by == By::count && recordedRate == m_sourceRateCode && !m_unstamped && m_period > 0 &&
        !cameAsItIs(frames)) {
        const auto all = static_cast<std::uint64_t>((m_wanted + m_period / 2 - 1) / m_period);
        return all - std::min(all, m_hiddenFrames);
    }
    // One that has other rates in its middle comes back with them, or as long at a single one.
    const bool asItIs = m_uniform ? recordedRate == m_sourceRateCode : m_rateVaried || m_sourceTime == 0;
    if (recordedRate == 0 || m_sourceRateCode == 0 || asItIs)
        return total();
    const auto period = [](int code) {
        return std::max<std::uint64_t>(static_cast<std::uint64_t>(MPEG::SH::decode_PCRs_per_frame(code)), 1);
    };
    // The last may be shown for less than its time.
    const std::uint64_t time =
        m_uniform && !longer ? total() * period(m_sourceRateCode) : static_cast<std::uint64_t>(m_sourceTime);
    return std::max<std::uint64_t>(time / period(recordedRate), 2) - 1;
}

std::string PlayedReturn::describe(int recordedRate, bool ended) const {
    std::string text;
    if (unlikeSource(recordedRate))
        text += format(", at frame rate code %d, the source has %d", recordedRate, m_sourceRateCode);
    if (m_by == By::time)
        text += format(", the stream ran before the play-out and no timecodes of the source were recognised "
                       "in it: up to %d s of other pictures at either end, not known whether it is complete",
                       static_cast<int>(m_longestReturn.count() / 1000));
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
