#include "capture/PacketRing.h"

#include <cstring>
#include <gtest/gtest.h>
#include <thread>
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
