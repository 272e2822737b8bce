// The RTP sequence numbers of senders that lose, reorder, repeat and begin anew.
#include "capture/DatagramParser.h"

#include <gtest/gtest.h>
#include <vector>

using namespace kestrel::capture;

namespace {

struct Totals {
    long lost = 0;
    int late = 0;
    int restarts = 0;
};

// What a receiver counts.
Totals follow(RtpSequence& sequence, const std::vector<unsigned>& numbers, std::uint32_t source = 1) {
    Totals totals;
    for (const unsigned number : numbers) {
        const RtpSequence::Step step = sequence.next(static_cast<std::uint16_t>(number), source);
        totals.lost += static_cast<long>(step.lost) - (step.fillsGap ? 1 : 0);
        totals.late += step.late ? 1 : 0;
        totals.restarts += step.restarted ? 1 : 0;
    }
    return totals;
}

std::vector<unsigned> range(unsigned first, unsigned count) {
    std::vector<unsigned> numbers;
    for (unsigned i = 0; i < count; ++i)
        numbers.push_back(first + i);
    return numbers;
}

TEST(RtpSequence, ARestartForwardsIsFoundAfterTwoDatagramsAndCountsNothing) {
    RtpSequence sequence;
    follow(sequence, range(100, 50));
    const Totals totals = follow(sequence, range(40000, 200));
    EXPECT_EQ(totals.lost, 0);
    EXPECT_EQ(totals.late, 0);
    EXPECT_EQ(totals.restarts, 1);
}

TEST(RtpSequence, ARestartBackwardsIsFoundAfterTwoDatagramsAndCountsNothing) {
    RtpSequence sequence;
    follow(sequence, range(40000, 50));
    const Totals totals = follow(sequence, range(100, 200));
    EXPECT_EQ(totals.lost, 0);
    EXPECT_EQ(totals.late, 0);
    EXPECT_EQ(totals.restarts, 1);
    EXPECT_EQ(follow(sequence, {303}).lost, 3) << "gaps count again";
}

TEST(RtpSequence, ASingleStrayDatagramChangesNothing) {
    RtpSequence sequence;
    follow(sequence, range(100, 50));
    const Totals totals = follow(sequence, {40000, 150, 151, 40001, 152});
    EXPECT_EQ(totals.lost, 0);
    EXPECT_EQ(totals.late, 0);
    EXPECT_EQ(totals.restarts, 0);
}

TEST(RtpSequence, ALateDatagramThatFillsAGapIsNotMissing) {
    RtpSequence sequence;
    follow(sequence, range(65530, 3));
    const Totals totals = follow(sequence, {65535, 65533, 65536, 65534});
    EXPECT_EQ(totals.late, 2);
    EXPECT_EQ(totals.lost, 0);
}

TEST(RtpSequence, ADuplicateIsLateButFillsNoGap) {
    RtpSequence sequence;
    follow(sequence, range(10, 5));
    // 15 is missing for good; 14, 16 and 12 come twice, and 9 was sent before the first that came.
    const Totals totals = follow(sequence, {16, 16, 14, 12, 9, 17});
    EXPECT_EQ(totals.late, 4);
    EXPECT_EQ(totals.lost, 1);
    EXPECT_EQ(follow(sequence, {15, 15}).lost, -1) << "filled once";
}

TEST(RtpSequence, AGapUpToTheLargestCountsAndBeyondItTheSequenceBeginsAnew) {
    RtpSequence sequence;
    follow(sequence, {0});
    EXPECT_EQ(follow(sequence, {2999}).lost, 2998);
    const Totals totals = follow(sequence, {2999 + 3000, 2999 + 3001});
    EXPECT_EQ(totals.lost, 0);
    EXPECT_EQ(totals.restarts, 1);
}

TEST(RtpSequence, UpToAHundredBackIsLateAndFurtherBackIsNot) {
    RtpSequence sequence;
    follow(sequence, {0, 200});
    Totals totals = follow(sequence, {100});
    EXPECT_EQ(totals.late, 1);
    EXPECT_EQ(totals.lost, -1);
    totals = follow(sequence, {99});
    EXPECT_EQ(totals.late, 0) << "a candidate for a restart";
    EXPECT_EQ(totals.lost, 0);
}

TEST(RtpSequence, ANewSourceForgetsTheGapsOfTheOld) {
    RtpSequence sequence;
    follow(sequence, {10, 14});
    EXPECT_EQ(follow(sequence, {14}, 2).lost, 0);
    const Totals totals = follow(sequence, {12}, 2);
    EXPECT_EQ(totals.late, 1);
    EXPECT_EQ(totals.lost, 0);
}

} // namespace
