// Every label of the day, and the built-in self-test.
#include "timecode_log.h"

#include <gmock/gmock.h>

using testing::HasSubstr;
using testing::IsEmpty;

class WholeDay : public testing::TestWithParam<int> {};

// Stepping, counting and adding are three ways to the same label.
TEST_P(WholeDay, SteppingVisitsEveryFrameNumberOnce) {
    const int code = GetParam();
    const bool drop = mpeg_timecode::frameRateCodeToDropFrame(code);
    const mpeg_timecode midnight(0, 0, 0, 0, drop, code);
    const int day = mpeg_timecode::rollover_frames_count(drop, code);
    mpeg_timecode stepped = midnight;
    for (int i = 0; i < day; ++i) {
        if (stepped.frame_count() != i || !(midnight + i == stepped) ||
            !mpeg_timecode::IsTimecodeValid(stepped.hours, stepped.minutes, stepped.seconds, stepped.frames,
                                            code))
            FAIL() << "frame " << i << " is " << label(stepped) << ", counted as " << stepped.frame_count()
                   << ", computed as " << label(midnight + i);
        mpeg_timecode::IncTimeCode(stepped.hours, stepped.minutes, stepped.seconds, stepped.frames, drop,
                                   code);
    }
    EXPECT_EQ(stepped, midnight);
}

INSTANTIATE_TEST_SUITE_P(Codes, WholeDay, testing::Values(7, 1, 4, 5, 3));

TEST(SelfTest, Passes) {
    TimecodeLog log;
    EXPECT_EQ(mpeg_timecode::testHarness(), 0);
    for (const std::string& line : log.lines())
        EXPECT_THAT(line, HasSubstr("CaptureTests:Info")) << "no mismatch is reported";
}

TEST(SelfTest, WalksTheDayOfACode) {
    TimecodeLog log;
    EXPECT_EQ(mpeg_timecode::testEntireTimeCodeRange(3, true), 0);
    EXPECT_EQ(mpeg_timecode::testEntireTimeCodeRange(4, false), 0);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(SelfTest, AMismatchIsLogged) {
    TimecodeLog log;
    EXPECT_TRUE(mpeg_timecode::assertEquals(5, 5));
    EXPECT_THAT(log.lines(), IsEmpty());
    EXPECT_FALSE(mpeg_timecode::assertEquals(5, -6));
    const auto lines = log.lines();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_THAT(lines[0], HasSubstr("[mpegParseLib:Info] \t5 != -6"));
}
