// The status record that a worker sends once a second.
#include "capture/StatusMeter.h"

#include <chrono>
#include <gtest/gtest.h>

using namespace kestrel::capture;
using namespace std::chrono_literals;

namespace {

constexpr Clock::time_point start{1000s};

TEST(StatusMeter, TellsTheNumbersAndTheBitsASecondSinceTheRecordBefore) {
    StatusMeter meter;
    meter.start(start);
    const _CaptureJobStatusData first = meter.record(1, {50, 4, 3, 1000}, start + 2s);
    EXPECT_EQ(first.encoderIndex, 1);
    EXPECT_EQ(first.frames, 50U);
    EXPECT_EQ(first.frameRateCode, 4U);
    EXPECT_TRUE(first.dropFrame);
    EXPECT_EQ(first.statusNumber1, 3U);
    EXPECT_EQ(first.statusNumber2, 1000U);
    EXPECT_EQ(first.statusNumber3, 4000U);
    EXPECT_EQ(meter.record(1, {75, 4, 3, 3000}, start + 3s).statusNumber3, 16000U);
}

TEST(StatusMeter, HasTheCodeOf25WhileTheRateIsUnknown) {
    StatusMeter meter;
    const _CaptureJobStatusData record = meter.record(0, {}, start);
    EXPECT_EQ(record.frameRateCode, 3U);
    EXPECT_FALSE(record.dropFrame);
}

TEST(StatusMeter, HasNoRateWhereBytesWereTakenBackOrNoTimeWentBy) {
    StatusMeter meter;
    meter.start(start);
    EXPECT_EQ(meter.record(0, {0, 3, 0, 5000}, start).statusNumber3, 0U);
    EXPECT_EQ(meter.record(0, {0, 3, 0, 4000}, start + 1s).statusNumber3, 0U);
    EXPECT_EQ(meter.record(0, {0, 3, 0, 4500}, start + 2s).statusNumber3, 4000U);
}

TEST(StatusMeter, CountsErrorsUpToWhatTheRecordHolds) {
    EXPECT_EQ(StatusMeter().record(0, {0, 3, std::uint64_t{1} << 40, 0}, start).statusNumber1, UINT32_MAX);
}

} // namespace
