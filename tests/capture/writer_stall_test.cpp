// The writer waits for the disk, or the process for the processor, while the stream goes on: that is no
// silence of the stream.
#include "capture/EncoderChannel.h"
#include "capture/captured_log.h"
#include "capture/recording_fixture.h"
#include "capture/stalled_disk.h"
#include "capture/worker_process.h"

#include <csignal>
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

constexpr StreamShape shape{.packetsPerFrame = 40};

// So that packets take as long as their frames at 25 a second.
void sendLive(Sender& sender, const Packets& packets, int frames) {
    sender.send(packets, static_cast<double>(packets.size()) * 188 * 8 * 25 / frames);
}

class WriterStall : public testing::Test {
protected:
    WriterStall() {
        m_source.address = 0x7F000001;
        m_source.port = freePort();
        m_plan.name = "Encoder 1";
        m_plan.output = m_directory.path("out/news.ts");
        m_plan.overwrite = true;
        m_plan.mode = CaptureMode::timed;
        m_plan.duration = "00:00:01:00";
        m_timing.stall = 500ms;
        m_timing.givenUp = 400ms;
    }
    // Records what is sent while the disk takes nothing, and lets it go on then.
    RecordingStatus record(const std::function<void(Sender&)>& send, std::size_t ring = ringPackets) {
        EncoderChannel channel(m_source, m_plan, m_turned, m_timing, ring);
        EXPECT_FALSE(channel.open());
        EXPECT_FALSE(channel.start());
        Sender sender("127.0.0.1", m_source.port);
        send(sender);
        EXPECT_TRUE(m_disk.takeAll());
        channel.join();
        return channel.status();
    }

    TemporaryDirectory m_directory;
    StalledDisk m_disk{m_directory.path("out/news.ts")};
    WakeEvent m_turned;
    StreamSource m_source;
    RecordingPlan m_plan;
    Timing m_timing;
};

TEST_F(WriterStall, LosesNothingOfATimedCaptureThatIsOverMeanwhile) {
    const CapturedLog log;
    const Packets sent = StreamBuilder(shape).frames(60);
    const RecordingStatus status = record([&](Sender& sender) { sendLive(sender, sent, 60); });
    EXPECT_TRUE(status.succeeded);
    EXPECT_THAT(status.text, StartsWith("Recorded 00:00:01:00 (25 frames"));
    EXPECT_THAT(status.text, Not(HasSubstr("stopped")));
    const Packets file = m_disk.packets();
    EXPECT_EQ(pictures(file), 25);
    EXPECT_EQ(positionOf(Packets(file.begin() + 2, file.end()), sent), 2);
    EXPECT_THAT(log.text(), HasSubstr(" s behind the stream: the disk or this host stalls\r\n"));
    EXPECT_THAT(log.text(), Not(HasSubstr("has stopped")));
}

TEST_F(WriterStall, WhenTheRecorderIsNoLongerLateTheLogTells) {
    m_plan.mode = CaptureMode::manual;
    const CapturedLog log;
    EncoderChannel channel(m_source, m_plan, m_turned, m_timing);
    ASSERT_FALSE(channel.open());
    ASSERT_FALSE(channel.start());
    StreamBuilder builder(shape);
    Sender sender("127.0.0.1", m_source.port);
    Packets sent = builder.frames(40);
    sendLive(sender, sent, 40); // longer than lateTime
    ASSERT_TRUE(m_disk.takeUpTo(sent.size() * packetSize));
    sent = builder.frames(10);
    sendLive(sender, sent, 10);
    channel.cancel();
    EXPECT_TRUE(m_disk.takeAll());
    channel.join();
    EXPECT_EQ(log.count("Encoder 1: no longer behind the stream\r\n"), 1) << log.text();
}

