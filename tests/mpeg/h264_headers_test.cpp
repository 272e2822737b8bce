// Parameter sets, picture timing and slice headers, made field by field.
#include "mpeg/h264.h"

#include "ts_maker.h"

#include <functional>
#include <gtest/gtest.h>
#include <random>

using H264::SequenceParameterSet;
using H264::SliceHeader;
using H264::SEI::PicTiming;

namespace {

array_byte_sequence view(Bytes& bytes) {
    return {bytes.data(), static_cast<int>(bytes.size())};
}

// Up to the POC type, of a profile without high-profile fields.
BitString start(int profile, int log2MaxFrameNum, int pocType) {
    BitString bits;
    bits.u(8, static_cast<unsigned>(profile)).u(4, 0xF).u(4, 0).u(8, 40).ue(3);
    if (profile == 100 || profile == 110 || profile == 122 || profile == 144)
        bits.ue(1).ue(0).ue(0).u(1, 0).u(1, 0);
    return bits.ue(static_cast<unsigned>(log2MaxFrameNum)).ue(static_cast<unsigned>(pocType));
}

// From the POC fields to before the VUI flag.
BitString& picture(BitString& bits, int log2MaxPocLsb, bool frameMbsOnly, bool cropped = false) {
    bits.ue(static_cast<unsigned>(log2MaxPocLsb)).ue(4).u(1, 0).ue(119).ue(67).u(1, frameMbsOnly);
    if (!frameMbsOnly)
        bits.u(1, 1);
    bits.u(1, 1).u(1, cropped);
    if (cropped)
        bits.ue(0).ue(0).ue(0).ue(4);
    return bits;
}

SequenceParameterSet parse(const BitString& bits) {
    Bytes bytes = bits.bytes();
    auto s = view(bytes);
    return {s, 0};
}

TEST(ParameterSet, DefaultsAreMinusOne) {
    const SequenceParameterSet sps;
    EXPECT_EQ(sps.log2_max_frame_num_minus4, -1);
    EXPECT_EQ(sps.pic_order_cnt_type, -1);
    EXPECT_EQ(sps.log2_max_pic_order_cnt_lsb_minus4, -1);
    EXPECT_FALSE(sps.frame_mbs_only_flag);
    EXPECT_EQ(sps.num_units_in_tick, -1);
    EXPECT_EQ(sps.time_scale, -1);
}

TEST(ParameterSet, WithoutVuiItIsTakenForTwentyNinePointNineSeven) {
    BitString bits = start(77, 5, 0);
    picture(bits, 6, true).u(1, 0);
    const SequenceParameterSet sps = parse(bits);
    EXPECT_EQ(sps.log2_max_frame_num_minus4, 5);
    EXPECT_EQ(sps.pic_order_cnt_type, 0);
    EXPECT_EQ(sps.log2_max_pic_order_cnt_lsb_minus4, 6);
    EXPECT_TRUE(sps.frame_mbs_only_flag);
    EXPECT_EQ(sps.num_units_in_tick, 3003);
    EXPECT_EQ(sps.time_scale, 180000);
}

TEST(ParameterSet, EveryOptionalFieldBeforeTheTimingIsSteppedOver) {
    // Each bit of the mask switches one optional group of the VUI on; the timing is found behind all of them.
    for (int mask = 0; mask < 64; ++mask)
        for (const bool frameMbsOnly : {false, true})
            for (const bool cropped : {false, true}) {
                BitString bits = start(77, 0, 0);
                picture(bits, 0, frameMbsOnly, cropped).u(1, 1);
                const bool aspect = mask & 1;
                const bool extended = mask & 2;
                bits.u(1, aspect);
                if (aspect) {
                    bits.u(8, extended ? 255 : 1);
                    if (extended)
                        bits.u(16, 0xFFFF).u(16, 0xFFFF);
                }
                bits.u(1, (mask & 4) != 0);
                if (mask & 4)
                    bits.u(1, 1);
                bits.u(1, (mask & 8) != 0);
                if (mask & 8) {
                    bits.u(3, 5).u(1, 1).u(1, (mask & 16) != 0);
                    if (mask & 16)
                        bits.u(8, 0xFF).u(8, 0xFF).u(8, 0xFF);
                }
                bits.u(1, (mask & 32) != 0);
                if (mask & 32)
                    bits.ue(2).ue(3);
                bits.u(1, 1).u(32, 1001).u(32, 60000).u(1, 1);
                const SequenceParameterSet sps = parse(bits);
                EXPECT_EQ(sps.num_units_in_tick, 1001) << mask;
                EXPECT_EQ(sps.time_scale, 60000) << mask;
                EXPECT_EQ(sps.frame_mbs_only_flag, frameMbsOnly);
            }
}

TEST(ParameterSet, AVuiWithoutTimingIsTakenForTheSame) {
    BitString bits = start(77, 0, 0);
    picture(bits, 0, true).u(1, 1).u(1, 0).u(1, 0).u(1, 0).u(1, 0).u(1, 0);
    const SequenceParameterSet sps = parse(bits);
    EXPECT_EQ(sps.num_units_in_tick, 3003);
    EXPECT_EQ(sps.time_scale, 180000);
}

TEST(ParameterSet, TimingOfThirtyTwoBitsIsKeptWhole) {
    BitString bits = start(77, 0, 0);
    picture(bits, 0, true)
        .u(1, 1)
        .u(1, 0)
        .u(1, 0)
        .u(1, 0)
        .u(1, 0)
        .u(1, 1)
        .u(32, 0xFFFFFFFF)
        .u(32, 0x80000000);
    const SequenceParameterSet sps = parse(bits);
    EXPECT_EQ(sps.num_units_in_tick, 0xFFFFFFFFLL);
    EXPECT_EQ(sps.time_scale, 0x80000000LL);
}

TEST(ParameterSet, AnotherPocTypeEndsTheParsing) {
    for (const int type : {1, 2, 3}) { // 3 is none of the standard's
        BitString bits = start(77, 9, type);
        bits.ue(3).u(32, 0xFFFFFFFF);
        const SequenceParameterSet sps = parse(bits);
        EXPECT_EQ(sps.log2_max_frame_num_minus4, 9);
        EXPECT_EQ(sps.pic_order_cnt_type, type);
        EXPECT_EQ(sps.log2_max_pic_order_cnt_lsb_minus4, -1) << type;
        EXPECT_FALSE(sps.frame_mbs_only_flag) << type;
        EXPECT_EQ(sps.num_units_in_tick, -1) << type;
        EXPECT_EQ(sps.time_scale, -1) << type;
    }
}

TEST(ParameterSet, OnlyFourHighProfilesAreRecognised) {
    for (const int profile : {100, 110, 122, 144}) {
        BitString bits = start(profile, 7, 1);
        EXPECT_EQ(parse(bits).log2_max_frame_num_minus4, 7) << profile;
    }
    // 244 has the same fields, but is read without them: chroma_format_idc is taken for the frame number.
    BitString other;
    other.u(8, 244).u(8, 0).u(8, 40).ue(0).ue(1).ue(0).ue(0).u(2, 0).ue(7).ue(1);
    EXPECT_EQ(parse(other).log2_max_frame_num_minus4, 1);
}

TEST(ParameterSet, FourFourFourHasOneBitMore) {
    BitString bits;
    bits.u(8, 100).u(8, 0).u(8, 40).ue(0).ue(3).u(1, 1).ue(0).ue(0).u(1, 0).u(1, 0).ue(7).ue(1);
    EXPECT_EQ(parse(bits).log2_max_frame_num_minus4, 7);
}

TEST(ParameterSet, ScalingListsAreToldAndNotParsed) {
    BitString bits;
    bits.u(8, 100).u(8, 0).u(8, 40).ue(0).ue(1).ue(0).ue(0).u(1, 0).u(1, 1).u(8, 0b10000001).ue(5).ue(1);
    testing::internal::CaptureStderr();
    const SequenceParameterSet sps = parse(bits);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "XXX! unhandled scaling_list()\nXXX! unhandled scaling_list()\n");
    EXPECT_EQ(sps.log2_max_frame_num_minus4, 5) << "what follows the eight flags is read as it stands";
}

