#include "service/RestartPause.h"

#include <gtest/gtest.h>

using kestrel::RestartPause;
using namespace std::chrono_literals;

namespace {

TEST(RestartPause, DoublesFromASecondToAMinuteAndNoFurther) {
    RestartPause pause;
    for (const auto wanted : {1s, 2s, 4s, 8s, 16s, 32s, 60s, 60s, 60s})
        EXPECT_EQ(pause.after(0s), wanted);
}

TEST(RestartPause, GrowsAfterRunsOfUpToAMinute) {
    RestartPause pause;
    EXPECT_EQ(pause.after(59s), 1s);
    EXPECT_EQ(pause.after(60s), 2s);
    EXPECT_EQ(pause.after(0s), 4s);
}

TEST(RestartPause, BeginsAnewAfterALongerRun) {
    RestartPause pause;
    EXPECT_EQ(pause.after(1h), 1s) << "the first end counts, too";
    for (int i = 0; i < 10; ++i)
        static_cast<void>(pause.after(0s));
    EXPECT_EQ(pause.after(60s + 1ms), 1s);
    EXPECT_EQ(pause.after(0s), 2s) << "and grows again";
}

} // namespace
