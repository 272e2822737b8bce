// What comes back of a source and is counted, from encoders that code frames in another order than they are
// shown: the last ones of the source behind one that follows them, the first ones behind one that comes
// later.
#include "capture/played_order.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <optional>

using namespace kestrel::capture;
using namespace capture_test;
using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

// An encoder that waits for the source and counts by itself.
class ByCount : public PlayedOrder, public testing::WithParamInterface<LabelledShape> {
protected:
    static LabelledShape shape() {
        LabelledShape result = GetParam();
        result.timecode = "00:00:00:00";
        result.gop = 15;
        return result;
    }
    static int perFrame() { return GetParam().rateCode == 6 ? 2 : 1; }
    void begin(Recording& r) {
        m_frameTime = 40ms / perFrame();
        beginSilent(r);
    }
    // sourceTime: where the source's frames take longer than their number tells.
    Recording recordingOf(int wanted, std::optional<std::int64_t> sourceTime = std::nullopt) {
        nextFile();
        RecordingPlan asked = plan();
        asked.wantedFrames = static_cast<std::uint64_t>(wanted);
        asked.sourceTime = sourceTime.value_or(asked.sourceTime);
        return recording(asked);
    }
    void play(Recording& r, const std::vector<CodedFrame>& fed) {
        feed(r, fed);
        r.sourceEnded(m_now);
        pass(r, 6s);
    }
    static std::vector<std::string> sources(int wanted) {
        return labelsFrom("00:00:00:00", wanted * perFrame(), GetParam().rateCode);
    }
    // By when they are coded: as many as it takes for all of these to have come, and how many are before the
    // last.
    static std::size_t lastAt(const std::vector<CodedFrame>& frames, const std::vector<std::string>& labels) {
        std::size_t last = 0;
        for (std::size_t i = 0; i < frames.size(); ++i)
            if (std::find(labels.begin(), labels.end(), frames[i].label) != labels.end())
                last = i;
        return last;
    }
};

TEST_P(ByCount, HasEachFrameOfTheSourceAndNoMoreThanItMust) {
    for (const bool goesOn : {true, false})
        for (int wanted = 90; wanted < 105; ++wanted) {
            SCOPED_TRACE(std::to_string(wanted) + (goesOn ? " on" : " off"));
            Recording r = recordingOf(wanted);
            begin(r);
            LabelledStream stream(shape());
            std::vector<CodedFrame> fed = stream.frames(300);
            const std::vector<std::string> all = sources(wanted);
            if (!goesOn)
                fed.resize(lastAt(fed, all) + 1);
            play(r, fed);
            expectRecorded(r);
            EXPECT_THAT(recordedOf(fed), testing::IsSupersetOf(all));
            EXPECT_LE(fileFrames(), all.size() + 1 + static_cast<std::size_t>(shape().delay));
        }
}

// Of a film in video each other frame is shown for three fields; the encoder returns frames of two.
TEST_P(ByCount, HasAFilmToTheEndThoughItReturnsMoreFramesThanTheSourceHas) {
    for (const bool goesOn : {true, false}) {
        SCOPED_TRACE(goesOn);
        Recording r = recordingOf(80, 4 * PTS::units_per_second);
        begin(r);
        LabelledStream stream(shape());
        std::vector<CodedFrame> fed = stream.frames(300);
        const std::vector<std::string> all = sources(100);
        if (!goesOn)
            fed.resize(lastAt(fed, all) + 1);
        play(r, fed);
        expectRecorded(r);
        EXPECT_THAT(recordedOf(fed), testing::IsSupersetOf(all));
    }
}

// What came back of a film is recorded as long as its own frames take, or as many as an encoder makes of
// them.
TEST_P(ByCount, TellsThatFramesOfAFilmWereLost) {
    struct Lost {
        int first;
        int count;
    };
    for (const auto [first, count] : {Lost{82, 18}, Lost{99, 1}, Lost{40, 16}, Lost{40, 1}}) {
        SCOPED_TRACE(std::to_string(count) + " from " + std::to_string(first));
        // The last may be shown for less than its time.
        if (count == 1 && perFrame() > 1)
            continue;
        Recording r = recordingOf(80, 4 * PTS::units_per_second);
        begin(r);
        LabelledStream stream(shape());
        std::vector<CodedFrame> fed = stream.frames(100 * perFrame() + 20);
        std::vector<std::string> gone = sources(100);
        gone.erase(gone.begin() + (first + count) * perFrame(), gone.end());
        gone.erase(gone.begin(), gone.begin() + first * perFrame());
        fed.resize(lastAt(fed, sources(100)) + 1);
        std::erase_if(fed, [&gone](const CodedFrame& frame) {
            return std::find(gone.begin(), gone.end(), frame.label) != gone.end();
        });
        play(r, fed);
        expectFailed(r, "Error: ");
        EXPECT_THAT(r.status().text, HasSubstr(" frames came back. "));
    }
}

TEST_P(ByCount, HasAFilmThatComesBackAsItIs) {
    if (perFrame() > 1)
        return;
    for (const int lost : {0, 1}) {
        Recording r = recordingOf(80, 4 * PTS::units_per_second);
        begin(r);
        LabelledStream stream(shape());
        std::vector<CodedFrame> fed = stream.frames(120);
        const std::vector<std::string> labels = sources(100);
        std::erase_if(fed, [&](const CodedFrame& frame) {
            const auto at = std::find(labels.begin(), labels.end(), frame.label) - labels.begin();
            return at == 100 || at % 5 == 3 || (lost != 0 && at == 41);
        });
        play(r, fed);
        if (lost == 0)
            expectRecorded(r);
        else
            expectFailed(r, "Error: 79 of 80 frames came back. ");
    }
}