TEST(ParameterSet, ACutOneNeverReadsOutside) {
    BitString bits = start(100, 5, 0);
    picture(bits, 6, false, true)
        .u(1, 1)
        .u(1, 1)
        .u(8, 255)
        .u(32, 0)
        .u(1, 0)
        .u(1, 0)
        .u(1, 0)
        .u(1, 1)
        .u(32, 1)
        .u(32, 2);
    const Bytes whole = bits.bytes();
    for (std::size_t length = 0; length <= whole.size(); ++length) {
        Bytes cut(whole.begin(), whole.begin() + static_cast<long>(length));
        cut.shrink_to_fit();
        auto s = view(cut);
        const SequenceParameterSet sps(s, 0);
        if (length == whole.size()) {
            EXPECT_EQ(sps.time_scale, 2);
        }
    }
}

TEST(NalUnit, TypeIsTheLowFiveBits) {
    Bytes bytes{0, 0, 1, 0x67};
    EXPECT_EQ(H264::NAL::get_unit_type(view(bytes)), 7);
    bytes[3] = 0xFF;
    EXPECT_EQ(H264::NAL::get_unit_type(view(bytes)), 31);
}

TEST(SeiValues, AddUpBytesOfFF) {
    Bytes bytes{0xFF, 0xFF, 0x05, 0x01, 0xFF};
    const auto s = view(bytes);
    int next = -1;
    EXPECT_EQ(H264::SEI::unFF(s, 0, &next), 255 + 255 + 5);
    EXPECT_EQ(next, 3);
    EXPECT_EQ(H264::SEI::unFF(s, 3, &next), 1);
    EXPECT_EQ(next, 4);
    EXPECT_EQ(H264::SEI::unFF(s, 4, &next), 255) << "cut";
    EXPECT_EQ(next, 5);
    EXPECT_EQ(H264::SEI::unFF(s, 5, &next), 0);
    EXPECT_EQ(next, 5);
    EXPECT_EQ(H264::SEI::unFF(s, 2, nullptr), 5);
}

