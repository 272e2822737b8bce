#include "mpeg/mpeg2.h"

#include "mpeg/CaptureEngUtils.h"

#include <algorithm>
#include <string_view>

namespace ts = kestrel::ts;

namespace {

constexpr int entry_head = 5;      // stream_type, elementary_PID, ES_info_length
constexpr int longest_entry = 188; // of an entry whose descriptors are looked at

enum descriptor_tag : unsigned char {
    registration = 0x05,
    iso_639_language = 0x0A,
    ac3_audio = 0x81,
};

int thirteen_bits(const unsigned char* p) {
    return (p[0] & 0x1F) << 8 | p[1];
}

int twelve_bits(const unsigned char* p) {
    return (p[0] & 0x0F) << 8 | p[1];
}

// Whether the entry has a descriptor with the tag for which matches(descriptor, tag byte included) is true. A
// descriptor is walked as soon as its tag lies in the entry, and seen as far as it does.
template <typename Matches>
bool has_descriptor(const unsigned char* entry, unsigned char tag, Matches matches) {
    const int type = MPEG::PMT::PIDInfo::stream_type(entry);
    if (type != 0x06 && type < 0x80)
        return false;
    const int end = MPEG::PMT::PIDInfo::ES_info_length(entry) + entry_head;
    if (end <= entry_head || end > longest_entry)
        return false;
    for (int at = entry_head; at < end;) {
        const int left = end - at;
        const int size = left < 2 ? left : std::min(2 + entry[at + 1], left);
        if (entry[at] == tag && matches(ts::bytes(entry + at, static_cast<std::size_t>(size))))
            return true;
        at += size;
    }
    return false;
}

} // namespace

int MPEG::PAT::PID_of_first_PMT(const unsigned char* packet) {
    constexpr std::size_t first_entry = 8;
    constexpr int not_entries = 9; // bytes counted by section_length that are no entries
    const ts::bytes section = ts::section(packet);
    if (section.empty())
        return 0;
    const int count = (twelve_bits(&section[1]) - not_entries) / 4;
    for (int i = 0; i < count; ++i) {
        const ts::bytes entry = section.subspan(first_entry + 4U * static_cast<unsigned int>(i), 4);
        const int program_number = entry[0] << 8 | entry[1];
        if (program_number != 0)
            return thirteen_bits(&entry[2]);
    }
    return 0;
}

bool MPEG::PMT::PIDInfo::is_AC3(const unsigned char* entry) {
    return has_descriptor(entry, registration, [](ts::bytes descriptor) {
        constexpr std::string_view identifier = "AC-3";
        return descriptor.size() >= 2 + identifier.size() &&
               std::equal(identifier.begin(), identifier.end(), descriptor.begin() + 2);
    });
}

bool MPEG::PMT::PIDInfo::is_AC3_51(const unsigned char* entry) {
    return has_descriptor(entry, ac3_audio, [](ts::bytes descriptor) {
        constexpr int five_full_channels = 7; // num_channels 3/2
        return descriptor.size() >= 5 && ((descriptor[4] >> 1) & 0x0F) == five_full_channels;
    });
}

bool MPEG::PMT::PIDInfo::is_SCTE27(const unsigned char* entry) {
    return stream_type(entry) == 0x82 &&
           has_descriptor(entry, iso_639_language, [](ts::bytes) { return true; });
}

bool MPEG::PMT::PIDInfo::is_PES(const unsigned char* entry) {
    switch (stream_type(entry)) {
    case 0x01: // MPEG-1 video
    case 0x02: // MPEG-2 video
    case 0x03: // MPEG-1 audio
    case 0x04: // MPEG-2 audio
    case 0x06: // private data in PES packets
    case 0x0F: // AAC, ADTS
    case 0x11: // AAC, LATM
    case 0x1B: // H.264
        return true;
    default:
        return is_AC3(entry);
    }
}

void MPEG::PMT::recalc_CRC(unsigned char* section) {
    constexpr int crc_size = 4;
    const int length = twelve_bits(section + 1);
    if (length < crc_size)
        return;
    const int at = 3 + length - crc_size;
    const std::uint32_t crc = crc32(reinterpret_cast<const char*>(section), at);
    for (int i = 0; i < crc_size; ++i)
        section[at + i] = static_cast<unsigned char>(crc >> (24 - 8 * i));
}

PMT_PIDInfo_iterable::PMT_PIDInfo_iterable(const unsigned char* packet)
    : m_packet(packet), m_first(ts::packet_size), m_end(ts::packet_size) {
    constexpr int fixed_head = 12; // up to and including program_info_length
    const ts::bytes section = ts::section(packet);
    if (section.size() < fixed_head)
        return;
    const int start = static_cast<int>(section.data() - packet);
    m_end = start + twelve_bits(&section[1]) - 1;
    m_first = start + fixed_head + twelve_bits(&section[10]);
}

PMT_PIDInfo_iterable::iterator::iterator(const PMT_PIDInfo_iterable* iterable, int offset)
    : m_iterable(iterable), m_offset(offset) {
    const int end = iterable->m_end;
    const bool whole =
        offset + entry_head <= end && offset + entry_head + MPEG::PMT::PIDInfo::ES_info_length(**this) <= end;
    if (!whole)
        m_offset = std::max(offset, end);
}

const unsigned char* PMT_PIDInfo_iterable::iterator::operator*() const {
    return m_iterable->m_packet + m_offset;
}

PMT_PIDInfo_iterable::iterator& PMT_PIDInfo_iterable::iterator::operator++() {
    if (m_offset < m_iterable->m_end)
        *this = iterator(m_iterable, m_offset + entry_head + MPEG::PMT::PIDInfo::ES_info_length(**this));
    return *this;
}

PMT_PIDInfo_iterable::iterator PMT_PIDInfo_iterable::iterator::operator++(int) {
    const iterator before = *this;
    ++*this;
    return before;
}

bool PMT_PIDInfo_iterable::iterator::operator==(const iterator& other) const {
    if (m_iterable != other.m_iterable)
        return false;
    if (m_offset == other.m_offset)
        return true;
    return m_iterable != nullptr && m_offset >= m_iterable->m_end && other.m_offset >= m_iterable->m_end;
}
