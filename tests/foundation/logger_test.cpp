// The form of a log line, and the calls that write one.
#include "foundation/logger_fixture.h"

#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using testing::MatchesRegex;

std::string line(LogUtil& log, const char* module, BaseLogger::_LogLevel level, const char* text) {
    char* made = log.newFormatLogMsg(module, level, text);
    std::string copy = made;
    std::free(made);
    return copy;
}

std::wstring line(LogUtil& log, const char* module, BaseLogger::_LogLevel level, const wchar_t* text) {
    wchar_t* made = log.newFormatLogMsg(module, level, text);
    std::wstring copy = made;
    std::free(made);
    return copy;
}

void logList(LogUtil& log, const char* format, ...) __attribute__((format(printf, 2, 3)));
void logList(LogUtil& log, const char* format, ...) {
    va_list args;
    va_start(args, format);
    log.log("List", BaseLogger::Info, format, args);
    va_end(args);
}

void logList(LogUtil& log, const wchar_t* format, ...) {
    va_list args;
    va_start(args, format);
    log.log("List", BaseLogger::Error, format, args);
    va_end(args);
}

void staticLogList(const char* format, ...) __attribute__((format(printf, 1, 2)));
void staticLogList(const char* format, ...) {
    va_list args;
    va_start(args, format);
    LogUtil::Log("List", BaseLogger::Fatal, format, args);
    va_end(args);
}

void staticLogList(const wchar_t* format, ...) {
    va_list args;
    va_start(args, format);
    LogUtil::Log("List", BaseLogger::Warning, format, args);
    va_end(args);
}

TEST_F(LoggerTest, LineWithAllFlagsHasTimeModuleLevelTextAndLineEnd) {
    EXPECT_TRUE(LogUtil::Info("Manager", "RunCmdLine"));
    EXPECT_THAT(takeOutput(),
                MatchesRegex("[0-9]{8}\\.[0-9]{2}:[0-9]{2}:[0-9]{2}: \\[Manager:Info\\] RunCmdLine\r\n"));
}

TEST_F(LoggerTest, LineShowsLocalTime) {
    const std::time_t before = std::time(nullptr);
    const std::string text = line(*log, "M", BaseLogger::Info, "x");
    const std::time_t after = std::time(nullptr);
    bool found = false;
    for (std::time_t t = before; t <= after; ++t) {
        std::tm local{};
        localtime_r(&t, &local);
        char stamp[64];
        std::strftime(stamp, sizeof stamp, "%Y%m%d.%H:%M:%S: ", &local);
        found = found || text.starts_with(stamp);
    }
    EXPECT_TRUE(found) << text;
}

TEST_F(LoggerTest, EachFlagTakesItsPieceOutOfTheLine) {
    struct Row {
        bool module, level, lineEnd;
        const char* line;
        const wchar_t* wide;
    };
    const Row rows[] = {
        {true, true, true, "[Mod:Error] text\r\n", L"[Mod:Error] text\r\n"},
        {true, true, false, "[Mod:Error] text", L"[Mod:Error] text"},
        {true, false, true, "[Mod] text\r\n", L"[Mod] text\r\n"},
        {true, false, false, "[Mod] text", L"[Mod] text"},
        {false, true, true, "[Error] text\r\n", L"[Error] text\r\n"},
        {false, true, false, "[Error] text", L"[Error] text"},
        {false, false, true, "text\r\n", L"text\r\n"},
        {false, false, false, "text", L"text"},
    };
    for (const Row& row : rows) {
        log->setShowModuleName(row.module);
        log->setShowLogLevel(row.level);
        log->setEndWithCrLf(row.lineEnd);
        log->setShowTimestamp(false);
        EXPECT_EQ(line(*log, "Mod", BaseLogger::Error, "text"), row.line);
        EXPECT_EQ(line(*log, "Mod", BaseLogger::Error, L"text"), row.wide);
        log->setShowTimestamp(true);
        const std::string stamped = line(*log, "Mod", BaseLogger::Error, "text");
        ASSERT_GT(stamped.size(), 19U);
        EXPECT_EQ(stamped.substr(17, 2), ": ");
        EXPECT_EQ(stamped.substr(19), row.line);
        const std::wstring wideStamped = line(*log, "Mod", BaseLogger::Error, L"text");
        ASSERT_GT(wideStamped.size(), 19U);
        EXPECT_EQ(wideStamped.substr(17, 2), L": ");
        EXPECT_EQ(wideStamped.substr(19), row.wide);
    }
}

TEST_F(LoggerTest, LineOfALevelOutsideTheTableUsesTheNearestName) {
    log->setShowTimestamp(false);
    EXPECT_EQ(line(*log, "M", static_cast<BaseLogger::_LogLevel>(-3), "x"), "[M:Debug] x\r\n");
    EXPECT_EQ(line(*log, "M", static_cast<BaseLogger::_LogLevel>(77), "x"), "[M:Fatal] x\r\n");
}

TEST_F(LoggerTest, NullModuleAndTextsCountAsEmpty) {
    log->setShowTimestamp(false);
    EXPECT_EQ(line(*log, nullptr, BaseLogger::Info, static_cast<const char*>(nullptr)), "[:Info] \r\n");
    const char* noFormat = nullptr;
    EXPECT_TRUE(log->info(nullptr, noFormat, 0));
    EXPECT_EQ(takeOutput(), "[:Info] \r\n");
}

