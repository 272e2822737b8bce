// File queries on streams that leave out what is asked for, or that hide it.
#include "foundation/Bytes.h"
#include "foundation/ScratchDir.h"
#include "mpeg/CaptureEngUtils.h"
#include "mpeg/GetDTSBounds.h"
#include "mpeg/MpegWrapper.h"
#include "mpeg/grab_h264_header.h"
#include "mpeg/grab_video_header.h"
#include "streams/ffprobe.h"
#include "streams/gop_reader.h"
#include "streams/stream_fixtures.h"

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <gtest/gtest.h>
#include <memory>

using namespace kestrel::test;

namespace {

class UntimedH264 : public testing::TestWithParam<StreamFixture> {
protected:
    UntimedH264() : path(streamFile(GetParam().name)) {}
    std::string path;
};

TEST_P(UntimedH264, IsTakenForTwentyNinePointNineSeven) {
    // A parameter set without timing counts as 29.97. That is right for one of these and wrong for the other,
    // whose pictures come, by ffprobe, 25 to the second.
    EXPECT_DOUBLE_EQ(MpegWrapper::GetFrameRateFromFile(path.c_str()), 180'000.0 / 3003 / 2);
    const double shown = Ffprobe(path).frameRate();
    EXPECT_EQ(std::abs(shown - 30'000.0 / 1001) < 1e-6, GetParam().rateCode == 4);
}

TEST_P(UntimedH264, HasTheTimingOfTheDefault) {
    H264::SequenceParameterSet sps;
    grab_h264_header::getSequenceParams(path.data(), sps, 0);
    EXPECT_EQ(sps.num_units_in_tick, 3003);
    EXPECT_EQ(sps.time_scale, 180'000);
    // What stands before the timing is read as ever.
    EXPECT_EQ(sps.pic_order_cnt_type, 0);
    EXPECT_TRUE(sps.frame_mbs_only_flag);
    CodedHeaders headers = Ffprobe(path).codedHeaders();
    EXPECT_EQ(sps.log2_max_frame_num_minus4, headers["log2_max_frame_num_minus4"].at(0));
    EXPECT_EQ(sps.log2_max_pic_order_cnt_lsb_minus4, headers["log2_max_pic_order_cnt_lsb_minus4"].at(0));
}

TEST_P(UntimedH264, AnswersTheOtherQueriesLikeAnyH264) {
    EXPECT_TRUE(MpegWrapper::IsTransportStreamFile(path.c_str()));
    EXPECT_EQ(MpegWrapper::GetVideoType(path.c_str()), 1);
    EXPECT_EQ(MpegWrapper::GetMpeg2FirstGopTimeCode(path.c_str()), -10);
    MpegWrapper::videoProfile profile{};
    MpegWrapper::videoLevel level{};
    EXPECT_FALSE(MpegWrapper::GetMpeg2VideoProfileAndLevel(path.c_str(), profile, level));
}

INSTANTIATE_TEST_SUITE_P(Fixtures, UntimedH264,
                         testing::ValuesIn(untimedStreamFixtures().begin(), untimedStreamFixtures().end()),
                         [](const auto& each) { return std::string(each.param.name); });

// A stream's parameter sets are its own, field by field, whatever its profile.
class ParameterSets : public testing::TestWithParam<const char*> {};

TEST_P(ParameterSets, AreReadAsTheyAreCoded) {
    std::string path = streamFile(GetParam());
    CodedHeaders headers = Ffprobe(path).codedHeaders();
    H264::SequenceParameterSet sps;
    grab_h264_header::getSequenceParams(path.data(), sps, 0);
    EXPECT_EQ(sps.log2_max_frame_num_minus4, headers["log2_max_frame_num_minus4"].at(0));
    EXPECT_EQ(sps.pic_order_cnt_type, headers["pic_order_cnt_type"].at(0));
    if (sps.pic_order_cnt_type != 0) {
        // Nothing is parsed behind it: the rest keeps the values of a parameter set that was never read.
        EXPECT_EQ(sps.log2_max_pic_order_cnt_lsb_minus4, -1);
        EXPECT_FALSE(sps.frame_mbs_only_flag);
        EXPECT_EQ(sps.num_units_in_tick, -1);
        EXPECT_EQ(sps.time_scale, -1);
        return;
    }
    EXPECT_EQ(sps.log2_max_pic_order_cnt_lsb_minus4, headers["log2_max_pic_order_cnt_lsb_minus4"].at(0));
    EXPECT_EQ(sps.frame_mbs_only_flag, headers["frame_mbs_only_flag"].at(0) != 0);
    EXPECT_EQ(sps.num_units_in_tick, headers["num_units_in_tick"].at(0));
    EXPECT_EQ(sps.time_scale, headers["time_scale"].at(0));
}

INSTANTIATE_TEST_SUITE_P(Fixtures, ParameterSets,
                         testing::Values("h264_baseline", "h264_main", "h264_high_2997", "h264_high_50",
                                         "h264_high_23976", "h264_fields"),
                         [](const auto& each) { return std::string(each.param); });

struct Close {
    void operator()(FILE* file) const { std::fclose(file); }
};

// The same file, shorter and shorter.
class CutStream : public testing::Test {
protected:
    // The first packets of the fixture, up to the one before that index.
    std::string cut(std::size_t packets) {
        return directory.file(
            "cut.ts", std::string(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(packets * 188)));
    }
    static std::pair<PTS, PTS> bounds(const std::string& path) {
        const std::unique_ptr<FILE, Close> file(std::fopen(path.c_str(), "rb"));
        return GetDTSBounds::parse_file(file.get(), static_cast<long>(std::filesystem::file_size(path)));
    }

    std::string whole = streamFile("m2_sd_25");
    std::vector<unsigned char> bytes = bytesOfFile(whole);
    std::vector<GopHeader> gops = gopsOf(bytes, 0x100);
    ScratchDir directory;
};

TEST_F(CutStream, IsKnownFromItsSecondGopOn) {
    // Three packets of a PES are looked at, so that the second GOP tells with the second packet behind its
    // header, and without it nothing does.
    const std::size_t second = gops.at(1).packet();
    const auto isVideoPayload = [this](std::size_t packet) {
        const unsigned char* const p = bytes.data() + packet * 188;
        return ((p[1] & 0x1F) << 8 | p[2]) == 0x100 && (p[3] & 0x10) != 0;
    };
    std::size_t third = second;
    for (int more = 0; more < 2;) {
        ++third;
        if (isVideoPayload(third))
            ++more;
    }
    const auto answers = [](std::string path) {
        MpegWrapper::videoProfile profile{};
        MpegWrapper::videoLevel level{};
        int width = 0;
        int height = 0;
        grab_video_header::getDimensions(path.data(), width, height, 0);
        const bool known = MpegWrapper::GetMpeg2VideoProfileAndLevel(path.c_str(), profile, level);
        EXPECT_EQ(MpegWrapper::GetFrameRateFromFile(path.c_str()), known ? 25.0 : 0.0);
        EXPECT_EQ(width, known ? 720 : -1);
        EXPECT_EQ(height, known ? 576 : -1);
        return known;
    };
    EXPECT_FALSE(answers(cut(second)));
    EXPECT_FALSE(answers(cut(third)));
    EXPECT_TRUE(answers(cut(third + 1)));
}

TEST_F(CutStream, HasItsLastBoundWhereverItEnds) {
    const auto packets = Ffprobe(whole).packets("v:0");
    const PTS first = bounds(whole).first;
    EXPECT_EQ(first.ticks(), packets.at(0).dts);
    // At every sixteenth packet: the DTS of the last picture begun, where one was sent for it.
    std::int64_t last = -1;
    std::size_t picture = 0;
    for (std::size_t packet = 0; packet < bytes.size() / 188; ++packet) {
        const unsigned char* const p = bytes.data() + packet * 188;
        if (((p[1] & 0x1F) << 8 | p[2]) == 0x100 && (p[1] & 0x40) != 0) {
            const ProbedPacket& each = packets.at(picture++);
            if (each.dts != each.pts)
                last = each.dts;
        }
        if (packet % 16 != 0 || packet < 8)
            continue;
        const auto [begin, end] = bounds(cut(packet + 1));
        ASSERT_EQ(begin, first) << packet;
        ASSERT_EQ(end.is_absent() ? -1 : end.ticks(), last) << packet;
    }
    EXPECT_EQ(picture, packets.size());
}

} // namespace
