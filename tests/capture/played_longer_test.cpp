// Recordings of a source whose frames take longer than their number tells: a film, of which some are shown
// for three fields, or one that has lost some. An encoder behind a decoder returns a frame for each period of
// it; what passes it on returns its own. And of a source whose timecodes jump among its first frames.
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

namespace {

constexpr std::int64_t period = PTS::units_per_second / 25;

struct Return {
    const char* name;
    bool runs; // the encoder sends before
    LabelledShape shape;
};

void PrintTo(const Return& what, std::ostream* out) {
    *out << what.name;
}

// 80 frames that take 4 s: of each five periods the fourth has none of its own. The timecodes count periods,
// so they tell where its first frame is, but not which is its last.
class LongerSource : public PlayedRecording, public testing::WithParamInterface<Return> {
protected:
    int m_periods = 100;
    static bool isOwn(int at) { return at % 5 != 3; }

    RecordingPlan plan(bool timesKnown = true) {
        RecordingPlan result = PlayedRecording::plan("10:00:00:00", "10:00:00:24");
        result.labelledFrames = 25;
        result.wantedFrames = static_cast<std::uint64_t>(m_periods) - gaps().size();
        result.sourceTime = m_periods * period;
        for (int at = 0; at < m_periods && timesKnown; ++at)
            if (isOwn(at))
                result.sourceShown.push_back(at * period);
        nextFile();
        return result;
    }
    // What comes back of it in a stream that goes on; lost: periods of which no frame comes back.
    void play(Recording& r, const std::set<int>& lost) {
        LabelledShape shape = GetParam().shape;
        shape.gop = 12;
        shape.timecode = GetParam().runs ? "00:00:00:00" : "10:00:00:00";
        LabelledStream stream(shape);
        if (GetParam().runs) {
            beginRunning(r, stream);
            feed(r, stream, 9); // until the GOP ends
            stream.jumpTo("10:00:00:00");
        } else {
            beginSilent(r);
        }
        const std::vector<std::string> labels = labelsFrom("10:00:00:00", m_periods);
        for (const CodedFrame& frame : stream.frames(160)) {
            const auto at = std::find(labels.begin(), labels.end(), frame.label) - labels.begin();
            if (!lost.contains(static_cast<int>(at)))
                feed(r, std::vector{frame});
            else
                m_now += m_frameTime;
            if (at == m_periods - 1)
                r.sourceEnded(m_now);
        }
        pass(r, 6s);
    }
    // Of the periods in which the source shows a frame for longer.
    std::set<int> gaps() const {
        std::set<int> result;
        for (int at = 0; at < m_periods; ++at)
            if (!isOwn(at))
                result.insert(at);
        return result;
    }
};

TEST_P(LongerSource, IsCompleteWithAFrameForEachPeriod) {
    Recording r = recording(plan());
    play(r, {});
    expectRecorded(r);
    EXPECT_THAT(r.status().text, Not(HasSubstr("not known")));
    if (GetParam().runs) {
        EXPECT_THAT(r.status().text, HasSubstr("by the source's timecodes"));
    }
}

TEST_P(LongerSource, IsNotWithAFewerOfThemThoughTheyAreMoreThanTheSourceHas) {
    for (const std::set<int>& lost : {std::set{50}, std::set{40, 41, 42, 43}, std::set{97, 98}}) {
        SCOPED_TRACE(lost.size());
        Recording r = recording(plan());
        play(r, lost);
        expectFailed(r, "Error: " + std::to_string(m_periods - static_cast<int>(lost.size())) +
                            " of 100 frames came back. ");
    }
}

// One that is coded before its last and shown behind it does not stand for it.
TEST_P(LongerSource, IsNotWithoutItsLastFrameWhereverInAGopThatIs) {
    for (m_periods = 95; m_periods <= 106; ++m_periods)
        for (const bool lost : {false, true}) {
            SCOPED_TRACE(std::to_string(m_periods) + (lost ? " lost" : ""));
            Recording r = recording(plan());
            play(r, lost ? std::set{m_periods - 1} : std::set<int>{});
            if (!lost)
                expectRecorded(r);
            else
                expectFailed(r, "Error: " + std::to_string(m_periods - 1) + " of " +
                                    std::to_string(m_periods) + " frames came back. ");
        }
}

TEST_P(LongerSource, IsCompleteWithItsOwnFrames) {
    Recording r = recording(plan());
    play(r, gaps());
    expectRecorded(r);
    EXPECT_THAT(r.status().text, Not(HasSubstr("not known")));
}

TEST_P(LongerSource, IsNotWithOneOfThemLess) {
    for (const int at : {50, 99}) {
        SCOPED_TRACE(at);
        std::set<int> lost = gaps();
        lost.insert(at);
        Recording r = recording(plan());
        play(r, lost);
        expectFailed(r, "Error: 79 of 80 frames came back. ");
    }
}

// The gaps are as many, and the last frame is there, but they are not those of the source.
TEST_P(LongerSource, IsNotWithAsManyFramesAtOtherPlaces) {
    std::set<int> lost = gaps();
    lost.erase(48);
    lost.insert(50);
    Recording r = recording(plan());
    play(r, lost);
    expectFailed(r, "Error: 80 of 100 frames came back. ");
}

// Where the source does not tell when each of its frames is shown, nothing tells these apart.
TEST_P(LongerSource, SaysThatItIsNotKnownWhichFramesAreItsOwn) {
    Recording r = recording(plan(false));
    play(r, gaps());
    expectRecorded(r);
    EXPECT_THAT(r.status().text, HasSubstr("not known whether it is complete"));
    Recording fewer = recording(plan(false));
    play(fewer, {50});
    expectFailed(fewer, "Error: 99 of 100 frames came back. ");
}

INSTANTIATE_TEST_SUITE_P(Encoders, LongerSource,
                         testing::Values(Return{"Running", true, {}}, Return{"Silent", false, {}},
                                         Return{"RunningH264", true, {.avc = true}},
                                         Return{"RunningWithBFrames", true, {.bFrames = 2}},
                                         Return{"RunningWithOpenGops", true, {.bFrames = 2, .open = true}},
                                         Return{"SilentWithBFrames", false, {.bFrames = 2}}),
                         [](const auto& encoder) { return std::string(encoder.param.name); });

// Of a film each other frame is shown for three fields.
TEST(PlayedPlaces, KnowAFilmByItsFields) {
    constexpr std::int64_t field = period / 2;
    PlayedPlaces places({0, 3 * field, 5 * field, 8 * field, 10 * field}, 0);
    for (const std::int64_t at : {0, 5, 3, 8})
        places.came(1000 + at * field);
    EXPECT_EQ(places.own(places.earliest(), period, false), 4U);
    places.came(1000 + 10 * field + 1); // a clock that is counted anew may be off by some units
    EXPECT_EQ(places.own(places.earliest(), period, false), 5U);
    places.came(1000 + 40 * field); // behind its last
    EXPECT_EQ(places.own(places.earliest(), period, false), 5U);
    places.came(1000 + 4 * field);
    EXPECT_EQ(places.own(places.earliest(), period, false), std::nullopt);
}

// Of clips that were put together the last frame of one may be shown when the first of the next is.
TEST(PlayedPlaces, OfTwoFramesAtOneTimeAreTwo) {
    for (const int lost : {-1, 2, 3, 4}) {
        PlayedPlaces places({0, period, 2 * period, 2 * period, 3 * period}, 0);
        int frame = 0;
        for (const int at : {0, 2, 1, 2, 3})
            if (frame++ != lost)
                places.came(at * period);
        EXPECT_EQ(places.own(places.earliest(), period, false), lost < 0 ? 5U : 4U) << lost;
    }
}

TEST(PlayedPlaces, OfFramesThatCannotBeShownAreWantedNeitherWay) {
    for (const bool hiddenToo : {false, true}) {
        PlayedPlaces places({0, period, 2 * period, 4 * period, 5 * period}, 2);
        for (const int at : {0, 1, 2, 4, 5})
            if (at >= 2 || hiddenToo)
                places.came(at * period);
        EXPECT_EQ(places.own(places.earliest(), period, hiddenToo), 3U);
        EXPECT_EQ(places.own(places.earliest(), period, !hiddenToo), std::nullopt);
    }
}

TEST(PlayedPlaces, AreNotKnownWhileOneFrameOfThemHasNone) {
    PlayedPlaces places({}, 0);
    EXPECT_FALSE(places.sourceKnown());
    places.came(0);
    places.came(std::nullopt);
    places.came(period);
    EXPECT_FALSE(places.known());
    places.drop(1);
    EXPECT_FALSE(places.known());
    places.drop(1);
    EXPECT_TRUE(places.known());
    EXPECT_EQ(places.count(), 1U);
    EXPECT_EQ(places.between(period, 2 * period), 1U);
    EXPECT_EQ(places.between(0, period), 0U);
    EXPECT_EQ(places.own(places.earliest(), period, false), std::nullopt);
}

// A source that ends with a picture whose B pictures were still to come: it is shown two periods behind the
// one before.
class ReturnOfACutSource : public PlayedRecording, public testing::WithParamInterface<bool> {
protected:
    static constexpr int periods = 103;
    static bool isOwn(int at) { return at != 100 && at != 101; }
    RecordingPlan plan() {
        nextFile();
        RecordingPlan result = PlayedRecording::plan("10:00:00:00", "10:00:03:23");
        result.labelledFrames = 96;
        result.wantedFrames = 101;
        result.sourceTime = periods * period;
        for (int at = 0; at < periods; ++at)
            if (isOwn(at))
                result.sourceShown.push_back(at * period);
        return result;
    }
    // Without these, and what the encoder goes on with.
    void play(Recording& r, const std::set<int>& lost, int more) {
        LabelledStream stream({.timecode = GetParam() ? "00:00:00:00" : "10:00:00:00", .gop = 12});
        if (GetParam()) {
            beginRunning(r, stream);
            feed(r, stream, 9);
            stream.jumpTo("10:00:00:00");
        } else {
            beginSilent(r);
        }
        m_source.clear();
        int at = 0;
        for (const CodedFrame& frame : stream.frames(periods + more)) {
            if (at < periods)
                m_source.push_back(frame);
            if (!lost.contains(at))
                feed(r, std::vector{frame});
            else
                m_now += m_frameTime;
            if (++at == periods)
                r.sourceEnded(m_now);
        }
        pass(r, 6s);
    }
    std::vector<CodedFrame> m_source;
};

TEST_P(ReturnOfACutSource, IsCompleteWithItsLastFrame) {
    for (const int more : {0, 60}) {
        Recording r = recording(plan());
        play(r, {}, more);
        expectRecorded(r);
        EXPECT_EQ(recordedOf(m_source).size(), m_source.size());
    }
}

TEST_P(ReturnOfACutSource, IsCompleteWithItsOwnFrames) {
    Recording r = recording(plan());
    play(r, {100, 101}, 0);
    expectRecorded(r);
}

TEST_P(ReturnOfACutSource, IsNotWithoutItsLastFrame) {
    for (const std::set<int>& lost : {std::set{102}, std::set{101, 102}, std::set{100, 101, 102}}) {
        Recording r = recording(plan());
        play(r, lost, 0);
        ASSERT_EQ(r.state(), RecordingState::ended);
        EXPECT_FALSE(r.status().succeeded) << r.status().text;
    }
}

INSTANTIATE_TEST_SUITE_P(Encoders, ReturnOfACutSource, testing::Bool(),
                         [](const auto& runs) { return runs.param ? "Running" : "Silent"; });

// A source that was recorded over an outage of three seconds, of which its play-out takes none.
class ReturnOfAnOutage : public PlayedRecording {
protected:
    RecordingPlan plan() {
        nextFile();
        RecordingPlan result = PlayedRecording::plan("10:00:00:00", "10:00:01:23");
        result.labelledFrames = 48;
        result.sourceTime = sourceFrames * period;
        result.sourceLeaps = {{76 * period, 75 * period}};
        return result;
    }
    // So many frames come back, that one and those behind it by so much later; one of them may be lost.
    // All are at so many ticks more.
    void play(Recording& r, int frames, std::int64_t ticks, int lost = -1, std::int64_t more = 0) {
        LabelledStream stream({.gop = 12, .bFrames = 2, .timecodes = false});
        beginSilent(r);
        m_source = stream.frames(frames);
        for (CodedFrame& frame : m_source)
            delay(frame, more);
        if (lost >= 0)
            m_source.erase(m_source.begin() + lost);
        for (std::size_t i = 48; i < m_source.size(); ++i)
            delay(m_source[i], ticks);
        for (std::size_t i = 0; i < m_source.size(); ++i) {
            if (i == sourceFrames)
                r.sourceEnded(m_now);
            feed(r, std::vector{m_source[i]});
        }
        if (m_source.size() <= sourceFrames)
            r.sourceEnded(m_now);
        pass(r, 6s);
    }
    // Frames that a decoder shows for longer look like others.
    static auto tellsOfRepeats() {
        return HasSubstr(
            ", not known whether all came back: a decoder may have shown frames for longer where "
            "the source's timestamps leap");
    }
    std::vector<CodedFrame> m_source;
};

// A decoder may have shown one twice and left out another.
TEST_F(ReturnOfAnOutage, IsRecordedWithItsFramesOneByOne) {
    Recording r = recording(plan());
    play(r, sourceFrames, 0);
    expectRecorded(r);
    EXPECT_THAT(r.status().text, tellsOfRepeats());
    EXPECT_EQ(recordedOf(m_source).size(), m_source.size());
}

TEST_F(ReturnOfAnOutage, IsCompleteAsItIs) {
    Recording r = recording(plan());
    play(r, sourceFrames, 3 * 90000);
    expectRecorded(r);
    EXPECT_THAT(r.status().text, Not(tellsOfRepeats()));
    EXPECT_EQ(recordedOf(m_source).size(), m_source.size());
}

TEST_F(ReturnOfAnOutage, IsCompleteAsItIsHoweverLongThatLasted) {
    RecordingPlan asked = plan();
    asked.sourceLeaps = {{501 * period, 500 * period}};
    Recording r = recording(asked);
    play(r, sourceFrames, 20 * 90000);
    expectRecorded(r);
    EXPECT_THAT(r.status().text, Not(tellsOfRepeats()));
    EXPECT_EQ(recordedOf(m_source).size(), m_source.size());
}

// The timestamps, which begin with 10 s, begin anew within it.
TEST_F(ReturnOfAnOutage, IsCompleteAsItIsOverTheWrapOfTheClock) {
    for (const int seconds : {3, 20}) {
        RecordingPlan asked = plan();
        asked.sourceLeaps = {{(25 * seconds + 1) * period, 25 * seconds * period}};
        Recording r = recording(asked);
        play(r, sourceFrames, seconds * 90000, -1, (std::int64_t{1} << 33) - 13 * 90000);
        expectRecorded(r);
        EXPECT_THAT(r.status().text, Not(tellsOfRepeats()));
        EXPECT_EQ(recordedOf(m_source).size(), m_source.size());
    }
}

// Of a PES packet of several frames all take their time over it.
TEST_F(ReturnOfAnOutage, IsCompleteAsItIsWithSeveralFramesInAPacket) {
    for (const int seconds : {3, 20}) {
        SCOPED_TRACE(seconds);
        RecordingPlan asked = plan();
        asked.sourceLeaps = {{(25 * seconds + 4) * period, 25 * seconds * period}};
        Recording r = recording(asked);
        StreamBuilder stream({.framesPerUnit = 4});
        beginSilent(r);
        for (int frame = 0; frame < sourceFrames; frame += 4) {
            if (frame == 48)
                stream.setDts(126000 + 48 * 3600 + seconds * 90000);
            r.take(stream.frames(4), m_now);
            m_now += 4 * m_frameTime;
        }
        r.sourceEnded(m_now);
        pass(r, 6s);
        expectRecorded(r);
        EXPECT_THAT(r.status().text, HasSubstr("(100 frames, "));
        EXPECT_THAT(r.status().text, Not(tellsOfRepeats()));
    }
}

TEST_F(ReturnOfAnOutage, IsNotWithOneFrameLess) {
    for (const std::int64_t ticks : {0, 3 * 90000})
        for (const int lost : {30, 70, 99}) {
            SCOPED_TRACE(std::to_string(lost) + " of " + std::to_string(ticks));
            Recording r = recording(plan());
            play(r, sourceFrames, ticks, lost);
            expectFailed(r, "Error: 99 of 100 frames came back. ");
            EXPECT_THAT(r.status().text, Not(tellsOfRepeats()));
        }
}

// So may that of an encoder that sends all the time: while a frame is held, its number says nothing.
TEST_F(ReturnOfAnOutage, OfARunningEncoderIsRecordedToTheLastFrameToo) {
    Recording r = recording(plan());
    LabelledStream stream({.timecode = "09:00:00:00", .gop = 12, .avc = true});
    beginRunning(r, stream, "10:00:00:00");
    stream.jumpTo("10:00:00:00");
    m_source = stream.frames(48);
    feed(r, m_source);
    LabelledStream held = stream;
    feed(r, held.frames(75));
    r.sourceEnded(m_now);
    stream.jumpTo("10:00:04:23");
    const std::vector<CodedFrame> rest = stream.frames(52);
    feed(r, rest);
    pass(r, 6s);
    expectRecorded(r);
    EXPECT_EQ(recordedOf(rest).size(), rest.size());
    EXPECT_THAT(r.status().text, tellsOfRepeats());
}

// A decoder may show a frame for some time there: the last come as much later.
TEST_F(ReturnOfAnOutage, LosesNoneOfAReturnThatIsLongerByWhatADecoderHolds) {
    for (const int more : {1, 20}) {
        Recording r = recording(plan());
        play(r, sourceFrames + more, 0);
        expectRecorded(r);
        EXPECT_EQ(recordedOf(m_source).size(), m_source.size());
        EXPECT_THAT(r.status().text, tellsOfRepeats());
    }
}

// Film in 720p, that begins with two frames that cannot be shown: these would take five periods.
class HiddenFilm : public PlayedRecording {
protected:
    RecordingPlan plan() {
        nextFile();
        RecordingPlan result = PlayedRecording::plan();
        result.hiddenFrames = 2;
        result.wantedFrames = 42;
        std::int64_t place = 0;
        for (int frame = 0; frame < 42; ++frame) {
            result.sourceShown.push_back(place * period);
            place += frame % 2 == 0 ? 2 : 3;
        }
        result.sourceTime = result.sourceShown.back() + period;
        return result;
    }
    // As many frames come back.
    void play(Recording& r, int frames) {
        LabelledStream stream({.gop = 12, .timecodes = false});
        beginSilent(r);
        feed(r, stream, frames);
        r.sourceEnded(m_now);
        pass(r, 6s);
    }
};

TEST_F(HiddenFilm, IsCompleteWithAFrameForEachPeriodInWhichItsOthersAreShown) {
    Recording r = recording(plan()); // the last one begins in the 98th
    play(r, 98);
    expectRecorded(r);
    Recording fewer = recording(plan());
    play(fewer, 97);
    expectFailed(fewer, "Error: 97 of 98 frames came back. ");
}

// The first timecode that comes back says that the source began 25 frames earlier than the later ones say: it
// may have jumped back among its first frames, as one that was put together does.
class JumpAmongTheFirst : public PlayedRecording {
protected:
    // The return of a source of 128 frames that begins with the stream's frame 79, in the middle of a GOP.
    void play(Recording& r) {
        LabelledStream stream({.timecode = "20:00:00:00", .gop = 15});
        stream.switchAt(79, "10:00:00:00");
        stream.switchAt(79 + 12, "09:59:59:12");
        stream.switchAt(79 + 128, "20:00:30:00");
        beginRunning(r, stream);
        feed(r, stream, 4);
        m_source = stream.frames(128);
        feed(r, m_source);
        r.sourceEnded(m_now);
        feed(r, stream, 200);
    }
    RecordingPlan plan(unsigned labelled, const std::string& last) {
        RecordingPlan result = PlayedRecording::plan("10:00:00:00", last);
        result.wantedFrames = 128;
        result.labelledFrames = labelled;
        return result;
    }
    std::vector<CodedFrame> m_source;
};

TEST_F(JumpAmongTheFirst, LosesNoneOfThem) {
    Recording r = recording(plan(20, "10:00:00:19"));
    play(r);
    expectRecorded(r);
    EXPECT_EQ(recordedOf(m_source).size(), m_source.size());
    EXPECT_THAT(r.status().text,
                HasSubstr(", not known whether it is complete: the stream ran before the play-out "
                          "and the source's timecodes jump near its begin: up to 5 s of other "
                          "pictures at either end"));
}

// One whose timecodes run through cannot jump: the first one was another's.
TEST_F(JumpAmongTheFirst, IsNoneOfASourceWhoseTimecodesRunThrough) {
    Recording r = recording(plan(128, "10:00:05:02"));
    play(r);
    EXPECT_THAT(r.status().text, HasSubstr("by the source's timecodes"));
}

} // namespace
