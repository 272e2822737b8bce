// What the worker writes, and where.
#include "capture/worker_process.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <regex>
#include <sched.h>
#include <sys/mount.h>
#include <thread>

using namespace capture_test;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

constexpr const char* ready = "receive buffer";

// An encoder that only the map knows.
int addMappedEncoder(Worker& worker, const std::string& attributes) {
    const int port = freePort();
    worker.settings.numEncoders = 1;
    worker.settings.encoders[0].snmpIpAddress = 0x0A010203;
    std::ofstream(worker.path("map.xml"))
        << "<Encoders><Encoder CONTROL_ADDRESS=\"10.1.2.3\" STREAM_ADDRESS=\"127.0.0.1\" PORT=\"" << port
        << "\" " << attributes << "/></Encoders>";
    worker.extraOptions = {"-encoders", worker.path("map.xml")};
    return port;
}

void makeExistingFile(const Worker& worker) {
    std::filesystem::create_directories(worker.path("out"));
    std::ofstream(worker.path("out/news.ts")) << std::string(100'000, 'x');
}

// Records a second of a stream, which replaces what was there.
void expectReplaced(Worker& worker, int port) {
    worker.settings.cmd.jobType = CSettings::JOB_TIMED;
    std::snprintf(worker.settings.cmd.duration, sizeof worker.settings.cmd.duration, "00:00:01:00");
    worker.start();
    worker.waitForLog(ready);
    Sender("127.0.0.1", port).send(StreamBuilder().frames(40));
    EXPECT_EQ(worker.wait(), 0) << worker.log();
    const Packets file = readPackets(worker.path("out/news.ts"));
    EXPECT_EQ(pictures(file), 25);
    EXPECT_EQ(continuityErrors(file), 0);
}

TEST(WorkerOutput, TheMapMayLetAnExistingFileBeReplaced) {
    Worker worker;
    const int port = addMappedEncoder(worker, "OVERWRITE=\"TRUE\"");
    makeExistingFile(worker);
    expectReplaced(worker, port);
}

TEST(WorkerOutput, AMapThatDoesNotSaySoKeepsIt) {
    Worker worker;
    addMappedEncoder(worker, "OVERWRITE=\"FALSE\"");
    makeExistingFile(worker);
    worker.start();
    EXPECT_EQ(worker.wait(), 1);
    EXPECT_THAT(worker.results(), StartsWith("Warning: The file specified already exists."));
    EXPECT_EQ(std::filesystem::file_size(worker.path("out/news.ts")), 100'000u);
}

TEST(WorkerOutput, TheCommandLineMayLetExistingFilesBeReplaced) {
    Worker worker;
    const int port = addMappedEncoder(worker, "");
    worker.extraOptions.insert(worker.extraOptions.begin(), "-overwrite");
    makeExistingFile(worker);
    expectReplaced(worker, port);
}

TEST(WorkerOutput, AMapWithoutAStreamAddressTakesFromAnybodyAndSaysSo) {
    for (const bool named : {false, true}) {
        Worker worker;
        const int port = addMappedEncoder(worker, "");
        if (!named)
            std::ofstream(worker.path("map.xml"))
                << "<Encoders><Encoder CONTROL_ADDRESS=\"10.1.2.3\" PORT=\"" << port << "\"/></Encoders>";
        expectReplaced(worker, port);
        const std::string warning = "Encoder 1: what anybody sends to UDP port " + std::to_string(port) +
                                    " of this host is recorded: the encoder map names no address";
        EXPECT_EQ(worker.log().find(warning) != std::string::npos, !named) << worker.log();
    }
}

// It fills its datagrams without regard for packets, unless it is told their size.
TEST(WorkerOutput, DatagramsOfALiveFfmpegThatHoldNoWholePacketsAreCounted) {
    if (std::system("command -v ffmpeg >/dev/null") != 0)
        GTEST_SKIP() << "needs ffmpeg";
    for (const bool whole : {false, true}) {
        Worker worker;
        const int port = worker.addEncoder();
        worker.start();
        worker.waitForLog(ready);
        const std::string command =
            "ffmpeg -v error -re -f lavfi -i testsrc2=s=720x576:r=25:d=2 -c:v mpeg2video "
            "-b:v 4M -g 12 -f mpegts 'udp://127.0.0.1:" +
            std::to_string(port) + (whole ? "?pkt_size=1316'" : "'");
        ASSERT_EQ(std::system(command.c_str()), 0);
        worker.queues.send(CANCEL_MSG);
        const int code = worker.wait();
        const std::string sizes = "1472 bytes, not a multiple of 188, are no transport stream";
        if (whole) {
            EXPECT_EQ(code, 0) << worker.log();
            EXPECT_THAT(worker.results(), testing::EndsWith(" 0 continuity errors"));
        } else {
            EXPECT_THAT(worker.results(), ContainsRegex(", [0-9][0-9]+ datagrams were no transport stream"));
        }
        EXPECT_EQ(worker.log().find(sizes) != std::string::npos, !whole) << worker.log();
    }
}

TEST(WorkerOutput, AProfileWithOnlyTheSecondReceptionRecordsThatOne) {
    Worker worker;
    worker.addEncoder();
    const int port = worker.addEncoder();
    worker.rewriteSettings = [](const std::string& text) {
        return std::regex_replace(text, std::regex("<ENCODER_RECEPTION_0[^>]*>"), "");
    };
    worker.start();
    worker.waitForLog(ready);
    EXPECT_THAT(readText(worker.path("settings.xml")), Not(HasSubstr("ENCODER_RECEPTION_0")));
    EXPECT_THAT(readText(worker.path("settings.xml")), HasSubstr("ENCODER_RECEPTION_1"));
    const Packets sent = StreamBuilder().frames(60);
    Sender("127.0.0.1", port).send(sent);
    worker.waitForLog("recording into");
    worker.queues.send(CANCEL_MSG);
    EXPECT_EQ(worker.wait(), 0) << worker.log();
    EXPECT_THAT(worker.results(), StartsWith("Recorded 00:00:02:10 (60 frames"));
    EXPECT_EQ(readPackets(worker.path("out/news.ts")).size(), sent.size());
    EXPECT_EQ(filesIn(worker.path("out")).size(), 1u);
}

// Whole multiples of the segment since local midnight, so the wait ends on one.
TEST(WorkerOutput, ARollingCaptureThatDoesNotStartNowWaitsForTheNextBoundary) {
    Worker worker;
    worker.settings.cmd.jobType = CSettings::JOB_ROLLING;
    worker.settings.cmd.rollingDurationMin = 60;
    worker.settings.cmd.rollingStartNow = false;
    const int port = worker.addEncoder();
    worker.start();
    worker.waitForLog(ready);
    const std::time_t now = std::time(nullptr);
    std::smatch match;
    const std::string log = worker.log();
    ASSERT_TRUE(std::regex_search(log, match, std::regex("Recording starts in ([0-9]+) s"))) << log;
    const std::time_t begin = now + std::stol(match[1]);
    std::tm local{};
    localtime_r(&begin, &local);
    const int pastTheHour = (local.tm_min * 60 + local.tm_sec + 5) % 3600;
    EXPECT_LE(pastTheHour, 10) << "within a few seconds of the full hour";
    if (std::stol(match[1]) < 30)
        GTEST_SKIP() << "the hour is about to begin";
    const Packets sent = StreamBuilder().frames(60);
    Sender("127.0.0.1", port).send(sent);
    worker.waitForLog("stream found");
    worker.queues.send(CANCEL_MSG);
    EXPECT_NE(worker.wait(), -1);
    EXPECT_THAT(worker.results(), HasSubstr("nothing recorded"));
    EXPECT_TRUE(filesIn(worker.path("out")).empty());
}

TEST(WorkerOutput, ASenderThatBeginsItsSequenceAnewLosesNothing) {
    Worker worker;
    const int port = worker.addEncoder();
    worker.start();
    worker.waitForLog(ready);
    StreamBuilder builder;
    Packets sent = builder.frames(250);
    // Each sender begins with the same sequence number and has the same source.
    Sender("127.0.0.1", port).sendRtp(sent);
    const Packets more = builder.frames(250);
    Sender("127.0.0.1", port).sendRtp(more);
    sent.insert(sent.end(), more.begin(), more.end());
    worker.waitForLog("recording into");
    worker.queues.send(CANCEL_MSG);
    EXPECT_EQ(worker.wait(), 0) << worker.log();
    EXPECT_THAT(worker.results(), StartsWith("Recorded 00:00:20:00 (500 frames"));
    EXPECT_THAT(worker.results(), Not(HasSubstr("missing")));
    EXPECT_THAT(worker.log(), Not(HasSubstr("late by their sequence numbers")));
    EXPECT_EQ(readPackets(worker.path("out/news.ts")).size(), sent.size());
}

TEST(WorkerOutput, RtpDatagramsThatDoNotComeAreCounted) {
    Worker worker;
    const int port = worker.addEncoder();
    worker.start();
    worker.waitForLog(ready);
    StreamBuilder builder;
    Sender sender("127.0.0.1", port);
    sender.sendRtp(builder.frames(60));
    worker.waitForLog("recording into");
    sender.skip(3);
    sender.sendRtp(builder.frames(60));
    worker.queues.send(CANCEL_MSG);
    EXPECT_EQ(worker.wait(), 0) << worker.log();
    EXPECT_THAT(worker.results(), HasSubstr(", 3 RTP datagrams missing"));
}

// In a mount namespace of its own, so that the small disk is seen by nobody else.
TEST(WorkerOutput, AFullDiskEndsTheCaptureAndKeepsWholePackets) {
    std::thread([] {
        if (::unshare(CLONE_NEWNS) != 0 || ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
            GTEST_SKIP() << "no mount namespace to be had: " << std::strerror(errno);
        Worker worker;
        std::filesystem::create_directories(worker.path("out"));
        if (::mount("tmpfs", worker.path("out").c_str(), "tmpfs", 0, "size=1m") != 0)
            GTEST_SKIP() << "no tmpfs to be had: " << std::strerror(errno);
        const int port = worker.addEncoder();
        worker.start();
        worker.waitForLog(ready);
        const Packets sent = StreamBuilder({.packetsPerFrame = 40}).frames(400);
        Sender("127.0.0.1", port).send(sent);
        EXPECT_EQ(worker.wait(), 1) << worker.log();
        EXPECT_THAT(worker.results(), StartsWith("Error: Disk Full.  Ending Capture. Recorded 00:00:0"));
        EXPECT_THAT(worker.results(), HasSubstr(" 1.0 MB)"));
        const Packets file = readPackets(worker.path("out/news.ts"));
        EXPECT_GT(file.size() * 188, 900'000u);
        EXPECT_EQ(continuityErrors(file), 0);
        EXPECT_EQ(positionOf(Packets(file.begin() + 2, file.end()), sent), 2);
        // What is told of the bytes never goes back, and ends with what is there.
        std::uint64_t told = 0;
        for (const Message& message : worker.queues.received()) {
            if (message.type != CAPTURE_STATUS_MSG)
                continue;
            _CaptureJobStatusData status{};
            ASSERT_EQ(message.payload.size(), sizeof status);
            std::memcpy(&status, message.payload.data(), sizeof status);
            EXPECT_GE(status.statusNumber2, told);
            told = status.statusNumber2;
        }
        EXPECT_EQ(told, file.size() * 188);
        EXPECT_THAT(worker.log(),
                    ContainsRegex("news.ts closed, " + std::to_string(file.size() * 188) + " bytes"));
        ::umount2(worker.path("out").c_str(), MNT_DETACH);
    }).join();
}

} // namespace
