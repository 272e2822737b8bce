// What a file consists of, and the part of it that marks ask for.
#include "capture/SourceIndex.h"
#include "capture/indexed_source.h"
#include "capture/labelled_stream.h"
#include "capture/normalize_streams.h"
#include "capture/stamped_frames.h"
#include "foundation/ErrorCodes.h"
#include "streams/ffprobe.h"
#include "streams/stream_fixtures.h"

#include <algorithm>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <limits>
#include <set>

using namespace capture_test;
using namespace kestrel::capture;
using kestrel::test::streamFile;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

TEST(SourceIndex, CountsFramesAndFindsAccessPoints) {
    for (const char* name : {"m2_sd_25", "m2_sd_2997_drop", "h264_main", "m2_sd_25_fields"}) {
        const std::string file = streamFile(name);
        const auto frames = kestrel::test::Ffprobe(file).packets("v:0");
        const auto keys =
            std::count_if(frames.begin(), frames.end(), [](const auto& frame) { return frame.key; });
        const SourceIndex index = indexOf(file);
        EXPECT_EQ(index.frames, frames.size()) << name;
        EXPECT_EQ(index.points.size(), static_cast<std::size_t>(keys)) << name;
        EXPECT_NE(index.frameRateCode, 0) << name;
        const Packets packets = readPackets(file);
        for (const AccessPoint& point : index.points) {
            ASSERT_EQ(point.offset % 188, 0U);
            const Packet& packet = packets.at(point.offset / 188);
            EXPECT_EQ(pid(packet), 0x100);
            EXPECT_TRUE(packet[1] & 0x40);
            EXPECT_TRUE(frames[point.frame].key) << name << ' ' << point.frame;
        }
    }
}

