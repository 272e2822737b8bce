#include "TimecodeCheck.h"

#include "capture/Failure.h"

#include <algorithm>
#include <cmath>

namespace kestrel::flowscope {
namespace {

// More B frames behind one frame than any decoder may be asked to keep.
constexpr std::size_t MOST_WAITING = 64;
constexpr double REORDERED = 3;
// What bytes that were lost may have held; more is a jump all the same.
constexpr double LOST = 25;

struct Label {
    explicit Label(int timecode)
        : drop((timecode >> 24 & 1) != 0), hours(timecode >> 19 & 31), minutes(timecode >> 13 & 63),
          seconds(timecode >> 6 & 63), frames(timecode & 63) {}
    bool drop;
    int hours, minutes, seconds, frames;
};

// Labels from midnight to this one where a second has so many; dropping: two of each minute but every tenth
// are left out, four of the double rates.
std::int64_t numberOf(const Label& label, std::int64_t perSecond, bool dropping) {
    const std::int64_t minutes = std::int64_t{label.hours} * 60 + label.minutes;
    const std::int64_t all = (minutes * 60 + label.seconds) * perSecond + label.frames;
    return dropping ? all - (perSecond > 30 ? 4 : 2) * (minutes - minutes / 10) : all;
}

// Labels from one to the other, the shorter way round the day.
std::int64_t distance(const Label& from, const Label& to, std::int64_t perSecond, bool dropping) {
    const std::int64_t day = numberOf(Label(24 << 19), perSecond, dropping);
    const std::int64_t step =
        ((numberOf(to, perSecond, dropping) - numberOf(from, perSecond, dropping)) % day + day) % day;
    return step > day / 2 ? step - day : step;
}

std::int64_t labelsPerSecond(double frameRate) {
    return std::max(1LL, std::llround(frameRate));
}

// Whether a label lies so many fields behind the other, within a tolerance in frames. Streams count their
// labels in more than one way: rates that are not whole drop labels with or without saying so; H.264 may
// count fields (D.2.3, nuit_field_based_flag); the double rates may count pairs of frames, as tapes do.
bool follows(const Label& from, const Label& to, std::uint64_t fields, double frameRate, double tolerance,
             bool byFields) {
    const std::int64_t perSecond = labelsPerSecond(frameRate);
    const bool fractional = std::abs(frameRate - static_cast<double>(perSecond)) > 1e-3;
    struct Count {
        std::int64_t perSecond;
        double fieldsOfLabel;
    };
    constexpr double DOUBLE_RATES = 45;
    const auto fits = [&](const Count& count, bool dropping) {
        const auto step = static_cast<double>(distance(from, to, count.perSecond, dropping));
        // A half label is rounded either way.
        const double slack = count.fieldsOfLabel / 2 + 2 * tolerance;
        return std::abs(step * count.fieldsOfLabel - static_cast<double>(fields)) <= slack;
    };
    const auto either = [&](const Count& count) {
        return fits(count, false) || (fractional && fits(count, true));
    };
    return either({perSecond, 2}) || (byFields && either({2 * perSecond, 1})) ||
           (frameRate > DOUBLE_RATES && either({perSecond / 2, 4}));
}

} // namespace

std::string labelText(int timecode) {
    const Label label(timecode);
    return capture::format("%02d:%02d:%02d%c%02d", label.hours, label.minutes, label.seconds,
                           label.drop ? ';' : ':', label.frames);
}

void TimecodeCheck::judge(int timecode, std::uint64_t fields, double frameRate, double tolerance,
                          bool byFields) {
    if (!m_last || frameRate <= 0)
        return;
    const Label from(*m_last);
    const Label to(timecode);
    // Labels that the rate does not have: it is not that of the pictures.
    if (std::max(from.frames, to.frames) >= (byFields ? 2 : 1) * labelsPerSecond(frameRate))
        return;
    if (follows(from, to, fields, frameRate, tolerance, byFields))
        return;
    ++m_jumps;
    m_latest = labelText(timecode) + " does not follow from " + labelText(*m_last) +
               capture::format(" and %g frames", static_cast<double>(fields) / 2);
}

void TimecodeCheck::group(int timecode, std::uint64_t fields, double frameRate) {
    judge(timecode, fields - m_fieldsAtLast, frameRate, REORDERED, false);
    m_last = timecode;
    m_fieldsAtLast = fields;
}

void TimecodeCheck::frame(const Frame& frame, double frameRate) {
    if (frame.type != 'B' || m_waiting.size() >= MOST_WAITING)
        showWaiting(frameRate);
    m_waiting.push_back(frame);
}

void TimecodeCheck::showWaiting(double frameRate) {
    if (m_waiting.empty())
        return;
    const auto labelled = std::count_if(m_waiting.begin(), m_waiting.end(),
                                        [](const Frame& each) { return each.timecode.has_value(); });
    if (static_cast<std::size_t>(labelled) == m_waiting.size())
        showLabelled(frameRate);
    else
        showSome(frameRate);
    m_waiting.clear();
    m_lost = false;
}

// In the order of showing, which is that of the labels: each must follow from the one before.
void TimecodeCheck::showLabelled(double frameRate) {
    const Label origin(m_last ? *m_last : *m_waiting.front().timecode);
    const std::int64_t perSecond = labelsPerSecond(frameRate);
    std::stable_sort(m_waiting.begin(), m_waiting.end(), [&](const Frame& a, const Frame& b) {
        return distance(origin, Label(*a.timecode), perSecond, false) <
               distance(origin, Label(*b.timecode), perSecond, false);
    });
    const bool announced =
        std::any_of(m_waiting.begin(), m_waiting.end(), [](const Frame& each) { return each.announced; });
    for (const Frame& each : m_waiting) {
        if (!announced)
            judge(*each.timecode, m_fieldsSince, frameRate, m_lost ? LOST : 0, each.byFields);
        m_last = each.timecode;
        m_fieldsSince = each.fields;
    }
}

// Which of the frames is shown when cannot be told of those without a label: only the first one's counts,
// which is shown last.
void TimecodeCheck::showSome(double frameRate) {
    const Frame& anchor = m_waiting.front();
    for (const Frame& each : m_waiting)
        m_fieldsSince += &each == &anchor ? 0 : each.fields;
    if (anchor.timecode) {
        if (!anchor.announced)
            judge(*anchor.timecode, m_fieldsSince, frameRate, m_lost ? LOST : REORDERED, anchor.byFields);
        m_last = anchor.timecode;
        m_fieldsSince = 0;
    }
    m_fieldsSince += anchor.fields;
}

} // namespace kestrel::flowscope
