// NAL units and the sequence parameter set.
#include "mpeg/h264.h"

#include <cstdio>

namespace {

constexpr int FRAME_CROPPING_OFFSETS = 4;
constexpr int SCALING_LIST_FLAGS = 8;
constexpr int EXTENDED_SAR = 255;

// The profiles whose parameter sets have the chroma and scaling fields, as far as they are recognised; later
// ones are deliberately read like the main profile, so that what is told of a file does not change.
bool is_high_profile(int profile_idc) {
    return profile_idc == 100 || profile_idc == 110 || profile_idc == 122 || profile_idc == 144;
}

} // namespace

int H264::NAL::get_unit_type(const byte_sequence& nal) {
    return nal[3] & 0x1F;
}

H264::SequenceParameterSet::SequenceParameterSet(byte_sequence& rbsp, int start_bit) {
    VBDecode bits(rbsp, start_bit);
    const int profile_idc = bits.uint(8);
    bits.uint(8);      // constraint_set flags and reserved bits
    bits.uint(8);      // level_idc
    bits.uExpGolomb(); // seq_parameter_set_id
    if (is_high_profile(profile_idc))
        skip_high_profile(bits);
    log2_max_frame_num_minus4 = bits.uExpGolomb();
    pic_order_cnt_type = bits.uExpGolomb();
    if (pic_order_cnt_type != 0)
        return;
    log2_max_pic_order_cnt_lsb_minus4 = bits.uExpGolomb();
    skip_picture_size(bits);
    const bool timed = bits.bit() != 0 && parse_vui(bits); // vui_parameters_present_flag
    if (!timed) {
        num_units_in_tick = UNTIMED_UNITS_IN_TICK;
        time_scale = UNTIMED_TIME_SCALE;
    }
}

void H264::SequenceParameterSet::skip_high_profile(VBDecode& bits) const {
    constexpr int YUV_444 = 3;
    if (bits.uExpGolomb() == YUV_444) // chroma_format_idc
        bits.bit();                   // separate_colour_plane_flag
    bits.uExpGolomb();                // bit_depth_luma_minus8
    bits.uExpGolomb();                // bit_depth_chroma_minus8
    bits.bit();                       // qpprime_y_zero_transform_bypass_flag
    if (bits.bit() == 0)              // seq_scaling_matrix_present_flag
        return;
    // Scaling lists are not parsed, so what follows one is misread; callers have been told by this text since
    // the first version, and rely on it.
    for (int i = 0; i < SCALING_LIST_FLAGS; ++i)
        if (bits.bit() != 0)
            std::fputs("XXX! unhandled scaling_list()\n", stderr);
}

void H264::SequenceParameterSet::skip_picture_size(VBDecode& bits) {
    bits.uExpGolomb(); // max_num_ref_frames
    bits.bit();        // gaps_in_frame_num_value_allowed_flag
    bits.uExpGolomb(); // pic_width_in_mbs_minus1
    bits.uExpGolomb(); // pic_height_in_map_units_minus1
    frame_mbs_only_flag = bits.bit() != 0;
    if (!frame_mbs_only_flag)
        bits.bit();      // mb_adaptive_frame_field_flag
    bits.bit();          // direct_8x8_inference_flag
    if (bits.bit() != 0) // frame_cropping_flag
        for (int i = 0; i < FRAME_CROPPING_OFFSETS; ++i)
            bits.uExpGolomb();
}

// Up to the timing information; whether there is any.
bool H264::SequenceParameterSet::parse_vui(VBDecode& bits) {
    if (bits.bit() != 0 && bits.uint(8) == EXTENDED_SAR) // aspect_ratio_info_present_flag, aspect_ratio_idc
        bits.ulong(32);                                  // sar_width, sar_height
    if (bits.bit() != 0)                                 // overscan_info_present_flag
        bits.bit();                                      // overscan_appropriate_flag
    if (bits.bit() != 0) {                               // video_signal_type_present_flag
        bits.uint(4);                                    // video_format, video_full_range_flag
        if (bits.bit() != 0)                             // colour_description_present_flag
            bits.uint(24);                               // primaries, transfer, matrix
    }
    if (bits.bit() != 0) { // chroma_loc_info_present_flag
        bits.uExpGolomb(); // chroma_sample_loc_type_top_field
        bits.uExpGolomb(); // chroma_sample_loc_type_bottom_field
    }
    if (bits.bit() == 0) // timing_info_present_flag
        return false;
    num_units_in_tick = bits.ulong(32);
    time_scale = bits.ulong(32);
    bits.bit(); // fixed_frame_rate_flag
    return true;
}
