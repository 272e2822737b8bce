// Continuity and the rebase on real streams, judged by readers that share no code with the library.
#include "foundation/Bytes.h"
#include "foundation/ScratchDir.h"
#include "mpeg/CaptureEngUtils.h"
#include "mpeg/MpegWrapper.h"
#include "mpeg/mpeg.h"
#include "mpeg/ts_file.h"
#include "streams/ffprobe.h"
#include "streams/gop_reader.h"
#include "streams/stream_fixtures.h"

#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>

using namespace kestrel::test;

namespace {

class PacketsOfEveryStream : public testing::TestWithParam<StreamFixture> {
protected:
    PacketsOfEveryStream() : path(streamFile(GetParam().name)) {}
    std::string path;
    ScratchDir directory;
};

TEST_P(PacketsOfEveryStream, HasNoContinuityError) {
    ts_file file(path.c_str());
    continuity_nazi checker;
    long packets = 0;
    while (const unsigned char* const packet = file.get_ts()) {
        EXPECT_TRUE(checker.packetIsCool(packet, false)) << packets << ": " << checker.message();
        ++packets;
    }
    EXPECT_EQ(packets * 188, static_cast<long>(std::filesystem::file_size(path)));
}

TEST_P(PacketsOfEveryStream, HasItsPids) {
    int pcr = 0;
    int pmt = 0;
    int video = 0;
    EXPECT_EQ(CaptureEngUtils::GetStreamBasicPidInfo(path.c_str(), pcr, pmt, video, 500'000), 0);
    const Ffprobe probe(path);
    EXPECT_EQ(video, probe.pid("v:0"));
    EXPECT_EQ(pcr, probe.pid("v:0")) << "ffmpeg sends the clock with the video";
    EXPECT_EQ(std::to_string(pmt), probe.run("-show_entries program=pmt_pid -of default=nw=1:nk=1").at(0));
}

// ffmpeg's multiplexer: a rebased file differs from the original in its time codes and in nothing else.
TEST_P(PacketsOfEveryStream, KeepsEveryOtherBitWhenRebased) {
    if (std::string(GetParam().codec) != "mpeg2video")
        return;
    const std::string out = directory.path("out.ts");
    ASSERT_EQ(MpegWrapper::rebaseFile(path.c_str(), out.c_str(), 0, mpeg_timecode()), 0);
    const std::vector<unsigned char> before = bytesOfFile(path);
    const std::vector<unsigned char> after = bytesOfFile(out);
    EXPECT_EQ(after.size(), before.size() / 65536 * 65536) << "the last block is lost";
    std::vector<bool> mayChange(before.size() * 8);
    const int pid = Ffprobe(path).pid("v:0");
    for (const GopHeader& gop : readGops(path, pid))
        for (std::size_t bit = 0; bit < 25; ++bit)
            mayChange[gop.positions[bit / 8] * 8 + bit % 8] = true;
    for (std::size_t i = 0; i < after.size(); ++i)
        if (after[i] != before[i])
            for (std::size_t bit = 0; bit < 8; ++bit)
                if (((after[i] ^ before[i]) >> (7 - bit) & 1) != 0) {
                    ASSERT_TRUE(mayChange[i * 8 + bit]) << "byte " << i << " bit " << bit;
                }
    const std::vector<GopHeader> gops = readGops(out, pid);
    ASSERT_FALSE(gops.empty());
    const std::vector<GopHeader> originals = readGops(path, pid);
    EXPECT_EQ(gops[0].text().substr(0, 8), "00:00:00");
    EXPECT_EQ(gops[0].frames, 0);
    for (std::size_t i = 0; i < gops.size(); ++i) {
        EXPECT_EQ(gops[i].drop, originals[i].drop);
        EXPECT_EQ(gops[i].closed, originals[i].closed);
        EXPECT_EQ(gops[i].broken, originals[i].broken);
    }
}

INSTANTIATE_TEST_SUITE_P(Fixtures, PacketsOfEveryStream,
                         testing::ValuesIn(streamFixtures().begin(), streamFixtures().end()),
                         [](const auto& each) { return std::string(each.param.name); });

TEST(ContinuityOnStreams, ALostPacketIsNamedWithItsPid) {
    std::vector<unsigned char> bytes = bytesOfFile(streamFile("m2_sd_25"));
    // A packet of the video from the middle.
    std::size_t lost = bytes.size() / 188 / 2;
    while (((bytes[lost * 188 + 1] & 0x1F) << 8 | bytes[lost * 188 + 2]) != 0x100)
        ++lost;
    const int counter = bytes[lost * 188 + 3] & 0x0F;
    bytes.erase(bytes.begin() + static_cast<long>(lost * 188),
                bytes.begin() + static_cast<long>((lost + 1) * 188));
    const ScratchDir directory;
    ts_file file(directory.file("lost.ts", asText(bytes)).c_str());
    continuity_nazi checker;
    int errors = 0;
    std::string message;
    while (const unsigned char* const packet = file.get_ts())
        if (!checker.packetIsCool(packet, false)) {
            ++errors;
            message = checker.message();
        }
    EXPECT_EQ(errors, 1);
    EXPECT_EQ(message, "expected " + std::to_string(counter) + " not " + std::to_string((counter + 1) & 15) +
                           " : PID 256");
}

// The same pictures encoded with another first time code are what a rebase has to come to, label by label,
// also across the minutes at which drop-frame counting leaves labels out.
class Rebased : public testing::Test {
protected:
    static std::string encoded(const std::string& name, const std::string& rate,
                               const std::string& timecode) {
        return makeStream(name, "-f lavfi -i testsrc2=size=160x120:rate=" + rate +
                                    " -t 75 -threads 1 -c:v mpeg2video -b:v 400k -g 15 -bf 2 -timecode " +
                                    timecode);
    }
    void expectSame(const std::string& in, int mode, const mpeg_timecode& offset,
                    const std::string& expected) {
        const ScratchDir directory;
        const std::string out = directory.path("out.ts");
        ASSERT_EQ(MpegWrapper::rebaseFile(in.c_str(), out.c_str(), mode, offset), 0);
        const auto rebased = readGops(out, 0x100);
        const auto wanted = readGops(expected, 0x100);
        ASSERT_GT(rebased.size(), 100U);
        for (std::size_t i = 0; i < rebased.size(); ++i)
            ASSERT_EQ(rebased[i].text(), wanted[i].text()) << "GOP " << i;
        std::vector<unsigned char> bytes = bytesOfFile(expected);
        bytes.resize(bytesOfFile(out).size());
        EXPECT_EQ(bytesOfFile(out), bytes) << "byte for byte the other encoding";
    }
};

TEST_F(Rebased, ToZeroWithoutDropFrame) {
    expectSame(encoded("long_25_10h", "25", "10:00:00:00"), 0, mpeg_timecode(),
               encoded("long_25_0h", "25", "00:00:00:00"));
}

TEST_F(Rebased, ToZeroWithDropFrame) {
    expectSame(encoded("long_drop_10h", "30000/1001", "10:00:00\\;00"), 0, mpeg_timecode(),
               encoded("long_drop_0h", "30000/1001", "00:00:00\\;00"));
}

TEST_F(Rebased, ForwardAndBackwardByAnOffset) {
    const std::string ten = encoded("long_25_10h", "25", "10:00:00:00");
    const std::string twelve = encoded("long_25_12h", "25", "12:30:00:05");
    const mpeg_timecode offset(2, 30, 0, 5, false, 3);
    expectSame(ten, 1, offset, twelve);
    expectSame(twelve, 2, offset, ten);
}

TEST_F(Rebased, ForwardAndBackwardWithDropFrame) {
    const std::string ten = encoded("long_drop_10h", "30000/1001", "10:00:00\\;00");
    const std::string eleven = encoded("long_drop_11h", "30000/1001", "11:10:00\\;00");
    const mpeg_timecode offset(1, 10, 0, 0, true, 4);
    expectSame(ten, 1, offset, eleven);
    expectSame(eleven, 2, offset, ten);
}

} // namespace
