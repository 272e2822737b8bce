// How re-encodes with the real worker end: with the last frame of the source, whatever the encoder goes on
// with.
#include "capture/reencode_job.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace capture_test;
using kestrel::test::streamFile;
using testing::Contains;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;
using Behind = RunningEncoder::Source::Behind;

namespace {

// The file, its timecodes another hour from behind so many GOPs on.
std::string withJump(const std::string& path, int group, const std::string& to) {
    Packets packets = readPackets(path);
    int groups = 0;
    for (Packet& packet : packets) {
        constexpr std::array<unsigned char, 4> head{0, 0, 1, 0xB8};
        const auto at = std::search(packet.begin(), packet.end(), head.begin(), head.end());
        if (pid(packet) != videoPid || packet.end() - at < 5 || ++groups <= group)
            continue;
        at[4] = static_cast<unsigned char>(at[4] ^ 0x04); // one hour of the five bits behind the drop flag
    }
    EXPECT_GT(groups, group);
    writePackets(packets, to);
    return to;
}

std::string lastLabel(const ReencodeJob& job) {
    const std::vector<std::string> labels = labelsOf(readPackets(job.output()), 3);
    return labels.empty() ? "" : labels.back();
}

TEST(ReencodeEnd, HasTheLastFrameOfASourceWhoseTimecodesJump) {
    ReencodeJob job("");
    job.source(withJump(streamFile("m2_sd_25"), 3, job.path("source.ts")));
    job.running({.bFrames = 2, .open = true}, {.firstLabel = "10:00:00:00", .frames = 74});
    EXPECT_EQ(job.run(), 0) << job.log() << job.results();
    EXPECT_THAT(job.log(), Not(HasSubstr("to 10:00:02:24"))) << "the timecodes jump";
    EXPECT_THAT(job.results(), HasSubstr(", by the source's timecodes from 10:00:00:00"));
    EXPECT_THAT(labelsOf(readPackets(job.output()), 3), Contains("10:00:02:24"));
}

TEST(ReencodeEnd, IsCompleteWhenNothingButNullPacketsComesBehindTheLastFrame) {
    for (const bool mezzanine : {false, true}) {
        ReencodeJob job(streamFile("m2_sd_25"),
                        mezzanine ? CSettings::JOB_MEZZANINE : CSettings::JOB_TIMED_REENCODE);
        job.marks("10:00:01:00", "10:00:02:24");
        job.running({}, {.firstLabel = "10:00:00:00", .frames = 75, .behind = Behind::nulls});
        EXPECT_EQ(job.run(), 0) << job.log() << job.results();
        EXPECT_THAT(job.results(), StartsWith("Recorded "));
        EXPECT_EQ(lastLabel(job), "10:00:02:24");
    }
}

TEST(ReencodeEnd, IsCompleteWhenTheEncoderFallsBackToAnotherRateBehindTheLastFrame) {
    for (const bool mezzanine : {false, true}) {
        ReencodeJob job(streamFile("m2_sd_25"),
                        mezzanine ? CSettings::JOB_MEZZANINE : CSettings::JOB_TIMED_REENCODE);
        job.marks("10:00:01:00", "10:00:02:24");
        job.running({}, {.firstLabel = "10:00:00:00", .frames = 75, .behind = Behind::otherRate});
        EXPECT_EQ(job.run(), 0) << job.log() << job.results();
        EXPECT_THAT(job.results(), Not(HasSubstr("frame rate code")));
        EXPECT_EQ(lastLabel(job), "10:00:02:24");
    }
}

// Of the source 60 frames come back; those that follow are the encoder's own.
TEST(ReencodeEnd, TellsFramesThatAreMissingWhenTheEncoderGoesOnInTheSameFormat) {
    for (const bool mezzanine : {false, true}) {
        ReencodeJob job(streamFile("m2_sd_25"),
                        mezzanine ? CSettings::JOB_MEZZANINE : CSettings::JOB_TIMED_REENCODE);
        job.marks("10:00:01:00", "10:00:02:24");
        job.running({}, {.firstLabel = "10:00:00:00", .frames = 60});
        EXPECT_EQ(job.run(), 1) << job.log();
        EXPECT_THAT(job.results(),
                    StartsWith(mezzanine ? "Error: Capture discontinuity."
                                         : "Error: 60 of 75 frames came back for certain. Recorded "));
        EXPECT_THAT(job.results(), HasSubstr(" to 10:00:02:09"));
        EXPECT_THAT(labelsOf(readPackets(job.output()), 3), Contains("10:00:02:09"));
    }
}

TEST(ReencodeEnd, IsNotCompleteWhenItIsCancelledAfterFramesWereLost) {
    ReencodeJob job(streamFile("m2_sd_25"));
    job.equipment({.lostFrom = 200'000, .lostTo = 260'000});
    job.start();
    job.waitForLog("Played 75 frames");
    job.queues.send(CANCEL_MSG);
    EXPECT_EQ(job.wait(std::chrono::seconds(20)), 1) << job.log();
    EXPECT_THAT(job.results(), testing::ContainsRegex("^Error: [0-9]+ of 75 frames came back\\. Recorded "));
}

// The play-out waits nine seconds for the first one's random access point; the other is silent meanwhile.
TEST(ReencodeEnd, WaitsForASlowEncoderFromThePlayOutOn) {
    ReencodeJob job(streamFile("m2_sd_25"));
    const int second = job.addEncoder();
    job.running(
        {.tables = true},
        {.frames = 75, .gop = 235, .otherEncoder = second, .otherDelay = std::chrono::milliseconds(3000)});
    EXPECT_EQ(job.run(), 0) << job.log() << job.results();
    EXPECT_THAT(job.results(), HasSubstr("; Encoder 2: Recorded 00:00:03:00 (75 frames, "));
}

} // namespace
