// How recordings of what comes back of a source end: with its last frame, whatever comes behind it.
#include "capture/played_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace kestrel::capture;
using namespace capture_test;
using namespace std::chrono_literals;
using testing::Contains;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

class PlayedEnd : public PlayedRecording {
protected:
    RecordingPlan marks(const std::string& in, const std::string& out) {
        RecordingPlan result = plan();
        result.mode = CaptureMode::marks;
        result.wantedFrames = 0;
        result.markIn = in;
        result.markOut = out;
        return result;
    }
    std::string lastLabel() {
        const std::vector<std::string> all = labels();
        return all.empty() ? "" : all.back();
    }
    std::vector<std::string> labels() { return labelsOf(readPackets(m_file), 3); }
};

// The source's timecodes jump after 58 of its 118 frames, so they do not tell which is its last.
class JumpingTimecodes : public PlayedEnd, public testing::WithParamInterface<LabelledShape> {
protected:
    RecordingPlan plan() {
        RecordingPlan result = PlayedEnd::plan("10:00:00:00", "10:00:02:07");
        result.wantedFrames = 118;
        result.labelledFrames = 58;
        return result;
    }
};

TEST_P(JumpingTimecodes, EndBehindTheLastFrameAndNotBefore) {
    for (int inside = 0; inside < 10; ++inside) { // frames of the source in a GOP with another timecode
        m_file = m_directory.path(std::to_string(inside) + ".ts");
        Recording r = recording(plan());
        LabelledStream stream(idle(GetParam()));
        beginRunning(r, stream);
        stream.jumpTo("10:00:00:0" + std::to_string(inside));
        feed(r, stream, 125);
        r.sourceEnded(m_now);
        feed(r, stream, 60);
        expectRecorded(r);
        EXPECT_THAT(labels(), Contains("10:00:04:17")) << inside;
        EXPECT_LE(fileFrames(), 118U + 10 + 8);
    }
}

// One of them is lost on the way: those from before and behind do not make up for it.
TEST_P(JumpingTimecodes, DoNotHideThatAFrameIsMissing) {
    Recording r = recording(plan());
    LabelledStream stream(idle(GetParam()));
    beginRunning(r, stream);
    stream.jumpTo("10:00:00:00");
    feed(r, stream, 105);
    const auto lost = stream.frames(3);
    m_now += 120ms;
    feed(r, stream, 40);
    r.sourceEnded(m_now);
    feed(r, stream, 60);
    expectFailed(r, "Error: 115 of 118 frames came back. Recorded ");
}

INSTANTIATE_TEST_SUITE_P(Encoders, JumpingTimecodes,
                         testing::Values(LabelledShape{}, LabelledShape{.bFrames = 2},
                                         LabelledShape{.bFrames = 2, .open = true},
                                         LabelledShape{.bFrames = 2, .open = true, .fields = true}),
                         [](const auto& shape) {
                             return std::string(shape.param.open ? "OpenGops" : "ClosedGops") +
                                    (shape.param.bFrames > 0 ? "WithBFrames" : "") +
                                    (shape.param.fields ? "OfFields" : "");
                         });

// The source begins with an open GOP, and the encoder returns it as it is, with the frames of that GOP that
// cannot be shown.
TEST_F(PlayedEnd, OfASourceThatIsReturnedAsItIsHasTheLastFrameToo) {
    RecordingPlan asked = plan("10:00:00:02", "10:00:02:07");
    asked.labelledFrames = 58;
    asked.hiddenFrames = 2;
    Recording r = recording(asked);
    const LabelledShape open{.gop = 10, .bFrames = 2, .open = true};
    LabelledStream stream(idle(open));
    beginRunning(r, stream);
    stream.jumpTo("10:00:00:00");
    feed(r, stream, 65); // five until the GOP ends
    stream.jumpTo("11:00:00:00");
    feed(r, stream, 40);
    r.sourceEnded(m_now);
    stream.jumpTo("05:00:00:00");
    feed(r, stream, 60);
    expectRecorded(r);
    EXPECT_THAT(labels(), Contains("11:00:01:14"));
    EXPECT_LT(fileFrames(), 110U);
}

// Once the last frame has come, an encoder may go on with anything but video.
class NoVideoBehind : public PlayedEnd, public testing::WithParamInterface<int> {
protected:
    void expectComplete(Recording& r) {
        feed(r, packetOf(GetParam()), 30s);
        expectRecorded(r);
    }
};

