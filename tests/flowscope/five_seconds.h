// A stream of five seconds with sound, whose times may be changed, and what is expected of it when one that
// is damaged has done no harm.
#pragma once

#include "analysed.h"
#include "flowscope/Analysis.h"
#include "multiplex.h"

#include <cstdint>
#include <functional>
#include <gtest/gtest.h>
#include <string>

namespace kestrel::flowscope {

inline constexpr int VIDEO_PID = 0x101;
inline constexpr int AUDIO_PID = 0x102;
inline constexpr int MPEG2 = 0x02;
inline constexpr int AC3 = 0x81;
inline constexpr int LATM = 0x11; // which is not looked into
inline constexpr int FRAME = 3600;
inline constexpr int PICTURES = 125;
inline constexpr int SOUND = 4 * 2880; // of a PES packet of sound: four frames
inline constexpr int SOUNDS = 39;
inline constexpr std::int64_t SECOND = 90'000;
inline constexpr std::int64_t TURN = std::int64_t{1} << 33;
inline constexpr std::int64_t BEGIN = 100 * SECOND;

struct Times {
    std::int64_t pts;
    std::int64_t dts;
};
// Changes the times of the PES packet with that number, as they stand there.
using Change = std::function<void(int, Times&)>;

inline void unchanged(int, Times&) {}

// The clock reference before a picture, in ticks of 90 kHz.
struct Clock {
    std::int64_t base;
    bool announced; // a new time base begins with it
};
// Changes the clock reference before the picture with that number.
using ClockChange = std::function<void(int, Clock&)>;

inline void usualClock(int, Clock&) {}

inline std::int64_t coded(std::int64_t ticks) {
    return ((ticks % TURN) + TURN) % TURN;
}

inline Bytes soundFrames() {
    Bytes frame{0x0B, 0x77, 0, 0, 0x14, 0x40, 0x40, 0}; // AC-3, 48 kHz, 192 kb/s, stereo
    frame.resize(768, 0x55);
    return frame + frame + frame + frame;
}

// IBBP of 25 a second with sound; each PES packet has times.
inline Bytes stream(const Change& video, const Change& audio = unchanged, int soundType = AC3,
                    int pictures = PICTURES, const ClockChange& clock = usualClock) {
    Multiplex made;
    made.association({{1, 0x100}}).map(0x100, 1, VIDEO_PID, {{MPEG2, VIDEO_PID}, {soundType, AUDIO_PID}});
    const Bytes frames = soundFrames();
    int sounds = 0;
    for (int i = 0; i < pictures; ++i) {
        const std::int64_t dts = BEGIN + std::int64_t{i} * FRAME;
        for (; sounds < SOUNDS && BEGIN + sounds * SOUND <= dts; ++sounds) {
            Times times{BEGIN + sounds * SOUND, -1};
            audio(sounds, times);
            made.pes(AUDIO_PID, pesHeader(coded(times.pts), -1, 0xBD), frames);
        }
        const int place = i % 3; // of a P picture and the two B pictures behind it
        Times times{dts + (place == 0 ? 3 : 0) * FRAME, dts};
        video(i, times);
        Clock reference{dts - 9000, false};
        clock(i, reference);
        made.clock(VIDEO_PID, coded(reference.base) * 300, reference.announced);
        made.pes(VIDEO_PID, pesHeader(coded(times.pts), coded(times.dts)),
                 mpeg2Picture(i % 12 == 0  ? 1
                              : place == 0 ? 2
                                           : 3));
    }
    return made.bytes;
}

inline const Analysis& undamaged() {
    static const Analysis analysis = analysed(stream(unchanged));
    return analysis;
}

inline std::string texts(const Analysis& analysis) {
    std::string all;
    for (const Finding& finding : analysis.findings().first())
        all += finding.kind + ": " + finding.text + "\n";
    return all;
}

// One finding of that kind, and all values as if there were none, where so many of the pictures that are
// shown first have lost their times.
inline void expectHarmless(const Analysis& analysis, const std::string& kind, int lost = 1) {
    EXPECT_GE(analysis.findings().count(kind), 1U) << texts(analysis);
    EXPECT_LE(analysis.findings().count(kind), 2U) << texts(analysis);
    EXPECT_EQ(analysis.findings().count(kind), analysis.findings().total()) << texts(analysis);
    EXPECT_EQ(analysis.videoFrames(), PICTURES);
    EXPECT_NEAR(analysis.videoSeconds(), undamaged().videoSeconds(), 0.001);
    EXPECT_NEAR(analysis.seconds(), undamaged().seconds(), lost * 0.041);
    EXPECT_NEAR(analysis.videoBitsPerSecond() / undamaged().videoBitsPerSecond(), 1, 0.001);
    EXPECT_NEAR(analysis.muxBitsPerSecond() / undamaged().muxBitsPerSecond(), 1, lost * 0.01);
    EXPECT_EQ(analysis.constantBitRate(), undamaged().constantBitRate());
    EXPECT_NEAR(analysis.audios()[0].seconds(), undamaged().audios()[0].seconds(), 0.001);
    EXPECT_NEAR(analysis.audioOffsetMs().value_or(9e9), *undamaged().audioOffsetMs(), 81);
    EXPECT_EQ(analysis.rates().bitsPerSecond().size(), undamaged().rates().bitsPerSecond().size());
}

inline constexpr std::int64_t LEAPS[] = {60 * SECOND,          -60 * SECOND,       5 * SECOND / 4,
                                         -5 * SECOND / 2,      10 * 3600 * SECOND, std::int64_t{1} << 31,
                                         std::int64_t{1} << 32};

} // namespace kestrel::flowscope
