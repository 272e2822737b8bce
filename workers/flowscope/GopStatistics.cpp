#include "GopStatistics.h"

#include <algorithm>

namespace kestrel::flowscope {
namespace {

// Frames of a group that are compared; a longer one is compared by its length alone.
constexpr std::size_t COMPARED_FRAMES = 1024;
// Different sizes that are counted, and the longest; a hostile stream has no more effect.
constexpr std::size_t MOST_SIZES = 4096;
constexpr std::size_t LONGEST = 1'000'000;

int bounded(std::size_t length) {
    return static_cast<int>(std::min(length, LONGEST));
}

void count(std::map<int, std::uint64_t>& counts, int value) {
    if (counts.size() < MOST_SIZES || counts.contains(value))
        ++counts[value];
}

int mostFrequent(const std::map<int, std::uint64_t>& whole, const std::map<int, std::uint64_t>& lossy) {
    const auto& counts = whole.empty() ? lossy : whole;
    const auto best = std::max_element(counts.begin(), counts.end(),
                                       [](const auto& a, const auto& b) { return a.second < b.second; });
    return best == counts.end() ? 0 : best->first;
}

} // namespace

void GopStatistics::frame(char type, bool beginsGroup) {
    // What a group lacks at its beginning is not known, either.
    const bool behindLoss = m_lossAhead > 0;
    if (beginsGroup && m_length > 0) {
        closeGroup();
        m_lossy = behindLoss;
    }
    if (type == 'B') {
        if (m_run >= 0)
            ++m_run;
    } else {
        closeRun();
        m_run = 0;
        m_lossyRun = m_lossAhead > 1;
        m_predicted = m_predicted || type == 'P';
    }
    if (m_length < COMPARED_FRAMES)
        m_current += type;
    ++m_length;
    m_lossAhead -= behindLoss ? 1 : 0;
}

void GopStatistics::lose(bool oneBegun) {
    m_lossy = m_lossyRun = true;
    m_lossAhead = std::max(m_lossAhead, oneBegun ? 2U : 1U);
}

// B frames before the first anchor, and those behind the last one, may be cut.
void GopStatistics::closeRun() {
    if (m_run >= 0)
        count(m_lossyRun ? m_lossyRuns : m_runs, m_run);
}

void GopStatistics::closeGroup() {
    ++m_groups;
    // The first group of a stream is shorter: no B frames of an open group come before its I.
    if (m_groups > 1) {
        count(m_lossy ? m_lossySizes : m_sizes, bounded(m_length));
        if (!m_lossy && m_pattern.empty())
            m_pattern = m_current;
        m_differing = m_differing || (!m_lossy && m_pattern != m_current);
    } else {
        m_first = m_length;
        m_run = std::max(m_run, 0);
    }
    m_current.clear();
    m_length = 0;
}

int GopStatistics::size() const {
    const bool none = m_sizes.empty() && m_lossySizes.empty();
    return none ? bounded(std::max(m_first, m_length)) : mostFrequent(m_sizes, m_lossySizes);
}

std::string GopStatistics::structure() const {
    const std::string between(static_cast<std::size_t>(mostFrequent(m_runs, m_lossyRuns)), 'B');
    if (m_predicted)
        return "I" + between + "P";
    return between.empty() ? "I" : "I" + between;
}

} // namespace kestrel::flowscope
