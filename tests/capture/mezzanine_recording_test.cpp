// Mezzanines: recordings between two marks of what comes back of a part that is played.
#include "capture/ResultsText.h"
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

class MezzanineRecording : public PlayedRecording {
protected:
    // The part that is played begins with 10:00:00:00.
    RecordingPlan marks() {
        RecordingPlan result = plan();
        result.mode = CaptureMode::marks;
        result.wantedFrames = 0;
        result.markIn = "10:00:01:00";
        result.markOut = "10:00:01:24";
        result.useStreamLabels = false;
        return result;
    }
};

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
            HasSubstr(", not known whether all came back: the source may have no frame for some timecodes "
                      "between the marks");
        if (known)
            EXPECT_THAT(r.status().text, Not(told));
        else
            EXPECT_THAT(r.status().text, told);
    }
}

// Which timecodes the source has no frame for is known; the others are all looked for.
TEST_F(MezzanineRecording, OfASourceThatIsKnownToLackFramesHasAllOthers) {
    for (const int lost : {-1, 4, 16, 23})
        for (const int lacks : {10, 19}) { // five from there on
            SCOPED_TRACE(std::to_string(lost) + " without " + std::to_string(lacks));
            RecordingPlan asked = marks();
            asked.useStreamLabels = true;
            asked.overwrite = true;
            asked.labelsLacking.resize(static_cast<std::size_t>(lacks) + 5);
            std::fill(asked.labelsLacking.begin() + lacks, asked.labelsLacking.end(), true);
            const bool gone = lost >= lacks && lost < lacks + 5;
            Recording r = recording(asked);
            beginSilent(r, "10:00:00:00");
            LabelledStream stream({.gop = 10, .avc = true});
            std::vector<CodedFrame> frames = stream.frames(80);
            const std::vector<std::string> labels = labelsFrom("10:00:01:00", 25);
            std::erase_if(frames, [&](const CodedFrame& frame) {
                const auto at = std::find(labels.begin(), labels.end(), frame.label) - labels.begin();
                return at == lost || (at >= lacks && at < lacks + 5);
            });
            feed(r, frames);
            r.sourceEnded(m_now);
            pass(r, 6s);
            EXPECT_THAT(r.status().text, Not(HasSubstr("not known")));
            if (lost < 0 || gone) {
                expectRecorded(r);
                continue;
            }
            expectFailed(r, "Error: ");
            EXPECT_THAT(r.status().text, HasSubstr("(1 frame between the marks did not come back)"));
        }
}

// The timecodes ran on over an outage that the play-out does not wait for: those behind it come before they
// are due.
TEST_F(MezzanineRecording, OverAnOutageHasTheFramesOnBothItsSides) {
    for (const bool lost : {false, true}) {
        RecordingPlan asked = marks();
        asked.markOut = "10:00:04:24";
        asked.useStreamLabels = true;
        asked.overwrite = true;
        asked.labelsLacking.resize(5 + 75);
        std::fill(asked.labelsLacking.begin() + 5, asked.labelsLacking.end(), true);
        asked.sourceLeaps = {{76 * PTS::units_per_second / 25, 75 * PTS::units_per_second / 25}};
        Recording r = recording(asked);
        beginSilent(r, "10:00:00:00");
        LabelledStream stream({.gop = 10, .avc = true});
        feed(r, stream, 30);
        stream.jumpTo("10:00:04:05");
        std::vector<CodedFrame> behind = stream.frames(50);
        if (lost)
            behind.erase(behind.begin() + 12);
        feed(r, behind);
        r.sourceEnded(m_now);
        pass(r, 6s);
        if (!lost)
            expectRecorded(r);
        else
            expectFailed(r, "Error: ");
        EXPECT_THAT(r.status().text, HasSubstr("from 10:00:00:20 to 10:00:04:24"));
        EXPECT_THAT(r.status().text, Not(HasSubstr("counted")));
    }
}

// An encoder that labels GOPs only: the frames behind the outage that come in a GOP of before carry labels
// that it counts on from there. Which of them came cannot be known; of those of other GOPs it is.
TEST_F(MezzanineRecording, DoesNotMissFramesBehindAnOutageWhoseLabelsWereCountedOn) {
    for (const bool avc : {false, true})
        for (const int lacks : {3, 8, 75}) // from the 35th frame on
            for (const int lost : {-1, 12, 30}) {
                SCOPED_TRACE(std::to_string(lacks) + (avc ? " avc " : " ") + std::to_string(lost));
                RecordingPlan asked = marks();
                asked.markOut = "10:00:06:00";
                asked.useStreamLabels = true;
                asked.overwrite = true;
                asked.labelsLacking.resize(static_cast<std::size_t>(10 + lacks));
                std::fill(asked.labelsLacking.begin() + 10, asked.labelsLacking.end(), true);
                asked.sourceLeaps = {
                    {(lacks + 1) * PTS::units_per_second / 25, lacks * PTS::units_per_second / 25}};
                Recording r = recording(asked);
                beginSilent(r, "10:00:00:00");
                LabelledStream stream({.gop = 12, .avc = avc, .keysOnly = avc});
                stream.switchAt(35, labelsFrom("10:00:01:10", lacks + 1).back());
                std::vector<CodedFrame> frames = stream.frames(200);
                if (lost >= 0) // in a GOP before the outage or behind it
                    frames.erase(frames.begin() + 20 + lost);
                feed(r, frames);
                r.sourceEnded(m_now);
                pass(r, 6s);
                if (lost >= 0) {
                    expectFailed(r, "Error: ");
                    EXPECT_THAT(r.status().text, HasSubstr("(1 frame between the marks did not come back)"));
                    continue;
                }
                expectRecorded(r);
                EXPECT_THAT(r.status().text, HasSubstr("not known whether all came back"));
            }
}

