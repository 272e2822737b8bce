// Where a mezzanine begins whose mark-in lies in the GOP that the encoder had open when the source came.
#include "capture/played_fixture.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <set>

using namespace kestrel::capture;
using namespace capture_test;
using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

struct Passing {
    const char* name;
    LabelledShape shape;
    const char* first = "10:00:00:00"; // played
    std::chrono::microseconds frameTime{40000};
};

void PrintTo(const Passing& encoder, std::ostream* out) {
    *out << encoder.name;
}

// An encoder that runs and passes on the source's timecodes, once it has them.
class MezzanineBegin : public PlayedRecording {
protected:
    static constexpr int before = 75; // frames until the source is played
    static constexpr int length = 40;

    // The marks are so many frames behind the first that is played.
    RecordingPlan marks(const Passing& encoder, int in, int count = length) {
        RecordingPlan result = plan();
        result.mode = CaptureMode::marks;
        result.wantedFrames = 0;
        result.sourceRateCode = encoder.shape.rateCode;
        const auto labels = labelsFrom(encoder.first, in + count, encoder.shape.rateCode);
        result.markIn = labels[static_cast<std::size_t>(in)];
        result.markOut = labels.back();
        return result;
    }
    // The frame shown as `came` has that label, and so on.
    void play(Recording& r, const Passing& encoder, int came, const std::string& label) {
        m_frameTime = encoder.frameTime;
        LabelledStream stream(encoder.shape);
        stream.switchAt(came, label);
        m_sent = stream.frames(500);
        feedFrames(r, 0, 20);
        r.arm(m_now);
        feedFrames(r, 20, 25);
        m_begin = m_now + (before - 25) * m_frameTime;
        r.sourceBegins({encoder.first, m_begin, true, 0});
        feedFrames(r, 25, m_sent.size());
    }
    void feedFrames(Recording& r, std::size_t from, std::size_t to) {
        for (; from < to && r.state() != RecordingState::ended; ++from)
            feed(r, {m_sent[from]});
    }
    // All those frames are in the file, and not many others.
    void expectFrames(const Passing& encoder, int in, int count = length) {
        const auto labels = labelsFrom(encoder.first, in + count, encoder.shape.rateCode);
        const std::set<std::string> wanted(labels.begin() + in, labels.end());
        const Packets packets = readPackets(m_file);
        const std::set<Packet> file(packets.begin(), packets.end());
        int found = 0;
        int all = 0;
        for (const CodedFrame& frame : m_sent) {
            const bool there = std::ranges::all_of(frame.packets, [&file](const Packet& packet) {
                return pid(packet) != videoPid || file.contains(packet);
            });
            all += there ? 1 : 0;
            found += there && wanted.contains(frame.label) ? 1 : 0;
        }
        EXPECT_EQ(found, count);
        EXPECT_LE(all, count + encoder.shape.gop + 4);
    }

    std::vector<CodedFrame> m_sent;
};

class OpenGop : public MezzanineBegin, public testing::WithParamInterface<Passing> {};

// Wherever in the encoder's GOP the source comes, and wherever in that GOP mark-in lies, or behind it.
TEST_P(OpenGop, HasTheFirstAndTheLastFrameOfTheMarks) {
    const Passing& encoder = GetParam();
    for (int came = 0; came < encoder.shape.gop; ++came)
        for (const int in : {0, 1, 3, 7, 15}) {
            SCOPED_TRACE(std::to_string(came) + " in the GOP, mark-in at " + std::to_string(in));
            m_file = m_directory.path(std::to_string(came) + "_" + std::to_string(in) + ".ts");
            RecordingPlan asked = marks(encoder, in);
            Recording r = recording(asked);
            play(r, encoder, 8 * encoder.shape.gop + came, encoder.first);
            expectRecorded(r);
            expectFrames(encoder, in);
            EXPECT_THAT(r.status().text, Not(HasSubstr("missing")));
            EXPECT_THAT(r.status().text, Not(HasSubstr("counted")));
        }
}

