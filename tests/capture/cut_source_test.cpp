// Files that end before the B pictures are coded that are shown before their last picture.
#include "capture/FileLabels.h"
#include "capture/MarkedPart.h"
#include "capture/indexed_source.h"
#include "foundation/ErrorCodes.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <set>

using namespace capture_test;
using namespace kestrel::capture;
using testing::HasSubstr;

namespace {

struct Cut {
    const char* name;
    bool avc;
    bool open;
    int frames;            // in coding order
    std::set<int> missing; // of those up to the last that is shown
};

void PrintTo(const Cut& what, std::ostream* out) {
    *out << what.name;
}

class CutSource : public testing::TestWithParam<Cut> {
protected:
    static constexpr std::int64_t period = PTS::units_per_second / 25;
    static std::string label(int at) { return LabelRule{3, false}.text(36000LL * 25 + at); }
    SourceIndex index(bool timecodes = true) {
        const Cut& cut = GetParam();
        capture_test::writePackets(
            join(LabelledStream(
                     {.gop = 12, .bFrames = 2, .open = cut.open, .timecodes = timecodes, .avc = cut.avc})
                     .frames(cut.frames)),
            m_directory.path("source.ts"));
        return indexOf(m_directory.path("source.ts"));
    }
    static int shownFrames() { return GetParam().frames + static_cast<int>(GetParam().missing.size()); }
    TemporaryDirectory m_directory;
};

TEST_P(CutSource, TakesTheTimeToTheEndOfTheLastFrameThatIsShown) {
    const SourceIndex cut = index();
    EXPECT_EQ(cut.frames, static_cast<std::uint64_t>(GetParam().frames));
    EXPECT_EQ(cut.time, shownFrames() * period);
    std::vector<std::int64_t> places;
    for (int at = 0; at < shownFrames(); ++at)
        if (!GetParam().missing.contains(at))
            places.push_back(at * period);
    EXPECT_EQ(longerPlaces(cut), GetParam().missing.empty() ? std::vector<std::int64_t>{} : places);
}

TEST_P(CutSource, HasLabelsThatRunThroughOnlyWithAllOfThem) {
    const LabelledFrames found = labelledFrames(index());
    EXPECT_EQ(found.hidden, GetParam().open ? 2U : 0U);
    if (GetParam().missing.empty()) {
        EXPECT_EQ(found.count + found.hidden, static_cast<std::uint64_t>(GetParam().frames));
        EXPECT_EQ(found.last, label(shownFrames() - 1));
    } else {
        EXPECT_LE(found.count + found.hidden, 48U) << "behind the last access point some are missing";
    }
}

TEST_P(CutSource, HasTheMarksThatAreLabelsOfItsFrames) {
    const SourceIndex cut = index();
    for (int at = 24; at < shownFrames() + 2; ++at) {
        SCOPED_TRACE(at);
        MarkedPart part;
        const MaybeFailure failed = findPart(cut, label(24), label(at), 0, 0, part);
        const bool is = at < shownFrames() && !GetParam().missing.contains(at);
        EXPECT_EQ(!failed, is);
        if (!is && failed) {
            EXPECT_EQ(failed->code, kestrel::error::invalidMarkOut);
            EXPECT_THAT(failed->text, HasSubstr("to " + label(shownFrames() - 1)));
        }
        if (is) {
            const bool before = std::none_of(GetParam().missing.begin(), GetParam().missing.end(),
                                             [at](int missing) { return missing < at; });
            EXPECT_TRUE(part.labelsKnown);
            EXPECT_EQ(part.lacking.empty(), before);
        }
    }
    MarkedPart part;
    for (const int missing : GetParam().missing) {
        const auto failed = findPart(cut, label(missing), label(shownFrames() - 1), 0, 0, part);
        ASSERT_TRUE(failed);
        EXPECT_EQ(failed->code, kestrel::error::startTimecodeNotFound);
    }
}

// They are counted as they are shown.
TEST_P(CutSource, HasItsLastFrameWithoutTimecodesToo) {
    if (GetParam().avc && GetParam().open)
        return; // counted from another frame
    const SourceIndex cut = index(false);
    const auto counted = [](int at) { return LabelRule{3, false}.text(at); };
    MarkedPart part;
    EXPECT_FALSE(findPart(cut, counted(24), counted(shownFrames() - 1), 0, 0, part));
    EXPECT_TRUE(part.counted);
    EXPECT_TRUE(part.labelsKnown);
    EXPECT_EQ(part.lacking.empty(), GetParam().missing.empty());
    EXPECT_TRUE(findPart(cut, counted(24), counted(shownFrames()), 0, 0, part));
}

INSTANTIATE_TEST_SUITE_P(Pictures, CutSource,
                         testing::Values(Cut{"BehindP", false, false, 50, {49, 50}},
                                         Cut{"BehindOneB", false, false, 51, {50}},
                                         Cut{"BehindBothB", false, false, 52, {}},
                                         Cut{"BehindIOfAnOpenGop", false, true, 49, {48, 49}},
                                         Cut{"BehindPOfAnOpenGop", false, true, 52, {51, 52}},
                                         Cut{"BehindPOfH264", true, false, 50, {49, 50}},
                                         Cut{"BehindOneBOfH264", true, false, 51, {50}},
                                         Cut{"BehindBothBOfH264", true, false, 52, {}},
                                         Cut{"BehindIOfAnOpenGopOfH264", true, true, 49, {48, 49}}),
                         [](const auto& cut) { return std::string(cut.param.name); });

} // namespace
