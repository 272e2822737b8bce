// Mezzanines: recordings between two marks of what comes back of a part that is played.
#include "capture/ResultsText.h"
#include "capture/mezzanine_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace kestrel::capture;
using namespace capture_test;
using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

TEST_F(MezzanineRecording, CountsFromTheFirstFrameThatComesOfAnEncoderThatWaited) {
    Recording r = recording(marks());
    beginSilent(r, "10:00:00:00");
    m_now += 700ms; // on the way
    LabelledStream stream(idle());
    feed(r, stream, 80);
    expectRecorded(r);
    // Frames 20 (a random access point) to 49.
    EXPECT_THAT(labelsOf(readPackets(m_file), 3).front(), "00:00:00:20");
    EXPECT_THAT(labelsOf(readPackets(m_file), 3).back(), "00:00:01:24");
    EXPECT_THAT(r.status().text, HasSubstr(", counted from the first frame"));
}

TEST_F(MezzanineRecording, CountsFromTheBeginOfThePlayOutWhenTheEncoderSentBefore) {
    Recording r = recording(marks());
    LabelledStream stream(idle());
    beginRunning(r, stream, "10:00:00:00");
    feed(r, stream, 120);
    expectRecorded(r);
    EXPECT_THAT(r.status().text, HasSubstr(", counted from when the play-out began"));
    // 75 frames came before the begin; mark-in is the 25th since.
    EXPECT_THAT(labelsOf(readPackets(m_file), 3).front(), "00:00:04:00");
    EXPECT_THAT(labelsOf(readPackets(m_file), 3).back(), "00:00:04:24");
}

// Its frame is the first that is played: the GOP it is in began before.
TEST_F(MezzanineRecording, FindsAMarkInAtTheVeryBeginOfThePlayOut) {
    RecordingPlan asked = marks();
    asked.markIn = "10:00:00:00";
    asked.markOut = "10:00:00:24";
    Recording r = recording(asked);
    LabelledStream stream(idle());
    beginRunning(r, stream, "10:00:00:00");
    feed(r, stream, 60);
    expectRecorded(r);
    EXPECT_THAT(r.status().text, HasSubstr("from 09:59:59:20 to 10:00:00:24, 5 frames before mark-in"));
}

// A hole of the source and frames that were lost look the same then.
TEST_F(MezzanineRecording, OfASourceThatLacksFramesBetweenTheMarksTellsThatOthersMayToo) {
    for (const bool known : {true, false}) {
        RecordingPlan asked = marks();
        asked.labelsKnown = known;
        asked.overwrite = true;
        Recording r = recording(asked);
        beginSilent(r, "10:00:00:00");
        LabelledStream stream(idle());
        feed(r, stream, 80);
        expectRecorded(r);
        const auto told =
            HasSubstr(", not known whether all came back: the source may have no frame for some timecodes,");
        if (known)
            EXPECT_THAT(r.status().text, Not(told));
        else
            EXPECT_THAT(r.status().text, told);
    }
}

// Those that are missing before mark-out are told all the same, however many.
TEST_F(MezzanineRecording, OfASourceThatLacksFramesBetweenTheMarksCountsThoseThatAreMissingAtItsEnd) {
    RecordingPlan asked = marks();
    asked.markOut = "10:00:12:24";
    asked.labelsKnown = false;
    Recording r = recording(asked);
    beginSilent(r, "10:00:00:00");
    LabelledStream stream(idle());
    feed(r, stream, 125);
    r.sourceEnded(m_now);
    pass(r, 6s);
    expectFailed(r, "Error: ");
    EXPECT_THAT(r.status().text, HasSubstr("(200 frames between the marks did not come back)"));
}

