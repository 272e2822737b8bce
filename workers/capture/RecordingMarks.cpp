// Where a recording between two marks begins.
#include "Recording.h"

#include "foundation/ErrorCodes.h"

#include <algorithm>

namespace kestrel::capture {

// Keeps the group of pictures in which mark-in may lie, until its frame comes or another group begins.
void Recording::settleMarks(const VideoUnit& unit) {
    if (unit.known && unit.randomAccess) {
        m_lastRandomAccess = m_now;
        if (m_label)
            m_lastLabelled = m_now;
    }
    if (unit.known && unlikeSource()) {
        m_groupHeld = m_groupByClock = false;
        m_held.clear();
        if (m_played.began() && m_now >= m_played.begin() + m_timing.longestReturn)
            fail(failure(error::sourceFrameRateMismatch, m_analyzer.frameRateCode(), m_plan.sourceRateCode));
        return;
    }
    if (unit.known && labelCounts()) {
        if (auto failed = m_range.settle(m_labels.rule()))
            return fail(*failed);
        const std::int64_t over = noteTimecode(unit);
        if (unit.randomAccess)
            openGroup(unit, over);
        noteLabels(unit);
        if (m_groupHeld && m_range.position(*m_label) >= 0)
            return startRecording();
    } else if (unit.known && m_labelsOfSource && !m_groupLabel) {
        if (unit.randomAccess)
            if (auto failed = openGroupByClock(unit))
                return fail(*failed);
        noteLabels(unit);
    }
    if (!m_groupHeld)
        m_held.clear();
}

// Of the source's. How many labels it is ahead of what was counted: those of no frame take no time, so
// m_leadIn, which with the length is the time up to mark-out, is without those that are on the way there.
std::int64_t Recording::noteTimecode(const VideoUnit& unit) {
    const std::int64_t period = m_clock.period();
    const bool sources = byStreamLabels() && (labelCounts() || m_played.owns(frame()));
    if (unit.randomAccess && !unit.gopTimecode)
        m_range.bare();
    if (!unit.gopTimecode || !sources || period == 0)
        return 0;
    const std::int64_t group = m_labels.groupLabel();
    const std::int64_t shown = m_labels.shown() - m_labels.rule().distance(group, *m_label) * period;
    const std::int64_t over = m_range.timecode(group, shown, period);
    m_range.labelled(group);
    if (!m_range.beyond(*m_label))
        m_leadIn -= over;
    return over;
}

// Before it is asked which frames of the range have come.
void Recording::weighLabels() {
    m_range.keep(m_played.kept());
    m_range.countsOn(m_played.countedOn());
}

// over: by so many labels its timecode is ahead of what was counted.
void Recording::openGroup(const VideoUnit& unit, std::int64_t over) {
    weighLabels();
    const std::int64_t group = m_labels.groupLabel();
    const std::int64_t position = m_range.position(group);
    const double lost = lostSeconds * m_labels.rule().framesPerSecond();
    // The frame at mark-in was lost on the way, or had a label that was counted on: its group is the one that
    // has just ended. Labels of no frame are not lost.
    const std::int64_t jump = position - m_range.highest() - std::max<std::int64_t>(over, 0);
    const bool near = static_cast<double>(jump) <= lost;
    const bool byClock = m_groupByClock && m_range.position(*m_label) > 0;
    if (m_groupHeld && (byClock || (position > 0 && (near || m_range.inMayHaveCome()))))
        return startRecording();
    const auto aSecond = static_cast<std::int64_t>(m_labels.rule().framesPerSecond()) + 1;
    const std::int64_t length = m_groupLabel ? m_labels.rule().distance(*m_groupLabel, group) : 0;
    m_groupLabel = group;
    m_groupByClock = false;
    holdGroup(unit, group, unit.closedGop ? 0 : *m_label - group);
    m_passed = !m_groupHeld && position > (length > 0 ? length : aSecond);
}

// What is held begins with this unit, if mark-in may lie in its group. leading: frames of the group that are
// shown before it.
void Recording::holdGroup(const VideoUnit& unit, std::int64_t group, std::int64_t leading) {
    m_played.dropLabels();
    m_held.erase(m_held.begin(), m_held.begin() + static_cast<std::ptrdiff_t>(m_unitAt));
    m_unitAt = 0;
    m_groupHeld = m_analyzer.programKnown() && m_range.mayBeginAt(group);
    if (!m_groupHeld)
        return;
    m_clock.begin();
    m_begin = unit;
    m_range.begin(group, leading);
    m_leadIn = -m_range.position(group);
}

// The group that was open when the source came still has a label of before: where mark-in lies is told by
// when the source's first frame is shown, which its labels have told since.
MaybeFailure Recording::openGroupByClock(const VideoUnit& unit) {
    const auto line = m_played.sourceLabels().line();
    const auto told = m_played.reference();
    const std::int64_t period = m_clock.period();
    if (!line || !told || period == 0)
        return std::nullopt;
    const LabelRule rule{m_analyzer.frameRateCode(), tellsDropFrame(told->text)};
    const auto first = rule.number(told->text);
    if (!first)
        return std::nullopt;
    if (auto failed = m_range.settle(rule))
        return failed;
    m_clockLabel = *first;
    const std::int64_t label = labelByClock();
    const std::int64_t leading = std::max(unit.temporalReference, 0);
    // A timecode tells of the group's first frame that it is none of the source's: so none of it are.
    m_clockCounts = !unit.gopTimecode || label - leading < *first;
    if (m_range.position(label) > 0)
        return std::nullopt; // mark-in lies in the group before
    m_range.timecode(label - leading, *line + rule.distance(*first, label - leading) * period, period);
    holdGroup(unit, label - leading, unit.closedGop ? 0 : leading);
    m_groupByClock = m_groupHeld;
    return std::nullopt;
}

// Of the current picture, by when it is shown.
std::int64_t Recording::labelByClock() const {
    const std::int64_t period = m_clock.period();
    const std::int64_t since = m_labels.shown() - m_played.sourceLabels().line().value_or(0);
    return m_clockLabel + (since + (since < 0 ? -period : period) / 2) / period;
}

// A picture of H.264 has a label of its own where there are any.
void Recording::noteByClock(const VideoUnit& unit) {
    const bool others = m_analyzer.codec() == VideoCodec::avc && unit.gopTimecode;
    if (!m_clockCounts || others || m_clock.period() == 0)
        return;
    const std::int64_t label = labelByClock();
    const std::int64_t more = m_label ? m_labels.highest(unit) - *m_label : std::int64_t{unit.frames} - 1;
    m_range.noteByClock(m_unitNoted ? label + 1 : label, label + more);
    m_unitNoted = true;
}

} // namespace kestrel::capture