TEST_F(LoggerTest, EveryCallWritesUnderItsOwnLevel) {
    log->setShowTimestamp(false);
    log->debug("M", "%d", 1);
    log->info("M", "%d", 2);
    log->warning("M", "%d", 3);
    log->error("M", "%d", 4);
    log->fatal("M", "%d", 5);
    EXPECT_EQ(takeOutput(), "[M:Debug] 1\r\n[M:Info] 2\r\n[M:Warning] 3\r\n[M:Error] 4\r\n[M:Fatal] 5\r\n");
    log->debug("M", L"%d", 1);
    log->info("M", L"%d", 2);
    log->warning("M", L"%d", 3);
    log->error("M", L"%d", 4);
    log->fatal("M", L"%d", 5);
    EXPECT_EQ(takeOutput(), "[M:Debug] 1\r\n[M:Info] 2\r\n[M:Warning] 3\r\n[M:Error] 4\r\n[M:Fatal] 5\r\n");
    LogUtil::Debug("S", "%s", "a");
    LogUtil::Info("S", "%s", "b");
    LogUtil::Warning("S", "%s", "c");
    LogUtil::Error("S", "%s", "d");
    LogUtil::Fatal("S", "%s", "e");
    EXPECT_EQ(takeOutput(), "[S:Debug] a\r\n[S:Info] b\r\n[S:Warning] c\r\n[S:Error] d\r\n[S:Fatal] e\r\n");
    LogUtil::Debug("S", L"%d", 1);
    LogUtil::Info("S", L"%d", 2);
    LogUtil::Warning("S", L"%d", 3);
    LogUtil::Error("S", L"%d", 4);
    LogUtil::Fatal("S", L"%d", 5);
    EXPECT_EQ(takeOutput(), "[S:Debug] 1\r\n[S:Info] 2\r\n[S:Warning] 3\r\n[S:Error] 4\r\n[S:Fatal] 5\r\n");
    log->log("M", BaseLogger::Error, "%d", 1);
    log->log("M", BaseLogger::Error, L"%d", 2);
    LogUtil::Log("M", BaseLogger::Error, "%d", 3);
    LogUtil::Log("M", BaseLogger::Error, L"%d", 4);
    EXPECT_EQ(takeOutput(), "[M:Error] 1\r\n[M:Error] 2\r\n[M:Error] 3\r\n[M:Error] 4\r\n");
}

TEST_F(LoggerTest, ArgumentListsAreFormattedToo) {
    log->setShowTimestamp(false);
    logList(*log, "%s %d", "job", 7);
    logList(*log, L"%ls %d", L"wide", 8);
    staticLogList("%s %d", "all", 9);
    staticLogList(L"%d %d", 8, 9);
    EXPECT_EQ(takeOutput(),
              "[List:Info] job 7\r\n[List:Error] wide 8\r\n[List:Fatal] all 9\r\n[List:Warning] 8 9\r\n");
}

TEST_F(LoggerTest, AWideLineThatTheLocaleLacksCharactersForKeepsItsEnd) {
    log->setShowTimestamp(false);
    EXPECT_TRUE(LogUtil::Info("M", L"M\u00fcll"));
    EXPECT_TRUE(LogUtil::Info("M", "next"));
    EXPECT_EQ(takeOutput(), "[M:Info] M\r\n[M:Info] next\r\n");
}

TEST_F(LoggerTest, LiteralZeroIsAnArgumentNotAnArgumentList) {
    log->setShowTimestamp(false);
    LogUtil::Log("M", BaseLogger::Info, "%d", 0);
    log->log("M", BaseLogger::Info, L"%d", 0);
    EXPECT_EQ(takeOutput(), "[M:Info] 0\r\n[M:Info] 0\r\n");
}

TEST_F(LoggerTest, LongTextsAreCutAt2999Characters) {
    log->setShowTimestamp(false);
    for (const std::size_t length : {2998U, 2999U, 3000U, 10000U}) {
        const std::string text(length, 'x');
        const std::string expected = "[M:Info] " + text.substr(0, 2999) + "\r\n";
        EXPECT_TRUE(LogUtil::Info("M", "%s", text.c_str()));
        EXPECT_EQ(takeOutput(), expected) << length;
        const std::wstring wide(length, L'x');
        EXPECT_TRUE(LogUtil::Info("M", L"%ls", wide.c_str()));
        EXPECT_EQ(takeOutput(), expected) << length;
    }
}

TEST_F(LoggerTest, LinesOfSeveralThreadsAreNotMixed) {
    constexpr int threadCount = 4;
    constexpr int lineCount = 200;
    log->setShowTimestamp(false);
    std::vector<std::thread> threads;
    for (int t = 0; t < threadCount; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < lineCount; ++i)
                LogUtil::Info("T", "%d %d", t, i);
        });
    }
    for (std::thread& thread : threads)
        thread.join();

    std::istringstream lines(out.str());
    std::vector<int> next(threadCount, 0);
    std::string text;
    while (std::getline(lines, text)) {
        int t = -1;
        int i = -1;
        char end = 0;
        ASSERT_EQ(std::sscanf(text.c_str(), "[T:Info] %d %d%c", &t, &i, &end), 3) << text;
        ASSERT_TRUE(t >= 0 && t < threadCount) << text;
        EXPECT_EQ(end, '\r');
        EXPECT_EQ(i, next[static_cast<std::size_t>(t)]++);
    }
    EXPECT_THAT(next, testing::Each(lineCount));
}

} // namespace
