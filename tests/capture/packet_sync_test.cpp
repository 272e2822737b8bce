// Where packets are found in a file, and in what is none.
#include "capture/PacketSync.h"
#include "capture/normalize_streams.h"

#include <gtest/gtest.h>

using namespace capture_test;
using namespace kestrel::capture;

namespace {

Bytes someStream(int frames = 20) {
    return joined(StreamBuilder().frames(frames));
}

// Packets of another size, as a recorder of such streams writes them.
Bytes padded(const Packets& packets, std::size_t before, std::size_t behind) {
    Bytes bytes;
    for (const Packet& packet : packets) {
        bytes.insert(bytes.end(), before, 0x11);
        bytes.insert(bytes.end(), packet.begin(), packet.end());
        bytes.insert(bytes.end(), behind, 0x22);
    }
    return bytes;
}

TEST(SourceShape, IsThatOfPacketsWithFiveSyncBytesInARow) {
    EXPECT_EQ(shapeOf(someStream(), false), SourceShape::transport);
    EXPECT_EQ(shapeOf(someStream(), true), SourceShape::transport);
}

TEST(SourceShape, OfAShortFileNeedsAsManyAsItHasPackets) {
    const Bytes all = someStream();
    for (std::size_t packets = 1; packets <= 6; ++packets) {
        const std::span<const unsigned char> part(all.data(), packets * 188);
        EXPECT_EQ(shapeOf(part, true), SourceShape::transport) << packets;
    }
    EXPECT_EQ(shapeOf(std::span(all).first(187), true), SourceShape::other);
    EXPECT_EQ(shapeOf({}, true), SourceShape::other);
}

TEST(SourceShape, ForgivesBytesBeforeTheFirstPacket) {
    Bytes bytes(1000, 0x11);
    const Bytes stream = someStream();
    bytes.insert(bytes.end(), stream.begin(), stream.end());
    EXPECT_EQ(shapeOf(bytes, false), SourceShape::transport);
}

TEST(SourceShape, TellsPacketsOf192And204Bytes) {
    const Packets packets = StreamBuilder().frames(20);
    EXPECT_EQ(shapeOf(padded(packets, 4, 0), true), SourceShape::packets192);
    EXPECT_EQ(shapeOf(padded(packets, 0, 16), true), SourceShape::packets204);
}

TEST(SourceShape, WaitsForAMegabyteBeforeItIsNoStream) {
    EXPECT_EQ(shapeOf(Bytes(1000, 0), false), SourceShape::unknown);
    EXPECT_EQ(shapeOf(Bytes(shapeSearchBytes, 0), false), SourceShape::other);
    EXPECT_EQ(shapeOf(Bytes(1000, 0), true), SourceShape::other);
}

TEST(NextPacket, IsTakenWhenASyncByteFollowsIt) {
    const Bytes bytes = someStream(2);
    const SyncStep step = nextPacket(bytes, 0, true, false);
    EXPECT_EQ(step.what, SyncStep::What::packet);
    EXPECT_EQ(step.next, 188U);
}

TEST(NextPacket, IsNotJudgedBeforeTheByteBehindItIsThere) {
    const Bytes bytes = someStream(2);
    const std::span<const unsigned char> one(bytes.data(), 188);
    EXPECT_EQ(nextPacket(one, 0, true, false).what, SyncStep::What::more);
    EXPECT_EQ(nextPacket(one, 0, true, true).what, SyncStep::What::packet);
    EXPECT_EQ(nextPacket(one.first(187), 0, true, false).what, SyncStep::What::more);
}

TEST(NextPacket, LeavesOutALastOneThatIsCut) {
    const Bytes bytes = someStream(2);
    const SyncStep step = nextPacket(std::span(bytes).first(188 + 100), 188, true, true);
    EXPECT_EQ(step.what, SyncStep::What::gap);
    EXPECT_EQ(step.next, 288U);
}

TEST(NextPacket, OfACutOneIsWherePacketsBeginInsideIt) {
    Bytes bytes = someStream();
    bytes.erase(bytes.begin() + 288, bytes.begin() + 376); // the second packet's end
    const SyncStep step = nextPacket(bytes, 188, true, false);
    EXPECT_EQ(step.what, SyncStep::What::gap);
    EXPECT_EQ(step.next, 288U);
}

TEST(NextPacket, IsFoundAgainBehindForeignBytes) {
    Bytes bytes = someStream();
    const Bytes foreign(77, 0x47); // that look like sync bytes
    bytes.insert(bytes.begin() + 188, foreign.begin(), foreign.end());
    std::size_t at = 0;
    bool inSync = true;
    std::size_t packets = 0;
    std::size_t dropped = 0;
    while (at < bytes.size()) {
        const SyncStep step = nextPacket(bytes, at, inSync, true);
        ASSERT_NE(step.what, SyncStep::What::more);
        ASSERT_GT(step.next, at);
        inSync = step.what == SyncStep::What::packet;
        (inSync ? packets : dropped) += inSync ? 1 : step.next - at;
        at = step.next;
    }
    EXPECT_EQ(packets, someStream().size() / 188);
    EXPECT_EQ(dropped, 77U);
}

// Whatever the bytes are, each step goes forward or asks for more, and at the end none asks.
TEST(NextPacket, AlwaysComesToTheEnd) {
    unsigned seed = 1;
    for (int round = 0; round < 300; ++round) {
        Bytes bytes(3000);
        for (unsigned char& byte : bytes) {
            seed = seed * 1664525 + 1013904223;
            byte = (seed >> 28) < 6 ? 0x47 : static_cast<unsigned char>(seed >> 16);
        }
        std::size_t at = 0;
        bool inSync = false;
        while (at < bytes.size()) {
            const SyncStep step = nextPacket(bytes, at, inSync, true);
            ASSERT_NE(step.what, SyncStep::What::more) << at;
            ASSERT_GT(step.next, at);
            ASSERT_LE(step.next, bytes.size());
            inSync = step.what == SyncStep::What::packet;
            at = step.next;
        }
    }
}

} // namespace
