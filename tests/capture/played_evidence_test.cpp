// What is taken for complete of a source that is played: only what the frames that come back show to be.
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

// What an encoder sends when nothing is played any more.
enum class Filler { ownTimecodes, stillTimecode, noTimecodes, otherCodec, otherRate, nothingButNulls };

std::string nameOf(Filler filler) {
    constexpr const char* names[] = {"OwnTimecodes", "StillTimecode", "NoTimecodes",
                                     "OtherCodec",   "OtherRate",     "NothingButNulls"};
    return names[static_cast<int>(filler)];
}

void PrintTo(Filler filler, std::ostream* out) {
    *out << nameOf(filler);
}

class PlayedEvidence : public PlayedRecording {
protected:
    RecordingPlan marks() {
        RecordingPlan result = plan();
        result.mode = CaptureMode::marks;
        result.wantedFrames = 0;
        result.markIn = "10:00:01:00";
        result.markOut = "10:00:03:24";
        return result;
    }
    std::vector<std::string> labels() { return labelsOf(readPackets(m_file), 3); }
    // The source from 10:00:00:00 on; `running`: in a stream that is there before.
    LabelledStream begin(Recording& r, bool running, LabelledShape shape = idle()) {
        if (running) {
            LabelledStream stream(shape);
            beginReturn(r, stream, "10:00:00:00");
            return stream;
        }
        beginSilent(r, "10:00:00:00");
        shape.timecode = "10:00:00:00";
        return LabelledStream(shape);
    }
    void lose(LabelledStream& stream, int frames) {
        (void)stream.frames(frames);
        m_now += frames * m_frameTime;
    }
    // The source is over, and the encoder goes on.
    void fill(Recording& r, LabelledStream& stream, Filler filler, const std::string& still = "10:00:03:20") {
        r.sourceEnded(m_now);
        LabelledShape other = idle();
        switch (filler) {
        case Filler::ownTimecodes:
            stream.jumpTo("05:00:00:00");
            return feed(r, stream, 250);
        case Filler::stillTimecode:
            for (int group = 0; group < 25; ++group) {
                stream.jumpTo(still);
                feed(r, stream, 10);
            }
            return;
        case Filler::noTimecodes:
            other.gopHeaders = false;
            break;
        case Filler::otherCodec:
            other.avc = true;
            other.timecodes = false;
            break;
        case Filler::otherRate:
            other.rateCode = 4;
            break;
        case Filler::nothingButNulls:
            return feed(r, nullPacket(), 20s);
        }
        LabelledStream own(other);
        feed(r, own, 250);
    }
};

class Behind : public PlayedEvidence, public testing::WithParamInterface<std::tuple<Filler, bool>> {
protected:
    Filler filler() { return std::get<0>(GetParam()); }
    bool running() { return std::get<1>(GetParam()); }
};

TEST_P(Behind, FramesThatWereLostBeforeAreToldAndNotStoodForByOthers) {
    for (const int lost : {1, 3, 25, 60}) {
        SCOPED_TRACE(lost);
        m_file = m_directory.path(std::to_string(lost) + ".ts");
        Recording r = recording(labelledPlan());
        LabelledStream stream = begin(r, running());
        feed(r, stream, sourceFrames - lost);
        lose(stream, lost);
        fill(r, stream, filler());
        expectFailed(r, "Error: " + std::to_string(sourceFrames - lost) + " of 100 frames came back");
        const std::string last = labelsFrom("10:00:00:00", sourceFrames - lost).back();
        EXPECT_THAT(r.status().text,
                    HasSubstr(" from 10:00:00:00 to " + last + ", the last frame is missing"));
        EXPECT_THAT(labels(), Contains(last));
    }
}

TEST_P(Behind, TheLastFrameIsInTheFileAndNoMoreIsWaitedFor) {
    Recording r = recording(labelledPlan());
    LabelledStream stream = begin(r, running());
    feed(r, stream, sourceFrames);
    const auto last = m_now;
    fill(r, stream, filler());
    expectRecorded(r);
    EXPECT_EQ(labels().back(), "10:00:03:24");
    EXPECT_EQ(fileFrames(), 100U);
    EXPECT_GE(m_now, last);
}

TEST_P(Behind, AMezzanineThatHasLostItsLastFramesFails) {
    for (const int lost : {1, 3, 20, 60}) {
        SCOPED_TRACE(lost);
        m_file = m_directory.path(std::to_string(lost) + ".ts");
        Recording r = recording(marks());
        LabelledStream stream = begin(r, running());
        feed(r, stream, sourceFrames - lost);
        lose(stream, lost);
        fill(r, stream, filler());
        expectFailed(r, "Error: ");
        EXPECT_THAT(r.status().text,
                    HasSubstr(" to " + labelsFrom("10:00:00:00", sourceFrames - lost).back()));
        EXPECT_THAT(r.status().text, HasSubstr(", from 10:00:00:20"));
    }
}

