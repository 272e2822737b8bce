// Events between threads.
#include "foundation/EventWrapper.h"
#include "foundation/WaitUntilAsleep.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr int longMs = 30000;

// An event that is cleaned up with the test.
struct Event {
    Event() { EventWrapper::InitEvent(event); }
    ~Event() { EventWrapper::CleanupEvent(event); }
    Event(const Event&) = delete;
    Event& operator=(const Event&) = delete;

    void signal() { EventWrapper::SignalEvent(event); }
    int wait(int timeoutMs) { return EventWrapper::WaitForEventSignal(event, timeoutMs, false); }

    sem_t* event = nullptr;
};

int waitForAny(std::vector<sem_t*> events, int timeoutMs, int* index = nullptr) {
    return EventWrapper::WaitForMultipleEventSignals(static_cast<int>(events.size()), events.data(), false,
                                                     timeoutMs, false, index);
}

int waitForAll(std::vector<sem_t*> events, int timeoutMs, int* index = nullptr) {
    return EventWrapper::WaitForMultipleEventSignals(static_cast<int>(events.size()), events.data(), true,
                                                     timeoutMs, false, index);
}

TEST(EventInit, EventIsInitialisedUntilCleanedUp) {
    sem_t* event = reinterpret_cast<sem_t*>(1);
    EventWrapper::InitEventToZero(event);
    EXPECT_EQ(event, nullptr);
    EXPECT_FALSE(EventWrapper::IsInitialized(event));
    EventWrapper::InitEvent(event);
    EXPECT_TRUE(EventWrapper::IsInitialized(event));
    int count = -1;
    sem_getvalue(event, &count);
    EXPECT_EQ(count, 0);
    EventWrapper::CleanupEvent(event);
    EXPECT_EQ(event, nullptr);
}

TEST(EventInit, NothingHappensWithoutAnEvent) {
    sem_t* event = nullptr;
    EventWrapper::SignalEvent(event);
    EventWrapper::ResetEvent(event);
    EventWrapper::CleanupEvent(event);
    EXPECT_EQ(event, nullptr);
}

TEST(EventWait, NullEventIsNotInitialised) {
    sem_t* event = nullptr;
    EXPECT_EQ(EventWrapper::WaitForEventSignal(event, 0, false), 4);
    EXPECT_EQ(EventWrapper::WaitForEventSignal(event, -1, false), 4);
    Event other;
    other.signal();
    EXPECT_EQ(waitForAny({other.event, nullptr}, -1), 4);
    EXPECT_EQ(EventWrapper::WaitForMultipleEventSignals(1, nullptr, false, -1, false, nullptr), 4);
    EXPECT_EQ(other.wait(0), 0) << "no signal was taken";
}

TEST(EventWait, EachSignalLetsOneWaitThrough) {
    Event event;
    event.signal();
    event.signal();
    EXPECT_EQ(event.wait(longMs), 0);
    EXPECT_EQ(event.wait(longMs), 0);
    EXPECT_EQ(event.wait(1), 1);
}

TEST(EventWait, ResetTakesAllSignalsAway) {
    Event event;
    event.signal();
    event.signal();
    event.signal();
    EventWrapper::ResetEvent(event.event);
    EXPECT_EQ(event.wait(1), 1);
    EventWrapper::ResetEvent(event.event);
    event.signal();
    EXPECT_EQ(event.wait(-1), 0);
}

TEST(EventWait, TimeoutTakesItsMilliseconds) {
    Event event;
    for (const int timeoutMs : {0, 20, 1010}) {
        const auto start = Clock::now();
        EXPECT_EQ(event.wait(timeoutMs), 1);
        EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(timeoutMs));
    }
}

TEST(EventWait, SignalOfAnotherThreadEndsTheWaitAndPublishesItsData) {
    for (const int timeoutMs : {-1, longMs}) {
        Event event;
        int data = 0;
        std::thread sender([&] {
            data = 42;
            event.signal();
        });
        EXPECT_EQ(event.wait(timeoutMs), 0);
        EXPECT_EQ(data, 42);
        sender.join();
    }
}

