// The same of rolling captures.
#include "capture/worker_process.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace capture_test;

namespace {

constexpr const char* ready = "receive buffer";

TEST(RollingCapture, RollingSegmentsJoinWithoutLoss) {
    Worker worker;
    worker.settings.cmd.jobType = CSettings::JOB_ROLLING;
    worker.settings.cmd.rollingDurationMin = 1;
    worker.settings.cmd.rollingStartNow = true;
    const int port = worker.addEncoder();
    worker.start();
    worker.waitForLog(ready);
    const Packets sent = StreamBuilder({.packetsPerFrame = 6}).frames(25 * 130);
    Sender("127.0.0.1", port).send(sent, 20e6);
    worker.queues.send(CANCEL_MSG);
    EXPECT_EQ(worker.wait(), 0) << worker.log();
    std::vector<Packets> segments;
    for (const std::string& name : filesIn(worker.path("out"))) {
        const Packets file = readPackets(name);
        EXPECT_EQ(continuityErrors(file), 0);
        segments.emplace_back(file.begin() + 2, file.end());
    }
    ASSERT_EQ(segments.size(), 3u);
    // Segments of one second on the wall share a name but for a number, so their order is that of the stream.
    std::sort(segments.begin(), segments.end(),
              [&](const Packets& a, const Packets& b) { return positionOf(a, sent) < positionOf(b, sent); });
    Packets joined;
    for (const Packets& segment : segments)
        joined.insert(joined.end(), segment.begin(), segment.end());
    EXPECT_EQ(joined.size() + 2, sent.size());
    EXPECT_EQ(positionOf(joined, sent), 2);
}

} // namespace
