// Which time codes follow from one another, by all ways of counting labels.
#include "flowscope/TimecodeCheck.h"

#include <gtest/gtest.h>

using namespace kestrel::flowscope;

namespace {

int code(int hours, int minutes, int seconds, int frames, bool drop = false) {
    return (drop ? 1 << 24 : 0) | hours << 19 | minutes << 13 | 1 << 12 | seconds << 6 | frames;
}

// Whether the second of two groups, so many frames behind the first, follows.
bool follows(int first, int second, std::uint64_t frames, double rate) {
    TimecodeCheck check;
    check.group(first, 0, rate);
    check.group(second, 2 * frames, rate);
    return check.jumps() == 0;
}

constexpr double NTSC = 30'000.0 / 1001;

TEST(Timecodes, OfGroupsFollowWithinWhatReorderingExplains) {
    EXPECT_TRUE(follows(code(1, 0, 0, 0), code(1, 0, 0, 12), 12, 25));
    EXPECT_TRUE(follows(code(1, 0, 0, 0), code(1, 0, 0, 15), 12, 25));
    EXPECT_FALSE(follows(code(1, 0, 0, 0), code(1, 0, 0, 17), 12, 25));
    EXPECT_FALSE(follows(code(1, 0, 0, 12), code(1, 0, 0, 0), 12, 25));
    EXPECT_TRUE(follows(code(23, 59, 59, 20), code(0, 0, 0, 5), 10, 25)) << "midnight";
    EXPECT_TRUE(follows(code(1, 0, 0, 0), code(9, 0, 0, 0), 12, 0)) << "no rate to judge by";
}

TEST(Timecodes, MayDropLabelsWithOrWithoutSayingSo) {
    for (const bool drop : {false, true}) {
        EXPECT_TRUE(follows(code(1, 0, 59, 0, drop), code(1, 1, 0, 2, drop), 30, NTSC));
        EXPECT_TRUE(follows(code(1, 0, 59, 0, drop), code(1, 1, 0, 0, drop), 30, NTSC));
    }
    // An hour of either counting; in between is neither.
    EXPECT_TRUE(follows(code(1, 0, 0, 0), code(2, 0, 0, 0), 108'000, NTSC));
    EXPECT_TRUE(follows(code(1, 0, 0, 0), code(2, 0, 0, 0), 107'892, NTSC));
    EXPECT_FALSE(follows(code(1, 0, 0, 0), code(2, 0, 0, 0), 107'950, NTSC));
    EXPECT_FALSE(follows(code(1, 0, 0, 0), code(2, 0, 0, 0), 89'910, 25)) << "whole rates drop none";
    EXPECT_TRUE(follows(code(1, 0, 59, 0), code(1, 1, 0, 4), 60, 2 * NTSC));
}

TEST(Timecodes, AreNotJudgedByARateThatIsNotTheirs) {
    EXPECT_TRUE(follows(code(1, 0, 0, 24), code(1, 0, 1, 0), 1, 12.5));
    EXPECT_TRUE(follows(code(1, 0, 0, 24), code(1, 0, 1, 0), 1, 50)) << "nor by its double";
}

TEST(Timecodes, OfDoubleRatesMayCountPairs) {
    EXPECT_TRUE(follows(code(1, 0, 0, 0), code(1, 0, 1, 0), 50, 50));
    EXPECT_TRUE(follows(code(1, 0, 0, 0), code(1, 0, 0, 12), 24, 50));
    EXPECT_FALSE(follows(code(1, 0, 0, 0), code(1, 0, 0, 20), 24, 25));
    EXPECT_FALSE(follows(code(1, 0, 0, 0), code(1, 0, 2, 0), 50, 50));
}

// Jumps of frames in the order of coding, each with its type and label.
using Coded = std::vector<std::pair<char, std::optional<int>>>;
std::uint64_t jumps(const Coded& coded, double rate = 25, bool byFields = false) {
    TimecodeCheck check;
    for (const auto& [type, frames] : coded) {
        TimecodeCheck::Frame frame;
        frame.type = type;
        frame.byFields = byFields;
        if (frames)
            frame.timecode = code(0, 0, *frames / 25, *frames % 25);
        check.frame(frame, rate);
    }
    check.end(rate);
    return check.jumps();
}

TEST(Timecodes, OfFramesFollowInTheOrderOfShowing) {
    EXPECT_EQ(jumps({{'I', 0}, {'P', 3}, {'B', 1}, {'B', 2}, {'P', 6}, {'B', 4}, {'B', 5}}), 0U);
    EXPECT_EQ(jumps({{'I', 0}, {'P', 4}, {'B', 2}, {'B', 1}, {'B', 3}, {'I', 5}}), 0U) << "a pyramid";
    EXPECT_EQ(jumps({{'I', 2}, {'B', 0}, {'B', 1}, {'P', 5}, {'B', 3}, {'B', 4}}), 0U) << "an open beginning";
    EXPECT_EQ(jumps({{'I', 0}, {'B', 1}, {'B', 2}, {'B', 3}}), 0U) << "B frames behind, without delay";
    EXPECT_EQ(jumps({{'I', 0}, {'P', 3}, {'B', 1}, {'B', 2}, {'P', 16}, {'B', 14}, {'B', 15}}), 1U);
    EXPECT_EQ(jumps({{'I', 0}, {'P', 13}, {'B', 1}, {'B', 12}}), 1U) << "between two B frames";
    EXPECT_EQ(jumps({{'I', 0}, {'P', 1}, {'P', 1}}), 1U);
    EXPECT_EQ(jumps({{'I', 0}, {'P', 1}, {'P', 50}}, 0), 0U) << "no rate to judge by";
}

TEST(Timecodes, ThatOnlySomeFramesHaveAreJudgedByThoseBetween) {
    const auto none = std::optional<int>();
    EXPECT_EQ(jumps({{'I', 0}, {'P', none}, {'B', none}, {'B', none}, {'I', 4}, {'P', none}}), 0U);
    EXPECT_EQ(jumps({{'I', 0}, {'P', none}, {'B', none}, {'B', none}, {'I', 40}, {'P', none}}), 1U);
    EXPECT_EQ(jumps({{'I', none}, {'P', none}}), 0U);
}

TEST(Timecodes, MayCountFieldsWhereTheySaySo) {
    const Coded byTwo{{'I', 0}, {'P', 2}, {'P', 4}, {'P', 6}};
    EXPECT_EQ(jumps(byTwo, 25, true), 0U);
    EXPECT_EQ(jumps(byTwo, 25, false), 3U);
}

TEST(Timecodes, AreNotJudgedExactlyWhereBytesWereLost) {
    const auto jumped = [](int step) {
        TimecodeCheck check;
        check.frame({'I', 2, code(0, 0, 0, 0), false, false}, 25);
        check.skip();
        check.frame({'P', 2, code(0, 0, step / 25, step % 25), false, false}, 25);
        check.skip();
        check.end(25);
        return check.jumps();
    };
    EXPECT_EQ(jumped(12), 0U);
    EXPECT_EQ(jumped(100), 1U);
}

TEST(Timecodes, ManyBFramesTakeNoMoreRoom) {
    TimecodeCheck check;
    for (int i = 0; i < 100'000; ++i)
        check.frame({'B', 2, code(i / 90'000, i / 1500 % 60, i / 25 % 60, i % 25), false, false}, 25);
    check.end(25);
    EXPECT_EQ(check.jumps(), 0U);
}

TEST(Timecodes, AreTextsWithTheirDropFlag) {
    EXPECT_EQ(labelText(code(1, 2, 3, 4)), "01:02:03:04");
    EXPECT_EQ(labelText(code(23, 59, 59, 29, true)), "23:59:59;29");
}

} // namespace
