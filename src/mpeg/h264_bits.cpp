// The bit reader and writer.
#include "mpeg/h264.h"

#include <algorithm>

namespace {

constexpr int BITS_OF_BYTE = 8;
constexpr int LONGEST_FIELD = 64;
constexpr int MOST_LEADING_ZEROS = 32;

} // namespace

VBDecode::VBDecode(const byte_sequence& s, int start_bit) noexcept
    : m_bytes(s), m_position(std::max(start_bit, 0)) {}

// The one place where the view is read: bytes outside it are 0.
int VBDecode::byte_at(std::int64_t index) const {
    return index >= 0 && index < m_bytes.get_length() ? m_bytes[static_cast<int>(index)] : 0;
}

// Stays behind the end once there, however far a field reaches.
void VBDecode::advance(int count) noexcept {
    const std::int64_t end = std::int64_t{m_bytes.get_length()} * BITS_OF_BYTE;
    const std::int64_t limit = std::max<std::int64_t>(m_position, std::min<std::int64_t>(end, INT32_MAX));
    m_position = static_cast<int>(std::min<std::int64_t>(std::int64_t{m_position} + count, limit));
}

int VBDecode::bit(int pos) const {
    return subByte(static_cast<unsigned char>(byte_at(pos >> 3)), pos, 1);
}

int VBDecode::bit() {
    const int value = bit(m_position);
    advance(1);
    return value;
}

int VBDecode::subByte(unsigned char b, int last, int count) noexcept {
    const unsigned shift = 7U - (static_cast<unsigned>(last) & 7U);
    const unsigned mask = (1U << std::clamp(count, 0, BITS_OF_BYTE)) - 1;
    return static_cast<int>(static_cast<unsigned>(b) >> shift & mask);
}

std::int64_t VBDecode::long_(int pos, int count) const {
    const int bits = std::clamp(count, 0, LONGEST_FIELD);
    if (bits == 0)
        return 0;
    std::int64_t at = std::max(pos, 0);
    const std::int64_t end = at + bits;
    std::uint64_t value = 0;
    while (at < end) {
        // What the field has of the byte: its low bits, all of it, or its high bits.
        const std::int64_t next = std::min((at / BITS_OF_BYTE + 1) * BITS_OF_BYTE, end);
        const int taken = static_cast<int>(next - at);
        const int part = subByte(static_cast<unsigned char>(byte_at(at / BITS_OF_BYTE)),
                                 static_cast<int>((next - 1) % BITS_OF_BYTE), taken);
        value = value << taken | static_cast<std::uint64_t>(part);
        at = next;
    }
    return static_cast<std::int64_t>(value);
}

std::int64_t VBDecode::ulong(int count) {
    const std::int64_t value = long_(m_position, count);
    advance(std::clamp(count, 0, LONGEST_FIELD));
    return value;
}

int VBDecode::integer(int pos, int count) const {
    return static_cast<int>(static_cast<std::uint32_t>(long_(pos, count)));
}

int VBDecode::uint(int count) {
    const int value = integer(m_position, count);
    advance(std::clamp(count, 0, LONGEST_FIELD));
    return value;
}

int VBDecode::uExpGolomb() {
    int zeros = 0;
    // The first 1 belongs to the code whatever the number of zeros before it.
    while (bit() == 0 && zeros < MOST_LEADING_ZEROS)
        ++zeros;
    const std::int64_t suffix = ulong(zeros);
    return static_cast<int>(static_cast<std::uint32_t>(suffix + (std::int64_t{1} << zeros) - 1));
}

void VBDecodePlus::set_uint(int pos, int count, int value) {
    const int bits = std::clamp(count, 0, LONGEST_FIELD);
    const auto source = static_cast<std::uint64_t>(static_cast<std::int64_t>(value));
    const std::int64_t end = std::int64_t{m_writable.get_length()} * BITS_OF_BYTE;
    for (int i = 0; i < bits; ++i) {
        const std::int64_t at = std::int64_t{pos} + i;
        if (at < 0 || at >= end)
            continue;
        unsigned char& byte = m_writable[static_cast<int>(at / BITS_OF_BYTE)];
        const auto mask = static_cast<unsigned char>(0x80U >> (at % BITS_OF_BYTE));
        const bool set = (source >> (bits - 1 - i) & 1) != 0;
        byte = static_cast<unsigned char>(set ? byte | mask : byte & ~mask);
    }
}