TEST_F(WriterStall, DoesNotCutTheLastFrame) {
    m_timing.stall = 1000ms; // longer than what was received waits to be written
    StreamBuilder builder({.packetsPerFrame = 600});
    Packets sent = builder.frames(24);
    const std::size_t before = sent.size();
    for (const Packet& packet : builder.frames(2))
        sent.push_back(packet);
    const auto part = [&](std::size_t from, std::size_t to) {
        return Packets(sent.begin() + static_cast<std::ptrdiff_t>(from),
                       sent.begin() + static_cast<std::ptrdiff_t>(std::min(to, sent.size())));
    };
    const RecordingStatus status = record([&](Sender& sender) {
        // All up to the beginning of the last frame is on the disk; then more comes than a write takes.
        sender.send(part(0, before + 100));
        ASSERT_TRUE(m_disk.takeUpTo((before + 100) * 188));
        sender.send(part(before + 100, before + 460));
        sender.send(part(before + 460, sent.size()));
        std::this_thread::sleep_for(2 * m_timing.stall); // as long as the disk stalls
    });
    EXPECT_TRUE(status.succeeded);
    EXPECT_THAT(status.text, StartsWith("Recorded 00:00:01:00 (25 frames"));
    const Packets file = m_disk.packets();
    EXPECT_EQ(pictures(file), 25);
    const auto video = [](const Packets& packets) {
        return std::count_if(packets.begin(), packets.end(),
                             [](const Packet& packet) { return pid(packet) == videoPid; });
    };
    StreamBuilder again({.packetsPerFrame = 600});
    EXPECT_EQ(video(file), video(again.frames(25)));
}

TEST_F(WriterStall, ASilenceOfTheStreamMeanwhileIsToldAllTheSame) {
    StreamBuilder builder(shape);
    const RecordingStatus status = record([&](Sender& sender) {
        sendLive(sender, builder.frames(10), 10);
        std::this_thread::sleep_for(2 * m_timing.stall);
        sendLive(sender, builder.frames(30), 30);
    });
    EXPECT_TRUE(status.succeeded);
    EXPECT_THAT(status.text, StartsWith("Recorded 00:00:01:00 (25 frames"));
    EXPECT_THAT(status.text, HasSubstr(", stream stopped 1 time"));
}

TEST_F(WriterStall, ASilenceBeforeTheRingOverflowsIsToldAllTheSame) {
    StreamBuilder builder(shape);
    const RecordingStatus status = record(
        [&](Sender& sender) {
            sendLive(sender, builder.frames(10), 10);
            std::this_thread::sleep_for(2 * m_timing.stall);
            sendLive(sender, builder.frames(30), 30);
        },
        512);
    EXPECT_THAT(status.text, HasSubstr(", stream stopped 1 time"));
}

// The disk stalls for that long.
TEST_F(WriterStall, WhatTheRingHadNoRoomForIsNoSilence) {
    m_plan.duration = "00:00:02:00";
    const RecordingStatus status = record(
        [&](Sender& sender) {
            StreamBuilder builder(shape);
            sendLive(sender, builder.frames(40), 40);
            ASSERT_TRUE(m_disk.takeUpTo(400 * packetSize));
            sendLive(sender, builder.frames(20), 20);
        },
        512);
    EXPECT_THAT(status.text, Not(HasSubstr("stopped")));
}

TEST_F(WriterStall, AStreamThatEndsMeanwhileEndsTheRecording) {
    const RecordingStatus status =
        record([&](Sender& sender) { sendLive(sender, StreamBuilder(shape).frames(15), 15); });
    EXPECT_FALSE(status.succeeded);
    EXPECT_THAT(status.text, HasSubstr("(15 frames"));
    EXPECT_THAT(status.text, HasSubstr(", stream stopped 1 time"));
}

