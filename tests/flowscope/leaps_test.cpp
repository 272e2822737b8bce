// Times that leap by more than a second: one that is damaged spoils nothing, one that the next bears out is a
// discontinuity. Streams of five seconds, made packet by packet.
#include "five_seconds.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace kestrel::flowscope;
using testing::HasSubstr;

namespace {

TEST(ADamagedTime, NeedsAStreamThatIsInOrderWithoutIt) {
    expectClean(undamaged());
    EXPECT_NEAR(undamaged().videoSeconds(), 5, 0.001);
    EXPECT_NEAR(undamaged().audios()[0].seconds(), 4.992, 0.001);
}

TEST(ADamagedTime, OfTheVideoSpoilsNothing) {
    enum class Which { both, dts, pts };
    for (const std::int64_t leap : LEAPS)
        for (const Which which : {Which::both, Which::dts, Which::pts})
            for (const int damaged : {0, 1, 50, 52, PICTURES - 2, PICTURES - 1}) {
                SCOPED_TRACE(testing::Message() << "leap " << leap << ", which " << static_cast<int>(which)
                                                << ", picture " << damaged);
                expectHarmless(analysed(stream([&](int i, Times& times) {
                                   if (i != damaged)
                                       return;
                                   times.dts += which != Which::pts ? leap : 0;
                                   times.pts += which != Which::dts ? leap : 0;
                               })),
                               "timestamps");
            }
}

TEST(ADamagedTime, OfTheSoundSpoilsNothing) {
    for (const std::int64_t leap : LEAPS)
        for (const int damaged : {0, 1, 20, SOUNDS - 2, SOUNDS - 1}) {
            SCOPED_TRACE(testing::Message() << "leap " << leap << ", PES packet " << damaged);
            const Change change = [&](int i, Times& times) { times.pts += i == damaged ? leap : 0; };
            expectHarmless(analysed(stream(unchanged, change)), "audio timestamps");
            const Analysis latm = analysed(stream(unchanged, change, LATM));
            EXPECT_EQ(latm.findings().count("audio timestamps"), 1U) << texts(latm);
            EXPECT_EQ(latm.findings().total(), 1U) << texts(latm);
            EXPECT_NEAR(latm.seconds(), 5, 0.1);
        }
}

// Below a second it is not held; the one behind it brings the sound back to where its frames are.
TEST(ADamagedTime, OfTheSoundThatIsOffByLessSpoilsNothingEither) {
    for (const std::int64_t off : {3 * SECOND / 10, -3 * SECOND / 10, 9 * SECOND / 10, -9 * SECOND / 10})
        for (const int damaged : {1, 20, SOUNDS - 2}) {
            SCOPED_TRACE(testing::Message() << "off by " << off << ", PES packet " << damaged);
            const Analysis analysis = analysed(
                stream(unchanged, [&](int i, Times& times) { times.pts += i == damaged ? off : 0; }));
            EXPECT_GE(analysis.findings().count("audio timestamps"), 1U);
            EXPECT_EQ(analysis.findings().count("audio timestamps"), analysis.findings().total())
                << texts(analysis);
            EXPECT_NEAR(analysis.audios()[0].seconds(), undamaged().audios()[0].seconds(), 0.001);
            EXPECT_NEAR(analysis.muxBitsPerSecond() / undamaged().muxBitsPerSecond(), 1, 0.001);
        }
}

TEST(ADamagedTime, OfSoundThatIsNotLookedIntoAndIsOffByLessSpoilsNothingEither) {
    for (const std::int64_t off : {3 * SECOND / 10, -3 * SECOND / 10, 8 * SECOND / 10, -8 * SECOND / 10})
        for (const int damaged : {1, 20, SOUNDS - 2}) {
            SCOPED_TRACE(testing::Message() << "off by " << off << ", PES packet " << damaged);
            const Analysis analysis = analysed(stream(
                unchanged, [&](int i, Times& times) { times.pts += i == damaged ? off : 0; }, LATM));
            EXPECT_EQ(analysis.findings().count("audio timestamps"), 1U) << texts(analysis);
            EXPECT_NEAR(analysis.audios()[0].seconds(), (SOUNDS - 1) * 0.128, 0.001);
            EXPECT_NEAR(analysis.seconds(), undamaged().seconds(), 0.1);
        }
}

TEST(AGap, BehindTheFirstPictureIsTold) {
    for (const std::int64_t gap : {SECOND / 5, SECOND / 2, 9 * SECOND / 10}) {
        const Analysis analysis = analysed(stream(
            [&](int i, Times& times) {
                times.dts += i > 0 ? gap : 0;
                times.pts += i > 0 ? gap : 0;
            },
            [&](int, Times& times) { times.pts += gap; }));
        EXPECT_EQ(analysis.findings().count("timestamps"), 1U) << texts(analysis);
        EXPECT_THAT(texts(analysis), HasSubstr("a gap of " + std::to_string(1 + gap / FRAME) + "."));
    }
}

TEST(ADamagedTime, IsToldOnceWithWhereItLies) {
    const auto at = [](int damaged, std::int64_t leap) {
        return analysed(stream([=](int i, Times& times) {
            times.dts += i == damaged ? leap : 0;
            times.pts += i == damaged ? leap : 0;
        }));
    };
    const auto sound = [](int damaged, std::int64_t leap) {
        return analysed(
            stream(unchanged, [=](int i, Times& times) { times.pts += i == damaged ? leap : 0; }));
    };
    EXPECT_THAT(texts(at(50, 60 * SECOND)),
                testing::MatchesRegex("timestamps: packet [0-9]+, PID 257: DTS 14580000 lies 60.0 s ahead of "
                                      "the times before and behind it\n"));
    EXPECT_THAT(texts(at(50, -60 * SECOND)), HasSubstr("PID 257: DTS 3780000 does not follow 9176400\n"));
    EXPECT_THAT(texts(at(PICTURES - 1, 60 * SECOND)),
                HasSubstr(" lies 60.0 s ahead of the times before it\n"));
    EXPECT_THAT(texts(at(0, -60 * SECOND)),
                HasSubstr("packet 20, PID 257: DTS 3600000 lies 60.0 s before the "
                          "times behind it\n"));
    EXPECT_THAT(texts(at(0, 60 * SECOND)), HasSubstr("PID 257: DTS 9003600 does not follow 14400000\n"));
    EXPECT_THAT(
        texts(sound(20, 60 * SECOND)),
        testing::MatchesRegex("audio timestamps: packet [0-9]+, PID 258: PTS 14630400 lies 60.1 s ahead "
                              "of the times before and behind it\n"));
    EXPECT_THAT(texts(sound(20, -60 * SECOND)), HasSubstr("PID 258: PTS 3830400 does not follow 9218880\n"));
    EXPECT_THAT(texts(analysed(stream([](int i, Times& times) { times.pts += i == 51 ? 60 * SECOND : 0; }))),
                HasSubstr("PTS 14594400 lies 60.1 s behind DTS 9183600\n"));
}

TEST(ADamagedTime, AmongOthersThatAreSpoilsNothingEither) {
    // Every fourth one, each in another direction.
    const Analysis analysis = analysed(stream([](int i, Times& times) {
        const std::int64_t leap = i % 4 == 2 ? LEAPS[static_cast<std::size_t>(i) % std::size(LEAPS)] : 0;
        times.dts += leap;
        times.pts += leap;
    }));
    EXPECT_EQ(analysis.videoFrames(), PICTURES);
    EXPECT_EQ(analysis.findings().count("timestamps"), 31U) << texts(analysis);
    EXPECT_EQ(analysis.findings().total(), 31U) << texts(analysis);
}

TEST(ADamagedTime, EndsNoBoundedPass) {
    for (const std::int64_t leap : LEAPS)
        for (const int damaged : {0, 1, 30, 60}) {
            SCOPED_TRACE(testing::Message() << "leap " << leap << ", picture " << damaged);
            const Analysis analysis = analysed(stream([&](int i, Times& times) {
                                                   times.dts += i == damaged ? leap : 0;
                                                   times.pts += i == damaged ? leap : 0;
                                               }),
                                               3);
            EXPECT_EQ(analysis.videoFrames(), 75);
        }
}

TEST(ADamagedTime, OfTheSoundEndsNoPassThatGoesByIt) {
    for (const int damaged : {0, 20}) {
        Multiplex made;
        made.association({{1, 0x100}}).map(0x100, 1, VIDEO_PID, {{MPEG2, VIDEO_PID}, {AC3, AUDIO_PID}});
        made.pes(VIDEO_PID, pesHeader(), mpeg2Picture());
        for (int i = 0; i < 120; ++i)
            made.pes(AUDIO_PID,
                     pesHeader(coded(BEGIN + i * SOUND + (i == damaged ? -60 * SECOND : 0)), -1, 0xBD),
                     soundFrames());
        const Analysis analysis = analysed(made.bytes, 2);
        EXPECT_NEAR(analysis.audios()[0].seconds(), 12, 0.3) << "ten seconds more than were asked for";
    }
}

TEST(ALeapThatTheNextTimeBearsOut, IsADiscontinuity) {
    for (const int from : {60, PICTURES - 2}) {
        const auto shifted = [&](std::int64_t leap) {
            return analysed(stream([=](int i, Times& times) {
                times.dts += i >= from ? leap : 0;
                times.pts += i >= from ? leap : 0;
            }));
        };
        const Analysis ahead = shifted(60 * SECOND);
        EXPECT_EQ(ahead.findings().count("timestamps"), 1U);
        EXPECT_THAT(texts(ahead), HasSubstr("a gap of 1501.0 frames before DTS " +
                                            std::to_string(BEGIN + 60 * SECOND + from * FRAME)));
        EXPECT_NEAR(ahead.videoSeconds(), 65, 0.041) << "a gap counts";
        EXPECT_EQ(ahead.findings().count("missing stream"), 1U) << "and the sound does not have it";
        const Analysis back = shifted(-60 * SECOND);
        EXPECT_EQ(back.findings().total(), 1U) << texts(back);
        EXPECT_THAT(texts(back), HasSubstr("does not follow " + std::to_string(BEGIN + (from - 1) * FRAME)));
        EXPECT_NEAR(back.videoSeconds(), 5, 0.001);
    }
    const auto sound = [](std::int64_t leap) {
        return analysed(stream(unchanged, [=](int i, Times& times) { times.pts += i >= 20 ? leap : 0; }));
    };
    const Analysis ahead = sound(60 * SECOND);
    EXPECT_EQ(ahead.findings().count("audio timestamps"), 1U);
    EXPECT_THAT(texts(ahead), HasSubstr("PTS 14630400 is 60000.0 ms later than the frames before it last"));
    EXPECT_NEAR(ahead.audios()[0].seconds(), 64.992, 0.001);
    const Analysis back = sound(-60 * SECOND);
    EXPECT_EQ(back.findings().total(), 1U) << texts(back);
    EXPECT_THAT(texts(back), HasSubstr("PTS 3830400 does not follow 9218880"));
    EXPECT_NEAR(back.audios()[0].seconds(), 4.992, 0.001);
}

TEST(ALeapThatTheNextTimeBearsOut, OfAllStreamsIsAGapOfEach) {
    // A second file behind the first, whose times are later and which nothing announces.
    const Analysis analysis = analysed(stream(
        [](int i, Times& times) {
            times = i < 64 ? times : Times{times.pts + 60 * SECOND, times.dts + 60 * SECOND};
        },
        [](int i, Times& times) { times.pts += i >= 20 ? 60 * SECOND : 0; }));
    EXPECT_EQ(analysis.findings().count("timestamps"), 1U);
    EXPECT_EQ(analysis.findings().count("audio timestamps"), 1U);
    EXPECT_EQ(analysis.findings().total(), 2U) << texts(analysis);
    EXPECT_NEAR(analysis.seconds(), 65, 0.1);
}

TEST(ALeapThatTheNextTimeBearsOut, EndsABoundedPassBeforeIt) {
    const Analysis analysis = analysed(stream([](int i, Times& times) {
                                           times.dts += i >= 60 ? 60 * SECOND : 0;
                                           times.pts += i >= 60 ? 60 * SECOND : 0;
                                       }),
                                       20);
    EXPECT_EQ(analysis.videoFrames(), 60);
    EXPECT_EQ(analysis.video()->frames(), 60U);
    EXPECT_NEAR(analysis.videoSeconds(), 2.4, 0.001);
}

TEST(PicturesThatAreShownForSeconds, AreNoLeaps) {
    for (const int count : {2, 3, 10}) {
        Multiplex made;
        made.association({{1, 0x100}}).map(0x100, 1, VIDEO_PID, {{MPEG2, VIDEO_PID}});
        for (int i = 0; i < count; ++i) {
            // Headers that name 25 a second.
            const std::int64_t dts = BEGIN + i * 3 * SECOND;
            for (int each = 0; each < 30; ++each)
                made.clock(VIDEO_PID, (dts - 9000 + each * 9000) * 300);
            made.pes(VIDEO_PID, pesHeader(dts, dts), mpeg2Picture());
        }
        const Analysis analysis = analysed(made.bytes);
        EXPECT_EQ(analysis.findings().count("timestamps"), 0U) << texts(analysis);
        EXPECT_NEAR(analysis.videoSeconds(), (count - 1) * 3 + 0.04, 0.001);
    }
}

} // namespace