// The service keeps no more of it than 299 bytes, and of the second of two encoders 99.
TEST_F(MezzanineRecording, TellsFirstWhatIsNotKnown) {
    RecordingPlan asked = marks();
    asked.labelsKnown = false;
    asked.sourceLeaps = {{3 * PTS::units_per_second, 3 * PTS::units_per_second - 14400}};
    Recording r = recording(asked);
    LabelledStream stream(idle());
    beginRunning(r, stream, "10:00:00:00");
    feed(r, stream, 120);
    expectRecorded(r);
    const std::string text = r.status().text;
    EXPECT_GT(2 * text.size(), resultsBytes);
    const auto both = [](const std::string& kept) {
        EXPECT_THAT(kept, StartsWith("Recorded 00:00:01:"));
        EXPECT_THAT(kept, HasSubstr(" MB), not known whether all came back: "));
    };
    both(resultsText(std::vector<ResultsPart>{{text, false}}));
    const std::string first = "Encoder 1: " + text;
    const std::string second = "; Encoder 2: " + text;
    const std::string two = resultsText(std::vector<ResultsPart>{{first, false}, {second, false}});
    both(two.substr(std::string("Encoder 1: ").size()));
    both(two.substr(two.find("; Encoder 2: ") + std::string("; Encoder 2: ").size()));
    EXPECT_THAT(resultsText(std::vector<ResultsPart>{{text, false}}), HasSubstr(", the marks may be off: "));
}

// The decoder still shows the end of a play-out before.
TEST_F(MezzanineRecording, DoesNotTakeTimecodesFromBeforeForTheSources) {
    RecordingPlan asked = marks();
    asked.useStreamLabels = true;
    Recording r = recording(asked);
    LabelledShape shape = idle();
    shape.timecode = "10:00:00:00";
    LabelledStream stream(shape);
    beginRunning(r, stream, "10:00:00:00");
    stream.jumpTo("10:00:00:00");
    feed(r, stream, 100);
    expectRecorded(r);
    EXPECT_THAT(labelsOf(readPackets(m_file), 3).back(), "10:00:01:24");
}

// An encoder that counts by itself. Its count goes through the labels of the marks while it is played, or
// has passed them before.
class CountingByItself : public MezzanineRecording, public testing::WithParamInterface<const char*> {
protected:
    RecordingPlan marks() {
        RecordingPlan result = MezzanineRecording::marks();
        result.useStreamLabels = true;
        return result;
    }
    // Of the first and the last frame recorded, counted from the encoder's first.
    void expectFrames(Recording& r, int first, int last) {
        expectRecorded(r);
        const std::vector<std::string> own = labelsFrom(GetParam(), last + 1);
        const std::vector<std::string> labels = labelsOf(readPackets(m_file), 3);
        ASSERT_FALSE(labels.empty());
        EXPECT_EQ(labels.front(), own[static_cast<std::size_t>(first)]);
        EXPECT_EQ(labels.back(), own[static_cast<std::size_t>(last)]);
    }
    LabelledStream stream() {
        LabelledShape shape = idle();
        shape.timecode = GetParam();
        return LabelledStream(shape);
    }
};

TEST_P(CountingByItself, HasItsFramesCountedFromTheFirstThatComesWhenItWaited) {
    Recording r = recording(marks());
    beginSilent(r, "10:00:00:00");
    m_now += 400ms; // on the way
    LabelledStream own = stream();
    feed(r, own, 500);
    EXPECT_THAT(r.status().text, HasSubstr(", counted from the first frame"));
    expectFrames(r, 20, 49);
}

TEST_P(CountingByItself, HasItsFramesCountedFromTheBeginOfThePlayOutWhenItSentBefore) {
    Recording r = recording(marks());
    LabelledStream own = stream();
    beginRunning(r, own, "10:00:00:00"); // 75 frames
    feed(r, own, 500);
    EXPECT_THAT(r.status().text, HasSubstr(", counted from when the play-out began"));
    expectFrames(r, 100, 124);
}

TEST_P(CountingByItself, LosesNothingWhenItStopsBeforeThatIsKnown) {
    Recording r = recording(marks());
    beginSilent(r, "10:00:00:00");
    LabelledStream own = stream();
    feed(r, own, 60);
    EXPECT_EQ(r.state(), RecordingState::waiting);
    EXPECT_TRUE(r.holds());
    pass(r, 10s);
    expectFrames(r, 20, 49);
}

TEST_P(CountingByItself, KeepsWhatCameWhenItIsCancelledBeforeThatIsKnown) {
    Recording r = recording(marks());
    beginSilent(r, "10:00:00:00");
    LabelledStream own = stream();
    feed(r, own, 40);
    r.cancel(m_now);
    EXPECT_THAT(r.status().text, StartsWith("Cancelled after "));
    expectFrames(r, 20, 39);
}