TEST(SourceIndex, KeepsOffsetsRightBehindForeignBytes) {
    TemporaryDirectory directory;
    Bytes bytes = joined(StreamBuilder().frames(40));
    bytes.insert(bytes.begin() + 188 * 60, 500, 0x11);
    const std::string file = directory.path("source.ts");
    std::ofstream(file, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    const SourceIndex index = indexOf(file);
    EXPECT_EQ(index.frames, 40U);
    ASSERT_EQ(index.points.size(), 4U);
    for (const AccessPoint& point : index.points) {
        EXPECT_EQ(bytes.at(point.offset), 0x47);
        EXPECT_EQ(bytes.at(point.offset + 1) & 0x40, 0x40);
    }
}

TEST(SourceIndex, TellsHowLongItIsAndWhetherItIsOfOneKind) {
    TemporaryDirectory directory;
    const Packets slow = join(LabelledStream({.gop = 10}).frames(50));
    const Packets fast = join(LabelledStream({.rateCode = 6, .gop = 10}).frames(50));
    const Packets avc = join(LabelledStream({.gop = 10, .avc = true}).frames(50));
    const auto written = [&](const Packets& first, const Packets& second) {
        Packets all = first;
        all.insert(all.end(), second.begin(), second.end());
        capture_test::writePackets(all, directory.path("source.ts"));
        return indexOf(directory.path("source.ts"));
    };
    const SourceIndex one = written(slow, {});
    EXPECT_TRUE(one.uniform);
    EXPECT_EQ(one.time, 2 * PTS::units_per_second);
    const SourceIndex rates = written(slow, fast);
    EXPECT_FALSE(rates.uniform);
    EXPECT_NEAR(static_cast<double>(rates.time), 3.0 * PTS::units_per_second, 0.05 * PTS::units_per_second);
    EXPECT_FALSE(written(slow, avc).uniform);
}

// Where frames were lost the one before is shown for longer.
TEST(SourceIndex, TellsWhenFramesAreShownThatTakeLongerThanTheirNumberTells) {
    TemporaryDirectory directory;
    constexpr std::int64_t period = PTS::units_per_second / 25;
    for (const bool avc : {false, true})
        for (const int bFrames : {0, 2}) {
            SCOPED_TRACE(std::to_string(bFrames) + (avc ? " H264" : ""));
            std::vector<CodedFrame> frames =
                LabelledStream({.gop = 10, .bFrames = bFrames, .avc = avc}).frames(50);
            const auto shown = [&] {
                capture_test::writePackets(join(frames), directory.path("source.ts"));
                return indexOf(directory.path("source.ts")).shown;
            };
            EXPECT_THAT(shown(), testing::IsEmpty());
            std::erase_if(frames, [](const CodedFrame& frame) {
                return frame.label == "10:00:00:14" || frame.label == "10:00:01:08";
            });
            std::vector<std::int64_t> places;
            for (int at = 0; at < 50; ++at)
                if (at != 14 && at != 33)
                    places.push_back(at * period);
            EXPECT_EQ(shown(), places);
            // The timestamps of one frame are missing.
            for (Packet& packet : frames[20].packets)
                if (pid(packet) == videoPid && (packet[1] & 0x40) != 0 && packet[11] != 0) {
                    packet[11] = 0;
                    std::fill_n(packet.begin() + 13, 10, static_cast<unsigned char>(0xFF));
                }
            EXPECT_THAT(shown(), testing::IsEmpty());
        }
}

// A file that ends before the B pictures are coded that are shown before its last picture.
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
    EXPECT_EQ(cut.shown, GetParam().missing.empty() ? std::vector<std::int64_t>{} : places);
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
            EXPECT_EQ(part.everyLabel, before);
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
    EXPECT_EQ(part.everyLabel, GetParam().missing.empty());
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

// Frames of one are kept back for longer than those of another before they are shown.
TEST(SourceIndex, TakesNoTimeBetweenClips) {
    TemporaryDirectory directory;
    for (const int bFrames : {0, 2})
        for (const int cut : {48, 50}) {
            Packets clips = join(LabelledStream({.gop = 12, .bFrames = 2 - bFrames}).frames(48));
            const Packets second = join(LabelledStream({.gop = 12, .bFrames = bFrames}).frames(cut));
            clips.insert(clips.end(), second.begin(), second.end());
            capture_test::writePackets(clips, directory.path("source.ts"));
            const int behind = cut == 50 && bFrames == 2 ? 2 : 0; // two B pictures are missing
            EXPECT_EQ(indexOf(directory.path("source.ts")).time,
                      (48 + cut + behind) * PTS::units_per_second / 25);
        }
}

// Nothing is coded that much earlier than it is shown.
TEST(SourceIndex, TakesTheTimeOfDecodingWhereATimestampIsWrong) {
    TemporaryDirectory directory;
    std::vector<CodedFrame> frames = LabelledStream({.gop = 12, .bFrames = 2}).frames(48);
    for (Packet& packet : frames[40].packets)
        if (startsPicture(packet))
            putTicks(packet, 13, ticksAt(packet, 13) + 5 * 90000);
    capture_test::writePackets(join(frames), directory.path("source.ts"));
    const SourceIndex index = indexOf(directory.path("source.ts"));
    EXPECT_EQ(index.time, 48 * PTS::units_per_second / 25);
    EXPECT_THAT(index.shown, testing::IsEmpty());
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

TEST(SourceIndex, TellsWhyAFileCannotBeRead) {
    SourceIndex index;
    const std::atomic<bool> never{false};
    const auto missing = indexSource("/nowhere/at/all.ts", never, index);
    ASSERT_TRUE(missing);
    EXPECT_EQ(missing->code, kestrel::error::inputFileNotOpened);
    const auto source = indexSource("/proc/self/exe", never, index);
    ASSERT_TRUE(source);
    EXPECT_EQ(source->code, kestrel::error::sourceLengthNotPackets);
}

// 1000 frames at 25 a second, a GOP of 25 every second from 10:00:00:00 on, with two frames that cannot be
// shown when playing begins there; each frame has 10 packets.
SourceIndex regular(bool timecodes = true) {
    SourceIndex index{1000, 3, {}};
    for (int second = 0; second < 40; ++second)
        index.points.push_back(
            {static_cast<std::uint64_t>(second) * 25 * 10 * 188, static_cast<std::uint64_t>(second) * 25,
             timecodes ? std::optional<int>(10 << 19 | 1 << 12 | second << 6) : std::nullopt,
             second == 0 ? 0 : 2});
    return index;
}

std::uint64_t atSecond(int second) {
    return static_cast<std::uint64_t>(second) * 25 * 10 * 188;
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
        return part.everyLabel;
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
        return part.everyLabel;
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
        return part.everyLabel;
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

} // namespace
