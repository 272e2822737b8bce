// The labels of source files.
#include "capture/FileLabels.h"
#include "capture/MarkedPart.h"
#include "capture/indexed_source.h"
#include "streams/stream_fixtures.h"

#include <algorithm>
#include <gtest/gtest.h>

using namespace capture_test;
using namespace kestrel::capture;
using kestrel::test::streamFile;

namespace {

TEST(LabelledFrames, HideOnlyThoseOfAnOpenGopThatAreThere) {
    TemporaryDirectory directory;
    for (const bool avc : {false, true}) {
        std::vector<CodedFrame> frames =
            LabelledStream({.gop = 12, .bFrames = 2, .open = true, .avc = avc}).frames(48);
        frames.erase(frames.begin() + 1, frames.begin() + 3);
        capture_test::writePackets(join(frames), directory.path("source.ts"));
        const SourceIndex index = indexOf(directory.path("source.ts"));
        EXPECT_EQ(index.time, 46 * PTS::units_per_second / 25);
        EXPECT_EQ(labelledFrames(index).hidden, 0U);
    }
}

TEST(LabelledFrames, OfH264GoFromTheAccessPointItself) {
    TemporaryDirectory directory;
    for (const bool open : {false, true}) {
        capture_test::writePackets(
            join(LabelledStream({.gop = 10, .bFrames = 2, .open = open, .avc = true}).frames(50)),
            directory.path("source.ts"));
        const LabelledFrames found = labelledFrames(indexOf(directory.path("source.ts")));
        EXPECT_EQ(found.hidden, open ? 2U : 0U);
        EXPECT_EQ(found.first, open ? "10:00:00:02" : "10:00:00:00");
        EXPECT_EQ(found.last, "10:00:01:24");
        EXPECT_EQ(found.count, open ? 48U : 50U);
    }
}

TEST(LabelledFrames, GoFromTheFirstThatIsShownToTheLast) {
    SourceIndex index = regular();
    LabelledFrames found = labelledFrames(index);
    EXPECT_EQ(found.first, "10:00:00:00");
    EXPECT_EQ(found.last, "10:00:39:24");
    EXPECT_EQ(found.count, 1000U);
    EXPECT_EQ(found.hidden, 0U);
    // It begins with two frames that need others.
    index.points.front().skipped = 2;
    found = labelledFrames(index);
    EXPECT_EQ(found.first, "10:00:00:02");
    EXPECT_EQ(found.last, "10:00:39:24");
    EXPECT_EQ(found.count, 998U);
    EXPECT_EQ(found.hidden, 2U);
}

TEST(LabelledFrames, EndWhereTheTimecodesDoNotGoOn) {
    for (const std::optional<int> timecode : {std::optional<int>(11 << 19 | 1 << 12), std::optional<int>()}) {
        SourceIndex index = regular();
        index.points[20].timecode = timecode;
        const LabelledFrames found = labelledFrames(index);
        EXPECT_EQ(found.count, 500U);
        EXPECT_EQ(found.last, "10:00:19:24");
    }
}

// Two labels are missing, as where a file was cut: what follows counts no more from its first.
TEST(LabelledFrames, EndWhereLabelsAreMissing) {
    SourceIndex index = regular();
    for (std::size_t second = 20; second < index.points.size(); ++second)
        *index.points[second].timecode += 2;
    EXPECT_EQ(labelledFrames(index).count, 500U);
}

// An H.264 source, its labels those of its access points, before which others of its GOPs are shown.
class H264Source : public testing::Test {
protected:
    static std::vector<CodedFrame> frames() {
        return LabelledStream({.gop = 10, .bFrames = 3, .open = true, .avc = true}).frames(60);
    }
    // Without these labels.
    SourceIndex without(const std::vector<std::string>& lost) {
        std::vector<CodedFrame> all = frames();
        std::erase_if(all, [&lost](const CodedFrame& frame) {
            return std::find(lost.begin(), lost.end(), frame.label) != lost.end();
        });
        capture_test::writePackets(join(all), m_directory.path("source.ts"));
        return indexOf(m_directory.path("source.ts"));
    }
    // So many labels from that one on, in the order of display.
    static std::vector<std::string> from(int first, int count) {
        std::vector<std::string> labels;
        for (int i = first; i < first + count; ++i)
            labels.push_back(LabelRule{3, false}.text(36000LL * 25 + i));
        return labels;
    }
    TemporaryDirectory m_directory;
};

TEST_F(H264Source, HasLabelsThatRunThroughUnlessFramesWereLost) {
    const LabelledFrames all = labelledFrames(without({}));
    EXPECT_EQ(all.count + all.hidden, 60U);
    for (int lost = 1; lost <= 4; ++lost)
        for (int first = 14; first < 23; ++first) {
            SCOPED_TRACE(std::to_string(lost) + " from " + std::to_string(first));
            std::vector<std::string> gone = from(first, lost);
            // Without its access point a GOP goes on in the one before.
            std::erase_if(gone, [](const std::string& label) { return label.ends_with("23"); });
            const LabelledFrames found = labelledFrames(without(gone));
            EXPECT_LE(found.count + found.hidden, 30U) << "up to the next access point";
        }
}

// Behind it no other label tells.
TEST_F(H264Source, HasNoLabelsThatRunThroughWhenFramesWereLostBehindTheLastAccessPoint) {
    const LabelledFrames found = labelledFrames(without(from(56, 1)));
    EXPECT_LT(found.count + found.hidden, 59U);
}

TEST_F(H264Source, HasEveryLabelBetweenMarksUnlessFramesWereLost) {
    const auto every = [](const SourceIndex& index) {
        MarkedPart part;
        EXPECT_FALSE(findPart(index, "10:00:00:15", "10:00:01:20", 0, 0, part));
        return part.labelsKnown && part.lacking.empty();
    };
    EXPECT_TRUE(every(without({})));
    for (int first = 15; first < 23; ++first)
        EXPECT_FALSE(every(without(from(first, 1)))) << first;
    EXPECT_TRUE(every(without(from(14, 1)))) << "before the part";
    EXPECT_TRUE(every(without(from(56, 1)))) << "behind the part";
}

TEST(LabelledFrames, AreNoneOfASourceThatChangesItsFrameRate) {
    SourceIndex index = regular();
    index.uniform = false;
    EXPECT_EQ(labelledFrames(index).count, 0U);
}

TEST(LabelledFrames, AreNoneWithoutTimecodesOrVideo) {
    EXPECT_EQ(labelledFrames(regular(false)).count, 0U);
    EXPECT_EQ(labelledFrames({}).count, 0U);
    // All the same: of an encoder that had none.
    SourceIndex still = regular();
    for (AccessPoint& point : still.points)
        point.timecode = 1 << 12;
    EXPECT_EQ(labelledFrames(still).count, 0U);
}

TEST(LabelledFrames, OfRealStreams) {
    for (const char* name : {"m2_sd_25", "m2_sd_2997_drop", "m2_sd_25_fields"}) {
        const SourceIndex index = indexOf(streamFile(name));
        const LabelledFrames found = labelledFrames(index);
        EXPECT_EQ(found.count + found.hidden, index.frames) << name;
    }
}

} // namespace
