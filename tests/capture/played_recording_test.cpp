// Recordings of what comes back of a source that is played, fed with prepared streams and a clock of the
// test's own: from encoders that wait for the source, and from some that send all the time.
#include "capture/played_fixture.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace kestrel::capture;
using namespace capture_test;
using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

struct Encoder {
    const char* name;
    LabelledShape shape;
    std::size_t before = 0; // frames that are recorded because the first need them
    std::size_t behind = 0; // likewise the last
};

void PrintTo(const Encoder& encoder, std::ostream* out) {
    *out << encoder.name;
}

class RunningEncoder : public PlayedRecording, public testing::WithParamInterface<Encoder> {};

// What comes before the first frame played and behind the last is other pictures.
TEST_P(RunningEncoder, IsRecordedFromTheFirstFramePlayedToTheLastByTheirTimecodes) {
    const Encoder& encoder = GetParam();
    Recording r = recording(labelledPlan());
    LabelledStream stream(idle(encoder.shape));
    beginRunning(r, stream);
    feed(r, stream, 25); // the way through decoder and encoder
    stream.jumpTo("10:00:00:00");
    feed(r, stream, 75);
    EXPECT_EQ(r.state(), RecordingState::recording);
    r.sourceEnded(m_now);
    feed(r, stream, 25);
    stream.jumpTo("05:00:00:00");
    feed(r, stream, 200);
    expectRecorded(r);
    EXPECT_THAT(r.status().text, HasSubstr("by the source's timecodes from 10:00:00:00 to 10:00:03:24"));
    EXPECT_THAT(r.status().text, Not(HasSubstr("missing")));
    const std::size_t all = sourceFrames + encoder.before + encoder.behind;
    EXPECT_THAT(r.status().text, HasSubstr("(" + std::to_string(all) + " frames, "));
    if (encoder.shape.avc)
        return;
    std::vector<std::string> labels = labelsOf(readPackets(m_file), 3);
    ASSERT_EQ(labels.size(), all);
    labels.erase(labels.begin(), labels.begin() + static_cast<std::ptrdiff_t>(encoder.before));
    labels.resize(sourceFrames);
    EXPECT_EQ(labels, labelsFrom("10:00:00:00", sourceFrames));
}

INSTANTIATE_TEST_SUITE_P(Encoders, RunningEncoder,
                         testing::Values(Encoder{"WithoutBFrames", {}},
                                         Encoder{"WithBFrames", {.bFrames = 2}},
                                         Encoder{"Fields", {.fields = true}}, Encoder{"H264", {.avc = true}},
                                         // Its first frames need the GOP before.
                                         Encoder{"OpenGops", {.bFrames = 2, .open = true}, 10}),
                         [](const auto& encoder) { return std::string(encoder.param.name); });

// The source began in the middle of a GOP, whose timecode is still an old one.
TEST_F(PlayedRecording, BeginsWithTheGopInWhichTheFirstFrameIs) {
    Recording r = recording(labelledPlan());
    LabelledStream stream(idle());
    beginRunning(r, stream);
    stream.jumpTo("10:00:00:04");
    feed(r, stream, 60);
    EXPECT_EQ(r.state(), RecordingState::recording);
    feed(r, stream, 60);
    r.sourceEnded(m_now);
    feed(r, stream, 20);
    expectRecorded(r);
    // Four of the ten are the source's.
    EXPECT_THAT(r.status().text, HasSubstr("from 10:00:00:00 to 10:00:03:24, those before 10:00:00:04 by the "
                                           "clock, 6 frames before"));
    EXPECT_EQ(fileFrames(), 106U);
}

TEST_F(PlayedRecording, GoesOnWhileTheDecoderIsLateByItsTimecodes) {
    Recording r = recording(labelledPlan());
    LabelledStream stream(idle());
    beginRunning(r, stream);
    stream.jumpTo("10:00:00:00");
    feed(r, stream, 50);
    stream.jumpTo("10:00:01:20"); // five frames once more
    feed(r, stream, 120);
    expectRecorded(r);
    EXPECT_THAT(labelsOf(readPackets(m_file), 3).back(), "10:00:03:24");
}

TEST_F(PlayedRecording, EndsWithTheLastFrameWhenTheTimecodeStandsStillBehindIt) {
    Recording r = recording(labelledPlan());
    LabelledStream stream(idle());
    beginRunning(r, stream);
    stream.jumpTo("10:00:00:00");
    feed(r, stream, 100);
    for (int group = 0; group < 4; ++group) {
        stream.jumpTo("10:00:03:24");
        feed(r, stream, 10);
    }
    ASSERT_EQ(r.state(), RecordingState::ended);
    EXPECT_EQ(fileFrames(), 100U);
}