TEST_P(Behind, AMezzanineEndsWithMarkOut) {
    Recording r = recording(marks());
    LabelledStream stream = begin(r, running());
    feed(r, stream, sourceFrames);
    fill(r, stream, filler());
    expectRecorded(r);
    EXPECT_EQ(labels().back(), "10:00:03:24");
    EXPECT_THAT(r.status().text, HasSubstr(" to 10:00:03:24"));
}

INSTANTIATE_TEST_SUITE_P(Fillers, Behind,
                         testing::Combine(testing::Values(Filler::ownTimecodes, Filler::stillTimecode,
                                                          Filler::noTimecodes, Filler::otherCodec,
                                                          Filler::otherRate, Filler::nothingButNulls),
                                          testing::Bool()),
                         [](const auto& shape) {
                             return nameOf(std::get<0>(shape.param)) +
                                    (std::get<1>(shape.param) ? "OfOneThatRan" : "OfOneThatWaited");
                         });

TEST_F(PlayedEvidence, FramesMissingInTheMiddleAreToldWhateverIsAskedFor) {
    for (const bool mezzanine : {false, true})
        for (const bool running : {false, true}) {
            m_file = m_directory.path(std::to_string(mezzanine * 2 + running) + ".ts");
            Recording r = recording(mezzanine ? marks() : labelledPlan());
            LabelledStream stream = begin(r, running);
            feed(r, stream, 50);
            lose(stream, 10);
            feed(r, stream, 40);
            fill(r, stream, Filler::ownTimecodes);
            expectFailed(r,
                         mezzanine ? "Error: Capture discontinuity." : "Error: 90 of 100 frames came back. ");
            EXPECT_THAT(
                r.status().text,
                HasSubstr(mezzanine ? "(10 frames between the marks did not come back)" : " to 10:00:03:24"));
            EXPECT_THAT(labels(), Contains("10:00:03:24"));
        }
}

// It was cancelled, but all that could come had come, and it was not all that was asked for.
TEST_F(PlayedEvidence, ACancelBehindTheLastFrameDoesNotHideThatFramesAreMissing) {
    for (const bool mezzanine : {false, true})
        for (const int lost : {0, 10}) {
            SCOPED_TRACE(lost);
            m_file = m_directory.path(std::to_string(mezzanine) + std::to_string(lost) + ".ts");
            Recording r = recording(mezzanine ? marks() : labelledPlan());
            LabelledStream stream = begin(r, true);
            feed(r, stream, 50);
            lose(stream, lost);
            feed(r, stream, 50 - lost);
            r.cancel(m_now);
            if (lost == 0)
                expectRecorded(r);
            else
                expectFailed(r, "Error: ");
            EXPECT_EQ(labels().back(), "10:00:03:24");
        }
}

TEST_F(PlayedEvidence, ACancelBeforeItIsStillACancel) {
    Recording r = recording(labelledPlan());
    LabelledStream stream = begin(r, true);
    feed(r, stream, 80);
    r.cancel(m_now);
    EXPECT_TRUE(r.status().succeeded);
    EXPECT_THAT(r.status().text, StartsWith("Cancelled after 00:00:03:05 (80 frames"));
}

// The decoder stops for a while, and the encoder shows its own pictures meanwhile.
TEST_F(PlayedEvidence, TheLastFrameIsWaitedForThoughOtherPicturesComeBetween) {
    for (const bool mezzanine : {false, true}) {
        m_file = m_directory.path(mezzanine ? "marks.ts" : "whole.ts");
        Recording r = recording(mezzanine ? marks() : labelledPlan());
        LabelledStream stream = begin(r, true);
        feed(r, stream, 60);
        stream.jumpTo("05:00:00:00");
        feed(r, stream, 50);
        stream.jumpTo("10:00:02:10");
        feed(r, stream, 40);
        fill(r, stream, Filler::ownTimecodes);
        expectRecorded(r);
        EXPECT_EQ(labels().back(), "10:00:03:24");
        EXPECT_EQ(r.status().markOutReached, mezzanine);
    }
}

// It reads the timecodes of its decoder some frames late, or early.
TEST_F(PlayedEvidence, OfAnEncoderThatWaitedTheTimecodesMayBeOffBySomeFrames) {
    for (const char* first : {"09:59:59:23", "10:00:00:03"})
        for (const int lost : {0, 4}) {
            m_file = m_directory.path(first + std::to_string(lost) + ".ts");
            Recording r = recording(labelledPlan());
            beginSilent(r);
            m_now += 200ms;
            LabelledShape shape = idle();
            shape.timecode = first;
            LabelledStream stream(shape);
            feed(r, stream, sourceFrames - lost);
            lose(stream, lost);
            fill(r, stream, Filler::ownTimecodes);
            if (lost == 0)
                expectRecorded(r);
            else
                expectFailed(r, "Error: 96 of 100 frames came back. ");
            EXPECT_THAT(labels(), Contains(labelsFrom(first, sourceFrames - lost).back()));
        }
}

