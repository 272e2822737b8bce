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

// Width, height and, where that is known, the kind of coding that a stream tells.
std::string shapeOf(const Bytes& stream) {
    VideoTrack track(VideoCodec::mpeg2);
    track.feed(stream);
    track.end();
    const VideoFormat& format = track.format();
    return std::to_string(format.width) + "x" + std::to_string(format.height) +
           (!format.interlaced   ? ""
            : *format.interlaced ? " interlaced"
                                 : " progressive");
}

TEST(Video, ASizeIsThatOfTheLastHeaderAndItsExtension) {
    const Bytes header = sequenceHeader(720, 576, 3);
    const Bytes large = sequenceExtension(0x48, false, 1, 2);
    EXPECT_EQ(shapeOf(header + sequenceExtension(0x48)), "720x576 interlaced");
    EXPECT_EQ(shapeOf(header + sequenceExtension(0x48, true)), "720x576 progressive");
    EXPECT_EQ(shapeOf(header + large + large), "4816x8768 interlaced");
    EXPECT_EQ(shapeOf(header + large + sequenceExtension(0x48)), "720x576 interlaced");
    EXPECT_EQ(shapeOf(large), "0x0 interlaced") << "upper bits of nothing";
    EXPECT_EQ(shapeOf(large + header), "720x576 interlaced");
}

TEST(Video, ADamagedHeaderTellsNothing) {
    const Bytes good = sequenceHeader(720, 576, 3) + sequenceExtension(0x48);
    for (const auto& [width, height] : {std::pair(0, 576), {720, 0}, {0, 0}}) {
        const Bytes damaged = sequenceHeader(width, height, 3);
        EXPECT_EQ(shapeOf(damaged + sequenceExtension(0x48, false, 1, 1)), "0x0 interlaced");
        EXPECT_EQ(shapeOf(good + damaged), "720x576 interlaced");
        EXPECT_EQ(shapeOf(good + damaged + sequenceExtension(0x48)), "720x576 interlaced");
    }
}

TEST(Video, Mpeg1IsProgressive) {
    const Bytes header = sequenceHeader(352, 288, 3);
    const Bytes picture = pictureHeader(1) + filler(20);
    EXPECT_EQ(shapeOf(header + picture), "352x288") << "its coding extension may be lost";
    EXPECT_EQ(shapeOf(header + picture + picture), "352x288 progressive");
    EXPECT_EQ(shapeOf(header + pictureHeader(1) + pictureCodingExtension(3, true, false) + pictureHeader(1)),
              "352x288")
        << "MPEG-2 whose sequence extension is lost";
}

TEST(Video, TwoFieldsAreOneFrame) {
    VideoTrack track(VideoCodec::mpeg2);
    track.feed(sequenceHeader(720, 576, 3) + sequenceExtension(0x48) + pictureHeader(1) +
               pictureCodingExtension(1, false, false) + filler(20) + pictureHeader(2) +
               pictureCodingExtension(2, false, false) + filler(20));
    track.end();
    EXPECT_EQ(track.frames(), 1U);
}

