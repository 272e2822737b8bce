#include "mpeg/mpeg2.h"

#include <algorithm>
#include <array>

namespace {

constexpr int fixed_size = 12;
constexpr int fixed_length = 6; // header_length without buffer bounds
constexpr int bound_size = 3;

} // namespace

void MPEG::SystemHeader::blank(unsigned char* buf, int size) {
    constexpr std::array<unsigned char, fixed_size> empty{0,    0, 1, 0xBB, 0,    fixed_length,
                                                          0x80, 0, 1, 0,    0x20, 0x7F};
    size = std::max(size, 0);
    std::fill_n(buf, size, static_cast<unsigned char>(0));
    std::copy_n(empty.begin(), std::min(size, fixed_size), buf);
}

void MPEG::SystemHeader::set_header_length(unsigned char* buf, int length) {
    buf[4] = static_cast<unsigned char>(length >> 8);
    buf[5] = static_cast<unsigned char>(length);
}

void MPEG::SystemHeader::set_rate_bound(unsigned char* buf, int rate) {
    buf[6] = static_cast<unsigned char>(0x80 | rate >> 15);
    buf[7] = static_cast<unsigned char>(rate >> 7);
    buf[8] = static_cast<unsigned char>(rate << 1 | 1);
}

void MPEG::SystemHeader::set_audio_bound(unsigned char* buf, int bound) {
    buf[9] = static_cast<unsigned char>(bound << 2 | (buf[9] & 0x03));
}

void MPEG::SystemHeader::set_video_bound(unsigned char* buf, int bound) {
    buf[10] = static_cast<unsigned char>((buf[10] & 0xC0) | 0x20 | (bound & 0x1F));
}

void MPEG::SystemHeader::set_buffer_thingus_count(unsigned char* buf, int n) {
    set_header_length(buf, bound_size * n + fixed_length);
}

void MPEG::SystemHeader::set_buffer_thingus(unsigned char* buf, int i, int stream_id, bool scale, int size) {
    unsigned char* entry = buf + fixed_size + bound_size * i;
    entry[0] = static_cast<unsigned char>(stream_id);
    entry[1] = static_cast<unsigned char>((scale ? 0xE0 : 0xC0) | ((size >> 8) & 0x1F));
    entry[2] = static_cast<unsigned char>(size);
}
