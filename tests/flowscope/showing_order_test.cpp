// When pictures are shown, judged by their order: their decoding goes on evenly all the time.
#include "five_seconds.h"
#include "flowscope/StreamTypes.h"
#include "foundation/Bytes.h"
#include "streams/stream_fixtures.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>

using namespace kestrel::flowscope;
using kestrel::test::makeStream;
using testing::AllOf;
using testing::HasSubstr;

namespace {

std::int64_t shownAt(int i) {
    return BEGIN + std::int64_t{i} * FRAME + (i % 3 == 0 ? 3 * FRAME : 0);
}

// Moves the showing of some pictures.
Analysis shifted(const std::function<std::int64_t(int)>& by) {
    return analysed(stream([&by](int i, Times& times) { times.pts += by(i); }));
}

std::string before(const char* gap, int picture) {
    return std::string(gap) + " before PTS " + std::to_string(shownAt(picture)) + "\n";
}

TEST(AShowingTime, ThatIsWrongIsToldOnce) {
    // The hole that it leaves comes first of one that is late.
    const Analysis late = shifted([](int i) { return i == 61 ? 9 * SECOND / 10 : 0; });
    EXPECT_EQ(late.findings().total(), 1U) << texts(late);
    EXPECT_THAT(texts(late), HasSubstr(before("a gap of 2.0 frames", 62)));
    EXPECT_NEAR(late.videoSeconds(), 5, 0.001);
    // Of one that is early it is itself what comes first.
    const Analysis early = shifted([](int i) { return i == 60 ? -27 * FRAME / 10 : 0; });
    EXPECT_EQ(early.findings().total(), 1U) << texts(early);
    EXPECT_THAT(texts(early),
                HasSubstr("a step of 0.30 frames to PTS " + std::to_string(BEGIN + 603 * FRAME / 10)));
}

TEST(AShowingTime, ThatIsWrongIsToldWhereverItStands) {
    for (int picture = 1; picture < PICTURES; ++picture) {
        const Analysis late = shifted([=](int i) { return i == picture ? 89 * FRAME / 4 : 0; });
        EXPECT_GE(late.findings().count("timestamps"), 1U) << picture;
        // Near the end nothing is shown around it.
        EXPECT_LE(late.findings().count("timestamps"), picture < 100 ? 1U : 2U) << picture << texts(late);
    }
}

TEST(TwoPictures, ThatAreShownAtOnceAreTold) {
    const Analysis analysis = shifted([](int i) { return i == 61 ? FRAME : 0; });
    EXPECT_THAT(texts(analysis), AllOf(HasSubstr(before("a gap of 2.0 frames", 62)),
                                       HasSubstr(", PID 257: PTS " + std::to_string(shownAt(62)) +
                                                 " is that of the picture in packet ")));
    EXPECT_EQ(analysis.findings().total(), 2U) << texts(analysis);
}

TEST(AStep, OfTheShowingTimesAloneIsTold) {
    for (const std::int64_t step : {3 * SECOND / 10, 8 * SECOND / 10}) {
        const Analysis analysis = shifted([=](int i) { return i >= 60 ? step : 0; });
        // It leaves room for two pictures that are sent behind the first one that it moves.
        EXPECT_GE(analysis.findings().count("timestamps"), 1U) << texts(analysis);
        EXPECT_LE(analysis.findings().count("timestamps"), 2U) << texts(analysis);
        EXPECT_NEAR(analysis.videoSeconds(), 5 + static_cast<double>(step) / SECOND, 0.041) << "it counts";
    }
}

TEST(EverySecondShowingTime, ThatIsLateIsTold) {
    for (const std::int64_t step : {SECOND / 10, SECOND / 2})
        EXPECT_GE(shifted([=](int i) { return i % 2 == 1 ? step : 0; }).findings().count("timestamps"), 1U);
}

TEST(TheLastPicture, ThatIsShownTooLateIsTold) {
    const Analysis analysis = shifted([](int i) { return i == PICTURES - 1 ? 9 * SECOND / 10 : 0; });
    EXPECT_EQ(analysis.findings().total(), 1U) << texts(analysis);
    EXPECT_GT(analysis.videoSeconds(), 5.5);
}

TEST(AFrameTooLong, ByHalfAFrameIsNone) {
    expectClean(shifted([](int i) { return i >= 60 ? FRAME / 2 : 0; }));
    EXPECT_GE(shifted([](int i) { return i >= 60 ? FRAME / 2 + 20 : 0; }).findings().count("timestamps"), 1U);
}

// What is decoded in front of the first picture, or behind the last one, leaves holes that are no faults.
TEST(AStream, ThatIsCutBetweenAnyTwoPicturesMissesNone) {
    for (int first = 1; first < 30; ++first) {
        Multiplex made;
        made.association({{1, 0x100}}).map(0x100, 1, VIDEO_PID, {{MPEG2, VIDEO_PID}});
        for (int i = first; i < first + 40 + first; ++i) {
            const std::int64_t dts = BEGIN + std::int64_t{i} * FRAME;
            made.clock(VIDEO_PID, (dts - 9000) * 300);
            made.pes(VIDEO_PID, pesHeader(shownAt(i), dts),
                     mpeg2Picture(i % 12 == 0  ? 1
                                  : i % 3 == 0 ? 2
                                               : 3));
        }
        const Analysis analysis = analysed(made.bytes);
        EXPECT_EQ(analysis.findings().count("timestamps"), 0U) << first << "\n" << texts(analysis);
    }
}

TEST(ADecodingTime, ThatDepartsIsToldWithoutTheShowingTimesAroundIt) {
    const Analysis analysis = analysed(stream([](int i, Times& times) {
        times.pts += i >= 60 ? SECOND / 2 : 0;
        times.dts += i >= 60 ? SECOND / 2 : 0;
    }));
    EXPECT_EQ(analysis.findings().count("timestamps"), 1U) << texts(analysis);
    EXPECT_THAT(texts(analysis), HasSubstr("a gap of 13.5 frames before DTS "));
}

TEST(APause, AtTheEndThatOnlyTheShowingHasIsTold) {
    const std::string path =
        makeStream("pauses_shown_at_the_end",
                   "-f lavfi -i testsrc2=size=160x128:rate=25:duration=14 -threads 1 "
                   "-vf select='lt(n\\,200)+eq(n\\,270)+eq(n\\,330)' -fps_mode vfr -c:v libx264 "
                   "-x264-params b-adapt=0:bframes=2");
    const Analysis analysis = analysed(bytesOfFile(path));
    EXPECT_EQ(analysis.video()->frames(), 202U);
    EXPECT_THAT(texts(analysis), HasSubstr("a gap of 71.0 frames before PTS "));
}

// --- the rate of a multiplex that is cut

TEST(AFile, ThatBeginsInFrontOfItsMapsHasTheRateOfTheWhole) {
    // Two seconds of pictures come before a map.
    Multiplex made;
    made.association({{1, 0x100}});
    for (int i = -50; i < 100; ++i) {
        if (i == 0)
            made.association({{1, 0x100}}).map(0x100, 1, VIDEO_PID, {{MPEG2, VIDEO_PID}});
        const std::int64_t dts = BEGIN + std::int64_t{i} * FRAME;
        made.clock(VIDEO_PID, (dts - 9000) * 300);
        made.pes(VIDEO_PID, pesHeader(dts), mpeg2Picture(i % 12 == 0 ? 1 : 2, 1000));
    }
    const Analysis analysis = analysed(made.bytes);
    ASSERT_NEAR(analysis.videoSeconds(), 4, 0.001);
    const double whole = static_cast<double>(made.bytes.size()) * 8 / 6;
    EXPECT_NEAR(analysis.muxBitsPerSecond() / whole, 1, 0.01);
    ASSERT_FALSE(analysis.rates().bitsPerSecond().empty());
    EXPECT_NEAR(analysis.rates().bitsPerSecond().front() / whole, 1, 0.05);
}

// --- sound that is not looked into

constexpr int DTS_IN_PES = 0x82;
constexpr int DTS = 0x8A;

Bytes withSound(int type, const Bytes& payload) {
    Multiplex made;
    made.association({{1, 0x100}})
        .map(0x100, 1, VIDEO_PID, {{MPEG2, VIDEO_PID}, {type, AUDIO_PID}, {AC3, AUDIO_PID + 1}});
    for (int i = 0; i < 50; ++i) {
        const std::int64_t dts = BEGIN + std::int64_t{i} * FRAME;
        made.clock(VIDEO_PID, (dts - 9000) * 300).pes(VIDEO_PID, pesHeader(dts), mpeg2Picture());
        if (payload.empty())
            made.pes(AUDIO_PID, pesHeader(dts, -1, 0xBD), Bytes{0x7F, 0xFE, 0x80, 0x01, 0, 0});
        else
            made.packet(AUDIO_PID, true, payload);
        made.pes(AUDIO_PID + 1, pesHeader(dts, -1, 0xBD), soundFrames());
    }
    return made.bytes;
}

TEST(SoundOfDts, IsListedAsSoundThatIsNotLookedInto) {
    for (const int type : {DTS, DTS_IN_PES}) {
        const Analysis analysis = analysed(withSound(type, {}));
        ASSERT_EQ(analysis.audios().size(), 2U) << type;
        EXPECT_EQ(analysis.audios()[0].pid, AUDIO_PID) << "in the order of the map";
        EXPECT_EQ(analysis.audios()[0].track.codec(), AudioCodec::unknown);
        EXPECT_EQ(analysis.audios()[0].track.firstPts().ticks(), BEGIN);
        EXPECT_EQ(analysis.audios()[1].pid, AUDIO_PID + 1);
        EXPECT_EQ(analysis.asset()->streams[1].description, "DTS Audio");
    }
}

TEST(Subtitles, OfTheSameStreamTypeComeInSectionsAndAreNoSound) {
    const Analysis analysis =
        analysed(withSound(DTS_IN_PES, Multiplex::wholeSection(0xC6, Bytes{0, 0, 0, 1, 0, 0, 1})));
    ASSERT_EQ(analysis.audios().size(), 1U);
    EXPECT_EQ(analysis.audios()[0].pid, AUDIO_PID + 1);
    EXPECT_EQ(analysis.asset()->streams[1].description, "Subtitles (SCTE 27)");
}

// --- joined files

TEST(JoinedFiles, OfDifferentRatesMissNoStream) {
    // Ten seconds of 50 pictures a second, and ten of 25 whose times begin again.
    Multiplex made;
    made.association({{1, 0x100}}).map(0x100, 1, VIDEO_PID, {{MPEG2, VIDEO_PID}, {AC3, AUDIO_PID}});
    const Bytes frames = soundFrames();
    const auto file = [&](int pictures, int rateCode, std::int64_t step) {
        int sounds = 0;
        for (int i = 0; i < pictures; ++i) {
            const std::int64_t dts = BEGIN + i * step;
            for (; BEGIN + sounds * SOUND <= dts; ++sounds)
                made.pes(AUDIO_PID, pesHeader(BEGIN + sounds * SOUND, -1, 0xBD), frames);
            made.clock(VIDEO_PID, (dts - 9000) * 300);
            made.pes(VIDEO_PID, pesHeader(dts),
                     sequenceHeader(720, 576, rateCode) + sequenceExtension(0x48) + pictureHeader(1) +
                         pictureCodingExtension(3, true, false) + filler(40));
        }
    };
    file(500, 6, FRAME / 2);
    file(250, 3, FRAME);
    const Analysis analysis = analysed(made.bytes);
    EXPECT_GE(analysis.findings().count("timestamps"), 1U) << "time goes back";
    EXPECT_EQ(analysis.findings().count("missing stream"), 0U) << texts(analysis);
}

} // namespace
