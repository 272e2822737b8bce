// Whose turn it is at a report.
#include "service/ReportLocks.h"

#include <atomic>
#include <future>
#include <gtest/gtest.h>
#include <optional>
#include <thread>
#include <vector>

using kestrel::ReportLocks;

namespace {

constexpr auto A_WHILE = std::chrono::milliseconds(100);

// Whether the path could be had, asked by a thread of its own.
std::future<bool> ask(ReportLocks& locks, const std::string& path) {
    return std::async(std::launch::async, [&locks, path] { return ReportLocks::Hold(locks, path).held(); });
}

TEST(ReportLocks, APathIsHeldByOneAtATime) {
    ReportLocks locks;
    std::optional<ReportLocks::Hold> first(std::in_place, locks, "/r/a");
    EXPECT_TRUE(first->held());
    auto second = ask(locks, "/r/a");
    EXPECT_EQ(second.wait_for(A_WHILE), std::future_status::timeout);
    first.reset();
    EXPECT_TRUE(second.get());
}

TEST(ReportLocks, AnotherPathIsFree) {
    ReportLocks locks;
    const ReportLocks::Hold first(locks, "/r/a");
    EXPECT_TRUE(ask(locks, "/r/b").get());
}

TEST(ReportLocks, ClosingEndsTheWaitingAndLetsNobodyBegin) {
    ReportLocks locks;
    std::optional<ReportLocks::Hold> first(std::in_place, locks, "/r/a");
    auto second = ask(locks, "/r/a");
    EXPECT_EQ(second.wait_for(A_WHILE), std::future_status::timeout);
    locks.close();
    EXPECT_FALSE(second.get());
    EXPECT_FALSE(ask(locks, "/r/b").get());
    EXPECT_TRUE(first->held());
    first.reset();
    locks.reopen();
    EXPECT_TRUE(ask(locks, "/r/a").get());
}

TEST(ReportLocks, OneThatWasRefusedGivesNothingBack) {
    ReportLocks locks;
    const ReportLocks::Hold first(locks, "/r/a");
    locks.close();
    EXPECT_FALSE(ask(locks, "/r/a").get());
    locks.reopen();
    auto third = ask(locks, "/r/a");
    EXPECT_EQ(third.wait_for(A_WHILE), std::future_status::timeout) << "the first still holds it";
    locks.close();
    EXPECT_FALSE(third.get());
}

TEST(ReportLocks, ManyThreadsNeverHoldOneAtOnce) {
    ReportLocks locks;
    std::atomic<int> inside{0};
    std::atomic<int> turns{0};
    {
        std::vector<std::jthread> threads;
        for (int t = 0; t < 4; ++t)
            threads.emplace_back([&] {
                for (int i = 0; i < 200; ++i) {
                    const ReportLocks::Hold hold(locks, "/r/a");
                    EXPECT_EQ(++inside, 1);
                    ++turns;
                    --inside;
                }
            });
    }
    EXPECT_EQ(turns, 800);
}

} // namespace
