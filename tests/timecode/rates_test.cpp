// The frame-rate codes and the helpers on them.
#include "timecode_log.h"

#include <array>
#include <cmath>
#include <cstdlib>
#include <gmock/gmock.h>
#include <limits>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

struct Rate {
    int code;
    double fps;
    int ceil;
    bool integral;
    bool drop;
    int perDay;
};

constexpr std::array<Rate, 8> rates{{
    {1, 24000.0 / 1001.0, 24, false, true, 2071008},
    {2, 24.0, 24, true, false, 24 * 86400},
    {3, 25.0, 25, true, false, 25 * 86400},
    {4, 30000.0 / 1001.0, 30, false, true, 2589408},
    {5, 30.0, 30, true, false, 30 * 86400},
    {6, 50.0, 50, true, false, 50 * 86400},
    {7, 60000.0 / 1001.0, 60, false, true, 5178816},
    {8, 60.0, 60, true, false, 60 * 86400},
}};

constexpr std::array<int, 5> unsupportedCodes{0, 9, -1, std::numeric_limits<int>::min(),
                                              std::numeric_limits<int>::max()};

} // namespace

TEST(FrameRates, EveryCodeOfTheTable) {
    TimecodeLog log;
    for (const Rate& r : rates) {
        SCOPED_TRACE(r.code);
        EXPECT_TRUE(mpeg_timecode::supportedFrameRate(r.code));
        EXPECT_EQ(mpeg_timecode::fps(r.code), r.fps);
        EXPECT_EQ(mpeg_timecode::fps_ceil(r.code), r.ceil);
        EXPECT_EQ(mpeg_timecode::IsFrameRateIntegral(r.code), r.integral);
        EXPECT_EQ(mpeg_timecode::frameRateCodeToDropFrame(r.code), r.drop);
        EXPECT_EQ(mpeg_timecode::rollover_frames_count(false, r.code), r.perDay);
        EXPECT_EQ(mpeg_timecode::rollover_frames_count(true, r.code), r.perDay);
    }
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(FrameRates, UnsupportedCodesGiveNeutralValuesAndAreLogged) {
    TimecodeLog log;
    for (const int code : unsupportedCodes) {
        SCOPED_TRACE(code);
        EXPECT_FALSE(mpeg_timecode::supportedFrameRate(code));
        EXPECT_FALSE(mpeg_timecode::IsFrameRateIntegral(code));
        EXPECT_THAT(log.lines(), IsEmpty());

        EXPECT_EQ(mpeg_timecode::fps(code), 0.0);
        EXPECT_THAT(log.errors(), ElementsAre(invalidCode(code, "fps")));

        EXPECT_TRUE(mpeg_timecode::frameRateCodeToDropFrame(code));
        EXPECT_THAT(log.errors(), ElementsAre(invalidCode(code, "frameRateCodeToDropFrame")));

        EXPECT_EQ(mpeg_timecode::rollover_frames_count(true, code), 0);
        EXPECT_THAT(log.errors(), ElementsAre(invalidCode(code, "rollover_frames_count")));
    }
}

// The counter is one per process, so the count starts afresh only in a process of its own.
TEST(FrameRatesDeathTest, FpsCeilLogsOnlyTheFirstFiveUnsupportedCodesOfAProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            TimecodeLog log;
            bool right = true;
            for (int i = 0; i < 5; ++i) {
                right = right && mpeg_timecode::fps_ceil(9) == 0;
                right = right && log.errors() == std::vector{invalidCode(9, "fps_ceil")};
            }
            for (int i = 0; i < 100; ++i)
                right = right && mpeg_timecode::fps_ceil(9) == 0;
            right = right && log.lines().empty();
            std::_Exit(right ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

TEST(FrameRates, CodeOfAMeasuredRate) {
    const struct {
        double fps;
        int code;
    } cases[] = {
        {0.0, 0},          {-0.0, 0},   {-1.0, 1},   {-std::numeric_limits<double>::infinity(), 1},
        {1.0, 1},          {23.976, 1}, {23.999, 1}, {24.0, 2},
        {24.5, 4},         {25.0, 3},   {25.001, 4}, {29.97, 4},
        {29.999, 4},       {30.0, 5},   {30.001, 7}, {40.0, 7},
        {50.0, 6},         {50.001, 7}, {59.94, 7},  {60.0, 8},
        {60.001, 0},       {61.0, 0},   {1e300, 0},  {std::numeric_limits<double>::infinity(), 0},
        {std::nan(""), 0},
    };
    for (const auto& c : cases)
        EXPECT_EQ(mpeg_timecode::GetFrameRateCode(c.fps), c.code) << c.fps;
}

TEST(FrameRates, CodeOfTheExactRateIsTheCode) {
    for (const Rate& r : rates)
        EXPECT_EQ(mpeg_timecode::GetFrameRateCode(mpeg_timecode::fps(r.code)), r.code);
}
