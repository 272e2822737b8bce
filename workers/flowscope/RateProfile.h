// What changes over the stream's time, in a bounded number of equal steps: steps are of one second, and
// double in length when there would be more than can be kept.
#pragma once

#include <cstdint>
#include <vector>

namespace kestrel::flowscope {

// Bytes over time.
class RateProfile {
public:
    // That are kept.
    static constexpr std::size_t mostSteps = 3600;

    // So many bytes at that time in seconds from the beginning; times before it count as the beginning.
    void add(double seconds, std::uint64_t bytes);

    // Seconds of one step.
    [[nodiscard]] int stepSeconds() const noexcept { return m_step; }
    // Bits per second of each step but the last, which is not whole.
    [[nodiscard]] std::vector<double> bitsPerSecond() const;

private:
    std::vector<std::uint64_t> m_bytes;
    int m_step = 1;
};

// The largest value of each step.
class PeakProfile {
public:
    // A value at that time in seconds from the beginning.
    void add(double seconds, double value);

    // Seconds of one step.
    [[nodiscard]] int stepSeconds() const noexcept { return m_step; }
    // Of each step, 0 where there was none.
    [[nodiscard]] const std::vector<double>& peaks() const noexcept { return m_peaks; }

private:
    std::vector<double> m_peaks;
    int m_step = 1;
};

} // namespace kestrel::flowscope
