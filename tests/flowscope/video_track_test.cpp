// What the headers of a video stream tell, wherever they are cut.
#include "flowscope/VideoTrack.h"
#include "mpeg/ts_maker.h"

#include <gtest/gtest.h>
#include <random>

using namespace kestrel::flowscope;

namespace {

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

// --- H.264

Bytes nal(int header, const Bytes& rbsp) {
    return Bytes{0, 0, 1, static_cast<unsigned char>(header)} + escaped(rbsp);
}
// One SEI message; type and size as they are coded (ITU-T H.264, 7.3.2.3.1).
Bytes message(std::size_t type, const Bytes& payload) {
    Bytes result;
    for (std::size_t number : {type, payload.size()}) {
        for (; number >= 255; number -= 255)
            result.push_back(255);
        result.push_back(static_cast<unsigned char>(number));
    }
    return result + payload;
}
Bytes captionMessage(std::size_t triplets) {
    Bytes data{0xB5, 0x00, 0x31, 'G', 'A', '9', '4', 3, static_cast<unsigned char>(0x40 | triplets), 0xFF};
    for (std::size_t i = 0; i < triplets; ++i)
        data = data + Bytes{0xFC, 0x00, 0x00}; // zeros, which are escaped
    return message(4, data + Bytes{0xFF});
}

TEST(H264Video, CaptionsAreFoundInEveryMessage) {
    const auto captions = [](const Bytes& messages) {
        VideoTrack track(VideoCodec::h264);
        track.feed(nal(6, messages + Bytes{0x80}) + nal(9, {0xF0}));
        track.end();
        return track.closedCaptions();
    };
    EXPECT_TRUE(captions(captionMessage(2)));
    EXPECT_TRUE(captions(message(0, {1, 2, 3}) + captionMessage(2))) << "the second message";
    EXPECT_TRUE(captions(message(5, Bytes(300, 7)) + captionMessage(2)))
        << "behind one of a size in two bytes";
    EXPECT_TRUE(captions(message(300, Bytes{1}) + captionMessage(1))) << "behind one of a type in two bytes";
    EXPECT_TRUE(captions(captionMessage(31)));
    EXPECT_FALSE(captions(message(5, captionMessage(2)))) << "in another message";
    EXPECT_FALSE(captions(message(0, {1, 2, 3})));
    EXPECT_FALSE(captions(captionMessage(0))) << "no data";
    // Cut anywhere, and messages that say they are longer than they are.
    const Bytes whole = message(0, {1, 2, 3}) + captionMessage(2);
    for (std::size_t length = 0; length < whole.size(); ++length)
        captions(Bytes(whole.begin(), whole.begin() + static_cast<long>(length)));
    EXPECT_FALSE(captions({4, 255, 255, 255}));
}

// Baseline, 352x288, VUI with nothing but timing and pic_struct_present_flag.
Bytes sequenceSet(unsigned timeScale) {
    BitString bits;
    bits.u(8, 66).u(16, 30).ue(0).ue(0).ue(2).ue(1).u(1, 0).ue(21).ue(17).u(1, 1).u(1, 1).u(1, 0);
    bits.u(1, 1);                                      // vui_parameters_present_flag
    bits.u(4, 0);                                      // aspect, overscan, signal type, chroma location
    bits.u(1, 1).u(32, 1001).u(32, timeScale).u(1, 1); // timing
    bits.u(1, 0).u(1, 0).u(1, 1).u(1, 0);              // no HRD, pic_struct, no restriction
    return nal(7, bits.bytes());
}

TEST(H264Video, TheTimeCodeIsThatOfThePictureTiming) {
    const auto timing = [](int counting, int hours, int frames) {
        BitString bits;
        bits.u(4, 0).u(1, 1).u(2, 0).u(1, 0).u(5, static_cast<unsigned>(counting)).u(1, 1).u(1, 0).u(1, 0);
        bits.u(8, static_cast<unsigned>(frames)).u(6, 20).u(6, 10).u(5, static_cast<unsigned>(hours));
        return nal(6, message(1, bits.bytes()) + Bytes{0x80});
    };
    VideoTrack track(VideoCodec::h264);
    track.feed(sequenceSet(60'000) + timing(4, 1, 2) + timing(0, 23, 9) + nal(9, {0xF0}));
    track.end();
    EXPECT_TRUE(track.dropFrame());
    constexpr int DROP = 1 << 24;
    constexpr int MARKER = 1 << 12;
    EXPECT_EQ(track.firstTimecode(), DROP | 1 << 19 | 10 << 13 | MARKER | 20 << 6 | 2) << "the first one's";
    VideoTrack counted(VideoCodec::h264);
    counted.feed(sequenceSet(60'000) + timing(0, 2, 0) + nal(9, {0xF0}));
    EXPECT_FALSE(counted.dropFrame());
    EXPECT_TRUE(counted.firstTimecode());
    EXPECT_NEAR(counted.format().rate(), 30'000.0 / 1001, 1e-9);
}

TEST(H264Video, AnAssumedRateIsForStreamsThatSayNothing) {
    VideoTrack track(VideoCodec::h264);
    track.assumeFrameRate({25, 1});
    EXPECT_EQ(track.format().rate(), 25);
    track.assumeFrameRate({50, 1});
    EXPECT_EQ(track.format().rate(), 25);
}

} // namespace
