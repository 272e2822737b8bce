// What the kernel has no room for: a receiver that is not served while a burst comes.
#include "capture/UdpReceiver.h"
#include "capture/captured_log.h"
#include "capture/worker_process.h"

#include <csignal>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <thread>

using namespace kestrel::capture;
using namespace capture_test;
using testing::ContainsRegex;
using testing::HasSubstr;

namespace {

long largestBuffer() {
    long bytes = 0;
    std::ifstream("/proc/sys/net/core/rmem_max") >> bytes;
    return bytes;
}

// Runs something in a thread that may not go beyond net.core.rmem_max, as a service without privileges.
template <typename What>
void withoutNetworkRights(What what) {
    std::thread([&] {
        ::prctl(PR_CAPBSET_DROP, CAP_NET_ADMIN, 0, 0, 0); // of programs started from here
        __user_cap_header_struct head{_LINUX_CAPABILITY_VERSION_3, 0};
        __user_cap_data_struct sets[2]{};
        ::syscall(SYS_capget, &head, sets);
        sets[0].effective &= ~(1u << CAP_NET_ADMIN);
        ::syscall(SYS_capset, &head, sets);
        what();
    }).join();
}

// Null packets, seven to a datagram, as fast as they go.
void burst(int port, unsigned datagrams) {
    std::vector<unsigned char> bytes(7 * packetSize, 0xFF);
    for (std::size_t i = 0; i < 7; ++i) {
        const unsigned char head[] = {0x47, 0x1F, 0xFF, 0x10};
        std::copy(std::begin(head), std::end(head),
                  bytes.begin() + static_cast<std::ptrdiff_t>(i * packetSize));
    }
    Sender sender("127.0.0.1", port);
    for (; datagrams > 0; --datagrams)
        sender.sendRaw(bytes);
}

// More of these than the socket has room for: twice its bytes, each counted with the kernel's own record.
unsigned tooMany(int bufferBytes) {
    return static_cast<unsigned>(2 * static_cast<std::size_t>(bufferBytes) / (7 * packetSize)) + 1000;
}

// A receiver that starts behind more than its socket had room for.
class KernelDrops : public testing::Test {
protected:
    void SetUp() override {
        source.address = 0x7F000001;
        source.port = freePort();
        receiver.emplace(source, ring, wake);
        withoutNetworkRights([&] { ASSERT_FALSE(receiver->open()); });
        sent = tooMany(receiver->bufferBytes());
        burst(source.port, sent);
        ASSERT_FALSE(receiver->start());
    }

    StreamSource source;
    PacketRing ring{1 << 19};
    WakeEvent wake;
    std::optional<UdpReceiver> receiver;
    unsigned sent = 0;
};

TEST_F(KernelDrops, AreCountedAlsoBehindTheLastDatagramThatFoundRoom) {
    receiver->stop();
    EXPECT_GT(receiver->counts().kernelDrops, 0u);
    EXPECT_EQ(receiver->counts().datagrams + receiver->counts().kernelDrops, sent);
}

TEST_F(KernelDrops, OnceCountedTheyAreNotCountedAgain) {
    const Packets more = StreamBuilder().frames(20);
    const auto deadline = Clock::now() + std::chrono::seconds(10);
    while (receiver->counts().kernelDrops == 0 && Clock::now() < deadline)
        std::this_thread::yield();
    Sender("127.0.0.1", source.port).send(more);
    receiver->stop();
    EXPECT_EQ(receiver->counts().datagrams + receiver->counts().kernelDrops, sent + (more.size() + 6) / 7);
}

// Those that waited in the socket came before.
TEST_F(KernelDrops, LieBeforeTheFirstDatagramThatFoundRoomAgain) {
    const auto deadline = Clock::now() + std::chrono::seconds(10);
    while (receiver->counts().datagrams + receiver->counts().kernelDrops < sent && Clock::now() < deadline)
        std::this_thread::yield();
    Sender("127.0.0.1", source.port).send(StreamBuilder().frames(20));
    receiver->stop();
    const std::uint64_t before = (sent - receiver->counts().kernelDrops) * 7;
    std::vector<std::uint64_t> behindLoss;
    std::uint64_t taken = 0;
    for (auto part = ring.portion(portionPackets); !part.packets.empty();
         part = ring.portion(portionPackets)) {
        if (part.afterLoss)
            behindLoss.push_back(taken);
        taken += part.packets.size();
        ring.consume(part.packets.size());
    }
    EXPECT_EQ(behindLoss, std::vector<std::uint64_t>{before});
}

TEST(DropsOfAWorker, StandInTheResultsOfTheWorkerAndInItsLog) {
    Worker worker;
    const int port = worker.addEncoder();
    withoutNetworkRights([&] { worker.start(); });
    worker.waitForLog("receive buffer");
    Sender("127.0.0.1", port).send(StreamBuilder().frames(60));
    worker.waitForLog("recording into");
    worker.signal(SIGSTOP);
    // A stopped process takes nothing, and asked to end it still takes what its socket holds.
    burst(port, tooMany(static_cast<int>(std::min<long>(2 * largestBuffer(), 2 * socketBufferBytes))));
    worker.queues.send(CANCEL_MSG);
    worker.signal(SIGCONT);
    EXPECT_EQ(worker.wait(), 0) << worker.log();
    EXPECT_THAT(worker.results(), ContainsRegex(", [1-9][0-9]* datagrams lost in the receive buffer$"));
    EXPECT_THAT(worker.log(), ContainsRegex("Encoder 1: [1-9][0-9]* datagrams lost in the receive buffer"));
}

TEST(ReceiveBuffer, ASmallerOneThanWantedIsAWarningThatNamesTheLimit) {
    if (largestBuffer() >= socketBufferBytes)
        GTEST_SKIP() << "net.core.rmem_max is large enough here";
    StreamSource source;
    source.address = 0x7F000001;
    source.port = freePort();
    PacketRing ring(16);
    WakeEvent wake;
    UdpReceiver receiver(source, ring, wake);
    const CapturedLog log;
    withoutNetworkRights([&] { ASSERT_FALSE(receiver.open()); });
    EXPECT_EQ(receiver.bufferBytes(), largestBuffer());
    EXPECT_THAT(log.text(), HasSubstr("Warning"));
    EXPECT_THAT(log.text(),
                HasSubstr("has " + std::to_string(largestBuffer()) + " of the 33554432 bytes wanted"));
    EXPECT_THAT(log.text(), HasSubstr("raise net.core.rmem_max"));
}

} // namespace
