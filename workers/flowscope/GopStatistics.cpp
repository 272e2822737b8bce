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

int mostFrequent(const std::map<int, std::uint64_t>& counts) {
    const auto best = std::max_element(counts.begin(), counts.end(),
                                       [](const auto& a, const auto& b) { return a.second < b.second; });
    return best == counts.end() ? 0 : best->first;
}

} // namespace

void GopStatistics::frame(char type, bool beginsGroup) {
    if (beginsGroup && m_length > 0)
        closeGroup();
    if (type == 'B') {
        if (m_run >= 0)
            ++m_run;
    } else {
        closeRun();
        m_run = 0;
        m_predicted = m_predicted || type == 'P';
    }
    if (m_length < COMPARED_FRAMES)
        m_current += type;
    ++m_length;
}

// B frames before the first anchor, and those behind the last one, may be cut.
void GopStatistics::closeRun() {
    if (m_run >= 0)
        count(m_runs, m_run);
}

void GopStatistics::closeGroup() {
    ++m_groups;
    // The first group of a stream is shorter: no B frames of an open group come before its I.
    if (m_groups > 1) {
        count(m_sizes, bounded(m_length));
        if (m_pattern.empty())
            m_pattern = m_current;
        else if (m_pattern != m_current)
            m_differing = true;
    } else {
        m_first = m_length;
        m_run = std::max(m_run, 0);
    }
    m_current.clear();
    m_length = 0;
}

int GopStatistics::size() const {
    return m_sizes.empty() ? bounded(std::max(m_first, m_length)) : mostFrequent(m_sizes);
}

std::string GopStatistics::structure() const {
    const std::string between(static_cast<std::size_t>(mostFrequent(m_runs)), 'B');
    if (m_predicted)
        return "I" + between + "P";
    return between.empty() ? "I" : "I" + between;
}

} // namespace kestrel::flowscope
