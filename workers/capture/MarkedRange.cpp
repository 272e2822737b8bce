#include "MarkedRange.h"

#include "CountedNoun.h"
#include "Limits.h"
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

// A label or two that no frame has are those of a film.
MarkedRange::MarkedRange(std::string in, std::string out, bool pairs, std::vector<bool> lacking,
                         std::int64_t lackingBefore, bool outage)
    : m_inText(std::move(in)), m_outText(std::move(out)), m_pairs(pairs), m_lacking(std::move(lacking)),
      m_lackingBefore(lackingBefore),
      m_outage(outage || std::search_n(m_lacking.begin(), m_lacking.end(), longestShown + 1, true) !=
                             m_lacking.end()) {}

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
    m_firstTimecode.reset();
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
    m_kept.clear();
}

void MarkedRange::take(std::int64_t position) {
    if (position >= m_length)
        return;
    if (m_taken.empty())
        m_takenFrom = position;
    if (position < m_takenFrom) {
        m_taken.insert(m_taken.begin(), static_cast<std::size_t>(m_takenFrom - position), false);
        m_takenFrom = position;
    }
    const auto at = static_cast<std::size_t>(position - m_takenFrom);
    m_taken.resize(std::max(m_taken.size(), at + 1));
    m_taken[at] = true;
}

void MarkedRange::note(std::int64_t first, std::int64_t last) {
    for (std::int64_t label = first; label <= last; ++label) {
        const std::int64_t at = position(label);
        take(at);
        m_beyond += at >= m_length ? 1 : 0;
        m_highest = std::max(m_highest, at);
        m_first = std::min(m_first, at); // pictures of H.264 may be shown before the one decoding begins with
    }
}

