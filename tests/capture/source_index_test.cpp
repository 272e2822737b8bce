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
            const auto longer = [&] {
                capture_test::writePackets(join(frames), directory.path("source.ts"));
                return longerPlaces(indexOf(directory.path("source.ts")));
            };
            EXPECT_THAT(longer(), testing::IsEmpty());
            std::erase_if(frames, [](const CodedFrame& frame) {
                return frame.label == "10:00:00:14" || frame.label == "10:00:01:08";
            });
            std::vector<std::int64_t> places;
            for (int at = 0; at < 50; ++at)
                if (at != 14 && at != 33)
                    places.push_back(at * period);
            EXPECT_EQ(longer(), places);
            // The timestamps of one frame are missing.
            unstamp(frames[20]);
            EXPECT_THAT(longer(), testing::IsEmpty());
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

} // namespace