TEST(Video, ARepeatedExtensionExtendsTheHeadersRateOnce) {
    VideoTrack track(VideoCodec::mpeg2);
    track.feed(sequenceHeader(720, 576, 3));
    Bytes extension = sequenceExtension(0x48);
    extension.at(9) = 1 << 5 | 4; // twice, by five
    for (int i = 0; i < 40; ++i)
        track.feed(extension);
    track.feed(pictureHeader(1));
    EXPECT_EQ(track.format().rate(), 10);
    // By 32: less than one a second, which is not believed.
    extension.at(9) = 0x1F;
    track.feed(extension);
    track.feed(pictureHeader(1));
    EXPECT_EQ(track.format().rate(), 10);
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

// A sequence of 25 frames a second with that bit_rate_value and vbv_buffer_size_value, their extensions last.
Bytes ratedSequence(int rate, int buffer, int rateHigh = 0, int bufferHigh = 0) {
    Bytes sequence = sequenceHeader(720, 576, 3);
    sequence[8] = static_cast<unsigned char>(rate >> 10);
    sequence[9] = static_cast<unsigned char>(rate >> 2);
    sequence[10] = static_cast<unsigned char>((rate & 3) << 6 | 0x20 | buffer >> 5);
    sequence[11] = static_cast<unsigned char>(buffer << 3);
    Bytes extension = sequenceExtension(0x48);
    extension[6] = static_cast<unsigned char>(extension[6] | rateHigh >> 7);
    extension[7] = static_cast<unsigned char>((rateHigh & 0x7F) << 1 | 1);
    extension[8] = static_cast<unsigned char>(bufferHigh);
    return sequence + extension;
}
Bytes ratedPicture(int delay) {
    Bytes picture = pictureHeader(1);
    picture[5] = static_cast<unsigned char>((picture[5] & 0xF8) | delay >> 13);
    picture[6] = static_cast<unsigned char>(delay >> 5);
    picture[7] = static_cast<unsigned char>(delay << 3);
    return picture + pictureCodingExtension(3, true, false) + filler(8);
}

TEST(Video, AConstantRateIsThatOfTheHeaders) {
    const auto coded = [](const Bytes& stream) {
        VideoTrack track(VideoCodec::mpeg2);
        track.feed(stream);
        track.end();
        return track.codedRate().value_or(VideoTrack::CodedRate{});
    };
    using Rate = VideoTrack::CodedRate;
    const Bytes sd = ratedSequence(7950, 112);
    EXPECT_EQ(coded(sd + ratedPicture(1234)), (Rate{3'180'000, 1'835'008}));
    EXPECT_EQ(coded(ratedSequence(0x2AAAA, 0x2AA, 0xAAA, 0xAA) + ratedPicture(1234)),
              (Rate{400.0 * 0x2AAAAAAA, 16'384.0 * 0x2AAAA}));
    EXPECT_EQ(coded(sd + ratedPicture(1234) + sd + ratedPicture(4321)), (Rate{3'180'000, 1'835'008}));
    EXPECT_EQ(coded(ratedPicture(1234) + sd + ratedPicture(4321)), (Rate{3'180'000, 1'835'008}))
        << "of a stream that begins within a group";
    EXPECT_EQ(coded(sd + ratedPicture(0xFFFF)), Rate{}) << "variable";
    EXPECT_EQ(coded(sd + ratedPicture(1234) + ratedPicture(0xFFFF)), Rate{});
    EXPECT_EQ(coded(sd + ratedPicture(1234) + ratedSequence(7951, 112) + ratedPicture(1234)), Rate{})
        << "of two rates";
    EXPECT_EQ(coded(ratedPicture(1234)), Rate{}) << "without headers";
    EXPECT_EQ(coded(ratedSequence(0, 112) + ratedPicture(1234)), Rate{}) << "a value that is forbidden";
    const Bytes whole = sd + ratedPicture(1234);
    for (std::size_t length = 0; length < whole.size(); ++length)
        coded(Bytes(whole.begin(), whole.begin() + static_cast<long>(length)));
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
        return track.timecodes().jumps();
    };
    EXPECT_EQ(jumps(1), 0U);
    EXPECT_EQ(jumps(2), 1U);
    EXPECT_EQ(jumps(0), 1U);
}

TEST(Video, AFrameLastsLongerWhereItsFirstFieldIsRepeated) {
    const auto fields = [](bool progressive, bool topFirst, bool repeat) {
        VideoTrack track(VideoCodec::mpeg2);
        track.feed(sequenceHeader(720, 480, 4) + sequenceExtension(0x48, progressive) + pictureHeader(1) +
                   pictureCodingExtension(3, topFirst, repeat) + filler(8));
        track.end();
        EXPECT_EQ(track.frames(), 1U);
        return track.fields();
    };
    EXPECT_EQ(fields(false, true, false), 2U);
    EXPECT_EQ(fields(false, true, true), 3U);
    EXPECT_EQ(fields(false, false, true), 3U);
    EXPECT_EQ(fields(true, false, false), 2U);
    EXPECT_EQ(fields(true, false, true), 4U) << "a frame twice";
    EXPECT_EQ(fields(true, true, true), 6U) << "three times";
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

// The same with HRD parameters: a cbr_flag for each schedule of the NAL units' HRD and of the other one.
Bytes sequenceSetWithHrd(const std::vector<unsigned>& nalFlags, const std::vector<unsigned>& vclFlags) {
    BitString bits;
    bits.u(8, 66).u(16, 30).ue(0).ue(0).ue(2).ue(1).u(1, 0).ue(21).ue(17).u(1, 1).u(1, 1).u(1, 0);
    bits.u(1, 1).u(4, 0).u(1, 0); // VUI without timing
    for (const auto& flags : {nalFlags, vclFlags}) {
        bits.u(1, flags.empty() ? 0 : 1);
        if (flags.empty())
            continue;
        bits.ue(static_cast<unsigned>(flags.size()) - 1).u(4, 3).u(4, 5); // times 512 both
        unsigned rate = 1000;
        for (const unsigned flag : flags)
            bits.ue(rate++).ue(500).u(1, flag);
        bits.u(5, 23).u(5, 23).u(5, 23).u(5, 24);
    }
    bits.u(1, 0).u(1, 0).u(1, 0).u(1, 1); // low_delay_hrd_flag, pic_struct, restriction, end
    return nal(7, bits.bytes());
}

TEST(H264Video, TheRateIsConstantWhereAScheduleOfTheHrdIs) {
    const auto constant = [](const Bytes& stream) {
        VideoTrack track(VideoCodec::h264);
        track.feed(stream + nal(9, {0xF0}));
        track.end();
        return track.constantBitRate();
    };
    using Flags = std::vector<unsigned>;
    EXPECT_EQ(constant(sequenceSetWithHrd({1}, {})), true);
    EXPECT_EQ(constant(sequenceSetWithHrd({0}, {})), false);
    EXPECT_EQ(constant(sequenceSetWithHrd({}, {1})), true);
    EXPECT_EQ(constant(sequenceSetWithHrd({}, {0})), false);
    EXPECT_EQ(constant(sequenceSetWithHrd({1, 0}, {})), true) << "the schedule of a higher rate is variable";
    EXPECT_EQ(constant(sequenceSetWithHrd({0, 0}, {})), false);
    EXPECT_EQ(constant(sequenceSetWithHrd({1}, {0})), true) << "the first counts filler data";
    EXPECT_EQ(constant(sequenceSetWithHrd({0}, {1})), false);
    EXPECT_EQ(constant(sequenceSetWithHrd(Flags(32, 0), {})), false) << "as many as there may be";
    EXPECT_EQ(constant(sequenceSet(60'000)), std::nullopt) << "its bytes tell";
    EXPECT_EQ(constant(sequenceSetWithHrd({0}, {}) + sequenceSetWithHrd({1}, {})), false)
        << "of variable rate once is of variable rate";
    EXPECT_EQ(constant(sequenceSetWithHrd({1}, {}) + sequenceSetWithHrd({0}, {})), false);
    // Cut anywhere.
    const Bytes whole = sequenceSetWithHrd({1, 0}, {0});
    for (std::size_t length = 0; length < whole.size(); ++length)
        constant(Bytes(whole.begin(), whole.begin() + static_cast<long>(length)));
}

TEST(H264Video, AConstantRateIsThatOfTheHrdForAllUnits) {
    const auto coded = [](const std::vector<unsigned>& nalFlags, const std::vector<unsigned>& vclFlags,
                          const Bytes& behind = {}) {
        VideoTrack track(VideoCodec::h264);
        track.feed(sequenceSetWithHrd(nalFlags, vclFlags) + nal(8, {0xCE, 0x3C, 0x80}) +
                   nal(5, {0x88, 0x84, 0x21, 0xA0}) + behind + nal(9, {0xF0}));
        track.end();
        EXPECT_GE(track.frames(), 1U);
        return track.codedRate().value_or(VideoTrack::CodedRate{});
    };
    using Rate = VideoTrack::CodedRate;
    const Rate first{1001 * 512, 501 * 512};
    EXPECT_EQ(coded({1}, {}), first);
    EXPECT_EQ(coded({1}, {1}), first);
    EXPECT_EQ(coded({0, 1, 1}, {}), (Rate{1002 * 512, 501 * 512})) << "the slowest of constant rate";
    EXPECT_EQ(coded({0}, {1}), Rate{});
    EXPECT_EQ(coded({}, {1}), Rate{}) << "that does not count all bytes of the stream";
    EXPECT_EQ(coded({}, {}), Rate{});
    EXPECT_EQ(coded({1}, {}, sequenceSetWithHrd({0, 1}, {}) + nal(5, {0x88, 0x84, 0x21, 0xA0})), Rate{})
        << "of two rates";
}

TEST(H264Video, DelimitersAreCountedApart) {
    VideoTrack track(VideoCodec::h264);
    const Bytes delimiter = nal(9, {0xF0});
    track.feed(delimiter + sequenceSet(60'000) + delimiter + nal(6, {0x80}) + delimiter);
    track.end();
    EXPECT_EQ(track.delimiterBits(), 3 * 48);
    VideoTrack other(VideoCodec::mpeg2);
    other.feed(delimiter + delimiter);
    other.end();
    EXPECT_EQ(other.delimiterBits(), 0);
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

// --- time codes and lengths of H.264

// A slice that is a whole frame: its type as it is coded.
Bytes slice(unsigned type, std::size_t size = 4) {
    BitString bits;
    bits.ue(0).ue(type).ue(0).u(4, 0);
    return nal(1, bits.bytes() + filler(size));
}
Bytes clockOf(int seconds, int frames, bool discontinuity = false, unsigned structure = 0) {
    BitString bits;
    bits.u(4, structure).u(1, 1).u(2, 0).u(1, 1).u(5, 0).u(1, 1).u(1, discontinuity ? 1 : 0).u(1, 0);
    bits.u(8, static_cast<unsigned>(frames)).u(6, static_cast<unsigned>(seconds)).u(6, 0).u(5, 10).u(2, 0);
    return nal(6, message(1, bits.bytes()) + Bytes{0x80});
}
constexpr unsigned P = 0;
constexpr unsigned B = 1;
constexpr unsigned I = 2;

// IBBP at 30/1.001 frames a second, in the order of coding, each picture with the label of its place; shift
// changes the label of a place.
template <typename Shift>
VideoTrack labelled(Shift shift) {
    VideoTrack track(VideoCodec::h264);
    Bytes stream = sequenceSet(60'000);
    const auto picture = [&](int place, unsigned type) {
        const int label = place + shift(place);
        stream = std::move(stream) + clockOf(label / 30, label % 30) + slice(type);
    };
    picture(0, I);
    for (int anchor = 3; anchor < 90; anchor += 3) {
        picture(anchor, P);
        picture(anchor - 2, B);
        picture(anchor - 1, B);
    }
    track.feed(stream);
    track.end();
    EXPECT_EQ(track.frames(), 88U);
    return track;
}

TEST(H264Video, TimeCodesFollowInTheOrderOfShowing) {
    EXPECT_EQ(labelled([](int) { return 0; }).timecodes().jumps(), 0U);
    const VideoTrack ahead = labelled([](int place) { return place >= 40 ? 100 : 0; });
    EXPECT_EQ(ahead.timecodes().jumps(), 1U);
    EXPECT_EQ(ahead.timecodes().latest(), "10:00:04:20 does not follow from 10:00:01:09 and 1 frames");
    EXPECT_EQ(labelled([](int place) { return place >= 40 ? -35 : 0; }).timecodes().jumps(), 1U);
    EXPECT_EQ(labelled([](int place) { return place >= 40 ? 1 : 0; }).timecodes().jumps(), 1U)
        << "one skipped";
    EXPECT_EQ(labelled([](int place) { return place >= 40 ? -1 : 0; }).timecodes().jumps(), 1U)
        << "one twice";
}

TEST(H264Video, ATimeCodeThatIsAnnouncedNotToFollowIsNoJump) {
    for (const bool announced : {false, true}) {
        VideoTrack track(VideoCodec::h264);
        Bytes stream = sequenceSet(60'000);
        for (int i = 0; i < 20; ++i)
            stream = stream + clockOf(i < 10 ? 1 : 40, i, announced && i == 10) + slice(i == 0 ? I : P);
        track.feed(stream);
        track.end();
        EXPECT_EQ(track.timecodes().jumps(), announced ? 0U : 1U);
    }
}

TEST(H264Video, AFrameLastsAsLongAsItsPictureStructureSays) {
    // Table D-1: frames, three fields, two and three times.
    for (const auto& [structure, fields] :
         {std::pair{0U, 2U}, {3U, 2U}, {5U, 3U}, {6U, 3U}, {7U, 4U}, {8U, 6U}}) {
        VideoTrack track(VideoCodec::h264);
        track.feed(sequenceSet(60'000) + clockOf(0, 0, false, structure) + slice(I) + slice(P));
        EXPECT_EQ(track.position().shown, fields + 2U) << "also of a slice that is still being read";
        track.end();
        EXPECT_EQ(track.frames(), 2U);
        EXPECT_EQ(track.fields(), fields + 2U) << "the second says nothing";
    }
}

TEST(H264Video, AnAssumedRateIsForStreamsThatSayNothing) {
    VideoTrack track(VideoCodec::h264);
    track.assumeFrameRate({25, 1});
    EXPECT_EQ(track.format().rate(), 25);
    track.assumeFrameRate({50, 1});
    EXPECT_EQ(track.format().rate(), 25);
}

} // namespace
