// Recordings between two marks, fed with prepared streams and a clock of the test's own.
#include "capture/labelled_stream.h"
#include "capture/recording_fixture.h"
#include "foundation/ErrorCodes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace kestrel::capture;
using namespace capture_test;
using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

class MarksRecording : public RecordingFixture {
protected:
    Clock::duration m_frameTime = 40ms;

    RecordingPlan plan(const std::string& in, const std::string& out) {
        RecordingPlan result = RecordingFixture::plan(CaptureMode::marks);
        result.markIn = in;
        result.markOut = out;
        return result;
    }
    using RecordingFixture::feed;
    void feed(Recording& r, const std::vector<CodedFrame>& frames) {
        for (const CodedFrame& frame : frames) {
            r.take(frame.packets, m_now);
            m_now += m_frameTime;
        }
    }
    std::vector<std::string> recordedLabels(int rateCode) { return labelsOf(readPackets(m_file), rateCode); }
};

struct Tape {
    const char* name;
    LabelledShape shape;
    const char* in;
    const char* out;
    const char* first; // of the file
    const char* last;
    std::size_t frames;
    const char* text; // part of the results
};

void PrintTo(const Tape& tape, std::ostream* out) {
    *out << tape.name;
}

class MarkedTape : public MarksRecording, public testing::WithParamInterface<Tape> {};

