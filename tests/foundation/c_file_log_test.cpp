// The C-level file log and the console print.
#include "foundation/Logger.h"

#include "foundation/ScratchDir.h"
#include "foundation/UniqueFd.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

namespace {

class CFileLogTest : public testing::Test {
protected:
    void TearDown() override { shutdownFileLogger(); }

    ScratchDir dir;
    std::string path = dir.path("c.log");
};

TEST_F(CFileLogTest, IsClosedUntilOpened) {
    EXPECT_EQ(m_pLogFile, nullptr);
    EXPECT_FALSE(logMsg("lost"));
    fileLog("%s", "lost");
    EXPECT_EQ(shutdownFileLogger(), 0);
}

TEST_F(CFileLogTest, WritesTextsAsTheyAreAtOnce) {
    ASSERT_EQ(initFileLogger(path.c_str()), 1);
    EXPECT_NE(m_pLogFile, nullptr);
    EXPECT_TRUE(logMsg("no line end, 100% "));
    EXPECT_EQ(contentOf(path), "no line end, 100% ");
    fileLog("%s %d\n", "formatted", 7);
    EXPECT_EQ(contentOf(path), "no line end, 100% formatted 7\n");
}

TEST_F(CFileLogTest, AppendsToAnExistingFile) {
    ASSERT_EQ(initFileLogger(path.c_str()), 1);
    logMsg("a");
    EXPECT_EQ(shutdownFileLogger(), 0);
    EXPECT_EQ(m_pLogFile, nullptr);
    EXPECT_FALSE(logMsg("lost"));
    ASSERT_EQ(initFileLogger(path.c_str()), 1);
    logMsg("b");
    EXPECT_EQ(contentOf(path), "ab");
}

TEST_F(CFileLogTest, FileThatCannotBeOpenedIsAFailure) {
    EXPECT_EQ(initFileLogger(dir.path("missing/c.log").c_str()), 0);
    EXPECT_EQ(initFileLogger(nullptr), 0);
    EXPECT_FALSE(logMsg("lost"));
}

TEST_F(CFileLogTest, OpeningAgainChangesTheFile) {
    ASSERT_EQ(initFileLogger(path.c_str()), 1);
    ASSERT_EQ(initFileLogger(dir.path("second.log").c_str()), 1);
    logMsg("x");
    EXPECT_EQ(contentOf(path), "");
    EXPECT_EQ(contentOf(dir.path("second.log")), "x");
}

TEST_F(CFileLogTest, FormattedTextIsCutAt1023Bytes) {
    ASSERT_EQ(initFileLogger(path.c_str()), 1);
    fileLog("%s", std::string(5000, 'x').c_str());
    EXPECT_EQ(contentOf(path), std::string(1023, 'x'));
}

TEST_F(CFileLogTest, NullTextsAreIgnored) {
    ASSERT_EQ(initFileLogger(path.c_str()), 1);
    EXPECT_FALSE(logMsg(nullptr));
    const char* noFormat = nullptr;
    fileLog(noFormat, 1);
    EXPECT_EQ(contentOf(path), "");
}

#ifndef __SANITIZE_THREAD__ // which takes locking a mutex twice for a mistake of the test
TEST_F(CFileLogTest, TextIsNotWrittenWhileTheMutexCannotBeLocked) {
    ASSERT_EQ(initFileLogger(path.c_str()), 1);
    pthread_mutexattr_t errorChecked;
    pthread_mutexattr_init(&errorChecked);
    pthread_mutexattr_settype(&errorChecked, PTHREAD_MUTEX_ERRORCHECK);
    pthread_mutex_destroy(&m_LogMutex);
    ASSERT_EQ(pthread_mutex_init(&m_LogMutex, &errorChecked), 0);
    pthread_mutexattr_destroy(&errorChecked);

    ASSERT_EQ(pthread_mutex_lock(&m_LogMutex), 0);
    EXPECT_FALSE(logMsg("lost"));
    fileLog("%s", "lost");
    EXPECT_EQ(pthread_mutex_unlock(&m_LogMutex), 0);
    EXPECT_TRUE(logMsg("found"));
    EXPECT_EQ(contentOf(path), "found");
}
#endif

TEST_F(CFileLogTest, DescriptorIsClosedOnExec) {
    ASSERT_EQ(initFileLogger(path.c_str()), 1);
    EXPECT_TRUE(::fcntl(::fileno(m_pLogFile), F_GETFD) & FD_CLOEXEC);
}

TEST_F(CFileLogTest, CallsKeepErrno) {
    errno = EXDEV;
    initFileLogger(path.c_str());
    EXPECT_EQ(errno, EXDEV);
    // Not a literal: the compiler knows "%m" only as an extension.
    const std::string format = "%d %m";
    fileLog(format.c_str(), 1);
    EXPECT_EQ(errno, EXDEV);
    EXPECT_EQ(contentOf(path), std::string("1 ") + std::strerror(EXDEV));
}

TEST_F(CFileLogTest, MayBeOpenedAndClosedWhileOthersWrite) {
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&] {
            while (!stop)
                fileLog("0123456789\n");
        });
    }
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(initFileLogger(path.c_str()), 1);
        EXPECT_TRUE(logMsg("0123456789\n"));
        EXPECT_EQ(shutdownFileLogger(), 0);
    }
    stop = true;
    for (std::thread& thread : threads)
        thread.join();
    const std::string content = contentOf(path);
    ASSERT_GE(content.size(), 1100U);
    for (std::size_t at = 0; at < content.size(); at += 11)
        ASSERT_EQ(content.substr(at, 11), "0123456789\n");
}

struct Printed {
    std::string text;
    int result;
};

// What debugPrint writes to standard output.
template <typename Call>
Printed captured(Call call) {
    testing::internal::CaptureStdout();
    const int result = call();
    return {testing::internal::GetCapturedStdout(), result};
}

TEST(DebugPrint, KindChoosesThePrefix) {
    const struct {
        int kind;
        const char* expected;
    } rows[] = {{1, "INFO: job 7"},
                {2, "File: file.cpp; Function: func; Line: 42; job 7"},
                {0, "UNKNOWN LEVEL: job 7"},
                {3, "UNKNOWN LEVEL: job 7"},
                {-1, "UNKNOWN LEVEL: job 7"}};
    for (const auto& row : rows) {
        const Printed printed =
            captured([&] { return debugPrint(row.kind, "func", "file.cpp", 42, "%s %d", "job", 7); });
        EXPECT_EQ(printed.text, row.expected);
        EXPECT_EQ(printed.result, static_cast<int>(printed.text.size()));
    }
}

TEST(DebugPrint, PercentSignsInArgumentsArePlain) {
    EXPECT_EQ(captured([] { return debugPrint(1, "f", "f", 1, "%s", "100%n"); }).text, "INFO: 100%n");
}

TEST(DebugPrint, TextIsCutAt1023BytesWithItsPrefix) {
    const std::string text(5000, 'x');
    EXPECT_EQ(captured([&] { return debugPrint(1, "f", "f", 1, "%s", text.c_str()); }).text,
              "INFO: " + text.substr(0, 1017));
    const Printed printed = captured([&] { return debugPrint(2, text.c_str(), "f", 1, "%s", "y"); });
    EXPECT_EQ(printed.text.size(), 1023U);
    EXPECT_EQ(printed.text, "File: f; Function: " + text.substr(0, 1023 - 19));
}

} // namespace
