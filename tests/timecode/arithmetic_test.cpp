// Frame numbers and the operators: reference triples at the edges, in both directions.
#include "timecode_log.h"

#include <climits>
#include <gmock/gmock.h>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

// label + n is sum, and sum - n is label.
struct Step {
    int code;
    bool drop;
    const char* label;
    int n;
    const char* sum;
};

constexpr Step steps[] = {
    // 25, the flag without a say
    {3, true, "23:59:59;24", 1, "00:00:00;00"},
    {3, true, "23:59:59;24", 2, "00:00:00;01"},
    {3, true, "23:59:59;24", 25, "00:00:00;24"},
    {3, true, "23:59:59;24", 1500, "00:00:59;24"},
    {3, true, "23:59:59;24", 90000, "00:59:59;24"},
    {3, false, "23:59:59:24", 1, "00:00:00:00"},
    {3, false, "00:00:00:00", 2160000, "00:00:00:00"},
    // 24
    {2, false, "00:00:59:23", 1, "00:01:00:00"},
    // 30
    {5, false, "23:59:59:29", 1, "00:00:00:00"},
    {5, false, "00:01:00:01", 1, "00:01:00:02"},
    {5, false, "00:00:59:29", 1, "00:01:00:00"},
    // 29.97
    {4, true, "23:59:59;29", 1, "00:00:00;00"},
    {4, true, "23:59:59;28", 1, "23:59:59;29"},
    {4, true, "00:09:59;28", 1, "00:09:59;29"},
    {4, true, "00:09:59;29", 1, "00:10:00;00"},
    {4, true, "00:10:00;01", 1, "00:10:00;02"},
    {4, true, "00:00:59;29", 1, "00:01:00;02"},
    {4, true, "00:08:59;29", 1, "00:09:00;02"},
    {4, true, "00:59:59;29", 1, "01:00:00;00"},
    {4, true, "00:00:00;00", 17982, "00:10:00;00"},
    {4, true, "00:00:00;00", 107892, "01:00:00;00"},
    {4, true, "00:00:00;00", 2589408, "00:00:00;00"},
    // the counting rule follows the code, not the flag
    {4, false, "00:00:59:29", 1, "00:01:00:02"},
    // 23.976
    {1, true, "23:59:59;23", 1, "00:00:00;00"},
    {1, true, "00:00:59;23", 1, "00:01:00;02"},
    {1, true, "00:09:59;23", 1, "00:10:00;00"},
    {1, true, "00:00:00;00", 14382, "00:10:00;00"},
    {1, true, "00:00:00;00", 86292, "01:00:00;00"},
    // 59.94
    {7, true, "23:59:59;59", 1, "00:00:00;00"},
    {7, true, "00:00:59;59", 1, "00:01:00;04"},
    {7, true, "00:09:59;59", 1, "00:10:00;00"},
    {7, true, "00:00:00;00", 35964, "00:10:00;00"},
    {7, true, "00:00:00;00", 215784, "01:00:00;00"},
    // 50 and 60
    {6, false, "23:59:59:49", 1, "00:00:00:00"},
    {8, false, "23:59:59:59", 1, "00:00:00:00"},
};

mpeg_timecode at(const char* text, int code, bool drop = true) {
    return {text, drop, code};
}

} // namespace

