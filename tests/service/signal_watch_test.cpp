// Signals, brought out of signal context.
#include "service/SignalWatch.h"

#include "foundation/Mutex.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <future>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <mutex>
#include <optional>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

using kestrel::SignalWatch;
using testing::ElementsAre;
using testing::UnorderedElementsAre;

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

void sendTo(pid_t process, int signal) {
    EXPECT_EQ(kill(process, signal), 0);
}

// In this thread, whether its signals are blocked or not; the handler has run when this returns.
void interruptThisThread(int signal) {
    sigset_t one;
    sigset_t before;
    sigemptyset(&one);
    sigaddset(&one, signal);
    pthread_sigmask(SIG_UNBLOCK, &one, &before);
    raise(signal);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

bool blocked(int signal) {
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    return sigismember(&mask, signal) == 1;
}

class SignalWatchTest : public testing::Test {
protected:
    std::function<void(int)> toReceived() {
        return [this](int signal) { received.add(signal); };
    }

    Received received;
};

TEST_F(SignalWatchTest, HandsASignalToAThreadOfItsOwn) {
    const SignalWatch watch({SIGUSR1}, [this](int signal) {
        EXPECT_TRUE(blocked(SIGUSR1)) << "a flood would keep this from its end";
        received.add(signal);
    });
    sendTo(getpid(), SIGUSR1);
    EXPECT_THAT(received.waitFor(1), ElementsAre(SIGUSR1));
    EXPECT_NE(received.thread(), std::this_thread::get_id());
}

TEST_F(SignalWatchTest, EachSignalIsHandedOver) {
    const SignalWatch watch({SIGUSR1, SIGUSR2, SIGHUP, SIGINT, SIGTERM}, toReceived());
    for (const int signal : {SIGTERM, SIGUSR1, SIGINT, SIGHUP, SIGUSR2})
        sendTo(getpid(), signal);
    EXPECT_THAT(received.waitFor(5), UnorderedElementsAre(SIGTERM, SIGUSR1, SIGINT, SIGHUP, SIGUSR2));
}

TEST_F(SignalWatchTest, ASignalThatComesAgainIsHandedOverAgain) {
    const SignalWatch watch({SIGUSR1}, toReceived());
    for (std::size_t i = 1; i <= 20; ++i) {
        sendTo(getpid(), SIGUSR1);
        EXPECT_EQ(received.waitFor(i).size(), i);
    }
}

TEST_F(SignalWatchTest, NeitherItsMakersThreadNorThoseItStartsAreInterrupted) {
    {
        const SignalWatch watch({SIGUSR1, SIGUSR2}, toReceived());
        EXPECT_TRUE(blocked(SIGUSR1));
        EXPECT_TRUE(blocked(SIGUSR2));
        EXPECT_FALSE(blocked(SIGTERM));
        std::thread([] { EXPECT_TRUE(blocked(SIGUSR1)); }).join();
    }
    EXPECT_FALSE(blocked(SIGUSR1));
    EXPECT_FALSE(blocked(SIGUSR2));
}

TEST_F(SignalWatchTest, AMaskFromBeforeIsLeftAsItWas) {
    sigset_t one;
    sigset_t before;
    sigemptyset(&one);
    sigaddset(&one, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &one, &before);
    {
        const SignalWatch watch({SIGUSR1}, toReceived());
        sendTo(getpid(), SIGUSR1);
        EXPECT_THAT(received.waitFor(1), ElementsAre(SIGUSR1));
    }
    EXPECT_TRUE(blocked(SIGUSR1));
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TEST_F(SignalWatchTest, AThreadFromBeforeMayTakeTheSignalToo) {
    const SignalWatch watch({SIGUSR1}, toReceived());
    interruptThisThread(SIGUSR1);
    EXPECT_THAT(received.waitFor(1), ElementsAre(SIGUSR1));
    EXPECT_NE(received.thread(), std::this_thread::get_id());
}

TEST_F(SignalWatchTest, TheFunctionMayTakeALockThatTheInterruptedThreadHolds) {
    Mutex mutex;
    const SignalWatch watch({SIGUSR1}, [&](int signal) {
        MutexLock lock(mutex);
        received.add(signal);
    });
    {
        MutexLock lock(mutex);
        interruptThisThread(SIGUSR1);
    }
    EXPECT_THAT(received.waitFor(1), ElementsAre(SIGUSR1));
}

TEST_F(SignalWatchTest, TheInterruptedCodeKeepsItsErrno) {
    const SignalWatch watch({SIGUSR1}, toReceived());
    errno = ENOTTY;
    interruptThisThread(SIGUSR1);
    EXPECT_EQ(errno, ENOTTY);
    EXPECT_EQ(received.waitFor(1).size(), 1U);
}

TEST_F(SignalWatchTest, InterruptedCallsAreRestarted) {
    const SignalWatch watch({SIGUSR1}, toReceived());
    struct sigaction action {};
    ASSERT_EQ(sigaction(SIGUSR1, nullptr, &action), 0);
    EXPECT_NE(action.sa_flags & SA_RESTART, 0);
}

TEST_F(SignalWatchTest, ThatAChildWasStoppedIsASignalToo) {
    const SignalWatch watch({SIGCHLD}, toReceived());
    const pid_t child = fork();
    if (child == 0) {
        raise(SIGSTOP);
        _exit(0);
    }
    ASSERT_GT(child, 0);
    EXPECT_THAT(received.waitFor(1), ElementsAre(SIGCHLD));
    siginfo_t info{};
    EXPECT_EQ(waitid(P_PID, static_cast<id_t>(child), &info, WSTOPPED | WEXITED), 0);
    EXPECT_EQ(info.si_code, CLD_STOPPED);
    sendTo(child, SIGKILL);
    EXPECT_EQ(waitpid(child, nullptr, 0), child);
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
        sendTo(getpid(), SIGUSR1);
        sendTo(getpid(), SIGUSR2);
        EXPECT_THAT(received.waitFor(2), UnorderedElementsAre(SIGUSR1, SIGUSR2));
        EXPECT_EQ(outsideCalls, 0);
    }
    raise(SIGUSR1);
    raise(SIGUSR2);
    EXPECT_EQ(outsideCalls, 1);
    EXPECT_EQ(received.waitFor(2).size(), 2U) << "nothing more came";
    sigaction(SIGUSR1, &former, nullptr);
    sigaction(SIGUSR2, &formerSecond, nullptr);
}

// Such a handler has begun before the watch ends, and goes on behind its end.
TEST_F(SignalWatchTest, ASignalThatComesTooLateForAWatchIsNotTheNextOnes) {
    struct sigaction handler {};
    {
        const SignalWatch watch({SIGUSR1}, toReceived());
        ASSERT_EQ(sigaction(SIGUSR1, nullptr, &handler), 0);
    }
    handler.sa_handler(SIGUSR1);
    {
        const SignalWatch next({SIGUSR1, SIGUSR2}, toReceived());
        sendTo(getpid(), SIGUSR2);
        EXPECT_EQ(received.waitFor(1).size(), 1U);
    }
    EXPECT_THAT(received.waitFor(1), ElementsAre(SIGUSR2));
}

TEST_F(SignalWatchTest, ItsEndWaitsForTheSignalsThatCameBefore) {
    {
        const SignalWatch watch({SIGUSR1, SIGUSR2, SIGHUP}, [&](int signal) {
            std::this_thread::yield();
            received.add(signal);
        });
        for (const int signal : {SIGHUP, SIGUSR2, SIGUSR1})
            interruptThisThread(signal);
    }
    EXPECT_THAT(received.waitFor(3), UnorderedElementsAre(SIGUSR1, SIGUSR2, SIGHUP));
}

TEST_F(SignalWatchTest, OneMayFollowAnother) {
    for (std::size_t i = 1; i <= 20; ++i) {
        const SignalWatch watch({SIGUSR1}, toReceived());
        sendTo(getpid(), SIGUSR1);
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
    sendTo(getpid(), SIGUSR1);
    EXPECT_THAT(received.waitFor(1), ElementsAre(SIGUSR1));
}

TEST_F(SignalWatchTest, AFloodOfOneSignalHidesNoOther) {
    constexpr int FLOOD = 70'000; // far more than could be kept one by one
    std::mutex gate;
    std::unique_lock closed(gate);
    const SignalWatch watch({SIGUSR1, SIGTERM}, [&](int signal) {
        const std::lock_guard pass(gate);
        received.add(signal);
    });
    for (int i = 0; i < FLOOD; ++i)
        interruptThisThread(SIGUSR1);
    interruptThisThread(SIGTERM);
    closed.unlock();
    // The flood is one signal, or two where its first was being handed over already.
    std::vector<int> signals = received.waitFor(2);
    if (signals == std::vector{SIGUSR1, SIGUSR1})
        signals = received.waitFor(3);
    EXPECT_THAT(signals, testing::Contains(SIGTERM));
}

TEST_F(SignalWatchTest, AFloodDoesNotHoldUpTheEnd) {
    std::promise<void> gate;
    std::optional<SignalWatch> watch;
    watch.emplace(std::initializer_list<int>{SIGUSR1}, [&, open = gate.get_future().share()](int signal) {
        open.wait();
        received.add(signal);
    });
    for (int i = 0; i < 1'000; ++i)
        interruptThisThread(SIGUSR1);
    gate.set_value();
    watch.reset();
    EXPECT_THAT(received.waitFor(1).size(), testing::AllOf(testing::Ge(1U), testing::Le(2U)))
        << "the one that was being handed over, and one more";
}

} // namespace
