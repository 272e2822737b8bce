// The worker from its command line to its exit code: timed captures.
#include "capture/worker_process.h"

#include <cstring>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace capture_test;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

void setDuration(Worker& worker, const char* duration) {
    worker.settings.cmd.jobType = CSettings::JOB_TIMED;
    std::snprintf(worker.settings.cmd.duration, sizeof worker.settings.cmd.duration, "%s", duration);
}

constexpr const char* ready = "receive buffer";

TEST(TimedCapture, ATimedCaptureIsExactAndTellsTheService) {
    Worker worker;
    setDuration(worker, "00:00:04:00");
    const int port = worker.addEncoder();
    worker.start();
    worker.waitForLog(ready);
    const Packets sent = StreamBuilder().frames(200);
    Sender("127.0.0.1", port).send(sent, 4e6);
    EXPECT_EQ(worker.wait(), 0) << worker.log();
    EXPECT_EQ(worker.results(), "Recorded 00:00:04:00 (100 frames, 0.1 MB), 0 continuity errors");

    const Packets file = readPackets(worker.path("out/news.ts"));
    EXPECT_EQ(pictures(file), 100);
    EXPECT_EQ(continuityErrors(file), 0);
    EXPECT_EQ(pid(file.at(0)), 0);
    EXPECT_EQ(pid(file.at(1)), pmtPid);
    EXPECT_EQ(positionOf(Packets(file.begin() + 2, file.end()), sent), 2);

    const auto& messages = worker.queues.received();
    ASSERT_GE(messages.size(), 4u);
    EXPECT_EQ(messages.front().type, STATUS_MSG);
    EXPECT_EQ(messages.back().type, EXIT_MSG);
    EXPECT_EQ(messages[messages.size() - 2].type, RESULTS_MSG);
    const Message& last = messages[messages.size() - 3];
    ASSERT_EQ(last.type, CAPTURE_STATUS_MSG);
    ASSERT_EQ(last.payload.size(), sizeof(_CaptureJobStatusData));
    _CaptureJobStatusData status{};
    std::memcpy(&status, last.payload.data(), sizeof status);
    EXPECT_EQ(status.encoderIndex, 0);
    EXPECT_EQ(status.frames, 100u);
    EXPECT_EQ(status.dropFrame, 0);
    EXPECT_EQ(status.frameRateCode, 3u);
    EXPECT_EQ(status.statusNumber1, 0u);
    EXPECT_EQ(status.statusNumber2, file.size() * 188);
}

TEST(TimedCapture, RtpIsRecordedLikePlainDatagrams) {
    Worker worker;
    setDuration(worker, "00:00:02:00");
    const int port = worker.addEncoder();
    worker.start();
    worker.waitForLog(ready);
    Sender("127.0.0.1", port).sendRtp(StreamBuilder().frames(100));
    EXPECT_EQ(worker.wait(), 0) << worker.log();
    EXPECT_EQ(worker.results(), "Recorded 00:00:02:00 (50 frames, 0.0 MB), 0 continuity errors");
    EXPECT_THAT(worker.log(), HasSubstr(", in RTP"));
}

TEST(TimedCapture, AGroupIsJoinedWhereTheEncoderMapSays) {
    Worker worker;
    setDuration(worker, "00:00:02:00");
    const int port = freePort();
    worker.settings.numEncoders = 1;
    worker.settings.encoders[0].snmpIpAddress = 0x0A010203;
    std::ofstream(worker.path("map.xml"))
        << "<Encoders><Encoder CONTROL_ADDRESS=\"10.1.2.3\" STREAM_ADDRESS=\"239.255.77.1\" PORT=\"" << port
        << "\" INTERFACE=\"127.0.0.1\"/></Encoders>";
    worker.extraOptions = {"-encoders", worker.path("map.xml")};
    worker.start();
    worker.waitForLog(ready);
    Sender("239.255.77.1", port).send(StreamBuilder().frames(100));
    EXPECT_EQ(worker.wait(), 0) << worker.log();
    EXPECT_EQ(pictures(readPackets(worker.path("out/news.ts"))), 50);
}

TEST(TimedCapture, TwoEncodersAreRecordedBesideEachOther) {
    Worker worker;
    setDuration(worker, "00:00:02:00");
    const int first = worker.addEncoder();
    const int second = worker.addEncoder();
    worker.start();
    worker.waitForLog("Encoder 2: receive buffer");
    Sender("127.0.0.1", first).send(StreamBuilder().frames(100));
    Sender("127.0.0.1", second).send(StreamBuilder({.rateCode = 4}).frames(100));
    EXPECT_EQ(worker.wait(), 0) << worker.log();
    EXPECT_EQ(worker.results(), "Encoder 1: Recorded 00:00:02:00 (50 frames, 0.0 MB), 0 continuity errors; "
                                "Encoder 2: Recorded 00:00:02;00 (60 frames, 0.1 MB), 0 continuity errors");
    EXPECT_EQ(pictures(readPackets(worker.path("out/news.ts"))), 50);
    EXPECT_EQ(pictures(readPackets(worker.path("out/news_2.ts"))), 60);
}

// With the encoder of the reference tools, judged by their reader.
TEST(TimedCapture, AStreamOfFfmpegIsCutOnTheFrame) {
    if (std::system("command -v ffmpeg >/dev/null && command -v ffprobe >/dev/null") != 0)
        GTEST_SKIP() << "needs ffmpeg";
    for (const std::string codec :
         {"-c:v mpeg2video -timecode 10:00:00:00", "-c:v libx264 -preset ultrafast -bf 2"}) {
        Worker worker;
        setDuration(worker, "00:00:03:00");
        const int port = worker.addEncoder();
        const std::string source = worker.path("source.ts");
        ASSERT_EQ(
            std::system(("ffmpeg -v error -f lavfi -i testsrc2=size=320x240:rate=25 -f lavfi -i sine -t 5 " +
                         codec + " -g 12 -c:a ac3 -f mpegts " + source)
                            .c_str()),
            0);
        worker.start();
        worker.waitForLog(ready);
        Sender("127.0.0.1", port).send(readPackets(source));
        EXPECT_EQ(worker.wait(), 0) << worker.log();
        EXPECT_THAT(worker.results(), StartsWith("Recorded 00:00:03:00 (75 frames"));
        const std::string file = worker.path("out/news.ts");
        EXPECT_EQ(continuityErrors(readPackets(file)), 0);
        ASSERT_EQ(std::system(("ffprobe -v error -select_streams v -show_entries packet=flags -of csv=p=0 " +
                               file + " > " + worker.path("frames"))
                                  .c_str()),
                  0);
        std::ifstream lines(worker.path("frames"));
        std::string line;
        int count = 0;
        while (std::getline(lines, line))
            if (!line.empty() && count++ == 0) {
                EXPECT_EQ(line[0], 'K');
            }
        EXPECT_EQ(count, 75);
    }
}

} // namespace
