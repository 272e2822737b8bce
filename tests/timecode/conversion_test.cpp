// Construction, texts, GOP time codes, seconds, copies.
#include "timecode_log.h"

#include <climits>
#include <cstring>
#include <gmock/gmock.h>

using testing::ElementsAre;
using testing::IsEmpty;

TEST(Construction, KeepsFieldsInBoundsWithoutALogLine) {
    TimecodeLog log;
    const mpeg_timecode tc(1, 2, 3, 4, true, 5);
    EXPECT_EQ(fields(tc), "1 2 3 4 1 5");
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(Construction, HoursWrapModuloTheDay) {
    TimecodeLog log;
    const struct {
        int given, kept;
    } cases[] = {{-1, 23}, {25, 1}, {24, 0}, {-24, 0}, {-25, 23}, {48, 0}, {INT_MAX, 7}, {INT_MIN, 16}};
    for (const auto& c : cases)
        EXPECT_EQ(mpeg_timecode(c.given, 0, 0, 0, false, 5).hours, c.kept) << c.given;
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(Construction, OutOfBoundsIsLoggedAndKept) {
    TimecodeLog log;
    EXPECT_EQ(fields(mpeg_timecode(25, 60, 0, 0, false, 3)), "1 60 0 0 0 3");
    EXPECT_THAT(log.errors(),
                ElementsAre("Time code out of bounds:  1:60:0:0  FPS: 25.000000 Function:  mpeg_timecode"));
    EXPECT_EQ(fields(mpeg_timecode(0, 0, 0, 30, true, 4)), "0 0 0 30 1 4");
    EXPECT_THAT(log.errors(),
                ElementsAre("Time code out of bounds:  0:0:0:30  FPS: 29.970030 Function:  mpeg_timecode"));
}

TEST(Construction, NegativeFieldsAreInBounds) {
    TimecodeLog log;
    EXPECT_EQ(fields(mpeg_timecode(0, -1, -2, -3, false, 3)), "0 -1 -2 -3 0 3");
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(Construction, UnsupportedCodeIsLoggedAndKept) {
    TimecodeLog log;
    EXPECT_EQ(fields(mpeg_timecode(1, 1, 0, 0, true, 9)), "1 1 0 0 1 9");
    EXPECT_THAT(log.errors(),
                ElementsAre(invalidCode(9, "mpeg_timecode"), invalidCode(9, "fps"),
                            "Time code out of bounds:  1:1:0:0  FPS: 0.000000 Function:  mpeg_timecode"));
}

TEST(Construction, DroppedLabelsMoveToTheFirstExistingOneWhateverTheFlag) {
    const struct {
        int code, minutes, seconds, frames, kept;
    } cases[] = {
        {4, 1, 0, 0, 2},  {4, 1, 0, 1, 2}, {4, 1, 0, 2, 2}, {4, 10, 0, 0, 0}, {4, 1, 1, 0, 0},
        {1, 59, 0, 1, 2}, {1, 0, 0, 0, 0}, {7, 1, 0, 0, 4}, {7, 1, 0, 3, 4},  {7, 1, 0, 4, 4},
        {7, 20, 0, 3, 3}, {5, 1, 0, 0, 0}, {3, 1, 0, 1, 1}, {8, 1, 0, 3, 3},  {4, 1, 0, -1, -1},
    };
    for (const auto& c : cases) {
        for (const bool drop : {false, true})
            EXPECT_EQ(mpeg_timecode(0, c.minutes, c.seconds, c.frames, drop, c.code).frames, c.kept)
                << c.code << ' ' << c.minutes << ' ' << c.seconds << ' ' << c.frames;
    }
}

TEST(Construction, TheDefaultIsMidnightWithoutARate) {
    TimecodeLog log;
    EXPECT_EQ(fields(mpeg_timecode()), "0 0 0 0 0 0");
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(Text, ReadsAnySeparators) {
    EXPECT_EQ(fields(mpeg_timecode("01:02:03;04", true, 4)), "1 2 3 4 1 4");
    EXPECT_EQ(fields(mpeg_timecode("1.2x3 4", false, 3)), "1 2 3 4 0 3");
    EXPECT_EQ(fields(mpeg_timecode(" +1: -2:+3: 4 and more", false, 3)), "1 -2 3 4 0 3");
}

TEST(Text, IsTakenUnchecked) {
    TimecodeLog log;
    EXPECT_EQ(fields(mpeg_timecode("99:88:77:66", false, 12)), "99 88 77 66 0 12");
    EXPECT_EQ(fields(mpeg_timecode("00:01:00;00", true, 4)), "0 1 0 0 1 4") << "no skip of dropped labels";
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(Text, MissingFieldsAreZero) {
    const char* const whole = "11:12:13:14";
    const char* const expected[] = {"0 0 0 0",    "1 0 0 0",    "11 0 0 0",   "11 0 0 0",
                                    "11 1 0 0",   "11 12 0 0",  "11 12 0 0",  "11 12 1 0",
                                    "11 12 13 0", "11 12 13 0", "11 12 13 1", "11 12 13 14"};
    for (std::size_t length = 0; length <= std::strlen(whole); ++length) {
        const std::string cut(whole, length);
        EXPECT_EQ(fields(mpeg_timecode(cut.c_str(), false, 5)), expected[length] + std::string(" 0 5"))
            << cut;
    }
    EXPECT_EQ(fields(mpeg_timecode(static_cast<const char*>(nullptr), false, 5)), "0 0 0 0 0 5");
    EXPECT_EQ(fields(mpeg_timecode("abc", false, 5)), "0 0 0 0 0 5");
    EXPECT_EQ(fields(mpeg_timecode("1:x:3:4", false, 5)), "1 0 0 0 0 5");
    EXPECT_EQ(fields(mpeg_timecode("+-1:2:3:4", false, 5)), "0 0 0 0 0 5");
}

TEST(Text, NumbersBeyondTheFieldStayAtItsLimits) {
    const mpeg_timecode tc("99999999999:-99999999999:2147483647:-2147483648", false, 5);
    EXPECT_EQ(tc.hours, INT_MAX);
    EXPECT_EQ(tc.minutes, INT_MIN);
    EXPECT_EQ(tc.seconds, INT_MAX);
    EXPECT_EQ(tc.frames, INT_MIN);
}

TEST(Text, PrintsWithTheSeparatorOfTheFlag) {
    mpeg_timecode tc(1, 2, 3, 4, true, 4);
    EXPECT_STREQ(tc.windows_string(), "01:02:03;04");
    EXPECT_STREQ(tc.text, "01:02:03;04");
    tc.dropFrame = false;
    EXPECT_EQ(tc.windows_string(), tc.text);
    EXPECT_STREQ(tc.text, "01:02:03:04");
}

TEST(Text, HasRoomForExtremeFields) {
    mpeg_timecode tc;
    tc.hours = tc.minutes = tc.seconds = tc.frames = INT_MIN;
    EXPECT_STREQ(tc.windows_string(), "-2147483648:-2147483648:-2147483648:-2147483648");
}

TEST(Text, ReadsBackWhatItPrints) {
    const mpeg_timecode tc(23, 58, 57, 29, true, 4);
    EXPECT_EQ(mpeg_timecode(label(tc).c_str(), true, 4), tc);
}

TEST(Copies, TakeTheSixFieldsButNotTheText) {
    mpeg_timecode original(1, 2, 3, 4, true, 4);
    original.windows_string();
    const mpeg_timecode copy(original);
    EXPECT_EQ(fields(copy), "1 2 3 4 1 4");
    EXPECT_STREQ(copy.text, "");

    mpeg_timecode assigned(5, 6, 7, 8, false, 3);
    assigned.windows_string();
    assigned = original;
    EXPECT_EQ(fields(assigned), "1 2 3 4 1 4");
    EXPECT_STREQ(assigned.text, "05:06:07:08");
}

TEST(Copies, AreEqualInAllSixFields) {
    const mpeg_timecode tc(1, 2, 3, 4, false, 5);
    EXPECT_EQ(tc, mpeg_timecode(1, 2, 3, 4, false, 5));
    for (const mpeg_timecode& other :
         {mpeg_timecode(2, 2, 3, 4, false, 5), mpeg_timecode(1, 3, 3, 4, false, 5),
          mpeg_timecode(1, 2, 4, 4, false, 5), mpeg_timecode(1, 2, 3, 5, false, 5),
          mpeg_timecode(1, 2, 3, 4, true, 5), mpeg_timecode(1, 2, 3, 4, false, 8)})
        EXPECT_NE(tc, other) << fields(other);
}

TEST(GopTimecode, ReadsThePackedForm) {
    EXPECT_EQ(fields(mpeg_timecode::parse_GOP(540868, 5)), "1 2 3 4 0 5");
    EXPECT_EQ(fields(mpeg_timecode::parse_GOP(17322180, 5)), "1 2 3 4 1 5");
}

TEST(GopTimecode, IgnoresTheMarkerAndBitsAboveTheFlag) {
    EXPECT_EQ(mpeg_timecode::parse_GOP(540868 & ~0x1000, 5), mpeg_timecode::parse_GOP(540868, 5));
    EXPECT_EQ(mpeg_timecode::parse_GOP(540868 | static_cast<int>(0xfe000000), 5),
              mpeg_timecode::parse_GOP(540868, 5));
}

TEST(GopTimecode, EachFieldHasItsBits) {
    TimecodeLog log;
    EXPECT_EQ(mpeg_timecode::parse_GOP(0x3f, 8).frames, 63);
    EXPECT_EQ(mpeg_timecode::parse_GOP(0x3f << 6, 8).seconds, 63);
    EXPECT_EQ(mpeg_timecode::parse_GOP(0x3f << 13, 8).minutes, 63);
    EXPECT_EQ(mpeg_timecode::parse_GOP(0x1f << 19, 8).hours, 7) << "31 hours wrap";
    EXPECT_EQ(log.errors().size(), 3U) << "the fields over their limits are logged by the constructor";
}

TEST(GopTimecode, GoesThroughTheConstructor) {
    EXPECT_EQ(fields(mpeg_timecode::parse_GOP(1 << 13, 4)), "0 1 0 2 0 4") << "dropped labels are skipped";
}

TEST(GopTimecode, PacksWithTheMarkerAlwaysSet) {
    EXPECT_EQ(mpeg_timecode(0, 0, 0, 0, false, 5).pack_int(), 0x1000);
    mpeg_timecode tc = mpeg_timecode::parse_GOP(540868, 5);
    EXPECT_EQ(tc.pack_int(), 540868 | 0x1000);
    tc.dropFrame = true;
    EXPECT_EQ(tc.pack_int(), 17322180);
}

TEST(GopTimecode, FieldsAreNotMasked) {
    mpeg_timecode tc;
    tc.frames = 64;
    EXPECT_EQ(tc.pack_int(), 0x1000 | 64);
    tc.hours = tc.minutes = tc.seconds = tc.frames = -1;
    EXPECT_EQ(tc.pack_int(), -1);
}

TEST(GopTimecode, SurvivesTheRoundTrip) {
    for (int h = 0; h < 24; ++h) {
        for (int m = 0; m < 60; m += 7) {
            for (int f = 2; f < 30; ++f) {
                const mpeg_timecode tc(h, m, 59 - m, f, f % 2 == 0, 4);
                ASSERT_EQ(mpeg_timecode::parse_GOP(tc.pack_int(), 4), tc) << fields(tc);
            }
        }
    }
}

TEST(FromSeconds, BuildsTheLabelOfTheWallClock) {
    EXPECT_EQ(fields(mpeg_timecode::from_seconds(3705, true, 4)), "1 1 45 0 1 4");
    EXPECT_EQ(fields(mpeg_timecode::from_seconds(7260, true, 4)), "2 1 0 2 1 4") << "skip applied";
    EXPECT_EQ(fields(mpeg_timecode::from_seconds(360225, true, 4)), "4 3 45 0 1 4") << "100 hours wrap";
    EXPECT_EQ(fields(mpeg_timecode::from_seconds(60, false, 7)), "0 1 0 4 0 7");
    EXPECT_EQ(fields(mpeg_timecode::from_seconds(0, false, 3)), "0 0 0 0 0 3");
}

TEST(FromSeconds, UnsupportedCodeYieldsMidnightAt30) {
    TimecodeLog log;
    EXPECT_EQ(fields(mpeg_timecode::from_seconds(3705, true, 0)), "0 0 0 0 0 5");
    EXPECT_THAT(log.errors(), ElementsAre(invalidCode(0, "from_seconds")));
}

TEST(VtrCounting, DoubleRatesCountPairs) {
    for (int code = 1; code <= 8; ++code) {
        const bool doubleRate = code > 5;
        mpeg_timecode tc(0, 0, 0, 11, false, code);
        tc.NormalizeFromVtr();
        EXPECT_EQ(tc.frames, doubleRate ? 22 : 11) << code;
        tc.frames = 11;
        tc.NormalizeToVtr();
        EXPECT_EQ(tc.frames, doubleRate ? 5 : 11) << code;
        tc.frames = -3;
        tc.NormalizeToVtr();
        EXPECT_EQ(tc.frames, doubleRate ? -1 : -3) << "toward zero, code " << code;
    }
}

TEST(VtrCounting, ConversionByFactorTwoOnly) {
    for (int code = 1; code <= 8; ++code) {
        for (int factor = -1; factor <= 4; ++factor) {
            const bool converts = factor == 2 && code >= 6;
            mpeg_timecode tc(0, 0, 0, 11, false, code);
            tc.UpConvert(factor);
            EXPECT_EQ(tc.frames, converts ? 22 : 11) << code << ' ' << factor;
            tc.frames = 11;
            tc.DownConvert(factor);
            EXPECT_EQ(tc.frames, converts ? 5 : 11) << code << ' ' << factor;
        }
    }
}

TEST(VtrCounting, ExtremeFramesDoNotOverflow) {
    mpeg_timecode tc;
    tc.frameRateCode = 8;
    tc.frames = INT_MAX;
    tc.UpConvert(2);
    EXPECT_EQ(tc.frames, -2);
    tc.frames = INT_MIN;
    tc.NormalizeFromVtr();
    EXPECT_EQ(tc.frames, 0);
}

TEST(VtrCounting, CodesOutsideTheTableFollowTheSameComparisons) {
    const struct {
        int code;
        bool normalizes, converts;
    } rows[] = {{INT_MIN, false, false}, {-1, false, false}, {0, false, false},    {5, false, false},
                {6, true, true},         {9, true, true},    {INT_MAX, true, true}};
    for (const auto& row : rows) {
        mpeg_timecode tc;
        tc.frameRateCode = row.code;
        tc.frames = 10;
        tc.NormalizeFromVtr();
        EXPECT_EQ(tc.frames, row.normalizes ? 20 : 10) << row.code;
        tc.NormalizeToVtr();
        EXPECT_EQ(tc.frames, 10) << row.code;
        tc.UpConvert(2);
        EXPECT_EQ(tc.frames, row.converts ? 20 : 10) << row.code;
        tc.DownConvert(2);
        EXPECT_EQ(tc.frames, 10) << row.code;
    }
}

TEST(VtrCounting, OnlyTheFramesChange) {
    mpeg_timecode tc(1, 2, 3, 7, true, 7);
    tc.NormalizeFromVtr();
    EXPECT_EQ(fields(tc), "1 2 3 14 1 7");
    tc.UpConvert(2);
    EXPECT_EQ(fields(tc), "1 2 3 28 1 7") << "and past the second's end without a carry";
    tc.UpConvert(2);
    tc.UpConvert(2);
    EXPECT_EQ(fields(tc), "1 2 3 112 1 7");
}

TEST(FromSeconds, OfNegativeSecondsKeepsTheirSignsButWrapsTheHours) {
    EXPECT_EQ(fields(mpeg_timecode::from_seconds(-1, false, 3)), "0 0 -1 0 0 3");
    EXPECT_EQ(fields(mpeg_timecode::from_seconds(-3661, false, 3)), "23 -1 -1 0 0 3");
}

TEST(Text, FillsItsFieldWithLeadingZerosAndSigns) {
    mpeg_timecode tc(0, 0, 0, 0, false, 3);
    tc.hours = 100;
    tc.minutes = -1;
    EXPECT_STREQ(tc.windows_string(), "100:-1:00:00");
    static_assert(sizeof tc.text >= 12, "eleven characters and a terminator");
}
