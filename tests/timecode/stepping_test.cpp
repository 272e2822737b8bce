// Bounds, drop-frame validity and skipping, stepping and counting.
#include "timecode_log.h"

#include <climits>
#include <gmock/gmock.h>

using testing::Each;
using testing::IsEmpty;

namespace {

struct Time {
    int h, m, s, f;
    bool operator==(const Time&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Time& t) {
    return out << t.h << ':' << t.m << ':' << t.s << ':' << t.f;
}

Time next(Time t, int code, bool drop = false) {
    mpeg_timecode::IncTimeCode(t.h, t.m, t.s, t.f, drop, code);
    return t;
}

Time advanced(int n, Time t, int code, bool drop = false) {
    mpeg_timecode::IncTimeCode(n, t.h, t.m, t.s, t.f, drop, code);
    return t;
}

int count(Time a, Time b, bool drop, int code) {
    return mpeg_timecode::CountFrames(a.h, a.m, a.s, a.f, b.h, b.m, b.s, b.f, drop, code);
}

} // namespace

TEST(Bounds, EachFieldHasItsUpperLimit) {
    EXPECT_TRUE(mpeg_timecode::TimeCodeInbounds(23, 59, 59, 29, 30.0));
    EXPECT_FALSE(mpeg_timecode::TimeCodeInbounds(24, 59, 59, 29, 30.0));
    EXPECT_FALSE(mpeg_timecode::TimeCodeInbounds(23, 60, 59, 29, 30.0));
    EXPECT_FALSE(mpeg_timecode::TimeCodeInbounds(23, 59, 60, 29, 30.0));
    EXPECT_FALSE(mpeg_timecode::TimeCodeInbounds(23, 59, 59, 30, 30.0));
}

TEST(Bounds, FractionalRatesRoundUp) {
    EXPECT_TRUE(mpeg_timecode::TimeCodeInbounds(0, 0, 0, 29, 29.97));
    EXPECT_FALSE(mpeg_timecode::TimeCodeInbounds(0, 0, 0, 30, 29.97));
}

TEST(Bounds, NegativeFieldsPass) {
    EXPECT_TRUE(mpeg_timecode::TimeCodeInbounds(-1, -1, -1, -1, 25.0));
    EXPECT_TRUE(mpeg_timecode::TimeCodeInbounds(INT_MIN, INT_MIN, INT_MIN, INT_MIN, 0.0));
    EXPECT_FALSE(mpeg_timecode::TimeCodeInbounds(0, 0, 0, 0, 0.0));
}

TEST(DropFrameValidity, LabelsZeroAndOneDoNotExistOutsideTensMinutes) {
    for (int m = 0; m < 60; ++m) {
        for (int s = 0; s < 60; ++s) {
            for (int f = 0; f < 30; ++f)
                ASSERT_EQ(mpeg_timecode::DropFrameTimeCodeIsValid(5, m, s, f),
                          m % 10 == 0 || s != 0 || f >= 2)
                    << m << ' ' << s << ' ' << f;
        }
    }
    EXPECT_TRUE(mpeg_timecode::DropFrameTimeCodeIsValid(0, 1, 0, -1)) << "compared as unsigned";
}

TEST(DropFrameValidity, At5994FourLabelsDoNotExist) {
    for (int code = 0; code <= 9; ++code) {
        for (int f = 0; f < 6; ++f)
            EXPECT_EQ(mpeg_timecode::DropFrameTimeCodeIsValid(0, 1, 0, f, code), f >= (code == 7 ? 4 : 2))
                << code << ' ' << f;
        EXPECT_TRUE(mpeg_timecode::DropFrameTimeCodeIsValid(0, 10, 0, 0, code));
        EXPECT_TRUE(mpeg_timecode::DropFrameTimeCodeIsValid(0, 1, 1, 0, code));
        EXPECT_TRUE(mpeg_timecode::DropFrameTimeCodeIsValid(0, 1, 0, -1, code));
    }
}

TEST(Validity, TheDropFrameRuleFollowsTheCode) {
    for (int code = 1; code <= 8; ++code) {
        const int dropped = code == 7 ? 4 : (code == 1 || code == 4) ? 2 : 0;
        for (int f = 0; f < mpeg_timecode::fps_ceil(code); ++f)
            EXPECT_EQ(mpeg_timecode::IsTimecodeValid(0, 1, 0, f, code), f >= dropped) << code << ' ' << f;
        EXPECT_FALSE(mpeg_timecode::IsTimecodeValid(0, 1, 0, mpeg_timecode::fps_ceil(code), code)) << code;
        EXPECT_FALSE(mpeg_timecode::IsTimecodeValid(24, 0, 0, 0, code)) << code;
    }
}

TEST(Validity, NothingIsValidWithoutARate) {
    TimecodeLog log;
    EXPECT_FALSE(mpeg_timecode::IsTimecodeValid(0, 0, 0, 0, 0));
    EXPECT_THAT(log.errors(), Each(invalidCode(0, "fps")));
}

TEST(Skipping, MovesDroppedLabelsAndAgreesWithThePredicates) {
    for (int code = 0; code <= 9; ++code) {
        const int byCode = code == 7 ? 4 : (code == 1 || code == 4) ? 2 : 0;
        for (const int m : {0, 1, 9, 10, 11, 50, 59, -1}) {
            for (const int s : {0, 1, 59}) {
                for (int f = -1; f < 6; ++f) {
                    SCOPED_TRACE(testing::Message() << code << ' ' << m << ' ' << s << ' ' << f);
                    const auto expected = [&](int dropped) {
                        return m % 10 != 0 && s == 0 && f >= 0 && f < dropped;
                    };
                    const auto check = [&](int dropped, bool needed, auto skip) {
                        EXPECT_EQ(needed, expected(dropped));
                        Time t{3, m, s, f};
                        EXPECT_EQ(skip(t), 0);
                        EXPECT_EQ(t, (Time{3, m, s, expected(dropped) ? dropped : f}));
                    };
                    int h = 3;
                    int mm = m;
                    int ss = s;
                    int ff = f;
                    check(2, mpeg_timecode::NeedToSkipOverDropFrames(h, mm, ss, ff),
                          [](Time& t) { return mpeg_timecode::SkipOverDropFrames(t.h, t.m, t.s, t.f); });
                    check(4, mpeg_timecode::NeedToSkipOverDropFrames_6140_720p59(h, mm, ss, ff), [](Time& t) {
                        return mpeg_timecode::SkipOverDropFrames_6140_720p59(t.h, t.m, t.s, t.f);
                    });
                    check(byCode, mpeg_timecode::NeedToSkipOverDropFrames(h, mm, ss, ff, code), [&](Time& t) {
                        return mpeg_timecode::SkipOverDropFrames(t.h, t.m, t.s, t.f, code);
                    });
                    EXPECT_EQ((Time{h, mm, ss, ff}), (Time{3, m, s, f}));
                }
            }
        }
    }
}

TEST(Stepping, OneFrameCarriesThroughMidnight) {
    for (int code = 1; code <= 8; ++code) {
        const int last = mpeg_timecode::fps_ceil(code) - 1;
        EXPECT_EQ(next({1, 2, 3, 4}, code), (Time{1, 2, 3, 5})) << code;
        EXPECT_EQ(next({1, 2, 3, last}, code), (Time{1, 2, 4, 0})) << code;
        EXPECT_EQ(next({1, 9, 59, last}, code), (Time{1, 10, 0, 0})) << code;
        EXPECT_EQ(next({1, 59, 59, last}, code), (Time{2, 0, 0, 0})) << code;
        EXPECT_EQ(next({23, 59, 59, last}, code), (Time{0, 0, 0, 0})) << code;
    }
}

TEST(Stepping, OneFrameSkipsByTheCodeWhateverTheFlag) {
    for (const bool drop : {false, true}) {
        EXPECT_EQ(next({0, 0, 59, 29}, 4, drop), (Time{0, 1, 0, 2}));
        EXPECT_EQ(next({0, 0, 59, 23}, 1, drop), (Time{0, 1, 0, 2}));
        EXPECT_EQ(next({0, 0, 59, 59}, 7, drop), (Time{0, 1, 0, 4}));
        EXPECT_EQ(next({0, 0, 59, 29}, 5, drop), (Time{0, 1, 0, 0}));
        EXPECT_EQ(next({0, 0, 59, 59}, 8, drop), (Time{0, 1, 0, 0}));
    }
}

TEST(Stepping, OneFrameBringsFieldsOutOfBoundsBackIn) {
    EXPECT_EQ(next({0, 0, 0, INT_MAX}, 3), (Time{0, 0, 1, 0}));
    EXPECT_EQ(next({0, 0, INT_MAX, 0}, 3), (Time{0, 1, 0, 1}));
    EXPECT_EQ(next({INT_MAX, INT_MAX, INT_MAX, INT_MAX}, 3), (Time{0, 0, 0, 0}));
    EXPECT_EQ(next({-1, 0, 0, -5}, 3), (Time{-1, 0, 0, -4}));
}

TEST(Stepping, ManyFramesCarry) {
    EXPECT_EQ(advanced(0, {1, 2, 3, 4}, 3), (Time{1, 2, 3, 4}));
    EXPECT_EQ(advanced(20, {1, 2, 3, 4}, 3), (Time{1, 2, 3, 24}));
    EXPECT_EQ(advanced(21, {1, 2, 3, 4}, 3), (Time{1, 2, 4, 0}));
    EXPECT_EQ(advanced(25 * 60, {1, 59, 3, 4}, 3), (Time{2, 0, 3, 4}));
    EXPECT_EQ(advanced(25 * 3600, {23, 0, 0, 0}, 3), (Time{0, 0, 0, 0}));
    EXPECT_EQ(advanced(25 * 86400 * 3 + 1, {1, 2, 3, 4}, 3), (Time{1, 2, 3, 5}));
}

TEST(Stepping, ManyFramesSkipOnlyWhereTheyLand) {
    EXPECT_EQ(advanced(2, {0, 0, 59, 29}, 4), (Time{0, 1, 0, 2}));
    EXPECT_EQ(advanced(1, {0, 0, 59, 59}, 7), (Time{0, 1, 0, 4}));
    EXPECT_EQ(advanced(1, {0, 0, 59, 23}, 1), (Time{0, 1, 0, 2}));
    EXPECT_EQ(advanced(1, {0, 0, 59, 29}, 5), (Time{0, 1, 0, 0}));
    EXPECT_EQ(advanced(1800 * 3, {0, 0, 0, 5}, 4), (Time{0, 3, 0, 5})) << "labels dropped on the way stay in";
}

TEST(Stepping, ManyFramesDoNotOverflow) {
    EXPECT_EQ(advanced(INT_MAX, {0, 0, 0, INT_MAX}, 3),
              (Time{(2LL * INT_MAX / 25 / 3600) % 24, (2LL * INT_MAX / 25 / 60) % 60,
                    (2LL * INT_MAX / 25) % 60, 2LL * INT_MAX % 25}));
    EXPECT_EQ(advanced(-10, {0, 0, 0, 5}, 3), (Time{0, 0, 0, -5})) << "carries go forward only";
}

TEST(Stepping, WithoutARateNothingDividesOrHangs) {
    TimecodeLog log;
    EXPECT_EQ(advanced(10, {1, 2, 3, 4}, 0), (Time{1, 2, 3, 4}));
    EXPECT_EQ(next({1, 2, 3, 4}, 0), (Time{1, 2, 4, 0}));
    EXPECT_THAT(log.errors(), Each(invalidCode(0, "fps")));
}

TEST(Counting, CountsSingleFrameSteps) {
    EXPECT_EQ(count({0, 0, 0, 0}, {0, 0, 0, 0}, false, 3), 0);
    EXPECT_EQ(count({0, 0, 0, 0}, {0, 0, 1, 0}, false, 3), 25);
    EXPECT_EQ(count({0, 0, 59, 29}, {0, 1, 0, 2}, true, 4), 1);
    EXPECT_EQ(count({0, 0, 0, 0}, {0, 10, 0, 0}, true, 4), 17982);
    EXPECT_EQ(count({0, 0, 0, 0}, {0, 1, 0, 4}, true, 7), 3600);
}

TEST(Counting, WrapsThroughMidnight) {
    EXPECT_EQ(count({23, 59, 59, 24}, {0, 0, 0, 1}, false, 3), 2);
    EXPECT_EQ(count({0, 0, 0, 1}, {0, 0, 0, 0}, false, 3), 25 * 86400 - 1);
    EXPECT_EQ(count({0, 0, 0, 1}, {0, 0, 0, 0}, true, 4), 2589407);
}

TEST(Counting, ChecksTheSecondTimeBeforeTheFirst) {
    const Time good{0, 10, 0, 0};
    const Time outside{0, 60, 0, 0};
    const Time dropped{0, 1, 0, 0};
    EXPECT_EQ(count(good, outside, true, 4), -10);
    EXPECT_EQ(count(outside, outside, true, 4), -10);
    EXPECT_EQ(count(good, dropped, true, 4), -20);
    EXPECT_EQ(count(outside, dropped, true, 4), -20);
    EXPECT_EQ(count(outside, good, true, 4), -30);
    EXPECT_EQ(count(dropped, good, true, 4), -40);
}

TEST(Counting, ChecksDropFrameLabelsOnlyWithTheFlag) {
    EXPECT_EQ(count({0, 1, 0, 0}, {0, 1, 0, 2}, false, 4), 1) << "a first time on a dropped label steps on";
    EXPECT_EQ(count({0, 10, 0, 0}, {0, 1, 0, 0}, true, 3), -20) << "the flag counts, not the code";
}

// The two-label test lets labels 2 and 3 of 59.94 pass, which stepping never meets.
TEST(Counting, ATimeNeverMetEndsAtOneDay) {
    EXPECT_EQ(count({0, 0, 0, 0}, {0, 1, 0, 3}, true, 7), 5178816);
    EXPECT_EQ(count({0, 0, 0, 0}, {0, 1, 0, 0}, false, 4), 2589408);
    EXPECT_EQ(count({0, 0, 0, 0}, {0, 0, 0, -1}, false, 3), 25 * 86400);
    EXPECT_EQ(count({0, 1, 0, 2}, {0, 1, 0, 4}, true, 7), 1) << "nor is a first time there refused";
    EXPECT_EQ(count({INT_MIN, INT_MIN, INT_MIN, INT_MIN}, {0, 0, 0, 0}, false, 3), 25 * 86400);
}

TEST(Counting, WithoutARateTheTimesAreOutOfBoundsOrZeroApart) {
    TimecodeLog log;
    EXPECT_EQ(count({0, 0, 0, 0}, {0, 0, 0, 1}, false, 0), -10);
    EXPECT_EQ(count({0, 0, 0, 0}, {0, 0, 0, -1}, false, 0), -30);
    EXPECT_EQ(count({0, 0, 0, -2}, {0, 0, 0, -1}, false, 0), 0);
}