// Interrupts a wait of another thread with a signal.
class InterruptedWait : public testing::TestWithParam<int> {
protected:
    void SetUp() override {
        struct sigaction action {};
        action.sa_handler = [](int) {};
        sigaction(SIGUSR2, &action, &m_before);
    }
    void TearDown() override { sigaction(SIGUSR2, &m_before, nullptr); }

private:
    struct sigaction m_before {};
};

TEST_P(InterruptedWait, ReturnsWhenAskedTo) {
    Event event;
    std::atomic<bool> done{false};
    int result = -1;
    std::thread waiter([&] {
        result = EventWrapper::WaitForEventSignal(event.event, GetParam(), true);
        done = true;
    });
    // Until it has an effect: the first signals may come before the wait has begun.
    while (!done) {
        pthread_kill(waiter.native_handle(), SIGUSR2);
        std::this_thread::sleep_for(1ms);
    }
    waiter.join();
    EXPECT_EQ(result, 3);
}

TEST_P(InterruptedWait, GoesOnOtherwise) {
    Event event;
    std::atomic<pid_t> id{0};
    int result = -1;
    std::thread waiter([&] {
        id = gettid();
        result = EventWrapper::WaitForEventSignal(event.event, GetParam(), false);
    });
    for (int i = 0; i < 3; ++i) {
        waitUntilAsleep(id);
        pthread_kill(waiter.native_handle(), SIGUSR2);
    }
    waitUntilAsleep(id);
    event.signal();
    waiter.join();
    EXPECT_EQ(result, 0);
}

INSTANTIATE_TEST_SUITE_P(Timeouts, InterruptedWait, testing::Values(-1, longMs));

TEST(EventErrors, AreMapped) {
    EXPECT_EQ(EventWrapper::mapError(ETIMEDOUT), 1);
    EXPECT_EQ(EventWrapper::mapError(EINVAL), 2);
    EXPECT_EQ(EventWrapper::mapError(EINTR), 3);
    EXPECT_EQ(EventWrapper::mapError(EAGAIN), 5);
    EXPECT_EQ(EventWrapper::mapError(0), 5);
}

TEST(MultipleEvents, AnyReturnsTheLowestIndexSignalled) {
    Event first;
    Event second;
    int index = -1;
    second.signal();
    EXPECT_EQ(waitForAny({first.event, second.event}, longMs, &index), 0);
    EXPECT_EQ(index, 1);
    first.signal();
    second.signal();
    EXPECT_EQ(waitForAny({first.event, second.event}, -1, &index), 0);
    EXPECT_EQ(index, 0);
    // Only the one reported was taken.
    EXPECT_EQ(waitForAny({first.event, second.event}, -1, &index), 0);
    EXPECT_EQ(index, 1);
    EXPECT_EQ(waitForAny({first.event, second.event}, 1, &index), 1);
}

TEST(MultipleEvents, AllNeedsOneSignalOfEach) {
    Event first;
    Event second;
    int index = -1;
    first.signal();
    first.signal();
    EXPECT_EQ(waitForAll({first.event, second.event}, 5, &index), 1);
    EXPECT_EQ(index, 0);
    // The signal taken before the timeout is gone, as always.
    second.signal();
    EXPECT_EQ(waitForAll({first.event, second.event}, longMs, &index), 0);
    EXPECT_EQ(index, 1);
    EXPECT_EQ(first.wait(0), 1);
}

TEST(MultipleEvents, IndexIsOptional) {
    Event event;
    event.signal();
    EXPECT_EQ(waitForAny({event.event}, -1, nullptr), 0);
}

TEST(MultipleEvents, TimeoutTakesItsMilliseconds) {
    Event first;
    Event second;
    for (const int timeoutMs : {0, 1, 50}) {
        const auto start = Clock::now();
        EXPECT_EQ(waitForAny({first.event, second.event}, timeoutMs), 1);
        EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(timeoutMs));
    }
}

