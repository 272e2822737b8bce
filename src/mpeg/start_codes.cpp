#include "mpeg/mpeg2.h"

#include <cstdint>

namespace {

constexpr int start_code_prefix = 0x000001;

constexpr int shifted(int window, unsigned char byte) {
    return static_cast<int>((static_cast<unsigned int>(window) << 8 | byte) & 0xFFFFFF);
}

} // namespace

int MPEG::find_es_start_code(const byte_sequence& s, unsigned int pos) {
    if (std::int64_t{pos} + 3 > s.get_length())
        return -1;
    const int first = static_cast<int>(pos);
    const int window = s[first] << 16 | s[first + 1] << 8 | s[first + 2];
    const int found = find_es_start_code(s, pos + 3, window);
    return found < 0 ? -1 : found + 3;
}

int MPEG::find_es_start_code(const byte_sequence& s, unsigned int pos, int window) {
    const std::int64_t length = s.get_length();
    std::int64_t at = pos;
    while (window != start_code_prefix) {
        // The start code value would follow the byte taken here, so the last byte need not be looked at.
        if (at + 1 >= length)
            return -1;
        window = shifted(window, s[static_cast<int>(at)]);
        ++at;
    }
    return static_cast<int>(at - pos);
}

int MPEG::find_es_start_code(const unsigned char* buf, int pos, int count, int window) {
    if (count == 0)
        return -1;
    if (window == start_code_prefix)
        return 0;
    for (int taken = 0; taken < count - 1; ++taken) {
        window = shifted(window, buf[pos + taken]);
        if (window == start_code_prefix)
            return taken + 1;
    }
    return -1;
}

int MPEG::find_es_start_code(const unsigned char* buf, int pos, int len) {
    // Not pos + 2 >= pos + len: the search is meant to fail from the middle of the buffer on.
    if (std::int64_t{pos} + 2 >= len)
        return -1;
    const int window = buf[pos] << 16 | buf[pos + 1] << 8 | buf[pos + 2];
    const int found = find_es_start_code(buf, pos + 3, len - 3, window);
    return found < 0 ? -1 : found + 3;
}
