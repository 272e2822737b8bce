// Each fixture is what its row says, by ffprobe.
#include "streams/stream_fixtures.h"

#include "streams/ffprobe.h"
#include "streams/gop_reader.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <thread>

using namespace kestrel::test;

namespace {

class EveryFixture : public testing::TestWithParam<StreamFixture> {};

TEST_P(EveryFixture, IsWhatItsRowSays) {
    const StreamFixture& fixture = GetParam();
    const std::string path = streamFile(fixture.name);
    const Ffprobe probe(path);
    EXPECT_EQ(probe.stream("v:0", "codec_name"), fixture.codec);
    EXPECT_EQ(probe.stream("v:0", "width"), std::to_string(fixture.width));
    EXPECT_EQ(probe.stream("v:0", "height"), std::to_string(fixture.height));
    EXPECT_EQ(probe.stream("v:0", "r_frame_rate"), fixture.frameRate);
    EXPECT_EQ(probe.streams("a"), fixture.audios);
    EXPECT_EQ(std::filesystem::file_size(path) % 188, 0U);
    EXPECT_GT(std::filesystem::file_size(path), 100'000U);
}

INSTANTIATE_TEST_SUITE_P(Table, EveryFixture,
                         testing::ValuesIn(streamFixtures().begin(), streamFixtures().end()),
                         [](const auto& each) { return std::string(each.param.name); });

std::string firstTimecode(const char* name) {
    const std::string path = streamFile(name);
    return readGops(path, Ffprobe(path).pid("v:0")).at(0).text();
}

TEST(StreamFixtures, TimecodesAreDropFrameOrNot) {
    EXPECT_EQ(firstTimecode("m2_sd_2997"), "10:00:00:00");
    EXPECT_EQ(firstTimecode("m2_sd_2997_drop"), "10:00:00;02");
    EXPECT_EQ(firstTimecode("m2_hd_5994"), "10:00:00;04");
}

TEST(StreamFixtures, GopsAreOpenOrClosed) {
    const auto laterGop = [](const char* name) {
        const std::string path = streamFile(name);
        return readGops(path, Ffprobe(path).pid("v:0")).at(2);
    };
    EXPECT_FALSE(laterGop("m2_sd_25").closed);
    EXPECT_TRUE(laterGop("m2_sd_closed").closed);
}

TEST(StreamFixtures, InterlacedOnesAreCodedInFields) {
    for (const char* name : {"m2_sd_25_fields", "m2_hd_25_fields", "h264_fields"})
        EXPECT_EQ(Ffprobe(streamFile(name)).stream("v:0", "field_order"), "tt") << name;
    EXPECT_EQ(Ffprobe(streamFile("m2_sd_25")).stream("v:0", "field_order"), "progressive");
}

TEST(StreamFixtures, ProfilesAreThoseOfTheirNames) {
    EXPECT_EQ(Ffprobe(streamFile("h264_baseline")).stream("v:0", "profile"), "Constrained Baseline");
    EXPECT_EQ(Ffprobe(streamFile("h264_main")).stream("v:0", "profile"), "Main");
    EXPECT_EQ(Ffprobe(streamFile("h264_high_2997")).stream("v:0", "profile"), "High");
}

TEST(StreamFixtures, PidsAreThoseOfADelivery) {
    const Ffprobe probe(streamFile("m2_delivery_pids"));
    EXPECT_EQ(probe.pid("v:0"), 481);
    EXPECT_EQ(probe.pid("a:0"), 482);
    EXPECT_EQ(probe.pid("a:1"), 483);
}

TEST(StreamFixtures, SeveralMayAskAtOnceAndGetOneFile) {
    const std::string options = "-f lavfi -i color=size=64x64:rate=25 -t 1 -c:v mpeg2video";
    const std::string path = makeStream("asked_at_once", options);
    std::filesystem::remove(path);
    std::vector<std::thread> threads;
    std::vector<std::string> paths(4);
    for (std::string& each : paths)
        threads.emplace_back([&each, &options] { each = makeStream("asked_at_once", options); });
    for (std::thread& thread : threads)
        thread.join();
    for (const std::string& each : paths)
        EXPECT_EQ(each, path);
    EXPECT_TRUE(std::filesystem::exists(path));
}

TEST(StreamFixtures, AnUnknownOneIsAnError) {
    EXPECT_THROW(streamFile("nothing"), std::runtime_error);
}

} // namespace
