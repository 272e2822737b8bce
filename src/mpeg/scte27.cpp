#include "mpeg/mpeg2.h"

#include <cstdint>

namespace {

constexpr int display_in_PTS_offset = 4; // in the message body

} // namespace

int MPEG::SCTE27::get_section_length(const byte_sequence& section) {
    return (section[1] & 0x0F) << 8 | section[2];
}

bool MPEG::SCTE27::get_segmentation_overlay_included(const byte_sequence& section) {
    return (section[3] & 0x40) != 0;
}

int MPEG::SCTE27::get_segment_number(const byte_sequence& section) {
    return (section[7] & 0x0F) << 8 | section[8];
}

int MPEG::SCTE27::body_offset(const byte_sequence& section) {
    return get_segmentation_overlay_included(section) ? 9 : 4;
}

int MPEG::SCTE27::get_display_in_PTS(const byte_sequence& section) {
    const int first = body_offset(section) + display_in_PTS_offset;
    std::uint32_t value = 0;
    for (int i = 0; i < 4; ++i)
        value = value << 8 | section[first + i];
    return static_cast<int>(value);
}

void MPEG::SCTE27::set_display_in_PTS(byte_sequence& section, int value) {
    const int first = body_offset(section) + display_in_PTS_offset;
    for (int i = 0; i < 4; ++i)
        section[first + i] = static_cast<unsigned char>(value >> (24 - 8 * i));
}
