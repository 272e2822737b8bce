#include "mpeg/mpeg2.h"
#include "mpeg/timestamp_field.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace ts = kestrel::ts;

namespace {

constexpr int flags_at = 5;
constexpr int pcr_at = 6;
constexpr unsigned char adaptation_flag = 0x20; // of byte 3
constexpr unsigned char payload_flag = 0x10;    // of byte 3

// program_clock_reference: base 33 bits, 6 reserved bits, extension 9 bits.
void write_PCR(unsigned char* packet, std::int64_t base, int extension) {
    unsigned char* field = packet + pcr_at;
    for (int i = 0; i < 4; ++i)
        field[i] = static_cast<unsigned char>(base >> (25 - 8 * i));
    field[4] = static_cast<unsigned char>((base & 1) << 7 | (field[4] & 0x7E) | ((extension >> 8) & 1));
    field[5] = static_cast<unsigned char>(extension);
}

// Where DTS_next_AU lies when the flags of the adaptation field and of its extension are followed; -1 when
// that is not in the packet.
int DTS_next_AU_offset(const unsigned char* packet) {
    constexpr int coded_size = 5;
    const int flags = packet[4] == 0 ? 0 : packet[flags_at];
    int at = flags_at + 1;
    at += (flags & 0x10) != 0 ? 6 : 0; // PCR
    at += (flags & 0x08) != 0 ? 6 : 0; // OPCR
    at += (flags & 0x04) != 0 ? 1 : 0; // splice_countdown
    if ((flags & 0x02) != 0)           // transport_private_data
        at += 1 + packet[at];
    if (at + 2 > ts::packet_size)
        return -1;
    const int extension_flags = packet[at + 1];
    at += 2;
    at += (extension_flags & 0x80) != 0 ? 2 : 0; // ltw
    at += (extension_flags & 0x40) != 0 ? 3 : 0; // piecewise_rate
    return at + coded_size <= ts::packet_size ? at : -1;
}

} // namespace

void MPEG::Adaptation::_set_PCR(unsigned char* packet, long pcr27) {
    write_PCR(packet, pcr27 / 300, static_cast<int>(pcr27 % 300));
}

void MPEG::Adaptation::set_PCR(unsigned char* packet, double pcr90) {
    if (!std::isfinite(pcr90))
        pcr90 = 0;
    const double base = std::floor(pcr90);
    const double extension = std::floor(300 * (pcr90 - base) + 0.5);
    constexpr double base_range = 8589934592.0; // 33 bits; the remainder keeps the conversion in range
    write_PCR(packet, static_cast<std::int64_t>(std::fmod(base, base_range)), static_cast<int>(extension));
}

PTS MPEG::Adaptation::get_DTS_next_AU(const unsigned char* packet) {
    const int at = DTS_next_AU_offset(packet);
    return at < 0 ? PTS() : ts::decode_timestamp(packet, at);
}

void MPEG::Adaptation::set_DTS_next_AU(unsigned char* packet, PTS value) {
    const int at = DTS_next_AU_offset(packet);
    if (at < 0)
        return;
    unsigned char* field = packet + at;
    const int splice_type = field[0] & 0xF0;
    for (int i = 0; i < 5; ++i)
        field[i] = static_cast<unsigned char>(ts::timestamp_byte(value, i) | ts::timestamp_markers[i]);
    field[0] = static_cast<unsigned char>(field[0] | splice_type);
}

void MPEG::expand_adaptation(unsigned char* packet, int payload_bytes) {
    constexpr int most_behind_field = ts::packet_size - 5; // an adaptation field of its length byte alone
    payload_bytes = std::max(payload_bytes, 0);
    int old_end = ts::payload_offset(packet);
    if (payload_bytes >= ts::packet_size - old_end) {
        if (payload_bytes > most_behind_field)
            packet[3] = static_cast<unsigned char>(packet[3] & ~adaptation_flag);
        else if (payload_bytes == most_behind_field)
            packet[4] = 0;
        return;
    }

    packet[4] = static_cast<unsigned char>(most_behind_field - payload_bytes);
    if (old_end < flags_at + 1 && payload_bytes != most_behind_field) {
        packet[flags_at] = 0;
        old_end = flags_at + 1;
    }
    if (payload_bytes < 1)
        packet[3] = static_cast<unsigned char>(packet[3] & ~payload_flag);
    if (!ts::has_adaptation(packet)) {
        packet[3] = static_cast<unsigned char>(packet[3] | adaptation_flag);
        if (payload_bytes == most_behind_field)
            return;
    }
    std::fill(packet + old_end, packet + ts::packet_size - payload_bytes, static_cast<unsigned char>(0xFF));
}

void MPEG::craft_NULL_PID(unsigned char* packet) {
    constexpr unsigned char header[ts::header_size] = {ts::sync_byte, 0x1F, 0xFF, payload_flag};
    std::copy(std::begin(header), std::end(header), packet);
    std::fill(packet + ts::header_size, packet + ts::packet_size, static_cast<unsigned char>(0));
}
