// The loggers that lines are handed to, and the life of the logging object.
#include "foundation/ScratchDir.h"
#include "foundation/logger_fixture.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <sys/resource.h>
#include <thread>
#include <vector>

namespace {

using testing::ElementsAre;
using testing::EndsWith;

// Logs before the static initialisers of the library have run.
struct EarlyCall {
    bool hadInstance;
    bool written;
    bool filteredTrue;
    EarlyCall() {
        hadInstance = LogUtil::GetInstance() != nullptr;
        written = LogUtil::Fatal("Early", "too early");
        filteredTrue = LogUtil::Log("Early", BaseLogger::Debug, L"too early");
        LogUtil::Cleanup();
    }
};
EarlyCall earlyCall __attribute__((init_priority(101)));

class ThrowingLogger : public BaseLogger {
public:
    bool log(const wchar_t*) override { throw 1; }
    bool log(const char*) override { throw 1; }
};

TEST(LogBeforeStaticInitialisation, IsDroppedWithoutEffect) {
    EXPECT_FALSE(earlyCall.hadInstance);
    EXPECT_FALSE(earlyCall.written);
    EXPECT_FALSE(earlyCall.filteredTrue);
    EXPECT_NE(LogUtil::m_mutex, nullptr);
    LogUtil::Cleanup();
}

TEST_F(LoggerTest, EveryLoggerGetsTheLineInTheOrderAddedAlsoAfterAFailure) {
    std::vector<std::string> events;
    log->addLogger(new RecordingLogger("first", events));
    EXPECT_TRUE(LogUtil::Info("M", "x"));
    log->addLogger(new RecordingLogger("second", events, false));
    log->addLogger(new RecordingLogger("third", events));
    events.clear();
    EXPECT_FALSE(LogUtil::Info("M", "x"));
    EXPECT_THAT(events, ElementsAre("first narrow", "second narrow", "third narrow"));
    events.clear();
    EXPECT_FALSE(log->info("M", L"x"));
    EXPECT_THAT(events, ElementsAre("first wide", "second wide", "third wide"));
    events.clear();
    LogUtil::Cleanup();
    EXPECT_THAT(events, ElementsAre("first deleted", "second deleted", "third deleted"));
}

TEST_F(LoggerTest, LoggerThatThrowsCountsAsFailed) {
    std::vector<std::string> events;
    log->addLogger(new ThrowingLogger);
    log->addLogger(new RecordingLogger("next", events));
    EXPECT_FALSE(LogUtil::Info("M", "x"));
    EXPECT_FALSE(LogUtil::Info("M", L"x"));
    EXPECT_THAT(events, ElementsAre("next narrow", "next wide"));
    LogUtil::Cleanup();
}

TEST_F(LoggerTest, AddingReturnsWhetherTheTargetIsOpenAndAddsInAnyCase) {
    const ScratchDir dir;
    EXPECT_TRUE(log->addFileLogger(dir.path("log/a.log").c_str()));
    EXPECT_TRUE(log->addFileLogger((L"" + std::filesystem::path(dir.path("wide/a.log")).wstring()).c_str()));
    EXPECT_TRUE(log->addNetLogger("127.0.0.1", 9));
    EXPECT_TRUE(LogUtil::Info("M", "all four written"));
    EXPECT_FALSE(log->addStreamLogger(nullptr));
    EXPECT_FALSE(LogUtil::Info("M", "the inactive stream logger is asked too"));
    log->addLogger(nullptr);

    std::string narrowFile;
    std::string wideFile;
    for (const auto& entry : std::filesystem::directory_iterator(dir.path("log")))
        narrowFile += contentOf(entry.path());
    for (const auto& entry : std::filesystem::directory_iterator(dir.path("wide")))
        wideFile += contentOf(entry.path());
    EXPECT_EQ(narrowFile, takeOutput());
    EXPECT_EQ(wideFile, narrowFile);
}

TEST_F(LoggerTest, FileLoggerThatCannotOpenIsAddedAndFails) {
    EXPECT_FALSE(log->addFileLogger("/proc/kestrel-cannot-be-made/x.log"));
    EXPECT_FALSE(LogUtil::Info("M", "x"));
    EXPECT_THAT(takeOutput(), EndsWith("[M:Info] x\r\n"));
}

TEST_F(LoggerTest, ObjectAfterCleanupIsNew) {
    log->setDefaultLogLevel(BaseLogger::Fatal);
    log->setLogLevel("M", BaseLogger::Fatal);
    log->setShowTimestamp(false);
    LogUtil::Cleanup();
    {
        MutexLock lock(*LogUtil::m_mutex);
        EXPECT_EQ(LogUtil::m_instance, nullptr);
    }
    // A static call makes the object again, without any logger to write to.
    EXPECT_TRUE(LogUtil::Debug("M", "to nobody"));
    {
        MutexLock lock(*LogUtil::m_mutex);
        EXPECT_NE(LogUtil::m_instance, nullptr);
    }
    EXPECT_EQ(takeOutput(), "");
    LogUtil* fresh = LogUtil::GetInstance();
    EXPECT_EQ(fresh, LogUtil::GetInstance());
    EXPECT_EQ(fresh->getLogLevel("M"), -1);
    EXPECT_TRUE(fresh->m_showTimestamp && fresh->m_showModuleName && fresh->m_showLogLevel &&
                fresh->m_endWithCrLf);
    LogUtil::Cleanup();
    LogUtil::Cleanup();
}

TEST_F(LoggerTest, CallsKeepErrnoAndCanPrintIt) {
    log->setShowTimestamp(false);
    log->addFileLogger("/proc/kestrel-cannot-be-made/x.log");
    // Not a literal: the compiler knows "%m" only as an extension.
    const std::string format = "%d %m";
    errno = EXDEV;
    LogUtil::Error("M", format.c_str(), 1);
    EXPECT_EQ(errno, EXDEV);
    log->error("M", format.c_str(), 2);
    EXPECT_EQ(errno, EXDEV);
    const std::string text = std::strerror(EXDEV);
    EXPECT_EQ(takeOutput(), "[M:Error] 1 " + text + "\r\n[M:Error] 2 " + text + "\r\n");
    errno = EXDEV;
    LogUtil::Cleanup();
    LogUtil::Info("M", "makes the object");
    EXPECT_EQ(errno, EXDEV);
}

TEST_F(LoggerTest, CleanupMayRunWhileOthersLog) {
    std::atomic<bool> stop{false};
    std::atomic<long> calls{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&] {
            while (!stop) {
                LogUtil::Info("T", "%d", 1);
                LogUtil::Log("T", BaseLogger::Error, L"%d", 2);
                ++calls;
            }
        });
    }
    std::vector<std::string> events;
    for (int round = 0; round < 100 || calls < 100; ++round) {
        LogUtil::GetInstance()->addLogger(new RecordingLogger("logger", events));
        if (round % 2 == 0)
            LogUtil::GetInstance()->setDefaultLogLevel(BaseLogger::Error);
        std::this_thread::yield();
        LogUtil::Cleanup();
        // Nobody writes to a logger once Cleanup has returned.
        ASSERT_FALSE(events.empty());
        EXPECT_EQ(events.back(), "logger deleted");
    }
    stop = true;
    for (std::thread& thread : threads)
        thread.join();
}

