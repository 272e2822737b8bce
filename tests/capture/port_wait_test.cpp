// Two recordings of one encoder, one right behind the other.
#include "capture/EncoderChannel.h"
#include "capture/StreamClaim.h"
#include "capture/stalled_disk.h"
#include "capture/worker_process.h"
#include "foundation/Eventually.h"

#include <csignal>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <thread>

using namespace kestrel::capture;
using namespace capture_test;
using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

// An address of the loopback network that belongs to this test alone.
struct Encoder {
    std::uint32_t address = 0x7F400000 | (static_cast<std::uint32_t>(getpid()) & 0x3FFFFF);
    std::string text = "127." + std::to_string(address >> 16 & 255) + "." +
                       std::to_string(address >> 8 & 255) + "." + std::to_string(address & 255);
};

void addEncoder(Worker& worker, std::uint32_t encoder) {
    worker.settings.encoders[static_cast<std::size_t>(worker.settings.numEncoders++)].snmpIpAddress = encoder;
}

void setUp(Worker& worker, std::uint32_t encoder, const char* duration) {
    worker.settings.cmd.jobType = CSettings::JOB_TIMED;
    std::snprintf(worker.settings.cmd.duration, sizeof worker.settings.cmd.duration, "%s", duration);
    addEncoder(worker, encoder);
}

constexpr const char* waits = "Encoder 1: waits up to 6 s for its port: ";

TEST(PortWait, ARecordingThatBeginsBeforeTheOneBeforeItHasEndedGetsTheStream) {
    const Encoder encoder;
    Worker first;
    Worker second;
    setUp(first, encoder.address, "00:00:02:00");
    setUp(second, encoder.address, "00:00:01:00");
    first.start();
    first.waitForLog("receive buffer");
    std::atomic<bool> enough{false};
    std::thread sending([&] {
        StreamBuilder builder;
        Sender sender("127.0.0.1", 5000, encoder.text);
        for (int i = 0; i < 100 && !enough; ++i) {
            const Packets packets = builder.frames(25);
            sender.send(packets, static_cast<double>(packets.size()) * 188 * 8);
        }
    });
    first.waitForLog("recording into");
    second.start();
    second.waitForLog(waits);
    EXPECT_EQ(first.wait(), 0) << first.log();
    EXPECT_EQ(second.wait(), 0) << second.log();
    enough = true;
    sending.join();
    EXPECT_THAT(first.results(), StartsWith("Recorded 00:00:02:00 (50 frames"));
    EXPECT_THAT(second.results(), StartsWith("Recorded 00:00:01:00 (25 frames"));
    EXPECT_THAT(second.results(), HasSubstr(", 0 continuity errors"));
}

// Meanwhile the service hears of it, and is heard.
TEST(PortWait, AJobThatWaitsForItsPortCanBeCancelled) {
    const Encoder encoder;
    Worker first;
    setUp(first, encoder.address, "00:00:02:00");
    first.start();
    first.waitForLog("receive buffer");
    for (const bool bySignal : {false, true}) {
        Worker second;
        setUp(second, encoder.address, "00:00:02:00");
        second.start();
        second.waitForLog(waits);
        if (bySignal)
            second.signal(SIGTERM);
        else
            second.queues.send(CANCEL_MSG);
        EXPECT_EQ(second.wait(5s), 0) << second.log();
        EXPECT_EQ(second.results(), "Cancelled before the recording began: nothing recorded");
        EXPECT_THAT(second.log(), HasSubstr(bySignal ? "Cancelled by a signal" : "Cancelled by the service"));
    }
}

// What came for it would lie in its socket, and run over.
TEST(PortWait, NobodyListensToTheOtherEncoderMeanwhile) {
    const Encoder encoder;
    const std::uint32_t other = encoder.address ^ 0x00800000;
    StreamClaim held;
    ASSERT_FALSE(held.take(encoder.address, 5000));
    Worker worker;
    setUp(worker, other, "00:00:02:00");
    addEncoder(worker, encoder.address);
    worker.start();
    worker.waitForLog("Encoder 2: waits up to 6 s for its port: ");
    StreamClaim probe;
    EXPECT_FALSE(probe.take(other, 5000));
    probe.release();
    held.release();
    worker.waitForLog("Encoder 2: receive buffer");
    // Opened the first time before the second one's port was found taken.
    EXPECT_TRUE(kestrel::test::eventually([&worker] {
        const std::string log = worker.log();
        const std::string opened = "Encoder 1: receive buffer";
        return log.find(opened) != log.rfind(opened);
    }));
    EXPECT_TRUE(probe.take(other, 5000)) << "now the worker has it";
    worker.queues.send(CANCEL_MSG);
    EXPECT_EQ(worker.wait(), 0) << worker.log();
}

