// The same of captures by hand, and of what ends every capture.
#include "capture/worker_process.h"

#include <csignal>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace capture_test;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

constexpr const char* ready = "receive buffer";

TEST(ManualCapture, AManualCaptureEndsWithTheCancelMessageAndKeepsAll) {
    Worker worker;
    std::snprintf(worker.settings.cmd.outputFile, 260, "news.ts");
    const int port = worker.addEncoder();
    std::snprintf(worker.settings.encoders[0].mainCaptureDirectory, 260, "%s", worker.path("media").c_str());
    worker.start();
    worker.waitForLog(ready);
    const Packets sent = StreamBuilder().frames(60);
    Sender("127.0.0.1", port).send(sent);
    worker.waitForLog("recording into");
    worker.queues.send(CANCEL_MSG);
    EXPECT_EQ(worker.wait(), 0) << worker.log();
    EXPECT_EQ(readPackets(worker.path("media/news.ts")).size(), sent.size());
    EXPECT_THAT(worker.results(), StartsWith("Recorded 00:00:02:10 (60 frames"));
}

TEST(ManualCapture, RunByHandASignalEndsItInOrder) {
    for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
        Worker worker;
        worker.useQueues = false;
        const int port = worker.addEncoder();
        const auto former = std::signal(SIGHUP, SIG_DFL); // which may be ignored here
        worker.start();
        std::signal(SIGHUP, former);
        worker.waitForLog(ready);
        Sender("127.0.0.1", port).send(StreamBuilder().frames(60));
        worker.waitForLog("recording into");
        worker.signal(signal);
        EXPECT_EQ(worker.wait(), 0) << signal;
        EXPECT_THAT(worker.log(), HasSubstr("Recorded 00:00:02:10 (60 frames")) << signal;
    }
}

TEST(ManualCapture, ASighupThatIsIgnoredStaysSo) {
    Worker worker;
    worker.useQueues = false;
    const int port = worker.addEncoder();
    const auto former = std::signal(SIGHUP, SIG_IGN); // as nohup does
    worker.start();
    std::signal(SIGHUP, former);
    worker.waitForLog(ready);
    worker.signal(SIGHUP);
    Sender("127.0.0.1", port).send(StreamBuilder().frames(60));
    worker.waitForLog("recording into");
    worker.signal(SIGTERM);
    EXPECT_EQ(worker.wait(), 0);
    EXPECT_THAT(worker.log(), HasSubstr("Recorded 00:00:02:10 (60 frames"));
}

TEST(ManualCapture, NoStreamWithinTenSeconds) {
    Worker worker;
    const int port = worker.addEncoder();
    worker.start();
    EXPECT_EQ(worker.wait(), 1);
    EXPECT_EQ(worker.results(),
              "Error: Do not see MPEG transport stream for capture at IP address 127.0.0.1:" +
                  std::to_string(port) + ".");
}

TEST(ManualCapture, AnExistingFileIsKept) {
    Worker worker;
    worker.addEncoder();
    std::filesystem::create_directories(worker.path("out"));
    std::ofstream(worker.path("out/news.ts")) << "precious";
    worker.start();
    EXPECT_EQ(worker.wait(), 1);
    EXPECT_THAT(worker.results(), StartsWith("Warning: The file specified already exists."));
    EXPECT_EQ(readText(worker.path("out/news.ts")), "precious");
}

TEST(ManualCapture, KilledItLeavesATransportStream) {
    Worker worker;
    const int port = worker.addEncoder();
    worker.start();
    worker.waitForLog(ready);
    const Packets sent = StreamBuilder({.packetsPerFrame = 40}).frames(500);
    Sender("127.0.0.1", port).send(sent, 60e6);
    worker.signal(SIGKILL);
    EXPECT_EQ(worker.wait(), 128 + SIGKILL);
    const Packets file = readPacketsOfKilled(worker.path("out/news.ts"));
    EXPECT_GT(file.size(), 10000u);
    EXPECT_EQ(continuityErrors(file), 0);
    EXPECT_EQ(positionOf(Packets(file.begin() + 2, file.end()), sent), 2);
}

TEST(ManualCapture, LostPacketsAreReportedWithPacketAndPid) {
    Worker worker;
    const int port = worker.addEncoder();
    worker.start();
    worker.waitForLog(ready);
    Packets sent = StreamBuilder().frames(60);
    sent.erase(sent.begin() + 40); // video
    Sender("127.0.0.1", port).send(sent);
    worker.waitForLog("continuity error at packet 40: expected");
    worker.queues.send(CANCEL_MSG);
    EXPECT_EQ(worker.wait(), 0);
    EXPECT_THAT(worker.results(), HasSubstr(", 1 continuity error"));
    EXPECT_THAT(worker.log(), testing::ContainsRegex("receive buffer [0-9]+ of 33554432 bytes asked for"));
    EXPECT_THAT(worker.log(), testing::ContainsRegex("Output /"));
}

TEST(ManualCapture, ASettingsFileWithoutAJobIsRefusedClearly) {
    Worker worker;
    worker.settings.cmd.jobType = CSettings::JOB_NONE;
    worker.addEncoder();
    worker.start();
    EXPECT_EQ(worker.wait(), 1);
    EXPECT_EQ(worker.results(), "Error: Unknown Capture Mode 8. (this worker has no such job)");
}

// Under a sanitizer the address space cannot be limited.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST(ManualCapture, WithoutMemoryTheServiceIsToldAndTheWorkerEnds) {
    Worker worker;
    worker.addEncoder();
    worker.memoryLimit = 40 * 1024 * 1024; // less than the packets between receiver and writer take
    worker.start();
    EXPECT_EQ(worker.wait(), 1) << worker.log();
    EXPECT_EQ(worker.results(), "Error: Start Capture failed. (std::bad_alloc)");
    EXPECT_EQ(worker.queues.received().back().type, EXIT_MSG);
}
#endif

} // namespace