// Mark-in is less than a GOP behind an outage, and its label was counted on from before that.
class MezzanineBehindAnOutage : public MezzanineRecording {
protected:
    // The outage is behind the 30th frame, in the GOP that begins with the 24th; mark-in is so many frames
    // behind it.
    RecordingPlan marks(int lacks, int behind) {
        const std::vector<std::string> labels = labelsFrom("10:00:01:05", lacks + behind + 60);
        RecordingPlan asked = MezzanineRecording::marks();
        asked.useStreamLabels = true;
        asked.overwrite = true;
        asked.markIn = labels[static_cast<std::size_t>(lacks + behind)];
        asked.markOut = labels.back();
        asked.lackingBefore = behind + 1;
        asked.sourceLeaps = {{(lacks + 1) * PTS::units_per_second / 25, lacks * PTS::units_per_second / 25}};
        return asked;
    }
    std::vector<CodedFrame> frames(int lacks, LabelledShape shape) {
        shape.gop = 12;
        LabelledStream stream(shape);
        stream.switchAt(30, labelsFrom("10:00:01:05", lacks + 1).back());
        return stream.frames(200);
    }
};

TEST_F(MezzanineBehindAnOutage, DoesNotMissFramesWhoseLabelsWereCountedOn) {
    for (const bool avc : {false, true})
        for (const int lacks : {3, 20, 75, 1000})
            for (const int behind : {0, 3, 5})
                for (const int lost : {-1, 45}) {
                    SCOPED_TRACE(std::to_string(lacks) + (avc ? " avc " : " ") + std::to_string(behind) +
                                 " " + std::to_string(lost));
                    Recording r = recording(marks(lacks, behind));
                    beginSilent(r, "10:00:00:00");
                    std::vector<CodedFrame> sent = frames(lacks, {.avc = avc, .keysOnly = avc});
                    const Packets first = sent[static_cast<std::size_t>(30 + behind)].packets;
                    if (lost >= 0) // in a GOP behind the outage
                        sent.erase(sent.begin() + lost);
                    feed(r, sent);
                    r.sourceEnded(m_now);
                    pass(r, 6s);
                    EXPECT_THAT(r.status().text, Not(HasSubstr("missing")));
                    EXPECT_THAT(r.status().text, Not(HasSubstr("before mark-in")));
                    if (lost >= 0) {
                        expectFailed(r, "Error: ");
                        EXPECT_THAT(r.status().text,
                                    HasSubstr("(1 frame between the marks did not come back)"));
                        continue;
                    }
                    expectRecorded(r);
                    EXPECT_THAT(r.status().text, HasSubstr("not known whether all came back"));
                    const Packets file = readPackets(m_file);
                    EXPECT_NE(std::find(file.begin(), file.end(), first.back()), file.end());
                }
}

// Each picture has a label of its own.
TEST_F(MezzanineBehindAnOutage, MissesThemWhereNoneWasCountedOn) {
    for (const int lost : {-1, 30, 33}) {
        SCOPED_TRACE(lost);
        Recording r = recording(marks(75, 0));
        beginSilent(r, "10:00:00:00");
        std::vector<CodedFrame> sent = frames(75, {.avc = true});
        if (lost >= 0)
            sent.erase(sent.begin() + lost);
        feed(r, sent);
        r.sourceEnded(m_now);
        pass(r, 6s);
        EXPECT_THAT(r.status().text, Not(HasSubstr("not known")));
        if (lost < 0)
            expectRecorded(r);
        else
            expectFailed(r, "Error: ");
    }
}

TEST_F(MezzanineBehindAnOutage, DoesNotMissMarkInWhenItIsCancelled) {
    Recording r = recording(marks(75, 3));
    beginSilent(r, "10:00:00:00");
    std::vector<CodedFrame> sent = frames(75, {});
    sent.resize(60);
    feed(r, sent);
    ASSERT_EQ(r.state(), RecordingState::recording);
    r.cancel(m_now);
    EXPECT_THAT(r.status().text, StartsWith("Cancelled after "));
    EXPECT_THAT(r.status().text, Not(HasSubstr("missing")));
}

