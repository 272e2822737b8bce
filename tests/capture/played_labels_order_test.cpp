// What comes back of a source by its timecodes, from encoders that code frames in another order than they are
// shown: the last ones of the source behind one that follows them, the first ones behind one that comes
// later.
#include "capture/played_order.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <optional>
#include <set>

using namespace kestrel::capture;
using namespace capture_test;
using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::Not;

namespace {

// An encoder that sends all the time, with a timecode in each picture: the source comes and goes in the
// middle of its GOPs.
class LabelsOfPictures : public PlayedOrder, public testing::WithParamInterface<int> {
protected:
    static LabelledShape shape() {
        LabelledShape result = idle({.bFrames = GetParam(), .avc = true});
        result.gop = 30;
        return result;
    }
};

TEST_P(LabelsOfPictures, AreAllSeenWhereverInAGopTheSourceBegins) {
    for (int first = 80; first < 92; ++first) {
        SCOPED_TRACE(first);
        nextFile();
        Recording r = recording(labelledPlan());
        LabelledStream stream(shape());
        stream.switchAt(first, "10:00:00:00");
        stream.switchAt(first + sourceFrames, "05:00:00:00");
        beginRunning(r, stream, "10:00:00:00");
        feed(r, stream, 120);
        r.sourceEnded(m_now);
        feed(r, stream, 200);
        expectRecorded(r);
        EXPECT_THAT(r.status().text, HasSubstr(" from 10:00:00:00 to 10:00:03:24"));
        EXPECT_THAT(r.status().text, Not(HasSubstr("clock")));
    }
}

TEST_P(LabelsOfPictures, AreAllSeenThoughTheDecoderStandsStillInBetween) {
    for (int first = 80; first < 92; ++first) {
        SCOPED_TRACE(first);
        nextFile();
        Recording r = recording(labelledPlan());
        LabelledStream stream(shape());
        stream.switchAt(first, "10:00:00:00");
        stream.switchAt(first + 60, "10:00:02:09", false);
        stream.switchAt(first + 71, "10:00:02:10");
        stream.switchAt(first + sourceFrames + 11, "05:00:00:00");
        beginRunning(r, stream, "10:00:00:00");
        feed(r, stream, 130);
        r.sourceEnded(m_now);
        feed(r, stream, 200);
        expectRecorded(r);
        EXPECT_THAT(r.status().text, HasSubstr(" to 10:00:03:24"));
    }
}

// A decoder that needs some frames until it shows them.
TEST_P(LabelsOfPictures, TellThatTheFirstFramesDidNotComeBack) {
    for (const int lost : {1, 6, 20}) {
        SCOPED_TRACE(lost);
        nextFile();
        Recording r = recording(labelledPlan());
        LabelledStream stream(shape());
        stream.switchAt(91 + lost, labelsFrom("10:00:00:00", lost + 1).back());
        stream.switchAt(91 + sourceFrames, "05:00:00:00");
        beginRunning(r, stream, "10:00:00:00");
        feed(r, stream, 120);
        r.sourceEnded(m_now);
        feed(r, stream, 200);
        expectFailed(r, "Error: " + std::to_string(sourceFrames - lost) + " of 100 frames came back. ");
    }
}

INSTANTIATE_TEST_SUITE_P(BFrames, LabelsOfPictures, testing::Values(0, 1, 2, 3));

// Of an encoder that sends all the time, with a timecode in each GOP.
class LabelsOfGops : public PlayedOrder {
protected:
    static LabelledShape shape(int gop) {
        LabelledShape result = idle({.bFrames = 2});
        result.gop = gop;
        return result;
    }
    void run(Recording& r, LabelledStream& stream) {
        beginRunning(r, stream, "10:00:00:00");
        feed(r, stream, 160);
        r.sourceEnded(m_now);
        feed(r, stream, 200);
    }
};

// They do not tell whether those in the GOP that was open came back.
TEST_F(LabelsOfGops, SayWhichFramesAreTheSourcesByTheClock) {
    Recording r = recording(labelledPlan());
    LabelledStream stream(shape(40));
    stream.switchAt(81, "10:00:00:00");
    stream.switchAt(81 + sourceFrames, "05:00:00:00");
    run(r, stream);
    expectRecorded(r);
    EXPECT_THAT(r.status().text, HasSubstr(", by the source's timecodes from 10:00:00:00 to 10:00:03:24, "
                                           "those before 10:00:01:14 by the clock, 1 frame before"));
}

TEST_F(LabelsOfGops, SayNothingOfTheClockWhereTheFirstFrameHasALabel) {
    Recording r = recording(labelledPlan());
    LabelledStream stream(shape(40));
    stream.switchAt(80, "10:00:00:00");
    stream.switchAt(80 + sourceFrames, "05:00:00:00");
    run(r, stream);
    expectRecorded(r);
    EXPECT_THAT(r.status().text, Not(HasSubstr("clock")));
}

// A GOP that begins with another label does not begin with a frame of the source.
TEST_F(LabelsOfGops, TellThatFramesDidNotComeBackInTheGopsBehindIt) {
    Recording r = recording(labelledPlan());
    LabelledStream stream(shape(10));
    stream.switchAt(81 + 25, "10:00:01:00");
    stream.switchAt(81 + sourceFrames, "05:00:00:00");
    run(r, stream);
    expectFailed(r, "Error: 80 of 100 frames came back for certain. ");
    EXPECT_THAT(r.status().text, HasSubstr(", those before 10:00:00:09 by the clock, "));
}

// Wherever in a GOP of 15 the source begins, to a running encoder that passes its timecodes on.
class LabelsOfOpenGops : public LabelsOfGops {
protected:
    void expectTheSources(LabelledShape shape) {
        shape.gop = 15;
        for (int first = 80; first < 95; ++first) {
            SCOPED_TRACE(std::to_string(shape.bFrames) + " B from " + std::to_string(first));
            nextFile();
            Recording r = recording(labelledPlan());
            LabelledStream stream(shape);
            stream.switchAt(first, "10:00:00:00");
            stream.switchAt(first + sourceFrames, "05:00:00:00");
            run(r, stream);
            expectRecorded(r);
            EXPECT_THAT(r.status().text, HasSubstr(" from 10:00:00:00 to 10:00:03:24"));
        }
    }
};

// The source's first frame may be shown before its first coded picture, behind another's.
TEST_F(LabelsOfOpenGops, AreTheSourcesWhereverInOneItBegins) {
    for (const int bFrames : {1, 2, 3})
        expectTheSources(idle({.bFrames = bFrames, .open = true}));
}

// Of H.264 with a timecode in each key picture only.
TEST_F(LabelsOfOpenGops, OfKeyPicturesTellTheLastFrameThoughItIsCodedBehindAnotherKey) {
    expectTheSources(idle({.bFrames = 2, .open = true, .avc = true, .keysOnly = true}));
}

// The decoder goes on in the middle of a GOP: what is left of that has no label of the source.
TEST_F(LabelsOfGops, SayHowManyFramesAreTheSourcesForCertain) {
    Recording r = recording(labelledPlan());
    LabelledStream stream(shape(10));
    stream.switchAt(80, "10:00:00:00");
    stream.switchAt(80 + 60, "10:00:02:09", false);
    stream.switchAt(80 + 85, "10:00:02:10");
    stream.switchAt(80 + sourceFrames + 25, "05:00:00:00");
    run(r, stream);
    expectFailed(r, "Error: 95 of 100 frames came back for certain. ");
    EXPECT_GE(fileFrames(), 125U);
}

// An encoder that waits for the source, with timecodes: its decoder shows other pictures first, or its first
// one for longer.
class OthersFirst : public PlayedOrder, public testing::WithParamInterface<LabelledShape> {
protected:
    enum class Before { still, running, held };
    // Feeds the source's frames behind so many others, without those of the given labels.
    void run(int others, Before before, const std::vector<std::string>& lost = {},
             int frames = sourceFrames) {
        nextFile();
        m_now = Clock::time_point(std::chrono::seconds(1000 + 100 * m_recordings));
        RecordingPlan asked = plan("10:00:00:00", labelsFrom("10:00:00:00", frames).back());
        asked.wantedFrames = asked.labelledFrames = static_cast<std::uint64_t>(frames);
        m_made.emplace(recording(asked));
        beginSilent(*m_made, "10:00:00:00");
        m_now += 700ms;
        LabelledShape shape = GetParam();
        shape.timecode = "00:00:00:00";
        shape.gop = 15;
        LabelledStream stream(shape);
        if (before != Before::running)
            stream.switchAt(0, before == Before::held ? "10:00:00:00" : "00:00:00:00", false);
        stream.switchAt(others, "10:00:00:00");
        stream.switchAt(others + frames, labelsFrom("10:00:00:00", frames).back(), false);
        std::vector<CodedFrame> fed = stream.frames(others + 400);
        std::erase_if(fed, [&lost](const CodedFrame& frame) {
            return std::find(lost.begin(), lost.end(), frame.label) != lost.end();
        });
        const std::vector<CodedFrame> played(fed.begin(), fed.begin() + frames);
        feed(*m_made, played);
        m_made->sourceEnded(m_now);
        feed(*m_made, {fed.begin() + frames, fed.end()});
        m_there = recordedOf(fed);
    }
    Recording& made() { return *m_made; }
    std::optional<Recording> m_made;
    std::vector<std::string> m_there;
};

TEST_P(OthersFirst, TheLastFrameIsInTheFileAndTheOthersAreNotCounted) {
    for (const Before before : {Before::still, Before::running, Before::held})
        for (int others = 1; others < 46; others += 2) {
            SCOPED_TRACE(std::to_string(others) + " others, kind " +
                         std::to_string(static_cast<int>(before)));
            run(others, before);
            expectRecorded(made());
            EXPECT_THAT(m_there, testing::IsSupersetOf(labelsFrom("10:00:00:00", sourceFrames)));
            EXPECT_LE(fileFrames(), static_cast<std::size_t>(others + sourceFrames + 20));
            if (others <= GetParam().bFrames)
                continue; // the first that is coded may be the source's
            EXPECT_THAT(made().status().text,
                        HasSubstr("by the source's timecodes from 10:00:00:00 to 10:00:03:24"));
            EXPECT_THAT(made().status().text, HasSubstr(", " + std::to_string(others) + " frame"));
        }
}

TEST_P(OthersFirst, DoNotStandForFramesThatWereLost) {
    for (const int others : {4, 12, 30}) {
        SCOPED_TRACE(others);
        run(others, Before::running, {"10:00:03:22", "10:00:03:23"});
        expectFailed(made(), "Error: ");
        EXPECT_THAT(made().status().text, HasSubstr(" of 100 frames came back"));
    }
}

// Its timecodes have not gone on yet when as many frames as the source has are there.
TEST_P(OthersFirst, OfAShortSourceTheTimecodesAreWaitedFor) {
    for (int others = 2; others < 15; ++others) {
        SCOPED_TRACE(others);
        run(others, Before::running, {}, 30);
        expectRecorded(made());
        EXPECT_THAT(m_there, testing::IsSupersetOf(labelsFrom("10:00:00:00", 30)));
    }
}

INSTANTIATE_TEST_SUITE_P(Encoders, OthersFirst,
                         testing::Values(LabelledShape{.bFrames = 0}, LabelledShape{.bFrames = 2},
                                         LabelledShape{.bFrames = 2, .open = true},
                                         LabelledShape{.bFrames = 3, .open = true},
                                         LabelledShape{.bFrames = 2, .avc = true},
                                         LabelledShape{.bFrames = 3, .open = true, .avc = true}),
                         [](const auto& shape) { return nameOf(shape.param); });

// An encoder that waits for the source may begin before it knows the timecode: its first frame is the
// source's.
TEST_F(PlayedOrder, OfAnEncoderThatWaitsTheFirstFramesMayLackTheirTimecodes) {
    for (const bool avc : {false, true}) {
        nextFile();
        Recording r = recording(labelledPlan());
        beginSilent(r, "10:00:00:00");
        LabelledShape shape = idle({.bFrames = 2, .avc = avc});
        LabelledStream stream(shape);
        stream.switchAt(avc ? 4 : 10, avc ? "10:00:00:04" : "10:00:00:10");
        stream.switchAt(sourceFrames, "05:00:00:00");
        feed(r, stream, sourceFrames);
        r.sourceEnded(m_now);
        feed(r, stream, 200);
        expectRecorded(r);
        EXPECT_THAT(r.status().text, HasSubstr(avc ? "those before 10:00:00:04 by the clock"
                                                   : "those before 10:00:00:10 by the clock"));
        EXPECT_LE(fileFrames(), 103U);
    }
}

// At the double rates a timecode may count pairs of frames, as that of a deck does.
struct PairShape {
    bool avc = false;
    int gop = 12;
    bool source = false; // that of the source does, too
};

class LabelsInPairs : public PlayedOrder, public testing::WithParamInterface<PairShape> {
protected:
    static constexpr int frames = 203;
    static LabelledShape shape() {
        LabelledShape result;
        result.rateCode = 6;
        result.gop = GetParam().gop;
        result.bFrames = 2;
        result.avc = GetParam().avc;
        result.timecode = "20:00:00:00";
        return result;
    }
    static std::string paired(int frame) { return format("10:00:%02d:%02d", frame / 50, frame % 50 / 2); }
    RecordingPlan pairPlan() {
        RecordingPlan asked = plan("10:00:00:00", GetParam().source ? paired(frames - 1) : "10:00:04:02");
        asked.sourceRateCode = 6;
        asked.wantedFrames = frames;
        asked.labelledFrames = GetParam().source ? frames - 1 : frames;
        m_frameTime = 20ms;
        return asked;
    }
    // Each of these frames has the timecode of its pair.
    static LabelledStream inPairs(int from, int count) {
        LabelledStream stream(shape());
        for (int i = 0; i < count; ++i)
            stream.switchAt(from + i, paired(i), false);
        return stream;
    }
};

TEST_P(LabelsInPairs, OfAnEncoderThatWaitsAreCounted) {
    for (const bool goesOn : {false, true}) {
        SCOPED_TRACE(goesOn);
        nextFile();
        Recording r = recording(pairPlan());
        beginSilent(r, "10:00:00:00");
        m_now += 600ms;
        LabelledStream stream = inPairs(0, frames);
        std::vector<CodedFrame> fed = stream.frames(600);
        if (!goesOn) // each of the source, and what is coded before it
            fed.resize(static_cast<std::size_t>(frames) + 2);
        feed(r, fed);
        r.sourceEnded(m_now);
        pass(r, 6s);
        expectRecorded(r);
        EXPECT_THAT(r.status().text, Not(HasSubstr("frames before")));
        const std::size_t there = recordedOf(fed).size();
        EXPECT_GE(there, static_cast<std::size_t>(frames));
        EXPECT_LE(there, static_cast<std::size_t>(frames + 60));
    }
}

TEST_P(LabelsInPairs, OfAnEncoderThatRunsAreAllRecorded) {
    for (int first = 140; first < 146; ++first) {
        SCOPED_TRACE(first);
        nextFile();
        Recording r = recording(pairPlan());
        LabelledStream stream = inPairs(first, frames);
        stream.switchAt(first + frames, "05:00:00:00");
        beginRunning(r, stream, "10:00:00:00");
        std::vector<CodedFrame> fed = stream.frames(first + frames - 75);
        feed(r, fed);
        r.sourceEnded(m_now);
        const std::vector<CodedFrame> rest = stream.frames(300);
        feed(r, rest);
        expectRecorded(r);
        fed.insert(fed.end(), rest.begin(), rest.end());
        std::set<std::string> pairs;
        for (int i = 0; i < frames; ++i)
            pairs.insert(paired(i));
        EXPECT_THAT(recordedOf(fed), testing::IsSupersetOf(pairs));
    }
}

TEST_P(LabelsInPairs, DoNotHideThatFramesWereLost) {
    Recording r = recording(pairPlan());
    beginSilent(r, "10:00:00:00");
    m_now += 600ms;
    LabelledStream stream = inPairs(0, frames);
    std::vector<CodedFrame> fed = stream.frames(frames - 20);
    feed(r, fed);
    r.sourceEnded(m_now);
    pass(r, 6s);
    expectFailed(r, "Error: " + std::to_string(frames - 20) + " of 203 frames came back. ");
}

INSTANTIATE_TEST_SUITE_P(Encoders, LabelsInPairs,
                         testing::Values(PairShape{false, 12, false}, PairShape{false, 15, false},
                                         PairShape{false, 25, true}, PairShape{false, 12, true},
                                         PairShape{true, 12, false}, PairShape{true, 25, true}),
                         [](const auto& shape) {
                             return std::string(shape.param.avc ? "H264" : "Mpeg2") + "InGopsOf" +
                                    std::to_string(shape.param.gop) + (shape.param.source ? "OfASource" : "");
                         });

// A source whose first GOP is open, and counts from zero with the frames that cannot be shown: an encoder
// that counts by itself from zero labels the first that is.
TEST_F(PlayedOrder, AnEncoderThatCountsFromZeroHasAllOfASourceThatBeginsWithAnOpenGop) {
    for (const bool avc : {false, true})
        for (const int lost : {0, 1}) {
            SCOPED_TRACE((avc ? "H264 " : "MPEG-2 ") + std::to_string(lost));
            nextFile();
            RecordingPlan asked = plan("00:00:00:02", "00:00:04:01");
            asked.wantedFrames = 102;
            asked.hiddenFrames = 2;
            Recording r = recording(asked);
            beginSilent(r, "00:00:00:02");
            m_now += 600ms;
            LabelledStream stream({.timecode = "00:00:00:00", .gop = 15, .bFrames = 0, .avc = avc});
            feed(r, stream, sourceFrames - lost);
            r.sourceEnded(m_now);
            pass(r, 6s);
            if (lost == 0)
                expectRecorded(r);
            else
                expectFailed(r, "Error: 97 of 100 frames came back");
        }
}

} // namespace