// The decoder shows the one before for longer.
TEST_P(ByCount, HasTheLastFrameOfASourceInWhichOneIsMissing) {
    for (int frames = 90; frames < 105; ++frames) {
        SCOPED_TRACE(frames);
        Recording r = recordingOf(frames - 1, frames * PTS::units_per_second / 25);
        begin(r);
        LabelledStream stream(shape());
        const std::vector<CodedFrame> fed = stream.frames(300);
        play(r, fed);
        expectRecorded(r);
        EXPECT_THAT(recordedOf(fed), testing::IsSupersetOf(sources(frames)));
    }
}

// One that is shown behind it, and is coded before it, does not stand for it.
TEST_P(ByCount, TellsThatTheLastFrameWasLost) {
    for (int wanted = 90; wanted < 105; ++wanted) {
        SCOPED_TRACE(wanted);
        Recording r = recordingOf(wanted);
        begin(r);
        LabelledStream stream(shape());
        std::vector<CodedFrame> fed = stream.frames(300);
        const std::vector<std::string> all = sources(wanted);
        const std::size_t lost = 1 + static_cast<std::size_t>(perFrame() - 1);
        for (std::size_t i = 0; i < lost; ++i)
            std::find_if(fed.begin(), fed.end(), [&](const CodedFrame& frame) {
                return frame.label == all[all.size() - 1 - i];
            })->packets.clear();
        std::erase_if(fed, [](const CodedFrame& frame) { return frame.packets.empty(); });
        play(r, fed);
        // At another rate the last may be shown for less than its time.
        expectFailed(r, "Error: " + std::to_string(all.size() - lost) + " of " +
                            std::to_string(all.size() + 1 - static_cast<unsigned>(perFrame())) +
                            " frames came back. ");
    }
}

TEST_P(ByCount, IsCancelledWhileTheLastFrameIsStillToCome) {
    for (int wanted = 90; wanted < 105; ++wanted)
        for (const bool came : {false, true}) {
            SCOPED_TRACE(std::to_string(wanted) + (came ? " came" : ""));
            Recording r = recordingOf(wanted);
            begin(r);
            LabelledStream stream(shape());
            std::vector<CodedFrame> fed = stream.frames(300);
            const std::size_t last = lastAt(fed, sources(wanted));
            fed.resize(last + (came ? 1 : 0));
            feed(r, fed);
            r.sourceEnded(m_now);
            r.cancel(m_now);
            EXPECT_TRUE(r.status().succeeded) << r.status().text;
            EXPECT_THAT(r.status().text, StartsWith(came ? "Recorded " : "Cancelled after "));
        }
}

// Without them it is not known which is shown when.
TEST_P(ByCount, WithoutTimestampsHasSomeFramesMore) {
    for (int wanted = 90; wanted < 105; ++wanted) {
        SCOPED_TRACE(wanted);
        Recording r = recordingOf(wanted);
        begin(r);
        LabelledStream stream(shape());
        const std::vector<CodedFrame> fed = unstamped(stream.frames(300));
        const std::vector<std::string> all = sources(wanted);
        play(r, fed);
        expectRecorded(r);
        EXPECT_THAT(labelsOf(readPackets(m_file), GetParam().rateCode), testing::IsSupersetOf(all));
        EXPECT_LE(fileFrames(), all.size() + 4);
    }
}

INSTANTIATE_TEST_SUITE_P(Encoders, ByCount,
                         testing::Values(LabelledShape{.bFrames = 0}, LabelledShape{.bFrames = 1},
                                         LabelledShape{.bFrames = 2}, LabelledShape{.bFrames = 3},
                                         LabelledShape{.rateCode = 6, .bFrames = 2},
                                         LabelledShape{.bFrames = 2, .open = true},
                                         LabelledShape{.bFrames = 2, .fields = true},
                                         LabelledShape{.bFrames = 2, .delay = 3}),
                         [](const auto& shape) { return nameOf(shape.param); });

class ByCountOfH264 : public ByCount {};

TEST_P(ByCountOfH264, HasTheLastFrameToo) {
    for (int wanted = 90; wanted < 105; ++wanted) {
        SCOPED_TRACE(wanted);
        Recording r = recordingOf(wanted);
        begin(r);
        LabelledStream stream(shape());
        const std::vector<CodedFrame> fed = stream.frames(300);
        const std::vector<std::string> all = sources(wanted);
        feed(r, fed);
        expectRecorded(r);
        const std::vector<std::string> there = recordedOf(fed);
        EXPECT_THAT(there, testing::IsSupersetOf(all));
        EXPECT_LE(there.size(), all.size() + 1);
    }
}

INSTANTIATE_TEST_SUITE_P(Encoders, ByCountOfH264,
                         testing::Values(LabelledShape{.bFrames = 0, .avc = true},
                                         LabelledShape{.bFrames = 2, .avc = true},
                                         LabelledShape{.bFrames = 3, .open = true, .avc = true},
                                         LabelledShape{.rateCode = 6, .bFrames = 2, .avc = true}),
                         [](const auto& shape) { return nameOf(shape.param); });

} // namespace
