// MPEG-2 video headers (ISO/IEC 13818-2, 6.2) and SCTE 27 subtitles.
#include "mpeg/mpeg2.h"
#include "timecode/mpeg_timecode.h"
#include "ts_maker.h"

#include <cmath>
#include <gtest/gtest.h>
#include <limits>
#include <vector>

namespace {

struct View {
    explicit View(Bytes content)
        : bytes(std::move(content)), sequence(bytes.data(), static_cast<int>(bytes.size())) {}
    Bytes bytes;
    array_byte_sequence sequence;
};

TEST(SequenceHeader, TheFrameRateCodeGivesTheDurationOfAFrame) {
    const int durations[] = {-1, 15015, 15000, 14400, 12012, 12000, 7200, 6006, 6000, -1};
    for (int code = 0; code <= 9; ++code) {
        View header({0, 0, 1, 0xB3, 0x2D, 0x02, 0x40, static_cast<unsigned char>(0x30 | code)});
        EXPECT_EQ(MPEG::SH::get_frame_rate_code(header.sequence), code);
        EXPECT_EQ(MPEG::SH::decode_PCRs_per_frame(code), durations[code]);
        EXPECT_EQ(MPEG::SH::get_PCRs_per_frame(header.sequence), durations[code]);
        EXPECT_EQ(MPEG::SH::get_PCRs_per_frame(header.bytes.data()), durations[code]);
    }
}

TEST(SequenceHeader, NoOtherCodeHasADuration) {
    for (const int code : {std::numeric_limits<int>::min(), -1, 0, 9, 10, 11, 12, 13, 14, 15, 16,
                           std::numeric_limits<int>::max()})
        EXPECT_EQ(MPEG::SH::decode_PCRs_per_frame(code), -1) << code;
}

TEST(SequenceHeader, TheAspectRatioBesideTheCodeDoesNotCount) {
    for (int aspect = 0; aspect < 16; ++aspect)
        for (int code = 0; code < 16; ++code) {
            const View header(
                {0, 0, 1, 0xB3, 0x2D, 0x02, 0x40, static_cast<unsigned char>(aspect << 4 | code)});
            const int duration = MPEG::SH::decode_PCRs_per_frame(code);
            EXPECT_EQ(MPEG::SH::get_frame_rate_code(header.sequence), code) << aspect;
            EXPECT_EQ(MPEG::SH::get_PCRs_per_frame(header.sequence), duration) << aspect << ' ' << code;
            EXPECT_EQ(MPEG::SH::get_PCRs_per_frame(header.bytes.data()), duration) << aspect << ' ' << code;
        }
}

TEST(SequenceExtension, IdAndProgressiveFlag) {
    EXPECT_EQ(MPEG::SED::get_extension_id(View({0, 0, 1, 0xB5, 0x14, 0x8A}).sequence), 1);
    EXPECT_TRUE(MPEG::SED::get_progressive_sequence(View({0, 0, 1, 0xB5, 0x14, 0x08}).sequence));
    EXPECT_FALSE(MPEG::SED::get_progressive_sequence(View({0, 0, 1, 0xB5, 0x14, 0xF7}).sequence));
}

TEST(GopHeader, ATimecodeIsWrittenAndReadFieldByField) {
    View gop({0, 0, 1, 0xB8, 0, 0, 0, 0x7F});
    MPEG::GOP::set_timecode(gop.sequence, true, 23, 59, 58, 29);
    EXPECT_TRUE(MPEG::GOP::get_drop_frame(gop.sequence));
    EXPECT_EQ(MPEG::GOP::get_hours(gop.sequence), 23);
    EXPECT_EQ(MPEG::GOP::get_minutes(gop.sequence), 59);
    EXPECT_EQ(MPEG::GOP::get_seconds(gop.sequence), 58);
    EXPECT_EQ(MPEG::GOP::get_frames(gop.sequence), 29);
    EXPECT_EQ(gop.bytes[5] & 0x08, 0x08) << "the marker bit";
    EXPECT_EQ(gop.bytes[7] & 0x7F, 0x7F) << "closed_gop, broken_link and the rest are kept";
}

TEST(GopHeader, ThePackedTimecodeIsTheSameTwentyFiveBits) {
    View gop({0, 0, 1, 0xB8, 0, 0, 0, 0x40});
    const mpeg_timecode timecode(1, 2, 3, 4, false, 5);
    MPEG::GOP::set_timecode(gop.sequence, timecode);
    EXPECT_EQ(MPEG::GOP::get_timecode(gop.sequence), timecode.pack_int());
    EXPECT_EQ(MPEG::GOP::get_hours(gop.sequence), 1);
    EXPECT_EQ(MPEG::GOP::get_frames(gop.sequence), 4);
    EXPECT_EQ(gop.bytes[7] & 0x7F, 0x40);
    MPEG::GOP::set_timecode(gop.sequence, 0x1FFFFFF);
    EXPECT_EQ(MPEG::GOP::get_timecode(gop.sequence), 0x1FFFFFF);
}

TEST(GopHeader, ClosedGopIsSetAndClearedAlone) {
    View gop({0, 0, 1, 0xB8, 0, 0, 0, 0xBF});
    EXPECT_FALSE(MPEG::GOP::closed_GOP(gop.sequence));
    MPEG::GOP::set_closed_GOP(gop.sequence, true);
    EXPECT_TRUE(MPEG::GOP::closed_GOP(gop.sequence));
    EXPECT_EQ(gop.bytes[7], 0xFF);
    MPEG::GOP::set_closed_GOP(gop.sequence, false);
    EXPECT_EQ(gop.bytes[7], 0xBF);
}

TEST(PictureHeader, TemporalReferenceHasTenBits) {
    View picture({0, 0, 1, 0x00, 0x00, 0x3F});
    for (const int value : {0, 1, 3, 4, 511, 1023}) {
        MPEG::PH::set_temporal_reference(picture.sequence, value);
        EXPECT_EQ(MPEG::PH::get_temporal_reference(picture.sequence), value);
        EXPECT_EQ(picture.bytes[5] & 0x3F, 0x3F) << "the low six bits are kept";
    }
    EXPECT_EQ(MPEG::PH::get_picture_coding_type(picture.sequence), 7);
    EXPECT_EQ(MPEG::PH::get_picture_coding_type(View({0, 0, 1, 0, 0, 0x08}).sequence), 1);
}

TEST(PictureCodingExtension, StructureAndFieldFlags) {
    const View extension({0, 0, 1, 0xB5, 0x8F, 0xFF, 0xFD, 0x80});
    EXPECT_EQ(MPEG::PCE::get_picture_structure(extension.sequence), 1);
    EXPECT_TRUE(MPEG::PCE::get_top_field_first(extension.sequence));
    EXPECT_FALSE(MPEG::PCE::get_repeat_first_field(extension.sequence));
    EXPECT_TRUE(MPEG::PCE::get_repeat_first_field(View({0, 0, 1, 0xB5, 0, 0, 0, 0x02}).sequence));
}

TEST(FrameRate, ACodeIsGivenWithinAThousandth) {
    EXPECT_EQ(MPEG::fake_frame_rate_code(60), 8);
    EXPECT_EQ(MPEG::fake_frame_rate_code(59.94), 7);
    EXPECT_EQ(MPEG::fake_frame_rate_code(50), 6);
    EXPECT_EQ(MPEG::fake_frame_rate_code(30), 5);
    EXPECT_EQ(MPEG::fake_frame_rate_code(29.97), 4);
    EXPECT_EQ(MPEG::fake_frame_rate_code(25), 3);
    EXPECT_EQ(MPEG::fake_frame_rate_code(24), 2);
    EXPECT_EQ(MPEG::fake_frame_rate_code(23.976), 1);
    EXPECT_EQ(MPEG::fake_frame_rate_code(29.9), -1);
    EXPECT_EQ(MPEG::fake_frame_rate_code(0), -1);
}

TEST(Scte27, FieldsOfASubtitleSection) {
    View section({0xC6, 0x70, 0x20, 0x40, 0, 0, 0, 0x0A, 0xBC, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
    EXPECT_EQ(MPEG::SCTE27::get_section_length(section.sequence), 0x020);
    EXPECT_TRUE(MPEG::SCTE27::get_segmentation_overlay_included(section.sequence));
    EXPECT_EQ(MPEG::SCTE27::get_segment_number(section.sequence), 0xABC);
    EXPECT_EQ(MPEG::SCTE27::body_offset(section.sequence), 9);
    MPEG::SCTE27::set_display_in_PTS(section.sequence, 0x12345678);
    EXPECT_EQ(MPEG::SCTE27::get_display_in_PTS(section.sequence), 0x12345678);
    EXPECT_EQ(section.bytes[13], 0x12);
    section.bytes[3] = 0;
    EXPECT_EQ(MPEG::SCTE27::body_offset(section.sequence), 4);
}

TEST(GopHeader, EveryFieldIsReadAlone) {
    const auto fields = [](const Bytes& timecode) {
        View gop(Bytes{0, 0, 1, 0xB8} + timecode);
        return std::vector<int>{MPEG::GOP::get_drop_frame(gop.sequence) ? 1 : 0,
                                MPEG::GOP::get_hours(gop.sequence), MPEG::GOP::get_minutes(gop.sequence),
                                MPEG::GOP::get_seconds(gop.sequence), MPEG::GOP::get_frames(gop.sequence)};
    };
    using Fields = std::vector<int>;
    EXPECT_EQ(fields({0xFF, 0xFF, 0xFF, 0xFF}), Fields({1, 31, 63, 63, 63}));
    EXPECT_EQ(fields({0x80, 0x00, 0x00, 0x00}), Fields({1, 0, 0, 0, 0}));
    EXPECT_EQ(fields({0x7C, 0x00, 0x00, 0x00}), Fields({0, 31, 0, 0, 0}));
    EXPECT_EQ(fields({0x03, 0xF0, 0x00, 0x00}), Fields({0, 0, 63, 0, 0}));
    EXPECT_EQ(fields({0x00, 0x08, 0x00, 0x00}), Fields({0, 0, 0, 0, 0})) << "the marker bit is none of them";
    EXPECT_EQ(fields({0x00, 0x07, 0xE0, 0x00}), Fields({0, 0, 0, 63, 0}));
    EXPECT_EQ(fields({0x00, 0x00, 0x1F, 0x80}), Fields({0, 0, 0, 0, 63}));
    EXPECT_EQ(fields({0x00, 0x00, 0x00, 0x7F}), Fields({0, 0, 0, 0, 0})) << "nor are closed_gop and the rest";
}

TEST(GopHeader, PartsOutOfRangeSpillIntoTheFieldsBesideThem) {
    const auto written = [](int h, int m, int s, int f) {
        View gop({0, 0, 1, 0xB8, 0, 0, 0, 0});
        MPEG::GOP::set_timecode(gop.sequence, false, h, m, s, f);
        return Bytes(gop.bytes.begin() + 4, gop.bytes.end());
    };
    EXPECT_EQ(written(0, 0, 0, 0), Bytes({0x00, 0x08, 0x00, 0x00}));
    EXPECT_EQ(written(32, 0, 0, 0), Bytes({0x80, 0x08, 0x00, 0x00})) << "hours into drop_frame_flag";
    EXPECT_EQ(written(0, 64, 0, 0), Bytes({0x04, 0x08, 0x00, 0x00})) << "minutes into hours";
    EXPECT_EQ(written(0, 0, 64, 0), Bytes({0x00, 0x08, 0x00, 0x00})) << "seconds into the marker bit";
    EXPECT_EQ(written(0, 0, 128, 0), Bytes({0x00, 0x18, 0x00, 0x00})) << "and into minutes";
    EXPECT_EQ(written(0, 0, 0, 64), Bytes({0x00, 0x08, 0x20, 0x00})) << "frames into seconds";
}

TEST(GopHeader, OfAPackedTimecodeTheLowTwentyFiveBitsCount) {
    for (const int packed : {static_cast<int>(0xFE000000), -1, 0x2000000}) {
        View gop({0, 0, 1, 0xB8, 0x55, 0x55, 0x55, 0x7F});
        MPEG::GOP::set_timecode(gop.sequence, packed);
        EXPECT_EQ(MPEG::GOP::get_timecode(gop.sequence), packed & 0x1FFFFFF);
        EXPECT_EQ(gop.bytes[7] & 0x7F, 0x7F);
    }
}

TEST(PictureHeader, OnlyTenBitsOfATemporalReferenceAreWritten) {
    View picture({0, 0, 1, 0x00, 0x00, 0x00, 0xEE});
    MPEG::PH::set_temporal_reference(picture.sequence, 1024 + 5);
    EXPECT_EQ(MPEG::PH::get_temporal_reference(picture.sequence), 5);
    MPEG::PH::set_temporal_reference(picture.sequence, -1);
    EXPECT_EQ(MPEG::PH::get_temporal_reference(picture.sequence), 1023);
    EXPECT_EQ(picture.bytes[5], 0xC0);
    EXPECT_EQ(picture.bytes[6], 0xEE);
    for (int type = 0; type < 8; ++type)
        EXPECT_EQ(MPEG::PH::get_picture_coding_type(
                      View({0, 0, 1, 0, 0xFF, static_cast<unsigned char>(0xC7 | type << 3)}).sequence),
                  type);
}

TEST(PictureCodingExtension, EveryStructureAndFlagAlone) {
    for (int structure = 0; structure < 4; ++structure)
        EXPECT_EQ(MPEG::PCE::get_picture_structure(
                      View({0, 0, 1, 0xB5, 0, 0, static_cast<unsigned char>(0xFC | structure), 0}).sequence),
                  structure);
    const View others({0, 0, 1, 0xB5, 0xFF, 0xFF, 0xFC, 0x7D});
    EXPECT_FALSE(MPEG::PCE::get_top_field_first(others.sequence));
    EXPECT_FALSE(MPEG::PCE::get_repeat_first_field(others.sequence));
}

TEST(FrameRate, AThousandthIsTheLimitOnBothSides) {
    const struct {
        double rate;
        int code;
    } rates[] = {{60, 8}, {60000.0 / 1001, 7}, {50, 6}, {30, 5}, {30000.0 / 1001, 4}, {25, 3},
                 {24, 2}, {24000.0 / 1001, 1}};
    for (const auto& [rate, code] : rates) {
        for (const double within : {-0.00099, 0.0, 0.00099})
            EXPECT_EQ(MPEG::fake_frame_rate_code(rate + within), code) << rate << ' ' << within;
        for (const double outside : {-0.00101, 0.00101})
            EXPECT_EQ(MPEG::fake_frame_rate_code(rate + outside), -1) << rate << ' ' << outside;
    }
    for (const double other : {-25.0, 1e300, std::numeric_limits<double>::infinity(), std::nan("")})
        EXPECT_EQ(MPEG::fake_frame_rate_code(other), -1) << other;
}

TEST(Scte27, WithoutSegmentationTheBodyBeginsAtByteFour) {
    View section(Bytes(20, 0xFF));
    section.bytes[3] = 0xBF; // every bit but segmentation_overlay_included
    EXPECT_FALSE(MPEG::SCTE27::get_segmentation_overlay_included(section.sequence));
    EXPECT_EQ(MPEG::SCTE27::body_offset(section.sequence), 4);
    EXPECT_EQ(MPEG::SCTE27::get_section_length(section.sequence), 0xFFF) << "12 bits";
    MPEG::SCTE27::set_display_in_PTS(section.sequence, 0x12345678);
    Bytes expected(20, 0xFF);
    expected[3] = 0xBF;
    const Bytes display{0x12, 0x34, 0x56, 0x78};
    std::copy(display.begin(), display.end(), expected.begin() + 8);
    EXPECT_EQ(section.bytes, expected) << "bytes 8 to 11 and no other";
    EXPECT_EQ(MPEG::SCTE27::get_display_in_PTS(section.sequence), 0x12345678);
    EXPECT_EQ(MPEG::SCTE27::get_segment_number(section.sequence), 0xF12) << "read wherever the body is";
}

TEST(Scte27, WithSegmentationTheDisplayTimeStandsFiveBytesLater) {
    View section(Bytes(20, 0x00));
    section.bytes[3] = 0x40;
    MPEG::SCTE27::set_display_in_PTS(section.sequence, -2);
    Bytes expected(20, 0x00);
    expected[3] = 0x40;
    const Bytes display{0xFF, 0xFF, 0xFF, 0xFE};
    std::copy(display.begin(), display.end(), expected.begin() + 13);
    EXPECT_EQ(section.bytes, expected);
    EXPECT_EQ(MPEG::SCTE27::get_display_in_PTS(section.sequence), -2) << "32 bits, as they are";
    section.bytes[7] = 0xF1; // the reserved bits do not count
    section.bytes[8] = 0x23;
    EXPECT_EQ(MPEG::SCTE27::get_segment_number(section.sequence), 0x123);
}

} // namespace
