// Labels as numbers, and the labels of a stream's frames.
#include "capture/FrameLabels.h"

#include "capture/RecordingClock.h"
#include "capture/StreamAnalyzer.h"
#include "capture/labelled_stream.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace kestrel::capture;
using namespace capture_test;
using namespace std::chrono_literals;

namespace {

constexpr LabelRule pal{3, false};
constexpr LabelRule drop30{4, true};
constexpr LabelRule drop60{7, true};

TEST(LabelRule, CountsADayAtEveryRate) {
    EXPECT_EQ(pal.perDay(), 24 * 3600 * 25);
    EXPECT_EQ(drop30.perDay(), 2589408);
    EXPECT_EQ((LabelRule{4, false}.perDay()), 24 * 3600 * 30) << "non-drop labels at 29.97";
    EXPECT_EQ((LabelRule{1, false}.perDay()), 24 * 3600 * 24);
    EXPECT_EQ(drop60.perDay(), 2 * 2589408);
}

TEST(LabelRule, NumbersAndTextsAreInversesAcrossTheDroppedLabels) {
    EXPECT_EQ(drop30.number("00:00:59;29"), 1799);
    EXPECT_EQ(drop30.number("00:01:00;02"), 1800);
    EXPECT_EQ(drop30.text(1800), "00:01:00;02");
    EXPECT_EQ((LabelRule{4, false}.number("00:01:00:00")), 1800);
    EXPECT_EQ(pal.number("23:59:59:24"), pal.perDay() - 1);
    EXPECT_EQ(pal.text(pal.perDay()), "00:00:00:00");
    EXPECT_EQ(pal.text(-1), "23:59:59:24");
}

TEST(LabelRule, ALabelThatDoesNotExistHasNoNumber) {
    EXPECT_FALSE(drop30.number("00:01:00;00"));
    EXPECT_TRUE(drop30.number("00:10:00;00"));
    for (const char* bad : {"24:00:00:00", "00:60:00:00", "00:00:60:00", "00:00:00:25", "0:00:00:00", "",
                            "00:00:00:00x", "00-00-00-00"})
        EXPECT_FALSE(pal.number(bad)) << bad;
    EXPECT_FALSE(LabelRule{}.number("00:00:00:00")) << "no rate";
}

TEST(LabelRule, ADecksLabelCountsTwoFramesAtTheDoubleRates) {
    constexpr LabelRule fast{6, false};
    EXPECT_EQ(fast.number("00:00:00:24", true), 48);
    EXPECT_EQ(fast.number("00:00:00:24"), 24);
    EXPECT_FALSE(fast.number("00:00:00:25", true));
    EXPECT_EQ(drop60.number("00:01:00;02", true), 3600);
    EXPECT_FALSE(drop60.number("00:01:00;01", true)) << "a dropped pair";
    EXPECT_EQ(pal.number("00:00:00:24", true), 24);
}

TEST(LabelRule, TheDistanceIsTheShorterWayRoundTheDay) {
    EXPECT_EQ(pal.distance(10, 4), -6);
    EXPECT_EQ(pal.distance(pal.perDay() - 1, 1), 2);
    EXPECT_EQ(pal.distance(1, pal.perDay() - 1), -2);
}

// Feeds a stream and gives what each coded frame is labelled.
class FrameLabelsTest : public testing::Test {
protected:
    std::vector<std::string> label(FrameLabels& labels, const std::vector<CodedFrame>& frames) {
        std::vector<std::string> texts;
        for (const CodedFrame& frame : frames) {
            for (const Packet& packet : frame.packets) {
                if (m_analyzer.take(packet.data()))
                    m_clock.openUnit();
                const bool first = m_clock.unitFrames() == 0;
                const int rate = m_analyzer.frameRateCode();
                if (m_clock.count(m_analyzer.unit(), m_analyzer.clock(), rate) == 0 || !first)
                    continue;
                const auto number = labels.label(m_analyzer.unit(), m_analyzer.clock().elapsed(), rate,
                                                 m_analyzer.codec(), m_now);
                texts.push_back(number ? labels.rule().text(*number) : "none");
            }
            m_now += m_frameTime;
        }
        return texts;
    }
    static std::vector<std::string> expected(const std::vector<CodedFrame>& frames) {
        std::vector<std::string> texts;
        for (const CodedFrame& frame : frames)
            texts.push_back(frame.label);
        return texts;
    }