TEST(Arithmetic, StepsBothWaysAtTheEdges) {
    TimecodeLog log;
    for (const Step& s : steps) {
        const mpeg_timecode from(s.label, s.drop, s.code);
        const mpeg_timecode to(s.sum, s.drop, s.code);
        EXPECT_EQ(label(from + s.n), s.sum) << "code " << s.code << ' ' << s.label << " + " << s.n;
        EXPECT_EQ(from + s.n, to);
        EXPECT_EQ(to - s.n, from) << "code " << s.code << ' ' << s.sum << " - " << s.n;
        EXPECT_EQ(to + -s.n, from);
        EXPECT_EQ(from - -s.n, to);
    }
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(Arithmetic, TwoForwardOneBackIsOneForward) {
    const mpeg_timecode last(23, 59, 59, 24, true, 3);
    EXPECT_EQ((last + 2) - 1, last + 1);
}

TEST(Arithmetic, TimecodesSubtractAsFrameNumbers) {
    EXPECT_EQ(label(at("20:04:52;22", 4) - at("20:00:00;00", 4)), "00:04:52;22");
    EXPECT_EQ(label(at("00:05:00:00", 5, false) - at("00:00:01:10", 5, false)), "00:04:58:20");
    EXPECT_EQ(label(at("00:00:00:00", 5, false) - at("00:00:00:01", 5, false)), "23:59:59:29");
}

TEST(Arithmetic, TimecodesAddAsFrameNumbers) {
    EXPECT_EQ(label(at("00:04:52;22", 4) + at("20:00:00;00", 4)), "20:04:52;22");
    EXPECT_EQ(label(at("23:59:59:29", 5, false) + at("00:00:00:02", 5, false)), "00:00:00:01");
}

TEST(Arithmetic, TheResultIsOfTheLeftOperandsKind) {
    const mpeg_timecode left(0, 0, 1, 0, true, 3);
    const mpeg_timecode right(0, 0, 1, 0, false, 8); // 60 frames
    EXPECT_EQ(fields(left + right), "0 0 3 10 1 3");
    EXPECT_EQ(fields(right - left), "0 0 0 35 0 8");
}

TEST(Arithmetic, OrderFollowsFrameNumbersWithoutRegardToTheCodes) {
    const mpeg_timecode small(0, 0, 1, 0, false, 3);  // frame 25
    const mpeg_timecode same(0, 0, 0, 25, false, 8);  // frame 25
    const mpeg_timecode large(0, 0, 0, 26, false, 8); // frame 26
    EXPECT_LT(small, large);
    EXPECT_FALSE(small < same);
    EXPECT_FALSE(large < small);
    EXPECT_LE(small, same);
    EXPECT_LE(small, large);
    EXPECT_FALSE(large <= small);
    EXPECT_GT(large, small);
    EXPECT_FALSE(same > small);
    EXPECT_GE(same, small);
    EXPECT_GE(large, small);
    EXPECT_FALSE(small >= large);
}

TEST(FrameNumbers, ReferenceValues) {
    const struct {
        int code;
        const char* label;
        int number;
    } cases[] = {
        {4, "23:59:59;29", 2589407}, {4, "00:01:00;02", 1800},   {4, "00:09:59;29", 17981},
        {4, "00:10:00;00", 17982},   {4, "01:00:00;00", 107892}, {4, "00:02:00;02", 3598},
        {7, "00:01:00;04", 3600},    {7, "00:10:00;00", 35964},  {7, "23:59:59;59", 5178815},
        {1, "00:01:00;02", 1440},    {1, "00:10:00;00", 14382},  {1, "23:59:59;23", 2071007},
        {2, "23:59:59;23", 2073599}, {3, "01:02:03;04", 93079},  {5, "00:01:00;00", 1800},
        {6, "00:00:01;01", 51},      {8, "00:01:00;00", 3600},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(at(c.label, c.code).frame_count(), c.number) << c.code << ' ' << c.label;
        EXPECT_EQ(label(mpeg_timecode::from_frames(c.number, true, c.code)), c.label) << c.code;
    }
}

TEST(FrameNumbers, NumbersOutsideTheDayWrapIntoIt) {
    TimecodeLog log;
    for (int code = 1; code <= 8; ++code) {
        const int day = mpeg_timecode::rollover_frames_count(false, code);
        const mpeg_timecode expected = mpeg_timecode::from_frames(day - 12345, false, code);
        EXPECT_EQ(mpeg_timecode::from_frames(-12345, false, code), expected) << code;
        EXPECT_EQ(mpeg_timecode::from_frames(-12345 - 3 * day, false, code), expected) << code;
        EXPECT_EQ(mpeg_timecode::from_frames(5 * day - 12345, false, code), expected) << code;
    }
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(FrameNumbers, ExtremeNumbersWrapToo) {
    TimecodeLog log;
    for (int code = 1; code <= 8; ++code) {
        const long long day = mpeg_timecode::rollover_frames_count(false, code);
        for (const int n : {INT_MIN, INT_MIN + 1, INT_MAX}) {
            const long long inDay = ((n % day) + day) % day;
            EXPECT_EQ(mpeg_timecode::from_frames(n, false, code).frame_count(), inDay) << code << ' ' << n;
        }
        // INT_MIN has no counterpart of the other sign.
        const mpeg_timecode midnight(0, 0, 0, 0, false, code);
        EXPECT_EQ((midnight - INT_MIN).frame_count(), (-static_cast<long long>(INT_MIN)) % day) << code;
        const mpeg_timecode one(0, 0, 0, 1, false, code);
        EXPECT_EQ((one + INT_MAX).frame_count(), (static_cast<long long>(INT_MAX) + 1) % day) << code;
    }
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(FrameNumbers, ExtremeFieldsAreDefined) {
    for (int code = 1; code <= 8; ++code) {
        for (const int extreme : {INT_MIN, INT_MAX}) {
            mpeg_timecode tc;
            tc.frameRateCode = code;
            tc.hours = tc.minutes = tc.seconds = tc.frames = extreme;
            tc.frame_count();
            const mpeg_timecode sum = tc + tc;
            EXPECT_TRUE(
                mpeg_timecode::IsTimecodeValid(sum.hours, sum.minutes, sum.seconds, sum.frames, code));
            EXPECT_GE(sum.frame_count(), 0);
        }
    }
}

TEST(FrameNumbers, UnsupportedCodeIsNeutral) {
    TimecodeLog log;
    EXPECT_EQ(at("01:02:03:04", 0).frame_count(), 0);
    EXPECT_THAT(log.errors(), ElementsAre(invalidCode(0, "frame_count")));
    EXPECT_EQ(fields(mpeg_timecode::from_frames(-5, true, 9)), "0 0 0 0 0 5");
    EXPECT_THAT(log.errors(), ElementsAre(invalidCode(9, "from_frames")));
    EXPECT_EQ(fields(at("01:02:03:04", 9) + 1), "0 0 0 0 0 5");
    EXPECT_THAT(log.errors(), ElementsAre(invalidCode(9, "frame_count"), invalidCode(9, "from_frames")));
}
