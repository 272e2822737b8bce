// The file queries on real streams, against ffprobe. Where a documented habit of a query makes it differ, the
// documented answer is expected, and the comment says why.
#include "foundation/ScratchDir.h"
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

struct Close {
    void operator()(FILE* file) const { std::fclose(file); }
};

class EveryStream : public testing::TestWithParam<StreamFixture> {
protected:
    EveryStream() : path(streamFile(GetParam().name)), probe(path) {}

    [[nodiscard]] bool isMpeg2() const { return std::string(GetParam().codec) == "mpeg2video"; }
    [[nodiscard]] std::pair<PTS, PTS> bounds() const {
        const std::unique_ptr<FILE, Close> file(std::fopen(path.c_str(), "rb"));
        return GetDTSBounds::parse_file(file.get(), static_cast<long>(std::filesystem::file_size(path)));
    }
    // The last picture whose decoding time is sent: ffmpeg sends none where it is the presentation time.
    [[nodiscard]] std::int64_t lastCodedDts() const {
        std::int64_t last = -1;
        for (const ProbedPacket& packet : probe.packets("v:0"))
            if (packet.dts != packet.pts)
                last = packet.dts;
        return last;
    }

    std::string path;
    Ffprobe probe;
};

TEST_P(EveryStream, IsATransportStreamOfItsVideoType) {
    EXPECT_TRUE(MpegWrapper::IsTransportStreamFile(path.c_str()));
    EXPECT_EQ(MpegWrapper::GetVideoType(path.c_str()), isMpeg2() ? 0 : 1);
    EXPECT_EQ(MpegWrapper::GetMpeg2FirstGopTimeCode(path.c_str()), isMpeg2() ? 0 : -10);
}

TEST_P(EveryStream, HasItsFrameRate) {
    const double rate = MpegWrapper::GetFrameRateFromFile(path.c_str());
    if (std::string(GetParam().name) == "h264_baseline") {
        // Its pic_order_cnt_type is 2, behind which nothing is parsed: -1 by -1 by 2.
        EXPECT_EQ(rate, 0.5);
        return;
    }
    EXPECT_NEAR(rate, probe.frameRate(), 1e-6);
    EXPECT_EQ(MpegWrapper::GetFrameRateCode(rate), GetParam().rateCode);
}

TEST_P(EveryStream, HasItsDimensions) {
    int width = 0;
    int height = 0;
    grab_video_header::getDimensions(path.data(), width, height, 0);
    // Only MPEG-2 video is looked for.
    EXPECT_EQ(width, isMpeg2() ? std::stoi(probe.stream("v:0", "width")) : -1);
    EXPECT_EQ(height, isMpeg2() ? std::stoi(probe.stream("v:0", "height")) : -1);
}

TEST_P(EveryStream, HasItsProfileAndLevel) {
    MpegWrapper::videoProfile profile{};
    MpegWrapper::videoLevel level{};
    EXPECT_EQ(MpegWrapper::GetMpeg2VideoProfileAndLevel(path.c_str(), profile, level), isMpeg2());
    if (!isMpeg2())
        return;
    EXPECT_EQ(probe.stream("v:0", "profile"), profile == MpegWrapper::profileMain ? "Main" : "another");
    EXPECT_EQ(static_cast<int>(level), std::stoi(probe.stream("v:0", "level")));
    EXPECT_EQ(MpegWrapper::IsMpeg2HD(path.c_str()), level != MpegWrapper::levelMain);
}

TEST_P(EveryStream, HasItsDecodingTimes) {
    const auto [first, last] = bounds();
    if (!isMpeg2()) {
        // H.264 is not considered.
        EXPECT_EQ(first, PTS(-1));
        EXPECT_EQ(last, PTS(-1));
        return;
    }
    EXPECT_EQ(first.ticks(), probe.packets("v:0").at(0).dts);
    // The last bound is the last DTS that is sent, not the last decoding time.
    const std::int64_t coded = lastCodedDts();
    EXPECT_EQ(last.is_absent() ? -1 : last.ticks(), coded);
}

TEST_P(EveryStream, HasTheDurationBetweenItsBounds) {
    mpeg_timecode out;
    const int result = MpegWrapper::GetDuration(path.c_str(), false, GetParam().rateCode, out);
    if (!isMpeg2()) {
        EXPECT_EQ(result, 0);
        EXPECT_EQ(out.frame_count(), 0) << "no bounds, no duration";
        return;
    }
    const std::int64_t coded = lastCodedDts();
    if (coded < 0) {
        // Without B pictures no DTS is sent, and the bounds seem to run backwards.
        EXPECT_EQ(result, 20046);
        return;
    }
    EXPECT_EQ(result, 0);
    const double seconds = static_cast<double>(coded - probe.packets("v:0").at(0).dts) / 90'000;
    EXPECT_EQ(out.frame_count(),
              static_cast<int>(std::ceil(mpeg_timecode::fps(GetParam().rateCode) * seconds)));
    // Which is the time of the whole stream but for its last few pictures.
    EXPECT_NEAR(seconds, 3.0, 0.35);
}

TEST_P(EveryStream, HasItsParameterSet) {
    H264::SequenceParameterSet sps;
    grab_h264_header::getSequenceParams(path.data(), sps, 0);
    if (isMpeg2()) {
        EXPECT_EQ(sps.pic_order_cnt_type, -1);
        return;
    }
    if (sps.pic_order_cnt_type != 0) {
        EXPECT_STREQ(GetParam().name, "h264_baseline");
        return;
    }
    EXPECT_EQ(sps.frame_mbs_only_flag, probe.stream("v:0", "field_order") == "progressive");
    EXPECT_NEAR(static_cast<double>(sps.time_scale) / static_cast<double>(sps.num_units_in_tick) / 2,
                probe.frameRate(), 1e-6);
}

INSTANTIATE_TEST_SUITE_P(Fixtures, EveryStream,
                         testing::ValuesIn(streamFixtures().begin(), streamFixtures().end()),
                         [](const auto& each) { return std::string(each.param.name); });

} // namespace
