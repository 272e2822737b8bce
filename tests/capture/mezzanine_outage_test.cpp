// Mezzanines of sources that have no frame for some timecodes.
#include "capture/mezzanine_fixture.h"

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

// Which timecodes the source has no frame for is known; the others are all looked for.
TEST_F(MezzanineRecording, OfASourceThatIsKnownToLackFramesHasAllOthers) {
    for (const int lost : {-1, 4, 16, 23})
        for (const int lacks : {10, 19}) { // five from there on
            SCOPED_TRACE(std::to_string(lost) + " without " + std::to_string(lacks));
            RecordingPlan asked = marks();
            asked.useStreamLabels = true;
            asked.overwrite = true;
            lack(asked, lacks, 5);
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
        lack(asked, 5, 75);
        asked.sourceLeaps = {leapOver(75)};
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
// that it counts on from there. Which of them came the next timecode tells.
TEST_F(MezzanineRecording, KnowsFramesBehindAnOutageWhoseLabelsWereCountedOn) {
    for (const bool avc : {false, true})
        for (const int lacks : {3, 8, 75}) // from the 35th frame on
            for (const int lost : {-1, 12, 14, 15, 30}) {
                SCOPED_TRACE(std::to_string(lacks) + (avc ? " avc " : " ") + std::to_string(lost));
                RecordingPlan asked = marks();
                asked.markOut = "10:00:06:00";
                asked.useStreamLabels = true;
                asked.overwrite = true;
                lack(asked, 10, lacks);
                asked.sourceLeaps = {leapOver(lacks)};
                Recording r = recording(asked);
                beginSilent(r, "10:00:00:00");
                LabelledStream stream({.gop = 12, .avc = avc, .keysOnly = avc});
                stream.switchAt(35, labelsFrom("10:00:01:10", lacks + 1).back());
                std::vector<CodedFrame> frames = stream.frames(200);
                if (lost >= 0) // in a GOP before the outage, over it, or behind it
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
                EXPECT_THAT(r.status().text, Not(HasSubstr("not known")));
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
        asked.sourceLeaps = {leapOver(lacks)};
        return asked;
    }
    std::vector<CodedFrame> frames(int lacks, LabelledShape shape) {
        shape.gop = 12;
        LabelledStream stream(shape);
        stream.switchAt(30, labelsFrom("10:00:01:05", lacks + 1).back());
        return stream.frames(200);
    }
};

TEST_F(MezzanineBehindAnOutage, KnowsFramesWhoseLabelsWereCountedOn) {
    for (const bool avc : {false, true})
        for (const int lacks : {3, 20, 75, 1000})
            for (const int behind : {0, 3, 5})
                for (const int lost : {-1, 29, 30, 35, 45}) {
                    SCOPED_TRACE(std::to_string(lacks) + (avc ? " avc " : " ") + std::to_string(behind) +
                                 " " + std::to_string(lost));
                    Recording r = recording(marks(lacks, behind));
                    beginSilent(r, "10:00:00:00");
                    std::vector<CodedFrame> sent = frames(lacks, {.avc = avc, .keysOnly = avc});
                    const Packets first = sent[static_cast<std::size_t>(30 + behind)].packets;
                    if (lost >= 0) // before the outage, or behind it in the same GOP or the next
                        sent.erase(sent.begin() + lost);
                    feed(r, sent);
                    r.sourceEnded(m_now);
                    pass(r, 6s);
                    EXPECT_THAT(r.status().text, Not(HasSubstr("before mark-in")));
                    EXPECT_THAT(r.status().text, Not(HasSubstr("not known")));
                    if (lost >= 30 + behind) {
                        EXPECT_EQ(r.status().text.find("the frame at mark-in is missing") !=
                                      std::string::npos,
                                  lost == 30 + behind);
                        expectFailed(r, "Error: ");
                        EXPECT_THAT(r.status().text,
                                    HasSubstr("(1 frame between the marks did not come back)"));
                        continue;
                    }
                    expectRecorded(r);
                    EXPECT_THAT(r.status().text, Not(HasSubstr("missing")));
                    const Packets file = readPackets(m_file);
                    EXPECT_NE(std::find(file.begin(), file.end(), first.back()), file.end());
                }
}

// The last GOP that came had ended before the outage.
TEST_F(MezzanineBehindAnOutage, MissesWholeGopsThatAreLost) {
    for (const int lacks : {3, 20, 75, 1000})
        for (const int to : {36, 48}) {
            SCOPED_TRACE(std::to_string(lacks) + " to " + std::to_string(to));
            Recording r = recording(marks(lacks, 3));
            beginSilent(r, "10:00:00:00");
            std::vector<CodedFrame> sent = frames(lacks, {});
            sent.erase(sent.begin() + 24, sent.begin() + to);
            feed(r, sent);
            r.sourceEnded(m_now);
            pass(r, 6s);
            expectFailed(r, "Error: ");
            EXPECT_THAT(r.status().text, HasSubstr("(" + std::to_string(to - 33) +
                                                   " frames between the marks did not come back)"));
            EXPECT_THAT(r.status().text, HasSubstr("the frame at mark-in is missing"));
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

// Labels of no frame take no time: it has passed all the same.
TEST_F(MezzanineBehindAnOutage, MissesItsLastFramesWhenItIsCancelledBehindThem) {
    for (const bool known : {true, false}) // all of the GOP over the outage
        for (const int lacks : {3, 1000}) {
            SCOPED_TRACE(lacks);
            Recording r = recording(marks(lacks, 2));
            beginSilent(r, "10:00:00:00");
            std::vector<CodedFrame> sent = frames(lacks, {});
            sent.resize(72);
            feed(r, sent);
            r.sourceEnded(m_now);
            LabelledStream others({.timecode = "01:00:00:00"});
            feed(r, others, known ? 60 : 10);
            ASSERT_EQ(r.state(), RecordingState::recording);
            r.cancel(m_now);
            if (!known) {
                EXPECT_THAT(r.status().text, StartsWith("Cancelled after "));
                continue;
            }
            expectFailed(r, "Error: ");
            EXPECT_THAT(r.status().text, HasSubstr("(20 frames between the marks did not come back)"));
        }
}

// Likewise over an outage between the marks, in a later GOP than mark-in's.
TEST_F(MezzanineRecording, MissesItsLastFramesWhenItIsCancelledBehindThem) {
    for (const int lacks : {3, 75, 1000}) {
        SCOPED_TRACE(lacks);
        const std::vector<std::string> labels = labelsFrom("10:00:01:05", lacks + 60);
        RecordingPlan asked = marks();
        asked.useStreamLabels = true;
        asked.overwrite = true;
        asked.markIn = "10:00:00:05";
        asked.markOut = labels.back(); // the 90th frame
        lack(asked, 25, lacks);
        asked.sourceLeaps = {leapOver(lacks)};
        Recording r = recording(asked);
        beginSilent(r, "10:00:00:00");
        LabelledStream stream({.gop = 12});
        stream.switchAt(30, labels[static_cast<std::size_t>(lacks)]);
        feed(r, stream, 70);
        r.sourceEnded(m_now);
        LabelledStream others({.timecode = "01:00:00:00"});
        feed(r, others, 60);
        ASSERT_EQ(r.state(), RecordingState::recording);
        r.cancel(m_now);
        expectFailed(r, "Error: ");
        EXPECT_THAT(r.status().text, HasSubstr("(20 frames between the marks did not come back)"));
    }
}

// Behind mark-out it takes nothing from the time of what is before.
TEST_F(MezzanineRecording, MissesFramesBeforeAnOutageBehindMarkOut) {
    RecordingPlan asked = marks();
    asked.useStreamLabels = true;
    asked.markIn = "10:00:00:05";
    asked.markOut = "10:00:01:02"; // three before it
    asked.sourceLeaps = {leapOver(1000)};
    Recording r = recording(asked);
    beginSilent(r, "10:00:00:00");
    LabelledStream stream({.gop = 12});
    stream.switchAt(30, labelsFrom("10:00:01:05", 1001).back());
    std::vector<CodedFrame> frames = stream.frames(100);
    frames.erase(frames.begin() + 26, frames.begin() + 36);
    feed(r, frames);
    expectFailed(r, "Error: ");
    EXPECT_THAT(r.status().text, HasSubstr("(2 frames between the marks did not come back)"));
}

// A timecode that came behind the outage shows that those behind it were not counted on over that.
TEST_F(MezzanineRecording, MissesFramesBehindATimecodeThatCameBehindAnOutage) {
    for (const int lost : {1, 7}) {
        RecordingPlan asked = marks();
        asked.useStreamLabels = true;
        asked.overwrite = true;
        asked.markIn = "10:00:02:00";
        asked.markOut = "10:00:08:00";
        asked.lackingBefore = 5; // the timecode of the GOP comes two before
        Recording r = recording(asked);
        beginSilent(r, "10:00:00:00");
        LabelledStream stream({.gop = 12});
        std::vector<CodedFrame> frames = stream.frames(300);
        frames.erase(frames.begin() + 50, frames.begin() + 50 + lost);
        feed(r, frames);
        r.sourceEnded(m_now);
        pass(r, 12s);
        expectFailed(r, "Error: ");
        EXPECT_THAT(r.status().text, HasSubstr(std::to_string(lost) + (lost > 1 ? " frames" : " frame") +
                                               " between the marks did not come back"));
        EXPECT_THAT(r.status().text, HasSubstr(", the frame at mark-in is missing"));
        EXPECT_THAT(r.status().text, Not(HasSubstr("not known")));
    }
}

// Its GOP is not confirmed yet.
TEST_F(MezzanineBehindAnOutage, DoesNotMissMarkInOfTheFirstGopBehindItWhenItIsCancelled) {
    for (const bool avc : {false, true}) {
        Recording r = recording(marks(75, 8));
        beginSilent(r, "10:00:00:00");
        std::vector<CodedFrame> sent = frames(75, {.avc = avc, .keysOnly = avc});
        sent.resize(44);
        feed(r, sent);
        r.cancel(m_now);
        EXPECT_THAT(r.status().text, StartsWith("Cancelled after "));
        EXPECT_THAT(r.status().text, Not(HasSubstr("missing")));
    }
}

// Where the source was cut among B pictures a frame may stand alone between labels of none.
TEST_F(MezzanineRecording, DoesNotMissAFrameThatStandsAloneInAnOutage) {
    RecordingPlan asked = marks();
    asked.useStreamLabels = true;
    lack(asked, 8, 6);
    asked.labelsLacking[10] = false;
    asked.sourceLeaps = {leapOver(2), leapOver(3)};
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

} // namespace
