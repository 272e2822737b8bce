// The start of the slice header.
#include "mpeg/h264.h"

#include <algorithm>

namespace {

constexpr int IDR_SLICE = 5; // nal_unit_type

// Width of a field that is coded as its logarithm minus 4.
int width(int log2_minus4) {
    return std::clamp(log2_minus4, -4, 28) + 4;
}

} // namespace

H264::SliceHeader::SliceHeader(byte_sequence& rbsp, int start_bit, const SequenceParameterSet& sps,
                               int nal_unit_type)
    : m_rbsp(rbsp), m_start_bit(start_bit), m_sps(sps), m_nal_unit_type(nal_unit_type) {
    VBDecode bits(m_rbsp, m_start_bit);
    read_to_pic_order_cnt_lsb(bits);
    if (m_sps.pic_order_cnt_type == 0)
        pic_order_cnt_lsb = bits.uint(pic_order_cnt_lsb_bits());
}

void H264::SliceHeader::read_to_pic_order_cnt_lsb(VBDecode& bits) {
    first_mb_in_slice = bits.uExpGolomb();
    slice_type = bits.uExpGolomb();
    bits.uExpGolomb(); // pic_parameter_set_id
    // Never colour_plane_id: it is only coded for 4:4:4 in separate planes, which broadcast does not use, and
    // the parameter set does not keep that flag.
    bits.uint(width(m_sps.log2_max_frame_num_minus4)); // frame_num
    field_pic_flag = m_sps.frame_mbs_only_flag ? 0 : bits.bit();
    if (field_pic_flag != 0)
        bits.bit(); // bottom_field_flag
    if (m_nal_unit_type == IDR_SLICE)
        bits.uExpGolomb(); // idr_pic_id
}

int H264::SliceHeader::pic_order_cnt_lsb_bits() const noexcept {
    return width(m_sps.log2_max_pic_order_cnt_lsb_minus4);
}

void H264::SliceHeader::set_pic_order_cnt_lsb(int value) {
    if (m_sps.pic_order_cnt_type != 0)
        return;
    VBDecodePlus bits(m_rbsp, m_start_bit);
    read_to_pic_order_cnt_lsb(bits);
    bits.set_uint(bits.position(), pic_order_cnt_lsb_bits(), value);
    pic_order_cnt_lsb = bits.integer(bits.position(), pic_order_cnt_lsb_bits());
}
