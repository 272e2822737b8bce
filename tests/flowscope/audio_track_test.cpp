// The frames of the audio codings, and what a track makes of them.
#include "flowscope/AudioTrack.h"
#include "mpeg/ts_maker.h"

#include <gtest/gtest.h>
#include <random>

using namespace kestrel::flowscope;

namespace {

Bytes ac3Frame(int acmod, bool lfe) {
    Bytes frame{0x0B, 0x77, 0, 0, 0x1C, 0x40, 0, 0}; // 48 kHz, 384 kb/s
    BitString bits;
    bits.u(3, static_cast<unsigned>(acmod));
    if ((acmod & 1) != 0 && acmod != 1)
        bits.u(2, 0);
    if ((acmod & 4) != 0)
        bits.u(2, 0);
    if (acmod == 2)
        bits.u(2, 0);
    bits.u(1, lfe);
    const Bytes tail = bits.bytes();
    std::copy(tail.begin(), tail.begin() + static_cast<long>(std::min<std::size_t>(tail.size(), 2)),
              frame.begin() + 6);
    frame.resize(1536, 0x55);
    return frame;
}

TEST(AudioFrames, EveryAc3ModeHasItsChannels) {
    const int channels[] = {2, 1, 2, 3, 3, 4, 4, 5};
    const char* const modes[] = {"1+1", "1/0", "2/0", "3/0", "2/1", "3/1", "2/2", "3/2"};
    for (int acmod = 0; acmod < 8; ++acmod)
        for (const bool lfe : {false, true}) {
            const auto format = readAudioFrame(AudioCodec::ac3, ac3Frame(acmod, lfe));
            ASSERT_TRUE(format) << acmod;
            EXPECT_EQ(format->channels, channels[acmod]);
            EXPECT_EQ(format->lowFrequency, lfe) << acmod;
            EXPECT_EQ(format->mode, std::string(modes[acmod]) + (lfe ? " LFE" : ""));
            EXPECT_EQ(format->bitRate, 384'000);
            EXPECT_EQ(format->samplingRate, 48'000);
            EXPECT_EQ(format->frameBytes, 1536U);
        }
}

TEST(AudioFrames, MpegLayersHaveTheirSizes) {
    // Layer II, 48 kHz, 192 kb/s, joint stereo.
    const Bytes layer2{0xFF, 0xFD, 0xA4, 0x40};
    const auto format = readAudioFrame(AudioCodec::mpeg, layer2);
    ASSERT_TRUE(format);
    EXPECT_EQ(format->bitRate, 192'000);
    EXPECT_EQ(format->samplingRate, 48'000);
    EXPECT_EQ(format->frameBytes, 576U);
    EXPECT_EQ(format->mode, "joint stereo");
    const Bytes layer3{0xFF, 0xFB, 0x90, 0xC0}; // 44.1 kHz, 128 kb/s, mono
    EXPECT_EQ(readAudioFrame(AudioCodec::mpeg, layer3)->frameBytes, 417U);
    EXPECT_EQ(readAudioFrame(AudioCodec::mpeg, layer3)->channels, 1);
    const Bytes layer1{0xFF, 0xFF, 0x88, 0x00}; // 32 kb/s steps: 256 kb/s, 32 kHz
    EXPECT_EQ(readAudioFrame(AudioCodec::mpeg, layer1)->samples, 384);
}

TEST(AudioFrames, WhatIsNoHeaderIsNone) {
    for (const AudioCodec codec :
         {AudioCodec::ac3, AudioCodec::eac3, AudioCodec::mpeg, AudioCodec::aac, AudioCodec::unknown}) {
        EXPECT_FALSE(readAudioFrame(codec, {}));
        EXPECT_FALSE(readAudioFrame(codec, Bytes(8, 0)));
        EXPECT_FALSE(readAudioFrame(codec, Bytes(8, 0xFF)));
    }
    const Bytes whole = ac3Frame(2, false);
    for (std::size_t length = 0; length < 8; ++length)
        EXPECT_FALSE(
            readAudioFrame(AudioCodec::ac3, Bytes(whole.begin(), whole.begin() + static_cast<long>(length))));
}

TEST(AudioFrames, ATrackFindsThemWhereverTheyAreCut) {
    Bytes stream = filler(100);
    for (int i = 0; i < 20; ++i)
        stream = stream + ac3Frame(7, true);
    for (const std::size_t piece : {std::size_t{1}, std::size_t{7}, std::size_t{184}, stream.size()}) {
        AudioTrack track(AudioCodec::ac3);
        for (std::size_t at = 0; at < stream.size(); at += piece)
            track.feed(std::span(stream).subspan(at, std::min(piece, stream.size() - at)));
        EXPECT_EQ(track.frames(), 20U) << piece;
        EXPECT_EQ(track.format().allChannels(), 6);
        EXPECT_EQ(track.bitsPerSecond(), 384'000);
        EXPECT_EQ(track.formatChanges(), 0U);
    }
}

TEST(AudioFrames, AChangeOfFormatIsCounted) {
    AudioTrack track(AudioCodec::ac3);
    track.feed(ac3Frame(7, true));
    track.feed(ac3Frame(2, false));
    track.feed(ac3Frame(7, true));
    EXPECT_EQ(track.formatChanges(), 1U);
    EXPECT_EQ(track.format().channels, 5) << "the first one's";
}

TEST(AudioFrames, RandomBytesEnd) {
    std::mt19937 random(4);
    for (const AudioCodec codec : {AudioCodec::ac3, AudioCodec::eac3, AudioCodec::mpeg, AudioCodec::aac}) {
        AudioTrack track(codec);
        for (int i = 0; i < 2000; ++i) {
            Bytes bytes(random() % 300);
            for (unsigned char& byte : bytes)
                byte = static_cast<unsigned char>(random() % 8 == 0 ? 0xFF : random());
            track.feed(bytes);
        }
        EXPECT_GE(track.bitsPerSecond(), 0);
    }
}

// E-AC-3 of 48 kHz, six blocks, 3/2 with LFE; strmtyp and substreamid as given.
Bytes eac3Frame(int type, int substream, std::size_t size = 768) {
    const std::size_t words = size / 2 - 1;
    Bytes frame{0x0B,
                0x77,
                static_cast<unsigned char>(type << 6 | substream << 3 | static_cast<int>(words >> 8)),
                static_cast<unsigned char>(words),
                0x3F, // fscod 0, numblkscod 3, acmod 7, lfeon
                0x80, // bsid 16
                0,
                0};
    frame.resize(size, 0x55);
    return frame;
}

TEST(AudioFrames, SubstreamsHaveBytesButNoTime) {
    AudioTrack track(AudioCodec::eac3);
    Bytes stream;
    for (int i = 0; i < 10; ++i)
        stream = stream + eac3Frame(0, 0) + eac3Frame(1, 0, 256) + eac3Frame(0, 1, 512);
    track.feed(stream);
    track.end();
    EXPECT_EQ(track.frames(), 10U);
    EXPECT_NEAR(track.seconds(), 10 * 0.032, 1e-9);
    EXPECT_EQ(track.format().allChannels(), 6);
    EXPECT_NEAR(track.bitsPerSecond(), (768 + 256 + 512) * 8 / 0.032, 1);
    EXPECT_EQ(track.formatChanges(), 0U);
    EXPECT_FALSE(readAudioFrame(AudioCodec::eac3, eac3Frame(3, 0))) << "a reserved type";
}

TEST(AudioFrames, AHeaderAloneIsNoFrame) {
    // Layer I at 32 kHz in what is layer II at 48 kHz: bytes that only look like a header.
    const Bytes looksLikeOne{0xFF, 0xFF, 0x18, 0x00};
    Bytes frame{0xFF, 0xFD, 0xA4, 0x00}; // 192 kb/s stereo
    frame.resize(576, 0x55);
    Bytes stream = filler(30) + looksLikeOne + filler(70);
    for (int i = 0; i < 10; ++i)
        stream = stream + frame;
    AudioTrack track(AudioCodec::mpeg);
    track.feed(stream);
    EXPECT_EQ(track.frames(), 10U);
    EXPECT_EQ(track.format().samplingRate, 48'000);
    EXPECT_EQ(track.format().layer, 2);
    EXPECT_EQ(track.bitsPerSecond(), 192'000);
    // The same behind a loss, even with another one of its kind behind it: the track's layer is known.
    Bytes layer1{0xFF, 0xFF, 0x18, 0x00};
    layer1.resize(48, 0x55);
    track.skip();
    track.feed(filler(30) + layer1 + layer1 + layer1 + stream);
    EXPECT_EQ(track.frames(), 20U);
    EXPECT_EQ(track.formatChanges(), 0U);
    EXPECT_EQ(track.breaks(), 0U);
}

TEST(AudioFrames, TheOnlyFrameOfATrackCounts) {
    AudioTrack track(AudioCodec::ac3);
    track.feed(filler(5) + ac3Frame(2, false));
    EXPECT_EQ(track.frames(), 0U) << "nothing follows it yet";
    track.end();
    EXPECT_EQ(track.frames(), 1U);
    AudioTrack cut(AudioCodec::ac3);
    const Bytes frame = ac3Frame(2, false);
    cut.feed(std::span(frame).first(1000));
    cut.end();
    EXPECT_EQ(cut.frames(), 0U);
}

TEST(AudioFrames, APlaceWhereNoneFollowsIsCountedUnlessBytesWereLost) {
    AudioTrack track(AudioCodec::ac3);
    Bytes stream;
    for (int i = 0; i < 5; ++i)
        stream = stream + ac3Frame(2, false);
    track.feed(stream + filler(33) + stream);
    EXPECT_EQ(track.breaks(), 1U);
    EXPECT_EQ(track.frames(), 10U);
    track.skip();
    track.feed(filler(33) + stream);
    EXPECT_EQ(track.breaks(), 1U);
    EXPECT_EQ(track.frames(), 15U);
}

TEST(AudioTimes, DepartFromTheFramesBetweenThem) {
    AudioTrack track(AudioCodec::ac3);
    constexpr std::int64_t FRAME = 2880; // 32 ms in ticks of 90 kHz
    const Bytes two = ac3Frame(2, false) + ac3Frame(2, false);
    EXPECT_FALSE(track.stamp(PTS::from_ticks(0))) << "nothing to follow";
    track.feed(two);
    EXPECT_FALSE(track.stamp(PTS::from_ticks(2 * FRAME))) << "the frames before it were only just found";
    track.feed(two);
    EXPECT_NEAR(track.stamp(PTS::from_ticks(4 * FRAME)).value_or(9), 0, 1e-9);
    track.feed(two);
    EXPECT_NEAR(track.stamp(PTS::from_ticks(6 * FRAME + 900)).value_or(9), 0.01, 1e-9);
    track.feed(two);
    EXPECT_NEAR(track.stamp(PTS::from_ticks(8 * FRAME)).value_or(9), -0.01, 1e-9);
    track.skip();
    track.feed(two);
    EXPECT_FALSE(track.stamp(PTS::from_ticks(20 * FRAME))) << "bytes were lost";
    EXPECT_EQ(track.firstPts().ticks(), 0);
    EXPECT_EQ(track.lastPts().ticks(), 20 * FRAME);
    EXPECT_FALSE(track.stamp(PTS()));
}

} // namespace