// Its count says nothing of the source: what came counts by number, as long as it is of one kind.
TEST_F(PlayedEvidence, OfAnEncoderThatCountsByItselfFramesOfAnotherCodecAreNotTheSources) {
    for (const int lost : {0, 40}) {
        m_file = m_directory.path(std::to_string(lost) + ".ts");
        Recording r = recording(plan());
        beginSilent(r);
        LabelledStream stream(idle());
        feed(r, stream, sourceFrames - lost);
        lose(stream, lost);
        fill(r, stream, Filler::otherCodec);
        if (lost == 0)
            expectRecorded(r);
        else
            expectFailed(r, "Error: 60 of 100 frames came back. ");
        EXPECT_THAT(labels(), Contains(labelsFrom("00:00:00:00", sourceFrames - lost).back()));
    }
}

TEST_F(PlayedEvidence, ACountedMezzanineDoesNotGoOnInAnotherCodec) {
    RecordingPlan asked = marks();
    asked.useStreamLabels = false;
    Recording r = recording(asked);
    LabelledStream stream = begin(r, false);
    feed(r, stream, 80);
    lose(stream, 20);
    fill(r, stream, Filler::otherCodec);
    expectFailed(r, "Error: Capture discontinuity.");
    EXPECT_THAT(r.status().text, HasSubstr(" to 10:00:03:04"));
}

// What it falls back to is counted otherwise; the source's labels are told as the source counts.
TEST_F(PlayedEvidence, LabelsAreToldByTheSourcesRule) {
    for (const int lost : {0, 1, 20}) {
        SCOPED_TRACE(lost);
        m_file = m_directory.path(std::to_string(lost) + ".ts");
        m_frameTime = 33ms;
        RecordingPlan asked = plan("00:00:58;00", "00:01:01;11");
        asked.sourceRateCode = 4;
        Recording r = recording(asked);
        beginSilent(r);
        LabelledStream stream({.rateCode = 4, .timecode = "00:00:58;00", .gop = 10});
        feed(r, stream, sourceFrames - lost);
        lose(stream, lost);
        r.sourceEnded(m_now);
        LabelledStream own({.rateCode = 4, .timecode = "05:00:00:00", .gop = 10});
        feed(r, own, 300);
        if (lost == 0) {
            expectRecorded(r);
            EXPECT_EQ(labelsOf(readPackets(m_file), 4).back(), "00:01:01;11");
            continue;
        }
        expectFailed(r, "Error: ");
        EXPECT_THAT(r.status().text, HasSubstr(lost == 1 ? " from 00:00:58;00 to 00:01:01;10"
                                                         : " from 00:00:58;00 to 00:01:00;21"));
    }
}

// A source of 25, then 50 frames a second.
class TwoRates : public PlayedEvidence {
protected:
    RecordingPlan plan() {
        RecordingPlan result = PlayedEvidence::plan();
        result.sourceRateCode = 6;
        result.sourceUniform = false;
        result.sourceTime = 3 * PTS::units_per_second; // 50 frames of 40 ms, 50 of 20 ms
        return result;
    }
};

TEST_F(TwoRates, AreRecordedToTheLastFrameWhenTheyComeBackAsTheyAre) {
    for (const int lost : {0, 5}) {
        m_file = m_directory.path(std::to_string(lost) + ".ts");
        Recording r = recording(plan());
        beginSilent(r);
        m_frameTime = 40ms;
        LabelledStream slow({.timecode = "01:00:00:00", .gop = 10});
        feed(r, slow, 50);
        m_frameTime = 20ms;
        LabelledStream fast({.rateCode = 6, .timecode = "02:00:00:00", .gop = 10});
        feed(r, fast, 50 - lost);
        r.sourceEnded(m_now);
        pass(r, 5s);
        if (lost == 0)
            expectRecorded(r);
        else
            expectFailed(r, "Error: 95 of 100 frames came back. ");
        EXPECT_EQ(fileFrames(), static_cast<std::size_t>(sourceFrames - lost));
    }
}

TEST_F(TwoRates, AreMeasuredInTimeWhenTheyComeBackWithOne) {
    for (const int come : {75, 60}) {
        m_file = m_directory.path(std::to_string(come) + ".ts");
        Recording r = recording(plan());
        beginSilent(r);
        LabelledStream stream({.timecode = "01:00:00:00", .gop = 10});
        feed(r, stream, come);
        r.sourceEnded(m_now);
        if (come == 75)
            feed(r, stream, 30);
        pass(r, 5s);
        if (come == 75)
            expectRecorded(r);
        else
            expectFailed(r, "Error: 60 of 74 frames came back. ");
        EXPECT_EQ(fileFrames(), static_cast<std::size_t>(come));
    }
}

} // namespace
