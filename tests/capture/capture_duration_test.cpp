// Durations of timed captures: which there are, and how they are kept.
#include "capture/CaptureDuration.h"
#include "capture/Recording.h"
#include "capture/stream_builder.h"
#include "foundation/ErrorCodes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace kestrel::capture;
using namespace capture_test;
using namespace std::chrono_literals;
using testing::StartsWith;

namespace {

std::uint64_t framesOf(const std::string& text, int rateCode) {
    CaptureDuration duration;
    EXPECT_FALSE(duration.set(text)) << text;
    std::uint64_t frames = 0;
    EXPECT_FALSE(duration.measure(rateCode, frames)) << text;
    return frames;
}

TEST(CaptureDuration, ADayAndMoreAreCounted) {
    EXPECT_EQ(framesOf("24:00:00:00", 3), 24u * 3600 * 25);
    EXPECT_EQ(framesOf("25:30:00:05", 3), (25u * 3600 + 1800) * 25 + 5);
    EXPECT_EQ(framesOf("24:00:00:00", 4), 2589408u);
    EXPECT_EQ(framesOf("48:00:01:00", 4), 2u * 2589408 + 30);
    EXPECT_EQ(framesOf("100:00:00:00", 3), 100u * 3600 * 25);
    EXPECT_EQ(framesOf("999:59:59:59", 8), 1000u * 3600 * 60 - 1);
    EXPECT_EQ(framesOf("100:00:00:0", 3), 100u * 3600 * 25) << "as the service's field cuts it";
}

TEST(CaptureDuration, ItsNominalTimeIsInSeconds) {
    CaptureDuration duration;
    ASSERT_FALSE(duration.set("100:00:01:12"));
    EXPECT_EQ(duration.nominal(), 360002s);
    duration.setFrames(250);
    EXPECT_GE(duration.nominal(), 10s);
}

TEST(CaptureDuration, MoreThanThreeDigitsOfHoursAreTooLong) {
    for (const char* text : {"1000:00:00:00", "9999:59:59:24", "123456789012345:00:00:00"}) {
        CaptureDuration duration;
        const auto failed = duration.set(text);
        ASSERT_TRUE(failed) << text;
        EXPECT_EQ(failed->text, std::string("Error: Duration ") + text +
                                    " is too long.  Max is 999:59:59:59.  Please select a smaller duration.");
    }
}

TEST(CaptureDuration, WhatIsNoTimeIsInvalid) {
    for (const char* text : {"", ":", "1:2:3:4", "00:00:00", "00:00:00:0x", "00:00:10:00 ", "00:60:00:00",
                             "00:00:60:00", "00:00:00:60", "00:00:00:1", "100:00:00:1", "00:000:00:00",
                             "00:00:00:00:00", "-1:00:00:00", "00/00/10/00"}) {
        CaptureDuration duration;
        const auto failed = duration.set(text);
        ASSERT_TRUE(failed) << text;
        EXPECT_EQ(failed->code, kestrel::error::invalidDuration) << text;
    }
}

TEST(CaptureDuration, AnImpossibleOneIsRefusedBeforeAnyStream) {
    TemporaryDirectory directory;
    RecordingPlan plan;
    plan.mode = CaptureMode::timed;
    plan.output = directory.path("out.ts");
    plan.duration = "1000:00:00:00";
    Recording recording(plan, Timing{}, Clock::time_point(1000s));
    const auto failed = recording.prepare();
    ASSERT_TRUE(failed);
    EXPECT_EQ(failed->code, kestrel::error::durationTooLong);
}

TEST(LengthText, HasTheDaysInFront) {
    constexpr std::uint64_t day = 24u * 3600 * 25;
    EXPECT_EQ(lengthText(day - 1, 3), "23:59:59:24");
    EXPECT_EQ(lengthText(day, 3), "1d 00:00:00:00");
    EXPECT_EQ(lengthText(10 * day + 26, 3), "10d 00:00:01:01");
    EXPECT_EQ(lengthText(2589408, 4), "1d 00:00:00;00") << "of drop frame";
    EXPECT_EQ(lengthText(25, 0), "an unknown time");
}

class TimedRecording : public testing::Test {
protected:
    TemporaryDirectory m_directory;
    Clock::time_point m_now{1000s};
    std::string m_file = m_directory.path("out.ts");