// Nobody listens any more from then on, however long the disk takes with what had come.
TEST_F(WriterStall, ACancelMeanwhileIsNoSilenceOfTheStream) {
    EncoderChannel channel(m_source, m_plan, m_turned, m_timing);
    ASSERT_FALSE(channel.open());
    ASSERT_FALSE(channel.start());
    Sender sender("127.0.0.1", m_source.port);
    sendLive(sender, StreamBuilder(shape).frames(15), 15);
    channel.cancel();
    std::this_thread::sleep_for(2 * m_timing.stall); // as long as the disk stalls
    EXPECT_TRUE(m_disk.takeAll());
    channel.join();
    EXPECT_TRUE(channel.status().succeeded);
    EXPECT_THAT(channel.status().text, StartsWith("Cancelled after 00:00:00:15 (15 frames"));
    EXPECT_THAT(channel.status().text, Not(HasSubstr("stopped")));
}

class HeardRecording : public RecordingFixture {};

TEST_F(HeardRecording, WhatCameButWasLostIsNoSilence) {
    for (const bool heard : {false, true}) {
        m_file = m_directory.path(heard ? "heard.ts" : "silent.ts");
        Recording r = recording(plan(CaptureMode::manual));
        StreamBuilder builder;
        r.take(builder.frames(12), m_now);
        m_now += 5s;
        if (heard)
            r.heard(m_now);
        r.tick(m_now);
        r.take(builder.frames(12), m_now);
        EXPECT_EQ(r.status().stops, heard ? 0U : 1U);
        r.cancel(m_now);
    }
}

TEST(StalledWorker, AManualCaptureToADiskThatStallsForSecondsIsWholeAndSaysNothingUntrue) {
    Worker worker;
    worker.extraOptions = {"-overwrite"};
    StalledDisk disk(worker.path("out/news.ts"));
    const int port = worker.addEncoder();
    worker.start();
    worker.waitForLog("receive buffer");
    const Packets sent = StreamBuilder(shape).frames(90);
    Sender sender("127.0.0.1", port);
    sendLive(sender, sent, 90);
    ASSERT_TRUE(disk.takeUpTo(sent.size() * 188));
    worker.queues.send(CANCEL_MSG);
    EXPECT_EQ(worker.wait(), 0) << worker.log();
    EXPECT_TRUE(disk.takeAll());
    EXPECT_EQ(disk.packets().size(), sent.size());
    EXPECT_THAT(worker.results(), StartsWith("Recorded 00:00:03:15 (90 frames"));
    EXPECT_THAT(worker.results(), HasSubstr(", 0 continuity errors"));
    EXPECT_THAT(worker.results(), Not(HasSubstr("stopped")));
}

// The stream lies in the socket's buffer meanwhile.
TEST(StalledWorker, ATimedCaptureWhoseProcessIsStoppedForSecondsIsWholeAndSaysNothingUntrue) {
    Worker worker;
    worker.settings.cmd.jobType = CSettings::JOB_TIMED;
    std::snprintf(worker.settings.cmd.duration, sizeof worker.settings.cmd.duration, "00:00:04:00");
    const int port = worker.addEncoder();
    worker.start();
    worker.waitForLog("receive buffer");
    StreamBuilder builder;
    Packets sent = builder.frames(13);
    Sender sender("127.0.0.1", port);
    sender.send(sent);
    worker.waitForLog("recording into");
    worker.signal(SIGSTOP);
    const Packets meanwhile = builder.frames(75);
    sendLive(sender, meanwhile, 75);
    worker.signal(SIGCONT);
    const Packets rest = builder.frames(20);
    sendLive(sender, rest, 20);
    EXPECT_EQ(worker.wait(), 0) << worker.log();
    EXPECT_EQ(worker.results(), "Recorded 00:00:04:00 (100 frames, 0.1 MB), 0 continuity errors");
    EXPECT_THAT(worker.log(), Not(HasSubstr("has stopped")));
    sent.insert(sent.end(), meanwhile.begin(), meanwhile.end());
    sent.insert(sent.end(), rest.begin(), rest.end());
    const Packets file = readPackets(worker.path("out/news.ts"));
    EXPECT_EQ(pictures(file), 100);
    EXPECT_EQ(positionOf(Packets(file.begin() + 2, file.end()), sent), 2);
}

} // namespace
