// Damaged times beside others that leap: the beginning of another file, an announced time base, a second
// damaged one, pictures that are shown for seconds.
#include "five_seconds.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <utility>
#include <vector>

using namespace kestrel::flowscope;
using testing::HasSubstr;
using testing::Not;

namespace {

constexpr int JOIN = 60;       // the first picture behind a join
constexpr int SOUND_JOIN = 19; // and the first PES packet of sound

// Shifts what is at and behind a join, and damages one besides.
Change joined(int from, std::int64_t shift, int damaged = -1, std::int64_t leap = 0) {
    return [=](int i, Times& times) {
        const std::int64_t by = (i >= from ? shift : 0) + (i == damaged ? leap : 0);
        times.pts += by;
        times.dts += by;
    };
}

// A new time base is announced at the join.
ClockChange announcedJoin(std::int64_t shift) {
    return [=](int i, Clock& clock) {
        clock.base += i >= JOIN ? shift : 0;
        clock.announced = i == JOIN;
    };
}

double secondsOf(std::int64_t ticks) {
    return static_cast<double>(ticks) / SECOND;
}

const std::int64_t BASES[] = {500 * SECOND, -60 * SECOND, 36'000 * SECOND};

TEST(AnAnnouncedTimeBase, IsInOrder) {
    for (const std::int64_t base : BASES) {
        const Analysis analysis = analysed(
            stream(joined(JOIN, base), joined(SOUND_JOIN, base), AC3, PICTURES, announcedJoin(base)));
        expectClean(analysis);
        EXPECT_EQ(analysis.videoFrames(), PICTURES);
    }
}

TEST(AnAnnouncedTimeBase, HidesNoDamagedPictureAroundIt) {
    for (const std::int64_t base : BASES)
        for (const std::int64_t leap : LEAPS)
            for (const int damaged : {JOIN - 2, JOIN - 1, JOIN, JOIN + 1}) {
                if (leap == -base)
                    continue;
                SCOPED_TRACE(testing::Message()
                             << "base " << base << ", leap " << leap << ", picture " << damaged);
                expectHarmless(analysed(stream(joined(JOIN, base, damaged, leap), joined(SOUND_JOIN, base),
                                               AC3, PICTURES, announcedJoin(base))),
                               "timestamps");
            }
}

TEST(AnAnnouncedTimeBase, HidesNoDamagedSoundAroundIt) {
    for (const std::int64_t base : BASES)
        for (const std::int64_t leap : LEAPS)
            for (const int damaged : {SOUND_JOIN - 2, SOUND_JOIN - 1, SOUND_JOIN, SOUND_JOIN + 1}) {
                if (leap == -base)
                    continue;
                SCOPED_TRACE(testing::Message()
                             << "base " << base << ", leap " << leap << ", PES packet " << damaged);
                expectHarmless(analysed(stream(joined(JOIN, base), joined(SOUND_JOIN, base, damaged, leap),
                                               AC3, PICTURES, announcedJoin(base))),
                               "audio timestamps");
            }
}

TEST(ASecondFile, MayBeginOrFollowADamagedPicture) {
    for (const std::int64_t shift : {3600 * SECOND, -40 * SECOND, 20 * SECOND})
        for (const std::int64_t leap : {60 * SECOND, -60 * SECOND, 36'000 * SECOND, -5 * SECOND / 2})
            for (const int damaged : {JOIN - 1, JOIN}) {
                SCOPED_TRACE(testing::Message()
                             << "shift " << shift << ", leap " << leap << ", picture " << damaged);
                const Analysis analysis = analysed(stream(joined(JOIN, shift, damaged, leap)));
                EXPECT_EQ(analysis.findings().count("timestamps"), 2U) << texts(analysis);
                EXPECT_NEAR(analysis.videoSeconds(), 5 + secondsOf(std::max<std::int64_t>(shift, 0)), 0.041)
                    << texts(analysis);
            }
}

TEST(ASecondFile, MayBeginOrFollowADamagedSound) {
    for (const std::int64_t shift : {3600 * SECOND, -40 * SECOND, 20 * SECOND})
        for (const std::int64_t leap : {60 * SECOND, -60 * SECOND, 36'000 * SECOND, -5 * SECOND / 2})
            for (const int damaged : {SOUND_JOIN - 1, SOUND_JOIN}) {
                SCOPED_TRACE(testing::Message()
                             << "shift " << shift << ", leap " << leap << ", PES packet " << damaged);
                const Analysis analysis =
                    analysed(stream(unchanged, joined(SOUND_JOIN, shift, damaged, leap)));
                EXPECT_EQ(analysis.findings().count("audio timestamps"), 2U) << texts(analysis);
                EXPECT_NEAR(analysis.audios()[0].seconds(),
                            4.992 + secondsOf(std::max<std::int64_t>(shift, 0)), 0.001)
                    << texts(analysis);
            }
}

TEST(TwoDamagedNeighbours, ThatAreUnlikeSpoilNothing) {
    for (const auto& [first, second] : std::vector<std::pair<int, int>>{{60, 36'000},
                                                                        {36'000, 60},
                                                                        {60, -60},
                                                                        {-60, 60},
                                                                        {-60, -30},
                                                                        {-30, -60},
                                                                        {-36'000, -60},
                                                                        {30, 60}}) {
        const auto damaged = [first = first, second = second](int at) {
            return [=](int i, Times& times) {
                const std::int64_t by = i == at ? first * SECOND : i == at + 1 ? second * SECOND : 0;
                times.pts += by;
                times.dts += by;
            };
        };
        for (const int at : {1, 50, PICTURES - 2}) {
            SCOPED_TRACE(testing::Message() << first << " and " << second << ", picture " << at);
            expectHarmless(analysed(stream(damaged(at))), "timestamps", at == 1 ? 2 : 1);
        }
        for (const int at : {1, 20, SOUNDS - 2}) {
            SCOPED_TRACE(testing::Message() << first << " and " << second << ", PES packet " << at);
            expectHarmless(analysed(stream(unchanged, damaged(at))), "audio timestamps");
        }
    }
}

TEST(TwoDamagedNeighbours, OfThreeTooEndNoBoundedPass) {
    for (const int at : {1, 30, 72, 73})
        for (const int count : {2, 3}) {
            const Analysis analysis = analysed(stream([=](int i, Times& times) {
                                                   static constexpr std::int64_t BY[] = {60, -30, 36'000};
                                                   if (i < at || i >= at + count)
                                                       return;
                                                   times.pts += BY[i - at] * SECOND;
                                                   times.dts += BY[i - at] * SECOND;
                                               }),
                                               3);
            EXPECT_EQ(analysis.videoFrames(), 75) << at << ", " << count << "\n" << texts(analysis);
        }
}

TEST(ABoundedPass, EndsBeforeASecondFileWhoseFirstTimeIsDamaged) {
    const Analysis analysis = analysed(stream(joined(JOIN, 3600 * SECOND, JOIN, 60 * SECOND)), 20);
    // The damaged picture was sent before it is known that the stream has leapt.
    EXPECT_EQ(analysis.video()->frames(), JOIN + 1U);
    EXPECT_EQ(analysis.videoFrames(), JOIN + 1);
}

TEST(PicturesOfUnlikeSeconds, AreNotDamaged) {
    static constexpr int SECONDS[] = {0, 3, 10, 14, 23, 25, 60, 66, 67, 99, 103, 110};
    const Analysis analysis = analysed(stream(
        [](int i, Times& times) {
            times = {BEGIN + SECONDS[i] * SECOND, BEGIN + SECONDS[i] * SECOND};
        },
        unchanged, AC3, static_cast<int>(std::size(SECONDS))));
    EXPECT_THAT(texts(analysis), Not(HasSubstr(" lies ")));
    EXPECT_THAT(texts(analysis), Not(HasSubstr("does not follow")));
    EXPECT_NEAR(analysis.videoSeconds(), 110.04, 0.001);
}

} // namespace
