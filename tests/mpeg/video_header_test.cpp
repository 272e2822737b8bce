// MPEG-2 video headers (ISO/IEC 13818-2, 6.2) and SCTE 27 subtitles.
#include "mpeg/mpeg2.h"
#include "timecode/mpeg_timecode.h"

#include <gtest/gtest.h>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;

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

} // namespace
