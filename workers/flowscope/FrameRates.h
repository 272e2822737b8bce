// Frame rates as fractions.
#pragma once

#include <array>
#include <cmath>
#include <cstdint>

namespace kestrel::flowscope {

// Frames a second; no rate while the numerator is 0.
struct FrameRate {
    std::int64_t numerator = 0;
    std::int64_t denominator = 1;

    [[nodiscard]] constexpr double value() const noexcept {
        return static_cast<double>(numerator) / static_cast<double>(denominator);
    }
    [[nodiscard]] constexpr bool operator==(const FrameRate&) const = default;
    // Whether anything could be shown so: headers can also say centuries a frame.
    [[nodiscard]] constexpr bool plausible() const noexcept {
        return denominator > 0 && numerator >= denominator && numerator / denominator <= 1000;
    }
};

// By frame_rate_code (ISO/IEC 13818-2, table 6-4); 0 is forbidden.
inline constexpr std::array<FrameRate, 9> codedFrameRates{
    {{0, 1}, {24'000, 1001}, {24, 1}, {25, 1}, {30'000, 1001}, {30, 1}, {50, 1}, {60'000, 1001}, {60, 1}}};

// The rate that a measured one stands for: the nearest of the table, else a whole one, else it as it is, in
// thousandths. Nothing measured is no rate.
inline FrameRate nominalFrameRate(double measured) {
    constexpr double TOLERANCE = 4e-4; // less than half of what tells 29.97 from 30
    if (!(measured > 0))
        return {};
    const FrameRate* nearest = nullptr;
    for (const FrameRate& rate : codedFrameRates)
        if (nearest == nullptr || std::abs(rate.value() - measured) < std::abs(nearest->value() - measured))
            nearest = &rate;
    if (std::abs(nearest->value() - measured) <= TOLERANCE * measured)
        return *nearest;
    const double whole = std::round(measured);
    if (std::abs(whole - measured) <= TOLERANCE * measured)
        return {static_cast<std::int64_t>(whole), 1};
    return {std::llround(measured * 1000), 1000};
}

} // namespace kestrel::flowscope
