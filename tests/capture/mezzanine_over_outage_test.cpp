// Mezzanines whose marks lie on both sides of an outage of the source's timecodes.
#include "capture/mezzanine_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace kestrel::capture;
using namespace capture_test;
using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::Not;

namespace {

// The outage is behind the 30th frame: what the recorder says of a return whose frames come, but for some.
class MezzanineOverAnOutage : public MezzanineRecording {
protected:
    // From one mark to so many frames behind the outage.
    RecordingPlan upTo(int lacks, int frames) {
        RecordingPlan asked = marks();
        asked.useStreamLabels = true;
        asked.overwrite = true;
        asked.markIn = "10:00:00:15";
        asked.markOut = labelsFrom("10:00:01:05", lacks + frames).back();
        lack(asked, 15, lacks);
        asked.sourceLeaps = {leapOver(lacks)};
        return asked;
    }
    static std::vector<CodedFrame> frames(int lacks, LabelledShape shape, int count) {
        LabelledStream stream(shape);
        stream.switchAt(30, labelsFrom("10:00:01:05", lacks + 1).back());
        return stream.frames(count);
    }
    // With the text that tells of what is missing, "not known" or nothing.
    std::string said(const RecordingPlan& asked, const std::vector<CodedFrame>& sent) {
        Recording r = recording(asked);
        beginSilent(r, "10:00:00:00");
        feed(r, sent);
        r.sourceEnded(m_now);
        pass(r, 12s);
        const std::string text = r.status().text;
        if (r.status().succeeded)
            return text.find("not known whether all came back") != std::string::npos ? "not known" : "";
        const std::size_t begin = text.find('(') + 1;
        return text.substr(begin, text.find(')') - begin);
    }
};

// Mark-out is in the GOP that was open over the outage, whose timecode goes from before it to behind it, or
// in the next, whose timecode the next but one confirms.
TEST_F(MezzanineOverAnOutage, KnowsAMarkOutBehindIt) {
    for (const int lacks : {3, 5, 20, 75, 1000})
        for (const int behind : {1, 4, 7, 11, 18}) {
            SCOPED_TRACE(std::to_string(lacks) + " " + std::to_string(behind));
            // Where the count reaches mark-out before the next timecode, it cannot be told what it went over.
            const bool reached = lacks == 3 && behind == 1;
            EXPECT_EQ(said(upTo(lacks, behind), frames(lacks, {.gop = 12}, 200)), reached ? "not known" : "");
        }
}

TEST_F(MezzanineOverAnOutage, DoesNotCallWhatWasCountedOnToMarkOutComplete) {
    std::vector<CodedFrame> sent = frames(3, {.gop = 12}, 200);
    sent.erase(sent.begin() + 30, sent.begin() + 32);
    EXPECT_EQ(said(upTo(3, 1), sent), "not known");
    EXPECT_EQ(said(upTo(3, 3), sent), "2 frames between the marks did not come back");
}

TEST_F(MezzanineOverAnOutage, OfALongGopTellsWhatIsCertain) {
    for (const int lacks : {3, 25}) {
        SCOPED_TRACE(lacks);
        std::vector<CodedFrame> sent = frames(lacks, {.gop = 48}, 200);
        EXPECT_THAT(said(upTo(lacks, 3), sent), testing::AnyOf("", "not known"));
        sent.erase(sent.begin() + 30, sent.begin() + 40);
        EXPECT_EQ(said(upTo(lacks, 3), sent), "at least 3 frames between the marks did not come back");
    }
}

// No second timecode shows then that its labels are the source's.
TEST_F(MezzanineOverAnOutage, DoesNotMissWhatEndsBeforeItsTimecodeIsConfirmed) {
    for (const bool avc : {false, true})
        for (const int behind : {1, 7, 11, 16})
            for (const int more : {0, 2}) {
                SCOPED_TRACE(std::to_string(behind) + (avc ? " avc " : " ") + std::to_string(more));
                EXPECT_THAT(said(upTo(75, behind), frames(75, {.gop = 12, .avc = avc}, 30 + behind + more)),
                            testing::AnyOf("", "not known"));
            }
}

// Nor where both marks are in the first GOP of the source, before the outage.
TEST_F(MezzanineOverAnOutage, DoesNotMissWhatHasTheOnlyTimecodeBeforeIt) {
    RecordingPlan asked = upTo(20, 1);
    asked.markIn = "10:00:00:03";
    asked.markOut = "10:00:00:18";
    asked.labelsLacking.clear();
    EXPECT_EQ(said(asked, frames(20, {.gop = 36}, 200)), "not known");
}

// An encoder that ran before the source came gives its first frames no timecode of the source's: they are
// placed by one that may be behind the outage.
TEST_F(MezzanineOverAnOutage, DoesNotMissWhatCameBeforeTheFirstTimecode) {
    for (const int gop : {48, 50, 60}) { // the source begins with the 76th frame
        SCOPED_TRACE(gop);
        LabelledStream stream({.timecode = "05:00:00:00", .gop = gop});
        stream.switchAt(75, "10:00:00:00");
        stream.switchAt(105, labelsFrom("10:00:01:05", 21).back());
        RecordingPlan asked = upTo(20, 50);
        asked.markIn = "10:00:00:05";
        asked.labelsLacking.clear();
        lack(asked, 25, 20);
        Recording r = recording(asked);
        beginRunning(r, stream, "10:00:00:00");
        feed(r, stream, 300);
        r.sourceEnded(m_now);
        pass(r, 12s);
        expectRecorded(r);
        EXPECT_THAT(r.status().text, Not(HasSubstr("missing")));
    }
}

TEST_F(MezzanineOverAnOutage, WithLabelsThatAreNotKnownMissesNoneThatALeapMayHaveLeftOut) {
    for (const int behind : {1, 4, 7, 18}) {
        SCOPED_TRACE(behind);
        RecordingPlan asked = upTo(75, behind);
        asked.labelsKnown = false;
        asked.labelsLacking.clear();
        EXPECT_EQ(said(asked, frames(75, {.gop = 12}, 200)), "not known");
    }
}

// Of H.264 with B pictures those before mark-out are still to come when the first behind the leap does.
TEST_F(MezzanineOverAnOutage, HasAllBeforeALeapBehindMarkOut) {
    for (const bool open : {false, true})
        for (const bool keysOnly : {false, true})
            for (const char* const markOut : {"10:00:01:03", "10:00:01:04"})
                for (const int lacks : {75, 1000}) {
                    SCOPED_TRACE(std::string(markOut) + " " + std::to_string(lacks));
                    RecordingPlan asked = upTo(lacks, 1);
                    asked.markOut = markOut;
                    asked.labelsLacking.clear();
                    EXPECT_EQ(
                        said(
                            asked,
                            frames(lacks,
                                   {.gop = 12, .bFrames = 2, .open = open, .avc = true, .keysOnly = keysOnly},
                                   200)),
                        "");
                }
}

// B pictures that are shown before a key picture are coded behind it and counted back from its timecode, over
// an outage too.
TEST_F(MezzanineOverAnOutage, DoesNotMissBPicturesThatWereCountedBack) {
    for (int gop = 8; gop <= 16; ++gop)
        for (const bool keysOnly : {false, true}) {
            SCOPED_TRACE(gop);
            const LabelledShape shape{
                .gop = gop, .bFrames = 2, .open = true, .avc = true, .keysOnly = keysOnly};
            EXPECT_THAT(said(upTo(12, 40), frames(12, shape, 200)), testing::AnyOf("", "not known"));
        }
}

// Frames that are lost on the way make a group no shorter.
TEST_F(MezzanineOverAnOutage, CountsWhatIsLostInEachGop) {
    const int lacks = 75;
    RecordingPlan asked = upTo(lacks, 42);
    std::vector<CodedFrame> sent = frames(lacks, {.gop = 12}, 96);
    EXPECT_EQ(said(asked, sent), "");
    for (int gop = 84; gop >= 0; gop -= 12)
        sent.erase(sent.begin() + gop + 2);
    EXPECT_EQ(said(asked, sent), "4 frames between the marks did not come back");
}

// What an encoder sends without timecodes behind it makes no group longer.
TEST_F(MezzanineOverAnOutage, MissesWhatOthersFollow) {
    for (const bool timecodes : {true, false}) {
        SCOPED_TRACE(timecodes);
        std::vector<CodedFrame> sent = frames(75, {.gop = 12}, 28);
        LabelledStream others(
            {.timecode = "01:00:00:00", .gop = 12, .timecodes = timecodes, .gopHeaders = timecodes});
        for (CodedFrame& other : others.frames(200)) {
            delay(other, 100 * 3600);
            sent.push_back(other);
        }
        EXPECT_EQ(said(upTo(75, 76), sent), "at least 72 frames between the marks did not come back");
    }
}

// Pictures that are shown before one that came may still be to come.
TEST_F(MezzanineOverAnOutage, MissesNoneThatWasStillToComeWhenItIsCancelled) {
    for (const char* const markOut : {"10:00:01:03", "10:00:01:04"})
        for (int came = 26; came < 32; ++came) {
            SCOPED_TRACE(markOut + std::string(" ") + std::to_string(came));
            RecordingPlan asked = upTo(75, 1);
            asked.markOut = markOut;
            asked.labelsLacking.clear();
            Recording r = recording(asked);
            beginSilent(r, "10:00:00:00");
            feed(r, frames(75, {.gop = 15, .bFrames = 2, .avc = true}, came));
            r.cancel(m_now);
            EXPECT_TRUE(r.status().succeeded) << r.status().text;
        }
}

} // namespace
