// Rebased files, byte by byte: which GOP header carries which time code, and that nothing else is different.
// The labels are counted here by stepping through a day, not by the arithmetic that is tested.
#include "foundation/Bytes.h"
#include "foundation/ScratchDir.h"
#include "mpeg/MpegWrapper.h"
#include "mpeg/gop_rebase.h"
#include "streams/ffprobe.h"
#include "streams/gop_reader.h"
#include "streams/stream_fixtures.h"

#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>
#include <map>
#include <string>
#include <vector>

using namespace kestrel::test;

namespace {

using FileBytes = std::vector<unsigned char>;

constexpr std::size_t BLOCK = 65'536;

// A label without its drop-frame flag.
struct Label {
    int hours = 0, minutes = 0, seconds = 0, frames = 0;
};

Label labelOf(const GopHeader& gop) {
    return {gop.hours, gop.minutes, gop.seconds, gop.frames};
}

// Every label of a day in order, at an MPEG-2 frame_rate_code. The non-integral rates leave out the first
// labels of each minute but every tenth, whatever the drop-frame flag says: four at 59.94, else two,
// and 23.976 is deliberately one of them.
class Day {
public:
    explicit Day(int rateCode) {
        constexpr int LABELS[] = {0, 24, 24, 25, 30, 30, 50, 60, 60};
        constexpr int DROPPED[] = {0, 2, 0, 0, 2, 0, 0, 4, 0};
        m_labels.reserve(static_cast<std::size_t>(LABELS[rateCode]) * 86'400);
        for (int second = 0; second < 86'400; ++second) {
            const Label label{second / 3600, second / 60 % 60, second % 60};
            const bool drops = label.minutes % 10 != 0 && label.seconds == 0;
            for (int frame = drops ? DROPPED[rateCode] : 0; frame < LABELS[rateCode]; ++frame)
                m_labels.push_back(packed(label) + frame);
        }
    }
    // One that is left out counts as the next that exists.
    [[nodiscard]] long count(const Label& label) const {
        return std::lower_bound(m_labels.begin(), m_labels.end(), packed(label)) - m_labels.begin();
    }
    [[nodiscard]] Label at(long count) const {
        const long day = static_cast<long>(m_labels.size());
        const int label = m_labels[static_cast<std::size_t>((count % day + day) % day)];
        return {label >> 24, label >> 16 & 63, label >> 8 & 63, label & 63};
    }

private:
    // Grows with the label.
    static int packed(const Label& label) {
        return label.hours << 24 | label.minutes << 16 | label.seconds << 8 | label.frames;
    }

    std::vector<int> m_labels;
};

// time_code (ISO/IEC 13818-2, 6.2.2.6) with the header's own drop-frame flag, in place of what is there.
void write(FileBytes& file, const GopHeader& gop, const Label& label) {
    const unsigned long packed = (gop.drop ? 1UL << 24 : 0) | static_cast<unsigned long>(label.hours) << 19 |
                                 static_cast<unsigned long>(label.minutes) << 13 | 1UL << 12 |
                                 static_cast<unsigned long>(label.seconds) << 6 |
                                 static_cast<unsigned long>(label.frames);
    for (std::size_t bit = 0; bit < 25; ++bit) {
        unsigned char& byte = file[gop.positions[bit / 8]];
        const unsigned mask = 0x80U >> bit % 8;
        byte = static_cast<unsigned char>((packed >> (24 - bit) & 1) != 0 ? byte | mask : byte & ~mask);
    }
}

// What the file must come to: every header rewritten, all else as it was, the last bytes that do not fill a
// block lost.
FileBytes expectedOf(const std::string& in, int pid, int rateCode, int mode, const Label& offset) {
    FileBytes file = bytesOfFile(in);
    static std::map<int, Day> days;
    const Day& day = days.try_emplace(rateCode, rateCode).first->second;
    const std::vector<GopHeader> gops = gopsOf(file, pid);
    for (const GopHeader& gop : gops) {
        const long count = day.count(labelOf(gop));
        if (mode == gop_rebase::rebase_to_zero)
            write(file, gop, day.at(count - day.count(labelOf(gops[0]))));
        else if (mode == gop_rebase::add_offset)
            write(file, gop, day.at(count + day.count(offset)));
        else if (mode == gop_rebase::subtract_offset)
            write(file, gop, day.at(count - day.count(offset)));
    }
    file.resize(file.size() / BLOCK * BLOCK);
    return file;
}

mpeg_timecode timecodeOf(const Label& label, int rateCode) {
    return {label.hours, label.minutes, label.seconds, label.frames, false, rateCode};
}

class RebaseTest : public testing::Test {
protected:
    FileBytes rebased(const std::string& in, int mode, const mpeg_timecode& offset) {
        const std::string out = directory.path("out.ts");
        EXPECT_EQ(MpegWrapper::rebaseFile(in.c_str(), out.c_str(), mode, offset), 0);
        return bytesOfFile(out);
    }
    void expectRebased(const std::string& in, int pid, int rateCode, int mode, const Label& offset) {
        const FileBytes out = rebased(in, mode, timecodeOf(offset, rateCode));
        const FileBytes expected = expectedOf(in, pid, rateCode, mode, offset);
        ASSERT_EQ(out.size(), expected.size());
        const auto [different, wanted] = std::mismatch(out.begin(), out.end(), expected.begin());
        EXPECT_EQ(different, out.end()) << "mode " << mode << ", byte " << different - out.begin();
        if (different == out.end())
            return;
        // In labels it is easier to see.
        const std::vector<GopHeader> gops = gopsOf(out, pid);
        const std::vector<GopHeader> others = gopsOf(expected, pid);
        for (std::size_t i = 0; i < std::min(gops.size(), others.size()); ++i)
            EXPECT_EQ(gops[i].text(), others[i].text()) << "GOP " << i;
    }

