// How far `-duration` reads: by the decoding times, and where none come by the clock or the sound.
#include "five_seconds.h"
#include "flowscope/PassLimit.h"

#include <algorithm>
#include <gtest/gtest.h>

using namespace kestrel::flowscope;

namespace {

constexpr std::int64_t TICKS = 27'000'000; // of the clock references, in a second

Multiplex oneVideo() {
    Multiplex made;
    made.association({{1, 0x100}}).map(0x100, 1, VIDEO_PID, {{MPEG2, VIDEO_PID}});
    return made;
}

TEST(ABoundedPass, GoesByTheDecodingTimesWhateverTheAnnouncedTimeBases) {
    // Clips of one second, each a hundred seconds later than the one before.
    Multiplex made = oneVideo();
    for (int i = 0; i < 500; ++i) {
        const std::int64_t dts = BEGIN + i * FRAME + i / 25 * 100 * SECOND;
        made.clock(VIDEO_PID, (dts - 9000) * 300, i % 25 == 0);
        made.pes(VIDEO_PID, pesHeader(dts, dts), mpeg2Picture(i % 25 == 0 ? 1 : 2));
    }
    const Analysis analysis = analysed(made.bytes, 15);
    EXPECT_EQ(analysis.videoFrames(), 375);
    expectClean(analysis);
}

TEST(ABoundedPass, GoesByTheDecodingTimesWhateverTheDamagedReferences) {
    for (const std::int64_t leap : LEAPS)
        for (const int first : {1, 30}) {
            SCOPED_TRACE(testing::Message() << "leap " << leap << ", from " << first);
            const auto damaged = [=](int i, Clock& clock) {
                clock.base += i >= first && i < first + 9 && i % 3 == 1 ? leap : 0;
            };
            EXPECT_EQ(analysed(stream(unchanged, unchanged, AC3, PICTURES, damaged), 3).videoFrames(), 75);
        }
}

TEST(ABoundedPass, EndsWhereTheVideoStops) {
    Multiplex made = oneVideo();
    std::size_t enough = 0;
    for (int i = 0; i < 1500; ++i) {
        const std::int64_t dts = BEGIN + i * FRAME;
        made.clock(VIDEO_PID, (dts - 9000) * 300);
        if (i < 50)
            made.pes(VIDEO_PID, pesHeader(dts, dts), mpeg2Picture(i % 12 == 0 ? 1 : 2));
        if (i == 25 * 14)
            enough = made.packets();
    }
    const Analysis analysis = analysed(made.bytes, 3);
    EXPECT_EQ(analysis.videoFrames(), 50);
    EXPECT_LT(analysis.packets(), enough) << "ten seconds more than were asked for";
    EXPECT_EQ(analysis.findings().count("missing stream"), 0U) << "it may go on later";
}

TEST(ABoundedPass, CountsThePicturesItHasReadWhicheverComesLast) {
    // IBBP: the last one in the order of decoding is an anchor, which is shown two frames later.
    for (int seconds = 1; seconds <= 4; ++seconds) {
        const Analysis analysis = analysed(stream(unchanged), seconds);
        EXPECT_EQ(analysis.video()->frames(), 25U * static_cast<unsigned>(seconds));
        EXPECT_NEAR(analysis.videoSeconds(), seconds, 1e-9);
    }
}

TEST(ABoundedPass, CountsAGapWithinIt) {
    const Change gap = [](int i, Times& times) {
        times.pts += i >= 30 ? 10 * FRAME : 0;
        times.dts += i >= 30 ? 10 * FRAME : 0;
    };
    for (const int seconds : {3, 4}) {
        const Analysis analysis = analysed(stream(gap), seconds);
        EXPECT_EQ(analysis.video()->frames(), 25U * static_cast<unsigned>(seconds) - 10);
        EXPECT_NEAR(analysis.videoSeconds(), seconds, 0.001);
    }
}

// --- where no decoding times come

TEST(APassLimit, IsTenSecondsBehindByTheReferences) {
    PassLimit limit(5);
    for (int i = 0; i < 150; ++i) {
        limit.reference(1, i * TICKS / 10, false);
        EXPECT_FALSE(limit.passed()) << i;
        limit.reference(2, i * TICKS, false); // another PID does not count
    }
    limit.reference(1, 15 * TICKS, false);
    EXPECT_TRUE(limit.passed());
    PassLimit whole(std::nullopt);
    whole.reference(1, 0, false);
    whole.sound(1000);
    EXPECT_FALSE(whole.passed());
}

TEST(APassLimit, CountsNoAnnouncedLeapAndNoDamagedReference) {
    PassLimit limit(1);
    std::int64_t clock = 0;
    for (int i = 0; i < 100; ++i) {
        clock += 200 * TICKS;
        limit.reference(1, clock, true);
        limit.reference(1, clock + TICKS / 20, false);
        limit.reference(1, clock + 70 * TICKS, false);
        limit.reference(1, clock + TICKS / 10, false);
    }
    EXPECT_FALSE(limit.passed()) << "ten seconds";
    for (int i = 1; i <= 12; ++i)
        limit.reference(1, clock + i * TICKS / 10, false);
    EXPECT_TRUE(limit.passed()) << "eleven";
}

TEST(APassLimit, TakesAClockThatHasLeaptForFiveSecondsAtMost) {
    for (const std::int64_t leap : {3 * TICKS, 1000 * TICKS, -1000 * TICKS}) {
        PassLimit limit(1);
        limit.reference(1, 0, false);
        const std::int64_t last = std::clamp<std::int64_t>(leap / TICKS, 0, 5);
        for (int i = 0; i <= 10 * (11 - last); ++i) {
            EXPECT_FALSE(limit.passed()) << leap << ", " << i;
            limit.reference(1, leap + i * TICKS / 10, false);
        }
        EXPECT_TRUE(limit.passed()) << leap;
    }
}

TEST(APassLimit, CountsReferencesThatComeSeldom) {
    PassLimit limit(2);
    for (int i = 0; i <= 4; ++i)
        limit.reference(1, i * 3 * TICKS, false);
    EXPECT_TRUE(limit.passed());
}

TEST(APassLimit, BeginsAgainWithEachDecodingTime) {
    PassLimit limit(20);
    for (int i = 0; i <= 150; ++i) {
        limit.reference(1, i * TICKS, false);
        limit.decoded(i / 10.0); // a tenth as fast
    }
    EXPECT_FALSE(limit.passed());
    for (int i = 151; i < 165; ++i)
        limit.reference(1, i * TICKS, false);
    EXPECT_FALSE(limit.passed());
    limit.reference(1, 165 * TICKS, false);
    EXPECT_TRUE(limit.passed()) << "15 decoded and 15 since are ten more than were asked for";
}

TEST(APassLimit, GoesByTheSoundWhereThereIsNoClock) {
    PassLimit limit(2);
    limit.sound(1000);
    EXPECT_FALSE(limit.passed()) << "a leap is five seconds at most";
    for (int i = 1; i < 7; ++i)
        limit.sound(1000 + i);
    EXPECT_FALSE(limit.passed());
    limit.sound(1007);
    EXPECT_TRUE(limit.passed());
    limit.decoded(1);
    EXPECT_FALSE(limit.passed());
    limit.reference(1, 0, false);
    for (int i = 0; i < 20; ++i)
        limit.sound(1008 + i);
    EXPECT_FALSE(limit.passed()) << "there is a clock";
}

} // namespace