    StreamAnalyzer m_analyzer;
    RecordingClock m_clock;
    Clock::time_point m_now{1000s};
    Clock::duration m_frameTime = 40ms;
};

struct Case {
    const char* name;
    LabelledShape shape;
};

void PrintTo(const Case& c, std::ostream* out) {
    *out << c.name;
}

class StreamLabels : public FrameLabelsTest, public testing::WithParamInterface<Case> {};

TEST_P(StreamLabels, EveryFrameHasItsOwn) {
    FrameLabels labels(true, true, 0);
    const auto frames = LabelledStream(GetParam().shape).frames(120);
    EXPECT_EQ(label(labels, frames), expected(frames));
    EXPECT_EQ(labels.origin(), LabelOrigin::stream);
}

INSTANTIATE_TEST_SUITE_P(
    Shapes, StreamLabels,
    testing::Values(Case{"pal", {}}, Case{"palBFrames", {.bFrames = 2}},
                    Case{"palOpenGops", {.bFrames = 2, .open = true}},
                    Case{"dropAcrossAMinute", {.rateCode = 4, .timecode = "10:00:58;20", .bFrames = 2}},
                    Case{"nonDropAt2997", {.rateCode = 4, .timecode = "10:00:58:20"}},
                    Case{"dropAt5994", {.rateCode = 7, .timecode = "10:00:59;10"}},
                    Case{"film", {.rateCode = 1, .timecode = "10:00:59:10"}},
                    Case{"acrossMidnight", {.timecode = "23:59:58:00"}}, Case{"fieldPairs", {.fields = true}},
                    Case{"avc", {.bFrames = 2, .avc = true}},
                    Case{"avcKeysOnly", {.bFrames = 2, .open = true, .avc = true, .keysOnly = true}},
                    Case{"avcDrop", {.rateCode = 4, .timecode = "10:00:58;20", .avc = true}},
                    Case{"avcWithBuffering", {.avc = true, .avcHrd = true}}),
    [](const auto& made) { return std::string(made.param.name); });

// Where others begin with a key picture, those that are shown before it may be of either.
TEST_F(FrameLabelsTest, APictureOfH264ThatIsShownBeforeAKeyHasALabelByTheOneBeforeToo) {
    FrameLabels labels(true, true, 0);
    LabelledStream stream({.gop = 10, .bFrames = 2, .open = true, .avc = true, .keysOnly = true});
    stream.switchAt(22, "05:00:00:00");
    label(labels, stream.frames(20));
    EXPECT_EQ(label(labels, stream.frames(1)).back(), "05:00:00:00");
    EXPECT_FALSE(labels.earlier());
    EXPECT_EQ(label(labels, stream.frames(1)).back(), "04:59:59:23");
    EXPECT_EQ(labels.rule().text(labels.earlier().value_or(0)), "10:00:00:20");
    EXPECT_EQ(labels.rule().text(labels.goBack()), "10:00:00:20");
    label(labels, stream.frames(2));
    EXPECT_FALSE(labels.earlier());
}

TEST_F(FrameLabelsTest, WithoutTimecodesOrAReferenceThereAreNone) {
    FrameLabels labels(false, true, 1);
    EXPECT_THAT(label(labels, LabelledStream().frames(30)), testing::Each("none"));
    EXPECT_EQ(labels.origin(), LabelOrigin::none);
}

TEST_F(FrameLabelsTest, ADecksReportCountsFromTheNextRandomAccessPointOn) {
    FrameLabels labels(false, true, 1);
    LabelledStream stream({.timecode = "10:00:00:00", .bFrames = 2});
    label(labels, stream.frames(5));
    labels.refer({"12:00:00:00", m_now, false, 0}); // seven frames before the next
    const auto told = label(labels, stream.frames(20));
    EXPECT_EQ(told[0], "none");
    EXPECT_EQ(told[7], "12:00:00:07");
    EXPECT_EQ(told[8], "12:00:00:10") << "a P picture, coded before what is shown before it";
    EXPECT_EQ(told[9], "12:00:00:08");
    EXPECT_EQ(labels.origin(), LabelOrigin::deck);
}

TEST_F(FrameLabelsTest, TheStreamsLagIsTakenOffAReport) {
    FrameLabels labels(false, true, 1);
    labels.refer({"12:00:00:10", m_now, false, 6});
    EXPECT_EQ(label(labels, LabelledStream().frames(1))[0], "12:00:00:04");
}

TEST_F(FrameLabelsTest, AReportWithinTheToleranceDoesNotMoveTheCount) {
    FrameLabels labels(false, true, 1);
    LabelledStream stream;
    labels.refer({"12:00:00:00", m_now, false, 0});
    label(labels, stream.frames(12));
    labels.refer({"12:00:00:13", m_now, false, 0});
    EXPECT_EQ(label(labels, stream.frames(12))[0], "12:00:00:12") << "one frame off";
    labels.refer({"12:00:01:01", m_now, false, 0});
    EXPECT_EQ(label(labels, stream.frames(12))[0], "12:00:01:01") << "two frames off";
}

TEST_F(FrameLabelsTest, ADropFrameReportMakesDropFrameLabels) {
    m_frameTime = std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(1001.0 / 30000));
    FrameLabels labels(false, true, 1);
    labels.refer({"10:00:59;20", m_now, false, 0});
    EXPECT_EQ(label(labels, LabelledStream({.rateCode = 4}).frames(11)).back(), "10:01:00;02");
}

