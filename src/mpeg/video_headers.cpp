#include "mpeg/mpeg2.h"
#include "timecode/mpeg_timecode.h"

#include <array>
#include <cmath>

namespace {

// Duration of a frame in PTS units, by frame_rate_code (ISO/IEC 13818-2, table 6-4).
constexpr std::array<int, 9> frame_durations{-1, 15015, 15000, 14400, 12012, 12000, 7200, 6006, 6000};

constexpr int first_extension_byte = 4;

void replace_bits(byte_sequence& s, int position, int mask, int value) {
    unsigned char& byte = s[position];
    byte = static_cast<unsigned char>((byte & ~mask) | (value & mask));
}

} // namespace

int MPEG::SH::get_frame_rate_code(const byte_sequence& header) {
    return header[7] & 0x0F;
}

int MPEG::SH::decode_PCRs_per_frame(int frame_rate_code) {
    if (frame_rate_code < 1 || frame_rate_code >= static_cast<int>(frame_durations.size()))
        return -1;
    return frame_durations[static_cast<std::size_t>(frame_rate_code)];
}

int MPEG::SH::get_PCRs_per_frame(const byte_sequence& header) {
    return decode_PCRs_per_frame(get_frame_rate_code(header));
}

int MPEG::SH::get_PCRs_per_frame(const unsigned char* header) {
    return decode_PCRs_per_frame(header[7] & 0x0F);
}

int MPEG::fake_frame_rate_code(double fps) {
    struct rate {
        double fps;
        int code;
    };
    constexpr rate rates[] = {
        {60.0, 8},           {60000.0 / 1001, 7}, {50.0, 6}, {30.0, 5},
        {30000.0 / 1001, 4}, {25.0, 3},           {24.0, 2}, {24000.0 / 1001, 1},
    };
    for (const rate& candidate : rates)
        if (std::fabs(fps - candidate.fps) < 0.001)
            return candidate.code;
    return -1;
}

int MPEG::SED::get_extension_id(const byte_sequence& extension) {
    return extension[first_extension_byte] >> 4;
}

bool MPEG::SED::get_progressive_sequence(const byte_sequence& extension) {
    return (extension[first_extension_byte + 1] & 0x08) != 0;
}

// time_code: drop_frame_flag 1, hours 5, minutes 6, marker 1, seconds 6, pictures 6; from byte 4 on.

bool MPEG::GOP::get_drop_frame(const byte_sequence& header) {
    return (header[4] & 0x80) != 0;
}

int MPEG::GOP::get_hours(const byte_sequence& header) {
    return (header[4] >> 2) & 0x1F;
}

int MPEG::GOP::get_minutes(const byte_sequence& header) {
    return ((header[4] << 4) & 0x3F) | header[5] >> 4;
}

int MPEG::GOP::get_seconds(const byte_sequence& header) {
    return ((header[5] << 3) & 0x3F) | header[6] >> 5;
}

int MPEG::GOP::get_frames(const byte_sequence& header) {
    return ((header[6] << 1) & 0x3F) | header[7] >> 7;
}

int MPEG::GOP::get_timecode(const byte_sequence& header) {
    return header[4] << 17 | header[5] << 9 | header[6] << 1 | header[7] >> 7;
}

void MPEG::GOP::set_timecode(byte_sequence& header, int packed) {
    header[4] = static_cast<unsigned char>(packed >> 17);
    header[5] = static_cast<unsigned char>(packed >> 9);
    header[6] = static_cast<unsigned char>(packed >> 1);
    replace_bits(header, 7, 0x80, (packed & 1) << 7);
}

void MPEG::GOP::set_timecode(byte_sequence& header, bool drop, int h, int m, int s, int f) {
    constexpr int marker = 0x08;
    header[4] = static_cast<unsigned char>((drop ? 0x80 : 0) | h << 2 | m >> 4);
    header[5] = static_cast<unsigned char>(m << 4 | marker | s >> 3);
    header[6] = static_cast<unsigned char>(s << 5 | f >> 1);
    replace_bits(header, 7, 0x80, (f & 1) << 7);
}

void MPEG::GOP::set_timecode(byte_sequence& header, const mpeg_timecode& timecode) {
    set_timecode(header, timecode.pack_int());
}

bool MPEG::GOP::closed_GOP(const byte_sequence& header) {
    return (header[7] & 0x40) != 0;
}

void MPEG::GOP::set_closed_GOP(byte_sequence& header, bool closed) {
    replace_bits(header, 7, 0x40, closed ? 0x40 : 0);
}

int MPEG::PH::get_temporal_reference(const byte_sequence& header) {
    return header[4] << 2 | header[5] >> 6;
}

void MPEG::PH::set_temporal_reference(byte_sequence& header, int value) {
    header[4] = static_cast<unsigned char>(value >> 2);
    replace_bits(header, 5, 0xC0, (value & 3) << 6);
}

int MPEG::PH::get_picture_coding_type(const byte_sequence& header) {
    return (header[5] >> 3) & 7;
}

int MPEG::PCE::get_picture_structure(const byte_sequence& extension) {
    return extension[6] & 3;
}

bool MPEG::PCE::get_top_field_first(const byte_sequence& extension) {
    return (extension[7] & 0x80) != 0;
}

bool MPEG::PCE::get_repeat_first_field(const byte_sequence& extension) {
    return (extension[7] & 0x02) != 0;
}
