// Streams that say little of when they are shown: few pictures a second, pictures before the first time,
// sound in PES packets of seconds.
#include "five_seconds.h"
#include "foundation/Bytes.h"
#include "streams/stream_fixtures.h"

#include <gtest/gtest.h>

using namespace kestrel::flowscope;
using kestrel::test::makeStream;

namespace {

TEST(AFirstPicture, MayBeShownSecondsBehindItsDecoding) {
    for (const char* const rate : {"1", "1/2", "2"}) {
        const std::string name = std::string("slow_") + rate[0] + (rate[1] == 0 ? "" : "_half");
        const Analysis analysis = analysed(bytesOfFile(
            makeStream(name, std::string("-f lavfi -i testsrc2=size=352x288:rate=") + rate +
                                 " -f lavfi -i sine=frequency=440:sample_rate=48000 -t 16 -threads 1 -c:v "
                                 "libx264 -x264-params b-adapt=0:bframes=2 -c:a ac3 -b:a 192k")));
        EXPECT_EQ(analysis.findings().count("timestamps"), 0U) << texts(analysis);
        EXPECT_NEAR(analysis.videoSeconds(), 16, 0.001) << rate;
        EXPECT_NEAR(analysis.audioOffsetMs().value_or(9e9), 0, 50) << rate;
        EXPECT_NEAR(analysis.seconds(), 16, 0.1) << rate;
    }
}

// IBBP of 25 a second, of which the first ones have no times.
Bytes untimed(int count, const char* which = "the first") {
    Multiplex made;
    made.association({{1, 0x100}}).map(0x100, 1, VIDEO_PID, {{MPEG2, VIDEO_PID}});
    const bool periodic = std::string(which) == "all but one in so many";
    for (int i = 0; i < PICTURES; ++i) {
        const std::int64_t dts = BEGIN + i * FRAME;
        const int place = i % 3;
        const std::int64_t pts = dts + (i == 0 ? FRAME : place == 0 ? 3 * FRAME : 0);
        made.clock(VIDEO_PID, (dts - 9000) * 300);
        const bool timed = periodic ? i % count == count / 2 : i >= count;
        made.pes(VIDEO_PID, timed ? pesHeader(pts, dts) : pesHeader(),
                 mpeg2Picture(i % 12 == 0  ? 1
                              : place == 0 ? 2
                                           : 3));
    }
    return made.bytes;
}

TEST(PicturesBeforeTheFirstTime, LastAsLongAsTheOthers) {
    const Analysis all = analysed(untimed(0));
    for (int count = 1; count <= 60; ++count) {
        const Analysis analysis = analysed(untimed(count));
        EXPECT_NEAR(analysis.videoSeconds(), 5, 0.001) << count;
        EXPECT_NEAR(analysis.seconds(), 5, 0.081) << count;
        EXPECT_NEAR(analysis.videoBitsPerSecond() / all.videoBitsPerSecond(), 1, 0.001) << count;
        EXPECT_EQ(analysis.findings().count("missing stream"), 0U) << count;
    }
    for (const int count : {7, 15, 30})
        EXPECT_NEAR(analysed(untimed(count, "all but one in so many")).videoSeconds(), 5, 0.001) << count;
}

// --- sound that is not looked into

constexpr std::int64_t STEP = 56 * SECOND / 10;
constexpr int PACKETS = 10;

Bytes seldomSound(int packets, int damaged = -1, std::int64_t leap = 0) {
    Multiplex made;
    made.association({{1, 0x100}}).map(0x100, 1, VIDEO_PID, {{MPEG2, VIDEO_PID}, {LATM, AUDIO_PID}});
    int sounds = 0;
    for (int i = 0; i < packets * STEP / FRAME; ++i) {
        const std::int64_t dts = BEGIN + i * FRAME;
        made.clock(VIDEO_PID, (dts - 9000) * 300);
        made.pes(VIDEO_PID, pesHeader(dts, dts), mpeg2Picture(i % 12 == 0 ? 1 : 2));
        if (sounds < packets && BEGIN + sounds * STEP <= dts) {
            made.pes(AUDIO_PID, pesHeader(coded(dts + (sounds == damaged ? leap : 0)), -1, 0xBD), Bytes(100));
            ++sounds;
        }
    }
    return made.bytes;
}

// Its end is not known beyond its last time: that it is sent no more for a while is found.
std::uint64_t ofItsTimes(const Analysis& analysis) {
    return analysis.findings().total() - analysis.findings().count("missing stream");
}

TEST(SoundInPacketsOfSeconds, IsInOrder) {
    for (const int packets : {1, 2, 3, 4, PACKETS}) {
        const Analysis analysis = analysed(seldomSound(packets));
        EXPECT_EQ(ofItsTimes(analysis), 0U) << packets << "\n" << texts(analysis);
        EXPECT_NEAR(analysis.audios()[0].seconds(), 5.6 * (packets - 1), 0.1) << packets;
    }
}

TEST(SoundInPacketsOfSeconds, TellsADamagedTime) {
    for (const std::int64_t leap : {60 * SECOND, -60 * SECOND, 3600 * SECOND, -3600 * SECOND})
        for (const int damaged : {0, 1, 2, 3, PACKETS - 2, PACKETS - 1}) {
            // The first of a sound of whose steps nothing is known yet, earlier by less than a packet may
            // last.
            if (damaged == 0 && leap == -60 * SECOND)
                continue;
            const Analysis analysis = analysed(seldomSound(PACKETS, damaged, leap));
            EXPECT_EQ(ofItsTimes(analysis), 1U) << leap << ", " << damaged << "\n" << texts(analysis);
            EXPECT_NEAR(analysis.audios()[0].seconds(), damaged == PACKETS - 1 ? 44.8 : 50.4, 0.1)
                << leap << ", " << damaged;
            EXPECT_NEAR(analysis.seconds(), 56, 0.1) << leap << ", " << damaged;
        }
}

} // namespace