TEST(MultipleEvents, NoEventsAreAllSignalledAndNoneOfThemIs) {
    EXPECT_EQ(waitForAll({}, -1), 0);
    EXPECT_EQ(waitForAny({}, 5), 1);
}

// How long a sleeping wait for several events takes to see a signal of another thread.
Clock::duration timeToWake(int timeoutMs) {
    Event first;
    Event second;
    int data = 0;
    int seen = 0;
    int index = -1;
    std::atomic<pid_t> id{0};
    std::thread waiter([&] {
        id = gettid();
        EXPECT_EQ(waitForAny({first.event, second.event}, timeoutMs, &index), 0);
        seen = data;
    });
    waitUntilAsleep(id);
    data = 42;
    const auto start = Clock::now();
    second.signal();
    waiter.join();
    const auto taken = Clock::now() - start;
    EXPECT_EQ(index, 1);
    EXPECT_EQ(seen, 42);
    return taken;
}

TEST(MultipleEvents, SignalWakesASleepingWaitAtOnce) {
    for (const int timeoutMs : {-1, longMs}) {
        // Below the five seconds after which the wait looks at the events by itself, each time. A busy
        // machine may be as slow now and then, hence several tries.
        bool prompt = false;
        for (int i = 0; i < 6 && !prompt; ++i)
            prompt = timeToWake(timeoutMs) < 3s;
        EXPECT_TRUE(prompt) << timeoutMs;
    }
}

TEST(MultipleEvents, WaitWithoutTimeoutSleeps) {
    Event event;
    std::atomic<pid_t> id{0};
    long switches = -1;
    std::thread waiter([&] {
        id = gettid();
        rusage before{};
        rusage after{};
        getrusage(RUSAGE_THREAD, &before);
        waitForAny({event.event}, -1);
        getrusage(RUSAGE_THREAD, &after);
        switches = after.ru_nvcsw - before.ru_nvcsw;
    });
    waitUntilAsleep(id);
    std::this_thread::sleep_for(300ms);
    event.signal();
    waiter.join();
    // A wait that looked every millisecond would have some hundreds.
    EXPECT_LE(switches, 20);
}

TEST(MultipleEvents, BarePostIsNoticedAfterAWhile) {
    Event event;
    std::atomic<pid_t> id{0};
    std::thread waiter([&] {
        id = gettid();
        EXPECT_EQ(waitForAny({event.event}, -1), 0);
    });
    waitUntilAsleep(id);
    sem_post(event.event);
    waiter.join();
}

sem_t* handlerEvent = nullptr;

TEST(MultipleEvents, SignalHandlerMaySignal) {
    Event event;
    handlerEvent = event.event;
    struct sigaction action {};
    struct sigaction before {};
    action.sa_handler = [](int) { EventWrapper::SignalEvent(handlerEvent); };
    sigaction(SIGUSR2, &action, &before);
    std::atomic<pid_t> id{0};
    std::thread waiter([&] {
        id = gettid();
        EXPECT_EQ(waitForAny({event.event}, -1), 0);
    });
    // The handler runs on the very thread that waits.
    waitUntilAsleep(id);
    pthread_kill(waiter.native_handle(), SIGUSR2);
    waiter.join();
    sigaction(SIGUSR2, &before, nullptr);
    handlerEvent = nullptr;
}

TEST(MultipleEvents, NoSignalIsLostBetweenManyThreads) {
    constexpr int signals = 2000;
    Event first;
    Event second;
    std::thread sender([&] {
        for (int i = 0; i < signals; ++i)
            (i % 2 == 0 ? first : second).signal();
    });
    std::vector<std::thread> waiters;
    for (int t = 0; t < 2; ++t) {
        waiters.emplace_back([&] {
            for (int i = 0; i < signals / 2; ++i)
                EXPECT_EQ(waitForAny({first.event, second.event}, longMs), 0);
        });
    }
    sender.join();
    for (std::thread& waiter : waiters)
        waiter.join();
    EXPECT_EQ(waitForAny({first.event, second.event}, 0), 1);
}

} // namespace
