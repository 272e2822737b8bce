// Signals, brought out of signal context.
#include "service/SignalWatch.h"

#include "foundation/Mutex.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <mutex>
#include <optional>
#include <thread>
#include <unistd.h>
#include <vector>

using kestrel::SignalWatch;
using testing::ElementsAre;

namespace {

// What the watch handed over, in order.
class Received {
public:
    void add(int signal) {
        const std::lock_guard lock(m_mutex);
        m_signals.push_back(signal);
        m_thread = std::this_thread::get_id();
        m_changed.notify_all();
    }
    // The signals, once there are that many; waits for them.
    std::vector<int> waitFor(std::size_t count) {
        std::unique_lock lock(m_mutex);
        m_changed.wait_for(lock, std::chrono::seconds(20), [&] { return m_signals.size() >= count; });
        return m_signals;
    }
    std::thread::id thread() {
        const std::lock_guard lock(m_mutex);
        return m_thread;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<int> m_signals;
    std::thread::id m_thread;
};

std::atomic<int> outsideCalls{0};
void outside(int) {
    ++outsideCalls;
}

class SignalWatchTest : public testing::Test {
protected:
    std::function<void(int)> toReceived() {
        return [this](int signal) { received.add(signal); };
    }

    Received received;
};

TEST_F(SignalWatchTest, HandsASignalToAThreadOfItsOwn) {
    const SignalWatch watch({SIGUSR1}, toReceived());
    raise(SIGUSR1);
    EXPECT_THAT(received.waitFor(1), ElementsAre(SIGUSR1));
    EXPECT_NE(received.thread(), std::this_thread::get_id());
}

TEST_F(SignalWatchTest, EachSignalIsHandedOverInOrder) {
    const SignalWatch watch({SIGUSR1, SIGUSR2, SIGHUP, SIGINT, SIGTERM}, toReceived());
    for (const int signal : {SIGTERM, SIGUSR1, SIGINT, SIGUSR1, SIGHUP, SIGUSR2})
        raise(signal);
    EXPECT_THAT(received.waitFor(6), ElementsAre(SIGTERM, SIGUSR1, SIGINT, SIGUSR1, SIGHUP, SIGUSR2));
}

TEST_F(SignalWatchTest, TheFunctionMayTakeALockThatTheInterruptedThreadHolds) {
    Mutex mutex;
    const SignalWatch watch({SIGUSR1}, [&](int signal) {
        MutexLock lock(mutex);
        received.add(signal);
    });
    {
        MutexLock lock(mutex);
        raise(SIGUSR1);
    }
    EXPECT_THAT(received.waitFor(1), ElementsAre(SIGUSR1));
}

TEST_F(SignalWatchTest, TheInterruptedCodeKeepsItsErrno) {
    const SignalWatch watch({SIGUSR1}, toReceived());
    errno = ENOTTY;
    raise(SIGUSR1);
    EXPECT_EQ(errno, ENOTTY);
    EXPECT_EQ(received.waitFor(1).size(), 1U);
}

TEST_F(SignalWatchTest, InterruptedCallsAreRestarted) {
    const SignalWatch watch({SIGUSR1}, toReceived());
    struct sigaction action {};
    ASSERT_EQ(sigaction(SIGUSR1, nullptr, &action), 0);
    EXPECT_NE(action.sa_flags & SA_RESTART, 0);
}

TEST_F(SignalWatchTest, ItsEndRestoresTheFormerDispositions) {
    struct sigaction former {};
    struct sigaction mine {};
    mine.sa_handler = outside;
    ASSERT_EQ(sigaction(SIGUSR1, &mine, &former), 0);
    struct sigaction ignored {};
    ignored.sa_handler = SIG_IGN;
    struct sigaction formerSecond {};
    ASSERT_EQ(sigaction(SIGUSR2, &ignored, &formerSecond), 0);
    outsideCalls = 0;
    {
        const SignalWatch watch({SIGUSR1, SIGUSR2}, toReceived());
        raise(SIGUSR1);
        raise(SIGUSR2);
        EXPECT_THAT(received.waitFor(2), ElementsAre(SIGUSR1, SIGUSR2));
        EXPECT_EQ(outsideCalls, 0);
    }
    raise(SIGUSR1);
    raise(SIGUSR2);
    EXPECT_EQ(outsideCalls, 1);
    EXPECT_EQ(received.waitFor(2).size(), 2U) << "nothing more came";
    sigaction(SIGUSR1, &former, nullptr);
    sigaction(SIGUSR2, &formerSecond, nullptr);
}

TEST_F(SignalWatchTest, ItsEndWaitsForTheSignalsThatCameBefore) {
    std::atomic<int> done{0};
    {
        const SignalWatch watch({SIGUSR1}, [&](int) {
            std::this_thread::yield();
            ++done;
        });
        for (int i = 0; i < 10; ++i)
            raise(SIGUSR1);
    }
    EXPECT_EQ(done, 10);
}

TEST_F(SignalWatchTest, OneMayFollowAnother) {
    for (std::size_t i = 1; i <= 20; ++i) {
        const SignalWatch watch({SIGUSR1}, toReceived());
        raise(SIGUSR1);
        EXPECT_EQ(received.waitFor(i).size(), i);
    }
}

TEST_F(SignalWatchTest, WithoutASignalItJustEnds) {
    { const SignalWatch watch({SIGUSR1}, toReceived()); }
    { const SignalWatch none({}, toReceived()); }
    EXPECT_TRUE(received.waitFor(0).empty());
}

TEST_F(SignalWatchTest, SignalsThatCannotBeCaughtAreLeftOut) {
    const SignalWatch watch({SIGKILL, SIGUSR1}, toReceived());
    raise(SIGUSR1);
    EXPECT_THAT(received.waitFor(1), ElementsAre(SIGUSR1));
}

TEST_F(SignalWatchTest, AFloodNeitherBlocksTheProcessNorTheEnd) {
    constexpr int FLOOD = 70'000; // more than a pipe holds
    std::mutex gate;
    std::atomic<int> handled{0};
    std::optional<SignalWatch> watch;
    std::unique_lock closed(gate);
    watch.emplace(std::initializer_list<int>{SIGUSR1}, [&](int) {
        const std::lock_guard pass(gate);
        ++handled;
    });
    for (int i = 0; i < FLOOD; ++i)
        raise(SIGUSR1);
    // The end is asked for while the pipe is still full.
    std::thread end([&] { watch.reset(); });
    struct sigaction action {};
    do {
        std::this_thread::yield();
        sigaction(SIGUSR1, nullptr, &action);
    } while (action.sa_handler != SIG_DFL);
    std::this_thread::sleep_for(std::chrono::milliseconds(20)); // sharpens the test, decides nothing
    closed.unlock();
    end.join();
    EXPECT_GT(handled, 1'000);
    EXPECT_LE(handled, FLOOD);
}

} // namespace