TEST_P(NoVideoBehind, EndsARecordingByTimecodes) {
    Recording r = recording(labelledPlan());
    LabelledStream stream(idle());
    beginRunning(r, stream);
    stream.jumpTo("10:00:00:00");
    feed(r, stream, 105); // five until the GOP ends
    r.sourceEnded(m_now);
    const auto last = m_now;
    expectComplete(r);
    EXPECT_EQ(lastLabel(), "10:00:03:24");
    EXPECT_LE(m_now, last + 2200ms);
}

TEST_P(NoVideoBehind, EndsARecordingByTimecodesThatJump) {
    RecordingPlan asked = labelledPlan();
    asked.labelledFrames = 58;
    Recording r = recording(asked);
    LabelledStream stream(idle());
    beginRunning(r, stream);
    stream.jumpTo("10:00:00:00");
    feed(r, stream, 105);
    r.sourceEnded(m_now);
    expectComplete(r);
    EXPECT_EQ(lastLabel(), "10:00:03:24");
}

TEST_P(NoVideoBehind, EndsARecordingByCount) {
    Recording r = recording(plan());
    beginSilent(r);
    LabelledStream stream(idle());
    feed(r, stream, sourceFrames);
    r.sourceEnded(m_now);
    expectComplete(r);
    EXPECT_EQ(fileFrames(), 100U);
}

TEST_P(NoVideoBehind, EndsARecordingByTime) {
    Recording r = recording(plan());
    LabelledStream stream(idle());
    beginRunning(r, stream);
    feed(r, stream, sourceFrames + 10);
    r.sourceEnded(m_now);
    const auto ended = m_now;
    expectComplete(r);
    EXPECT_GE(m_now, ended + 5s);
    EXPECT_LE(m_now, ended + 5200ms);
}

TEST_P(NoVideoBehind, EndsAMezzanine) {
    for (const bool useLabels : {true, false}) {
        m_file = m_directory.path(useLabels ? "labels.ts" : "counted.ts");
        RecordingPlan asked = marks("10:00:01:00", "10:00:01:24");
        asked.useStreamLabels = useLabels;
        Recording r = recording(asked);
        beginSilent(r, "10:00:00:00");
        LabelledShape shape;
        shape.gop = 10;
        LabelledStream stream(shape);
        feed(r, stream, 50);
        r.sourceEnded(m_now);
        expectComplete(r);
        EXPECT_EQ(lastLabel(), "10:00:01:24");
    }
}

TEST_P(NoVideoBehind, SaysThatFramesAreMissing) {
    for (const bool byLabels : {true, false}) {
        m_file = m_directory.path(byLabels ? "labels.ts" : "count.ts");
        Recording r = recording(byLabels ? labelledPlan() : plan());
        LabelledStream stream(idle());
        if (byLabels)
            beginRunning(r, stream);
        else
            beginSilent(r);
        stream.jumpTo("10:00:00:00");
        feed(r, stream, byLabels ? 95 : 90);
        r.sourceEnded(m_now);
        feed(r, packetOf(GetParam()), 30s);
        expectFailed(r, "Error: 90 of 100 frames came back. Recorded ");
    }
}

INSTANTIATE_TEST_SUITE_P(Packets, NoVideoBehind, testing::Values(0x1FFF, 0x0011, audioPid),
                         [](const auto& pid) {
                             return pid.param == 0x1FFF ? "Null" : pid.param == 0x0011 ? "Tables" : "Audio";
                         });

// The encoder falls back to its idle format right behind the last frame.
class OtherRateBehind : public PlayedEnd, public testing::WithParamInterface<int> {
protected:
    void goOn(Recording& r) {
        LabelledShape shape = idle();
        shape.rateCode = GetParam();
        LabelledStream stream(shape);
        m_frameTime = 1000ms / (GetParam() == 2 ? 24 : GetParam() == 4 ? 30 : 50);
        feed(r, stream, 600);
    }
    void expectComplete(Recording& r, std::size_t frames) {
        expectRecorded(r);
        EXPECT_EQ(fileFrames(), frames);
        EXPECT_THAT(r.status().text, Not(HasSubstr("frame rate code")));
        EXPECT_THAT(r.status().text, Not(HasSubstr("beyond")));
        EXPECT_EQ(r.status().frameRateCode, 3);
    }
};

