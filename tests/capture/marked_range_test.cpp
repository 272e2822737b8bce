// What lies between two marks, and which of it has come.
#include "capture/MarkedRange.h"

#include <algorithm>
#include <gtest/gtest.h>

using namespace kestrel::capture;

namespace {

// A timecode that is behind what was counted went over no label of no frame.
TEST(MarkedRange, DoubtsNothingForATimecodeThatGoesBack) {
    constexpr std::int64_t period = 3600;
    for (const int ahead : {5, -5}) {
        SCOPED_TRACE(ahead);
        MarkedRange range("00:00:00:00", "00:00:09:24", false, {false, false, false, true});
        ASSERT_FALSE(range.settle({3, false}));
        range.begin(0, 0);
        range.countsOn(11);
        EXPECT_EQ(range.timecode(0, 0, period), 0);
        EXPECT_EQ(range.timecode(12, (12 - ahead) * period, period), ahead);
        range.note(12, 249);
        EXPECT_EQ(range.doubted(), ahead > 0 ? 8 : 0);
        EXPECT_EQ(range.absent(), ahead > 0 ? 3 : 11);
    }
}

// Behind one that goes back labels come again: a frame that has one need not be the only one.
TEST(MarkedRange, TrustsNoLabelsThatCameTwice) {
    constexpr std::int64_t period = 3600;
    for (const bool back : {false, true}) {
        SCOPED_TRACE(back);
        std::vector<bool> lacking(13);
        std::fill(lacking.begin() + 10, lacking.end(), true);
        MarkedRange range("00:00:00:00", "00:00:09:24", false, lacking);
        ASSERT_FALSE(range.settle({3, false}));
        range.begin(0, 0);
        range.countsOn(11);
        EXPECT_EQ(range.timecode(0, 0, period), 0);
        EXPECT_EQ(range.timecode(5, (back ? 8 : 5) * period, period), back ? -3 : 0);
        EXPECT_EQ(range.timecode(20, (back ? 20 : 17) * period, period), 3);
        range.note(0, 249);
        EXPECT_EQ(range.absent(), 0);
        EXPECT_EQ(range.doubted(), back ? 7 : 0);
    }
}

TEST(MarkedRange, CountsAllThatIsMissingBeforeMarkOut) {
    std::vector<bool> lacking(980);
    std::fill(lacking.begin() + 970, lacking.end(), true);
    MarkedRange range("00:00:00:00", "00:00:39:24", false, lacking);
    ASSERT_FALSE(range.settle({3, false}));
    range.begin(-5, 0);
    range.note(-5, 799);
    EXPECT_EQ(range.missing(), 190);
    EXPECT_FALSE(range.complete());
    range.note(936, 969);
    EXPECT_EQ(range.missing(), 20);
    range.note(980, 999);
    EXPECT_EQ(range.missing(), 0);
    EXPECT_TRUE(range.complete());
}

// A frame before mark-in is none of them, however short they are.
TEST(MarkedRange, IsCompleteWithoutWhatIsBeforeMarkIn) {
    MarkedRange range("00:00:00:00", "00:00:00:24", false);
    ASSERT_FALSE(range.settle({3, false}));
    range.begin(-5, 0);
    range.note(-3, 23);
    EXPECT_FALSE(range.complete());
    range.note(24, 24);
    EXPECT_TRUE(range.complete());
}

// An encoder that has a timecode only once counts on from it for a day: each frame is looked at once.
TEST(MarkedRange, KnowsAtOnceWhatIsDoubtedOfADay) {
    constexpr std::int64_t day = 24 * 3600 * 25;
    MarkedRange range("00:00:00:00", "23:59:59:24", false, {false, true});
    ASSERT_FALSE(range.settle({3, false}));
    range.begin(0, 0);
    range.note(0, 0);
    range.countsOn(day);
    EXPECT_EQ(range.doubted(), day - 2);
    EXPECT_EQ(range.absent(), 0);
    range.countsOn(12);
    EXPECT_EQ(range.doubted(), 12);
    EXPECT_EQ(range.absent(), day - 14);
}

} // namespace
