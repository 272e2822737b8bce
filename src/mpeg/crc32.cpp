#include "mpeg/CaptureEngUtils.h"

namespace {

constexpr std::array<std::uint32_t, 256> make_table() {
    constexpr std::uint32_t polynomial = 0x04C11DB7;
    std::array<std::uint32_t, 256> table{};
    for (std::uint32_t i = 0; i < table.size(); ++i) {
        std::uint32_t value = i << 24;
        for (int bit = 0; bit < 8; ++bit)
            value = (value & 0x80000000U) != 0 ? value << 1 ^ polynomial : value << 1;
        table[i] = value;
    }
    return table;
}

} // namespace

constexpr std::array<std::uint32_t, 256> crc_table = make_table();
static_assert(crc_table[1] == 0x04C11DB7);

std::uint32_t crc32(const char* data, int length) {
    std::uint32_t crc = 0xFFFFFFFF;
    for (int i = 0; i < length; ++i)
        crc = crc << 8 ^ crc_table[crc >> 24 ^ static_cast<unsigned char>(data[i])];
    return crc;
}
