// One recorder for each encoder that is told by its address.
#include "capture/UdpReceiver.h"
#include "capture/worker_process.h"
#include "foundation/ErrorCodes.h"
#include "foundation/ProcessTree.h"

#include <algorithm>
#include <csignal>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

using namespace kestrel::capture;
using namespace capture_test;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

StreamSource fromEncoder(int port) {
    StreamSource source;
    source.port = port;
    source.sender = 0x7F000002;
    return source;
}

TEST(StreamClaim, ASecondReceiverOfTheSameEncoderIsRefusedAndTheFirstKeepsTheStream) {
    const StreamSource source = fromEncoder(freePort());
    PacketRing ring(4096);
    PacketRing otherRing(16);
    WakeEvent wake;
    UdpReceiver first(source, ring, wake);
    ASSERT_FALSE(first.open());
    ASSERT_FALSE(first.start());
    UdpReceiver second(source, otherRing, wake);
    const MaybeFailure failed = second.open();
    ASSERT_TRUE(failed);
    EXPECT_EQ(failed->code, kestrel::error::startCaptureFailed);
    EXPECT_EQ(failed->text, "Error: Start Capture failed. (UDP port " + std::to_string(source.port) +
                                " from 127.0.0.2 is already recorded by process " + std::to_string(getpid()) +
                                ")");

    const Packets sent = StreamBuilder().frames(30);
    Sender("127.0.0.1", source.port, "127.0.0.2").send(sent);
    first.stop();
    EXPECT_EQ(first.counts().packets, sent.size());
}

TEST(StreamClaim, ItEndsWithTheReceiver) {
    const StreamSource source = fromEncoder(freePort());
    PacketRing ring(16);
    WakeEvent wake;
    UdpReceiver first(source, ring, wake);
    ASSERT_FALSE(first.open());
    ASSERT_FALSE(first.start());
    UdpReceiver second(source, ring, wake);
    EXPECT_TRUE(second.open());
    first.stop();
    UdpReceiver third(source, ring, wake);
    EXPECT_FALSE(third.open());
}

TEST(StreamClaim, AnotherPortOfTheEncoderIsAnotherStream) {
    StreamClaim one;
    StreamClaim other;
    EXPECT_FALSE(one.take(0x0A010203, 5000));
    EXPECT_FALSE(other.take(0x0A010203, 5001));
    StreamClaim again;
    EXPECT_TRUE(again.take(0x0A010203, 5000));
    one.release();
    EXPECT_FALSE(again.take(0x0A010203, 5000));
}

TEST(StreamClaim, AnotherProcessIsNamedAndItsClaimDiesWithIt) {
    const int port = freePort();
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    const pid_t child = ::fork();
    if (child == 0) {
        StreamClaim claim;
        const bool taken = !claim.take(0x7F000002, port);
        [[maybe_unused]] const auto told = ::write(ready[1], taken ? "y" : "n", 1);
        for (;;)
            ::pause();
    }
    char answer = 0;
    EXPECT_EQ(::read(ready[0], &answer, 1), 1);
    EXPECT_EQ(answer, 'y');
    StreamClaim claim;
    // Asked more often than a listen backlog is long: the holder is still named, or at least refused for.
    for (int i = 0; i < 20; ++i) {
        const MaybeFailure failed = claim.take(0x7F000002, port);
        ASSERT_TRUE(failed);
        EXPECT_THAT(failed->text, HasSubstr("is already recorded by process " + std::to_string(child) + ")"));
    }
    kestrel::test::signalTo(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    EXPECT_FALSE(claim.take(0x7F000002, port));
    ::close(ready[0]);
    ::close(ready[1]);
}

// Two jobs for one encoder: the address lies in the loopback network and belongs to this test alone.
TEST(StreamClaim, ASecondWorkerForTheSameEncoderFailsAndDisturbsNobody) {
    const auto own = static_cast<std::uint32_t>(getpid());
    const std::uint32_t encoder = 0x7F640000 | (own & 0xFFFF);
    const auto text = "127.100." + std::to_string(encoder >> 8 & 255) + "." + std::to_string(encoder & 255);
    Worker first;
    Worker second;
    for (Worker* worker : {&first, &second}) {
        worker->settings.numEncoders = 1;
        worker->settings.encoders[0].snmpIpAddress = encoder;
    }
    first.start();
    first.waitForLog("receive buffer");
    second.start();
    EXPECT_EQ(second.wait(), 1);
    EXPECT_EQ(second.results(), "Error: Start Capture failed. (UDP port 5000 from " + text +
                                    " is already recorded by process " + std::to_string(first.process()) +
                                    ")");
    // It waited for a while, of which the service was told.
    const auto& told = second.queues.received();
    EXPECT_GE(std::count_if(told.begin(), told.end(),
                            [](const Message& message) { return message.type == STATUS_MSG; }),
              2);
    const Packets sent = StreamBuilder().frames(60);
    Sender("127.0.0.1", 5000, text).send(sent);
    first.waitForLog("recording into");
    first.queues.send(CANCEL_MSG);
    EXPECT_EQ(first.wait(), 0) << first.log();
    EXPECT_EQ(readPackets(first.path("out/news.ts")).size(), sent.size());
}

} // namespace