// An encoder that has a timecode only once counts on from it for a day: each frame is looked at once.
TEST(MarkedRange, KnowsAtOnceWhatIsDoubtedOfADay) {
    constexpr std::int64_t day = 24 * 3600 * 25;
    MarkedRange range("00:00:00:00", "23:59:59:24", false, {true});
    ASSERT_FALSE(range.settle({3, false}));
    range.begin(0, 0);
    range.doubt(day);
    EXPECT_EQ(range.doubted(), day - 1);
    EXPECT_EQ(range.absent(), 0);
    range.doubt(12);
    EXPECT_EQ(range.doubted(), 12);
    EXPECT_EQ(range.absent(), day - 13);
}

// Where the source was cut among B pictures a frame may stand alone between labels of none.
TEST_F(MezzanineRecording, DoesNotMissAFrameThatStandsAloneInAnOutage) {
    RecordingPlan asked = marks();
    asked.useStreamLabels = true;
    asked.labelsLacking.resize(14);
    std::fill(asked.labelsLacking.begin() + 8, asked.labelsLacking.end(), true);
    asked.labelsLacking[10] = false;
    Recording r = recording(asked);
    beginSilent(r, "10:00:00:00");
    LabelledStream stream({.gop = 12, .avc = true});
    stream.switchAt(33, "10:00:01:10");
    stream.switchAt(34, "10:00:01:14");
    feed(r, stream, 80);
    r.sourceEnded(m_now);
    pass(r, 6s);
    expectRecorded(r);
    EXPECT_THAT(r.status().text, HasSubstr("not known whether all came back"));
}

// Whether its timecodes go on with what is played, and whether the decoder does not wait, a count cannot
// know.
TEST_F(MezzanineRecording, CountedOverALeapTellsThatTheMarksMayBeOff) {
    for (const bool leaps : {true, false})
        for (const bool running : {true, false}) {
            RecordingPlan asked = marks();
            asked.overwrite = true;
            if (leaps)
                asked.sourceLeaps = {{3 * PTS::units_per_second, 3 * PTS::units_per_second - 14400}};
            Recording r = recording(asked);
            LabelledStream stream(idle());
            if (running)
                beginRunning(r, stream, "10:00:00:00");
            else
                beginSilent(r, "10:00:00:00");
            feed(r, stream, 120);
            expectRecorded(r);
            const auto told =
                HasSubstr(", the marks may be off: the source's timestamps leap before mark-out");
            if (leaps)
                EXPECT_THAT(r.status().text, told);
            else
                EXPECT_THAT(r.status().text, Not(told));
        }
}

// All labels of the marks lie behind it then.
TEST_F(MezzanineRecording, CountedBehindALeapMissesAFrameBetweenTheMarksAllTheSame) {
    RecordingPlan asked = marks();
    asked.sourceLeaps = {{3 * PTS::units_per_second, 3 * PTS::units_per_second - 14400}};
    Recording r = recording(asked);
    LabelledStream stream(idle());
    beginSilent(r, "10:00:00:00");
    std::vector<CodedFrame> frames = stream.frames(120);
    frames.erase(frames.begin() + 40);
    feed(r, frames);
    r.sourceEnded(m_now);
    pass(r, 6s);
    expectFailed(r, "Error: ");
    EXPECT_THAT(r.status().text, HasSubstr("(1 frame between the marks did not come back)"));
    EXPECT_THAT(r.status().text, HasSubstr("the marks may be off"));
}

// The timecodes go on by the time that was left out: fewer frames than labels are between the marks.
TEST_F(MezzanineRecording, CountedOverALeapMissesNoFramesOfItsTime) {
    for (const bool known : {true, false})
        for (const int more : {0, 25, -5}) { // behind mark-out
            SCOPED_TRACE(more);
            RecordingPlan asked = marks();
            asked.markOut = "10:00:04:24";
            asked.overwrite = true;
            asked.labelsKnown = known;
            if (known) {
                asked.labelsLacking.resize(5 + 75);
                std::fill(asked.labelsLacking.begin() + 5, asked.labelsLacking.end(), true);
            }
            asked.sourceLeaps = {{76 * PTS::units_per_second / 25, 75 * PTS::units_per_second / 25}};
            Recording r = recording(asked);
            LabelledStream stream(idle());
            beginSilent(r, "10:00:00:00");
            feed(r, stream, 50 + more);
            r.sourceEnded(m_now);
            pass(r, 6s);
            EXPECT_THAT(r.status().text, HasSubstr("the marks may be off"));
            if (more >= 0) {
                expectRecorded(r);
                EXPECT_THAT(r.status().text, HasSubstr("not known whether all came back"));
                continue;
            }
            expectFailed(r, "Error: ");
            EXPECT_THAT(r.status().text, HasSubstr("(5 frames between the marks did not come back)"));
        }
}

// The service keeps no more of it than 299 bytes, of each of two encoders no more than half of them.
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
    EXPECT_GT(text.size(), resultsBytes);
    const auto both = [](const std::string& kept) {
        EXPECT_THAT(kept, StartsWith("Recorded 00:00:01:"));
        EXPECT_THAT(kept, HasSubstr(", 0 continuity errors, not known whether all came back: "));
    };
    both(resultsText(std::vector<ResultsPart>{{text, false}}));
    both(resultsText(std::vector<ResultsPart>{{text, false}, {text, false}}));
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
