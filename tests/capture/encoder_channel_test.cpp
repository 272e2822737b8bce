// One encoder's threads: orders from outside, what it tells while it runs, and losses.
#include "capture/EncoderChannel.h"

#include "capture/captured_log.h"
#include "capture/labelled_stream.h"
#include "capture/worker_process.h"

#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>

using namespace kestrel::capture;
using namespace capture_test;
using namespace std::chrono_literals;
using testing::HasSubstr;

namespace {

class EncoderChannelTest : public testing::Test {
protected:
    TemporaryDirectory m_directory;
    WakeEvent m_turned;
    StreamSource m_source;
    RecordingPlan m_plan;
    EncoderChannelTest() {
        m_source.address = 0x7F000001;
        m_source.port = freePort();
        m_plan.name = "Encoder 1";
        m_plan.output = m_directory.path("out.ts");
    }
    // Waits until the channel has turned to what is wanted; it says so on its event.
    bool waitFor(const EncoderChannel& channel, const std::function<bool(const RecordingStatus&)>& wanted) {
        const auto deadline = Clock::now() + 10s;
        while (Clock::now() < deadline) {
            if (wanted(channel.status()))
                return true;
            pollfd wait{m_turned.fd(), POLLIN, 0};
            ::poll(&wait, 1, 10000);
            m_turned.clear();
        }
        return false;
    }
    static bool records(const RecordingStatus& status) { return status.state == RecordingState::recording; }
};

TEST_F(EncoderChannelTest, TellsWhenItsRecordingHasBegun) {
    EncoderChannel channel(m_source, m_plan, m_turned);
    ASSERT_FALSE(channel.open());
    ASSERT_FALSE(channel.start());
    Sender("127.0.0.1", m_source.port).send(StreamBuilder().frames(30));
    EXPECT_TRUE(waitFor(channel, records));
    channel.cancel();
    channel.join();
    EXPECT_THAT(channel.status().text, HasSubstr("(30 frames"));
}

TEST_F(EncoderChannelTest, RecordsBetweenMarksOnceItIsArmed) {
    m_plan.mode = CaptureMode::marks;
    m_plan.markIn = "10:00:05:00";
    m_plan.markOut = "10:00:05:24";
    m_plan.armed = false;
    EncoderChannel channel(m_source, m_plan, m_turned);
    ASSERT_FALSE(channel.open());
    ASSERT_FALSE(channel.start());
    Sender sender("127.0.0.1", m_source.port);
    LabelledStream stream({.timecode = "10:00:07:00"});
    sender.send(join(stream.frames(60)));
    channel.arm();
    stream.jumpTo("10:00:10:00");
    sender.send(join(stream.frames(36)));
    EXPECT_TRUE(waitFor(channel, [](const RecordingStatus& status) { return status.passedMarkIn; }));
    channel.disarm();
    EXPECT_TRUE(waitFor(channel, [](const RecordingStatus& status) { return !status.passedMarkIn; }));
    channel.arm();
    stream.jumpTo("10:00:04:00");
    sender.send(join(stream.frames(100)));
    EXPECT_TRUE(waitFor(channel, [](const RecordingStatus& status) { return status.markOutReached; }));
    channel.join();
    EXPECT_THAT(channel.status().text, HasSubstr("to 10:00:05:24"));
    EXPECT_TRUE(channel.status().succeeded);
}

TEST_F(EncoderChannelTest, WhatItIsToldOfTheFirstFrameCounts) {
    m_plan.mode = CaptureMode::marks;
    m_plan.markIn = "01:00:00:00";
    m_plan.markOut = "01:00:00:24";
    m_plan.armed = m_plan.useStreamLabels = false;
    EncoderChannel channel(m_source, m_plan, m_turned);
    ASSERT_FALSE(channel.open());
    ASSERT_FALSE(channel.start());
    channel.refer({"01:00:00:00", {}, true, 0});
    channel.arm();
    Sender("127.0.0.1", m_source.port).send(join(LabelledStream().frames(60)));
    EXPECT_TRUE(waitFor(channel, [](const RecordingStatus& status) { return status.markOutReached; }));
    channel.join();
    EXPECT_THAT(channel.status().text, HasSubstr("(25 frames"));
    EXPECT_THAT(channel.status().text, HasSubstr("counted from the first frame"));
}

TEST_F(EncoderChannelTest, ASourceThatHasEndedEndsItWhenNothingComesAnyMore) {
    m_plan.mode = CaptureMode::timed;
    m_plan.wantedFrames = 50;
    Timing timing;
    timing.stall = 100ms;
    EncoderChannel channel(m_source, m_plan, m_turned, timing);
    ASSERT_FALSE(channel.open());
    ASSERT_FALSE(channel.start());
    Sender("127.0.0.1", m_source.port).send(StreamBuilder().frames(20));
    ASSERT_TRUE(waitFor(channel, records));
    channel.sourceEnded();
    EXPECT_TRUE(waitFor(channel,
                        [](const RecordingStatus& status) { return status.state == RecordingState::ended; }));
    channel.join();
    EXPECT_THAT(channel.status().text, HasSubstr("Error: 20 of 50 frames came back."));
}

// All of it lies in the receive buffer before the threads run, so the recording begins, and loses, within
// what the writer finds at its first look.
TEST_F(EncoderChannelTest, LossesBehindTheBeginningOfABacklogAreCounted) {
    EncoderChannel channel(m_source, m_plan, m_turned);
    ASSERT_FALSE(channel.open());
    StreamBuilder builder;
    Sender sender("127.0.0.1", m_source.port);
    sender.sendRtp(builder.frames(12));
    sender.skip(3);
    sender.sendRtp(builder.frames(12));
    ASSERT_FALSE(channel.start());
    ASSERT_TRUE(waitFor(channel, records));
    channel.cancel();
    channel.join();
    EXPECT_EQ(channel.losses(), ", 3 RTP datagrams missing");
}

TEST_F(EncoderChannelTest, AnRtpSequenceThatBeginsAnewIsLoggedAndIsNoLoss) {
    const CapturedLog log;
    EncoderChannel channel(m_source, m_plan, m_turned);
    ASSERT_FALSE(channel.open());
    StreamBuilder builder;
    Sender sender("127.0.0.1", m_source.port);
    sender.sendRtp(builder.frames(12));
    sender.skip(20000);
    sender.sendRtp(builder.frames(12));
    ASSERT_FALSE(channel.start());
    ASSERT_TRUE(waitFor(channel, records));
    channel.cancel();
    channel.join();
    EXPECT_EQ(channel.losses(), "");
    channel.logLosses();
    channel.logLosses();
    EXPECT_EQ(log.count("[Capture:Warning] Encoder 1: the RTP sequence began anew, 1 time\r\n"), 1)
        << log.text();
}

// As an encoder sends that fills datagrams without regard for packets.
TEST_F(EncoderChannelTest, DatagramsThatAreNoTransportStreamAreCountedAndTheirSizeIsLogged) {
    const CapturedLog log;
    EncoderChannel channel(m_source, m_plan, m_turned);
    ASSERT_FALSE(channel.open());
    StreamBuilder builder;
    Sender sender("127.0.0.1", m_source.port);
    sender.send(builder.frames(12));
    sender.sendRaw(std::vector<unsigned char>(1472, 0x11));
    sender.sendRaw(std::vector<unsigned char>(1472, 0x11));
    std::vector<unsigned char> cut(1472, 0);
    for (std::size_t i = 0; i < cut.size(); i += packetSize) {
        const Packet null{0x47, 0x1F, 0xFF, 0x10};
        std::copy_n(null.begin(), std::min(packetSize, cut.size() - i), cut.data() + i);
    }
    sender.sendRaw(cut);
    ASSERT_FALSE(channel.start());
    ASSERT_TRUE(waitFor(channel, records));
    channel.cancel();
    channel.join();
    EXPECT_EQ(channel.losses(),
              ", 2 datagrams were no transport stream, 1 datagram held more than whole packets");
    channel.logLosses();
    EXPECT_THAT(log.text(),
                HasSubstr("[Capture:Error] Encoder 1: 2 datagrams of 1472 bytes, not a multiple of "
                          "188, are no transport stream\r\n"));
    EXPECT_THAT(log.text(), HasSubstr("Encoder 1: 1 datagram of 1472 bytes, not a multiple of 188, ends with "
                                      "less than a packet, which is left out\r\n"));
}

TEST_F(EncoderChannelTest, OfOneDatagramTheTextsSpeakInTheSingular) {
    const CapturedLog log;
    EncoderChannel channel(m_source, m_plan, m_turned);
    ASSERT_FALSE(channel.open());
    Sender sender("127.0.0.1", m_source.port);
    sender.send(StreamBuilder().frames(12));
    sender.sendRaw(std::vector<unsigned char>(1316, 0x11));
    std::vector<unsigned char> packet(188, 0x11);
    packet[0] = 0x47; // else the datagram as a whole would be none
    packet[1] = 0x1F;
    packet[2] = 0xFF;
    packet.resize(376, 0x11);
    sender.sendRaw(packet);
    ASSERT_FALSE(channel.start());
    ASSERT_TRUE(waitFor(channel, records));
    channel.cancel();
    channel.join();
    EXPECT_EQ(channel.losses(), ", 1 datagram was no transport stream, 1 packet without a sync byte");
    channel.logLosses();
    EXPECT_THAT(log.text(), HasSubstr("Encoder 1: 1 datagram of 1316 bytes is no transport stream\r\n"));
    EXPECT_THAT(log.text(), HasSubstr("Encoder 1: 1 packet without a sync byte is left out\r\n"));
}

// They are why there is no recording.
TEST_F(EncoderChannelTest, WhereNothingIsRecordedWhatCameInsteadIsTold) {
    Timing timing;
    timing.noStream = 200ms;
    m_source.address = 0;
    m_source.sender = 0x7F000002;
    const auto over = [](const RecordingStatus& status) { return status.state == RecordingState::ended; };
    {
        EncoderChannel channel(m_source, m_plan, m_turned, timing);
        ASSERT_FALSE(channel.open());
        ASSERT_FALSE(channel.start());
        Sender("127.0.0.1", m_source.port, "127.0.0.5").send(StreamBuilder().frames(30));
        ASSERT_TRUE(waitFor(channel, over));
        channel.join();
        EXPECT_EQ(channel.losses(), ", datagrams came from 127.0.0.5 instead");
    }
    {
        EncoderChannel channel(m_source, m_plan, m_turned, timing);
        ASSERT_FALSE(channel.open());
        ASSERT_FALSE(channel.start());
        Sender("127.0.0.9", m_source.port, "127.0.0.2").send(StreamBuilder().frames(30));
        ASSERT_TRUE(waitFor(channel, over));
        channel.join();
        EXPECT_EQ(channel.losses(), ", datagrams came from 127.0.0.2 to another address of this host");
    }
    EncoderChannel channel(m_source, m_plan, m_turned, timing);
    ASSERT_FALSE(channel.open());
    ASSERT_FALSE(channel.start());
    Sender sender("127.0.0.1", m_source.port, "127.0.0.2");
    sender.sendRaw(std::vector<unsigned char>(1472, 0x11));
    sender.sendRaw(std::vector<unsigned char>(1472, 0x11));
    ASSERT_TRUE(waitFor(channel, over));
    channel.join();
    EXPECT_EQ(channel.losses(), ", 2 datagrams were no transport stream");
}

// Its receiver ends first and wakes the writer too: whichever of the two the writer sees, it must see the
// end.
TEST_F(EncoderChannelTest, EndsWhenItIsToldToBeforeItIsArmed) {
    m_plan.mode = CaptureMode::marks;
    m_plan.markIn = "10:00:05:00";
    m_plan.markOut = "10:00:05:24";
    m_plan.armed = false;
    m_plan.overwrite = true;
    for (int i = 0; i < 300; ++i) {
        EncoderChannel channel(m_source, m_plan, m_turned);
        ASSERT_FALSE(channel.open());
        ASSERT_FALSE(channel.start());
        i % 2 == 0 ? channel.cancel() : channel.stop();
        ASSERT_TRUE(waitFor(channel, [](const RecordingStatus& status) {
            return status.state == RecordingState::ended;
        })) << i;
    }
}

} // namespace
