// Bounded views of one 188-byte transport packet (ISO/IEC 13818-1, 2.4.3.2).
//
// The one place that decides what lies inside a packet. Every length in a packet comes from outside: an
// adaptation_field_length, a pointer_field or a section_length may point past the packet, and a structure
// that does not lie wholly in its packet counts as not present (an empty span). Whatever is given to these
// functions as a packet must be readable for 188 bytes; nothing else about it is trusted.
#pragma once

#include <algorithm>
#include <cstddef>
#include <span>

namespace kestrel::ts {

// Bytes of a packet.
inline constexpr int packet_size = 188;
// First byte of each packet.
inline constexpr unsigned char sync_byte = 0x47;
// PID of null packets (2.4.3.3, table 2-3), and how many PIDs there are.
inline constexpr int null_pid = 0x1FFF;
inline constexpr int pid_count = 0x2000;
// Bytes in front of adaptation field and payload.
inline constexpr int header_size = 4;

// A view into a packet, and one that may be written through.
using bytes = std::span<const unsigned char>;
using writable_bytes = std::span<unsigned char>;

// PID, 13 bits.
constexpr int pid(const unsigned char* packet) noexcept {
    return (packet[1] & 0x1F) << 8 | packet[2];
}

// payload_unit_start_indicator.
constexpr bool payload_unit_start(const unsigned char* packet) noexcept {
    return (packet[1] & 0x40) != 0;
}

// Upper bit of adaptation_field_control: the packet has an adaptation field.
constexpr bool has_adaptation(const unsigned char* packet) noexcept {
    return (packet[3] & 0x20) != 0;
}

// Lower bit of adaptation_field_control: the packet has a payload.
constexpr bool has_payload(const unsigned char* packet) noexcept {
    return (packet[3] & 0x10) != 0;
}

// continuity_counter, 4 bits.
constexpr int continuity_counter(const unsigned char* packet) noexcept {
    return packet[3] & 0x0F;
}

// Where the payload begins by the packet's own account: 4, or adaptation_field_length + 5. Up to 260, so not
// an index before it is compared with packet_size. The payload flag is not consulted.
constexpr int payload_offset(const unsigned char* packet) noexcept {
    return has_adaptation(packet) ? packet[4] + 5 : header_size;
}

// Bytes from payload_offset to the end of the packet; empty when the adaptation field fills or overruns it.
inline bytes payload(const unsigned char* packet) noexcept {
    return bytes(packet, packet_size)
        .subspan(static_cast<std::size_t>(std::min(payload_offset(packet), packet_size)));
}
// The same, writable.
inline writable_bytes payload(unsigned char* packet) noexcept {
    return writable_bytes(packet, packet_size)
        .subspan(static_cast<std::size_t>(std::min(payload_offset(packet), packet_size)));
}

// The adaptation field after its length byte (2.4.3.4); empty when there is none, when its length is 0 and
// when it overruns the packet.
bytes adaptation_field(const unsigned char* packet) noexcept;

// The PSI section that pointer_field leads to, from table_id to the end of its CRC (2.4.4). Empty unless its
// 3-byte head and the section_length bytes after it lie in this packet. PUSI, table_id and CRC are not
// looked at.
bytes section(const unsigned char* packet) noexcept;

// The head of the PES packet that begins in this packet (2.4.3.6): from its start code to the end of its
// header fields, timestamps included. Empty when no PES packet begins here, when its stream_id has no such
// header or when the head does not lie in this packet. The raw accessors of MPEG::PES may be used on data().
bytes pes_header(const unsigned char* packet) noexcept;

} // namespace kestrel::ts
