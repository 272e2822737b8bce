// The main job end to end: a client's line in, a recorded transport-stream file and a truthful status out.
// Real service, real capture worker, real encoder (ffmpeg) over UDP.
#include "foundation/ProcessTree.h"
#include "system/service_under_test.h"

#include <arpa/inet.h>
#include <csignal>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sstream>
#include <sys/socket.h>

using namespace kestrel::test;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

namespace {

class RealCapture : public testing::Test {
protected:
    void SetUp() override {
        std::ofstream(map) << "<Encoders><Encoder CONTROL_ADDRESS=\"127.0.0.1\" STREAM_ADDRESS=\"127.0.0.1\" "
                              "PORT=\""
                           << port << "\"/></Encoders>";
        service.set("Capture", "EXE", std::string(KESTREL_CAPTURE_PROGRAM) + " -encoders " + map);
        service.start();
    }

    // MPEG-2 at 25 frames a second with GOP timecodes, and AC-3, in real time.
    void startEncoder() {
        encoder = std::make_unique<Child>(
            std::vector<std::string>{"/usr/bin/ffmpeg",
                                     "-hide_banner",
                                     "-loglevel",
                                     "error",
                                     "-nostdin",
                                     "-re",
                                     "-f",
                                     "lavfi",
                                     "-i",
                                     "testsrc2=size=352x288:rate=25",
                                     "-f",
                                     "lavfi",
                                     "-i",
                                     "sine=frequency=1000:sample_rate=48000",
                                     "-c:v",
                                     "mpeg2video",
                                     "-b:v",
                                     "2M",
                                     "-g",
                                     "12",
                                     "-bf",
                                     "2",
                                     "-timecode",
                                     "10:00:00:00",
                                     "-c:a",
                                     "ac3",
                                     "-b:a",
                                     "192k",
                                     "-f",
                                     "mpegts",
                                     "udp://127.0.0.1:" + std::to_string(port) + "?pkt_size=1316"});
    }

    std::string probe(const std::string& entry, const std::string& stream) const {
        Child ffprobe({"/usr/bin/ffprobe", "-v", "error", "-count_packets", "-select_streams", stream,
                       "-show_entries", "stream=" + entry, "-of", "csv=p=0", recording});
        const auto ended = ffprobe.wait(30s);
        std::string line = ended ? ended->output.substr(0, ended->output.find('\n')) : "";
        while (!line.empty() && line.back() == ',')
            line.pop_back();
        return line;
    }

