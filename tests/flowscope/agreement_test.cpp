// What the verifier reports of every fixture, against ffprobe.
#include "flowscope/Analysis.h"
#include "flowscope/ReportValues.h"
#include "mpeg/ts_file.h"
#include "streams/ffprobe.h"
#include "streams/stream_fixtures.h"

#include <algorithm>
#include <cmath>
#include <gtest/gtest.h>
#include <map>

using namespace kestrel::flowscope;
using namespace kestrel::test;

namespace {

class Agreement : public testing::TestWithParam<StreamFixture> {
protected:
    Agreement() : path(streamFile(GetParam().name)), probe(path), analysis(std::nullopt) {
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
    EXPECT_EQ(!picture.interlaced, probe.stream("v:0", "field_order") == "progressive" ||
                                       // Progressive pictures in a sequence that allows both.
                                       (probe.stream("v:0", "field_order") == "unknown"));
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
    EXPECT_NEAR(analysis.videoBitsPerSecond() / (bytes * 8 / seconds), 1, 0.01);
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
    if (most != sizes.end()) {
        EXPECT_EQ(video().gops().size(), most->first);
    }
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
    if (video().codec() == VideoCodec::mpeg2 && GetParam().coding.gop > 1) {
        const auto tags =
            probe.run("-select_streams v:0 -show_entries frame_tags=timecode "
                      "-read_intervals %+#2 -show_entries frame_side_data=timecode -of default=nw=1:nk=1");
        ASSERT_FALSE(tags.empty());
        EXPECT_EQ(timecodeText(analysis), tags.front());
    }
    EXPECT_EQ(video().dropFrame(), std::string(GetParam().options).find("\\;") != std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(Fixtures, Agreement,
                         testing::ValuesIn(streamFixtures().begin(), streamFixtures().end()),
                         [](const auto& each) { return std::string(each.param.name); });

} // namespace
