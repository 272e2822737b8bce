// What the verifier reports of every fixture, and of variants beside them, against ffprobe.
#include "flowscope/Analysis.h"
#include "flowscope/ReportValues.h"
#include "mpeg/ts_file.h"
#include "streams/ffprobe.h"
#include "streams/stream_fixtures.h"

#include <algorithm>
#include <cmath>
#include <gtest/gtest.h>
#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

using namespace kestrel::flowscope;
using namespace kestrel::test;

namespace {

// A stream that ffprobe and the verifier are asked about.
struct Sample {
    std::string name;
    std::string options; // of encoders and multiplexer
    std::string inputs;  // empty: a fixture

    [[nodiscard]] std::string file() const {
        return inputs.empty() ? streamFile(name) : makeStream(name, inputs + "-t 3 -threads 1 " + options);
    }
};

void PrintTo(const Sample& sample, std::ostream* out) {
    *out << sample.name;
}

std::vector<Sample> fixtures() {
    std::vector<Sample> samples;
    for (const auto table : {streamFixtures(), untimedStreamFixtures()})
        for (const StreamFixture& each : table)
            samples.push_back({each.name, each.options, ""});
    return samples;
}

#define VIDEO(size, rate) "-f lavfi -i testsrc2=size=" size ":rate=" rate " "
#define MONO "-f lavfi -i sine=frequency=440:sample_rate=48000 "
#define STEREO "-f lavfi -i sine=frequency=440:sample_rate=48000,aformat=channel_layouts=stereo "
#define SURROUND "-f lavfi -i sine=frequency=330:sample_rate=48000,aformat=channel_layouts=5.1 "
#define MPEG2 "-c:v mpeg2video -b:v 1500k "
#define X264 "-c:v libx264 -preset ultrafast -sc_threshold 0 "
#define AC3 "-c:a ac3 -b:a 192k "

const Sample VARIANTS[] = {
    // Shapes of the picture.
    {"v_m2_4x3", MPEG2 AC3 "-aspect 4:3", VIDEO("720x576", "25") STEREO},
    {"v_m2_16x9", MPEG2 AC3 "-aspect 16:9", VIDEO("720x576", "25") STEREO},
    {"v_m2_544", MPEG2 AC3 "-aspect 4:3", VIDEO("544x576", "25") STEREO},
    {"v_m2_352x576", MPEG2 AC3 "-aspect 16:9", VIDEO("352x576", "25") STEREO},
    {"v_m2_480x480", MPEG2 AC3 "-aspect 4:3 -g 15 -bf 2", VIDEO("480x480", "30000/1001") STEREO},
    {"v_m2_704x480", MPEG2 AC3 "-g 15 -bf 2", VIDEO("704x480", "30000/1001") STEREO},
    {"v_m2_422", MPEG2 AC3 "-pix_fmt yuv422p -intra_vlc 1", VIDEO("720x576", "25") STEREO},
    {"v_h264_sar", X264 AC3 "-vf setsar=16/11", VIDEO("720x576", "25") STEREO},
    {"v_h264_1440", X264 AC3 "-vf setsar=4/3", VIDEO("1440x1080", "25") STEREO},
    {"v_h264_854", X264 AC3, VIDEO("854x480", "25") STEREO},
    {"v_h264_odd", X264 AC3 "-pix_fmt yuv444p", VIDEO("427x241", "25") STEREO},
    // Groups of pictures: many, one that is whole and one that is cut, one that is cut, other patterns.
    {"v_m2_gop6", MPEG2 AC3 "-g 6 -bf 2", VIDEO("352x288", "25") STEREO},
    {"v_m2_gop50", MPEG2 AC3 "-g 50", VIDEO("352x288", "25") STEREO},
    {"v_m2_gop200", MPEG2 AC3 "-g 200 -bf 2", VIDEO("352x288", "25") STEREO},
    {"v_m2_ibp", MPEG2 AC3 "-g 12 -bf 1", VIDEO("352x288", "25") STEREO},
    {"v_h264_gop50", X264 AC3 "-g 50 -bf 2", VIDEO("352x288", "25") STEREO},
    {"v_h264_gop250", X264 AC3 "-g 250", VIDEO("352x288", "25") STEREO},
    {"v_h264_ibbbp", X264 AC3 "-g 16 -bf 3 -x264-params b-pyramid=none:b-adapt=0",
     VIDEO("352x288", "25") STEREO},
    {"v_h264_open", X264 AC3 "-g 12 -bf 2 -x264-params open-gop=1:b-adapt=0", VIDEO("352x288", "25") STEREO},
    // Rates that MPEG-2 has no code for, and the highest that it has.
    {"v_h264_15", X264 AC3 "-g 15", VIDEO("352x288", "15") STEREO},
    {"v_h264_120", X264 AC3 "-g 60", VIDEO("352x288", "120") STEREO},
    {"v_h264_5994", X264 AC3 "-g 30", VIDEO("352x288", "60000/1001") STEREO},
    {"v_m2_60", MPEG2 AC3 "-g 30", VIDEO("352x288", "60") STEREO},
    // Sound.
    {"v_mp2_44100_mono", MPEG2 "-c:a mp2 -b:a 64k -ar 44100", VIDEO("352x288", "25") MONO},
    {"v_mp2_32000", MPEG2 "-c:a mp2 -b:a 160k -ar 32000", VIDEO("352x288", "25") STEREO},
    {"v_mp2_384", MPEG2 "-c:a mp2 -b:a 384k", VIDEO("352x288", "25") STEREO},
    {"v_aac_51", MPEG2 "-c:a aac -b:a 256k", VIDEO("352x288", "25") SURROUND},
    {"v_aac_24000", MPEG2 "-c:a aac -b:a 48k -ar 24000", VIDEO("352x288", "25") MONO},
    {"v_eac3_51", MPEG2 "-c:a eac3 -b:a 384k", VIDEO("352x288", "25") SURROUND},
    {"v_ac3_mono", MPEG2 "-c:a ac3 -b:a 96k", VIDEO("352x288", "25") MONO},
    {"v_ac3_44100", MPEG2 "-c:a ac3 -b:a 192k -ar 44100", VIDEO("352x288", "25") STEREO},
    {"v_ac3_51_448", MPEG2 "-c:a ac3 -b:a 448k", VIDEO("352x288", "25") SURROUND},
    // Multiplexes.
    {"v_pids", MPEG2 AC3 "-mpegts_pmt_start_pid 48 -streamid 0:49 -streamid 1:8000",
     VIDEO("352x288", "25") STEREO},
    // Constant rates, of the video and of the multiplex.
    {"v_m2_cbr",
     "-c:v mpeg2video -g 15 -bf 2 -b:v 3180k -minrate 3180k -maxrate 3180k -bufsize 1835k " AC3
     "-muxrate 3750000",
     VIDEO("528x480", "30000/1001") STEREO},
    {"v_h264_cbr",
     X264 AC3 "-g 24 -b:v 1500k -minrate 1500k -maxrate 1500k -bufsize 1000k "
              "-x264-params nal-hrd=cbr:filler=1 -muxrate 3M",
     VIDEO("528x480", "24000/1001") STEREO},
    {"v_h264_cbr_long",
     X264 "-an -t 30 -g 15 -b:v 300k -minrate 300k -maxrate 300k -bufsize 60k "
          "-x264-params nal-hrd=cbr:filler=1",
     VIDEO("176x144", "60")},
    // Too small for what they carry.
    {"v_m2_overloaded",
     "-map 0 -map 1 -map 1 -t 9 -c:v mpeg2video -g 15 -bf 2 -b:v 1000k -minrate 1000k -maxrate 1000k "
     "-bufsize 400k -c:a ac3 -b:a 384k -muxrate 1500000",
     VIDEO("352x240", "30000/1001") STEREO},
    {"v_h264_overloaded",
     X264 "-t 9 -g 24 -b:v 1500k -maxrate 1500k -bufsize 1000k -c:a ac3 -b:a 384k "
          "-muxrate 1500000",
     "-f lavfi -i testsrc2=size=352x288:rate=25,noise=alls=12:allf=t " STEREO},
    {"v_m2ts_late", MPEG2 AC3 "-output_ts_offset 95442", VIDEO("352x288", "25") STEREO},
};

class Agreement : public testing::TestWithParam<Sample> {
protected:
    Agreement() : path(GetParam().file()), probe(path), analysis(std::nullopt) {
        ts_file file(path.c_str());
        while (const unsigned char* const packet = file.get_ts())
            analysis.take(packet);
        analysis.end();
    }
    [[nodiscard]] const VideoTrack& video() const { return *analysis.video(); }