TEST_P(MarkedTape, IsRecordedFromMarkInToMarkOut) {
    const Tape& tape = GetParam();
    Recording r = recording(plan(tape.in, tape.out));
    feed(r, LabelledStream(tape.shape).frames(400));
    ASSERT_EQ(r.state(), RecordingState::ended);
    EXPECT_TRUE(r.status().succeeded) << r.status().text;
    EXPECT_TRUE(r.status().markOutReached);
    EXPECT_THAT(r.status().text, HasSubstr(tape.text));
    const auto labels = recordedLabels(tape.shape.rateCode);
    ASSERT_EQ(labels.size(), tape.frames);
    EXPECT_EQ(labels.front(), tape.first);
    EXPECT_EQ(labels.back(), tape.last);
    EXPECT_EQ(r.status().frames, tape.frames);
    EXPECT_EQ(continuityErrors(readPackets(m_file)), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Tapes, MarkedTape,
    testing::Values(Tape{"pal",
                         {},
                         "10:00:00:12",
                         "10:00:04:11",
                         "10:00:00:12",
                         "10:00:04:11",
                         100,
                         "Recorded 00:00:04:00 (100 frames, 0.0 MB), 0 continuity errors, from 10:00:00:12 "
                         "to 10:00:04:11"},
                    Tape{"dropFrame",
                         {.rateCode = 4, .timecode = "10:00:56;20"},
                         "10:00:57;02",
                         "10:01:01;01",
                         "10:00:57;02",
                         "10:01:01;01",
                         118,
                         "from 10:00:57;02 to 10:01:01;01"},
                    Tape{"dropFrameWithTheMarksInColons",
                         {.rateCode = 4, .timecode = "10:00:56;20"},
                         "10:00:57:02",
                         "10:01:01:01",
                         "10:00:57;02",
                         "10:01:01;01",
                         118,
                         "from 10:00:57;02"},
                    Tape{"nonDropAt2997",
                         {.rateCode = 4, .timecode = "10:00:59:00"},
                         "10:00:59:24",
                         "10:01:01:23",
                         "10:00:59:24",
                         "10:01:01:23",
                         60,
                         "from 10:00:59:24 to 10:01:01:23"},
                    Tape{"markInInsideAGop",
                         {},
                         "10:00:00:15",
                         "10:00:02:00",
                         "10:00:00:12",
                         "10:00:02:00",
                         39,
                         ", 3 frames before mark-in"},
                    Tape{"markInIsTheLastOfItsGop",
                         {},
                         "10:00:00:23",
                         "10:00:02:00",
                         "10:00:00:12",
                         "10:00:02:00",
                         39,
                         ", 11 frames before mark-in"},
                    // A GOP of 13 with two B pictures: 0 | 3 1 2 | 6 4 5 | 9 7 8 | 12 10 11
                    Tape{"markOutIsAReferencePicture",
                         {.gop = 13, .bFrames = 2},
                         "10:00:00:13",
                         "10:00:01:04",
                         "10:00:00:13",
                         "10:00:01:04",
                         17,
                         "from 10:00:00:13 to 10:00:01:04"},
                    Tape{"markOutIsABPicture",
                         {.gop = 13, .bFrames = 2},
                         "10:00:00:13",
                         "10:00:01:05",
                         "10:00:00:13",
                         "10:00:01:07",
                         19,
                         ", 1 frame beyond mark-out"},
                    Tape{"openGops",
                         {.gop = 12, .bFrames = 2, .open = true},
                         "10:00:00:12",
                         "10:00:01:22",
                         "10:00:00:12",
                         "10:00:01:22",
                         36,
                         ", the first 2 frames from mark-in need the GOP before"},
                    Tape{"openGopsMarkInBehindTheLeadingPictures",
                         {.gop = 12, .bFrames = 2, .open = true},
                         "10:00:00:14",
                         "10:00:01:22",
                         "10:00:00:12",
                         "10:00:01:22",
                         36,
                         ", 2 frames before mark-in"},
                    Tape{"picturesShownLongAfterTheyAreDecoded",
                         {.bFrames = 2, .delay = 3},
                         "10:00:00:12",
                         "10:00:02:00",
                         "10:00:00:12",
                         "10:00:02:01",
                         40,
                         "from 10:00:00:12"},
                    Tape{"acrossMidnight",
                         {.timecode = "23:59:58:00"},
                         "23:59:58:12",
                         "23:59:59:24",
                         "23:59:58:12",
                         "23:59:59:24",
                         38,
                         "from 23:59:58:12 to 23:59:59:24"},
                    Tape{"fieldPairs",
                         {.fields = true},
                         "10:00:00:12",
                         "10:00:01:24",
                         "10:00:00:12",
                         "10:00:01:24",
                         38,
                         "(38 frames"},
                    Tape{"aDeckCountsPairsOfFrames",
                         {.rateCode = 6, .timecode = "10:00:00:00"},
                         "10:00:00:12",
                         "10:00:01:10",
                         "10:00:00:24",
                         "10:00:01:21",
                         48,
                         "from 10:00:00:24 to 10:00:01:21"}),
    [](const auto& made) { return std::string(made.param.name); });

TEST_F(MarksRecording, H264IsCutByItsPictureTiming) {
    Recording r = recording(plan("10:00:00:12", "10:00:01:24"));
    feed(r, LabelledStream({.bFrames = 0, .avc = true}).frames(100));
    EXPECT_TRUE(r.status().succeeded);
    EXPECT_THAT(r.status().text, HasSubstr("(38 frames"));
    EXPECT_THAT(r.status().text, HasSubstr("from 10:00:00:12 to 10:00:01:24"));
}

TEST_F(MarksRecording, MarksOfTheSourceCountFramesAtTheDoubleRates) {
    RecordingPlan asked = plan("10:00:00:36", "10:00:01:21");
    asked.marksCountPairs = false;
    Recording r = recording(asked);
    feed(r, LabelledStream({.rateCode = 6}).frames(200));
    EXPECT_THAT(r.status().text, HasSubstr("from 10:00:00:36 to 10:00:01:21"));
}

TEST_F(MarksRecording, NothingIsRecordedAndNothingTimesOutBeforeItIsArmed) {
    RecordingPlan asked = plan("10:00:00:12", "10:00:01:00");
    asked.armed = false;
    Recording r = recording(asked);
    EXPECT_EQ(r.deadline(), Clock::time_point::max());
    LabelledStream stream;
    feed(r, stream.frames(100));
    EXPECT_EQ(r.state(), RecordingState::waiting);
    EXPECT_EQ(r.status().frameRateCode, 3) << "the stream is learnt";
    EXPECT_EQ(r.status().label, "10:00:03:24");
    EXPECT_FALSE(r.status().passedMarkIn);
    m_now += 1h;
    r.tick(m_now);
    EXPECT_EQ(r.state(), RecordingState::waiting);
    EXPECT_FALSE(std::filesystem::exists(m_file));

    r.arm(m_now);
    EXPECT_EQ(r.deadline(), m_now + 30s) << "random access points are waited for from now";
    feed(r, stream.frames(12));
    EXPECT_TRUE(r.status().passedMarkIn);
}

TEST_F(MarksRecording, ADeckThatIsCuedAgainIsRecordedAtTheNextAttempt) {
    RecordingPlan asked = plan("10:00:04:00", "10:00:05:00");
    asked.armed = false;
    Recording r = recording(asked);
    LabelledStream stream({.timecode = "10:00:10:00"});
    r.arm(m_now);
    feed(r, stream.frames(24));
    EXPECT_TRUE(r.status().passedMarkIn);
    r.disarm();
    EXPECT_FALSE(r.status().passedMarkIn);
    EXPECT_EQ(r.deadline(), Clock::time_point::max());
    stream.jumpTo("10:00:03:00"); // the tape runs back
    feed(r, stream.frames(12));
    r.arm(m_now);
    feed(r, stream.frames(100));
    EXPECT_TRUE(r.status().succeeded);
    EXPECT_THAT(r.status().text, HasSubstr("to 10:00:05:00"));
}

TEST_F(MarksRecording, DisarmingInTheGopOfMarkInStartsNothing) {
    Recording r = recording(plan("10:00:00:06", "10:00:05:00"));
    LabelledStream stream;
    feed(r, stream.frames(4));
    r.disarm();
    feed(r, stream.frames(30));
    EXPECT_EQ(r.state(), RecordingState::waiting);
    EXPECT_EQ(r.status().frames, 0u);
}

TEST_F(MarksRecording, MarkInIsPassedOnlyByMoreThanAGop) {
    Recording r = recording(plan("10:00:00:00", "10:00:05:00"));
    feed(r, LabelledStream({.timecode = "10:00:00:06"}).frames(12));
    EXPECT_EQ(r.state(), RecordingState::waiting);
    EXPECT_FALSE(r.status().passedMarkIn);
}

TEST_F(MarksRecording, AFrameAtMarkInThatWasLostIsMissedByTheResults) {
    Recording r = recording(plan("10:00:00:20", "10:00:02:00"));
    auto frames = LabelledStream().frames(100);
    frames.erase(frames.begin() + 18, frames.begin() + 26);
    feed(r, frames);
    EXPECT_TRUE(r.status().succeeded);
    EXPECT_THAT(r.status().text, HasSubstr(", the frame at mark-in is missing"));
    EXPECT_EQ(recordedLabels(3).front(), "10:00:00:12");
    EXPECT_EQ(recordedLabels(3).back(), "10:00:02:00");
}

TEST_F(MarksRecording, ATapeWhoseTimecodeJumpsOverMarkInIsNotRecorded) {
    Recording r = recording(plan("10:00:00:20", "10:00:09:00"));
    LabelledStream stream;
    feed(r, stream.frames(12));
    stream.jumpTo("10:00:05:00");
    feed(r, stream.frames(24));
    EXPECT_EQ(r.state(), RecordingState::waiting);
    EXPECT_TRUE(r.status().passedMarkIn);
}

TEST_F(MarksRecording, AFrameAtMarkOutThatWasLostIsMissedByTheResults) {
    for (const int bFrames : {0, 2}) {
        std::filesystem::remove(m_file);
        Recording r = recording(plan("10:00:00:13", "10:00:02:00"));
        auto frames = LabelledStream({.gop = 13, .bFrames = bFrames}).frames(100);
        std::erase_if(frames, [](const CodedFrame& frame) { return frame.label == "10:00:02:00"; });
        feed(r, frames);
        EXPECT_TRUE(r.status().succeeded);
        EXPECT_THAT(r.status().text, HasSubstr(", the frame at mark-out is missing")) << bFrames;
    }
}

TEST_F(MarksRecording, ATapeWhoseTimecodeJumpsOverMarkOutIsAFailure) {
    Recording r = recording(plan("10:00:00:00", "10:00:05:00"));
    LabelledStream stream;
    feed(r, stream.frames(36));
    stream.jumpTo("10:00:09:00");
    feed(r, stream.frames(24));
    EXPECT_EQ(r.state(), RecordingState::ended);
    EXPECT_FALSE(r.status().succeeded);
    EXPECT_THAT(r.status().text, StartsWith("Error: Capture discontinuity."));
    EXPECT_THAT(r.status().text, HasSubstr("the timecode goes past mark-out, to 10:00:09:00"));
    EXPECT_THAT(r.status().text, HasSubstr("from 10:00:00:00 to 10:00:01:10"));
    EXPECT_EQ(recordedLabels(3).size(), 36u) << "what was recorded stays";
}

TEST_F(MarksRecording, ATapeWhoseTimecodeRunsBackIsGivenUp) {
    Recording r = recording(plan("10:00:01:00", "10:00:03:00"));
    LabelledStream stream({.timecode = "10:00:01:00"});
    feed(r, stream.frames(24));
    for (int i = 0; i < 60 && r.state() == RecordingState::recording; ++i) {
        stream.jumpTo("10:00:01:12");
        feed(r, stream.frames(12));
    }
    EXPECT_FALSE(r.status().succeeded);
    EXPECT_THAT(r.status().text, HasSubstr("mark-out 10:00:03:00 does not come, the timecode is at 10:00:0"));
}

TEST_F(MarksRecording, AStreamThatStopsBeforeMarkOutIsAFailureWithWhatWasRecorded) {
    Recording r = recording(plan("10:00:00:00", "10:00:05:00"));
    feed(r, LabelledStream().frames(50));
    const Clock::time_point last = m_now;
    while (r.state() == RecordingState::recording && m_now < last + 60s) {
        ASSERT_GT(r.deadline(), m_now - 1ms);
        m_now = std::max(m_now, r.deadline());
        r.tick(m_now);
    }
    EXPECT_FALSE(r.status().succeeded);
    EXPECT_THAT(r.status().text, StartsWith("Error: Capture discontinuity."));
    EXPECT_THAT(r.status().text, HasSubstr("(50 frames"));
    EXPECT_THAT(r.status().text, HasSubstr("from 10:00:00:00 to 10:00:01:24"));
    EXPECT_LE(m_now, last + 16s);
}

TEST_F(MarksRecording, AStreamThatStopsWithMarkOutIsASuccess) {
    Recording r = recording(plan("10:00:00:00", "10:00:01:24"));
    feed(r, LabelledStream().frames(50));
    EXPECT_EQ(r.state(), RecordingState::recording);
    EXPECT_TRUE(r.status().markOutReached) << "the deck may stop";
    m_now += 2s;
    r.tick(m_now);
    EXPECT_TRUE(r.status().succeeded);
    EXPECT_THAT(r.status().text, StartsWith("Recorded 00:00:02:00 (50 frames"));
    EXPECT_THAT(r.status().text, Not(HasSubstr("missing")));
}

TEST_F(MarksRecording, WithoutAnyTimecodeItIsSaidThatNoneCouldBeRead) {
    RecordingPlan asked = plan("10:00:00:00", "10:00:01:00");
    asked.useStreamLabels = false;
    Recording r = recording(asked);
    LabelledStream stream;
    const Clock::time_point begin = m_now;
    while (r.state() == RecordingState::waiting && m_now < begin + 60s) {
        feed(r, stream.frames(1));
        if (m_now >= r.deadline())
            r.tick(m_now);
    }
    EXPECT_THAT(r.status().text,
                StartsWith("Error: Encoder VITC lock check failed - could not get encoder timecode."));
    EXPECT_GE(m_now, begin + 30s);
}

TEST_F(MarksRecording, MarkInMayBeFarAheadAsLongAsTheStreamRuns) {
    Recording r = recording(plan("10:05:00:00", "10:05:01:00"));
    LabelledStream stream;
    for (int i = 0; i < 25 * 60; ++i) {
        feed(r, stream.frames(1));
        ASSERT_GT(r.deadline(), m_now);
    }
    EXPECT_EQ(r.state(), RecordingState::waiting);
    m_now = r.deadline();
    r.tick(m_now);
    EXPECT_THAT(r.status().text, StartsWith("Error: Start Capture timed out. (no random access point"))
        << "the stream has stopped";
}

TEST_F(MarksRecording, WithoutStreamLabelsItFollowsTheDecksTime) {
    RecordingPlan asked = plan("10:00:02:00", "10:00:03:24");
    asked.useStreamLabels = false;
    asked.labelTolerance = 1;
    Recording r = recording(asked);
    LabelledStream stream({.timecode = "05:00:00:00"});
    for (int i = 0; i < 200 && r.state() != RecordingState::ended; ++i) {
        if (i % 5 == 0) {
            const LabelRule rule{3, false};
            r.refer({rule.text(10 * 90000 + i), m_now, false, 0});
        }
        feed(r, stream.frames(1));
    }
    EXPECT_TRUE(r.status().succeeded) << r.status().text;
    EXPECT_THAT(r.status().text,
                HasSubstr("from 10:00:01:23 to 10:00:03:24, 2 frames before mark-in, by deck time"));
    const auto labels = recordedLabels(3);
    EXPECT_EQ(labels.front(), "05:00:01:23") << "GOPs begin every 12 frames";
    EXPECT_EQ(labels.back(), "05:00:03:24");
}

TEST_F(MarksRecording, AStreamWithoutTimecodesFollowsTheDecksTimeToo) {
    Recording r = recording(plan("10:00:02:00", "10:00:03:24"));
    LabelledStream stream({.timecodes = false, .avc = true});
    r.refer({"10:00:00:00", m_now, false, 0});
    feed(r, stream.frames(150));
    EXPECT_TRUE(r.status().succeeded);
    EXPECT_THAT(r.status().text, HasSubstr("to 10:00:03:24, 2 frames before mark-in, by deck time"));
}

TEST_F(MarksRecording, DeckReportsDuringTheRecordingDoNotMoveTheCount) {
    RecordingPlan asked = plan("10:00:00:00", "10:00:01:24");
    asked.useStreamLabels = false;
    Recording r = recording(asked);
    LabelledStream stream;
    r.refer({"10:00:00:00", m_now, false, 0});
    feed(r, stream.frames(20));
    r.refer({"10:00:00:09", m_now, false, 0}); // late by eleven frames: the deck's answer was
    feed(r, stream.frames(100));
    EXPECT_THAT(r.status().text, HasSubstr("(50 frames"));
}

// Makes the GOP header of a frame one of user data.
void loseTimecode(CodedFrame& frame) {
    static constexpr unsigned char group[] = {0, 0, 1, 0xB8};
    for (Packet& packet : frame.packets) {
        const auto found = std::search(packet.begin(), packet.end(), std::begin(group), std::end(group));
        if (found != packet.end())
            found[3] = 0xB2;
    }
}

TEST_F(MarksRecording, ATimecodeLostOnTheWayLeavesTheCountToTheOthersNotToTheDeck) {
    Recording r = recording(plan("10:00:01:23", "10:00:03:24"));
    auto frames = LabelledStream().frames(120);
    for (const std::size_t lost : {24u, 72u})
        loseTimecode(frames[lost]);
    r.refer({"10:00:00:09", m_now, false, 0}); // off by nine frames
    feed(r, frames);
    EXPECT_TRUE(r.status().succeeded);
    EXPECT_THAT(r.status().text, HasSubstr("(52 frames"));
    EXPECT_THAT(r.status().text, HasSubstr("from 10:00:01:23 to 10:00:03:24"));
}

TEST_F(MarksRecording, TimecodesThatBeginDuringARecordingByDeckTimeDoNotMoveIt) {
    Recording r = recording(plan("12:00:00:00", "12:00:01:24"));
    auto frames = LabelledStream().frames(120);
    loseTimecode(frames[0]);
    r.refer({"12:00:00:00", m_now, false, 0});
    feed(r, frames);
    EXPECT_TRUE(r.status().succeeded) << r.status().text;
    EXPECT_THAT(r.status().text, HasSubstr("(50 frames"));
    EXPECT_THAT(r.status().text, HasSubstr("to 12:00:01:24, by deck time"));
}

TEST_F(MarksRecording, AFirstFrameIsCountedFromAndTheResultsSaySo) {
    RecordingPlan asked = plan("01:00:01:00", "01:00:01:24");
    asked.useStreamLabels = false;
    asked.marksCountPairs = false;
    Recording r = recording(asked);
    r.refer({"01:00:00:00", {}, true, 0});
    r.arm(m_now);
    feed(r, LabelledStream().frames(100));
    EXPECT_TRUE(r.status().succeeded);
    EXPECT_THAT(r.status().text,
                HasSubstr("to 01:00:01:24, 1 frame before mark-in, counted from the first frame"));
}

TEST_F(MarksRecording, ASourceThatEndsWithoutMarkInIsNotWaitedForWhileTheEncoderGoesOn) {
    Recording r = recording(plan("10:00:00:00", "10:00:05:00"));
    LabelledStream stream({.timecode = "11:00:00:00"});
    feed(r, stream.frames(50));
    r.sourceEnded(m_now);
    const Clock::time_point ended = m_now;
    while (r.state() == RecordingState::waiting && m_now < ended + 60s) {
        feed(r, stream.frames(1));
        if (m_now >= r.deadline())
            r.tick(m_now);
    }
    EXPECT_LE(m_now, ended + 11s);
    EXPECT_FALSE(r.status().succeeded);
    EXPECT_THAT(r.status().text,
                StartsWith("Error: Start timecode 10:00:00:00 cannot be found. (the source has "
                           "ended, the stream is at 11:00:1"));
}

TEST_F(MarksRecording, AGopTooLongToBeKeptBackIsRecordedFromItsBeginning) {
    Recording r = recording(plan("10:00:20:00", "10:00:21:00"));
    feed(r, LabelledStream({.gop = 1000, .packetsPerFrame = 400}).frames(340));
    EXPECT_EQ(r.state(), RecordingState::recording) << "early rather than too late";
    EXPECT_GE(r.status().frames, 320u);
    EXPECT_EQ(recordedLabels(3).front(), "10:00:00:00");
}

TEST_F(MarksRecording, WhatDoesNotExistAtTheStreamsRateIsRefused) {
    Recording in = recording(plan("10:01:00:00", "10:02:00:02"));
    feed(in, LabelledStream({.rateCode = 4, .timecode = "10:00:00;00"}).frames(3));
    EXPECT_EQ(in.status().text,
              "Error: Invalid Mark-In time. (10:01:00:00 does not exist at frame rate code 4, drop-frame)");
    Recording out = recording(plan("10:00:00:00", "10:02:00:25"));
    feed(out, LabelledStream().frames(3));
    EXPECT_EQ(out.status().text,
              "Error: Invalid Mark-Out time. (10:02:00:25 does not exist at frame rate code 3)");
    EXPECT_FALSE(std::filesystem::exists(m_file));
}

TEST_F(MarksRecording, MarksThatCannotBeAreRefusedBeforeAnyStream) {
    for (const auto& [in, out, code] : {std::tuple{"", "10:00:00:00", kestrel::error::invalidMarkIn},
                                        {"25:00:00:00", "26:00:00:00", kestrel::error::invalidMarkIn},
                                        {"10:00:00:00", "10:00:60:00", kestrel::error::invalidMarkOut},
                                        {"10:00:00:00", "10:00:00:00", kestrel::error::invalidMarkOut},
                                        {"10:00:00:00", "09:59:59:24", kestrel::error::invalidMarkOut}}) {
        Recording r(plan(in, out), Timing{}, m_now);
        const MaybeFailure failed = r.prepare();
        ASSERT_TRUE(failed) << in << " " << out;
        EXPECT_EQ(failed->code, code);
    }
}

TEST_F(MarksRecording, CancelSaysHowFarItCame) {
    Recording r = recording(plan("10:00:00:00", "10:00:05:00"));
    LabelledStream stream;
    feed(r, stream.frames(30));
    r.cancel(m_now);
    EXPECT_TRUE(r.status().succeeded);
    EXPECT_THAT(r.status().text, StartsWith("Cancelled after 00:00:01:05 (30 frames"));
    EXPECT_THAT(r.status().text, HasSubstr("from 10:00:00:00 to 10:00:01:04"));
    EXPECT_FALSE(r.status().markOutReached);
}

// The tape is paused at mark-out, and then the encoder sends null packets, tables or sound only.
TEST_F(MarksRecording, IsCompleteWhenNoVideoComesBehindMarkOut) {
    for (const int pid : {0x1FFF, 0x0011, audioPid}) {
        m_file = m_directory.path(std::to_string(pid) + ".ts");
        Recording r = recording(plan("10:00:01:00", "10:00:01:24"));
        LabelledStream tape;
        feed(r, tape.frames(50));
        EXPECT_TRUE(r.status().markOutReached);
        EXPECT_EQ(r.state(), RecordingState::recording);
        const auto last = m_now;
        feed(r, packetOf(pid), 20s);
        ASSERT_EQ(r.state(), RecordingState::ended);
        EXPECT_TRUE(r.status().succeeded) << r.status().text;
        EXPECT_LE(m_now, last + 2200ms);
        EXPECT_EQ(recordedLabels(3).back(), "10:00:01:24");
    }
}

// A tape may have another frame rate, or another way to count, right behind mark-out.
TEST_F(MarksRecording, IsCompleteWhenOtherLabelsComeBehindMarkOut) {
    for (const int rate : {2, 3, 4, 6}) {
        m_file = m_directory.path(std::to_string(rate) + ".ts");
        LabelledShape shape;
        shape.rateCode = rate == 3 ? 4 : 3;
        Recording r = recording(plan("10:00:01:00", "10:00:01:24"));
        LabelledStream tape(shape);
        feed(r, tape.frames(shape.rateCode == 3 ? 50 : 55));
        LabelledShape other;
        other.rateCode = rate == 3 ? 4 : rate;
        other.timecode = rate == 3 ? "10:00:02;00" : "20:00:00:00";
        feed(r, LabelledStream(other).frames(50));
        ASSERT_EQ(r.state(), RecordingState::ended);
        EXPECT_TRUE(r.status().succeeded) << r.status().text;
        EXPECT_THAT(r.status().text, HasSubstr(" to 10:00:01:24"));
        EXPECT_THAT(r.status().text, Not(HasSubstr("beyond")));
        EXPECT_EQ(recordedLabels(shape.rateCode).back(), "10:00:01:24");
    }
}

} // namespace
