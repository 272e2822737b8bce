#include "capture/UdpReceiver.h"
#include "capture/received_packets.h"
#include "capture/worker_process.h"

#include <gtest/gtest.h>
#include <thread>

using namespace kestrel::capture;
using namespace capture_test;

namespace {

// One that is open, with room for 64 packets.
class ReceiverOnLoopback : public testing::Test {
protected:
    static StreamSource freePortOfLoopback() {
        StreamSource found;
        found.address = 0x7F000001;
        found.port = freePort();
        return found;
    }
    void SetUp() override { ASSERT_FALSE(receiver.open()); }

    const StreamSource source = freePortOfLoopback();
    PacketRing ring{64};
    WakeEvent wake;
    UdpReceiver receiver{source, ring, wake};
};

TEST(UdpReceiver, EncodersThatShareAPortAreToldApartByTheirAddress) {
    const int port = freePort();
    PacketRing rings[2] = {PacketRing(4096), PacketRing(4096)};
    WakeEvent wakes[2];
    std::unique_ptr<UdpReceiver> receivers[2];
    for (unsigned i = 0; i < 2; ++i) {
        StreamSource source;
        source.port = port;
        source.sender = 0x7F000002 + i; // 127.0.0.2, 127.0.0.3
        receivers[i] = std::make_unique<UdpReceiver>(source, rings[i], wakes[i]);
        const auto failed = receivers[i]->open();
        ASSERT_FALSE(failed) << failed->text;
        ASSERT_FALSE(receivers[i]->start());
    }
    const Packets first = StreamBuilder().frames(30);
    const Packets second = StreamBuilder({.rateCode = 4}).frames(30);
    Sender("127.0.0.1", port, "127.0.0.2").send(first);
    Sender("127.0.0.1", port, "127.0.0.3").send(second);
    Sender("127.0.0.1", port, "127.0.0.4").send(first); // somebody else
    EXPECT_TRUE(collect(rings[0], wakes[0], first.size()) == first);
    EXPECT_TRUE(collect(rings[1], wakes[1], second.size()) == second);
}

TEST_F(ReceiverOnLoopback, ASecondOneOfItsPortIsRefused) {
    UdpReceiver second(source, ring, wake);
    EXPECT_TRUE(second.open());
}

TEST_F(ReceiverOnLoopback, WhatTheRingHasNoRoomForIsCounted) {
    ASSERT_FALSE(receiver.start());
    Sender("127.0.0.1", source.port).send(Packets(700, Packet{0x47}));
    receiver.stop();
    EXPECT_EQ(receiver.counts().packets, 64u);
    EXPECT_EQ(receiver.counts().overflow, 700u - 64u);
    EXPECT_EQ(receiver.counts().kernelDrops, 0u);
}

TEST_F(ReceiverOnLoopback, TheFirstPacketThatFindsRoomAgainComesBehindALoss) {
    ASSERT_FALSE(receiver.start());
    Sender sender("127.0.0.1", source.port);
    sender.send(Packets(70, Packet{0x47}));
    const auto deadline = Clock::now() + std::chrono::seconds(10);
    while (receiver.counts().overflow < 6 && Clock::now() < deadline)
        std::this_thread::yield();
    EXPECT_FALSE(ring.portion(64).afterLoss);
    ring.consume(64);
    sender.send(Packets(7, Packet{0x47}));
    receiver.stop();
    EXPECT_EQ(ring.portion(64).packets.size(), 7u);
    EXPECT_TRUE(ring.portion(64).afterLoss);
}

TEST_F(ReceiverOnLoopback, PacketsWithoutSyncAndStrayBytesAreLeftOut) {
    ASSERT_FALSE(receiver.start());
    Sender sender("127.0.0.1", source.port);
    std::vector<unsigned char> bytes(3 * packetSize + 5, 0);
    bytes[0] = bytes[2 * packetSize] = 0x47;
    sender.sendRaw(bytes);
    sender.sendRaw({1, 2, 3});
    receiver.stop();
    EXPECT_EQ(receiver.counts().packets, 2u);
    EXPECT_EQ(receiver.counts().badPackets, 1u);
    EXPECT_EQ(receiver.counts().badDatagrams, 1u);
    EXPECT_EQ(receiver.counts().cutDatagrams, 1u);
    EXPECT_EQ(receiver.counts().smallestBad, 3u);
    EXPECT_EQ(receiver.counts().largestBad, 3 * packetSize + 5);
}

// What a receiver that is stopped has seen of others, whose datagrams came before that.
std::uint32_t otherSender(std::uint32_t listenedTo, const std::string& address, const std::string& from,
                          const std::string& alsoFrom = "") {
    StreamSource source;
    source.port = freePort();
    source.sender = listenedTo;
    PacketRing ring(64);
    WakeEvent wake;
    UdpReceiver receiver(source, ring, wake);
    EXPECT_FALSE(receiver.open());
    EXPECT_FALSE(receiver.start());
    Sender(address, source.port, from).send(Packets(7, Packet{0x47}));
    if (!alsoFrom.empty())
        Sender(address, source.port, alsoFrom).send(Packets(7, Packet{0x47}));
    receiver.stop();
    EXPECT_EQ(receiver.counts().datagrams, alsoFrom.empty() ? 0u : 1u);
    return receiver.counts().otherSender;
}

TEST(UdpReceiver, TellsWhoSendsWhereTheEncoderDoesNot) {
    constexpr std::uint32_t encoder = 0x7F000002; // 127.0.0.2
    EXPECT_EQ(otherSender(encoder, "127.0.0.1", "127.0.0.5"), 0x7F000005u);
    EXPECT_EQ(otherSender(encoder, "127.0.0.1", "127.0.0.5", "127.0.0.2"), 0u) << "it does";
}

// The kernel takes what comes to the address that it would itself send from.
TEST(UdpReceiver, TellsWhetherTheEncoderSendsToAnotherAddressOfThisHost) {
    EXPECT_EQ(otherSender(0x7F000002, "127.0.0.9", "127.0.0.2"), 0x7F000002u);
}

TEST(UdpReceiver, OthersAreToldThoughAnotherRecorderTakesItsOwn) {
    const int port = freePort();
    PacketRing rings[2] = {PacketRing(64), PacketRing(64)};
    WakeEvent wakes[2];
    std::unique_ptr<UdpReceiver> receivers[2];
    for (unsigned i = 0; i < 2; ++i) {
        StreamSource source;
        source.port = port;
        source.sender = 0x7F000002 + i;
        receivers[i] = std::make_unique<UdpReceiver>(source, rings[i], wakes[i]);
        ASSERT_FALSE(receivers[i]->open());
        ASSERT_FALSE(receivers[i]->start());
    }
    Sender("127.0.0.1", port, "127.0.0.2").send(Packets(7, Packet{0x47}));
    EXPECT_EQ(collect(rings[0], wakes[0], 7).size(), 7u);
    Sender("127.0.0.1", port, "127.0.0.5").send(Packets(7, Packet{0x47}));
    for (auto& receiver : receivers)
        receiver->stop();
    EXPECT_EQ(receivers[0]->counts().otherSender, 0u);
    EXPECT_EQ(receivers[1]->counts().otherSender, 0x7F000005u);
}

// A process that did not run for a while finds all of it at once.
TEST_F(ReceiverOnLoopback, PacketsAreToldWithTheTimeAtWhichTheyArrivedHoweverLateTheyAreTaken) {
    Sender sender("127.0.0.1", source.port);
    constexpr auto pause = std::chrono::milliseconds(300);
    const auto begin = Clock::now();
    sender.send(Packets(7, Packet{0x47}));
    const auto sent = Clock::now();
    std::this_thread::sleep_for(pause);
    sender.send(Packets(14, Packet{0x47}));
    std::this_thread::sleep_for(pause);
    ASSERT_FALSE(receiver.start());
    receiver.stop();
    constexpr auto tolerance = std::chrono::milliseconds(20); // of two clocks
    const PacketRing::Portion first = ring.portion(64);
    EXPECT_EQ(first.packets.size(), 7u);
    EXPECT_GE(first.last, begin - tolerance);
    EXPECT_LE(first.last, sent + tolerance);
    ring.consume(7);
    const PacketRing::Portion second = ring.portion(64);
    EXPECT_EQ(second.packets.size(), 14u);
    EXPECT_GE(second.last - first.last, pause - tolerance);
    EXPECT_LE(second.last, Clock::now() - pause + tolerance);
}

} // namespace
