#include "FileLabels.h"

#include "mpeg/mpeg2.h"
#include "timecode/mpeg_timecode.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

namespace kestrel::capture {
namespace {

constexpr int dropFlag = 1 << 24; // of the 25 bits of a GOP's timecode

// An encoder that is given no timecode repeats the same one.
bool standsStill(const std::vector<AccessPoint>& points) {
    return points.size() > 1 && std::all_of(points.begin(), points.end(), [&](const AccessPoint& point) {
               return point.timecode == points.front().timecode;
           });
}

} // namespace

FileLabels::FileLabels(const SourceIndex& index) : m_index(index) {
    const AccessPoint& first = index.points.front();
    m_counted = !first.timecode || standsStill(index.points);
    const bool drop = m_counted ? mpeg_timecode::frameRateCodeToDropFrame(index.frameRateCode)
                                : (*first.timecode & dropFlag) != 0;
    m_rule = {index.frameRateCode, drop};
    m_period = MPEG::SH::decode_PCRs_per_frame(index.frameRateCode);
    if (!agrees(index.shown) && !index.leaps.empty())
        agrees(playedTimes(index));
}

// Whether the last timecode agrees with these times; they tell then which labels are those of frames.
bool FileLabels::agrees(std::vector<std::int64_t> shown) {
    const AccessPoint& last = m_index.points.back();
    const std::uint64_t before = last.frame - m_index.points.front().frame;
    m_shown = std::move(shown);
    if (m_period <= 0 || before >= m_shown.size() || position(of(last)) != placeOf(this->shown(last))) {
        m_shown.clear();
        return false;
    }
    for (std::size_t i = 0; i < m_shown.size(); ++i) {
        const std::int64_t place = placeOf(m_shown[i]);
        if (place < 0 || place >= m_rule.perDay())
            continue;
        m_has.resize(std::max(m_has.size(), static_cast<std::size_t>(place) + 1));
        m_has[static_cast<std::size_t>(place)] = true;
        if (i < before)
            m_lastBefore = std::max(m_lastBefore, place);
    }
    return true;
}

std::int64_t FileLabels::length() const {
    if (!m_shown.empty())
        return static_cast<std::int64_t>(m_has.size());
    // Timecodes may go further than the number of frames, but not further than the time.
    const AccessPoint& last = m_index.points.back();
    const std::int64_t further =
        position(of(last)) + static_cast<std::int64_t>(m_index.frames - last.frame) - last.leading;
    return std::max(frames(), m_period > 0 ? std::min(further, stampedTime() / m_period) : 0);
}

bool FileLabels::has(std::int64_t at) const {
    return m_shown.empty() || at <= m_lastBefore || (at < length() && m_has[static_cast<std::size_t>(at)]);
}

bool FileLabels::known(std::int64_t from, std::int64_t to) const {
    if (!m_counted)
        return countOn(from, to);
    // No frame is shown for longer.
    const bool inTime = std::llabs(stampedTime() - frames() * m_period) <= 2 * m_period;
    return !m_shown.empty() || (m_index.uniform && inTime);
}

std::vector<bool> FileLabels::lacking(std::int64_t from, std::int64_t to) const {
    std::vector<bool> lacking;
    const std::int64_t first = position(from);
    for (std::int64_t at = first; !m_shown.empty() && at <= position(to) && at < length(); ++at)
        if (at >= 0 && !m_has[static_cast<std::size_t>(at)]) {
            lacking.resize(static_cast<std::size_t>(at - first) + 1);
            lacking.back() = true;
        }
    return lacking;
}

std::int64_t FileLabels::lackingBefore(std::int64_t at) const {
    if (!m_shown.empty()) {
        for (std::int64_t before = std::min(at, length()) - 1; before >= 0; --before)
            if (!m_has[static_cast<std::size_t>(before)])
                return at - before;
        return 0;
    }
    std::int64_t found = 0;
    const AccessPoint* before = nullptr;
    for (const AccessPoint& point : m_index.points) {
        if (!point.timecode || m_counted)
            continue;
        const std::int64_t place = position(of(point));
        if (place > at)
            break;
        if (before && place - position(of(*before)) > framesBetween(*before, point))
            found = at - place + 1;
        before = &point;
    }
    return found;
}

// Whether the timecodes go on from before one label to behind another, frame by frame or by the time.
bool FileLabels::countOn(std::int64_t from, std::int64_t to) const {
    const AccessPoint* before = nullptr;
    for (const AccessPoint& point : m_index.points) {
        if (!point.timecode)
            return false;
        const std::int64_t at = of(point);
        if (m_rule.distance(from, at) <= 0) {
            before = &point;
            continue;
        }
        if (!before || m_rule.distance(of(*before), at) != between(*before, point))
            return false;
        if (m_rule.distance(to, at) > 0)
            return true;
        before = &point;
    }
    return before != nullptr; // up to the end of the file
}

// Labels from one access point's to another's.
std::int64_t FileLabels::between(const AccessPoint& from, const AccessPoint& to) const {
    return m_shown.empty() ? framesBetween(from, to) : placeOf(shown(to)) - placeOf(shown(from));
}

bool FileLabels::takesLonger() const {
    return stampedTime() > frames() * m_period + m_period / 2;
}

// The time that timestamps tell, where what plays the file does not wait, too.
std::int64_t FileLabels::stampedTime() const {
    std::int64_t time = m_index.time;
    for (const SourceLeap& leap : m_index.leaps)
        time += leap.excess;
    return time;
}

// When the frame is shown that has the label of an access point.
std::int64_t FileLabels::shown(const AccessPoint& point) const {
    const std::int64_t time = m_shown[static_cast<std::size_t>(point.frame - m_index.points.front().frame)];
    return time - (m_counted && !point.exact ? point.leading : point.reference) * m_period;
}

// The position of the label of the frame that is shown then.
std::int64_t FileLabels::placeOf(std::int64_t time) const {
    const std::int64_t since = time - shown(m_index.points.front());
    return (since + (since < 0 ? -m_period : m_period) / 2) / m_period;
}

LabelledFrames labelledFrames(const SourceIndex& index) {
    LabelledFrames found;
    if (index.points.empty() || index.frameRateCode == 0)
        return found;
    const AccessPoint& first = index.points.front();
    found.hidden = static_cast<std::uint64_t>(first.exact ? first.skipped : first.leading);
    if (first.exact && index.hidden) // some may not be there either
        found.hidden = std::min(found.hidden, *index.hidden);
    const FileLabels labels(index);
    std::uint64_t end = index.frames;
    for (const AccessPoint& point : index.points)
        if (!point.timecode || labels.position(labels.of(point)) != FileLabels::framesBetween(first, point)) {
            end = point.frame;
            break;
        }
    // Frames are missing behind the last access point.
    if (end == index.frames && labels.takesLonger())
        end = index.points.back().frame;
    // Labels that come again after a day tell nothing.
    const auto day = static_cast<std::uint64_t>(labels.rule().perDay());
    if (labels.counted() || !index.uniform || end <= first.frame + found.hidden ||
        end - first.frame >= day / 2)
        return found;
    found.count = end - first.frame - found.hidden;
    const std::int64_t number = labels.of(first) + first.skipped;
    found.first = labels.rule().text(number);
    found.last = labels.rule().text(number + static_cast<std::int64_t>(found.count) - 1);
    return found;
}

} // namespace kestrel::capture
