#include "capture/DatagramParser.h"

#include <gtest/gtest.h>
#include <random>
#include <vector>

using namespace kestrel::capture;

namespace {

std::vector<unsigned char> packets(std::size_t count) {
    std::vector<unsigned char> bytes(count * 188, 0xAA);
    for (std::size_t i = 0; i < count; ++i)
        bytes[i * 188] = 0x47;
    return bytes;
}

std::vector<unsigned char> rtp(std::vector<unsigned char> header, std::size_t count) {
    const auto payload = packets(count);
    header.insert(header.end(), payload.begin(), payload.end());
    return header;
}

TEST(DatagramParser, PlainTransportPackets) {
    const Datagram datagram = parseDatagram(packets(7));
    EXPECT_EQ(datagram.packets.size(), 7u * 188);
    EXPECT_FALSE(datagram.rtp);
    EXPECT_EQ(datagram.strayBytes, 0u);
}

TEST(DatagramParser, RtpWithSourcesExtensionAndPadding) {
    std::vector<unsigned char> header{0xB2, 33, 0x12, 0x34, 0, 0, 0, 0, 1, 2, 3, 4};
    header.resize(header.size() + 8, 0x47);                                  // two contributing sources
    header.insert(header.end(), {0xBE, 0xDE, 0, 1, 0x47, 0x47, 0x47, 0x47}); // one word of extension
    auto bytes = rtp(header, 3);
    bytes.insert(bytes.end(), {0, 0, 3});
    const Datagram datagram = parseDatagram(bytes);
    EXPECT_TRUE(datagram.rtp);
    EXPECT_EQ(datagram.sequence, 0x1234);
    EXPECT_EQ(datagram.source, 0x01020304u);
    EXPECT_EQ(datagram.packets.size(), 3u * 188);
    EXPECT_EQ(datagram.strayBytes, 0u);
}

TEST(DatagramParser, ADatagramCutAtAnyLengthGivesWholePacketsOnly) {
    const auto bytes = rtp({0x90, 33, 0, 1, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 1, 1, 1, 1, 1}, 2);
    for (std::size_t length = 0; length <= bytes.size(); ++length) {
        const std::vector<unsigned char> cut(bytes.begin(),
                                             bytes.begin() + static_cast<std::ptrdiff_t>(length));
        const Datagram datagram = parseDatagram(cut);
        EXPECT_EQ(datagram.packets.size(), length < 20 ? 0 : (length - 20) / 188 * 188) << length;
    }
}

TEST(DatagramParser, SurvivesAnything) {
    std::mt19937 random(3);
    for (int round = 0; round < 20000; ++round) {
        std::vector<unsigned char> bytes(random() % 600);
        for (auto& byte : bytes)
            byte = static_cast<unsigned char>(random());
        if (!bytes.empty() && round % 2)
            bytes[0] = static_cast<unsigned char>(0x80 | random() % 64);
        const Datagram datagram = parseDatagram(bytes);
        EXPECT_EQ(datagram.packets.size() % 188, 0u);
        EXPECT_LE(datagram.packets.size() + datagram.strayBytes, bytes.size());
    }
}

TEST(RtpSequence, CountsGapsAndKnowsTheWrapLatecomersAndNewSources) {
    RtpSequence sequence;
    EXPECT_EQ(sequence.next(65534, 1).lost, 0u);
    EXPECT_EQ(sequence.next(65535, 1).lost, 0u);
    EXPECT_EQ(sequence.next(0, 1).lost, 0u);
    EXPECT_EQ(sequence.next(4, 1).lost, 3u);
    EXPECT_TRUE(sequence.next(2, 1).late);
    EXPECT_EQ(sequence.next(5, 1).lost, 0u);
    EXPECT_EQ(sequence.next(900, 2).lost, 0u);
    EXPECT_EQ(sequence.next(901, 2).lost, 0u);
}

} // namespace
