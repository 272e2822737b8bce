// H.264 structures at their edges: cut anywhere, beginning anywhere, spread over views, and what is
// deliberately not read.
#include "h264_structures.h"

#include <gtest/gtest.h>
#include <tuple>

using H264::SequenceParameterSet;
using H264::SliceHeader;
using H264::SEI::PicTiming;

namespace {

// More than any structure can reach past the end of its bytes.
constexpr std::size_t MARGIN = 200;

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

// 4:4:4 in separate planes (7.3.2.1.1): such a parameter set announces colour_plane_id in every slice header.
SequenceParameterSet separatePlanes() {
    Bytes bytes = BitString()
                      .u(8, 100)
                      .u(16, 40)
                      .ue(0)
                      .ue(3)
                      .u(1, 1) // separate_colour_plane_flag
                      .ue(0)
                      .ue(0)
                      .u(2, 0)
                      .ue(2)
                      .ue(0)
                      .ue(4)
                      .ue(1)
                      .u(1, 0)
                      .ue(119)
                      .ue(33)
                      .u(1, 0)
                      .u(1, 0)
                      .u(1, 1)
                      .u(1, 0)
                      .u(1, 0)
                      .bytes();
    auto s = view(bytes);
    return {s, 0};
}

TEST(SeparatePlanes, AColourPlaneIsNeverReadWhateverTheParameterSetAnnounced) {
    const SequenceParameterSet sps = separatePlanes();
    EXPECT_EQ(fields(sps), std::tuple(2, 0, 4, false, 3003LL, 180'000LL));
    const auto slice = [](int planes, unsigned plane, unsigned lsb) {
        return BitString()
            .ue(17)
            .ue(7)
            .ue(1)
            .u(planes, plane)
            .u(6, 0b100110)
            .u(1, 1)
            .u(1, 0)
            .u(8, lsb)
            .u(16, 0xA5A5);
    };
    // Without it the fields are where they are looked for.
    Bytes plain = slice(0, 0, 0xC3).bytes();
    auto s = view(plain);
    SliceHeader header(s, 0, sps, 1);
    EXPECT_EQ(fields(header), std::tuple(17, 7, 1, 0xC3));
    header.set_pic_order_cnt_lsb(0x3C);
    EXPECT_EQ(plain, slice(0, 0, 0x3C).bytes());
    // With it its two bits are the top of frame_num, and everything behind comes two bits late: of 100110 the
    // low two bits are taken for the field flags, of the flags 10 and 11000011 the first eight for the lsb.
    for (unsigned plane = 0; plane < 3; ++plane) {
        Bytes bytes = slice(2, plane, 0xC3).bytes();
        const Bytes before = bytes;
        auto shifted = view(bytes);
        SliceHeader late(shifted, 0, sps, 1);
        EXPECT_EQ(fields(late), std::tuple(17, 7, 1, 0b10110000)) << plane;
        late.set_pic_order_cnt_lsb(0b10110000);
        EXPECT_EQ(bytes, before) << "and written in the same place";
        late.set_pic_order_cnt_lsb(0b10001111);
        EXPECT_EQ(bytes, slice(2, plane, 0b00111111).bytes());
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

} // namespace
