// The few pieces of an ITU-T H.264 elementary stream that this system needs, and the bit reader and writer
// they are read with: the start of the sequence parameter set, the picture timing SEI message and the start
// of the slice header. Malformed streams are not detected: bits past the end of a view read as 0 and are not
// written.
#pragma once

#include "mpeg/mpeg.h"
#include "timecode/mpeg_timecode.h"

#include <cstdint>

// Reads bits of a view, most significant first; bit 0 is the most significant bit of byte 0.
class VBDecode {
public:
    // Stands at start_bit of s, which must outlive it; a negative start counts as 0.
    VBDecode(const byte_sequence& s, int start_bit) noexcept;

    // The bit at a position, 0 or 1, and 0 before the first one; the current position stays.
    [[nodiscard]] int bit(int pos) const;
    // The bit at the current position, which moves on.
    int bit();
    // The count bits of b that end at bit index last, where index 0 is the most significant bit.
    static int subByte(unsigned char b, int last, int count) noexcept;
    // count bits (at most 64) from a position, the first one the most significant; 0 for a count of 0. The
    // current position stays. A negative position counts as 0.
    [[nodiscard]] std::int64_t long_(int pos, int count) const;
    // The same from the current position, which moves on.
    std::int64_t ulong(int count);
    // As long_ and ulong, truncated to an int.
    [[nodiscard]] int integer(int pos, int count) const;
    int uint(int count);
    // ue(v), unsigned Exp-Golomb (ITU-T H.264, 9.1). At most 32 leading zero bits are looked at.
    int uExpGolomb();

    // The current position in bits; past the end of the view it does not move.
    [[nodiscard]] int position() const noexcept { return m_position; }

private:
    [[nodiscard]] int byte_at(std::int64_t index) const;
    void advance(int count) noexcept;

    const byte_sequence& m_bytes;
    int m_position;
};

// Reads, and writes fields in place.
class VBDecodePlus : public VBDecode {
public:
    // Stands at start_bit of s, which must outlive it.
    VBDecodePlus(byte_sequence& s, int start_bit) noexcept : VBDecode(s, start_bit), m_writable(s) {}

    // Writes the low count bits of value at a position; all other bits keep their values, and the current
    // position stays. A negative position counts like any other: bits before bit 0 are not written.
    void set_uint(int pos, int count, int value);

private:
    byte_sequence& m_writable;
};

namespace H264 {

namespace NAL {

// nal_unit_type (7.3.1) of a view that begins at the start code prefix 00 00 01.
int get_unit_type(const byte_sequence& nal);

} // namespace NAL

// Sequence parameter set, 7.3.2.1.1 and E.1.1, as far as it is needed.
class SequenceParameterSet {
public:
    // Nothing parsed: -1 and false.
    SequenceParameterSet() = default;
    // Parses an unescaped payload from the bit after the NAL unit header. When pic_order_cnt_type is not 0
    // the fields behind it keep their defaults.
    SequenceParameterSet(byte_sequence& rbsp, int start_bit);

    // The standard's names and coding (7.4.2.1.1), unchecked.
    int log2_max_frame_num_minus4 = -1;
    int pic_order_cnt_type = -1;
    int log2_max_pic_order_cnt_lsb_minus4 = -1;
    bool frame_mbs_only_flag = false; // no field is coded by itself
    // Of the VUI (E.2.1): a field lasts num_units_in_tick / time_scale seconds. 3003 and 180000 (29.97 frames
    // a second) when it has no timing.
    std::int64_t num_units_in_tick = -1;
    std::int64_t time_scale = -1;
    static constexpr std::int64_t UNTIMED_UNITS_IN_TICK = 3003;
    static constexpr std::int64_t UNTIMED_TIME_SCALE = 180'000;

private:
    void skip_high_profile(VBDecode& bits) const;
    void skip_picture_size(VBDecode& bits);
    [[nodiscard]] bool parse_vui(VBDecode& bits);
};

// Supplemental enhancement information, 7.3.2.3 and annex D.
namespace SEI {

// payloadType or payloadSize (7.3.2.3.1): the sum of the bytes from pos up to and with the first that is not
// FF. next, unless null, gets the position behind it.
int unFF(const byte_sequence& s, int pos, int* next);

// Picture timing, D.1.2, of streams without CPB and DPB delays whose pic_struct is present: the first clock
// timestamp, whatever pic_struct says.
class PicTiming {
public:
    // Parses the payload of one message, behind its payloadType and payloadSize.
    explicit PicTiming(const byte_sequence& payload);

    // Whether there is a clock timestamp.
    [[nodiscard]] bool has_time_code() const noexcept { return clock_timestamp_flag != 0; }
    // The timestamp at that frame_rate_code; never drop-frame, whatever cnt_dropped_flag said. Out of bounds
    // it is logged and kept.
    [[nodiscard]] mpeg_timecode time_code(int rate) const;

    int pic_struct = 0;           // table D-1
    int clock_timestamp_flag = 0; // of the first timestamp
    int n_frames = 0;             // 0 where not coded, like those below
    int seconds = 0;
    int minutes = 0;
    int hours = 0;
};

} // namespace SEI

// Start of a slice header, 7.3.3, up to pic_order_cnt_lsb. colour_plane_id is not read.
class SliceHeader {
public:
    // Parses an unescaped payload from the bit after the NAL unit header. The view must outlive this object.
    // sps, which is copied, tells the widths of the fields; nal_unit_type 5 is an IDR picture.
    SliceHeader(byte_sequence& rbsp, int start_bit, const SequenceParameterSet& sps, int nal_unit_type);

    // Writes pic_order_cnt_lsb in place, the low bits of value; nothing when the stream does not code it.
    void set_pic_order_cnt_lsb(int value);

    // 7.4.3.
    int first_mb_in_slice = 0;
    int slice_type = 0; // table 7-6
    // 0 when not coded; of a stream whose pic_order_cnt_type is not 0, so that frame_mbs_only_flag keeps its
    // default, whatever bit stands in its place.
    int field_pic_flag = 0;
    int pic_order_cnt_lsb = -1; // -1 when not coded

private:
    void read_to_pic_order_cnt_lsb(VBDecode& bits);
    [[nodiscard]] int pic_order_cnt_lsb_bits() const noexcept;

    byte_sequence& m_rbsp;
    int m_start_bit;
    SequenceParameterSet m_sps;
    int m_nal_unit_type;
};

} // namespace H264