TEST_F(FrameLabelsTest, AFirstFrameIsCountedFromWhenItComes) {
    FrameLabels labels(false, false, 0);
    LabelledStream stream;
    label(labels, stream.frames(3));
    labels.refer({"01:00:00:00", {}, true, 0});
    m_now += 5s;
    const auto told = label(labels, stream.frames(30));
    EXPECT_EQ(told[8], "none");
    EXPECT_EQ(told[9], "01:00:00:00");
    EXPECT_EQ(told[29], "01:00:00:20");
    EXPECT_EQ(labels.origin(), LabelOrigin::counted);
}

TEST_F(FrameLabelsTest, TimecodesThatStandStillWhileTheDeckRunsAreNone) {
    FrameLabels labels(true, true, 1);
    LabelledStream stream({.timecodes = false});
    EXPECT_EQ(label(labels, stream.frames(1))[0], "00:00:00:00");
    for (int second = 0; second < 5; ++second) {
        labels.refer({"12:00:0" + std::to_string(second) + ":00", m_now, false, 0});
        label(labels, stream.frames(25));
    }
    EXPECT_EQ(labels.origin(), LabelOrigin::deck);
}

TEST_F(FrameLabelsTest, ADeckThatStandsStillLeavesTheStreamsLabels) {
    FrameLabels labels(true, true, 1);
    LabelledStream stream({.timecodes = false});
    for (int second = 0; second < 5; ++second) {
        labels.refer({"00:00:00:00", m_now, false, 0});
        label(labels, stream.frames(25));
    }
    EXPECT_EQ(labels.origin(), LabelOrigin::stream);
}

TEST_F(FrameLabelsTest, LostFramesTakeTheirLabelsWithThem) {
    FrameLabels labels(false, true, 1);
    LabelledStream stream;
    labels.refer({"10:00:00:00", m_now, false, 0});
    auto frames = stream.frames(40);
    frames.erase(frames.begin() + 5, frames.begin() + 20);
    const auto told = label(labels, frames);
    EXPECT_EQ(told[4], "10:00:00:04");
    EXPECT_EQ(told[5], "10:00:00:20");
}

TEST_F(FrameLabelsTest, HeadersCutAtAnyLengthLabelNothingBeyondTheDay) {
    for (const LabelledShape& shape :
         {LabelledShape{}, LabelledShape{.avc = true}, LabelledShape{.avc = true, .avcHrd = true}}) {
        for (std::size_t kept = 4; kept < packetSize; ++kept) {
            m_analyzer = StreamAnalyzer();
            m_clock = RecordingClock();
            FrameLabels labels(true, true, 0);
            auto frames = LabelledStream(shape).frames(14);
            for (CodedFrame& frame : frames)
                for (Packet& packet : frame.packets)
                    if (pid(packet) == videoPid)
                        std::fill(packet.begin() + static_cast<std::ptrdiff_t>(kept), packet.end(), 0xFF);
            for (const std::string& text : label(labels, frames))
                EXPECT_TRUE(text == "none" || labels.rule().number(text)) << text << " at " << kept;
        }
    }
}

TEST_F(FrameLabelsTest, WithoutGopHeadersFramesAreCountedByTheirTimestamps) {
    FrameLabels labels(true, true, 1);
    labels.refer({"12:00:00:00", m_now, false, 0});
    EXPECT_EQ(label(labels, LabelledStream({.bFrames = 2, .gopHeaders = false}).frames(30))[1],
              "12:00:00:03");
    EXPECT_EQ(labels.origin(), LabelOrigin::deck);
}

} // namespace