TEST(LoggerAtExit, LoggingAfterCleanupInAnExitHandlerIsSafe) {
    EXPECT_EXIT(
        {
            std::atexit([] {
                LogUtil::Info("M", "late");
                LogUtil::Cleanup();
                LogUtil::Info("M", "later");
                std::fputs("handled", stderr);
            });
            LogUtil::GetInstance()->addStreamLogger(nullptr);
            LogUtil::Cleanup();
            std::exit(0);
        },
        testing::ExitedWithCode(0), "handled");
}

TEST(StreamLogger, WritesTheBytesOfTheLine) {
    std::ostringstream out;
    StreamLogger logger(&out);
    EXPECT_TRUE(logger.isActive());
    EXPECT_TRUE(logger.log("narrow\r\n"));
    EXPECT_TRUE(logger.log(L"wide\r\n"));
    EXPECT_EQ(out.str(), "narrow\r\nwide\r\n");
}

TEST(StreamLogger, WithoutStreamIsInactive) {
    StreamLogger logger(nullptr);
    EXPECT_FALSE(logger.isActive());
    EXPECT_FALSE(logger.log("x"));
    EXPECT_FALSE(logger.log(L"x"));
}

TEST(StreamLogger, FailedStreamIsReported) {
    std::ostringstream out;
    out.setstate(std::ios::badbit);
    StreamLogger logger(&out);
    EXPECT_FALSE(logger.log("x"));
}

// A file on a disk that is full for a while.
TEST(StreamLogger, WritesOnAfterALineThatFailed) {
    const ScratchDir directory;
    const std::string path = directory.path("worker.log");
    std::ofstream out(path);
    out << std::unitbuf;
    StreamLogger logger(&out);
    EXPECT_TRUE(logger.log("before\r\n"));
    rlimit usual{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &usual), 0);
    {
        const auto ignored = std::signal(SIGXFSZ, SIG_IGN);
        const rlimit full{8, usual.rlim_max};
        ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &full), 0);
        const bool written = logger.log("lost\r\n");
        EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &usual), 0);
        std::signal(SIGXFSZ, ignored);
        EXPECT_FALSE(written);
    }
    EXPECT_TRUE(logger.log("after\r\n"));
    std::ifstream in(path);
    std::string all(std::istreambuf_iterator<char>(in), {});
    EXPECT_THAT(all, testing::StartsWith("before\r\n"));
    EXPECT_THAT(all, testing::EndsWith("after\r\n"));
}

} // namespace
