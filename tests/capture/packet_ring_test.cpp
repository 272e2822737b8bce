#include "capture/PacketRing.h"

#include <cstring>
#include <fstream>
#include <gtest/gtest.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace kestrel::capture;

namespace {

TEST(PacketRing, TakesWhatHasRoomAndNoMore) {
    PacketRing ring(5);
    EXPECT_EQ(ring.capacity(), 8u);
    const std::vector<unsigned char> bytes(10 * packetSize, 0x47);
    EXPECT_EQ(ring.push(bytes), 8u);
    EXPECT_EQ(ring.push(bytes), 0u);
    ring.consume(3);
    EXPECT_EQ(ring.push(bytes), 3u);
    EXPECT_EQ(ring.readable().size(), 5u) << "up to the end of the memory";
    ring.consume(5);
    EXPECT_EQ(ring.readable().size(), 3u);
}

TEST(PacketRing, GivesInOnePortionWhatArrivedTogether) {
    PacketRing ring(8);
    const std::vector<unsigned char> bytes(2 * packetSize, 0x47);
    const Clock::time_point early{std::chrono::seconds(1)};
    const Clock::time_point together = early + gatherTime - std::chrono::microseconds(1);
    const Clock::time_point late = early + gatherTime;
    for (const Clock::time_point at : {early, together, late})
        EXPECT_EQ(ring.push(bytes, at), 2u);
    EXPECT_EQ(ring.portion(1).packets.size(), 1u);
    EXPECT_EQ(ring.portion(1).last, early);
    EXPECT_EQ(ring.portion(100).packets.size(), 4u);
    EXPECT_EQ(ring.portion(100).first, early);
    EXPECT_EQ(ring.portion(100).last, together);
    ring.consume(4);
    EXPECT_EQ(ring.portion(100).packets.size(), 2u);
    EXPECT_EQ(ring.portion(100).first, late);
    EXPECT_EQ(ring.portion(100).last, late);
    ring.consume(2);
    EXPECT_TRUE(ring.portion(100).packets.empty());
}

TEST(PacketRing, BeginsAPortionBehindALoss) {
    PacketRing ring(4);
    const std::vector<unsigned char> bytes(2 * packetSize, 0x47);
    EXPECT_EQ(ring.push(bytes), 2u);
    EXPECT_EQ(ring.push(bytes, {}, true), 2u);
    EXPECT_EQ(ring.portion(100).packets.size(), 2u);
    EXPECT_FALSE(ring.portion(100).afterLoss);
    ring.consume(2);
    EXPECT_EQ(ring.portion(100).packets.size(), 2u) << "it is before the first only";
    EXPECT_TRUE(ring.portion(100).afterLoss);
    EXPECT_TRUE(ring.portion(1).afterLoss);
    ring.consume(1);
    EXPECT_FALSE(ring.portion(100).afterLoss);
    EXPECT_EQ(ring.push(bytes), 2u) << "where the one behind the loss lay";
    ring.consume(1);
    EXPECT_EQ(ring.portion(100).packets.size(), 2u);
    EXPECT_FALSE(ring.portion(100).afterLoss);
}

TEST(PacketRing, TakesMemoryOnlyForWhatLiesInIt) {
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the sanitizer has memory of its own for each byte";
#endif
    const auto resident = [] {
        std::size_t all = 0;
        std::size_t pages = 0;
        std::ifstream("/proc/self/statm") >> all >> pages;
        return pages * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    };
    const std::size_t before = resident();
    PacketRing ring(ringPackets);
    EXPECT_LT(resident(), before + (1u << 20));
    const std::vector<unsigned char> bytes(ringPackets / 4 * packetSize, 0x47);
    const std::size_t empty = resident();
    EXPECT_EQ(ring.push(bytes), ringPackets / 4);
    EXPECT_GT(resident(), empty + bytes.size() / 2);
}

TEST(PacketRing, KeepsOrderBetweenTwoThreads) {
    PacketRing ring(64);
    constexpr std::uint32_t total = 200000;
    std::thread producer([&ring] {
        std::vector<unsigned char> bytes(7 * packetSize);
        for (std::uint32_t next = 0; next < total;) {
            std::uint32_t count = 0;
            for (; count < 7 && next + count < total; ++count) {
                const std::uint32_t value = next + count;
                std::memcpy(bytes.data() + count * packetSize, &value, sizeof value);
            }
            const auto taken = ring.push({bytes.data(), count * packetSize});
            next += static_cast<std::uint32_t>(taken);
            if (taken == 0)
                std::this_thread::yield();
        }
    });
    std::uint32_t expected = 0;
    bool inOrder = true;
    while (expected < total) {
        const auto packets = ring.readable();
        for (const Packet& packet : packets) {
            std::uint32_t value = 0;
            std::memcpy(&value, packet.data(), sizeof value);
            inOrder = inOrder && value == expected++;
        }
        ring.consume(packets.size());
        if (packets.empty())
            std::this_thread::yield();
    }
    producer.join();
    EXPECT_TRUE(inOrder);
}

} // namespace
