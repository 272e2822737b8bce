// Every label of the day, and the built-in self-test.
#include "timecode/time_code_range_check.h"
#include "timecode_log.h"

#include <gmock/gmock.h>
#include <set>

using testing::Each;
using testing::ElementsAre;
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

// --- the walk through the day, with steps that are wrong on purpose

class WrongSteps : public testing::Test {
protected:
    static void stepRight(mpeg_timecode& label) {
        mpeg_timecode::IncTimeCode(label.hours, label.minutes, label.seconds, label.frames, label.dropFrame,
                                   label.frameRateCode);
    }
    // Walks with labels that are one frame off at these frame numbers, and right at all others.
    static int walkWrongAt(const std::set<int>& frames, int code) {
        int frame = 0;
        return kestrel::check_time_code_range(code, false, [&](mpeg_timecode& label) {
            label = mpeg_timecode::from_frames(++frame, false, code);
            if (frames.count(frame) != 0)
                label = label + 1;
        });
    }

    TimecodeLog log;
};

TEST_F(WrongSteps, NineMismatchesAreToleratedTenAreNot) {
    // The day's last step, back to midnight, is compared by its number alone: the ninth.
    const int day = mpeg_timecode::rollover_frames_count(false, 3);
    EXPECT_EQ(walkWrongAt({50, 51, 100, 200, day}, 3), 0) << "nine";
    const std::vector<std::string> lines = log.lines();
    ASSERT_EQ(lines.size(), 9U);
    EXPECT_EQ(lines[0], "[mpegParseLib:Info] \t50 != 51") << "a wrong label is a mismatch of its number";
    EXPECT_EQ(lines[1], "[mpegParseLib:Info] \tframe 50: 00:00:02:01 != 00:00:02:00") << "and of its fields";
    EXPECT_EQ(lines[8], "[mpegParseLib:Info] \t0 != 1");
    EXPECT_EQ(walkWrongAt({10, 20, 30, 40, 50}, 3), 1) << "ten";
    EXPECT_EQ(log.lines().size(), 10U);
}

TEST_F(WrongSteps, TheWalkEndsWithTheTenthMismatch) {
    int steps = 0;
    EXPECT_EQ(kestrel::check_time_code_range(3, false,
                                             [&](mpeg_timecode& label) {
                                                 ++steps;
                                                 stepRight(label);
                                                 stepRight(label); // twice as fast
                                             }),
              1);
    EXPECT_EQ(steps, 5) << "labels 1 to 5 are wrong, two mismatches each";
    EXPECT_EQ(log.lines().size(), 10U);
}

TEST_F(WrongSteps, StepsThatForgetTheDroppedLabelsFail) {
    for (const int code : {1, 4, 7}) {
        EXPECT_EQ(kestrel::check_time_code_range(
                      code, true,
                      [](mpeg_timecode& label) {
                          const int labels = mpeg_timecode::fps_ceil(label.frameRateCode);
                          const int integral = labels == 24 ? 2 : labels == 30 ? 5 : 8;
                          mpeg_timecode::IncTimeCode(label.hours, label.minutes, label.seconds, label.frames,
                                                     label.dropFrame, integral);
                      }),
                  1)
            << code;
        EXPECT_THAT(log.lines(), Each(HasSubstr("[mpegParseLib:Info] ")));
    }
}

TEST_F(WrongSteps, ADifferentFlagOrCodeIsAMismatchOfTheFieldsAlone) {
    EXPECT_EQ(kestrel::check_time_code_range(3, false,
                                             [](mpeg_timecode& label) {
                                                 stepRight(label);
                                                 label.dropFrame = true;
                                             }),
              1);
    EXPECT_THAT(log.lines(), Each(HasSubstr("frame "))) << "the numbers agree";
}

TEST(SelfTest, ACodeWithoutARateHasNoDayToWalk) {
    TimecodeLog log;
    EXPECT_EQ(mpeg_timecode::testEntireTimeCodeRange(9, false), 0);
    for (const std::string& line : log.errors())
        EXPECT_TRUE(line.find("Frame Rate Code 9 ") != std::string::npos ||
                    line.find("Time code out of bounds:  0:0:0:0 ") != std::string::npos)
            << line;
}

TEST(SelfTest, FailsWithEachWrongResultInTheLogAndTheirNumberAtItsEnd) {
    TimecodeLog log;
    kestrel::TimecodeChecks checks;
    checks.label(mpeg_timecode("01:00:00:00", false, 3), "01:00:00:00");
    checks.number(7, 7);
    EXPECT_THAT(log.lines(), IsEmpty());
    checks.label(mpeg_timecode("01:00:00:00", false, 3) + 1, "01:00:00:02");
    checks.number(7, 8);
    EXPECT_EQ(checks.finish(), 1);
    EXPECT_THAT(log.lines(),
                ElementsAre("[mpegParseLib:Info] \t01:00:00:02 != 01:00:00:01",
                            "[mpegParseLib:Info] \t7 != 8", "[CaptureTests:Info] Timecode tests: 2 failed"));
}

TEST(SelfTest, PassesAndTellsOfNothingButItsBeginningAndItsEnd) {
    TimecodeLog log;
    EXPECT_EQ(mpeg_timecode::testHarness(), 0);
    EXPECT_THAT(log.lines(), ElementsAre("[CaptureTests:Info] Timecode tests",
                                         "[CaptureTests:Info] Timecode tests: 0 failed"));
}
