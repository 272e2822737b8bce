#include "MarkedRange.h"

#include "CountedNoun.h"
#include "foundation/ErrorCodes.h"

#include <algorithm>
#include <cmath>
#include <iterator>

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
    m_lackingLast.reset();
    for (std::int64_t left = 0; left < std::min(lastLabels, m_length); ++left)
        m_lackingLast[static_cast<std::size_t>(left)] = lacks(m_length - 1 - left);
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
    m_taken = m_byClock = {};
}

void MarkedRange::Taken::note(std::int64_t position, std::int64_t length) {
    between.resize(static_cast<std::size_t>(std::max<std::int64_t>(length, 0)));
    if (position >= 0 && position < length)
        between[static_cast<std::size_t>(position)] = true;
    if (const std::int64_t left = length - 1 - position; left >= 0 && left < lastLabels)
        last.set(static_cast<std::size_t>(left));
}

void MarkedRange::note(std::int64_t first, std::int64_t last) {
    for (std::int64_t label = first; label <= last; ++label) {
        const std::int64_t at = position(label);
        m_taken.note(at, m_length);
        m_beyond += at >= m_length ? 1 : 0;
        m_highest = std::max(m_highest, at);
        m_first = std::min(m_first, at); // pictures of H.264 may be shown before the one decoding begins with
    }
}

void MarkedRange::noteByClock(std::int64_t first, std::int64_t last) {
    for (std::int64_t label = first; label <= last; ++label) {
        const std::int64_t at = position(label);
        m_byClock.note(at, m_length);
        m_highest = std::max(m_highest, at);
    }
}

void MarkedRange::dropByClock() {
    m_byClock = {};
}

bool MarkedRange::between(std::int64_t position) const {
    const auto at = static_cast<std::size_t>(position);
    return (at < m_taken.between.size() && m_taken.between[at]) ||
           (at < m_byClock.between.size() && m_byClock.between[at]);
}

bool MarkedRange::lacks(std::int64_t position) const {
    const auto at = static_cast<std::size_t>(position);
    if (position < 0)
        return position == -m_lackingBefore;
    return at < m_lacking.size() && m_lacking[at];
}

// One that stands alone between such as no frame has is not told from one that stands for a timecode that
// the encoder has made up: nothing goes on from it. lackingLast: the last one of no frame before it.
bool MarkedRange::doubtful(std::int64_t position, std::int64_t lackingLast) const {
    return position - lackingLast <= m_doubt || (lacks(position - 1) && lacks(position + 1));
}

bool MarkedRange::doubtful(std::int64_t position) const {
    std::int64_t last = position - 1;
    while (last > -m_lackingBefore && position - last <= m_doubt && !lacks(last))
        --last;
    return doubtful(position, lacks(last) ? last : position - m_doubt - 1);
}

bool MarkedRange::complete() const {
    const std::int64_t all = std::min(m_length - m_first, lastLabels);
    const auto seen = last();
    for (std::int64_t left = 0; left < all; ++left)
        if (!seen[static_cast<std::size_t>(left)])
            return false;
    return all > 0;
}

std::int64_t MarkedRange::missing() const {
    const auto seen = last();
    std::int64_t left = 0;
    while (left < lastLabels && !seen[static_cast<std::size_t>(left)])
        ++left;
    return left;
}

std::int64_t MarkedRange::without(bool doubtful) const {
    std::int64_t without = 0;
    std::int64_t last = m_lackingBefore > 0 ? -m_lackingBefore : -m_doubt - 1;
    for (std::int64_t at = 0; at < m_length; ++at) {
        if (lacks(at))
            last = at;
        else
            without += !between(at) && this->doubtful(at, last) == doubtful ? 1 : 0;
    }
    return without;
}

std::int64_t MarkedRange::unseen(std::int64_t labels) const {
    std::int64_t unseen = 0;
    for (std::int64_t at = 0; at < std::min(labels, m_length); ++at)
        unseen += between(at) ? 0 : 1;
    return unseen;
}

std::string MarkedRange::describe(LabelOrigin origin, bool ended) const {
    std::string text = ", from " + m_rule.text(m_in + m_first) + " to " + m_rule.text(m_in + m_highest);
    // Of labels that were counted on over such as no frame has it is not known how many are before it.
    const bool over = m_lackingBefore > 0 && m_first < -m_lackingBefore;
    if (m_first < 0 && !over)
        text += ", " + frameCount(-m_first) + " before mark-in";
    if (!between(0) && !doubtful(0))
        text += ", the frame at mark-in is missing";
    if (m_first + m_leading > 0)
        text += ", the first " + frameCount(m_first + m_leading) + " from mark-in need the GOP before";
    if (m_beyond > 0)
        text += ", " + frameCount(m_beyond) + " beyond mark-out";
    if (ended && missing() != 0 && !doubtful(m_length - 1))
        text += ", the frame at mark-out is missing";
    const auto& clocked = m_byClock.between;
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
