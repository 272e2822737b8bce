#include "MarkedRange.h"

#include "CountedNoun.h"
#include "foundation/ErrorCodes.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <iterator>
#include <utility>

namespace kestrel::capture {
namespace {

bool isTimeOfDay(const int (&fields)[4]) {
    return fields[0] < 24 && fields[1] < 60 && fields[2] < 60 && fields[3] < 60;
}

std::string frameCount(std::int64_t frames) {
    return counted(static_cast<std::uint64_t>(frames), "frame");
}

} // namespace

MaybeFailure MarkedRange::check(const std::string& in, const std::string& out) {
    int begin[4] = {};
    int end[4] = {};
    if (!parseTimecode(in, begin) || !isTimeOfDay(begin))
        return detailed(failure(error::invalidMarkIn), in);
    if (!parseTimecode(out, end) || !isTimeOfDay(end))
        return detailed(failure(error::invalidMarkOut), out);
    if (!std::lexicographical_compare(std::begin(begin), std::end(begin), std::begin(end), std::end(end)))
        return detailed(failure(error::invalidMarkOut), out + " is not after mark-in " + in);
    return std::nullopt;
}

MaybeFailure MarkedRange::settle(const LabelRule& rule) {
    if (rule == m_rule)
        return std::nullopt;
    m_rule = rule;
    m_moved.clear();
    m_timecode.reset();
    const auto in = rule.number(m_inText, m_pairs);
    const auto out = rule.number(m_outText, m_pairs);
    const auto reason = [&rule](const std::string& text) {
        return text + " does not exist at frame rate code " + std::to_string(rule.rateCode) +
               (rule.drop ? ", drop-frame" : "");
    };
    if (!in)
        return detailed(failure(error::invalidMarkIn), reason(m_inText));
    if (!out)
        return detailed(failure(error::invalidMarkOut), reason(m_outText));
    m_in = *in;
    // A pair ends with its second frame.
    m_length = (*out - *in + rule.perDay()) % rule.perDay() + (m_pairs && rule.doubled() ? 2 : 1);
    return std::nullopt;
}

std::chrono::seconds MarkedRange::duration() const {
    const double rate = m_rule.framesPerSecond();
    return std::chrono::seconds(
        rate > 0 ? static_cast<std::int64_t>(std::ceil(static_cast<double>(m_length) / rate)) : 0);
}

std::int64_t MarkedRange::position(std::int64_t label) const {
    const std::int64_t day = m_rule.perDay();
    const std::int64_t forward = ((label - m_in) % day + day) % day;
    return forward >= m_length + (day - m_length) / 2 ? forward - day : forward;
}

bool MarkedRange::mayBeginAt(std::int64_t group) const {
    std::int64_t until = -position(group);
    // Labels of no frame take no time: a group may go over them, however many they are.
    if (m_lackingBefore > 0 && until > m_lackingBefore)
        until = m_lackingBefore;
    return until >= 0 && static_cast<double>(until) <= longestGroupSeconds * m_rule.framesPerSecond();
}

void MarkedRange::begin(std::int64_t group, std::int64_t leading) {
    m_first = m_highest = position(group);
    m_leading = leading;
    m_beyond = 0;
    m_moved.clear();
    m_taken.clear();
    m_byClock.clear();
}

void MarkedRange::take(std::vector<bool>& taken, std::int64_t position) const {
    taken.resize(static_cast<std::size_t>(m_length));
    if (position >= 0 && position < m_length)
        taken[static_cast<std::size_t>(position)] = true;
}

void MarkedRange::note(std::int64_t first, std::int64_t last) {
    for (std::int64_t label = first; label <= last; ++label) {
        const std::int64_t at = position(label);
        take(m_taken, at);
        m_beyond += at >= m_length ? 1 : 0;
        m_highest = std::max(m_highest, at);
        m_first = std::min(m_first, at); // pictures of H.264 may be shown before the one decoding begins with
    }
}

void MarkedRange::noteByClock(std::int64_t first, std::int64_t last) {
    for (std::int64_t label = first; label <= last; ++label) {
        const std::int64_t at = position(label);
        take(m_byClock, at);
        m_highest = std::max(m_highest, at);
    }
}

void MarkedRange::dropByClock() {
    m_byClock.clear();
}

bool MarkedRange::holds(const std::vector<bool>& labels, std::int64_t position) {
    const auto at = static_cast<std::size_t>(position);
    return position >= 0 && at < labels.size() && labels[at];
}

bool MarkedRange::came(std::int64_t position) const {
    return holds(m_taken, position) || holds(m_byClock, position);
}

bool MarkedRange::lacks(std::int64_t position) const {
    return position < 0 ? position == -m_lackingBefore : holds(m_lacking, position);
}

// What is lost on the way takes its time: a timecode that is ahead of that went over labels of no frame. One
// that is behind it went over none: more frames came than there are labels, as of a decoder that stops for a
// while.
std::int64_t MarkedRange::timecode(std::int64_t group, std::int64_t shown, std::int64_t period) {
    const Timecode now{position(group), shown};
    const Timecode before = std::exchange(m_timecode, now).value_or(now);
    const std::int64_t ahead = (now.position - before.position) * period - (now.shown - before.shown);
    if (2 * std::llabs(ahead) <= period) // that is how times of no whole frames are rounded
        return 0;
    const std::int64_t over = (ahead + (ahead < 0 ? -period : period) / 2) / period;
    if (over > 0)
        m_moved.push_back({before.position, now.position, over});
    return over;
}

// By position: labels whose frames may have come with others. In each group that may have been counted on
// wrongly these are all behind its first label of no frame, for as many frames as the group can have had.
std::vector<bool> MarkedRange::doubts() const {
    std::vector<bool> doubts(static_cast<std::size_t>(m_length));
    // One that stands alone between such as no frame has is not told from one that stands for a timecode that
    // the encoder has made up: nothing goes on from it.
    for (std::int64_t at = 0; at < m_length; ++at)
        doubts[static_cast<std::size_t>(at)] = lacks(at - 1) && lacks(at + 1);
    if (m_doubt == 0)
        return doubts;
    std::vector<Moved> groups = m_moved;
    // Nothing confirms what was counted on from the last one, though frames be labelled beyond mark-out: with
    // the first of them the recording ends, before the next timecode, which may be any number of labels
    // ahead.
    const std::int64_t last = m_timecode ? m_timecode->position : m_first;
    groups.push_back({last, m_length, m_length - last});
    for (const auto& [from, to, over] : groups) {
        // Of the labels of no frame before mark-in only the last is known: up to that the group has had so
        // many frames at least.
        const bool before = m_lackingBefore > 0 && from <= -m_lackingBefore;
        std::int64_t at = before ? -m_lackingBefore : from;
        std::int64_t frames = before ? std::max<std::int64_t>(at - from + 1 - over, 1) : 0;
        bool behind = false;
        for (; at < std::min(to, m_length) && (frames <= m_doubt || lacks(at)); ++at) {
            behind = behind || lacks(at);
            frames += lacks(at) ? 0 : 1;
            if (behind && at >= 0)
                doubts[static_cast<std::size_t>(at)] = true;
        }
    }
    return doubts;
}

bool MarkedRange::complete() const {
    constexpr std::int64_t last = 64;
    std::int64_t at = std::max({m_first, m_length - last, std::int64_t{0}});
    if (at >= m_length)
        return false;
    while (at < m_length && (came(at) || lacks(at)))
        ++at;
    return at == m_length;
}

std::int64_t MarkedRange::missing() const {
    std::int64_t missing = 0;
    for (std::int64_t at = m_length - 1; at >= 0 && !came(at); --at)
        missing += lacks(at) ? 0 : 1;
    return missing;
}

std::int64_t MarkedRange::unseenFrames(bool doubted) const {
    const std::vector<bool> doubts = this->doubts();
    std::int64_t unseen = 0;
    for (std::int64_t at = 0; at < m_length; ++at)
        unseen += !came(at) && !lacks(at) && holds(doubts, at) == doubted ? 1 : 0;
    return unseen;
}

std::int64_t MarkedRange::unseen(std::int64_t labels) const {
    std::int64_t unseen = 0;
    for (std::int64_t at = 0; at < std::min(labels, m_length); ++at)
        unseen += came(at) ? 0 : 1;
    return unseen;
}

std::string MarkedRange::describe(LabelOrigin origin, bool ended) const {
    std::string text = ", from " + m_rule.text(m_in + m_first) + " to " + m_rule.text(m_in + m_highest);
    // Of labels that were counted on over such as no frame has it is not known how many are before it.
    const bool over = m_lackingBefore > 0 && m_first < -m_lackingBefore;
    if (m_first < 0 && !over)
        text += ", " + frameCount(-m_first) + " before mark-in";
    const std::vector<bool> doubts = this->doubts();
    if (!came(0) && !holds(doubts, 0))
        text += ", the frame at mark-in is missing";
    if (m_first + m_leading > 0)
        text += ", the first " + frameCount(m_first + m_leading) + " from mark-in need the GOP before";
    if (m_beyond > 0)
        text += ", " + frameCount(m_beyond) + " beyond mark-out";
    if (ended && missing() != 0 && !holds(doubts, m_length - 1))
        text += ", the frame at mark-out is missing";
    const auto& clocked = m_byClock;
    if (const auto until = std::find(clocked.rbegin(), clocked.rend(), true); until != clocked.rend())
        text +=
            ", those before " + m_rule.text(m_in + std::distance(until, clocked.rend())) + " by the clock";
    if (origin == LabelOrigin::deck)
        text += ", by deck time";
    else if (origin == LabelOrigin::counted)
        text += ", counted from the first frame";
    return text;
}

} // namespace kestrel::capture
