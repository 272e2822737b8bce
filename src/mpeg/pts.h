// Timestamps of transport streams.
#pragma once

#include <cstdint>

// A count of 1/360 000 s, a quarter of a tick of the 90 kHz clock: in this unit a frame lasts a whole number
// at every MPEG-2 frame rate. Timestamps read from a stream are 33-bit 90 kHz counts times 4. -1 means that
// the timestamp is absent.
//
// Converts from and to its count, so timestamps compare and subtract as counts do (not aware of the wrap of
// the 33-bit clock).
class PTS {
public:
    // Units of the count in a second.
    static constexpr std::int64_t units_per_second = 360'000;

    // Absent.
    constexpr PTS() noexcept = default;
    // Of a count of 1/360 000 s.
    constexpr PTS(std::int64_t count) noexcept : m_count(count) {}
    // The count.
    constexpr operator std::int64_t() const noexcept { return m_count; }

    // Whether the count is -1.
    [[nodiscard]] constexpr bool is_absent() const noexcept { return m_count == -1; }
    // In ticks of 90 kHz: a quarter of the count, rounded to the nearest, halves upward.
    [[nodiscard]] constexpr std::int64_t ticks() const noexcept { return ((m_count >> 1) + 1) >> 1; }
    // From ticks of 90 kHz.
    static constexpr PTS from_ticks(std::int64_t ticks) noexcept { return {ticks * 4}; }

private:
    std::int64_t m_count = -1;
};