    Recording recording(const std::string& duration, std::uint64_t frames = 0) {
        RecordingPlan plan;
        plan.mode = CaptureMode::timed;
        plan.name = "Encoder 1";
        plan.output = m_file;
        plan.duration = duration;
        plan.wantedFrames = frames;
        Recording made(plan, Timing{}, m_now);
        EXPECT_FALSE(made.prepare());
        return made;
    }
};

TEST_F(TimedRecording, ADayAndMoreIsRecorded) {
    for (const char* duration : {"24:00:00:00", "30:15:00:00", "100:00:00:00"}) {
        std::filesystem::remove(m_file);
        Recording r = recording(duration);
        r.take(StreamBuilder().frames(60), m_now);
        EXPECT_EQ(r.state(), RecordingState::recording) << duration << ": " << r.status().text;
    }
}

TEST_F(TimedRecording, AChangeOfTheFrameRateNeitherShortensNorLengthensIt) {
    for (const auto& [before, after, frames] :
         {std::tuple{3, 6, 25 + 50}, {6, 3, 50 + 25}, {3, 4, 25 + 30}}) {
        std::filesystem::remove(m_file);
        Recording r = recording("00:00:02:00");
        r.take(StreamBuilder({.rateCode = before, .dts = 90000}).frames(before == 3 ? 25 : 50), m_now);
        r.take(StreamBuilder({.rateCode = after, .dts = 180000}).frames(100), m_now);
        EXPECT_TRUE(r.status().succeeded);
        EXPECT_EQ(pictures(readPackets(m_file)), frames) << before << " to " << after;
    }
}

TEST_F(TimedRecording, SoManyFramesMayBeAskedForInstead) {
    Recording r = recording("", 40);
    r.take(StreamBuilder().frames(60), m_now);
    EXPECT_TRUE(r.status().succeeded);
    EXPECT_EQ(pictures(readPackets(m_file)), 40);
}

TEST_F(TimedRecording, FewerFramesThanASourceHasAreSaid) {
    Recording r = recording("", 40);
    StreamBuilder builder;
    r.take(builder.frames(10), m_now);
    builder.setDts(126000 + 20 * 3600); // ten are lost
    r.take(builder.frames(60), m_now);
    EXPECT_FALSE(r.status().succeeded);
    EXPECT_THAT(r.status().text,
                StartsWith("Error: 30 of 40 frames came back. Recorded 00:00:01:05 (30 frames"));
}

TEST_F(TimedRecording, WhenTheSourceAndThenTheStreamHaveEndedItEndsToo) {
    Recording r = recording("", 40);
    r.take(StreamBuilder().frames(35), m_now);
    r.sourceEnded(m_now);
    EXPECT_LE(r.deadline(), m_now + 2s);
    m_now += 2s;
    r.tick(m_now);
    EXPECT_FALSE(r.status().succeeded);
    EXPECT_THAT(r.status().text, StartsWith("Error: 35 of 40 frames came back."));
    EXPECT_THAT(r.status().text, testing::Not(testing::HasSubstr("stopped")));
}

TEST_F(TimedRecording, ASourceThatEndsBeforeTheDurationIsAFailure) {
    Recording r = recording("00:00:02:00");
    r.take(StreamBuilder().frames(35), m_now);
    r.sourceEnded(m_now);
    m_now += 2s;
    r.tick(m_now);
    EXPECT_FALSE(r.status().succeeded);
    EXPECT_THAT(r.status().text, StartsWith("Error: Capture discontinuity."));
    EXPECT_THAT(r.status().text,
                testing::HasSubstr("(the source ended before the last frame) Recorded 00:00:01:10"));
}

TEST_F(TimedRecording, ASourceThatEndsWhenTheStreamHasLongStoppedEndsItAtOnce) {
    Recording r = recording("", 40);
    r.take(StreamBuilder().frames(40), m_now);
    m_now += 1s;
    r.sourceEnded(m_now);
    m_now += 2s;
    r.tick(m_now);
    EXPECT_TRUE(r.status().succeeded) << r.status().text;
}

} // namespace
