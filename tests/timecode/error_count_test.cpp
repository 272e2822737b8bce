// The count of logged errors when several threads ask at once.
#include "timecode_log.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <thread>
#include <vector>

TEST(FrameRatesDeathTest, FpsCeilCountsFiveAcrossThreads) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            TimecodeLog log;
            {
                std::vector<std::jthread> threads;
                for (int t = 0; t < 4; ++t)
                    threads.emplace_back([] {
                        for (int i = 0; i < 50; ++i)
                            mpeg_timecode::fps_ceil(0);
                    });
            }
            std::_Exit(log.errors().size() == 5 ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}