    ScratchDir directory;
};

class RebaseOfEveryStream : public RebaseTest, public testing::WithParamInterface<StreamFixture> {
protected:
    void expectRebased(int mode, const Label& offset) {
        RebaseTest::expectRebased(path, GetParam().videoPid, GetParam().rateCode, mode, offset);
    }
    std::string path = streamFile(GetParam().name);
};

std::vector<StreamFixture> fixturesOf(std::string_view codec) {
    std::vector<StreamFixture> found;
    for (const StreamFixture& fixture : streamFixtures())
        if (fixture.codec == codec)
            found.push_back(fixture);
    return found;
}

const auto nameOf = [](const auto& each) { return std::string(each.param.name); };

TEST_P(RebaseOfEveryStream, BeginsAtZero) {
    expectRebased(gop_rebase::rebase_to_zero, {});
    // The form without a mode does the same.
    const std::string out = directory.path("form.ts");
    ASSERT_EQ(gop_rebase::rebaseFile(path.c_str(), out.c_str(), 0), 0);
    EXPECT_EQ(bytesOfFile(out), rebased(path, 0, mpeg_timecode()));
    const GopHeader first = readGops(out, GetParam().videoPid).at(0);
    EXPECT_EQ(first.text(), first.drop ? "00:00:00;00" : "00:00:00:00");
}

TEST_P(RebaseOfEveryStream, MovesForward) {
    expectRebased(gop_rebase::add_offset, {1, 2, 3, 4});
    expectRebased(gop_rebase::add_offset, {}); // by nothing
}

TEST_P(RebaseOfEveryStream, MovesForwardThroughMidnight) {
    const Label first = labelOf(readGops(path, GetParam().videoPid).at(0));
    // The first GOP comes to stand in the last second of the day.
    expectRebased(gop_rebase::add_offset, {23 - first.hours, 59, 59, 10});
}

TEST_P(RebaseOfEveryStream, MovesBackward) {
    expectRebased(gop_rebase::subtract_offset, {0, 59, 58, 7});
    // By more than there is: into the day before.
    expectRebased(gop_rebase::subtract_offset, {12, 34, 56, 3});
}

TEST_P(RebaseOfEveryStream, StaysAsItIsInAnyOtherMode) {
    expectRebased(3, {1, 0, 0, 0});
    expectRebased(-1, {1, 0, 0, 0});
}

INSTANTIATE_TEST_SUITE_P(Fixtures, RebaseOfEveryStream, testing::ValuesIn(fixturesOf("mpeg2video")), nameOf);

class RebaseOfH264 : public RebaseTest, public testing::WithParamInterface<StreamFixture> {};

TEST_P(RebaseOfH264, ChangesNothing) {
    const std::string path = streamFile(GetParam().name);
    FileBytes expected = bytesOfFile(path);
    expected.resize(expected.size() / BLOCK * BLOCK);
    for (const int mode : {0, 1, 2})
        EXPECT_EQ(rebased(path, mode, mpeg_timecode(1, 0, 0, 0, false, GetParam().rateCode)), expected);
}

INSTANTIATE_TEST_SUITE_P(Fixtures, RebaseOfH264, testing::ValuesIn(fixturesOf("h264")), nameOf);

// Streams long enough to pass a minute or midnight.
struct LongStream {
    const char* name;
    const char* rate;
    int rateCode;
    const char* timecode;
};

constexpr LongStream LONG_STREAMS[] = {
    {"minute_23976", "24000/1001", 1, "01:08:30:00"},
    {"midnight_24", "24", 2, "23:59:30:00"},
    {"midnight_25", "25", 3, "23:59:30:00"},
    {"minute_2997", "30000/1001", 4, "10:00:30:00"},
    {"minute_2997_drop", "30000/1001", 4, "10:00:30\\;00"},
    {"tenth_minute_2997_drop", "30000/1001", 4, "10:09:30\\;00"},
    {"midnight_2997_drop", "30000/1001", 4, "23:59:30\\;00"},
    {"midnight_30", "30", 5, "23:59:30:00"},
    {"midnight_50", "50", 6, "23:59:30:00"},
    {"minute_5994_drop", "60000/1001", 7, "10:00:30\\;00"},
    {"midnight_5994", "60000/1001", 7, "23:59:30:00"},
};

void PrintTo(const LongStream& stream, std::ostream* out) {
    *out << stream.name;
}

std::string makeLongStream(const LongStream& stream) {
    return makeStream(stream.name, std::string("-f lavfi -i color=size=96x80:rate=") + stream.rate +
                                       " -t 65 -threads 1 -c:v mpeg2video -b:v 100k -g 15 -bf 0 -timecode " +
                                       stream.timecode);
}

class RebaseOfLongStream : public RebaseTest, public testing::WithParamInterface<LongStream> {};

TEST_P(RebaseOfLongStream, PassesMinutesAndMidnight) {
    constexpr int PID = 0x100;
    const std::string path = makeLongStream(GetParam());
    const std::vector<GopHeader> gops = readGops(path, PID);
    ASSERT_NE(gops.at(0).minutes, gops.back().minutes);
    expectRebased(path, PID, GetParam().rateCode, gop_rebase::rebase_to_zero, {});
    expectRebased(path, PID, GetParam().rateCode, gop_rebase::add_offset, {0, 9, 15, 5});
    expectRebased(path, PID, GetParam().rateCode, gop_rebase::subtract_offset, {1, 0, 31, 5});
}

INSTANTIATE_TEST_SUITE_P(Long, RebaseOfLongStream, testing::ValuesIn(LONG_STREAMS), nameOf);

// The label that the GOP with this label gets.
std::string changed(const FileBytes& before, const FileBytes& after, const std::string& label) {
    const std::vector<GopHeader> gops = gopsOf(before, 0x100);
    const auto found =
        std::find_if(gops.begin(), gops.end(), [&label](const auto& gop) { return gop.text() == label; });
    if (found == gops.end())
        return "no such GOP";
    return gopsOf(after, 0x100).at(static_cast<std::size_t>(found - gops.begin())).text();
}

TEST_F(RebaseTest, NonDropLabelsOfANonIntegralRateAreCountedAsDropFrame) {
    // The rate alone decides how labels are counted, not the drop-frame flag. From 10:00:30:00 to 10:01:30:00
    // are 1,800 pictures of this stream, but two labels of that minute do not count.
    const std::string path = makeLongStream(LONG_STREAMS[3]);
    const FileBytes before = bytesOfFile(path);
    const FileBytes zero = rebased(path, gop_rebase::rebase_to_zero, mpeg_timecode());
    EXPECT_EQ(changed(before, zero, "10:00:30:00"), "00:00:00:00");
    EXPECT_EQ(changed(before, zero, "10:00:45:00"), "00:00:15:00");
    EXPECT_EQ(changed(before, zero, "10:01:30:00"), "00:00:59:28");
    // A label that drop-frame counting does not have moves to the next, even by an offset of nothing.
    const FileBytes same = rebased(path, gop_rebase::add_offset, mpeg_timecode(0, 0, 0, 0, false, 4));
    EXPECT_EQ(changed(before, same, "10:01:00:00"), "10:01:00:02");
    EXPECT_EQ(changed(before, same, "10:01:00:15"), "10:01:00:15");
}

TEST_F(RebaseTest, DropFrameLabelsKeepTheTimeOfTheirPictures) {
    const std::string path = makeLongStream(LONG_STREAMS[4]);
    const FileBytes zero = rebased(path, gop_rebase::rebase_to_zero, mpeg_timecode());
    const std::vector<GopHeader> gops = gopsOf(zero, 0x100);
    // A GOP every 15 pictures: behind 1,800 of them begins a minute whose first two labels do not exist.
    EXPECT_EQ(gops.at(0).text(), "00:00:00;00");
    EXPECT_EQ(gops.at(119).text(), "00:00:59;15");
    EXPECT_EQ(gops.at(120).text(), "00:01:00;02");
    EXPECT_EQ(gops.at(121).text(), "00:01:00;17");
}

TEST_F(RebaseTest, ALostPacketEndsItWithWhatWasPassedOn) {
    const std::string path = streamFile("m2_sd_25");
    FileBytes file = bytesOfFile(path);
    const auto isVideo = [&file](std::size_t packet) {
        return ((file[packet * 188 + 1] & 0x1F) << 8 | file[packet * 188 + 2]) == 0x100;
    };
    std::size_t lost = file.size() / 188 / 2;
    while (!isVideo(lost))
        ++lost;
    const FileBytes whole = expectedOf(path, 0x100, 3, gop_rebase::rebase_to_zero, {});
    file.erase(file.begin() + static_cast<std::ptrdiff_t>(lost * 188),
               file.begin() + static_cast<std::ptrdiff_t>((lost + 1) * 188));
    // The video packet before is still held back when the next one does not follow it.
    std::size_t held = lost - 1;
    while (!isVideo(held))
        --held;
    const std::string in = directory.file("lost.ts", asText(file));
    const std::string out = directory.path("part.ts");
    EXPECT_EQ(MpegWrapper::rebaseFile(in.c_str(), out.c_str(), 0, mpeg_timecode()), -3);
    EXPECT_EQ(bytesOfFile(out),
              FileBytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(held * 188)));
}

} // namespace