TEST_F(PlayedRecording, SaysThatTheLastFramesDidNotComeBack) {
    Recording r = recording(labelledPlan());
    LabelledStream stream(idle());
    beginRunning(r, stream);
    stream.jumpTo("10:00:00:00");
    feed(r, stream, 80); // five until the GOP ends
    r.sourceEnded(m_now);
    pass(r, 10s);
    expectFailed(r, "Error: 75 of 100 frames came back. Recorded ");
    EXPECT_THAT(r.status().text, HasSubstr("the last frame is missing"));
}

// Runs to the end by time: frames from the GOP at the begin to five seconds behind the end.
class WithoutTheSourcesTimecodes : public PlayedRecording {
protected:
    void expectByTime(Recording& r, LabelledStream& stream) {
        beginRunning(r, stream);
        feed(r, stream, sourceFrames);
        EXPECT_NE(r.state(), RecordingState::ended);
        r.sourceEnded(m_now);
        const auto ended = m_now;
        for (int i = 0; i < 1000 && r.state() != RecordingState::ended; ++i)
            feed(r, stream, 1);
        expectRecorded(r);
        EXPECT_GE(m_now, ended + 5s);
        EXPECT_LT(m_now, ended + 5s + 200ms);
        EXPECT_THAT(r.status().text,
                    HasSubstr(", not known whether it is complete: the stream ran before the play-out and no "
                              "timecodes of the source were recognised in "
                              "it: up to 5 s of other pictures at either end"));
        EXPECT_GE(fileFrames(), 225U);
        EXPECT_LT(fileFrames(), 225U + 12);
    }
};

TEST_F(WithoutTheSourcesTimecodes, OfTheSourceItself) {
    Recording r = recording(plan());
    LabelledStream stream(idle());
    expectByTime(r, stream);
}

TEST_F(WithoutTheSourcesTimecodes, OfTheStream) {
    Recording r = recording(labelledPlan());
    LabelledStream stream(idle({.gopHeaders = false}));
    expectByTime(r, stream);
}

// They would be those of the source's first second again and again.
TEST_F(WithoutTheSourcesTimecodes, WhichStandStill) {
    Recording r = recording(plan("00:00:00:00", "00:00:03:24"));
    LabelledStream stream(idle({.timecodes = false}));
    expectByTime(r, stream);
}

// Its own go through those of the source.
TEST_F(WithoutTheSourcesTimecodes, OfAnEncoderThatCountsByItself) {
    Recording r = recording(plan("00:00:03:00", "00:00:06:24"));
    LabelledStream stream(idle());
    expectByTime(r, stream);
}

TEST_F(PlayedRecording, NeverTakesPicturesFromBeforeForTheSource) {
    Recording r = recording(plan());
    LabelledStream stream(idle());
    feed(r, stream, 500);
    EXPECT_EQ(r.state(), RecordingState::waiting);
    EXPECT_EQ(r.status().frames, 0U);
    beginRunning(r, stream);
    feed(r, stream, 400); // four times the source, which has not ended
    EXPECT_EQ(r.state(), RecordingState::recording);
}

TEST_F(PlayedRecording, OfAnEncoderThatWaitsForItHasTheSourcesFramesAndNoOther) {
    for (const bool goesOn : {true, false}) {
        m_file = m_directory.path(goesOn ? "on.ts" : "off.ts");
        Recording r = recording(plan());
        beginSilent(r);
        LabelledStream stream(idle());
        feed(r, stream, sourceFrames);
        r.sourceEnded(m_now);
        if (goesOn)
            feed(r, stream, 50);
        else
            pass(r, 5s);
        expectRecorded(r);
        EXPECT_EQ(fileFrames(), 100U);
        EXPECT_THAT(r.status().text, Not(HasSubstr("ran before")));
    }
}

// Frames come faster than they are played: they cannot all be the source's.
TEST_F(PlayedRecording, DoesNotEndByNumberBeforeTheSourceEnds) {
    Recording r = recording(plan());
    beginSilent(r);
    m_frameTime = 10ms;
    LabelledStream stream(idle());
    feed(r, stream, 150);
    EXPECT_EQ(r.state(), RecordingState::recording);
    r.sourceEnded(m_now);
    feed(r, stream, 5);
    EXPECT_EQ(r.state(), RecordingState::ended);
}

TEST_F(PlayedRecording, IsMeasuredInTimeAtAnotherFrameRate) {
    Recording r = recording(plan());
    beginSilent(r);
    m_frameTime = 20ms;
    LabelledStream stream(idle({.rateCode = 6}));
    feed(r, stream, 200);
    EXPECT_EQ(r.state(), RecordingState::recording);
    r.sourceEnded(m_now);
    feed(r, stream, 20);
    expectRecorded(r);
    EXPECT_EQ(fileFrames(), 200U);
    EXPECT_THAT(r.status().text, StartsWith("Recorded 00:00:04:00 (200 frames, "));
    EXPECT_THAT(r.status().text, HasSubstr(", at frame rate code 6, the source has 3"));
}

