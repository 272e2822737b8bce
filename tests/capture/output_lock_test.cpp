// A file that one job writes is not taken from it by another that may replace files.
#include "capture/SegmentFile.h"
#include "capture/worker_process.h"
#include "foundation/ErrorCodes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace kestrel::capture;
using namespace capture_test;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

constexpr const char* held = " (it is being recorded by another job)";

TEST(OutputLock, AFileIsHeldUntilItIsClosed) {
    const TemporaryDirectory directory;
    const std::string path = directory.path("a.ts");
    for (const bool overwritten : {false, true}) {
        SegmentFile first;
        ASSERT_FALSE(first.create(path, overwritten));
        ASSERT_FALSE(first.append(Packet{0x47}));
        ASSERT_FALSE(first.flush());
        SegmentFile second;
        const MaybeFailure failed = second.create(path, true);
        ASSERT_TRUE(failed);
        EXPECT_EQ(failed->code, kestrel::error::outputFileNotOpened);
        EXPECT_THAT(failed->text, testing::EndsWith(held));
        EXPECT_FALSE(second.isOpen());
        EXPECT_EQ(std::filesystem::file_size(path), packetSize);
        ASSERT_FALSE(first.close(false));
        EXPECT_FALSE(second.create(path, true));
        EXPECT_EQ(std::filesystem::file_size(path), 0u);
    }
}

TEST(OutputLock, WhatIsNoFileIsWrittenToAsItIs) {
    SegmentFile file;
    SegmentFile beside;
    ASSERT_FALSE(file.create("/dev/null", true));
    EXPECT_FALSE(beside.create("/dev/null", true)) << "by any number at once";
    EXPECT_FALSE(file.append(Packet{0x47}));
    EXPECT_FALSE(file.close(true));
}

void setOutput(Worker& worker, const std::string& path) {
    std::snprintf(worker.settings.cmd.outputFile, sizeof worker.settings.cmd.outputFile, "%s", path.c_str());
}

TEST(OutputLock, ASecondWorkerThatMayOverwriteLeavesARunningRecordingAlone) {
    Worker first;
    const int firstPort = first.addEncoder();
    first.start();
    first.waitForLog("receive buffer");
    StreamBuilder builder;
    Packets sent = builder.frames(30);
    Sender sender("127.0.0.1", firstPort);
    sender.send(sent);
    first.waitForLog("recording into");

    Worker second;
    second.extraOptions = {"-overwrite"};
    const std::string output = first.path("out/news.ts");
    setOutput(second, output);
    const int secondPort = second.addEncoder();
    second.start();
    second.waitForLog("receive buffer");
    Sender("127.0.0.1", secondPort).send(StreamBuilder().frames(30));
    EXPECT_EQ(second.wait(), 1) << second.log();
    EXPECT_THAT(second.results(), StartsWith("Error: "));
    EXPECT_THAT(second.results(), HasSubstr(output));
    EXPECT_THAT(second.results(), HasSubstr(held));

    Worker normalizer;
    normalizer.extraOptions = {"-overwrite"};
    normalizer.settings.cmd.jobType = CSettings::JOB_MPEG_NORMALIZE;
    const std::string source = normalizer.path("source.ts");
    capture_test::writePackets(StreamBuilder().frames(30), source);
    std::snprintf(normalizer.settings.cmd.sourceFile, sizeof normalizer.settings.cmd.sourceFile, "%s",
                  source.c_str());
    setOutput(normalizer, output);
    normalizer.start();
    EXPECT_EQ(normalizer.wait(), 1) << normalizer.log();
    EXPECT_THAT(normalizer.results(), HasSubstr(held));

    const Packets more = builder.frames(30);
    sender.send(more);
    sent.insert(sent.end(), more.begin(), more.end());
    first.queues.send(CANCEL_MSG);
    EXPECT_EQ(first.wait(), 0) << first.log();
    EXPECT_THAT(first.results(), StartsWith("Recorded 00:00:02:10 (60 frames"));
    EXPECT_TRUE(readPackets(output) == sent);

    // Once nobody writes it any more it is replaced as ever.
    Worker third;
    third.extraOptions = {"-overwrite"};
    setOutput(third, output);
    const int thirdPort = third.addEncoder();
    third.start();
    third.waitForLog("receive buffer");
    const Packets other = StreamBuilder().frames(20);
    Sender("127.0.0.1", thirdPort).send(other);
    third.waitForLog("recording into");
    third.queues.send(CANCEL_MSG);
    EXPECT_EQ(third.wait(), 0) << third.log();
    EXPECT_EQ(readPackets(output).size(), other.size());
}

} // namespace
