// What is wrong with a stream, in words: the first of each kind, and how many there were.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace kestrel::flowscope {

struct Finding {
    std::string kind; // "continuity", "transport error", ...
    std::string text; // with packet number and PID where it has them
};

class Findings {
public:
    void add(const std::string& kind, std::string text);

    // At most so many of each kind.
    static constexpr std::size_t mostOfAKind = 50;
    [[nodiscard]] const std::vector<Finding>& first() const noexcept { return m_first; }
    [[nodiscard]] std::uint64_t count(const std::string& kind) const;
    [[nodiscard]] bool empty() const noexcept { return m_first.empty(); }

private:
    std::vector<Finding> m_first;
    std::map<std::string, std::uint64_t> m_counts;
};

} // namespace kestrel::flowscope
