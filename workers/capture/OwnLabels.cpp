#include "OwnLabels.h"

#include <cstdlib>

namespace kestrel::capture {
namespace {

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
    if (!m_own && near(m_run, line, period))
        confirm();
}

void OwnLabels::begin(const ReturnedLabel& label, bool timecode, bool point, bool possible) {
    if (!timecode) {
        if (point && m_own && !m_sparse)
            m_lacking = true;
        m_own = m_own && !m_lacking;
        return;
    }
    const std::int64_t line = label.shown - label.frame * label.period;
    const bool goesOn = near(m_run, line, label.period);
    const bool known = near(m_line, line, label.period);
    if (!goesOn) {
        m_pending.clear();
        m_own = false;
        m_run.reset();
    }
    m_sparse = m_sparse || (goesOn && m_lacking);
    m_lacking = false;
    if (goesOn || known || possible)
        m_run = line;
    if (goesOn || known)
        confirm();
}

void OwnLabels::confirm() {
    m_line = m_run;
    m_own = true;
    for (const Range& range : std::exchange(m_pending, {}))
        append(m_confirmed, range);
}

void OwnLabels::add(std::int64_t first, std::int64_t last) {
    if (m_run && first <= last)
        append(m_own ? m_confirmed : m_pending, {first, last});
}

void OwnLabels::drop() noexcept {
    m_pending.clear();
    m_confirmed.clear();
}

void OwnLabels::breakOff() noexcept {
    m_run.reset();
    m_pending.clear();
    m_own = m_lacking = false;
}

} // namespace kestrel::capture