TEST(PortWait, TheAnswerToAJobThatWaitedInVainNamesWhoHasThePort) {
    const Encoder encoder;
    StreamClaim held;
    ASSERT_FALSE(held.take(encoder.address, 5000));
    Worker worker;
    setUp(worker, encoder.address, "00:00:02:00");
    worker.start();
    EXPECT_EQ(worker.wait(20s), 1) << worker.log();
    EXPECT_THAT(worker.results(), HasSubstr("is already recorded by process " + std::to_string(getpid())));
}

// It could never have both, so it does not wait for the first either.
TEST(PortWait, AJobThatNamesOneStreamTwiceIsRefusedAtOnce) {
    const Encoder encoder;
    StreamClaim held;
    ASSERT_FALSE(held.take(encoder.address, 5000));
    Worker worker;
    setUp(worker, encoder.address, "00:00:02:00");
    addEncoder(worker, encoder.address);
    worker.start();
    EXPECT_EQ(worker.wait(20s), 1) << worker.log();
    EXPECT_EQ(worker.results(), "Error: Start Capture failed. (Encoder 1 at " + encoder.text +
                                    " and Encoder 2 at " + encoder.text +
                                    " of this job cannot both receive on UDP port 5000)");
    EXPECT_THAT(worker.log(), Not(HasSubstr("waits up to")));
}

TEST(PortWait, AJobWhoseReceptionsExcludeEachOtherIsRefusedAtOnce) {
    const Encoder encoder;
    constexpr std::uint32_t any = 0;
    constexpr std::uint32_t loopback = 0x7F000001;
    constexpr std::uint32_t group = 0xEFFF4D01;
    const auto told = [&](std::uint32_t first, std::uint32_t second) {
        Worker worker;
        const int port = freePort();
        for (const std::uint32_t address : {first, second}) {
            auto& reception =
                worker.settings.encoders[static_cast<std::size_t>(worker.settings.numEncoders++)];
            reception.ipAddress = address;
            reception.port = port;
        }
        worker.start();
        EXPECT_EQ(worker.wait(20s), 1) << worker.log();
        EXPECT_THAT(worker.log(), Not(HasSubstr("waits up to")));
        const std::string text = worker.results();
        EXPECT_THAT(text, HasSubstr("of this job cannot both receive on UDP port " + std::to_string(port)));
        return text;
    };
    EXPECT_THAT(told(any, loopback), HasSubstr("(Encoder 1 at 0.0.0.0 and Encoder 2 at 127.0.0.1 of"));
    EXPECT_THAT(told(loopback, any), HasSubstr("(Encoder 1 at 127.0.0.1 and Encoder 2 at 0.0.0.0 of"));
    EXPECT_THAT(told(loopback, loopback), HasSubstr("(Encoder 1 at 127.0.0.1 and Encoder 2 at 127.0.0.1 of"));
    // Not of this host, so that any address of it is received on.
    constexpr std::uint32_t foreign = 0xC0000201;
    EXPECT_THAT(told(foreign, foreign + 1),
                HasSubstr("(Encoder 1 at 192.0.2.1 and Encoder 2 at 192.0.2.2 of"));
    EXPECT_THAT(told(loopback, foreign), HasSubstr("(Encoder 1 at 127.0.0.1 and Encoder 2 at 192.0.2.1 of"));
    EXPECT_THAT(told(group, any), HasSubstr("(Encoder 1 at 239.255.77.1 and Encoder 2 at 0.0.0.0 of"));
}

