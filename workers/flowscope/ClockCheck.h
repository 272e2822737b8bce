// The program's clock: intervals, jumps and jitter of its references (ISO/IEC 13818-1, 2.4.2.1 and 2.7.2).
#pragma once

#include <cstdint>
#include <vector>

namespace kestrel::flowscope {

class ClockCheck {
public:
    // A reference in ticks of 27 MHz, in that packet.
    void reference(std::int64_t pcr, std::int64_t packet);

    [[nodiscard]] std::uint64_t count() const noexcept { return m_count; }
    [[nodiscard]] double longestIntervalMs() const noexcept {
        return static_cast<double>(m_longest) / 27'000;
    }
    // Intervals over the 100 ms of 2.7.2.
    [[nodiscard]] std::uint64_t tooLong() const noexcept { return m_tooLong; }
    // References that go back or ahead by more than a second.
    [[nodiscard]] std::uint64_t jumps() const noexcept { return m_jumps; }
    // Largest distance of a reference from where a constant rate between the first and the last would put it,
    // in microseconds; 0 where there are too few or the clock jumped. Only a multiplex of constant rate is
    // held to it.
    [[nodiscard]] double jitterUs() const;

private:
    struct Sample {
        std::int64_t pcr;
        std::int64_t packet;
    };

    std::uint64_t m_count = 0;
    std::uint64_t m_tooLong = 0;
    std::uint64_t m_jumps = 0;
    std::int64_t m_longest = 0;
    std::int64_t m_last = -1;
    std::int64_t m_turns = 0; // of the counter, in ticks
    std::vector<Sample> m_samples;
    std::uint64_t m_every = 1; // a sample is kept of so many references
};

} // namespace kestrel::flowscope