INSTANTIATE_TEST_SUITE_P(Counts, CountingByItself,
                         testing::Values("09:59:53:00", "09:59:57:10", "09:59:59:00", "10:00:12:00",
                                         "00:00:00:00"),
                         [](const auto& count) {
                             std::string name = count.param;
                             std::erase(name, ':');
                             return "From" + name;
                         });

// The decoder needs some frames until it shows the first.
TEST_F(MezzanineRecording, FindsTheMarksByTheSourcesTimecodesThoughTheFirstFramesDoNotComeBack) {
    RecordingPlan asked = marks();
    asked.useStreamLabels = true;
    for (const bool runs : {false, true}) {
        m_file = m_directory.path(runs ? "runs.ts" : "waits.ts");
        asked.output = m_file;
        Recording r = recording(asked);
        LabelledShape shape = idle();
        if (!runs)
            shape.timecode = "10:00:00:10";
        LabelledStream stream(shape);
        if (runs)
            beginRunning(r, stream, "10:00:00:00");
        else
            beginSilent(r, "10:00:00:00");
        if (runs)
            feed(r, stream, 15);
        else
            m_now += 600ms;
        stream.jumpTo("10:00:00:10");
        feed(r, stream, 80);
        expectRecorded(r);
        EXPECT_THAT(r.status().text, Not(HasSubstr("counted")));
        EXPECT_EQ(labelsOf(readPackets(m_file), 3).front(), "10:00:00:20");
        EXPECT_EQ(labelsOf(readPackets(m_file), 3).back(), "10:00:01:24");
    }
}

// Only one timecode comes within the time.
TEST_F(MezzanineRecording, TakesTheTimecodeOfALongGopForTheSourcesWhenItCanBe) {
    RecordingPlan asked = marks();
    asked.useStreamLabels = true;
    Recording r = recording(asked);
    LabelledShape shape = idle();
    shape.gop = 95;
    LabelledStream stream(shape);
    feed(r, stream, 90);
    r.arm(m_now);
    feed(r, stream, 50);
    m_begin = m_now + 100ms;
    r.sourceBegins({"10:00:00:00", m_begin, true, 0});
    feed(r, stream, 40);
    stream.jumpTo("10:00:00:20");
    feed(r, stream, 200);
    expectRecorded(r);
    EXPECT_THAT(r.status().text, Not(HasSubstr("counted")));
    EXPECT_EQ(labelsOf(readPackets(m_file), 3).front(), "10:00:00:20");
    EXPECT_EQ(labelsOf(readPackets(m_file), 3).back(), "10:00:01:24");
}

// 24 MB, which are there after three and a half seconds.
TEST_F(MezzanineRecording, HoldsNoMoreThanItMayUntilItsLabelsAreKnown) {
    RecordingPlan asked = marks();
    asked.useStreamLabels = true;
    Recording r = recording(asked);
    beginSilent(r, "10:00:00:00");
    LabelledStream stream(idle({.packetsPerFrame = 1500}));
    for (int frame = 0; frame < 100 && r.state() == RecordingState::waiting; ++frame)
        feed(r, stream, 1);
    EXPECT_NE(r.state(), RecordingState::waiting);
    EXPECT_LT(m_now, m_begin + 4s);
}

TEST_F(MezzanineRecording, FailsAtAnotherFrameRate) {
    for (const bool labels : {true, false}) {
        RecordingPlan asked = marks();
        asked.useStreamLabels = labels;
        Recording r = recording(asked);
        beginSilent(r, "10:00:00:00");
        m_frameTime = 20ms;
        LabelledStream stream({.rateCode = 6});
        feed(r, stream, 240);
        EXPECT_EQ(r.state(), RecordingState::waiting) << "an encoder may have a rate of its own before";
        feed(r, stream, 20);
        ASSERT_EQ(r.state(), RecordingState::ended);
        EXPECT_EQ(r.status().text, "Error: Encoder profile frc 6 does not match source file frc 3.");
    }
}

} // namespace
