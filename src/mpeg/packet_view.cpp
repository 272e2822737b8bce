#include "mpeg/packet_view.h"

namespace kestrel::ts {

namespace {

constexpr std::size_t section_head = 3;
constexpr std::size_t pes_head = 9;

// Stream ids whose PES packets have no flags and timestamps (ISO/IEC 13818-1, 2.4.3.7, table 2-22).
constexpr bool without_header(unsigned char stream_id) {
    switch (stream_id) {
    case 0xBC: // program_stream_map
    case 0xBE: // padding_stream
    case 0xBF: // private_stream_2
    case 0xF0: // ECM_stream
    case 0xF1: // EMM_stream
    case 0xF2: // DSMCC_stream
    case 0xF8: // ITU-T Rec. H.222.1 type E
    case 0xFF: // program_stream_directory
        return true;
    default:
        return false;
    }
}

} // namespace

bytes adaptation_field(const unsigned char* packet) noexcept {
    if (!has_adaptation(packet) || payload_offset(packet) > packet_size)
        return {};
    return bytes(packet, packet_size).subspan(header_size + 1, packet[4]);
}

bytes section(const unsigned char* packet) noexcept {
    const bytes in_packet = payload(packet);
    if (in_packet.empty())
        return {};
    const std::size_t start = 1U + in_packet[0]; // pointer_field
    if (start + section_head > in_packet.size())
        return {};
    const bytes found = in_packet.subspan(start);
    const std::size_t length = section_head + ((found[1] & 0x0FU) << 8 | found[2]);
    return length <= found.size() ? found.first(length) : bytes{};
}

bytes pes_header(const unsigned char* packet) noexcept {
    const bytes pes = payload(packet);
    if (!payload_unit_start(packet) || pes.size() < pes_head || pes[0] != 0 || pes[1] != 0 || pes[2] != 1 ||
        without_header(pes[3]))
        return {};
    // The flags promise timestamps whatever PES_header_data_length says; both must fit.
    const std::size_t timestamps = (pes[7] & 0x40) != 0 ? 10 : (pes[7] & 0x80) != 0 ? 5 : 0;
    const std::size_t length = pes_head + std::max<std::size_t>(pes[8], timestamps);
    return length <= pes.size() ? pes.first(length) : bytes{};
}

} // namespace kestrel::ts