PicTiming timing(const BitString& bits) {
    Bytes bytes = bits.bytes();
    return PicTiming(view(bytes));
}

TEST(PictureTiming, WithoutATimestampHasOnlyItsStructure) {
    const PicTiming t = timing(BitString().u(4, 3).u(1, 0).u(32, 0xFFFFFFFF));
    EXPECT_EQ(t.pic_struct, 3);
    EXPECT_FALSE(t.has_time_code());
    EXPECT_EQ(t.hours, 0);
    EXPECT_EQ(t.n_frames, 0);
}

TEST(PictureTiming, AFullTimestamp) {
    PicTiming t =
        timing(BitString().u(4, 0).u(1, 1).u(8, 0xFF).u(1, 1).u(2, 3).u(8, 24).u(6, 59).u(6, 58).u(5, 23));
    EXPECT_TRUE(t.has_time_code());
    EXPECT_EQ(t.n_frames, 24);
    EXPECT_EQ(t.seconds, 59);
    EXPECT_EQ(t.minutes, 58);
    EXPECT_EQ(t.hours, 23);
    mpeg_timecode time = t.time_code(3);
    EXPECT_STREQ(time.windows_string(), "23:58:59:24");
    EXPECT_FALSE(t.time_code(4).dropFrame) << "whatever cnt_dropped_flag said";
}

TEST(PictureTiming, AShortTimestampEndsWithItsFirstMissingField) {
    const auto head = [] { return BitString().u(4, 0).u(1, 1).u(8, 0).u(1, 0).u(2, 0).u(8, 7); };
    // No seconds: what would follow is not looked at.
    PicTiming t = timing(head().u(1, 0).u(1, 1).u(6, 33).u(1, 1).u(5, 22));
    EXPECT_EQ(t.n_frames, 7);
    EXPECT_EQ(t.seconds, 0);
    EXPECT_EQ(t.minutes, 0);
    EXPECT_EQ(t.hours, 0);
    t = timing(head().u(1, 1).u(6, 11).u(1, 0).u(1, 1).u(5, 22));
    EXPECT_EQ(t.seconds, 11);
    EXPECT_EQ(t.minutes, 0);
    EXPECT_EQ(t.hours, 0);
    t = timing(head().u(1, 1).u(6, 11).u(1, 1).u(6, 12).u(1, 0).u(5, 22));
    EXPECT_EQ(t.minutes, 12);
    EXPECT_EQ(t.hours, 0);
    t = timing(head().u(1, 1).u(6, 11).u(1, 1).u(6, 12).u(1, 1).u(5, 22));
    EXPECT_EQ(t.hours, 22);
}

TEST(PictureTiming, ACutOneNeverReadsOutside) {
    const Bytes whole =
        BitString().u(4, 0).u(1, 1).u(8, 0xFF).u(1, 1).u(2, 3).u(8, 24).u(6, 59).u(6, 58).u(5, 23).bytes();
    for (std::size_t length = 0; length <= whole.size(); ++length) {
        Bytes cut(whole.begin(), whole.begin() + static_cast<long>(length));
        cut.shrink_to_fit();
        const PicTiming t(view(cut));
        EXPECT_LE(t.hours, 23);
    }
}

