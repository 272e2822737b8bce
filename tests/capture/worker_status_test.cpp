// What the worker tells the service while it records.
#include "capture/worker_process.h"

#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace capture_test;
using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

using Clock = std::chrono::steady_clock;

_CaptureJobStatusData statusOf(const Message& message) {
    _CaptureJobStatusData status{};
    EXPECT_EQ(message.payload.size(), sizeof status);
    if (message.payload.size() == sizeof status)
        std::memcpy(&status, message.payload.data(), sizeof status);
    return status;
}

// The next status record of an encoder that satisfies what is asked.
template <typename Wanted>
_CaptureJobStatusData statusWhen(Worker& worker, int encoder, Wanted wanted) {
    const auto deadline = Clock::now() + 20s;
    while (Clock::now() < deadline && !testing::Test::HasFailure()) {
        const _CaptureJobStatusData status = statusOf(worker.next(CAPTURE_STATUS_MSG));
        if (status.encoderIndex == encoder && wanted(status))
            return status;
    }
    ADD_FAILURE() << worker.log();
    return {};
}

TEST(WorkerStatus, AHeartbeatEveryFiveSecondsAndARecordEverySecondFromTheStart) {
    Worker worker;
    worker.addEncoder();
    worker.start();
    EXPECT_EQ(worker.next(STATUS_MSG).payload.size(), 0u) << "the first at once";
    const auto begin = Clock::now();
    int records = 0;
    Clock::time_point last = begin;
    while (Clock::now() < begin + 20s) {
        ASSERT_TRUE(worker.queues.receive(10s)) << worker.log();
        const Clock::time_point now = Clock::now();
        const Message& message = worker.queues.received().back();
        if (message.type == STATUS_MSG)
            break;
        ASSERT_EQ(message.type, CAPTURE_STATUS_MSG);
        const _CaptureJobStatusData status = statusOf(message);
        EXPECT_EQ(status.encoderIndex, 0);
        EXPECT_EQ(status.frames, 0u) << "there is no stream yet";
        EXPECT_EQ(status.statusNumber2, 0u);
        ++records;
        last = now;
    }
    const auto taken = Clock::now() - begin;
    EXPECT_GE(taken, 4900ms);
    EXPECT_LT(taken, 10s) << "the second is due";
    // The fifth record is due together with the heartbeat.
    EXPECT_GE(records, 4);
    EXPECT_LE(records, taken / 1s + 1);
    EXPECT_GE(last - begin, 3900ms) << "spread over the time";
    worker.queues.send(CANCEL_MSG);
    EXPECT_NE(worker.wait(), -1);
}

TEST(WorkerStatus, TheSecondEncoderHasRecordsOfItsOwn) {
    Worker worker;
    const int first = worker.addEncoder();
    const int second = worker.addEncoder();
    worker.start();
    worker.waitForLog("Encoder 2: receive buffer");
    Sender("127.0.0.1", first).send(StreamBuilder().frames(30));
    Packets sent = StreamBuilder({.rateCode = 4}).frames(70);
    sent.erase(sent.begin() + 101); // video, within a frame
    Sender("127.0.0.1", second).send(sent);
    const auto mine = statusWhen(worker, 0, [](const auto& status) { return status.frames == 30; });
    EXPECT_EQ(mine.frameRateCode, 3u);
    EXPECT_EQ(mine.dropFrame, 0);
    EXPECT_EQ(mine.statusNumber1, 0u);
    const auto other = statusWhen(worker, 1, [&](const auto& status) {
        return status.frames == 70 && status.statusNumber2 == sent.size() * 188;
    });
    EXPECT_EQ(other.frameRateCode, 4u);
    EXPECT_EQ(other.dropFrame, 1);
    EXPECT_EQ(other.statusNumber1, 1u) << "continuity errors";
    worker.queues.send(CANCEL_MSG);
    EXPECT_EQ(worker.wait(), 0) << worker.log();
}

TEST(WorkerStatus, BytesAndBitRateFollowTheStream) {
    Worker worker;
    const int port = worker.addEncoder();
    worker.start();
    worker.waitForLog("receive buffer");
    // Some two seconds of 8 Mb/s, so that one record at least lies inside.
    const Packets sent = StreamBuilder({.packetsPerFrame = 25}).frames(400);
    Sender("127.0.0.1", port).send(sent, 8e6);
    std::uint64_t best = 0;
    const auto end = statusWhen(worker, 0, [&](const auto& status) {
        best = std::max(best, status.statusNumber3);
        return status.statusNumber2 == sent.size() * 188;
    });
    EXPECT_EQ(end.frames, 400u);
    EXPECT_GT(best, 4'000'000u);
    EXPECT_LT(best, 16'000'000u);
    worker.queues.send(CANCEL_MSG);
    EXPECT_EQ(worker.wait(), 0) << worker.log();
}

TEST(WorkerStatus, AnEncoderThatFailsIsToldWhileTheOtherGoesOn) {
    Worker worker;
    worker.settings.cmd.jobType = CSettings::JOB_TIMED;
    // Frame 27 exists at 29.97 frames a second and not at 25.
    std::snprintf(worker.settings.cmd.duration, sizeof worker.settings.cmd.duration, "00:00:02:27");
    const int first = worker.addEncoder();
    const int second = worker.addEncoder();
    worker.start();
    worker.waitForLog("Encoder 2: receive buffer");
    StreamBuilder goesOn({.rateCode = 4});
    Sender sender("127.0.0.1", first);
    sender.send(goesOn.frames(30));
    Sender("127.0.0.1", second).send(StreamBuilder().frames(30));
    EXPECT_EQ(worker.next(RESULTS_MSG).text,
              "Encoder 2: Error: Invalid Duration 00:00:02:27 for rate_code 3 and drop frame 0.");
    sender.send(goesOn.frames(90));
    EXPECT_EQ(worker.wait(), 1) << "not all that was asked for";
    EXPECT_EQ(worker.results(),
              "Encoder 2: Error: Invalid Duration 00:00:02:27 for rate_code 3 and drop frame 0.; "
              "Encoder 1: Recorded 00:00:02;27 (87 frames, 0.1 MB), 0 continuity errors");
    EXPECT_EQ(pictures(readPackets(worker.path("out/news.ts"))), 87);
    EXPECT_FALSE(std::filesystem::exists(worker.path("out/news_2.ts")));
}

} // namespace
