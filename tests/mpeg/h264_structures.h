// H.264 structures with everything that may be coded, made field by field, and their fields to be compared.
#pragma once

#include "mpeg/h264.h"
#include "ts_maker.h"

#include <tuple>

inline array_byte_sequence view(Bytes& bytes) {
    return {bytes.data(), static_cast<int>(bytes.size())};
}

inline Bytes firstOf(const Bytes& bytes, std::size_t count) {
    Bytes cut(bytes.begin(), bytes.begin() + static_cast<long>(count));
    cut.shrink_to_fit(); // so that a sanitizer sees the byte behind
    return cut;
}

inline auto fields(const H264::SequenceParameterSet& sps) {
    return std::tuple(sps.log2_max_frame_num_minus4, sps.pic_order_cnt_type,
                      sps.log2_max_pic_order_cnt_lsb_minus4, sps.frame_mbs_only_flag, sps.num_units_in_tick,
                      sps.time_scale);
}
inline auto fields(const H264::SEI::PicTiming& t) {
    return std::tuple(t.pic_struct, t.clock_timestamp_flag, t.n_frames, t.seconds, t.minutes, t.hours);
}
inline auto fields(const H264::SliceHeader& slice) {
    return std::tuple(slice.first_mb_in_slice, slice.slice_type, slice.field_pic_flag,
                      slice.pic_order_cnt_lsb);
}

// 7.3.2.1.1 with everything that may be coded: cropped, field coded, a VUI with all groups. Its payload has
// no run of zeros that would need an emulation prevention byte.
inline BitString& fullParameterSet(BitString& bits, int profile) {
    bits.u(8, static_cast<unsigned>(profile)).u(8, 0xFF).u(8, 40).ue(31);
    if (profile == 100 || profile == 110 || profile == 122 || profile == 144)
        bits.ue(3).u(1, 1).ue(6).ue(5).u(1, 1).u(1, 0);
    bits.ue(12).ue(0).ue(11).ue(16).u(1, 1).ue(119).ue(33).u(1, 0).u(1, 1).u(1, 1);
    bits.u(1, 1).ue(1).ue(2).ue(3).ue(4);
    bits.u(1, 1).u(1, 1).u(8, 255).u(16, 0x1234).u(16, 0x5678);
    bits.u(1, 1).u(1, 1).u(1, 1).u(3, 5).u(1, 1).u(1, 1).u(24, 0xA1B2C3).u(1, 1).ue(5).ue(5);
    return bits.u(1, 1).u(32, 0x89ABCDEF).u(32, 0xFEDCBA98).u(1, 1);
}

inline BitString fullTiming() {
    return BitString().u(4, 8).u(1, 1).u(8, 0xFF).u(1, 1).u(2, 3).u(8, 24).u(6, 59).u(6, 58).u(5, 23);
}

inline H264::SequenceParameterSet sliceSet() {
    H264::SequenceParameterSet sps;
    sps.log2_max_frame_num_minus4 = 2;
    sps.pic_order_cnt_type = 0;
    sps.log2_max_pic_order_cnt_lsb_minus4 = 4;
    return sps;
}

// 7.3.3: a field-coded IDR slice.
inline BitString& idrSlice(BitString& bits, unsigned lsb) {
    return bits.ue(17).ue(7).ue(1).u(6, 33).u(1, 1).u(1, 1).ue(300).u(8, lsb).u(16, 0xA5A5);
}
