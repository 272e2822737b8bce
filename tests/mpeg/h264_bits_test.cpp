// The bit reader and writer of H.264.
#include "mpeg/h264.h"

#include "ts_maker.h"

#include <gtest/gtest.h>
#include <limits>
#include <random>

namespace {

array_byte_sequence view(Bytes& bytes) {
    return {bytes.data(), static_cast<int>(bytes.size())};
}

TEST(BitReader, ReadsTheMostSignificantBitFirst) {
    Bytes bytes{0b10110000, 0b00000001};
    const auto s = view(bytes);
    VBDecode bits(s, 0);
    EXPECT_EQ(bits.bit(0), 1);
    EXPECT_EQ(bits.bit(1), 0);
    EXPECT_EQ(bits.bit(15), 1);
    EXPECT_EQ(bits.position(), 0) << "an absolute read does not move";
    EXPECT_EQ(bits.bit(), 1);
    EXPECT_EQ(bits.bit(), 0);
    EXPECT_EQ(bits.bit(), 1);
    EXPECT_EQ(bits.position(), 3);
    EXPECT_EQ(VBDecode(s, 15).bit(), 1) << "from a start bit";
}

TEST(BitReader, TakesAPartOfAByteByItsLastBit) {
    EXPECT_EQ(VBDecode::subByte(0b10110010, 7, 8), 0b10110010);
    EXPECT_EQ(VBDecode::subByte(0b10110010, 3, 4), 0b1011);
    EXPECT_EQ(VBDecode::subByte(0b10110010, 6, 2), 0b01);
    EXPECT_EQ(VBDecode::subByte(0b10110010, 11, 4), 0b1011) << "modulo 8";
    EXPECT_EQ(VBDecode::subByte(0xFF, 7, 0), 0);
}

TEST(BitReader, FieldsOfEveryWidthAtEveryPositionAreTheSumOfTheirBits) {
    Bytes bytes;
    std::mt19937 random(1);
    for (int i = 0; i < 16; ++i)
        bytes.push_back(static_cast<unsigned char>(random()));
    const auto s = view(bytes);
    for (int pos = 0; pos < 20; ++pos)
        for (int count = 0; count <= 64; ++count) {
            std::uint64_t expected = 0;
            for (int i = 0; i < count; ++i)
                expected = expected << 1 |
                           static_cast<std::uint64_t>(
                               bytes[static_cast<std::size_t>((pos + i) / 8)] >> (7 - (pos + i) % 8) & 1);
            VBDecode bits(s, pos);
            EXPECT_EQ(bits.long_(pos, count), static_cast<std::int64_t>(expected)) << pos << " " << count;
            EXPECT_EQ(bits.ulong(count), static_cast<std::int64_t>(expected));
            EXPECT_EQ(bits.position(), pos + count);
            EXPECT_EQ(bits.integer(pos, count), static_cast<int>(static_cast<std::uint32_t>(expected)));
            VBDecode again(s, pos);
            EXPECT_EQ(again.uint(count), static_cast<int>(static_cast<std::uint32_t>(expected)));
        }
}

TEST(BitReader, UnsignedExpGolomb) {
    struct Row {
        const char* bits;
        int value;
    };
    for (const Row& row : {Row{"1", 0}, Row{"010", 1}, Row{"011", 2}, Row{"00100", 3}, Row{"00111", 6},
                           Row{"0001000", 7}, Row{"000000001000000000", 255}}) {
        BitString string;
        for (const char* c = row.bits; *c != '\0'; ++c)
            string.u(1, *c == '1');
        Bytes bytes = string.bytes();
        const auto s = view(bytes);
        VBDecode bits(s, 0);
        EXPECT_EQ(bits.uExpGolomb(), row.value) << row.bits;
    }
    for (std::uint64_t value = 0; value < 3000; ++value) {
        Bytes bytes = BitString().ue(value).bytes();
        const auto s = view(bytes);
        EXPECT_EQ(VBDecode(s, 0).uExpGolomb(), static_cast<int>(value));
    }
}

TEST(BitReader, BitsPastTheEndAreZeroAndReadingEnds) {
    Bytes bytes{0xFF};
    const auto s = view(bytes);
    VBDecode bits(s, 4);
    EXPECT_EQ(bits.uint(8), 0xF0);
    EXPECT_EQ(bits.position(), 8) << "stays at the end";
    EXPECT_EQ(bits.ulong(64), 0);
    EXPECT_EQ(bits.bit(1'000'000), 0);
    EXPECT_EQ(bits.bit(-1), 0);
    Bytes none;
    const auto empty = view(none);
    VBDecode nothing(empty, 0);
    EXPECT_EQ(nothing.bit(), 0);
    EXPECT_EQ(nothing.long_(0, 64), 0);
    nothing.uExpGolomb();
    SUCCEED() << "zeros for ever end";
}

TEST(BitReader, ANegativePositionIsTheFirstBitForAFieldAndNoneForABit) {
    Bytes bytes{0xA5, 0x3C};
    const auto s = view(bytes);
    VBDecode bits(s, -5);
    EXPECT_EQ(bits.position(), 0);
    EXPECT_EQ(bits.long_(-3, 8), 0xA5) << "eight bits from bit 0 on";
    EXPECT_EQ(bits.integer(-1'000, 12), 0xA53);
    EXPECT_EQ(bits.long_(std::numeric_limits<int>::min(), 16), 0xA53C);
    for (const int pos : {-1, -8, -9, std::numeric_limits<int>::min()})
        EXPECT_EQ(bits.bit(pos), 0) << pos;
    EXPECT_EQ(bits.uint(8), 0xA5) << "and goes on from there";
    EXPECT_EQ(bits.position(), 8);
}

TEST(BitReader, AnExpGolombCodeWithThirtyTwoZerosIsReadToItsEnd) {
    // One more zero than the standard has use for: 2^32 - 1 + 2, truncated, and what follows is in step.
    Bytes bytes = BitString().u(32, 0).u(1, 1).u(32, 2).u(8, 0xA5).bytes();
    const auto s = view(bytes);
    VBDecode bits(s, 0);
    EXPECT_EQ(bits.uExpGolomb(), 1);
    EXPECT_EQ(bits.uint(8), 0xA5);
}

TEST(BitReader, AnExpGolombCodeOfZerosEnds) {
    Bytes bytes(100, 0);
    const auto s = view(bytes);
    VBDecode bits(s, 0);
    bits.uExpGolomb();
    EXPECT_EQ(bits.position(), 33 + 32) << "32 zeros, the bit behind them, 32 bits of suffix";
}

TEST(BitWriter, WritesAFieldAndNothingElse) {
    for (const unsigned background : {0x00U, 0xFFU, 0xA5U})
        for (int pos = 0; pos < 16; ++pos)
            for (int count = 0; count <= 32; ++count) {
                Bytes bytes(8, static_cast<unsigned char>(background));
                auto s = view(bytes);
                VBDecodePlus bits(s, 3);
                const int value = 0x5A5A5A5A;
                bits.set_uint(pos, count, value);
                EXPECT_EQ(bits.position(), 3);
                const auto field = static_cast<std::uint32_t>(value) &
                                   (count == 32 ? ~0U : (1U << static_cast<unsigned>(count)) - 1);
                EXPECT_EQ(static_cast<std::uint32_t>(bits.long_(pos, count)), field) << pos << " " << count;
                const Bytes original(8, static_cast<unsigned char>(background));
                Bytes copy = original;
                const auto before = view(copy);
                const VBDecode old(before, 0);
                for (int i = 0; i < 64; ++i) {
                    if (i < pos || i >= pos + count) {
                        EXPECT_EQ(bits.bit(i), old.bit(i)) << i;
                    }
                }
            }
}

TEST(BitWriter, WritesNothingOutsideTheView) {
    Bytes bytes{0, 0, 0};
    array_byte_sequence s(bytes.data() + 1, 1);
    VBDecodePlus bits(s, 0);
    bits.set_uint(-4, 32, -1);
    EXPECT_EQ(bytes, (Bytes{0, 0xFF, 0}));
    bytes[1] = 0;
    bits.set_uint(6, 32, -1);
    EXPECT_EQ(bytes, (Bytes{0, 0x03, 0}));
    bits.set_uint(-4, 16, 0x5A3C);
    EXPECT_EQ(bytes, (Bytes{0, 0xA3, 0})) << "counted from -4: four bits before the view, four behind it";
    bits.set_uint(-8, 8, 0xFF);
    EXPECT_EQ(bytes, (Bytes{0, 0xA3, 0}));
}

} // namespace
