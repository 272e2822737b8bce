#include "SourceLabels.h"

#include "mpeg/pts.h"

#include <cstdlib>

namespace kestrel::capture {
namespace {

// How much earlier than its time of display a frame may be on its way: a decoder's buffer is filled before.
constexpr auto early =
    std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(lostSeconds));

// Pictures that are shown before the first one, but coded behind it, tell nothing: what passes a stream on as
// it is returns them too.
constexpr std::int64_t mostReordered = 4;

std::int64_t unitsOf(Clock::duration time) {
    return std::chrono::duration_cast<std::chrono::microseconds>(time).count() * PTS::units_per_second /
           1'000'000;
}

std::int64_t lineOf(const ReturnedLabel& label) {
    return label.shown - label.frame * label.period;
}

bool near(const std::optional<std::int64_t>& other, const ReturnedLabel& label, std::int64_t halfFrames) {
    return other && std::llabs(*other - lineOf(label)) <= halfFrames * label.period / 2;
}

} // namespace

bool SourceLabels::possible(const ReturnedLabel& label) const {
    return label.period > 0 && label.since >= Clock::duration::zero() && label.frame >= 0 &&
           label.frame * label.period <= unitsOf(label.since + early) + m_unplayed &&
           !near(m_before, label, 2) && !near(m_refused, label, 2);
}

bool SourceLabels::confirms(const ReturnedLabel& label) {
    if (label.since < Clock::duration::zero()) {
        m_before = lineOf(label);
        return false;
    }
    if (label.frame < 0 && label.frame >= -mostReordered)
        return false;
    const bool late = label.frame * label.period < unitsOf(label.since - m_longestReturn);
    if (late || !possible(label)) {
        m_refused = lineOf(label);
        refuse();
        return false;
    }
    ++m_taken;
    const bool confirmed = near(m_line, label, 1);
    m_line = lineOf(label);
    return confirmed;
}

void SourceLabels::refuse() noexcept {
    m_line.reset();
}

} // namespace kestrel::capture