TEST_P(OpenGop, MayHoldBothMarks) {
    const Passing& encoder = GetParam();
    for (int came = 1; came < encoder.shape.gop - 4; ++came) {
        SCOPED_TRACE(came);
        m_file = m_directory.path(std::to_string(came) + ".ts");
        Recording r = recording(marks(encoder, 1, 3));
        play(r, encoder, 8 * encoder.shape.gop + came, encoder.first);
        expectRecorded(r);
        expectFrames(encoder, 1, 3);
    }
}

LabelledShape shapeOf(LabelledShape shape, const char* timecode = "20:00:00:00") {
    shape.timecode = timecode;
    shape.gop = 12;
    return shape;
}

INSTANTIATE_TEST_SUITE_P(
    Encoders, OpenGop,
    testing::Values(Passing{"Mpeg2", shapeOf({})}, Passing{"Mpeg2WithBFrames", shapeOf({.bFrames = 2})},
                    Passing{"Mpeg2WithOpenGops", shapeOf({.bFrames = 2, .open = true})},
                    Passing{"Mpeg2Fields", shapeOf({.fields = true})},
                    Passing{"H264", shapeOf({.avc = true})},
                    Passing{"H264WithBFrames", shapeOf({.bFrames = 2, .avc = true})},
                    Passing{"H264WithOpenGops", shapeOf({.bFrames = 2, .open = true, .avc = true})},
                    Passing{"WithoutTimecodesBefore", shapeOf({.bFrames = 2, .timecodes = false})},
                    Passing{"H264WithoutTimecodesBefore",
                            shapeOf({.bFrames = 2, .timecodes = false, .avc = true})},
                    Passing{"DropFrame", shapeOf({.rateCode = 4, .bFrames = 2}), "10:00:59;20", 33367us},
                    Passing{"H264DropFrame", shapeOf({.rateCode = 4, .bFrames = 2, .avc = true}),
                            "10:00:59;20", 33367us}),
    [](const auto& encoder) { return std::string(encoder.param.name); });

// Six frames are lost until the decoder shows the first. Each picture of H.264 tells it.
TEST_F(MezzanineBegin, FramesThatTheEncoderLabelledOtherwiseDidNotComeBack) {
    for (const bool labelled : {true, false}) {
        m_file = m_directory.path(labelled ? "labelled.ts" : "unlabelled.ts");
        const Passing encoder{"", shapeOf({.bFrames = labelled ? 2 : 0, .timecodes = labelled, .avc = true})};
        Recording r = recording(marks(encoder, 0));
        play(r, encoder, 8 * 12 + 8, "10:00:00:06");
        ASSERT_EQ(r.state(), RecordingState::ended);
        EXPECT_FALSE(r.status().succeeded) << r.status().text;
        EXPECT_THAT(r.status().text, HasSubstr("6 frames between the marks did not come back"));
        EXPECT_THAT(r.status().text, HasSubstr("the frame at mark-in is missing"));
    }
}

// Of MPEG-2 video only the next GOP has a label.
TEST_F(MezzanineBegin, SaysWhichFramesItHasByTheClock) {
    const Passing encoder{"", shapeOf({.bFrames = 2})};
    Recording r = recording(marks(encoder, 0));
    play(r, encoder, 8 * 12 + 5, encoder.first);
    expectRecorded(r);
    EXPECT_THAT(r.status().text, HasSubstr(", those before 10:00:00:07 by the clock"));
    EXPECT_THAT(r.status().text, HasSubstr("from 09:59:59:20 to 10:00:01:15, 5 frames before mark-in"));
}

// Its timecode is of a frame that could be the source's, and is none.
TEST_F(MezzanineBegin, DoesNotCountAGopThatBeganWithAForeignLabelWhenTheSourceWasThere) {
    const Passing encoder{"", shapeOf({.bFrames = 2})};
    Recording r = recording(marks(encoder, 0));
    play(r, encoder, 9 * 12, "10:00:00:14"); // the GOP before began with what would be frame 2
    ASSERT_EQ(r.state(), RecordingState::ended);
    EXPECT_FALSE(r.status().succeeded) << r.status().text;
    EXPECT_THAT(r.status().text, HasSubstr("12 frames between the marks did not come back"));
}

} // namespace
