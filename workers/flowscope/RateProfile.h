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
    // Bytes are missing between those times.
    void lose(double from, double to);

    // Seconds of one step.
    [[nodiscard]] int stepSeconds() const noexcept { return m_length; }
    // Bits per second of each step but the last, which is not whole.
    [[nodiscard]] std::vector<double> bitsPerSecond() const;
    // Whether they are all the same within that share of the most, as far as nothing is missing. Not known,
    // and so not, of fewer than two such steps, or where more than every other lacks bytes.
    [[nodiscard]] bool constant(double tolerance) const;

private:
    struct Step {
        std::uint64_t bytes = 0;
        bool lacksSome = false;
    };
    Step& at(double seconds);
    [[nodiscard]] double bitsPerSecond(const Step& step) const;

    std::vector<Step> m_steps;
    int m_length = 1;
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