TEST_F(PlayedRecording, AtAnotherFrameRateIsNotCompleteWithHalfOfItsTime) {
    Recording r = recording(plan());
    beginSilent(r);
    m_frameTime = 20ms;
    LabelledStream stream(idle({.rateCode = 6}));
    feed(r, stream, 110);
    r.sourceEnded(m_now);
    pass(r, 5s);
    expectFailed(r, "Error: 110 of 199 frames came back. Recorded ");
}

// The two frames before its first that can be shown are played, but no decoder shows them.
TEST_F(PlayedRecording, WantsNoFramesThatCannotBeShownWithOrWithoutTimecodes) {
    for (const bool labels : {true, false}) {
        for (const int come : {98, 97}) {
            m_file = m_directory.path(std::to_string(come) + (labels ? "labels.ts" : "none.ts"));
            RecordingPlan asked = labels ? plan("10:00:00:02", "10:00:03:24") : plan();
            asked.labelledFrames = labels ? 98 : 0;
            asked.hiddenFrames = 2;
            Recording r = recording(asked);
            beginSilent(r);
            LabelledStream stream(idle());
            feed(r, stream, come);
            r.sourceEnded(m_now);
            pass(r, 5s);
            ASSERT_EQ(r.state(), RecordingState::ended);
            EXPECT_EQ(r.status().succeeded, come == 98) << r.status().text;
            EXPECT_EQ(fileFrames(), static_cast<std::size_t>(come));
        }
    }
}

// Its GOPs are so long that none begins between the first look at it and the first frame played.
TEST_F(PlayedRecording, FailsWhenItCannotBeginBeforeTheFirstFramePlayed) {
    Recording r = recording(plan());
    LabelledShape shape = idle();
    shape.gop = 180;
    LabelledStream stream(shape);
    beginRunning(r, stream);
    feed(r, stream, sourceFrames);
    r.sourceEnded(m_now);
    for (int i = 0; i < 1000 && r.state() != RecordingState::ended; ++i)
        feed(r, stream, 1);
    expectFailed(r, "Error: the stream had no random access point until 4.2 s after the play-out "
                    "began, frames of the source may be missing. Recorded ");
}

TEST_F(PlayedRecording, TellsWhenItHoldsAPointWithWhichItCanBegin) {
    for (const bool marks : {false, true}) {
        RecordingPlan asked = plan();
        if (marks) {
            asked.mode = CaptureMode::marks;
            asked.wantedFrames = 0;
            asked.markIn = "10:00:01:00";
            asked.markOut = "10:00:01:24";
        }
        Recording r = recording(asked);
        LabelledShape shape = idle();
        shape.gop = 50;
        LabelledStream stream(shape);
        const auto frames = stream.frames(60);
        r.arm(m_now);
        // In the middle of a GOP.
        feed(r, {frames.begin() + 10, frames.begin() + 50});
        EXPECT_TRUE(r.status().running);
        EXPECT_FALSE(r.status().pointHeld);
        feed(r, {frames.begin() + 50, frames.end()});
        EXPECT_TRUE(r.status().pointHeld);
    }
}

// Nothing of what is held is lost when no further packet comes.
TEST_F(PlayedRecording, RecordsWhatItHeldWhenTheStreamStops) {
    Recording r = recording(labelledPlan());
    LabelledStream stream(idle());
    beginRunning(r, stream);
    feed(r, stream, sourceFrames + 10);
    EXPECT_EQ(r.state(), RecordingState::waiting);
    r.sourceEnded(m_now);
    pass(r, 10s);
    expectRecorded(r);
    EXPECT_GE(fileFrames(), 110U);
}

// 24 MB, which are there after three and a half seconds.
TEST_F(PlayedRecording, HoldsNoMoreThanItMay) {
    Recording r = recording(labelledPlan());
    LabelledStream stream(idle({.packetsPerFrame = 1500}));
    beginRunning(r, stream);
    for (int frame = 0; frame < 95 && r.state() == RecordingState::waiting; ++frame)
        feed(r, stream, 1);
    EXPECT_EQ(r.state(), RecordingState::recording);
    EXPECT_LT(m_now, m_begin + 4s);
    EXPECT_GE(r.status().frames, 80U);
}

TEST_F(PlayedRecording, SaysThatNothingCameBack) {
    Recording r = recording(labelledPlan());
    beginSilent(r);
    r.sourceEnded(m_now);
    pass(r, 11s);
    ASSERT_EQ(r.state(), RecordingState::ended);
    EXPECT_THAT(r.status().text, StartsWith("Error: Do not see MPEG transport stream"));
}

} // namespace
