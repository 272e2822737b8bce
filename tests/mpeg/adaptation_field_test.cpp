// Adaptation fields (ISO/IEC 13818-1, 2.4.3.4) and null packets.
#include "mpeg/mpeg2.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <gtest/gtest.h>
#include <limits>
#include <memory>
#include <utility>

namespace {

using Packet = std::array<unsigned char, 188>;

Packet payloadPacket() {
    Packet packet;
    packet.fill(0xAA);
    packet[0] = 0x47;
    packet[1] = 0x01;
    packet[2] = 0x00;
    packet[3] = 0x10;
    return packet;
}

std::int64_t base(const Packet& p) {
    return std::int64_t{p[6]} << 25 | std::int64_t{p[7]} << 17 | std::int64_t{p[8]} << 9 |
           std::int64_t{p[9]} << 1 | p[10] >> 7;
}

int extension(const Packet& p) {
    return (p[10] & 1) << 8 | p[11];
}

TEST(Pcr, ATwentySevenMegahertzCountIsSplit) {
    Packet packet{};
    packet[10] = 0x7E;
    MPEG::Adaptation::_set_PCR(packet.data(), 0x1FFFFFFFFL * 300 + 299);
    EXPECT_EQ(base(packet), 0x1FFFFFFFF);
    EXPECT_EQ(extension(packet), 299);
    EXPECT_EQ(packet[10] & 0x7E, 0x7E) << "reserved bits are kept";
    MPEG::Adaptation::_set_PCR(packet.data(), 301);
    EXPECT_EQ(base(packet), 1);
    EXPECT_EQ(extension(packet), 1);
}

TEST(Pcr, AFractionOfATickGoesIntoTheExtensionWithoutACarry) {
    Packet packet{};
    MPEG::Adaptation::set_PCR(packet.data(), 1000.5);
    EXPECT_EQ(base(packet), 1000);
    EXPECT_EQ(extension(packet), 150);
    MPEG::Adaptation::set_PCR(packet.data(), 1000.999);
    EXPECT_EQ(base(packet), 1000);
    EXPECT_EQ(extension(packet), 300) << "rounds to 300 and stays there";
}

TEST(SpliceDts, IsFoundBehindTheOptionalFields) {
    // flags: PCR, OPCR, splicing point, private data (2 bytes), extension with ltw and piecewise rate
    Packet packet{};
    packet[3] = 0x30;
    packet[4] = 60;
    packet[5] = 0x1F;
    const int privateLength = 6 + 6 + 6 + 1;
    packet[privateLength] = 2;
    const int extensionLength = privateLength + 1 + 2;
    packet[extensionLength + 1] = 0xE0;
    const int field = extensionLength + 2 + 2 + 3;
    packet[static_cast<std::size_t>(field)] = 0x70;
    const PTS value = PTS::from_ticks(0x123456789);
    MPEG::Adaptation::set_DTS_next_AU(packet.data(), value);
    EXPECT_EQ(MPEG::Adaptation::get_DTS_next_AU(packet.data()), value);
    EXPECT_EQ(packet[static_cast<std::size_t>(field)] & 0xF0, 0x70) << "splice_type is kept";
    EXPECT_EQ(packet[static_cast<std::size_t>(field)] & 1, 1) << "markers are made";
}

TEST(ExpandAdaptation, LeavesExactlyThePayloadAskedFor) {
    for (int payload = 0; payload <= 182; ++payload) {
        Packet packet = payloadPacket();
        MPEG::expand_adaptation(packet.data(), payload);
        EXPECT_EQ(packet[3] & 0x20, 0x20) << payload;
        EXPECT_EQ(packet[4], 183 - payload) << payload;
        EXPECT_EQ(packet[5], 0) << payload;
        EXPECT_EQ((packet[3] & 0x10) != 0, payload > 0) << payload;
        for (std::size_t i = 6; i < static_cast<std::size_t>(188 - payload); ++i)
            EXPECT_EQ(packet[i], 0xFF) << payload << " at " << i;
        for (std::size_t i = static_cast<std::size_t>(std::max(188 - payload, 6)); i < 188; ++i)
            EXPECT_EQ(packet[i], 0xAA) << "the payload is not moved";
    }
}

TEST(ExpandAdaptation, OneByteOfAdaptationIsItsLengthAlone) {
    Packet packet = payloadPacket();
    MPEG::expand_adaptation(packet.data(), 183);
    EXPECT_EQ(packet[3] & 0x20, 0x20);
    EXPECT_EQ(packet[4], 0);
    EXPECT_EQ(packet[5], 0xAA);
}

TEST(ExpandAdaptation, AFullPayloadHasNoAdaptationField) {
    Packet packet = payloadPacket();
    packet[3] = 0x30;
    packet[4] = 183;
    MPEG::expand_adaptation(packet.data(), 184);
    EXPECT_EQ(packet[3], 0x10);
}

TEST(NullPacket, HasThePidAndZeros) {
    Packet packet;
    packet.fill(0xEE);
    MPEG::craft_NULL_PID(packet.data());
    EXPECT_EQ(packet[0], 0x47);
    EXPECT_EQ(packet[1], 0x1F);
    EXPECT_EQ(packet[2], 0xFF);
    EXPECT_EQ(packet[3], 0x10);
    EXPECT_TRUE(std::all_of(packet.begin() + 4, packet.end(), [](unsigned char b) { return b == 0; }));
}

// --- the clock reference at its ends

TEST(PcrEdges, OnlyItsSixBytesAreWrittenAndNoFlagIsSet) {
    for (const unsigned char old : std::to_array<unsigned char>({0x00, 0xFF})) {
        Packet packet;
        packet.fill(old);
        MPEG::Adaptation::_set_PCR(packet.data(), 0x123456789L * 300 + 257);
        for (std::size_t i = 0; i < packet.size(); ++i)
            if (i < 6 || i > 11) {
                EXPECT_EQ(packet[i], old) << i;
            }
        EXPECT_EQ(base(packet), 0x123456789);
        EXPECT_EQ(extension(packet), 257) << "its ninth bit stands beside the reserved ones";
        EXPECT_EQ(packet[10] & 0x7E, old & 0x7E);
    }
}

TEST(PcrEdges, AFractionIsRoundedToTheNearestOfThreeHundred) {
    const struct {
        double ticks;
        std::int64_t base;
        int extension;
    } rows[] = {
        {0, 0, 0},
        {1000, 1000, 0},
        {1000 + 1.0 / 300, 1000, 1},
        {1000 + 0.49 / 300, 1000, 0},
        {1000 + 0.51 / 300, 1000, 1},
        {1000.125, 1000, 38}, // 37.5: the half goes up
        {1000 + 299.49 / 300, 1000, 299},
        {1000 + 299.51 / 300, 1000, 300},
        {8589934591.0, 0x1FFFFFFFF, 0},
        {8589934591.5, 0x1FFFFFFFF, 150},
        {8589934592.0, 0, 0}, // 33 bits
        {8589934592.0 * 3 + 7, 7, 0},
    };
    for (const auto& row : rows) {
        Packet packet{};
        MPEG::Adaptation::set_PCR(packet.data(), row.ticks);
        EXPECT_EQ(base(packet), row.base) << row.ticks;
        EXPECT_EQ(extension(packet), row.extension) << row.ticks;
    }
}

TEST(PcrEdges, BothFormsAgreeWhereAFractionIsExact) {
    for (const long ticks : {0L, 150L, 300L, 27'000'150L, 0x1FFFFFFFFL * 300 + 150}) {
        Packet a{};
        Packet b{};
        a[10] = b[10] = 0x7E;
        MPEG::Adaptation::_set_PCR(a.data(), ticks);
        MPEG::Adaptation::set_PCR(b.data(), static_cast<double>(ticks) / 300);
        EXPECT_EQ(a, b) << ticks;
    }
}

TEST(PcrEdges, WhatIsNoNumberCountsAsZero) {
    for (const double odd :
         {std::nan(""), std::numeric_limits<double>::infinity(), -std::numeric_limits<double>::infinity()}) {
        Packet packet{};
        MPEG::Adaptation::set_PCR(packet.data(), 77);
        MPEG::Adaptation::set_PCR(packet.data(), odd);
        EXPECT_EQ(base(packet), 0);
        EXPECT_EQ(extension(packet), 0);
    }
}

// --- the splice time behind every set of optional fields

TEST(SpliceDtsEdges, FollowsEveryFlagOfTheFieldAndOfItsExtension) {
    constexpr int PRIVATE = 3; // bytes of private data
    for (int flags = 0; flags < 32; ++flags)
        for (int extended = 0; extended < 4; ++extended) {
            Packet packet{};
            packet[3] = 0x30;
            packet[4] = 100;
            packet[5] = static_cast<unsigned char>(flags);
            std::size_t at = 6 + ((flags & 0x10) != 0 ? 6U : 0U) + ((flags & 0x08) != 0 ? 6U : 0U) +
                             ((flags & 0x04) != 0 ? 1U : 0U);
            if ((flags & 0x02) != 0) {
                packet[at] = PRIVATE;
                at += 1 + PRIVATE;
            }
            // The seamless splice flag is left at 0, and the extension flag is as it comes: neither is asked.
            packet[at + 1] = static_cast<unsigned char>(extended << 6);
            at += 2 + ((extended & 2) != 0 ? 2U : 0U) + ((extended & 1) != 0 ? 3U : 0U);
            packet[at] = 0x50; // splice_type
            Packet expected = packet;
            const std::array<unsigned char, 5> coded{0x50 | 0x0A | 1, 0x6A, 0xF3, 0x7B, 0xDF};
            std::copy(coded.begin(), coded.end(), expected.begin() + static_cast<long>(at));
            const PTS value = PTS::from_ticks(0x15ABCBDEFLL);
            MPEG::Adaptation::set_DTS_next_AU(packet.data(), value);
            EXPECT_EQ(packet, expected) << flags << ' ' << extended;
            EXPECT_EQ(MPEG::Adaptation::get_DTS_next_AU(packet.data()), value) << flags << ' ' << extended;
        }
}

TEST(SpliceDtsEdges, AFieldOfNoLengthCountsAsOneWithoutOptionalFields) {
    Packet packet{};
    packet[3] = 0x30;
    packet[4] = 0;
    packet[5] = 0xFF; // no flags, but payload
    MPEG::Adaptation::set_DTS_next_AU(packet.data(), PTS::from_ticks(1));
    EXPECT_EQ(packet[12], 0x03) << "bytes 8 to 12";
    EXPECT_EQ(packet[8], 0x01);
    EXPECT_EQ(MPEG::Adaptation::get_DTS_next_AU(packet.data()), PTS::from_ticks(1));
}

TEST(SpliceDtsEdges, ValuesAreRoundedLikeThoseOfAPesHeader) {
    Packet packet{};
    packet[4] = 20;
    for (const auto& [written, ticks] : {std::pair(4, 1), {5, 1}, {6, 2}, {7, 2}, {8, 2}}) {
        MPEG::Adaptation::set_DTS_next_AU(packet.data(), written);
        EXPECT_EQ(MPEG::Adaptation::get_DTS_next_AU(packet.data()), PTS::from_ticks(ticks)) << written;
    }
}

TEST(SpliceDtsEdges, APlacePastThePacketIsAbsentAndNotWritten) {
    // Private data that pushes the field towards the end: its last place is that of the last five bytes.
    for (int length = 0; length <= 255; ++length) {
        const auto packet = std::make_unique<unsigned char[]>(188);
        packet[4] = 183;
        packet[5] = 0x02;
        packet[6] = static_cast<unsigned char>(length);
        const int at = 7 + length + 2;
        MPEG::Adaptation::set_DTS_next_AU(packet.get(), PTS::from_ticks(0x1FFFFFFFF));
        const bool fits = at + 5 <= 188;
        EXPECT_EQ(MPEG::Adaptation::get_DTS_next_AU(packet.get()),
                  fits ? PTS::from_ticks(0x1FFFFFFFF) : PTS(-1))
            << length;
        EXPECT_EQ(packet[187], at + 5 == 188 ? 0xFF : 0) << length;
    }
}

// --- growing a field that is there already

Packet adaptedPacket(int field) {
    Packet packet = payloadPacket();
    packet[3] = 0x30;
    packet[4] = static_cast<unsigned char>(field);
    if (field > 0)
        packet[5] = 0x40; // random_access_indicator
    std::fill(packet.begin() + std::max(6, 5), packet.begin() + std::max(6, 5 + field), 0xBB);
    return packet;
}

TEST(ExpandAdaptation, AFieldThatIsThereKeepsItsBytesAndIsStuffedBehindThem) {
    for (const int field : {1, 2, 7, 50, 182})
        for (int payload = 0; payload < 183 - field; ++payload) {
            Packet packet = adaptedPacket(field);
            Packet expected = packet;
            expected[4] = static_cast<unsigned char>(183 - payload);
            if (payload == 0)
                expected[3] = 0x20;
            std::fill(expected.begin() + 5 + field, expected.end() - payload, 0xFF);
            MPEG::expand_adaptation(packet.data(), payload);
            ASSERT_EQ(packet, expected) << field << ' ' << payload;
        }
}

TEST(ExpandAdaptation, AFieldOfNoLengthGetsItsFlags) {
    for (int payload = 0; payload <= 182; ++payload) {
        Packet packet = adaptedPacket(0);
        Packet expected = packet;
        expected[4] = static_cast<unsigned char>(183 - payload);
        expected[5] = 0;
        if (payload == 0)
            expected[3] = 0x20;
        std::fill(expected.begin() + 6, expected.end() - payload, 0xFF);
        MPEG::expand_adaptation(packet.data(), payload);
        ASSERT_EQ(packet, expected) << payload;
    }
}

TEST(ExpandAdaptation, AFieldThatIsLongEnoughStaysAsItIs) {
    for (const int field : {1, 7, 50, 182, 183})
        for (int payload = 183 - field; payload < 183; ++payload) {
            Packet packet = adaptedPacket(field);
            const Packet before = packet;
            MPEG::expand_adaptation(packet.data(), payload);
            ASSERT_EQ(packet, before) << field << ' ' << payload;
        }
}

TEST(ExpandAdaptation, AMaximumOfPayloadShrinksAnyFieldToItsLengthByteOrToNothing) {
    for (const int field : {0, 1, 7, 182, 183}) {
        Packet packet = adaptedPacket(field);
        Packet expected = packet;
        expected[4] = 0;
        MPEG::expand_adaptation(packet.data(), 183);
        EXPECT_EQ(packet, expected) << field;
        for (const int payload : {184, 185, 1000}) {
            packet = adaptedPacket(field);
            expected = packet;
            expected[3] = 0x10;
            MPEG::expand_adaptation(packet.data(), payload);
            EXPECT_EQ(packet, expected) << field << ' ' << payload;
        }
    }
}

TEST(ExpandAdaptation, AFullPayloadWithoutAFieldStaysAsItIs) {
    Packet packet = payloadPacket();
    const Packet before = packet;
    MPEG::expand_adaptation(packet.data(), 184);
    EXPECT_EQ(packet, before);
}

TEST(ExpandAdaptation, LessThanNothingIsNothing) {
    Packet packet = payloadPacket();
    Packet expected = payloadPacket();
    MPEG::expand_adaptation(packet.data(), -5);
    MPEG::expand_adaptation(expected.data(), 0);
    EXPECT_EQ(packet, expected);
    EXPECT_EQ(packet[3] & 0x10, 0) << "no payload";
}

TEST(ExpandAdaptation, TheCounterAndTheScramblingBitsStay) {
    Packet packet = payloadPacket();
    packet[3] = 0xD9;
    MPEG::expand_adaptation(packet.data(), 100);
    EXPECT_EQ(packet[3], 0xF9);
    MPEG::expand_adaptation(packet.data(), 0);
    EXPECT_EQ(packet[3], 0xE9);
}

} // namespace
