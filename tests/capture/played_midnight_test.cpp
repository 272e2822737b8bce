// Whole sources whose timecodes cross midnight.
#include "capture/played_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace kestrel::capture;
using namespace capture_test;
using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::Not;

namespace {

struct Night {
    const char* name;
    const char* first;
    LabelledShape shape;
    std::chrono::microseconds frameTime{40000};
};

void PrintTo(const Night& night, std::ostream* out) {
    *out << night.name;
}

class AcrossMidnight : public PlayedRecording, public testing::WithParamInterface<Night> {
protected:
    RecordingPlan midnightPlan() {
        const auto labels = labelsFrom(GetParam().first, sourceFrames, GetParam().shape.rateCode);
        RecordingPlan result = plan(labels.front(), labels.back());
        result.sourceRateCode = GetParam().shape.rateCode;
        m_frameTime = GetParam().frameTime;
        return result;
    }
    std::string last() const {
        return labelsFrom(GetParam().first, sourceFrames, GetParam().shape.rateCode).back();
    }
};

TEST_P(AcrossMidnight, AllComesBackOfASilentEncoder) {
    Recording r = recording(midnightPlan());
    beginSilent(r, GetParam().first);
    LabelledShape shape = GetParam().shape;
    shape.timecode = GetParam().first;
    LabelledStream stream(shape);
    feed(r, stream, sourceFrames);
    r.sourceEnded(m_now);
    stream.jumpTo("05:00:00:00");
    feed(r, stream, 200);
    expectRecorded(r);
    EXPECT_EQ(fileFrames(), GetParam().shape.avc ? 0U : 100U);
    EXPECT_THAT(r.status().text, HasSubstr("(100 frames, "));
}

TEST_P(AcrossMidnight, FramesThatAreLostBehindItAreTold) {
    Recording r = recording(midnightPlan());
    beginSilent(r, GetParam().first);
    LabelledShape shape = GetParam().shape;
    shape.timecode = GetParam().first;
    LabelledStream stream(shape);
    feed(r, stream, 90);
    r.sourceEnded(m_now);
    pass(r, 10s);
    expectFailed(r, "Error: 90 of 100 frames came back");
}

// Wherever in the encoder's GOP the source's first frame comes.
TEST_P(AcrossMidnight, AllComesBackOfARunningEncoder) {
    for (int came = 0; came < 10; ++came) {
        SCOPED_TRACE(came);
        nextFile();
        Recording r = recording(midnightPlan());
        LabelledStream stream(idle(GetParam().shape));
        beginRunning(r, stream, GetParam().first);
        stream.switchAt(90 + came, GetParam().first);
        feed(r, stream, 15 + came + sourceFrames);
        r.sourceEnded(m_now);
        stream.jumpTo("05:00:00:00");
        feed(r, stream, 200);
        expectRecorded(r);
        EXPECT_THAT(r.status().text, HasSubstr(std::string("by the source's timecodes from ") +
                                               GetParam().first + " to " + last()));
        EXPECT_THAT(r.status().text, Not(HasSubstr("missing")));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Nights, AcrossMidnight,
    testing::Values(Night{"Seconds", "23:59:58:00", {.gop = 10}},
                    Night{"InTheFirstGop", "23:59:59:20", {.gop = 10}},
                    Night{"BehindTheFirstGop", "23:59:59:12", {.gop = 10}},
                    Night{"BFrames", "23:59:58:00", {.gop = 10, .bFrames = 2}},
                    Night{"H264", "23:59:58:00", {.gop = 10, .avc = true}},
                    Night{"DropFrame", "23:59:58;00", {.rateCode = 4, .gop = 10}, 33367us},
                    Night{"H264DropFrame", "23:59:58;00", {.rateCode = 4, .gop = 10, .avc = true}, 33367us}),
    [](const auto& night) { return std::string(night.param.name); });

} // namespace
