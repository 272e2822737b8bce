// The end of a recording that nobody cancelled: its job is over for a reason of its own.
#include "capture/EncoderChannel.h"

#include "capture/labelled_stream.h"
#include "capture/recording_fixture.h"
#include "capture/worker_process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace kestrel::capture;
using namespace capture_test;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

using RecordingStop = RecordingFixture;

TEST_F(RecordingStop, WhatIsRecordedIsToldAndIsNoSuccess) {
    for (const CaptureMode mode : {CaptureMode::manual, CaptureMode::timed, CaptureMode::rolling}) {
        RecordingPlan asked = plan(mode, "00:01:00:00");
        asked.output = m_directory.path(std::to_string(static_cast<int>(mode)) + ".ts");
        Recording r = recording(asked);
        r.take(StreamBuilder().frames(30), m_now);
        r.stop(m_now);
        EXPECT_EQ(r.state(), RecordingState::ended);
        EXPECT_EQ(r.status().frames, 30u) << "what has come is written";
        EXPECT_THAT(r.status().text, AllOf(StartsWith("Recorded 00:00:01:05 (30 frames"),
                                           HasSubstr(", the last frame may be incomplete")));
        // Without a duration nothing is missing.
        EXPECT_EQ(r.status().succeeded, mode != CaptureMode::timed);
    }
}

TEST_F(RecordingStop, BeforeItBeganNothingIsRecorded) {
    for (const CaptureMode mode : {CaptureMode::manual, CaptureMode::timed}) {
        Recording r = recording(plan(mode, "00:01:00:00"));
        r.stop(m_now);
        EXPECT_EQ(r.status().text, "Nothing recorded");
        EXPECT_FALSE(r.status().succeeded);
        EXPECT_FALSE(std::filesystem::exists(m_file));
    }
}

TEST_F(RecordingStop, OneThatHasAllItWasAskedForIsASuccess) {
    RecordingPlan asked = plan(CaptureMode::marks);
    asked.markIn = "10:00:05:00";
    asked.markOut = "10:00:05:24";
    Recording r = recording(asked);
    LabelledStream stream({.timecode = "10:00:04:00"});
    const Packets sent = join(stream.frames(50)); // the frame beyond, which would show it, does not come
    r.take(sent, m_now);
    ASSERT_EQ(r.state(), RecordingState::recording);
    r.stop(m_now);
    EXPECT_TRUE(r.status().succeeded);
    EXPECT_THAT(r.status().text, AllOf(StartsWith("Recorded "), HasSubstr("to 10:00:05:24")));
}

TEST_F(RecordingStop, AnEndedOneStaysAsItIs) {
    Recording r = recording(plan(CaptureMode::timed, "00:00:01:00"));
    r.take(StreamBuilder().frames(30), m_now);
    ASSERT_EQ(r.state(), RecordingState::ended);
    const std::string text = r.status().text;
    r.stop(m_now);
    r.cancel(m_now);
    EXPECT_EQ(r.status().text, text);
    EXPECT_TRUE(r.status().succeeded);
}

TEST_F(RecordingStop, OfTwoOrdersToEndTheFirstCounts) {
    for (const bool stopFirst : {true, false}) {
        WakeEvent turned;
        StreamSource source;
        source.address = 0x7F000001;
        source.port = freePort();
        RecordingPlan asked = plan(CaptureMode::manual);
        asked.output = m_directory.path(stopFirst ? "stopped.ts" : "cancelled.ts");
        EncoderChannel channel(source, asked, turned);
        ASSERT_FALSE(channel.open());
        if (stopFirst)
            channel.stop();
        channel.cancel();
        channel.stop();
        ASSERT_FALSE(channel.start());
        channel.join();
        EXPECT_EQ(channel.status().text,
                  stopFirst ? "Nothing recorded" : "Cancelled before the recording began: nothing recorded");
    }
}

} // namespace
