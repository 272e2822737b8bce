// Mezzanines of films, which have no frame for some timecodes everywhere.
#include "capture/mezzanine_fixture.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace kestrel::capture;
using namespace capture_test;
using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::Not;

namespace {

class MezzanineOfAFilm : public MezzanineRecording {
protected:
    // From mark-in on, the label `first` and every so many behind it are those of no frame.
    RecordingPlan film(std::size_t first = 3, std::size_t every = 5) {
        RecordingPlan asked = marks();
        asked.useStreamLabels = true;
        asked.overwrite = true;
        asked.markIn = "10:00:02:00";
        asked.markOut = "10:00:08:00";
        asked.labelsLacking.resize(150);
        for (std::size_t at = first; at < asked.labelsLacking.size(); at += every)
            asked.labelsLacking[at] = true;
        return asked;
    }
};

// Of a film some timecodes are those of no frame everywhere. The encoder returns a frame for each: what is
// lost takes its time, as no timecode of an outage does.
TEST_F(MezzanineOfAFilm, MissesFramesThatAreLost) {
    const auto expected = [](int from, int to) { // those with a label
        int frames = 0;
        for (int frame = std::max(from, 50); frame < std::min(to, 201); ++frame)
            frames += frame % 5 != 3 ? 1 : 0;
        return frames;
    };
    for (const auto& [from, to] :
         {std::pair{0, 0}, {51, 52}, {30, 51}, {100, 105}, {96, 108}, {96, 132}, {80, 190}}) {
        SCOPED_TRACE(std::to_string(from) + " to " + std::to_string(to));
        RecordingPlan asked = film();
        asked.lackingBefore = 2;
        Recording r = recording(asked);
        beginSilent(r, "10:00:00:00");
        LabelledStream stream({.gop = 12});
        std::vector<CodedFrame> frames = stream.frames(300);
        frames.erase(frames.begin() + from, frames.begin() + to);
        feed(r, frames);
        r.sourceEnded(m_now);
        pass(r, 12s);
        EXPECT_THAT(r.status().text, Not(HasSubstr("not known")));
        if (from == to) {
            expectRecorded(r);
            continue;
        }
        expectFailed(r, "Error: ");
        const int frameCount = expected(from, to);
        EXPECT_THAT(r.status().text,
                    HasSubstr("(" + std::to_string(frameCount) + (frameCount > 1 ? " frames" : " frame") +
                              " between the marks did not come back)"));
    }
}

TEST_F(MezzanineOfAFilm, MissesItsEnd) {
    Recording r = recording(film());
    beginSilent(r, "10:00:00:00");
    LabelledStream stream({.gop = 12});
    feed(r, stream, 180);
    r.sourceEnded(m_now);
    pass(r, 12s);
    expectFailed(r, "Error: ");
    EXPECT_THAT(r.status().text, HasSubstr("(at least 14 frames between the marks did not come back)"));
}

TEST_F(MezzanineOfAFilm, IsKnownBeforeALeap) {
    for (const int gop : {12, 15, 24}) {
        SCOPED_TRACE(gop);
        RecordingPlan asked = film();
        asked.lackingBefore = 2;
        asked.sourceLeaps = {leapOver(75)};
        Recording r = recording(asked);
        beginSilent(r, "10:00:00:00");
        LabelledStream stream({.gop = gop});
        feed(r, stream, 300);
        expectRecorded(r);
        EXPECT_THAT(r.status().text, Not(HasSubstr("not known")));
    }
}

// Where every second label is that of no frame each frame stands alone.
TEST_F(MezzanineOfAFilm, MissesFramesThatAreShownTwice) {
    Recording r = recording(film(1, 2));
    beginSilent(r, "10:00:00:00");
    LabelledStream stream({.gop = 12});
    std::vector<CodedFrame> frames = stream.frames(300);
    frames.erase(frames.begin() + 72, frames.begin() + 132);
    feed(r, frames);
    r.sourceEnded(m_now);
    pass(r, 12s);
    expectFailed(r, "Error: ");
    EXPECT_THAT(r.status().text, HasSubstr("(30 frames between the marks did not come back)"));
}

} // namespace
