// H.264 structures at their edges: cut anywhere, beginning anywhere, spread over views, and what is
// deliberately not read.
#include "mpeg/grab_h264_header.h"

#include "ts_maker.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <tuple>

using H264::SequenceParameterSet;
using H264::SliceHeader;
using H264::SEI::PicTiming;

namespace {

constexpr int VIDEO = 0x100;
// More than any structure can reach past the end of its bytes.
constexpr std::size_t MARGIN = 200;

array_byte_sequence view(Bytes& bytes) {
    return {bytes.data(), static_cast<int>(bytes.size())};
}

Bytes firstOf(const Bytes& bytes, std::size_t count) {
    Bytes cut(bytes.begin(), bytes.begin() + static_cast<long>(count));
    cut.shrink_to_fit(); // so that a sanitizer sees the byte behind
    return cut;
}

auto fields(const SequenceParameterSet& sps) {
    return std::tuple(sps.log2_max_frame_num_minus4, sps.pic_order_cnt_type,
                      sps.log2_max_pic_order_cnt_lsb_minus4, sps.frame_mbs_only_flag, sps.num_units_in_tick,
                      sps.time_scale);
}
auto fields(const PicTiming& t) {
    return std::tuple(t.pic_struct, t.clock_timestamp_flag, t.n_frames, t.seconds, t.minutes, t.hours);
}
auto fields(const SliceHeader& slice) {
    return std::tuple(slice.first_mb_in_slice, slice.slice_type, slice.field_pic_flag,
                      slice.pic_order_cnt_lsb);
}

// 7.3.2.1.1 with everything that may be coded: cropped, field coded, a VUI with all groups. Its payload has
// no run of zeros that would need an emulation prevention byte.
BitString& fullParameterSet(BitString& bits, int profile) {
    bits.u(8, static_cast<unsigned>(profile)).u(8, 0xFF).u(8, 40).ue(31);
    if (profile == 100 || profile == 110 || profile == 122 || profile == 144)
        bits.ue(3).u(1, 1).ue(6).ue(5).u(1, 1).u(1, 0);
    bits.ue(12).ue(0).ue(11).ue(16).u(1, 1).ue(119).ue(33).u(1, 0).u(1, 1).u(1, 1);
    bits.u(1, 1).ue(1).ue(2).ue(3).ue(4);
    bits.u(1, 1).u(1, 1).u(8, 255).u(16, 0x1234).u(16, 0x5678);
    bits.u(1, 1).u(1, 1).u(1, 1).u(3, 5).u(1, 1).u(1, 1).u(24, 0xA1B2C3).u(1, 1).ue(5).ue(5);
    return bits.u(1, 1).u(32, 0x89ABCDEF).u(32, 0xFEDCBA98).u(1, 1);
}

BitString fullTiming() {
    return BitString().u(4, 8).u(1, 1).u(8, 0xFF).u(1, 1).u(2, 3).u(8, 24).u(6, 59).u(6, 58).u(5, 23);
}

SequenceParameterSet sliceSet() {
    SequenceParameterSet sps;
    sps.log2_max_frame_num_minus4 = 2;
    sps.pic_order_cnt_type = 0;
    sps.log2_max_pic_order_cnt_lsb_minus4 = 4;
    return sps;
}

// 7.3.3: a field-coded IDR slice.
BitString& idrSlice(BitString& bits, unsigned lsb) {
    return bits.ue(17).ue(7).ue(1).u(6, 33).u(1, 1).u(1, 1).ue(300).u(8, lsb).u(16, 0xA5A5);
}

TEST(CutStructures, AreReadAsIfZerosFollowed) {
    BitString main;
    BitString high;
    for (const Bytes& whole : {fullParameterSet(main, 77).bytes(), fullParameterSet(high, 100).bytes()})
        for (std::size_t length = 0; length <= whole.size(); ++length) {
            Bytes cut = firstOf(whole, length);
            Bytes padded = cut + Bytes(MARGIN, 0);
            auto cutView = view(cut);
            auto paddedView = view(padded);
            EXPECT_EQ(fields(SequenceParameterSet(cutView, 0)), fields(SequenceParameterSet(paddedView, 0)))
                << length;
        }
    const Bytes timing = fullTiming().bytes();
    for (std::size_t length = 0; length <= timing.size(); ++length) {
        Bytes cut = firstOf(timing, length);
        Bytes padded = cut + Bytes(MARGIN, 0);
        EXPECT_EQ(fields(PicTiming(view(cut))), fields(PicTiming(view(padded)))) << length;
    }
}

TEST(CutStructures, ACutSliceIsRewrittenAsFarAsItIsThere) {
    BitString bits;
    const Bytes whole = idrSlice(bits, 0xC3).bytes();
    for (std::size_t length = 0; length <= whole.size(); ++length) {
        Bytes cut = firstOf(whole, length);
        Bytes padded = cut + Bytes(MARGIN, 0);
        auto cutView = view(cut);
        auto paddedView = view(padded);
        SliceHeader slice(cutView, 0, sliceSet(), 5);
        SliceHeader reference(paddedView, 0, sliceSet(), 5);
        EXPECT_EQ(fields(slice), fields(reference)) << length;
        slice.set_pic_order_cnt_lsb(0xFF);
        reference.set_pic_order_cnt_lsb(0xFF);
        EXPECT_EQ(cut, firstOf(padded, length)) << length;
    }
}

TEST(StartBits, AStructureMayBeginAtAnyBit) {
    for (int start = 0; start < 20; ++start) {
        BitString bits;
        bits.u(start, 0x2AAAA);
        Bytes bytes = fullParameterSet(bits, 110).bytes();
        auto s = view(bytes);
        EXPECT_EQ(fields(SequenceParameterSet(s, start)),
                  std::tuple(12, 0, 11, false, 0x89ABCDEFLL, 0xFEDCBA98LL))
            << start;
    }
}

TEST(StartBits, ASliceIsRewrittenFromWhereItBegan) {
    for (int start = 0; start < 20; ++start) {
        const auto bytesWith = [start](unsigned lsb) {
            BitString bits;
            bits.u(start, 0x55555);
            return idrSlice(bits, lsb).bytes();
        };
        Bytes bytes = bytesWith(0xC3);
        auto s = view(bytes);
        SliceHeader slice(s, start, sliceSet(), 5);
        EXPECT_EQ(fields(slice), std::tuple(17, 7, 1, 0xC3)) << start;
        slice.set_pic_order_cnt_lsb(0x3C);
        EXPECT_EQ(bytes, bytesWith(0x3C)) << start;
        slice.set_pic_order_cnt_lsb(0x1A5);
        EXPECT_EQ(bytes, bytesWith(0xA5)) << "the low bits of a value too large";
        slice.set_pic_order_cnt_lsb(-1);
        EXPECT_EQ(bytes, bytesWith(0xFF));
    }
}

TEST(Views, FieldsSpanThePiecesOfAComposite) {
    const Bytes original{0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, 0xDE, 0xF0};
    for (std::size_t split = 0; split <= original.size(); ++split) {
        Bytes head = firstOf(original, split);
        Bytes tail(original.begin() + static_cast<long>(split), original.end());
        auto headView = view(head);
        auto tailView = view(tail);
        frankenstein_byte_sequence both;
        both.append(headView);
        both.append(tailView);
        VBDecodePlus bits(both, 4);
        EXPECT_EQ(bits.ulong(48), 0x23456789ABCD) << split;
        bits.set_uint(12, 32, 0x0F0F0F0F);
        EXPECT_EQ(head + tail, (Bytes{0x12, 0x30, 0xF0, 0xF0, 0xF0, 0xFC, 0xDE, 0xF0})) << split;
        EXPECT_EQ(bits.bit(1'000), 0) << "past a composite, whose index would end the process";
    }
}

TEST(Views, ReadingNeedsNoWritableView) {
    Bytes bytes{0xFF, 0xA5, 0x5A, 0xFF};
    const auto whole = view(bytes);
    const constsubsequence middle(whole, 1, 2); // its writable access ends the process
    VBDecode bits(middle, 0);
    EXPECT_EQ(bits.uint(16), 0xA55A);
    EXPECT_EQ(bits.bit(), 0) << "the window ends, though its parent does not";
    EXPECT_EQ(H264::SEI::unFF(middle, 2, nullptr), 0);
}

TEST(ExpGolomb, TheLongestCodesOfTheStandard) {
    // 9.1: codeNum up to 2^32 - 2, which has 31 leading zeros.
    for (const std::uint64_t value : {std::uint64_t{65'534}, std::uint64_t{65'535}, std::uint64_t{0x7FFFFFFE},
                                      std::uint64_t{0x7FFFFFFF}, std::uint64_t{0xFFFFFFFE}}) {
        Bytes bytes = BitString().ue(value).u(8, 0xA5).bytes();
        const auto s = view(bytes);
        VBDecode bits(s, 0);
        EXPECT_EQ(static_cast<std::uint32_t>(bits.uExpGolomb()), value);
        EXPECT_EQ(bits.uint(8), 0xA5) << "and stands right behind the code";
    }
}

TEST(ParameterSetProfiles, TheFourHighOnesAreReadToTheirTiming) {
    for (const int profile : {66, 77, 88, 100, 110, 122, 144}) {
        BitString bits;
        Bytes bytes = fullParameterSet(bits, profile).bytes();
        auto s = view(bytes);
        testing::internal::CaptureStderr();
        const SequenceParameterSet sps(s, 0);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << "no scaling matrix, no word";
        EXPECT_EQ(fields(sps), std::tuple(12, 0, 11, false, 0x89ABCDEFLL, 0xFEDCBA98LL)) << profile;
    }
}

TEST(ParameterSetProfiles, NoOtherHighOneIsRecognised) {
    // Their chroma_format_idc 1 and bit_depth_luma_minus8 2 are taken for the frame number and the POC type.
    for (const int profile : {44, 83, 86, 118, 128, 134, 135, 138, 139, 244}) {
        Bytes bytes =
            BitString().u(8, static_cast<unsigned>(profile)).u(16, 40).ue(0).ue(1).ue(2).ue(7).bytes();
        auto s = view(bytes);
        const SequenceParameterSet sps(s, 0);
        EXPECT_EQ(sps.log2_max_frame_num_minus4, 1) << profile;
        EXPECT_EQ(sps.pic_order_cnt_type, 2) << profile;
    }
}

TEST(ScalingMatrix, OneTextForEachListAndEightFlagsOnly) {
    for (const unsigned flags : {0x00U, 0x01U, 0x80U, 0x5AU, 0xFFU})
        for (const int chroma : {1, 3}) {
            BitString bits;
            bits.u(8, 122).u(16, 40).ue(0).ue(static_cast<unsigned>(chroma));
            if (chroma == 3)
                bits.u(1, 1); // 4:4:4 has twelve flags by the standard, still eight are read
            bits.ue(0).ue(0).u(1, 0).u(1, 1).u(8, flags).ue(6).ue(2);
            Bytes bytes = bits.bytes();
            auto s = view(bytes);
            testing::internal::CaptureStderr();
            const SequenceParameterSet sps(s, 0);
            std::string expected;
            for (unsigned rest = flags; rest != 0; rest &= rest - 1)
                expected += "XXX! unhandled scaling_list()\n";
            EXPECT_EQ(testing::internal::GetCapturedStderr(), expected) << flags;
            EXPECT_EQ(sps.log2_max_frame_num_minus4, 6);
            EXPECT_EQ(sps.pic_order_cnt_type, 2);
        }
}

TEST(TimingMessage, OnlyTheFirstTimestampWhateverThePicStruct) {
    // Table D-1 gives 5 to 8 two or three timestamps; a second one follows here each time.
    for (unsigned picStruct = 0; picStruct < 16; ++picStruct) {
        Bytes bytes = BitString()
                          .u(4, picStruct)
                          .u(1, 1)
                          .u(8, 0)
                          .u(1, 1)
                          .u(2, 0)
                          .u(8, 1)
                          .u(6, 2)
                          .u(6, 3)
                          .u(5, 4)
                          .u(1, 1)
                          .u(8, 0)
                          .u(1, 1)
                          .u(2, 0)
                          .u(8, 21)
                          .u(6, 22)
                          .u(6, 23)
                          .u(5, 14)
                          .bytes();
        EXPECT_EQ(fields(PicTiming(view(bytes))), std::tuple(static_cast<int>(picStruct), 1, 1, 2, 3, 4));
    }
}

TEST(TimingMessage, ItsTimecodeIsTheOneOfTheFourFieldsAndNeverDropFrame) {
    Bytes bytes = BitString()
                      .u(4, 0)
                      .u(1, 1)
                      .u(8, 0)
                      .u(1, 1)
                      .u(1, 0)
                      .u(1, 1) // cnt_dropped_flag
                      .u(8, 9)
                      .u(6, 8)
                      .u(6, 7)
                      .u(5, 6)
                      .bytes();
    const PicTiming timing(view(bytes));
    for (int rate = 1; rate <= 8; ++rate) {
        EXPECT_TRUE(timing.time_code(rate) == mpeg_timecode(6, 7, 8, 9, false, rate)) << rate;
        EXPECT_FALSE(timing.time_code(rate).dropFrame) << rate;
    }
}

TEST(SeiValueBytes, AViewOfNothingButFFEnds) {
    Bytes bytes(300, 0xFF);
    int next = 0;
    EXPECT_EQ(H264::SEI::unFF(view(bytes), 0, &next), 300 * 255);
    EXPECT_EQ(next, 300);
}

// --- what the grabber finds in a packet ---

Bytes nal(int header, const Bytes& rbsp) {
    return Bytes{0, 0, 1, static_cast<unsigned char>(header)} + escaped(rbsp);
}
Bytes shortSps(unsigned log2MaxFrameNum) {
    return nal(0x67, BitString().u(8, 77).u(16, 40).ue(0).ue(log2MaxFrameNum).ue(2).bytes());
}
Bytes fullSps() {
    BitString bits;
    return nal(0x67, fullParameterSet(bits, 77).bytes());
}

class GrabberEdges : public testing::Test {
protected:
    // One packet that begins on the PID, in memory of exactly 188 bytes.
    static std::unique_ptr<unsigned char[]> packetOf(const Bytes& payload) {
        TsMaker maker;
        maker.packet(VIDEO, true, payload);
        auto packet = std::make_unique<unsigned char[]>(188);
        std::copy(maker.bytes.begin(), maker.bytes.end(), packet.get());
        return packet;
    }
    static void feed(grab_h264_header& grabber, const Bytes& payload) {
        const auto packet = packetOf(payload);
        const Bytes before(packet.get(), packet.get() + 188);
        grabber.process(packet.get(), 0);
        EXPECT_EQ(Bytes(packet.get(), packet.get() + 188), before) << "a packet is only looked at";
    }
    static bool timecodeSeenIn(const Bytes& sei) {
        grab_h264_header grabber(VIDEO, 0);
        feed(grabber, pesHeader(1) + Bytes{0, 0, 1, 6} + sei + nal(0x41, {0x9A, 0x55}));
        return grabber.has_time_code();
    }

    ScratchDir directory;
};

TEST_F(GrabberEdges, AParameterSetIsSeenAsFarAsItsPacketGoes) {
    const Bytes stream = pesHeader(1) + fullSps();
    const std::size_t header = pesHeader(1).size() + 3;
    for (std::size_t length = 0; length <= stream.size(); ++length) {
        grab_h264_header grabber(VIDEO, 0);
        feed(grabber, firstOf(stream, length));
        ASSERT_EQ(grabber.sps_count(), length > header ? 1 : 0) << length;
        if (length <= header)
            continue;
        Bytes seen(stream.begin() + static_cast<long>(header) + 1,
                   stream.begin() + static_cast<long>(length));
        auto s = view(seen);
        EXPECT_EQ(fields(grabber.sps()), fields(SequenceParameterSet(s, 0))) << length;
    }
}

TEST_F(GrabberEdges, ATimestampCutByThePacketIsAbsent) {
    const Bytes stream = pesHeader(3600);
    for (std::size_t length = 0; length <= stream.size(); ++length) {
        grab_h264_header grabber(VIDEO, 0);
        feed(grabber, firstOf(stream, length));
        EXPECT_EQ(grabber.pts(), length == stream.size() ? PTS::from_ticks(3600) : PTS(-1)) << length;
    }
}

TEST_F(GrabberEdges, AnAdaptationFieldOfAnyLengthStaysInThePacket) {
    for (int length = 0; length <= 255; ++length) {
        const auto packet = std::make_unique<unsigned char[]>(188);
        std::fill_n(packet.get(), 188, static_cast<unsigned char>(0x55));
        packet[0] = 0x47;
        packet[1] = 0x41;
        packet[2] = 0x00;
        packet[3] = 0x30;
        packet[4] = static_cast<unsigned char>(length);
        const Bytes stream = pesHeader(3600) + shortSps(7);
        const std::size_t start = 5 + static_cast<std::size_t>(length);
        const std::size_t room = start < 188 ? 188 - start : 0;
        std::copy_n(stream.begin(), std::min(stream.size(), room),
                    packet.get() + std::min<std::size_t>(start, 188));
        grab_h264_header grabber(VIDEO, 0);
        grabber.process(packet.get(), 0);
        EXPECT_EQ(grabber.sps_count(), room > pesHeader(3600).size() + 3 ? 1 : 0) << length;
        EXPECT_EQ(grabber.pts(), room >= pesHeader(3600).size() ? PTS::from_ticks(3600) : PTS(-1)) << length;
    }
}

TEST_F(GrabberEdges, ThePesStartCodeIsNoNalUnitButTheRestOfItsHeaderIsScanned) {
    grab_h264_header grabber(VIDEO, 0);
    feed(grabber, pesHeader(1, -1, 0xE7) + filler(20)); // 0xE7 & 0x1F would be a parameter set
    EXPECT_EQ(grabber.sps_count(), 0);
    const Bytes stuffing = shortSps(9);
    feed(grabber, Bytes{0, 0, 1, 0xE0, 0, 0, 0x80, 0, static_cast<unsigned char>(stuffing.size())} +
                      stuffing + filler(20));
    EXPECT_EQ(grabber.sps_count(), 1) << "a NAL unit in the header's stuffing counts";
    EXPECT_EQ(grabber.sps().log2_max_frame_num_minus4, 9);
}

TEST_F(GrabberEdges, WhereNoPesBeginsThereIsNoTimestampButNalUnitsAre) {
    grab_h264_header grabber(VIDEO, 0);
    feed(grabber, pesHeader(3600));
    feed(grabber, Bytes(14, 0xFF) + shortSps(9));
    EXPECT_EQ(grabber.pts(), PTS(-1));
    EXPECT_EQ(grabber.sps_count(), 1);
}

TEST_F(GrabberEdges, APrefixAtTheVeryEndHasNoUnit) {
    grab_h264_header grabber(VIDEO, 0);
    feed(grabber, pesHeader(1) + shortSps(9) + Bytes{0xAA, 0, 0, 1});
    EXPECT_EQ(grabber.sps_count(), 1);
    EXPECT_EQ(grabber.slice_counter(), 0);
    feed(grabber, pesHeader(1) + Bytes{0xAA, 0, 0, 1, 0x41});
    EXPECT_EQ(grabber.slice_counter(), 2) << "a header alone is one";
}

TEST_F(GrabberEdges, UnitsOfAHeaderAloneStandSideBySide) {
    grab_h264_header grabber(VIDEO, 0);
    feed(grabber, pesHeader(1) + shortSps(9) + Bytes{0, 0, 1, 0x41, 0, 0, 1, 0x65, 0, 0, 1, 0x41, 0xAA});
    EXPECT_EQ(grabber.slice_counter(), 6) << "the search goes on right behind each header";
}

TEST_F(GrabberEdges, AMessageOfFewerThanFourBytesIsNotLookedAt) {
    // Type 1, size 1, and a payload whose clock timestamp flag is set.
    EXPECT_FALSE(timecodeSeenIn({1, 1, 0x08}));
    EXPECT_TRUE(timecodeSeenIn({1, 1, 0x08, 0x80}));
}

TEST_F(GrabberEdges, AMessageBehindAnotherIsMissedBecauseTheirHeadsAreNotAdded) {
    // The second message stands at offset 4, but is looked for at offset 2, where a size too large is read.
    EXPECT_FALSE(timecodeSeenIn({5, 2, 0xAA, 0xAA, 1, 2, 0x08, 0x80, 0x80, 0x80}));
    EXPECT_TRUE(timecodeSeenIn({5, 4, 0xAA, 0xAA, 1, 2, 0x08, 0x80, 0x80, 0x80}))
        << "where the size alone leads";
}

TEST_F(GrabberEdges, TheLastThreeBytesHoldNoMessage) {
    // From offset 4 there are three bytes, then four.
    EXPECT_FALSE(timecodeSeenIn({5, 4, 0xAA, 0xAA, 1, 1, 0x08}));
    EXPECT_TRUE(timecodeSeenIn({5, 4, 0xAA, 0xAA, 1, 1, 0x08, 0x80}));
}

TEST_F(GrabberEdges, ATimestampPastTheMessagesSizeIsNotSeen) {
    EXPECT_FALSE(timecodeSeenIn({1, 0, 0x08, 0x80, 0x80, 0x80}));
    EXPECT_TRUE(timecodeSeenIn({1, 200, 0x08, 0x80, 0x80, 0x80})) << "a size past the unit ends with it";
}

TEST_F(GrabberEdges, TypeAndSizeMayTakeSeveralBytes) {
    EXPECT_FALSE(timecodeSeenIn({0xFF, 1, 2, 0x08, 0x80, 0x80})) << "type 256";
    EXPECT_TRUE(timecodeSeenIn({1, 0xFF, 2, 0x08, 0x80, 0x80})) << "size 257";
}

// --- and in a file ---

class FileEdges : public GrabberEdges {
protected:
    H264::SequenceParameterSet params(const TsMaker& maker) { return paramsOf(maker.write(directory)); }
    static H264::SequenceParameterSet paramsOf(std::string path) {
        H264::SequenceParameterSet out;
        EXPECT_EQ(grab_h264_header::getSequenceParams(path.data(), out, 0), 0);
        return out;
    }
    static void sets(TsMaker& maker, int pid, const Bytes& content) { maker.pes(pid, pesHeader(1), content); }
};

TEST_F(FileEdges, SeveralSetsInOnePacketGiveTheLast) {
    TsMaker maker;
    maker.tables({{0x1B, VIDEO}});
    sets(maker, VIDEO, shortSps(3) + shortSps(4) + shortSps(5));
    EXPECT_EQ(params(maker).log2_max_frame_num_minus4, 5);
}

TEST_F(FileEdges, TheFirstStreamFoundStaysTheOne) {
    TsMaker maker;
    maker.tables({{0x1B, VIDEO}});
    sets(maker, VIDEO, shortSps(3));
    maker.tables({{0x1B, VIDEO + 1}});
    sets(maker, VIDEO + 1, shortSps(4) + shortSps(4));
    sets(maker, VIDEO, shortSps(5));
    EXPECT_EQ(params(maker).log2_max_frame_num_minus4, 5);
}

TEST_F(FileEdges, OnlyH264StreamTypesCount) {
    for (const int type : {0x01, 0x02, 0x10, 0x1A, 0x1C, 0x20, 0x24, 0x80}) {
        TsMaker maker;
        maker.tables({{type, VIDEO}});
        sets(maker, VIDEO, shortSps(3) + shortSps(4));
        EXPECT_EQ(params(maker).pic_order_cnt_type, -1) << type;
    }
}

TEST_F(FileEdges, AMapTableBeforeItsAssociationTableIsNotKnown) {
    TsMaker maker;
    maker.map({{0x1B, VIDEO}});
    sets(maker, VIDEO, shortSps(3) + shortSps(4));
    EXPECT_EQ(params(maker).pic_order_cnt_type, -1);
    maker.tables({{0x1B, VIDEO}});
    sets(maker, VIDEO, shortSps(5) + shortSps(6));
    EXPECT_EQ(params(maker).log2_max_frame_num_minus4, 6) << "sets before the table are not counted";
}

TEST_F(FileEdges, AFileCutAtEveryLengthHasItsSetsOnlyWithItsLastPacket) {
    TsMaker maker;
    maker.tables({{0x1B, VIDEO}});
    sets(maker, VIDEO, shortSps(3));
    sets(maker, VIDEO, shortSps(4));
    const std::string whole(maker.bytes.begin(), maker.bytes.end());
    for (std::size_t length = 0; length <= whole.size(); ++length)
        ASSERT_EQ(paramsOf(directory.file("cut.ts", whole.substr(0, length))).log2_max_frame_num_minus4,
                  length == whole.size() ? 4 : -1)
            << length;
}

TEST_F(FileEdges, RandomBytesEnd) {
    // Every packet has a chance to be a table or video; lengths and pointers are whatever they are.
    std::mt19937 random(1920);
    testing::internal::CaptureStderr();
    for (int round = 0; round < 200; ++round) {
        TsMaker maker;
        if (round % 2 == 0)
            maker.tables({{0x1B, VIDEO}});
        std::string bytes(maker.bytes.begin(), maker.bytes.end());
        const int pids[] = {0, TsMaker::PMT_PID, VIDEO};
        for (int packet = 0; packet < 50; ++packet) {
            std::string one(188, '\0');
            for (char& byte : one)
                byte = static_cast<char>(random() % 3 == 0 ? random() % 2 : random());
            const int pid = pids[random() % 3];
            one[1] = static_cast<char>(0x40 | pid >> 8);
            one[2] = static_cast<char>(pid);
            bytes += one;
        }
        paramsOf(directory.file("random.ts", bytes));
    }
    testing::internal::GetCapturedStderr();
    SUCCEED() << "inside its packets, as a sanitizer sees";
}

} // namespace
