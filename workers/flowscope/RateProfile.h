// Bytes over the stream's time, in a bounded number of equal steps.
#pragma once

#include <cstdint>
#include <vector>

namespace kestrel::flowscope {

// Steps are of one second, and double in length when there would be more than can be kept.
class RateProfile {
public:
    static constexpr std::size_t mostSteps = 3600;

    // So many bytes at that time in seconds from the beginning; times before it count as the beginning.
    void add(double seconds, std::uint64_t bytes);

    [[nodiscard]] int stepSeconds() const noexcept { return m_step; }
    // Bits per second of each step but the last, which is not whole.
    [[nodiscard]] std::vector<double> bitsPerSecond() const;

private:
    std::vector<std::uint64_t> m_bytes;
    int m_step = 1;
};

} // namespace kestrel::flowscope
