#include "capture/UdpReceiver.h"
#include "capture/worker_process.h"
#include "foundation/Logger.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <thread>

using namespace kestrel::capture;
using namespace capture_test;

namespace {

// What a ring holds once it has that many packets, or after five seconds.
Packets collect(PacketRing& ring, WakeEvent& wake, std::size_t count) {
    Packets packets;
    const auto deadline = Clock::now() + std::chrono::seconds(5);
    while (packets.size() < count && Clock::now() < deadline) {
        pollfd wait{wake.fd(), POLLIN, 0};
        ::poll(&wait, 1, 100);
        wake.clear();
        for (auto part = ring.readable(); !part.empty(); part = ring.readable()) {
            packets.insert(packets.end(), part.begin(), part.end());
            ring.consume(part.size());
        }
    }
    return packets;
}

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

TEST(UdpReceiver, ASecondReceiverOfAUnicastPortIsRefused) {
    StreamSource source;
    source.address = 0x7F000001;
    source.port = freePort();
    PacketRing ring(16);
    WakeEvent wake;
    UdpReceiver first(source, ring, wake);
    ASSERT_FALSE(first.open());
    UdpReceiver second(source, ring, wake);
    EXPECT_TRUE(second.open());
}

TEST(UdpReceiver, WhatTheRingHasNoRoomForIsCounted) {
    StreamSource source;
    source.address = 0x7F000001;
    source.port = freePort();
    PacketRing ring(64);
    WakeEvent wake;
    UdpReceiver receiver(source, ring, wake);
    ASSERT_FALSE(receiver.open());
    ASSERT_FALSE(receiver.start());
    Sender("127.0.0.1", source.port).send(Packets(700, Packet{0x47}));
    receiver.stop();
    EXPECT_EQ(receiver.counts().packets, 64u);
    EXPECT_EQ(receiver.counts().overflow, 700u - 64u);
    EXPECT_EQ(receiver.counts().kernelDrops, 0u);
}

TEST(UdpReceiver, TheFirstPacketThatFindsRoomAgainComesBehindALoss) {
    StreamSource source;
    source.address = 0x7F000001;
    source.port = freePort();
    PacketRing ring(64);
    WakeEvent wake;
    UdpReceiver receiver(source, ring, wake);
    ASSERT_FALSE(receiver.open());
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

TEST(UdpReceiver, PacketsWithoutSyncAndStrayBytesAreLeftOut) {
    StreamSource source;
    source.address = 0x7F000001;
    source.port = freePort();
    PacketRing ring(64);
    WakeEvent wake;
    UdpReceiver receiver(source, ring, wake);
    ASSERT_FALSE(receiver.open());
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

// Runs a command of the network's own tool in the network namespace of this thread.
bool network(const std::string& command) {
    return std::system(("ip " + command + " 2>/dev/null").c_str()) == 0;
}

bool makeDevice() {
    return (network("link add camera0 type dummy") ||
            network("link add camera0 type veth peer name camera1 && ip link set camera1 up")) &&
           network("addr add 10.9.0.1/24 dev camera0") && network("link set camera0 up") &&
           network("route add 239.0.0.0/8 dev camera0");
}

// A receiver of 239.1.1.1 in this thread's network namespace.
struct GroupReceiver {
    GroupReceiver() : receiver(source(), ring, wake) {}
    static StreamSource source() {
        StreamSource group;
        group.address = 0xEF010101;
        group.port = 5000;
        return group;
    }
    void start() {
        const auto failed = receiver.open();
        ASSERT_FALSE(failed) << failed->text;
        ASSERT_FALSE(receiver.start());
    }
    void waitForMore(int milliseconds) {
        pollfd wait{wake.fd(), POLLIN, 0};
        ::poll(&wait, 1, milliseconds);
        wake.clear();
    }

    PacketRing ring{4096};
    WakeEvent wake;
    UdpReceiver receiver;
};

// As when the network is started anew. In a network namespace of its own, so that it is seen by nobody else.
TEST(UdpReceiver, AGroupIsReceivedAgainWhenItsNetworkDeviceIsMadeAnew) {
    std::thread([] {
        if (::unshare(CLONE_NEWNET) != 0)
            GTEST_SKIP() << "no network namespace to be had: " << std::strerror(errno);
        if (!makeDevice())
            GTEST_SKIP() << "no network device to be had";
        // A file, which may be read while the receiver's thread writes.
        const TemporaryDirectory directory;
        std::ofstream lines(directory.path("log"));
        lines << std::unitbuf;
        LogUtil::GetInstance()->addStreamLogger(&lines);
        const auto logged = [&directory](const std::string& part) {
            return readText(directory.path("log")).find(part) != std::string::npos;
        };
        GroupReceiver group;
        ASSERT_NO_FATAL_FAILURE(group.start());
        const Packets sent(7, Packet{0x47});
        Sender("239.1.1.1", 5000, "10.9.0.1").send(sent);
        ASSERT_EQ(collect(group.ring, group.wake, sent.size()).size(), sent.size());

        ASSERT_TRUE(network("link delete camera0"));
        // As long as there is none, joining again fails, which must not be the end of it.
        const auto deadline = Clock::now() + std::chrono::seconds(15);
        while (!logged("Cannot join group 239.1.1.1 again: ") && Clock::now() < deadline) {
            group.waitForMore(20);
        }
        EXPECT_TRUE(logged("Cannot join group 239.1.1.1 again: "));
        ASSERT_TRUE(makeDevice());
        Packets again;
        while (again.empty() && Clock::now() < deadline) {
            Sender("239.1.1.1", 5000, "10.9.0.1").send(sent);
            group.waitForMore(100);
            const auto part = group.ring.readable();
            again.assign(part.begin(), part.end());
        }
        group.receiver.stop();
        EXPECT_FALSE(again.empty());
        EXPECT_TRUE(logged("Nothing has come of group 239.1.1.1 for 2 s: it is joined again every 3 s"));
        LogUtil::Cleanup();
    }).join();
}

void sendOn(const std::string& address, const Packet& packet) {
    const kestrel::UniqueFd fd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    in_addr device{};
    ASSERT_EQ(::inet_pton(AF_INET, address.c_str(), &device), 1);
    ASSERT_EQ(::setsockopt(fd.get(), IPPROTO_IP, IP_MULTICAST_IF, &device, sizeof device), 0);
    sockaddr_in group{};
    group.sin_family = AF_INET;
    group.sin_port = htons(5000);
    group.sin_addr.s_addr = htonl(0xEF010101);
    ASSERT_EQ(::sendto(fd.get(), packet.data(), packet.size(), 0, reinterpret_cast<const sockaddr*>(&group),
                       sizeof group),
              static_cast<ssize_t>(packet.size()));
}

// As where two networks lead to the encoders: while one is away the other is used, and when it returns each
// datagram comes on both.
TEST(UdpReceiver, AGroupThatIsJoinedOnAnotherDeviceIsLeftOnTheOneBefore) {
    std::thread([] {
        if (::unshare(CLONE_NEWNET) != 0)
            GTEST_SKIP() << "no network namespace to be had: " << std::strerror(errno);
        for (const std::string one : {"0", "1"})
            if (!((network("link add camera" + one + " type dummy") ||
                   network("link add camera" + one + " type veth peer name far" + one +
                           " && ip link set far" + one + " up")) &&
                  network("addr add 10.9." + one + ".1/24 dev camera" + one) &&
                  network("link set camera" + one + " up") &&
                  network("route add 239.0.0.0/8 dev camera" + one + " metric 1" + one)))
                GTEST_SKIP() << "no network devices to be had";
        GroupReceiver group;
        ASSERT_NO_FATAL_FAILURE(group.start());
        const Packet first = packetOf(0x100);
        const Packet second = packetOf(0x101);
        sendOn("10.9.0.1", first);
        ASSERT_EQ(collect(group.ring, group.wake, 1), Packets{first});

        ASSERT_TRUE(network("route delete 239.0.0.0/8 dev camera0"));
        Packets got;
        const auto deadline = Clock::now() + std::chrono::seconds(15);
        while (got.empty() && Clock::now() < deadline) {
            sendOn("10.9.1.1", second);
            group.waitForMore(100);
            const auto part = group.ring.readable();
            got.assign(part.begin(), part.end());
            group.ring.consume(part.size());
        }
        ASSERT_FALSE(got.empty()) << "it is joined where the route leads now";

        ASSERT_TRUE(network("route add 239.0.0.0/8 dev camera0 metric 10"));
        for (int i = 0; i < 10; ++i) {
            sendOn("10.9.0.1", first);
            sendOn("10.9.1.1", second);
        }
        group.receiver.stop();
        const auto part = group.ring.readable();
        got.insert(got.end(), part.begin(), part.end());
        EXPECT_EQ(std::count(got.begin(), got.end(), first), 0) << "each would be there twice";
        EXPECT_GE(std::count(got.begin(), got.end(), second), 10);
    }).join();
}

// A process that did not run for a while finds all of it at once.
TEST(UdpReceiver, PacketsAreToldWithTheTimeAtWhichTheyArrivedHoweverLateTheyAreTaken) {
    StreamSource source;
    source.address = 0x7F000001;
    source.port = freePort();
    PacketRing ring(64);
    WakeEvent wake;
    UdpReceiver receiver(source, ring, wake);
    ASSERT_FALSE(receiver.open());
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
