#include "OwnLabels.h"

#include <algorithm>
#include <cstdlib>

namespace kestrel::capture {
namespace {

// More other labels than that do not lie among those of the source by the order of coding (ITU-T H.264,
// A.3.1: MaxDpbFrames).
constexpr std::size_t mostKept = 16;

bool near(const std::optional<std::int64_t>& line, std::int64_t other, std::int64_t period) {
    return line && 2 * std::llabs(*line - other) <= period;
}

void append(std::vector<OwnLabels::Range>& ranges, const OwnLabels::Range& more) {
    if (!ranges.empty() && ranges.back().second + 1 == more.first)
        ranges.back().second = more.second;
    else
        ranges.push_back(more);
}

} // namespace

void OwnLabels::trust(std::int64_t line, std::int64_t period) {
    m_line = line;
    m_period = std::max(m_period, period);
    m_own = m_own || near(m_run, line, period);
    confirm();
}

void OwnLabels::begin(const ReturnedLabel& label, bool timecode, bool point, bool possible) {
    const std::int64_t line = label.shown - label.frame * label.period;
    m_back = label.back;
    if (m_back)
        return;
    if (!timecode) {
        if (point && m_own && !m_sparse)
            m_lacking = true;
        m_own = m_own && !m_lacking;
        return;
    }
    m_period = label.period;
    const bool runs = near(m_run, line, label.period);
    const bool goesOn = runs || keeps(line);
    const bool known = near(m_line, line, label.period);
    m_sparse = m_sparse || (runs && m_lacking);
    if (m_lacking && !runs)
        dropRun();
    m_lacking = false;
    m_own = goesOn || known;
    m_run = m_own || possible ? std::optional(line) : std::nullopt;
    if (!m_own)
        return;
    m_line = line;
    confirm();
}

bool OwnLabels::keeps(std::int64_t line) const {
    return std::any_of(m_pending.begin(), m_pending.end(),
                       [&](const Kept& kept) { return near(kept.line, line, m_period); });
}

// What was kept back of the source's has become known.
void OwnLabels::confirm() {
    const auto others = std::stable_partition(m_pending.begin(), m_pending.end(), [this](const Kept& kept) {
        return near(m_line, kept.line, m_period);
    });
    for (auto kept = m_pending.begin(); kept != others; ++kept)
        for (const std::vector<Range>* ranges : {&kept->ranges, &kept->counted})
            for (const Range& range : *ranges)
                append(m_confirmed, range);
    m_pending.erase(m_pending.begin(), others);
}

void OwnLabels::keep(const Range& range) {
    const auto same = std::find_if(m_pending.begin(), m_pending.end(),
                                   [this](const Kept& kept) { return near(m_run, kept.line, m_period); });
    if (same != m_pending.end())
        std::rotate(same, same + 1, m_pending.end());
    else
        m_pending.push_back({*m_run});
    if (m_pending.size() > mostKept)
        m_pending.erase(m_pending.begin());
    append(m_lacking ? m_pending.back().counted : m_pending.back().ranges, range);
}

std::vector<OwnLabels::Range> OwnLabels::kept() const {
    std::vector<Range> all;
    for (const Kept& kept : m_pending)
        all.insert(all.end(), kept.ranges.begin(), kept.ranges.end());
    return all;
}

void OwnLabels::add(std::int64_t first, std::int64_t last) {
    if ((!m_run && !m_back) || first > last)
        return;
    if (own())
        append(m_confirmed, {first, last});
    else
        keep({first, last});
}

void OwnLabels::drop() noexcept {
    m_pending.clear();
    m_confirmed.clear();
}

// Nothing shows that what was counted on was right.
void OwnLabels::dropRun() noexcept {
    std::erase_if(m_pending, [this](const Kept& kept) { return near(m_run, kept.line, m_period); });
}

void OwnLabels::refuse() noexcept {
    if (m_lacking)
        dropRun();
    m_run.reset();
    m_own = m_back = m_lacking = false;
}

void OwnLabels::breakOff() noexcept {
    m_run.reset();
    m_pending.clear();
    m_own = m_back = m_lacking = false;
}

} // namespace kestrel::capture
