#include "mpeg/mpeg.h"

#include <algorithm>

rbsp_byte_sequence::rbsp_byte_sequence(const byte_sequence& source, int start)
    : m_buffer(std::make_unique_for_overwrite<unsigned char[]>(
          static_cast<std::size_t>(std::max(source.get_length(), 0)))) {
    constexpr unsigned int start_code_prefix = 0x000001;
    constexpr unsigned int emulation_prevention = 0x000003;

    // The last three source bytes as read: an 03 that was taken out stays in the window. The first value
    // matches nothing until three bytes have been copied.
    unsigned int window = 0x0000FF;
    const int end = source.get_length();
    // A source that ends right behind 00 00 01 keeps it: there is no byte left at which it would be noticed.
    for (int p = std::max(start, 0); p < end; ++p) {
        if (window == start_code_prefix) {
            m_length -= 3;
            m_consumed -= 3;
            break;
        }
        if (window == emulation_prevention)
            --m_length;
        const unsigned char byte = source[p];
        m_buffer[static_cast<std::size_t>(m_length)] = byte;
        ++m_length;
        ++m_consumed;
        window = (window & 0xFFFF) << 8 | byte;
    }
}

bool rbsp_byte_sequence::rbsp_write(byte_sequence* destination, int start) {
    if (m_length == 0)
        return m_consumed == 0;
    if (m_consumed < 1)
        return false;
    const int count = std::min(m_length, m_consumed);
    for (int i = 0; i < count; ++i)
        (*destination)[start + i] = m_buffer[static_cast<std::size_t>(i)];
    return m_consumed == m_length;
}
