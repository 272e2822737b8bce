#include "Findings.h"

namespace kestrel::flowscope {

void Findings::add(const std::string& kind, std::string text) {
    ++m_total;
    if (++m_counts[kind] <= mostOfAKind)
        m_first.push_back({kind, std::move(text)});
}

std::uint64_t Findings::count(const std::string& kind) const {
    const auto found = m_counts.find(kind);
    return found == m_counts.end() ? 0 : found->second;
}

} // namespace kestrel::flowscope
