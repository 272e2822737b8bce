// Thread and mutex wrappers, and the Mutex class.
#include "foundation/PosixWrappers.h"

#include "foundation/Logger.h"
#include "foundation/Mutex.h"
#include "foundation/ScratchDir.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <gtest/gtest.h>
#include <semaphore.h>
#include <string>
#include <thread>
#include <vector>

namespace {

// Opens the C-level file log, into which the wrappers write their failures.
class PosixWrappersTest : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(initFileLogger(path.c_str()), 1); }
    void TearDown() override { shutdownFileLogger(); }
    [[nodiscard]] std::string logged() const { return contentOf(path); }

    ScratchDir dir;
    std::string path = dir.path("wrappers.log");
};

TEST_F(PosixWrappersTest, ThreadRunsAndItsResultIsJoined) {
    int value = 20;
    pthread_t thread{};
    const auto body = [](void* argument) -> void* {
        ++*static_cast<int*>(argument);
        return argument;
    };
    ASSERT_EQ(createPosixThread(&thread, body, &value), 0);
    void* result = nullptr;
    EXPECT_EQ(joinPosixThread(thread, &result), 0);
    EXPECT_EQ(result, &value);
    EXPECT_EQ(value, 21);
    EXPECT_EQ(logged(), "");
}

TEST_F(PosixWrappersTest, ExitEndsTheThreadWithItsValue) {
    static int marker;
    pthread_t thread{};
    ASSERT_EQ(createPosixThread(
                  &thread, [](void*) -> void* { exitPosixThread(&marker); }, nullptr),
              0);
    void* result = nullptr;
    EXPECT_EQ(joinPosixThread(thread, &result), 0);
    EXPECT_EQ(result, &marker);
}

// Gives new threads a default stack that no address space has room for.
class HugeDefaultStack {
public:
    HugeDefaultStack() {
        EXPECT_EQ(pthread_getattr_default_np(&m_before), 0);
        pthread_attr_t huge;
        EXPECT_EQ(pthread_getattr_default_np(&huge), 0);
        EXPECT_EQ(pthread_attr_setstacksize(&huge, std::size_t{1} << 48), 0);
        EXPECT_EQ(pthread_setattr_default_np(&huge), 0);
        pthread_attr_destroy(&huge);
    }
    ~HugeDefaultStack() {
        pthread_setattr_default_np(&m_before);
        pthread_attr_destroy(&m_before);
    }
    HugeDefaultStack(const HugeDefaultStack&) = delete;
    HugeDefaultStack& operator=(const HugeDefaultStack&) = delete;

private:
    pthread_attr_t m_before{};
};

TEST_F(PosixWrappersTest, ThreadThatCannotBeMadeIsAFailure) {
    const auto body = [](void* argument) -> void* { return argument; };
    pthread_t thread{};
    {
        const HugeDefaultStack stack;
        ASSERT_EQ(createPosixThread(&thread, body, nullptr), 1);
    }
    EXPECT_EQ(logged(), "Failed to create thread\n");
    ASSERT_EQ(createPosixThread(&thread, body, nullptr), 0);
    EXPECT_EQ(joinPosixThread(thread, nullptr), 0);
}

#ifndef __SANITIZE_THREAD__ // which looks for the thread that was started with that id, and finds none
TEST_F(PosixWrappersTest, JoiningOneselfFails) {
    EXPECT_EQ(joinPosixThread(pthread_self(), nullptr), 1);
    EXPECT_EQ(logged(), "");
}
#endif

std::atomic<int> signalsHandled{0};

TEST_F(PosixWrappersTest, SignalReachesTheThread) {
    struct sigaction action {};
    struct sigaction before {};
    action.sa_handler = [](int) { ++signalsHandled; };
    sigaction(SIGUSR1, &action, &before);
    signalsHandled = 0;
    EXPECT_EQ(sendSignalToThread(pthread_self(), SIGUSR1), 0);
    EXPECT_EQ(signalsHandled, 1);
    EXPECT_EQ(sendSignalToThread(pthread_self(), 0), 0);
    EXPECT_EQ(sendSignalToThread(pthread_self(), 9999), 1);
    sigaction(SIGUSR1, &before, nullptr);
    EXPECT_EQ(logged(), "");
}

TEST_F(PosixWrappersTest, SettingTheStackSizeChecksItAndChangesNothing) {
    std::size_t before = 0;
    std::size_t after = 0;
    ASSERT_EQ(getPosixThreadStackSize(&before), 0);
    EXPECT_GT(before, 0U);
    EXPECT_EQ(setPosixThreadStackSize(before * 2), 0);
    ASSERT_EQ(getPosixThreadStackSize(&after), 0);
    EXPECT_EQ(after, before);
    EXPECT_EQ(logged(), "");
    EXPECT_EQ(setPosixThreadStackSize(1), 1);
    EXPECT_EQ(logged(), "Couldn't set thread stacksize\n");
}

TEST_F(PosixWrappersTest, StackSizeNeedsAPlaceToGo) {
    EXPECT_EQ(getPosixThreadStackSize(nullptr), 1);
    EXPECT_EQ(logged(), "Couldn't get thread stacksize\n");
}

TEST_F(PosixWrappersTest, MutexExcludesUntilUnlocked) {
    pthread_mutex_t mutex;
    ASSERT_EQ(initPosixMutex(&mutex), 0);
    EXPECT_EQ(lockPosixMutex(&mutex), 0);
    int fromOther = -1;
    std::thread([&] { fromOther = trylockPosixMutex(&mutex); }).join();
    EXPECT_EQ(fromOther, 1);
    EXPECT_EQ(unlockPosixMutex(&mutex), 0);
    EXPECT_EQ(trylockPosixMutex(&mutex), 0);
    EXPECT_EQ(unlockPosixMutex(&mutex), 0);
    EXPECT_EQ(destroyPosixMutex(&mutex), 0);
    EXPECT_EQ(logged(), "");
}

#ifndef __SANITIZE_THREAD__
TEST_F(PosixWrappersTest, DestroyingALockedMutexFails) {
    pthread_mutex_t mutex;
    ASSERT_EQ(initPosixMutex(&mutex), 0);
    ASSERT_EQ(lockPosixMutex(&mutex), 0);
    EXPECT_EQ(destroyPosixMutex(&mutex), 1);
    EXPECT_EQ(logged(), "Mutex destroy failed\n");
    EXPECT_EQ(unlockPosixMutex(&mutex), 0);
    EXPECT_EQ(destroyPosixMutex(&mutex), 0);
}

TEST_F(PosixWrappersTest, UnlockingAnErrorCheckedMutexOfNobodyFails) {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
    pthread_mutex_t mutex;
    pthread_mutex_init(&mutex, &attributes);
    EXPECT_EQ(unlockPosixMutex(&mutex), 1);
    EXPECT_EQ(lockPosixMutex(&mutex), 0);
    EXPECT_EQ(lockPosixMutex(&mutex), 1);
    EXPECT_EQ(unlockPosixMutex(&mutex), 0);
    pthread_mutex_destroy(&mutex);
    pthread_mutexattr_destroy(&attributes);
}
#endif

TEST(Mutex, GuardsACounterOfSeveralThreads) {
    Mutex mutex;
    long counter = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 1000; ++i) {
                MutexLock lock(mutex);
                ++counter;
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(counter, 4000);
}

} // namespace