    std::string path;
    Ffprobe probe;
    Analysis analysis;
};

TEST_P(Agreement, OnTheStreamsOfTheProgram) {
    ASSERT_NE(analysis.video(), nullptr);
    EXPECT_EQ(analysis.videoPid(), probe.pid("v:0"));
    EXPECT_EQ(std::to_string(analysis.asset()->pmtPid),
              probe.run("-show_entries program=pmt_pid -of default=nw=1:nk=1").at(0));
    EXPECT_EQ(std::to_string(analysis.asset()->pcrPid),
              probe.run("-show_entries program=pcr_pid -of default=nw=1:nk=1").at(0));
    ASSERT_EQ(static_cast<int>(analysis.audios().size()), probe.streams("a"));
    for (std::size_t i = 0; i < analysis.audios().size(); ++i)
        EXPECT_EQ(analysis.audios()[i].pid, probe.pid("a:" + std::to_string(i)));
}

TEST_P(Agreement, OnThePicture) {
    const VideoFormat& picture = video().format();
    EXPECT_EQ(video().codec() == VideoCodec::mpeg2 ? "mpeg2video" : "h264",
              probe.stream("v:0", "codec_name"));
    EXPECT_EQ(std::to_string(picture.width), probe.stream("v:0", "width"));
    EXPECT_EQ(std::to_string(picture.height), probe.stream("v:0", "height"));
    EXPECT_EQ(picture.aspect, probe.stream("v:0", "display_aspect_ratio"));
    EXPECT_NEAR(picture.rate(), probe.frameRate(), 1e-9);
    const bool progressive = probe.stream("v:0", "field_order") == "progressive" ||
                             // Progressive pictures in a sequence that allows both.
                             probe.stream("v:0", "field_order") == "unknown";
    EXPECT_EQ(picture.interlaced, std::optional(!progressive));
}

TEST_P(Agreement, OnTheNumberOfFramesAndTheDuration) {
    const auto packets = probe.packets("v:0");
    EXPECT_EQ(video().frames(), packets.size());
    const double shown = std::stod(probe.stream("v:0", "duration"));
    EXPECT_NEAR(analysis.videoSeconds(), shown, 1 / video().format().rate()) << "within one frame";
}

TEST_P(Agreement, OnTheBitRates) {
    double bytes = 0;
    for (const ProbedPacket& packet : probe.packets("v:0"))
        bytes += packet.size;
    const double seconds = std::stod(probe.stream("v:0", "duration"));
    const double measured = bytes * 8 / seconds;
    if (const auto coded = video().codedRate()) {
        // What is sent at a constant rate has that rate, whatever a few seconds of it measure.
        EXPECT_NEAR(analysis.videoBitsPerSecond(), measured,
                    (coded->bufferBits + video().delimiterBits()) / seconds);
        EXPECT_EQ(analysis.videoBitsPerSecond(), coded->bitsPerSecond);
        if (video().codec() == VideoCodec::mpeg2) { // ffprobe tells none of H.264
            EXPECT_NEAR(analysis.videoBitsPerSecond() / std::stod(probe.stream("v:0", "bit_rate")), 1, 0.01);
        }
    } else {
        EXPECT_NEAR(analysis.videoBitsPerSecond() / measured, 1, 0.01);
    }
    const double whole = std::stod(probe.run("-show_entries format=bit_rate -of default=nw=1:nk=1").at(0));
    EXPECT_NEAR(analysis.muxBitsPerSecond() / whole, 1, 0.01);
}

TEST_P(Agreement, OnTheAudio) {
    for (std::size_t i = 0; i < analysis.audios().size(); ++i) {
        const std::string which = "a:" + std::to_string(i);
        const AudioTrack& track = analysis.audios()[i].track;
        const std::map<std::string, AudioCodec> codecs{{"ac3", AudioCodec::ac3},
                                                       {"eac3", AudioCodec::eac3},
                                                       {"mp2", AudioCodec::mpeg},
                                                       {"aac", AudioCodec::aac}};
        EXPECT_EQ(track.codec(), codecs.at(probe.stream(which, "codec_name")));
        // The low-frequency channel is reported apart from the others.
        EXPECT_EQ(std::to_string(track.format().allChannels()), probe.stream(which, "channels"));
        EXPECT_EQ(std::to_string(track.format().samplingRate), probe.stream(which, "sample_rate"));
        double rate = 0;
        if (track.codec() == AudioCodec::aac) {
            // ffprobe guesses AAC's rate from its first frames; all of its packets tell it exactly.
            double bytes = 0;
            const auto packets = probe.packets(which);
            for (const ProbedPacket& packet : packets)
                bytes += packet.size;
            rate = bytes * 8 * track.format().samplingRate / (1024.0 * static_cast<double>(packets.size()));
        } else {
            rate = std::stod(probe.stream(which, "bit_rate"));
        }
        EXPECT_NEAR(track.bitsPerSecond() / rate, 1, 0.01) << which;
    }
}

TEST_P(Agreement, OnTheGroupsOfPictures) {
    // In the order of coding: the keys and the distances between them.
    const auto packets = probe.packets("v:0");
    std::map<int, int> sizes;
    int last = -1;
    int groups = 0;
    for (int i = 0; i < static_cast<int>(packets.size()); ++i) {
        if (!packets[static_cast<std::size_t>(i)].key)
            continue;
        if (last >= 0 && ++groups > 1)
            ++sizes[i - last];
        last = i;
    }
    const auto most = std::max_element(sizes.begin(), sizes.end(),
                                       [](const auto& a, const auto& b) { return a.second < b.second; });
    // Without a whole group between two others: the longer of the first and the last.
    EXPECT_EQ(video().gops().size(),
              most != sizes.end() ? most->first : std::max(last, static_cast<int>(packets.size()) - last));
    // In the order of showing: the B pictures between two others.
    const std::string types = probe.pictureTypes();
    std::map<int, int> runs;
    int run = 0;
    for (std::size_t i = 1; i < types.size(); ++i) {
        if (types[i] == 'B') {
            ++run;
            continue;
        }
        ++runs[run];
        run = 0;
    }
    const auto frequent = std::max_element(runs.begin(), runs.end(),
                                           [](const auto& a, const auto& b) { return a.second < b.second; });
    const bool predicted = types.find('P') != std::string::npos;
    EXPECT_EQ(video().gops().structure(),
              "I" + std::string(static_cast<std::size_t>(frequent->first), 'B') + (predicted ? "P" : ""));
}

TEST_P(Agreement, ThatNothingIsWrong) {
    for (const Finding& finding : analysis.findings().first())
        ADD_FAILURE() << finding.kind << ": " << finding.text;
}

TEST_P(Agreement, OnTheTimeCode) {
    // Where each picture is a GOP, ffprobe answers the second one's.
    if (video().codec() == VideoCodec::mpeg2 && video().gops().size() > 1) {
        const auto tags =
            probe.run("-select_streams v:0 -show_entries frame_tags=timecode "
                      "-read_intervals %+#2 -show_entries frame_side_data=timecode -of default=nw=1:nk=1");
        ASSERT_FALSE(tags.empty());
        EXPECT_EQ(timecodeText(analysis), tags.front());
    }
    EXPECT_EQ(video().dropFrame(), GetParam().options.find("\\;") != std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(Fixtures, Agreement, testing::ValuesIn(fixtures()),
                         [](const auto& each) { return each.param.name; });
INSTANTIATE_TEST_SUITE_P(Variants, Agreement, testing::ValuesIn(VARIANTS),
                         [](const auto& each) { return each.param.name; });

} // namespace
