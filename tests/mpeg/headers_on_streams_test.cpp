// Every header of real streams, field by field: what the accessors say of it and what ffmpeg's reader says.
#include "mpeg/h264.h"
#include "mpeg/mpeg2.h"
#include "streams/ffprobe.h"
#include "streams/gop_reader.h"
#include "streams/stream_fixtures.h"

#include <algorithm>
#include <cstddef>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

using namespace kestrel::test;
using testing::Each;
using testing::IsEmpty;
using testing::Not;

namespace {

// The headers of a file's video, by two readers.
struct HeadersOf {
    HeadersOf(const std::string& path, int pid)
        : probe(path), told(probe.codedHeaders()), video(elementaryStreamOf(path, pid)) {}

    // Gives each header, from its start code on, and the byte behind the prefix to visit.
    template <typename Visit>
    void eachHeader(Visit&& visit) {
        constexpr unsigned char prefix[] = {0, 0, 1};
        for (auto at = video.begin();; ++at) {
            at = std::search(at, video.end(), std::begin(prefix), std::end(prefix));
            if (video.end() - at < 4)
                return;
            visit(array_byte_sequence(&*at, static_cast<int>(video.end() - at)), at[3]);
        }
    }
    void readMpeg2();
    void readH264();
    void expectAgreement();

