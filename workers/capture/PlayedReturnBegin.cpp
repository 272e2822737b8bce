// Where the source begins in what comes back while it is played.
#include "PlayedReturn.h"

#include <algorithm>
#include <cstdlib>

namespace kestrel::capture {

// By count: whether the next timecode may tell that others came before the source.
bool PlayedReturn::mayGoOver() const noexcept {
    return m_by == By::count && !m_agreed && m_candidate && through() && !inPairs();
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
    m_sourceShown = line;
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
    const ReturnedLabel label{position, frame.labels.shown(), frame.clock.period(), frame.now - begin()};
    m_jumps = m_jumps || sourceJumps(label);
    return m_sourceLabels.confirms(label) && !m_jumps;
}

// Whether the source's timecodes come back with a jump among its first frames: they do not tell where it
// begins then. What does not go on from a timecode before may be the source's behind one.
bool PlayedReturn::sourceJumps(const ReturnedLabel& label) {
    if (through() || !m_sourceLabels.possible(label))
        return false;
    const std::int64_t line = label.shown - label.frame * label.period;
    const std::int64_t first = m_firstLine.value_or(line);
    m_firstLine = first;
    // Where it jumps is known to a GOP.
    constexpr auto longestGroup = static_cast<std::int64_t>(longestGroupSeconds * PTS::units_per_second);
    return 2 * std::llabs(line - first) > label.period &&
           label.shown - first + longestGroup >= m_range.length() * label.period;
}

void PlayedReturn::hold(const Point& point) {
    m_points.push_back(point);
    m_points.back().noted = m_places.count() - std::min<std::size_t>(m_places.count(), 1);
}

PlayedReturn::Point PlayedReturn::beginByLabels(const Frame& frame) {
    const std::int64_t period = frame.clock.period();
    const std::int64_t line = m_sourceLabels.line().value_or(m_points.front().shown);
    const Point* begin = &m_points.front();
    for (const Point& point : m_points)
        if (point.shown <= line + period / 2)
            begin = &point;
    m_by = By::labels;
    m_sourceShown = line;
    m_places.drop(begin->noted);
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

} // namespace kestrel::capture