struct Slice {
    bool frameMbsOnly = true;
    int pocType = 0;
    int nalType = 1;
    bool field = false;
};

// A slice header and the bit at which its pic_order_cnt_lsb begins (8 bits wide; frame_num has 6).
std::pair<Bytes, int> sliceBytes(const Slice& shape, unsigned lsb) {
    BitString bits;
    bits.ue(17).ue(7).ue(1).u(6, 33);
    if (!shape.frameMbsOnly) {
        bits.u(1, shape.field);
        if (shape.field)
            bits.u(1, 1);
    }
    if (shape.nalType == 5)
        bits.ue(300);
    const int position = bits.size();
    if (shape.pocType == 0)
        bits.u(8, lsb);
    bits.u(16, 0xA5A5);
    return {bits.bytes(), position};
}

SequenceParameterSet spsOf(const Slice& shape) {
    SequenceParameterSet sps;
    sps.log2_max_frame_num_minus4 = 2;
    sps.pic_order_cnt_type = shape.pocType;
    sps.log2_max_pic_order_cnt_lsb_minus4 = 4;
    sps.frame_mbs_only_flag = shape.frameMbsOnly;
    return sps;
}

TEST(SliceHeaders, AreReadAndRewrittenInEveryShape) {
    for (const bool frameMbsOnly : {true, false})
        for (const int pocType : {-1, 0, 1, 2, 3})
            for (const int nalType : {1, 4, 5, 6, 20})
                for (const bool field : {false, true}) {
                    if (frameMbsOnly && field)
                        continue;
                    const Slice shape{frameMbsOnly, pocType, nalType, field};
                    auto [bytes, position] = sliceBytes(shape, 0xC3);
                    const Bytes original = bytes;
                    auto s = view(bytes);
                    SliceHeader header(s, 0, spsOf(shape), nalType);
                    EXPECT_EQ(header.first_mb_in_slice, 17);
                    EXPECT_EQ(header.slice_type, 7);
                    EXPECT_EQ(header.field_pic_flag, field ? 1 : 0);
                    EXPECT_EQ(header.pic_order_cnt_lsb, pocType == 0 ? 0xC3 : -1);
                    header.set_pic_order_cnt_lsb(0x3C);
                    if (pocType != 0) {
                        EXPECT_EQ(bytes, original) << "nothing is coded, nothing is written";
                        continue;
                    }
                    EXPECT_EQ(bytes, sliceBytes(shape, 0x3C).first) << "only the field, at bit " << position;
                    EXPECT_EQ(header.pic_order_cnt_lsb, 0x3C);
                }
}

TEST(SliceHeaders, OfAParameterSetThatWasNeverReadAreNotWritten) {
    Bytes bytes(16, 0x5A);
    const Bytes original = bytes;
    auto s = view(bytes);
    SliceHeader header(s, 0, SequenceParameterSet(), 5);
    EXPECT_EQ(header.pic_order_cnt_lsb, -1);
    header.set_pic_order_cnt_lsb(0);
    header.set_pic_order_cnt_lsb(-1);
    EXPECT_EQ(bytes, original);
    EXPECT_EQ(header.pic_order_cnt_lsb, -1);
}

TEST(SliceHeaders, ACutOneNeverReadsOrWritesOutside) {
    const Slice shape{false, 0, 5, true};
    const Bytes whole = sliceBytes(shape, 0xC3).first;
    for (std::size_t length = 0; length <= whole.size(); ++length) {
        Bytes cut(whole.begin(), whole.begin() + static_cast<long>(length));
        cut.shrink_to_fit();
        auto s = view(cut);
        SliceHeader header(s, 0, spsOf(shape), 5);
        header.set_pic_order_cnt_lsb(0xFF);
    }
}

TEST(H264Structures, RandomBytesEndAndStayInside) {
    std::mt19937 random(264);
    testing::internal::CaptureStderr();
    for (int round = 0; round < 5000; ++round) {
        Bytes bytes(random() % 40);
        for (unsigned char& byte : bytes)
            byte = static_cast<unsigned char>(random());
        bytes.shrink_to_fit();
        auto s = view(bytes);
        const SequenceParameterSet sps(s, 0);
        SliceHeader slice(s, 0, sps, static_cast<int>(random() % 6));
        slice.set_pic_order_cnt_lsb(static_cast<int>(random()));
        const PicTiming t(s);
        EXPECT_LE(t.hours, 31);
    }
    testing::internal::GetCapturedStderr();
}

} // namespace
