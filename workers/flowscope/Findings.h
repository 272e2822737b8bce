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

// A file may have millions of them: the texts of the first ones are kept, and the numbers of all.
class Findings {
public:
    // One more of that kind; text is kept while there are not too many.
    void add(const std::string& kind, std::string text);

    // Texts that are kept of each kind.
    static constexpr std::size_t mostOfAKind = 50;
    // In the order in which they were found.
    [[nodiscard]] const std::vector<Finding>& first() const noexcept { return m_first; }
    // How many there were of a kind, and of every kind, and of all together.
    [[nodiscard]] std::uint64_t count(const std::string& kind) const;
    [[nodiscard]] const std::map<std::string, std::uint64_t>& counts() const noexcept { return m_counts; }
    [[nodiscard]] std::uint64_t total() const noexcept { return m_total; }
    [[nodiscard]] bool empty() const noexcept { return m_first.empty(); }

private:
    std::vector<Finding> m_first;
    std::map<std::string, std::uint64_t> m_counts;
    std::uint64_t m_total = 0;
};

} // namespace kestrel::flowscope
