// Adaptation fields (ISO/IEC 13818-1, 2.4.3.4), null packets and system headers.
#include "mpeg/mpeg2.h"

#include <algorithm>
#include <array>
#include <gtest/gtest.h>
#include <vector>

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

TEST(SystemHeader, IsMadeFieldByField) {
    std::vector<unsigned char> header(24, 0xEE);
    MPEG::SystemHeader::blank(header.data(), 24);
    const std::vector<unsigned char> blank{0, 0, 1, 0xBB, 0, 6, 0x80, 0, 1, 0, 0x20, 0x7F};
    EXPECT_TRUE(std::equal(blank.begin(), blank.end(), header.begin()));
    EXPECT_EQ(header[23], 0);
    MPEG::SystemHeader::set_rate_bound(header.data(), 0x3FFFFF);
    EXPECT_EQ(header[6], 0xFF);
    EXPECT_EQ(header[7], 0xFF);
    EXPECT_EQ(header[8], 0xFF);
    header[9] = 3;
    MPEG::SystemHeader::set_audio_bound(header.data(), 5);
    EXPECT_EQ(header[9], 5 << 2 | 3);
    header[10] = 0xC0;
    MPEG::SystemHeader::set_video_bound(header.data(), 1);
    EXPECT_EQ(header[10], 0xE1);
    MPEG::SystemHeader::set_buffer_thingus_count(header.data(), 2);
    EXPECT_EQ(header[5], 12);
    MPEG::SystemHeader::set_buffer_thingus(header.data(), 1, 0xE0, true, 0x1234);
    EXPECT_EQ(header[15], 0xE0);
    EXPECT_EQ(header[16], 0xE0 | 0x12);
    EXPECT_EQ(header[17], 0x34);
    MPEG::SystemHeader::set_buffer_thingus(header.data(), 0, 0xC0, false, 0x20);
    EXPECT_EQ(header[13], 0xC0);
    MPEG::SystemHeader::set_header_length(header.data(), 0x102);
    EXPECT_EQ(header[4], 1);
    EXPECT_EQ(header[5], 2);
}

} // namespace