void MarkedRange::noteByClock(std::int64_t first, std::int64_t last) {
    for (std::int64_t label = first; label <= last; ++label) {
        const std::int64_t at = position(label);
        m_byClock.resize(static_cast<std::size_t>(m_length));
        if (at >= 0 && at < m_length)
            m_byClock[static_cast<std::size_t>(at)] = true;
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
    return holds(m_taken, position - m_takenFrom) || holds(m_byClock, position);
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
    // Behind one that goes back labels come again.
    const bool bare = std::exchange(m_bare, 2 * ahead < -period);
    if (2 * std::llabs(ahead) <= period) // that is how times of no whole frames are rounded
        return 0;
    const std::int64_t over = (ahead + (ahead < 0 ? -period : period) / 2) / period;
    if (over > 0)
        m_moved.push_back({before.position, now.position, over, bare});
    return over;
}

void MarkedRange::labelled(std::int64_t group) {
    m_firstTimecode = m_firstTimecode.value_or(position(group));
}

void MarkedRange::keep(std::vector<std::pair<std::int64_t, std::int64_t>> labels) {
    m_kept = std::move(labels);
    for (auto& [first, last] : m_kept) {
        first = position(first);
        last = position(last);
    }
    // Few are left: of B pictures each came by itself.
    std::sort(m_kept.begin(), m_kept.end());
    std::size_t merged = 0;
    for (const auto& [first, last] : m_kept)
        if (merged > 0 && first <= m_kept[merged - 1].second + 1)
            m_kept[merged - 1].second = std::max(m_kept[merged - 1].second, last);
        else
            m_kept[merged++] = {first, last};
    m_kept.resize(merged);
}

// Whether a frame came that was given that label, rightly or not.
MarkedRange::Frame MarkedRange::given(std::int64_t position) const {
    const auto keeps = [position](const auto& labels) {
        return position >= labels.first && position <= labels.second;
    };
    if (came(position))
        return Frame::came;
    // Where there is no outage the source's timecodes confirm each other.
    return m_outage && std::any_of(m_kept.begin(), m_kept.end(), keeps) ? Frame::open : Frame::missing;
}

// By position; those of no frame count as come.
std::vector<MarkedRange::Frame> MarkedRange::frames() const {
    std::vector<Frame> frames(static_cast<std::size_t>(m_length));
    // What is placed by a timecode that comes behind it may be off by an outage between.
    const std::int64_t placed = m_outage ? m_firstTimecode.value_or(0) : 0;
    for (std::int64_t at = 0; at < m_length; ++at) {
        const Frame frame = lacks(at) ? Frame::came : given(at);
        frames[static_cast<std::size_t>(at)] = frame == Frame::missing && at < placed ? Frame::open : frame;
    }
    if (m_countsOn > 0) {
        for (const Moved& group : m_moved)
            shift(group, frames);
        openLast(frames);
    }
    return frames;
}

// The labels of a group that was counted on over such as no frame has are those of earlier ones from there
// on: its frames have the others in their order, and how many they are, lost ones among them, tells its time.
void MarkedRange::shift(const Moved& group, std::vector<Frame>& frames) const {
    const std::int64_t countedTo = group.to - group.over;
    // Of the labels of no frame before mark-in only the last is known.
    const bool before = m_lackingBefore > 0 && group.from <= -m_lackingBefore;
    const std::int64_t begin = before ? 1 - m_lackingBefore : group.from;
    const std::int64_t end = std::min(group.to, m_length);
    if (end <= 0 || begin >= end)
        return;
    std::int64_t lacking = 0;
    std::int64_t first = end; // from there on the labels are wrong
    bool back = false;        // some were counted back from the next timecode, over such labels too
    for (std::int64_t at = before ? begin - 1 : std::max<std::int64_t>(begin, 0); at < end; ++at) {
        if (!lacks(at))
            continue;
        first = std::min(first, at);
        back = back || (at >= countedTo && came(at));
        ++lacking;
    }
    if (lacking == 0)
        return;
    if (back)
        first = group.from;
    const bool told = !group.bare && !back &&
                      (before ? group.to <= m_length && group.over >= lacking : group.over == lacking);
    // From its end where that is between the marks, else from its beginning.
    const bool fromEnd = group.to <= m_length;
    std::int64_t label = fromEnd ? countedTo - 1 : group.from;
    for (std::int64_t i = 0; i < end - begin; ++i) {
        const std::int64_t at = fromEnd ? end - 1 - i : begin + i;
        if (lacks(at))
            continue;
        const bool counted = label >= group.from && label < countedTo;
        const Frame frame = at >= countedTo && came(at) ? Frame::came : counted ? given(label) : Frame::open;
        if (at >= 0 && (told || at >= first))
            frames[static_cast<std::size_t>(at)] = told ? frame : Frame::open;
        label += fromEnd ? -1 : 1;
    }
}

// Nothing shows how the count went on from the last timecode, though frames be labelled beyond mark-out: with
// the first of them the recording ends, before the next, which may be any number of labels ahead.
void MarkedRange::openLast(std::vector<Frame>& frames) const {
    const std::int64_t from = m_timecode ? m_timecode->position : m_first;
    const bool before = m_lackingBefore > 0 && from <= -m_lackingBefore;
    std::int64_t counted = before ? 1 : 0;
    std::int64_t lacking = 0; // in a row, up to here
    bool behind = false;
    bool outage = before;
    for (std::int64_t at = before ? -m_lackingBefore : from;
         at < m_length && (counted <= m_countsOn || lacks(at)); ++at) {
        lacking = lacks(at) ? lacking + 1 : 0;
        behind = behind || lacking > 0;
        outage = outage || lacking > longestShown; // over fewer, as of a film, a count may well go in time
        counted += lacking > 0 ? 0 : 1;
        if (!behind || at < 0 || lacking > 0)
            continue;
        Frame& frame = frames[static_cast<std::size_t>(at)];
        frame = outage || frame != Frame::came ? Frame::open : frame;
    }
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

std::int64_t MarkedRange::count(Frame wanted) const {
    const std::vector<Frame> frames = this->frames();
    return std::count(frames.begin(), frames.end(), wanted);
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
    const std::vector<Frame> frames = this->frames();
    if (!frames.empty() && frames.front() == Frame::missing)
        text += ", the frame at mark-in is missing";
    if (m_first + m_leading > 0)
        text += ", the first " + frameCount(m_first + m_leading) + " from mark-in need the GOP before";
    // Of a group that was counted on there are more than its labels say.
    const bool more =
        m_countsOn > 0 && std::any_of(m_moved.begin(), m_moved.end(),
                                      [this](const Moved& group) { return group.to > m_length; });
    if (m_beyond > 0)
        text += (more ? ", at least " : ", ") + frameCount(m_beyond) + " beyond mark-out";
    if (ended && !frames.empty() && frames.back() == Frame::missing)
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