// One group twice, and two addresses of this host.
TEST(PortWait, AJobWhoseReceptionsDoNotExcludeEachOtherReceivesBoth) {
    for (const auto& [first, second] :
         {std::pair{0xEFFF4D01u, 0xEFFF4D01u}, {0x7F000001u, 0x7F000002u}, {0xEFFF4D01u, 0x7F000001u}}) {
        Worker worker;
        const int port = freePort();
        worker.settings.numEncoders = 2;
        std::ofstream map(worker.path("map.xml"));
        map << "<Encoders>";
        int line = 0;
        for (const std::uint32_t address : {first, second}) {
            auto& reception = worker.settings.encoders[static_cast<std::size_t>(line++)];
            reception.snmpIpAddress = 0x0A010200 | static_cast<std::uint32_t>(line);
            reception.ipAddress = address;
            reception.port = port;
            map << "<Encoder CONTROL_ADDRESS=\"10.1.2." << line << "\" PORT=\"1\" INTERFACE=\"127.0.0.1\"/>";
        }
        map << "</Encoders>";
        map.close();
        worker.extraOptions = {"-encoders", worker.path("map.xml")};
        worker.start();
        worker.waitForLog("Encoder 2: receive buffer");
        const bool unicast = second == 0x7F000001u || second == 0x7F000002u;
        const std::string ignored =
            "Encoder 2: INTERFACE 127.0.0.1 of the encoder map is ignored: its stream "
            "comes to no multicast group";
        EXPECT_EQ(worker.log().find(ignored) != std::string::npos, unicast);
        worker.queues.send(CANCEL_MSG);
        EXPECT_EQ(worker.wait(), 1);
    }
}

// The one that was waited for at first may have gone, and another recorder be there.
TEST(PortWait, TheAnswerNamesThePortThatIsTakenAtTheEnd) {
    const Encoder encoder;
    const std::uint32_t other = encoder.address ^ 0x00800000;
    StreamClaim first;
    StreamClaim second;
    ASSERT_FALSE(first.take(other, 5000));
    ASSERT_FALSE(second.take(encoder.address, 5000));
    Worker worker;
    setUp(worker, other, "00:00:02:00");
    addEncoder(worker, encoder.address);
    worker.start();
    worker.waitForLog("Encoder 1: waits up to 6 s for its port: ");
    first.release();
    worker.waitForLog("Encoder 2: waits up to 6 s for its port: ");
    EXPECT_EQ(worker.wait(20s), 1) << worker.log();
    EXPECT_THAT(worker.results(), HasSubstr("from " + encoder.text + " is already recorded by process " +
                                            std::to_string(getpid())));
}

// Where a disk takes its time with the end of a file, the port is not kept as long.
TEST(PortWait, ThePortIsFreeBeforeTheFileOfAnEndedRecordingIsClosed) {
    const TemporaryDirectory directory;
    StalledDisk disk(directory.path("out/news.ts"));
    StreamSource source;
    source.address = 0x7F000001;
    source.port = freePort();
    RecordingPlan plan;
    plan.name = "Encoder 1";
    plan.output = directory.path("out/news.ts");
    plan.overwrite = true;
    plan.mode = CaptureMode::timed;
    plan.duration = "00:00:01:00";
    WakeEvent turned;
    EncoderChannel channel(source, plan, turned);
    ASSERT_FALSE(channel.open());
    ASSERT_FALSE(channel.start());
    StreamBuilder builder({.packetsPerFrame = 60});
    const Packets before = builder.frames(24);
    Sender sender("127.0.0.1", source.port);
    sender.send(before);
    ASSERT_TRUE(disk.takeUpTo(before.size() * 188));
    sender.send(builder.frames(2));

    PacketRing ring(16);
    WakeEvent wake;
    UdpReceiver next(source, ring, wake);
    const auto deadline = Clock::now() + 10s;
    MaybeFailure failed = next.open();
    for (; failed && Clock::now() < deadline; failed = next.open())
        std::this_thread::sleep_for(10ms);
    EXPECT_FALSE(failed) << failed->text;
    EXPECT_NE(channel.status().state, RecordingState::ended) << "its file is not closed yet";
    EXPECT_TRUE(disk.takeAll());
    channel.join();
    EXPECT_EQ(pictures(disk.packets()), 25);
    EXPECT_TRUE(channel.status().succeeded) << channel.status().text;
}

} // namespace