    Ffprobe probe;
    CodedHeaders told; // by ffmpeg
    CodedHeaders read; // by the accessors, under the same names
    std::vector<unsigned char> video;
};

void HeadersOf::readMpeg2() {
    eachHeader([this](const byte_sequence& header, int code) {
        switch (code) {
        case 0x00:
            read["temporal_reference"].push_back(MPEG::PH::get_temporal_reference(header));
            read["picture_coding_type"].push_back(MPEG::PH::get_picture_coding_type(header));
            break;
        case 0xB3:
            read["frame_rate_code"].push_back(MPEG::SH::get_frame_rate_code(header));
            EXPECT_NEAR(MPEG::SH::get_PCRs_per_frame(header), PTS::units_per_second / probe.frameRate(),
                        1e-6);
            break;
        case 0xB5: {
            const int id = MPEG::SED::get_extension_id(header);
            read["extension_start_code_identifier"].push_back(id);
            if (id == 1)
                read["progressive_sequence"].push_back(MPEG::SED::get_progressive_sequence(header));
            if (id == 8) {
                read["picture_structure"].push_back(MPEG::PCE::get_picture_structure(header));
                read["top_field_first"].push_back(MPEG::PCE::get_top_field_first(header));
                read["repeat_first_field"].push_back(MPEG::PCE::get_repeat_first_field(header));
            }
            break;
        }
        case 0xB8: {
            using namespace MPEG::GOP;
            read["time_code"].push_back(get_timecode(header));
            EXPECT_EQ(get_timecode(header), (get_drop_frame(header) ? 1 << 24 : 0) | get_hours(header) << 19 |
                                                get_minutes(header) << 13 | 1 << 12 |
                                                get_seconds(header) << 6 | get_frames(header));
            read["closed_gop"].push_back(closed_GOP(header));
            break;
        }
        default:
            break;
        }
    });
    // ffmpeg reads those of the first sequence once more, ahead of all: it keeps them for its decoder.
    for (const char* const name :
         {"frame_rate_code", "extension_start_code_identifier", "progressive_sequence"})
        if (std::vector<long>& values = told[name]; !values.empty())
            values.erase(values.begin());
}

void HeadersOf::readH264() {
    constexpr int SLICE = 1;
    constexpr int IDR_SLICE = 5;
    constexpr int PARAMETER_SET = 7;
    H264::SequenceParameterSet sps;
    eachHeader([&](const byte_sequence& nal, int) {
        const int type = H264::NAL::get_unit_type(nal);
        // The header of a slice is short; what follows need not be looked at.
        std::vector<unsigned char> bytes;
        for (int i = 0; i < std::min(nal.get_length(), 200); ++i)
            bytes.push_back(nal[i]);
        array_byte_sequence beginning(bytes.data(), static_cast<int>(bytes.size()));
        rbsp_byte_sequence rbsp(beginning, 4);
        if (type == PARAMETER_SET)
            sps = H264::SequenceParameterSet(rbsp, 0);
        if (type != SLICE && type != IDR_SLICE)
            return;
        const H264::SliceHeader slice(rbsp, 0, sps, type);
        read["first_mb_in_slice"].push_back(slice.first_mb_in_slice);
        read["slice_type"].push_back(slice.slice_type);
        read["field_pic_flag"].push_back(slice.field_pic_flag);
        read["pic_order_cnt_lsb"].push_back(slice.pic_order_cnt_lsb);
    });
}

void HeadersOf::expectAgreement() {
    for (const auto& [name, values] : read) {
        EXPECT_THAT(values, Not(IsEmpty())) << name;
        EXPECT_EQ(values, told[name]) << name;
    }
}

class HeadersOfEveryStream : public testing::TestWithParam<StreamFixture>, protected HeadersOf {
protected:
    HeadersOfEveryStream() : HeadersOf(streamFile(GetParam().name), GetParam().videoPid) {}
};

TEST_P(HeadersOfEveryStream, AreReadAsTheyAreCoded) {
    const bool mpeg2 = std::string_view(GetParam().codec) == "mpeg2video";
    if (mpeg2) {
        readMpeg2();
    } else {
        readH264();
        const std::size_t slices = told["slice_type"].size();
        if (told["pic_order_cnt_type"].at(0) != 0) {
            // Nothing of the parameter set is read behind it, so a bit is taken for this flag that is none.
            EXPECT_STREQ(GetParam().name, "h264_baseline");
            read.erase("field_pic_flag");
            told["pic_order_cnt_lsb"].assign(slices, -1);
        } else if (!GetParam().coding.fields) {
            EXPECT_THAT(told["field_pic_flag"], IsEmpty());
            told["field_pic_flag"].assign(slices, 0);
        }
    }
    EXPECT_EQ(read.size(), mpeg2 ? 10U : std::string_view(GetParam().name) == "h264_baseline" ? 3U : 4U);
    expectAgreement();
    // A picture, or a slice of one, for each that ffprobe counts.
    EXPECT_GE(read[mpeg2 ? "temporal_reference" : "slice_type"].size(), probe.packets("v:0").size());
}

INSTANTIATE_TEST_SUITE_P(Fixtures, HeadersOfEveryStream,
                         testing::ValuesIn(streamFixtures().begin(), streamFixtures().end()),
                         [](const auto& each) { return std::string(each.param.name); });

// None of those streams comes to a time with all its digits in use.
TEST(HeadersOfAStream, TellEveryPartOfATimeCode) {
    const std::string path =
        makeStream("time_code_digits", "-f lavfi -i testsrc2=size=160x120:rate=30000/1001 -t 2 -threads 1 "
                                       "-c:v mpeg2video -g 7 -timecode 21:42:53\\;20");
    HeadersOf stream(path, 0x100);
    stream.readMpeg2();
    stream.expectAgreement();
    const std::vector<GopHeader> gops = readGops(path, 0x100);
    ASSERT_GT(gops.size(), 7U);
    EXPECT_EQ(gops.front().text(), "21:42:53;20");
    auto gop = gops.begin();
    stream.eachHeader([&](const byte_sequence& header, int code) {
        if (code != 0xB8)
            return;
        ASSERT_NE(gop, gops.end());
        EXPECT_EQ(MPEG::GOP::get_drop_frame(header), gop->drop);
        EXPECT_EQ(MPEG::GOP::get_hours(header), gop->hours);
        EXPECT_EQ(MPEG::GOP::get_minutes(header), gop->minutes);
        EXPECT_EQ(MPEG::GOP::get_seconds(header), gop->seconds);
        EXPECT_EQ(MPEG::GOP::get_frames(header), gop->frames);
        ++gop;
    });
    EXPECT_EQ(gop, gops.end());
}

} // namespace
