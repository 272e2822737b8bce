// The MPEG-2 frame rates (ISO/IEC 13818-2, table 6-4) and their drop-frame counting constants.
#pragma once

#include <array>
#include <cstddef>

namespace kestrel {

// One row of the table. The numbers of frames are those of drop-frame counting where labels are dropped.
struct FrameRate {
    double fps;          // frames a second
    int labelsPerSecond; // fps, rounded up
    // Labels dropped at the start of each minute that is no multiple of ten; 0 for an integral rate.
    int droppedLabels;

    // Whether no labels are dropped.
    constexpr bool integral() const { return droppedLabels == 0; }
    // Frames of a minute divisible by ten, and of any other.
    constexpr int framesPerTensMinute() const { return labelsPerSecond * 60; }
    constexpr int framesPerDroppingMinute() const { return framesPerTensMinute() - droppedLabels; }
    // Frames of one of the first kind and nine of the second, of an hour, of a day.
    constexpr int framesPerTenMinutes() const {
        return framesPerTensMinute() + 9 * framesPerDroppingMinute();
    }
    constexpr int framesPerHour() const { return 6 * framesPerTenMinutes(); }
    constexpr int framesPerDay() const { return 24 * framesPerHour(); }
};

// The code of the table's first row.
inline constexpr int firstFrameRateCode = 1;

// By frame_rate_code, from 1. 23.976 is deliberately counted like 29.97, two labels dropped a minute.
inline constexpr std::array<FrameRate, 8> frameRates{{
    {24000.0 / 1001.0, 24, 2},
    {24.0, 24, 0},
    {25.0, 25, 0},
    {30000.0 / 1001.0, 30, 2},
    {30.0, 30, 0},
    {50.0, 50, 0},
    {60000.0 / 1001.0, 60, 4},
    {60.0, 60, 0},
}};

// The row of a frame_rate_code; null for a code outside the table.
constexpr const FrameRate* findFrameRate(int code) {
    if (code < firstFrameRateCode || code > static_cast<int>(frameRates.size()))
        return nullptr;
    return &frameRates[static_cast<std::size_t>(code - firstFrameRateCode)];
}

static_assert(findFrameRate(4)->framesPerDroppingMinute() == 1798 &&
              findFrameRate(4)->framesPerDay() == 2589408);
static_assert(findFrameRate(7)->framesPerDroppingMinute() == 3596 &&
              findFrameRate(7)->framesPerDay() == 5178816);
static_assert(findFrameRate(1)->framesPerDroppingMinute() == 1438 &&
              findFrameRate(1)->framesPerDay() == 2071008);
static_assert(findFrameRate(3)->framesPerDay() == 25 * 86400);

} // namespace kestrel
