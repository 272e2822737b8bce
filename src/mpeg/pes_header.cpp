#include "mpeg/mpeg2.h"
#include "mpeg/timestamp_field.h"

namespace ts = kestrel::ts;

namespace {

constexpr int length_at = 4;
constexpr int flags_at = 7;
constexpr int header_data_length_at = 8;
constexpr int pts_at = 9;
constexpr int dts_at = 14;
constexpr int length_field_end = 6; // PES_packet_length counts from here

void rewrite_timestamp_bits(byte_sequence& pes, int first, PTS value) {
    for (int i = 0; i < 5; ++i) {
        unsigned char& byte = pes[first + i];
        byte = static_cast<unsigned char>((byte & ~ts::timestamp_bits[i]) | ts::timestamp_byte(value, i));
    }
}

void rewrite_timestamp_field(unsigned char* field, int prefix, PTS value) {
    for (int i = 0; i < 5; ++i)
        field[i] = static_cast<unsigned char>(ts::timestamp_byte(value, i) | ts::timestamp_markers[i]);
    field[0] = static_cast<unsigned char>(field[0] | prefix << 4);
}

} // namespace

int MPEG::PES::get_packet_length(const byte_sequence& pes) {
    const int coded = pes[length_at] << 8 | pes[length_at + 1];
    return coded == 0 ? 0 : coded + length_field_end;
}

void MPEG::PES::set_packet_length(byte_sequence& pes, int total) {
    const int coded = total >= 1 ? total - length_field_end : total;
    pes[length_at] = static_cast<unsigned char>(coded >> 8);
    pes[length_at + 1] = static_cast<unsigned char>(coded);
}

int MPEG::PES::header_length(const byte_sequence& pes) {
    return pes[header_data_length_at] + header_data_length_at + 1;
}

int MPEG::PES::PTS_DTS_flag(const byte_sequence& pes) {
    return pes[flags_at] >> 6;
}

bool MPEG::PES::has_PTS(const byte_sequence& pes) {
    return (PTS_DTS_flag(pes) & 0x2) != 0;
}

bool MPEG::PES::has_DTS(const byte_sequence& pes) {
    return PTS_DTS_flag(pes) == 3;
}

PTS MPEG::PES::get_PTS(const byte_sequence& pes) {
    return has_PTS(pes) ? ts::decode_timestamp(pes, pts_at) : PTS();
}

PTS MPEG::PES::get_DTS(const byte_sequence& pes) {
    return has_DTS(pes) ? ts::decode_timestamp(pes, dts_at) : PTS();
}

void MPEG::PES::get_PTS(const byte_sequence& pes, PTS* pts) {
    *pts = get_PTS(pes);
}

PTS MPEG::PES::get_PTS(const unsigned char* pes) {
    return (pes[flags_at] & 0x80) != 0 ? ts::decode_timestamp(pes, pts_at) : PTS();
}

PTS MPEG::PES::get_DTS(const unsigned char* pes) {
    return pes[flags_at] >> 6 == 3 ? ts::decode_timestamp(pes, dts_at) : PTS();
}

PTS MPEG::PES::get_TS(const byte_sequence& field) {
    return ts::decode_timestamp(field, 0);
}

void MPEG::PES::read_pts_and_dts_from_PES_header(const byte_sequence& pes, PTS* pts, PTS* dts) {
    const int flags = PTS_DTS_flag(pes);
    *pts = (flags & 0x2) != 0 ? ts::decode_timestamp(pes, pts_at) : PTS(0);
    if (dts != nullptr)
        *dts = (flags & 0x1) != 0 ? ts::decode_timestamp(pes, dts_at) : PTS(0);
}

void MPEG::PES::read_pts_and_dts_from_PES_header_(const unsigned char* p, PTS* pts, PTS* dts) {
    constexpr int skipped = 4; // p stands behind the start code
    const int flags = p[flags_at - skipped] >> 6;
    *pts = flags >= 2 ? ts::decode_timestamp(p, pts_at - skipped) : PTS(0);
    if (dts != nullptr)
        *dts = flags == 3 ? ts::decode_timestamp(p, dts_at - skipped) : PTS(0);
}

void MPEG::PES::set_PTS(byte_sequence& pes, PTS value) {
    rewrite_timestamp_bits(pes, pts_at, value);
}

void MPEG::PES::set_DTS(byte_sequence& pes, PTS value) {
    rewrite_timestamp_bits(pes, dts_at, value);
}

void MPEG::PES::set_PTS(unsigned char* pes, PTS value) {
    const bool with_dts = pes[flags_at] >> 6 == 3;
    rewrite_timestamp_field(pes + pts_at, with_dts ? 0x3 : 0x2, value);
}

void MPEG::PES::set_DTS(unsigned char* pes, PTS value) {
    rewrite_timestamp_field(pes + dts_at, 0x1, value);
}
