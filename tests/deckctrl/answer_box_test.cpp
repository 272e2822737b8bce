#include "deckctrl/AnswerBox.h"
#include "deckctrl/Limits.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <thread>
#include <vector>

using kestrel::deck::AnswerBox;

namespace {

_VTRCmdData numbered(int number) {
    _VTRCmdData record{};
    record.shuttleSpeed = number;
    return record;
}

TEST(AnswerBox, GivesAnswersInTheirOrder) {
    AnswerBox box;
    EXPECT_FALSE(box.take());
    box.put(numbered(1));
    box.put(numbered(2));
    pollfd entry{box.fd(), POLLIN, 0};
    EXPECT_EQ(poll(&entry, 1, 0), 1);
    box.clear();
    EXPECT_EQ(poll(&entry, 1, 0), 0);
    EXPECT_EQ(box.take()->shuttleSpeed, 1);
    EXPECT_EQ(box.take()->shuttleSpeed, 2);
    EXPECT_FALSE(box.take());
}

TEST(AnswerBox, DropsTheOldestRatherThanGrowWithoutEnd) {
    AnswerBox box;
    const int most = static_cast<int>(kestrel::deck::waitingAnswers);
    for (int i = 0; i < most + 3; ++i)
        box.put(numbered(i));
    EXPECT_EQ(box.take()->shuttleSpeed, 3);
}

TEST(AnswerBox, IsFilledByManyThreads) {
    AnswerBox box;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&box] {
            for (int i = 0; i < 100; ++i)
                box.put(numbered(i));
        });
    int taken = 0;
    while (taken < 400) {
        pollfd entry{box.fd(), POLLIN, 0};
        ASSERT_EQ(poll(&entry, 1, 10'000), 1);
        box.clear();
        while (box.take())
            ++taken;
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_FALSE(box.take());
}

} // namespace
