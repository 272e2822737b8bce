// The verifier's pieces by themselves.
#include "flowscope/AudioTrack.h"
#include "flowscope/ClockCheck.h"
#include "flowscope/Findings.h"
#include "flowscope/GopStatistics.h"
#include "flowscope/Options.h"
#include "flowscope/RateProfile.h"
#include "flowscope/ReportValues.h"
#include "flowscope/VideoTrack.h"
#include "mpeg/ts_maker.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <random>

using namespace kestrel::flowscope;
using testing::HasSubstr;

namespace {

// --- command line

Options parse(std::vector<std::string> words) {
    words.insert(words.begin(), "flowScope");
    std::vector<char*> argv;
    for (std::string& word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    return parseOptions(static_cast<int>(words.size()), argv.data());
}

TEST(CommandLine, IsTheServices) {
    const Options options =
        parse({"-r", "xml", "-report_dst", "/r/", "-report_name", "G-a.ts.report.xml", "-duration", "20",
               "-out_queue_name", "/job_update_q_7", "-in_queue_name", "/mgr_msg_q_7", "-f", "/in/a.ts"});
    EXPECT_EQ(options.error, "");
    EXPECT_EQ(options.format, "xml");
    EXPECT_EQ(options.reportPath(), "/r/G-a.ts.report.xml");
    EXPECT_EQ(options.durationSeconds, 20);
    EXPECT_EQ(options.outQueue, "/job_update_q_7");
    EXPECT_EQ(options.inQueue, "/mgr_msg_q_7");
    EXPECT_EQ(options.file, "/in/a.ts");
}

TEST(CommandLine, ByHandNeedsOnlyTheFile) {
    EXPECT_EQ(parse({"-f", "/in/a.ts"}).reportPath(), "./a.ts.report.xml");
    EXPECT_EQ(parse({"-r", "html", "-f", "a.ts", "-report_dst", "/r"}).reportPath(), "/r/a.ts.report.html");
    EXPECT_TRUE(parse({"--help"}).help);
    EXPECT_THAT(usage("flowScope"), HasSubstr("-f FILE"));
}

TEST(CommandLine, SaysWhatIsWrongWithIt) {
    EXPECT_EQ(parse({}).error, "no file: -f is required");
    EXPECT_EQ(parse({"-f"}).error, "option -f needs a value");
    EXPECT_EQ(parse({"-x", "-f", "a"}).error, "unknown option -x");
    EXPECT_EQ(parse({"-f", "a", "b"}).error, "unexpected argument b");
    EXPECT_EQ(parse({"-r", "pdf", "-f", "a"}).error, "-r pdf: expected xml or html");
    for (const char* bad : {"0", "-1", "x", "5s", "99999999999999999999", ""})
        EXPECT_EQ(parse({"-duration", bad, "-f", "a"}).error,
                  std::string("-duration ") + bad + ": expected a number of seconds from 1 on");
}

// --- audio frames

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

// --- groups of pictures

GopStatistics gops(const std::string& coded) {
    GopStatistics statistics;
    for (const char type : coded)
        statistics.frame(type, type == 'I');
    return statistics;
}

TEST(Gops, HaveTheMostFrequentSizeAndStructure) {
    const GopStatistics regular = gops("IPBBPBB"
                                       "IBBPBBPBB"
                                       "IBBPBBPBB"
                                       "IBBPBBPBB"
                                       "IB");
    EXPECT_EQ(regular.size(), 9);
    EXPECT_EQ(regular.structure(), "IBBP");
    EXPECT_FALSE(regular.adaptive()) << "the first and the cut last one do not count";
    EXPECT_EQ(gops("IPPPIPPPIPPPI").structure(), "IP");
    EXPECT_EQ(gops("IIIIII").structure(), "I");
    EXPECT_EQ(gops("IIIIII").size(), 1);
}

TEST(Gops, ThatDifferAreAdaptive) {
    EXPECT_TRUE(gops("IPP"
                     "IPPP"
                     "IPP"
                     "IPPP"
                     "I")
                    .adaptive());
    EXPECT_TRUE(gops("IPB"
                     "IPB"
                     "IBP"
                     "IPB"
                     "I")
                    .adaptive())
        << "of one size, but of another order";
}

TEST(Gops, OfAStreamWithOnlyOneIsWhatThereIs) {
    EXPECT_EQ(gops("IPPPP").size(), 5);
    EXPECT_EQ(gops("").size(), 0);
}

// --- the clock

constexpr std::int64_t MS = 27'000;

TEST(Clock, IntervalsOfMoreThanAHundredMillisecondsAreTooLong) {
    ClockCheck clock;
    clock.reference(0, 0);
    clock.reference(100 * MS, 10);
    EXPECT_EQ(clock.tooLong(), 0U);
    clock.reference(200 * MS + 1, 20);
    EXPECT_EQ(clock.tooLong(), 1U);
    EXPECT_NEAR(clock.longestIntervalMs(), 100, 0.001);
    EXPECT_EQ(clock.count(), 3U);
}

TEST(Clock, TheWrapIsNoJump) {
    constexpr std::int64_t TURN = (std::int64_t{1} << 33) * 300;
    ClockCheck clock;
    for (int i = -50; i < 50; ++i)
        clock.reference((TURN + i * 40 * MS) % TURN, i);
    EXPECT_EQ(clock.jumps(), 0U);
    EXPECT_NEAR(clock.jitterUs(), 0, 1e-6);
    EXPECT_NEAR(clock.longestIntervalMs(), 40, 1e-6);
}

TEST(Clock, JumpsAreCounted) {
    ClockCheck clock;
    clock.reference(1000 * MS, 0);
    clock.reference(5000 * MS, 1);
    clock.reference(100 * MS, 2);
    EXPECT_EQ(clock.jumps(), 2U);
}

TEST(Clock, JitterIsTheDistanceFromAConstantRate) {
    ClockCheck clock;
    for (int i = 0; i <= 100; ++i)
        clock.reference(i * 40 * MS + (i == 50 ? 27 : 0), i * 100);
    EXPECT_NEAR(clock.jitterUs(), 1, 0.01);
}

TEST(Clock, AMillionReferencesTakeNoMoreRoom) {
    ClockCheck clock;
    for (int i = 0; i < 1'000'000; ++i)
        clock.reference(std::int64_t{i} * 40 * MS % ((std::int64_t{1} << 33) * 300), i * 100);
    EXPECT_EQ(clock.count(), 1'000'000U);
    EXPECT_NEAR(clock.jitterUs(), 0, 0.1);
}

// --- rates and findings

TEST(Rates, AreThoseOfEachSecond) {
    RateProfile rates;
    rates.add(0.1, 1000);
    rates.add(0.9, 1000);
    rates.add(1.5, 500);
    rates.add(2.5, 1);
    EXPECT_EQ(rates.stepSeconds(), 1);
    EXPECT_EQ(rates.bitsPerSecond(), (std::vector<double>{16'000, 4'000})) << "the last second is not whole";
    rates.add(-5, 1000);
    EXPECT_EQ(rates.bitsPerSecond()[0], 24'000);
}

TEST(Rates, OfADayTakeNoMoreRoom) {
    RateProfile rates;
    for (int second = 0; second <= 86'400; ++second)
        rates.add(second, 1000);
    EXPECT_EQ(rates.stepSeconds(), 32);
    EXPECT_LE(rates.bitsPerSecond().size(), RateProfile::mostSteps);
    EXPECT_NEAR(rates.bitsPerSecond()[100], 8000, 1);
    rates.add(1e300, 1);
    EXPECT_LE(rates.bitsPerSecond().size(), RateProfile::mostSteps);
}

TEST(FindingsList, KeepsTheFirstOfEachKindAndCountsAll) {
    Findings findings;
    EXPECT_TRUE(findings.empty());
    for (int i = 0; i < 1000; ++i)
        findings.add("continuity", std::to_string(i));
    findings.add("sync", "x");
    EXPECT_EQ(findings.first().size(), Findings::mostOfAKind + 1);
    EXPECT_EQ(findings.count("continuity"), 1000U);
    EXPECT_EQ(findings.count("sync"), 1U);
    EXPECT_EQ(findings.count("nothing"), 0U);
}

TEST(Texts, OfRatesHaveNoZerosAtTheEnd) {
    EXPECT_EQ(rateText(25), "25");
    EXPECT_EQ(rateText(30000.0 / 1001), "29.97");
    EXPECT_EQ(rateText(24000.0 / 1001), "23.976");
    EXPECT_EQ(rateText(60000.0 / 1001), "59.94");
    EXPECT_EQ(rateText(0), "");
    EXPECT_EQ(bitRateText(1234567.8), "1234568");
    EXPECT_EQ(bitRateText(0), "");
}

// --- video

Bytes captionData(unsigned char code = 3, unsigned char flags = 0x41) {
    return {0, 0, 1, 0xB2, 'G', 'A', '9', '4', code, flags, 0xFF, 0xFC, 0x80, 0x80, 0xFF, 0x55, 0x55, 0x55};
}

TEST(Video, HeadersAreFoundWhereverTheyAreCut) {
    Bytes stream;
    for (int i = 0; i < 3; ++i)
        stream = stream + sequenceHeader(720, 576, 3) + sequenceExtension(0x48) +
                 gopHeader(10, 0, i, 0, true) + pictureHeader(1) + pictureCodingExtension(3, true, false) +
                 captionData() + filler(50) + pictureHeader(2) + pictureCodingExtension(3, true, false) +
                 filler(50);
    for (std::size_t piece = 1; piece < 64; ++piece) {
        VideoTrack track(VideoCodec::mpeg2);
        for (std::size_t at = 0; at < stream.size(); at += piece)
            track.feed(std::span(stream).subspan(at, std::min(piece, stream.size() - at)));
        track.end();
        EXPECT_EQ(track.frames(), 6U) << piece;
        EXPECT_EQ(track.format().width, 720);
        EXPECT_EQ(track.format().height, 576);
        EXPECT_EQ(track.gops().size(), 2);
        EXPECT_TRUE(track.dropFrame());
        EXPECT_TRUE(track.closedCaptions());
        EXPECT_EQ(track.bytes(), stream.size());
    }
}

TEST(Video, TwoFieldsAreOneFrame) {
    VideoTrack track(VideoCodec::mpeg2);
    track.feed(sequenceHeader(720, 576, 3) + sequenceExtension(0x48) + pictureHeader(1) +
               pictureCodingExtension(1, false, false) + filler(20) + pictureHeader(2) +
               pictureCodingExtension(2, false, false) + filler(20));
    track.end();
    EXPECT_EQ(track.frames(), 1U);
}

TEST(Video, CaptionsAreThoseOfAtscWithData) {
    const auto captions = [](const Bytes& data) {
        VideoTrack track(VideoCodec::mpeg2);
        track.feed(pictureHeader(1) + pictureCodingExtension(3, true, false) + data);
        track.end();
        return track.closedCaptions();
    };
    EXPECT_TRUE(captions(captionData()));
    EXPECT_FALSE(captions(captionData(6))) << "bar data";
    EXPECT_FALSE(captions(captionData(3, 0x01))) << "process_cc_data_flag is off";
    EXPECT_FALSE(captions(captionData(3, 0x40))) << "cc_count 0";
    EXPECT_FALSE(captions({}));
}

TEST(Video, AlignmentIsThatOfEveryHeader) {
    const auto aligned = [](std::size_t between) {
        VideoTrack track(VideoCodec::mpeg2);
        track.feed(sequenceHeader(720, 576, 3) + pictureHeader(1) + filler(between) + pictureHeader(2) +
                   filler(8));
        return track.quadByteAligned();
    };
    EXPECT_TRUE(aligned(40));
    EXPECT_FALSE(aligned(41));
    EXPECT_FALSE(aligned(42));
    EXPECT_FALSE(VideoTrack(VideoCodec::mpeg2).quadByteAligned()) << "nothing to be aligned";
}

TEST(Video, TheRateIsConstantWhereTheDelayIsCoded) {
    const auto constant = [](int delay) {
        Bytes picture = pictureHeader(1);
        picture[5] = static_cast<unsigned char>((picture[5] & 0xF8) | delay >> 13);
        picture[6] = static_cast<unsigned char>(delay >> 5);
        picture[7] = static_cast<unsigned char>(delay << 3);
        VideoTrack track(VideoCodec::mpeg2);
        track.feed(picture + filler(8));
        return track.constantBitRate();
    };
    EXPECT_EQ(constant(0xFFFF), false);
    EXPECT_EQ(constant(1234), true);
    EXPECT_EQ(VideoTrack(VideoCodec::h264).constantBitRate(), std::nullopt);
}

TEST(Video, ATimeCodeThatDoesNotFollowIsCounted) {
    const auto jumps = [](int secondGopSecond) {
        VideoTrack track(VideoCodec::mpeg2);
        Bytes stream = sequenceHeader(720, 576, 3) + sequenceExtension(0x48) + gopHeader(1, 0, 0, 0);
        for (int i = 0; i < 25; ++i)
            stream =
                stream + pictureHeader(i == 0 ? 1 : 2) + pictureCodingExtension(3, true, false) + filler(8);
        stream = stream + gopHeader(1, 0, secondGopSecond, 0) + pictureHeader(1) +
                 pictureCodingExtension(3, true, false) + filler(8);
        track.feed(stream);
        track.end();
        return track.timecodeJumps();
    };
    EXPECT_EQ(jumps(1), 0U);
    EXPECT_EQ(jumps(2), 1U);
    EXPECT_EQ(jumps(0), 1U);
}

TEST(Video, RandomBytesEndAndStayInside) {
    std::mt19937 random(2);
    for (const VideoCodec codec : {VideoCodec::mpeg2, VideoCodec::h264}) {
        VideoTrack track(codec);
        for (int i = 0; i < 5000; ++i) {
            Bytes bytes(random() % 200);
            for (unsigned char& byte : bytes)
                byte = static_cast<unsigned char>(random() % 3 == 0 ? random() % 2 : random());
            bytes.shrink_to_fit();
            track.feed(bytes);
            if (i % 100 == 0)
                track.skip();
        }
        track.end();
        EXPECT_GE(track.gops().size(), 0);
    }
}

} // namespace
