// The part of a source that marks ask for.
#include "capture/FileLabels.h"
#include "capture/MarkedPart.h"
#include "capture/indexed_source.h"
#include "capture/stamped_frames.h"
#include "foundation/ErrorCodes.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <limits>

using namespace capture_test;
using namespace kestrel::capture;

namespace {

std::uint64_t atSecond(int second) {
    return static_cast<std::uint64_t>(second) * 25 * 10 * 188;
}

struct Found {
    MarkedPart part;
    MaybeFailure failed;
};

Found part(const SourceIndex& index, const char* in, const char* out, int before = 3, int behind = 4) {
    Found found;
    found.failed = findPart(index, in, out, before, behind, found.part);
    return found;
}

TEST(MarkedPart, BeginsAtAnAccessPointSecondsBeforeMarkInAndEndsSecondsBehindMarkOut) {
    const Found found = part(regular(), "10:00:20:00", "10:00:22:12");
    ASSERT_FALSE(found.failed) << found.failed->text;
    // At 17 s its first two frames would be missing of the three seconds.
    EXPECT_EQ(found.part.begin, atSecond(16));
    EXPECT_EQ(found.part.firstLabel, "10:00:16:02");
    EXPECT_EQ(found.part.end, atSecond(27));
    EXPECT_FALSE(found.part.counted);
}

TEST(MarkedPart, IsCutAtTheEndsOfTheFile) {
    const Found found = part(regular(), "10:00:01:00", "10:00:38:00", 20, 20);
    ASSERT_FALSE(found.failed);
    EXPECT_EQ(found.part.begin, 0U);
    EXPECT_EQ(found.part.firstLabel, "10:00:00:00");
    EXPECT_EQ(found.part.end, std::numeric_limits<std::uint64_t>::max());
    const Found all = part(regular(), "10:00:00:00", "10:00:39:24", 0, 0);
    ASSERT_FALSE(all.failed) << all.failed->text;
}

TEST(MarkedPart, PassesOverAnAccessPointWithoutATimecode) {
    SourceIndex index = regular();
    index.points.at(11).timecode.reset();
    const Found found = part(index, "10:00:10:00", "10:00:12:00");
    ASSERT_FALSE(found.failed) << found.failed->text;
    EXPECT_EQ(found.part.begin, atSecond(6));
    EXPECT_EQ(found.part.firstLabel, "10:00:06:02");
}

TEST(MarkedPart, IsTheFirstOneWhereLabelsBeginAnewBehindIt) {
    SourceIndex index = regular();
    for (std::size_t second = 30; second < index.points.size(); ++second)
        index.points[second].timecode = regular().points[second - 30].timecode;
    const Found found = part(index, "10:00:15:00", "10:00:18:00");
    ASSERT_FALSE(found.failed) << found.failed->text;
    EXPECT_EQ(found.part.begin, atSecond(11));
    EXPECT_EQ(found.part.end, atSecond(22));
}

TEST(MarkedPart, CountsFromTheFirstFrameWithoutTimecodes) {
    const Found found = part(regular(false), "00:00:20:00", "00:00:22:00");
    ASSERT_FALSE(found.failed);
    EXPECT_TRUE(found.part.counted);
    EXPECT_EQ(found.part.begin, atSecond(16));
    EXPECT_EQ(found.part.firstLabel, "00:00:16:02");
}

// An encoder that was given no timecode repeated the same one.
TEST(MarkedPart, CountsFromTheFirstFrameWhereTimecodesStandStill) {
    for (const int label : {1 << 12, 10 << 19 | 1 << 12}) {
        SourceIndex index = regular();
        for (AccessPoint& point : index.points)
            point.timecode = label;
        const Found found = part(index, "00:00:20:00", "00:00:22:00");
        ASSERT_FALSE(found.failed) << found.failed->text;
        EXPECT_TRUE(found.part.counted);
        EXPECT_EQ(found.part.begin, atSecond(16));
        EXPECT_EQ(found.part.firstLabel, "00:00:16:02");
        EXPECT_EQ(found.part.end, atSecond(26));
    }
}

// A single timecode tells nothing of that.
TEST(MarkedPart, TakesTheTimecodeOfAnOnlyGop) {
    SourceIndex index = regular();
    index.points.resize(1);
    const Found found = part(index, "10:00:20:00", "10:00:22:00");
    ASSERT_FALSE(found.failed) << found.failed->text;
    EXPECT_FALSE(found.part.counted);
}

// The same that a re-encode names as the source's first.
TEST(MarkedPart, HasEveryLabelWhereTheTimecodesCountFrames) {
    SourceIndex index = regular();
    const auto every = [&index] {
        MarkedPart part;
        EXPECT_FALSE(findPart(index, "10:00:10:00", "10:00:19:24", 1, 1, part));
        return part.labelsKnown;
    };
    EXPECT_TRUE(every());
    index.points[30].timecode = 11 << 19 | 1 << 12; // behind the part
    EXPECT_TRUE(every());
    for (std::size_t second = 15; second < 30; ++second)
        *index.points[second].timecode += 2;
    EXPECT_FALSE(every());
    index = regular();
    index.points[15].timecode.reset();
    EXPECT_FALSE(every());
}

TEST(MarkedPart, HasEveryLabelThatIsCountedWhereFramesTakeTheirTime) {
    SourceIndex index = regular(false);
    const auto every = [&index] {
        MarkedPart part;
        EXPECT_FALSE(findPart(index, "00:00:10:00", "00:00:19:24", 1, 1, part));
        EXPECT_TRUE(part.counted);
        return part.labelsKnown;
    };
    index.time = 40 * PTS::units_per_second;
    EXPECT_TRUE(every());
    index.time = 50 * PTS::units_per_second; // as of frames of which some are shown for three fields
    EXPECT_FALSE(every());
}

TEST(MarkedPart, DoesNotHaveFramesThatCannotBeShown) {
    SourceIndex index = regular();
    index.points.front().skipped = 2;
    EXPECT_EQ(
        part(index, "10:00:00:01", "10:00:10:00").failed->text,
        "Error: Start timecode 10:00:00:01 cannot be found. (the source has 10:00:00:02 to 10:00:39:24)");
    EXPECT_FALSE(part(index, "10:00:00:02", "10:00:10:00").failed);
    EXPECT_EQ(labelledFrames(index).first, "10:00:00:02");
}

TEST(MarkedPart, RefusesMarksThatTheFileDoesNotHave) {
    EXPECT_EQ(
        part(regular(), "09:00:00:00", "10:00:10:00").failed->text,
        "Error: Start timecode 09:00:00:00 cannot be found. (the source has 10:00:00:00 to 10:00:39:24)");
    EXPECT_EQ(part(regular(), "10:00:40:00", "10:00:41:00").failed->code,
              kestrel::error::startTimecodeNotFound);
    EXPECT_EQ(part(regular(), "10:00:39:00", "10:00:40:00").failed->code, kestrel::error::invalidMarkOut);
    EXPECT_EQ(part(regular(), "10:00:20:00", "10:00:19:00").failed->code, kestrel::error::invalidMarkOut);
    EXPECT_EQ(part(regular(), "soon", "10:00:19:00").failed->code, kestrel::error::invalidMarkIn);
    EXPECT_EQ(part(regular(), "10:00:19:25", "10:00:20:00").failed->code, kestrel::error::invalidMarkIn);
    EXPECT_EQ(part({}, "10:00:19:00", "10:00:20:00").failed->code, kestrel::error::startTimecodeNotFound);
}

// A source that was recorded over an outage, of three seconds or of twenty, of which its play-out takes none:
// its timecodes ran on meanwhile, or count its frames. Of one frame it may be unknown when it is shown.
struct Outage {
    bool runs;
    bool stamped;
    bool avc;
    int seconds = 3;
};

class MarkedOutage : public testing::TestWithParam<Outage> {
protected:
    static SourceIndex index() {
        LabelledStream stream({.gop = 10, .avc = GetParam().avc});
        std::vector<CodedFrame> frames = stream.frames(50);
        if (GetParam().runs)
            stream.jumpTo(labelAt(50 + 25 * GetParam().seconds));
        for (CodedFrame& frame : stream.frames(50)) {
            delay(frame, 90000 * GetParam().seconds);
            frames.push_back(frame);
        }
        for (CodedFrame& frame : frames)
            addPcr(frame);
        if (!GetParam().stamped)
            unstamp(frames[22]);
        SourceIndex index = indexOf(frames);
        EXPECT_EQ(index.leaps.size(), 1U);
        EXPECT_EQ(index.leaps.front().frame, 50U);
        EXPECT_EQ(index.shown.empty(), !GetParam().stamped);
        return index;
    }
    // Of a label behind the outage, as it would be without it.
    static std::string behind(int frame) {
        return labelAt(50 + frame + (GetParam().runs ? 25 * GetParam().seconds : 0));
    }
    // Of the frame at that place.
    static std::string labelAt(int place) { return LabelRule{3, false}.text(36000LL * 25 + place); }
};

TEST_P(MarkedOutage, HasTheMarksBehindIt) {
    MarkedPart part;
    const MaybeFailure failed = findPart(index(), behind(12), behind(49), 0, 0, part);
    EXPECT_FALSE(failed) << failed->text;
    EXPECT_EQ(part.firstLabel, behind(10));
    EXPECT_TRUE(part.labelsKnown);
    EXPECT_TRUE(part.lacking.empty());
    EXPECT_TRUE(part.leaps.empty());
}

TEST_P(MarkedOutage, HasNoneBehindItsEnd) {
    MarkedPart part;
    const MaybeFailure failed = findPart(index(), behind(12), behind(50), 0, 0, part);
    ASSERT_TRUE(failed);
    EXPECT_EQ(failed->code, kestrel::error::invalidMarkOut);
    EXPECT_THAT(failed->text, testing::EndsWith("the source has 10:00:00:00 to " + behind(49) + ")"));
}

TEST_P(MarkedOutage, TellsWhichLabelsAreThoseOfFramesOverIt) {
    MarkedPart part;
    ASSERT_FALSE(findPart(index(), "10:00:01:20", behind(5), 0, 0, part));
    EXPECT_EQ(part.labelsKnown, GetParam().stamped || !GetParam().runs);
    std::vector<bool> lacking;
    if (GetParam().runs && GetParam().stamped) {
        lacking.resize(5 + 25 * static_cast<std::size_t>(GetParam().seconds));
        std::fill(lacking.begin() + 5, lacking.end(), true);
    }
    EXPECT_EQ(part.lacking, lacking);
    EXPECT_EQ(part.leaps.size(), 1U);
}

// Of the part that is played, and wherever in it.
TEST_P(MarkedOutage, TellsHowFarBeforeMarkInItIs) {
    const SourceIndex found = index();
    for (const auto& [frame, secondsBefore] : {std::pair{0, 1}, {3, 1}, {12, 1}, {3, 0}}) {
        MarkedPart part;
        ASSERT_FALSE(findPart(found, behind(frame), behind(30), secondsBefore, 0, part));
        const bool played = GetParam().runs && secondsBefore > 0;
        EXPECT_EQ(part.lackingBefore, played ? frame + 1 : 0) << frame << ", " << secondsBefore;
    }
    MarkedPart part;
    ASSERT_FALSE(findPart(found, "10:00:01:00", "10:00:01:20", 1, 5, part));
    EXPECT_EQ(part.lackingBefore, 0) << "it is behind mark-in";
}

// Those between the marks may leave labels out between them.
TEST_P(MarkedOutage, TellsWhichLeapsAreBeforeMarkIn) {
    MarkedPart part;
    ASSERT_FALSE(findPart(index(), behind(12), behind(30), 1, 0, part));
    EXPECT_EQ(part.leaps.size(), 1U);
    EXPECT_EQ(part.leapsBefore, 1U);
    part = {};
    ASSERT_FALSE(findPart(index(), "10:00:01:20", behind(5), 0, 0, part));
    EXPECT_EQ(part.leaps.size(), 1U);
    EXPECT_EQ(part.leapsBefore, 0U);
}

// It is played, but moves no mark.
TEST_P(MarkedOutage, HasNoLeapBehindMarkOut) {
    MarkedPart part;
    ASSERT_FALSE(findPart(index(), "10:00:01:00", "10:00:01:20", 1, 5, part));
    EXPECT_TRUE(part.leaps.empty());
}

// The labels of B pictures that refer to a GOP before are those of no frame that is shown.
TEST(MarkedPart, LacksNoLabelsOfAnOpenGopThatItBeginsWith) {
    for (const bool absent : {false, true}) {
        LabelledStream stream({.gop = 12, .bFrames = 2, .open = true});
        std::vector<CodedFrame> frames = stream.frames(100);
        const auto second = std::find_if(frames.begin() + 1, frames.end(),
                                         [](const CodedFrame& frame) { return frame.type == 'I'; });
        frames.erase(frames.begin(), second);
        if (absent)
            frames.erase(frames.begin() + 1, frames.begin() + 3);
        for (CodedFrame& frame : frames)
            addPcr(frame);
        const SourceIndex index = indexOf(frames);
        MarkedPart part;
        ASSERT_FALSE(findPart(index, "10:00:00:20", "10:00:02:00", 20, 5, part));
        EXPECT_EQ(part.firstLabel, "10:00:00:14");
        EXPECT_EQ(part.lackingBefore, 0) << absent;
    }
}

INSTANTIATE_TEST_SUITE_P(Sources, MarkedOutage,
                         testing::Values(Outage{true, true, false}, Outage{true, true, true},
                                         Outage{true, false, false}, Outage{false, true, false},
                                         Outage{false, true, true}, Outage{false, false, false},
                                         Outage{true, true, false, 20}, Outage{true, true, true, 20},
                                         Outage{true, false, false, 20}, Outage{false, true, false, 20},
                                         Outage{false, true, true, 20}, Outage{false, false, false, 20}),
                         [](const auto& source) {
                             return std::string(source.param.runs ? "Runs" : "Counts") +
                                    (source.param.stamped ? "" : "Unstamped") +
                                    (source.param.avc ? "H264" : "Mpeg2") +
                                    (source.param.seconds > 3 ? "Long" : "");
                         });

} // namespace