    ServiceUnderTest service;
    const int port = freeUdpPort();
    const std::string map = service.root() / "encoders.xml";
    const std::string recording = service.root() / "recording.ts";
    std::unique_ptr<Child> encoder;
};

TEST_F(RealCapture, ATimedCaptureRecordsExactlyTheFramesAskedForAndSaysSo) {
    startEncoder();
    ASSERT_EQ(service.ask("CAPTURE,JOB_BEGIN,cafe,CAPTURE_TIMED_JOB,Filename=" + recording +
                          ",EncoderIp=127.0.0.1,Duration=00:00:03:05"),
              "TRUE");
    EXPECT_EQ(service.ask("JOB_STATUS,cafe"), "TRUE - IN_PROGRESS");
    ASSERT_EQ(service.waitForState("cafe", "COMPLETE", 40s), "TRUE - COMPLETE");
    EXPECT_THAT(service.ask("JOB_RESULTS,cafe"),
                MatchesRegex("TRUE - Recorded 00:00:03:05 \\(80 frames, [0-9.]+ MB\\), 0 continuity errors"));
    EXPECT_EQ(probe("codec_name", "v:0"), "mpeg2video");
    EXPECT_EQ(probe("nb_read_packets", "v:0"), "80");
    EXPECT_EQ(probe("r_frame_rate", "v:0"), "25/1");
    EXPECT_EQ(probe("codec_name", "a:0"), "ac3");
    EXPECT_THAT(service.ask("CAPTURE,JOB_LAST_LOG_ENTRIES,cafe"), HasSubstr("Recorded 00:00:03:05"));
}

TEST_F(RealCapture, AManualCaptureEndsWithTheAbortAndKeepsItsFile) {
    startEncoder();
    ASSERT_EQ(service.ask("CAPTURE,JOB_BEGIN,cafe,CAPTURE_MANUAL_JOB,Filename=" + recording +
                          ",EncoderIp=127.0.0.1"),
              "TRUE");
    ASSERT_TRUE(eventually(
        [&] {
            std::error_code error;
            const auto size = std::filesystem::file_size(recording, error);
            return !error && size > 200'000;
        },
        40s));
    EXPECT_EQ(service.ask("CAPTURE,JOB_ABORT,cafe"), "TRUE");
    ASSERT_TRUE(service.waitForLog("Info: Job process returned SUCCESS.", 20s));
    EXPECT_EQ(service.ask("JOB_STATUS,cafe"), "TRUE - CANCELLED");
    EXPECT_THAT(service.ask("JOB_RESULTS,cafe"), StartsWith("TRUE - Recorded "));
    EXPECT_EQ(std::filesystem::file_size(recording) % 188, 0U);
    EXPECT_EQ(probe("codec_name", "v:0"), "mpeg2video");
}

TEST_F(RealCapture, WithoutAStreamTheJobFailsWithAddressAndPort) {
    ASSERT_EQ(service.ask("CAPTURE,JOB_BEGIN,cafe,CAPTURE_TIMED_JOB,Filename=" + recording +
                          ",EncoderIp=127.0.0.1,Duration=00:00:03:00"),
              "TRUE");
    EXPECT_EQ(service.waitForState("cafe", "ERROR", 40s), "TRUE - ERROR");
    EXPECT_THAT(service.ask("JOB_RESULTS,cafe"),
                HasSubstr("Error: Do not see MPEG transport stream for capture at IP address 127.0.0.1:" +
                          std::to_string(port) + "."));
}

TEST_F(RealCapture, AnEncoderGivenTwiceIsTakenWithAWarningAndTheWorkerFails) {
    ASSERT_EQ(service.ask("CAPTURE,JOB_BEGIN,cafe,CAPTURE_MANUAL_JOB,Filename=" + recording +
                          ",EncoderIp1=127.0.0.1,EncoderIp2=127.0.0.1"),
              "TRUE");
    EXPECT_TRUE(service.waitForLog(
        "[JobMgmt:Warning] EncoderIp2=127.0.0.1: the request has this encoder "
        "already. It is taken twice: the job's worker fails, or records the same twice.\r\n"));
    EXPECT_EQ(service.waitForState("cafe", "ERROR"), "TRUE - ERROR");
    EXPECT_THAT(service.ask("JOB_RESULTS,cafe"), StartsWith("TRUE - Error: Start Capture failed."));
}

TEST_F(RealCapture, ARecordingGoesOnWhenTheServiceIsStopped) {
    startEncoder();
    ASSERT_EQ(service.ask("CAPTURE,JOB_BEGIN,cafe,CAPTURE_TIMED_JOB,Filename=" + recording +
                          ",EncoderIp=127.0.0.1,Duration=00:00:06:00"),
              "TRUE");
    ASSERT_TRUE(eventually([&] { return std::filesystem::exists(recording); }, 40s));
    const std::vector<pid_t> workers = service.children();
    ASSERT_EQ(workers.size(), 1U);
    service.process().signal(SIGTERM);
    const auto ended = service.process().wait(20s);
    ASSERT_TRUE(ended.has_value());
    EXPECT_EQ(ended->code, 0);
    EXPECT_TRUE(eventually([&] { return kestrel::test::signalTo(workers[0], 0) != 0; }, 40s))
        << "the worker does not end";
    EXPECT_EQ(probe("nb_read_packets", "v:0"), "150");
}

} // namespace