TEST_P(OtherRateBehind, IsNotPartOfARecordingByTimecodes) {
    for (const bool jump : {false, true}) {
        m_file = m_directory.path(jump ? "jump.ts" : "through.ts");
        m_frameTime = 40ms;
        RecordingPlan asked = labelledPlan();
        if (jump)
            asked.labelledFrames = 58;
        Recording r = recording(asked);
        LabelledStream stream(idle());
        beginRunning(r, stream);
        stream.jumpTo("10:00:00:00");
        feed(r, stream, 105);
        r.sourceEnded(m_now);
        goOn(r);
        expectComplete(r, 100);
        EXPECT_THAT(r.status().text, StartsWith("Recorded 00:00:04:00 (100 frames, "));
        EXPECT_THAT(r.status().text, HasSubstr("from 10:00:00:00 to 10:00:03:24"));
    }
}

TEST_P(OtherRateBehind, IsNotPartOfARecordingByCount) {
    for (const std::uint64_t hidden : {0U, 2U}) { // which the encoder leaves out
        m_file = m_directory.path(std::to_string(hidden) + ".ts");
        m_frameTime = 40ms;
        RecordingPlan asked = plan();
        asked.hiddenFrames = hidden;
        Recording r = recording(asked);
        beginSilent(r);
        LabelledStream stream(idle());
        feed(r, stream, sourceFrames - static_cast<int>(hidden));
        r.sourceEnded(m_now);
        goOn(r);
        expectComplete(r, sourceFrames - hidden);
    }
}

TEST_P(OtherRateBehind, DoesNotStandForFramesThatAreMissing) {
    Recording r = recording(plan());
    beginSilent(r);
    LabelledStream stream(idle());
    feed(r, stream, 90);
    r.sourceEnded(m_now);
    goOn(r);
    expectFailed(r, "Error: 90 of 100 frames came back. Recorded ");
}

TEST_P(OtherRateBehind, IsNotPartOfAMezzanine) {
    for (const bool useLabels : {true, false}) {
        m_file = m_directory.path(useLabels ? "labels.ts" : "counted.ts");
        m_frameTime = 40ms;
        RecordingPlan asked = marks("10:00:01:00", "10:00:01:24");
        asked.useStreamLabels = useLabels;
        Recording r = recording(asked);
        beginSilent(r, "10:00:00:00");
        LabelledShape shape;
        shape.gop = 10;
        LabelledStream stream(shape);
        feed(r, stream, 50);
        r.sourceEnded(m_now);
        goOn(r);
        expectComplete(r, 30);
        EXPECT_THAT(r.status().text, HasSubstr(", from 10:00:00:20 to 10:00:01:24"));
    }
}

// Marks that lie in what the encoder no longer returned are not found in its own pictures.
TEST_P(OtherRateBehind, EndsAMezzanineWhoseMarkOutHasNotCome) {
    Recording r = recording(marks("10:00:01:00", "10:00:05:24"));
    beginSilent(r, "10:00:00:00");
    LabelledShape shape;
    shape.gop = 10;
    LabelledStream stream(shape);
    feed(r, stream, 50);
    goOn(r);
    expectFailed(r, "Error: Encoder profile frc " + std::to_string(GetParam()) +
                        " does not match source file frc 3. Recorded 00:00:01:05 (30");
}

INSTANTIATE_TEST_SUITE_P(Rates, OtherRateBehind, testing::Values(2, 4, 6),
                         [](const auto& code) { return "Code" + std::to_string(code.param); });

// Another encoder's long GOP delays the play-out.
TEST_F(PlayedEnd, OfAnEncoderThatIsSlowIsNotGivenUpBeforeItsTimeSinceThePlayOutBegan) {
    for (const bool mezzanine : {false, true}) {
        m_file = m_directory.path(mezzanine ? "marks.ts" : "whole.ts");
        Recording r = recording(mezzanine ? marks("10:00:01:00", "10:00:01:24") : labelledPlan());
        r.arm(m_now);
        pass(r, 9900ms);
        EXPECT_EQ(r.deadline(), Clock::time_point::max()) << "nothing can have come back";
        r.sourceBegins({"10:00:00:00", m_now + 100ms, true, 0});
        m_begin = m_now + 100ms;
        pass(r, 3s);
        EXPECT_EQ(r.state(), RecordingState::waiting);
        EXPECT_EQ(r.deadline(), m_begin + 10s);
        LabelledStream stream;
        feed(r, stream, sourceFrames);
        r.sourceEnded(m_now);
        pass(r, 5s);
        expectRecorded(r);
    }
}

