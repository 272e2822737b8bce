// Which timecodes that come back are those of what is played.
#include "capture/SourceLabels.h"

#include "mpeg/pts.h"

#include <gtest/gtest.h>

using namespace kestrel::capture;
using namespace std::chrono_literals;

namespace {

constexpr std::int64_t period = PTS::units_per_second / 25;

// A label that comes so long after the begin, with a picture that is shown then.
ReturnedLabel label(std::int64_t frame, milliseconds since) {
    return {frame, 10 * PTS::units_per_second + since.count() * PTS::units_per_second / 1000, period, since};
}

TEST(SourceLabels, AreConfirmedByTheSecondThatGoesOn) {
    for (const milliseconds delay : {0ms, 400ms, 4900ms}) {
        SourceLabels labels(5000ms);
        EXPECT_FALSE(labels.confirms(label(0, delay)));
        EXPECT_TRUE(labels.onlyOne());
        EXPECT_TRUE(labels.confirms(label(12, delay + 480ms)));
        EXPECT_FALSE(labels.onlyOne());
    }
}

TEST(SourceLabels, AreNotThoseThatJumpOrStandStill) {
    SourceLabels labels(5000ms);
    for (const int frame : {0, 30, 5, 28, 20})
        EXPECT_FALSE(labels.confirms(label(frame, 1200ms)));
    SourceLabels still(5000ms);
    for (milliseconds since = 0ms; since < 5000ms; since += 480ms)
        EXPECT_FALSE(still.confirms(label(0, since)));
    EXPECT_FALSE(still.onlyOne());
}

TEST(SourceLabels, DoNotGoOnFromBefore) {
    SourceLabels labels(5000ms);
    // A second later it would be the source's first frame, just as that was played.
    EXPECT_FALSE(labels.confirms(label(-50, -1000ms)));
    for (int i = 0; i < 10; ++i) {
        EXPECT_FALSE(labels.confirms(label(-25 + 12 * i, 480ms * i)));
        EXPECT_FALSE(labels.possible(label(-25 + 12 * i, 480ms * i)));
    }
}

TEST(SourceLabels, DoNotComeBeforeTheyAreDueNorTooLate) {
    for (const milliseconds offset : {-1100ms, -60000ms, 5100ms, 60000ms}) {
        SourceLabels labels(5000ms);
        for (int i = 0; i < 20; ++i) {
            const milliseconds since = 480ms * i;
            EXPECT_FALSE(labels.confirms(label((since - offset) / 40ms, since))) << offset.count();
        }
        EXPECT_FALSE(labels.onlyOne());
    }
}

// Encoders that begin to count when the source begins: at first their labels lie before the source's.
TEST(SourceLabels, DoNotGoOnFromLabelsThatThePlayOutDoesNotHave) {
    SourceLabels labels(5000ms);
    for (int i = 0; i < 20; ++i)
        EXPECT_FALSE(labels.confirms(label(-50 + 12 * i, 480ms * i)));
    EXPECT_FALSE(labels.onlyOne());
}

TEST(SourceLabels, AreFoundBehindOthers) {
    SourceLabels labels(5000ms);
    EXPECT_FALSE(labels.confirms(label(7000, -100ms)));
    EXPECT_FALSE(labels.confirms(label(7012, 380ms)));
    EXPECT_FALSE(labels.confirms(label(3, 860ms)));
    EXPECT_TRUE(labels.confirms(label(15, 1340ms)));
    EXPECT_TRUE(labels.possible(label(27, 1820ms)));
    // The decoder stopped for a long time.
    EXPECT_TRUE(labels.possible(label(39, 20000ms)));
}

// What passes the stream on as it is returns them.
TEST(SourceLabels, ArePassedOverBeforeTheFirstFrameThatCanBeShown) {
    SourceLabels labels(5000ms);
    EXPECT_FALSE(labels.confirms(label(0, 100ms)));
    ReturnedLabel before = label(-2, 140ms);
    before.shown = label(0, 100ms).shown - 2 * period;
    EXPECT_FALSE(labels.confirms(before));
    EXPECT_TRUE(labels.confirms(label(3, 220ms)));
}

} // namespace
