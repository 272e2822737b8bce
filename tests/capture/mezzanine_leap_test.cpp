// Mezzanines whose frames are counted over a leap of the source's timestamps.
#include "capture/mezzanine_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace kestrel::capture;
using namespace capture_test;
using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::Not;

namespace {

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
            begin(r, stream, running);
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
            if (known)
                lack(asked, 5, 75);
            asked.sourceLeaps = {leapOver(75)};
            Recording r = recording(asked);
            LabelledStream stream(idle());
            beginSilent(r, "10:00:00:00");
            feed(r, stream, 50 + more);
            r.sourceEnded(m_now);
            pass(r, 6s);
            EXPECT_THAT(r.status().text, HasSubstr("the marks may be off"));
            EXPECT_THAT(r.status().text, Not(HasSubstr("mark-out is missing")));
            if (more >= 0) {
                expectRecorded(r);
                EXPECT_THAT(r.status().text, HasSubstr("not known whether all came back"));
                continue;
            }
            expectFailed(r, "Error: ");
            EXPECT_THAT(r.status().text, HasSubstr("(5 frames between the marks did not come back)"));
        }
}

// No more than those: not such as a leap before mark-in takes, or one that is longer than there is room.
TEST_F(MezzanineRecording, CountedOverALeapMissesWhatOtherLeapsDoNotLeaveOut) {
    struct Case {
        std::vector<SourceLeap> leaps;
        std::size_t before;
        bool known;
        int lacks; // from the sixth label on
        int sent;
        std::string text;
    };
    const std::vector<Case> cases{
        {{leapOver(7200 * 25)}, 1, true, 1, 30, "(220 frames between the marks did not come back)"},
        {{leapOver(7200 * 25)}, 0, true, 1, 30, "(220 frames between the marks did not come back)"},
        // Of a film, whose labels lack all along.
        {{leapOver(30)}, 1, true, 40, 206, "(45 frames between the marks did not come back)"},
        {{leapOver(7200 * 25)}, 0, false, 0, 30, "(221 frames between the marks did not come back)"},
        {{leapOver(99), leapOver(3)}, 1, true, 3, 151, "(97 frames between the marks may be missing)"},
        {{leapOver(99), leapOver(3)}, 1, false, 0, 151, "(97 frames between the marks may be missing)"},
    };
    for (const Case& one : cases) {
        SCOPED_TRACE(one.text);
        RecordingPlan asked = marks();
        asked.markOut = "10:00:10:00";
        asked.overwrite = true;
        asked.labelsKnown = one.known;
        if (one.lacks > 0)
            lack(asked, 5, one.lacks);
        asked.sourceLeaps = one.leaps;
        asked.leapsBefore = one.before;
        Recording r = recording(asked);
        LabelledStream stream(idle());
        beginSilent(r, "10:00:00:00");
        feed(r, stream, one.sent);
        r.sourceEnded(m_now);
        pass(r, 6s);
        expectFailed(r, "Error: ");
        EXPECT_THAT(r.status().text, HasSubstr(one.text));
    }
}

// The clock shows them, whatever comes behind mark-out.
TEST_F(MezzanineRecording, CountedOverALeapMissesFramesInTheMiddle) {
    for (const bool more : {false, true}) {
        RecordingPlan asked = marks();
        asked.markOut = "10:00:08:24"; // 125 frames
        asked.overwrite = true;
        lack(asked, 35, 75);
        asked.sourceLeaps = {leapOver(75)};
        Recording r = recording(asked);
        LabelledStream stream(idle());
        beginSilent(r, "10:00:00:00");
        std::vector<CodedFrame> frames = stream.frames(more ? 250 : 150);
        frames.erase(frames.begin() + 100, frames.begin() + 140);
        feed(r, frames);
        r.sourceEnded(m_now);
        pass(r, 6s);
        expectFailed(r, "Error: ");
        EXPECT_THAT(r.status().text, HasSubstr(more ? "(40 frames between the marks may be missing)"
                                                    : "(40 frames between the marks did not come back)"));
    }
}

// Its count would come to mark-out in two hours.
TEST_F(MezzanineRecording, CountedOverALongLeapEndsWhenAllMustHaveComeBack) {
    for (const bool running : {true, false}) {
        RecordingPlan asked = marks();
        asked.markOut = "12:00:02:09"; // the 36th frame
        asked.overwrite = true;
        lack(asked, 20, 7200 * 25);
        asked.sourceLeaps = {leapOver(7200 * 25)};
        Recording r = recording(asked);
        LabelledStream stream(idle());
        begin(r, stream, running);
        feed(r, stream, 75);
        r.sourceEnded(m_now);
        feed(r, stream, 4 * 25);
        EXPECT_EQ(r.state(), RecordingState::recording);
        feed(r, stream, 2 * 25);
        expectRecorded(r);
        EXPECT_THAT(r.status().text, HasSubstr("not known whether all came back"));
    }
}

} // namespace