// Until the source comes an encoder may send in another frame rate.
TEST_F(PlayedEnd, AMezzanineIsBegunThoughTheEncodersIdleFormatHasAnotherRate) {
    for (const int rate : {2, 4, 6})
        for (const bool useLabels : {true, false})
            for (const bool runs : {true, false}) {
                SCOPED_TRACE(std::to_string(rate) + (useLabels ? " labels" : "") + (runs ? " runs" : ""));
                m_file = m_directory.path(std::to_string(rate * 4 + useLabels * 2 + runs) + ".ts");
                RecordingPlan asked = marks("10:00:01:00", "10:00:01:24");
                asked.useStreamLabels = useLabels;
                Recording r = recording(asked);
                LabelledShape before = idle();
                before.rateCode = rate;
                LabelledStream own(before);
                m_frameTime = 20ms;
                if (runs)
                    beginRunning(r, own, "10:00:00:00"); // the source begins one second from now
                else
                    beginSilent(r, "10:00:00:00");
                m_frameTime = 40ms;
                while (m_now < m_begin + 1s)
                    feed(r, own, 1);
                EXPECT_EQ(r.state(), RecordingState::waiting) << r.status().text;
                LabelledStream stream;
                feed(r, stream, 110);
                expectRecorded(r);
                // Where frames are counted from the begin of the play-out, one second on the way counts too.
                const bool late = !useLabels && runs;
                EXPECT_THAT(labels(), Contains(late ? "10:00:00:24" : "10:00:01:24"));
                EXPECT_THAT(labels(), Contains(late ? "10:00:00:00" : "10:00:01:00"));
                EXPECT_LE(fileFrames(), 25U + 12);
            }
}

TEST_F(PlayedEnd, AMezzanineIsRefusedWhenTheRateIsStillAnotherAfterTheLongestReturn) {
    for (const bool stops : {false, true}) {
        m_file = m_directory.path(stops ? "stops.ts" : "on.ts");
        Recording r = recording(marks("10:00:01:00", "10:00:01:24"));
        LabelledShape shape = idle();
        shape.rateCode = 5;
        LabelledStream stream(shape);
        beginRunning(r, stream, "10:00:00:00");
        while (m_now < m_begin + (stops ? 1s : 4900ms))
            feed(r, stream, 1);
        EXPECT_EQ(r.state(), RecordingState::waiting) << r.status().text;
        if (stops)
            pass(r, 5s);
        else
            feed(r, stream, 5);
        ASSERT_EQ(r.state(), RecordingState::ended);
        EXPECT_EQ(r.status().text, "Error: Encoder profile frc 5 does not match source file frc 3.");
    }
}

// What is held of the other rate does not keep the source's pictures out.
TEST_F(PlayedEnd, AMezzanineHoldsNoMoreOfAnotherRateThanItMay) {
    Recording r = recording(marks("10:00:01:00", "10:00:01:24"));
    LabelledShape shape = idle({.packetsPerFrame = 1500});
    shape.rateCode = 4;
    LabelledStream own(shape);
    beginSilent(r, "10:00:00:00");
    feed(r, own, 100);
    EXPECT_EQ(r.state(), RecordingState::waiting);
    LabelledStream stream;
    feed(r, stream, 60);
    expectRecorded(r);
    EXPECT_EQ(lastLabel(), "10:00:01:24");
}

// It is not known yet what the frames would have been found by.
TEST_F(PlayedEnd, OfACancelledMezzanineDoesNotSayWhatWasNotDecided) {
    Recording r = recording(marks("10:00:01:00", "10:00:01:24"));
    beginSilent(r, "10:00:00:00");
    LabelledStream stream(idle());
    feed(r, stream, 40);
    testing::internal::CaptureStderr();
    r.cancel(m_now);
    EXPECT_THAT(testing::internal::GetCapturedStderr(), Not(HasSubstr("frames are counted")));
    EXPECT_THAT(r.status().text, StartsWith("Cancelled after "));
    EXPECT_THAT(r.status().text, Not(HasSubstr("counted")));
    EXPECT_THAT(r.status().text,
                HasSubstr(", ended before it was known whether its timecodes are the source's"));
}

} // namespace
