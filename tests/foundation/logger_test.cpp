// The logging object: levels, the form of a line, the loggers it hands lines to, and its life.
#include "foundation/Logger.h"

#include "foundation/ScratchDir.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <regex>
#include <sstream>
#include <thread>
#include <vector>

namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

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

// Tells of its calls and its end through strings that the test owns.
class RecordingLogger : public BaseLogger {
public:
    RecordingLogger(std::string name, std::vector<std::string>& events, bool result = true)
        : m_name(std::move(name)), m_events(events), m_result(result) {}
    ~RecordingLogger() override { m_events.push_back(m_name + " deleted"); }

    bool log(const wchar_t*) override {
        m_events.push_back(m_name + " wide");
        return m_result;
    }
    bool log(const char*) override {
        m_events.push_back(m_name + " narrow");
        return m_result;
    }

private:
    std::string m_name;
    std::vector<std::string>& m_events;
    bool m_result;
};

class ThrowingLogger : public BaseLogger {
public:
    bool log(const wchar_t*) override { throw 1; }
    bool log(const char*) override { throw 1; }
};

class LoggerTest : public testing::Test {
protected:
    void SetUp() override {
        LogUtil::Cleanup();
        log = LogUtil::GetInstance();
        ASSERT_NE(log, nullptr);
        log->addStreamLogger(&out);
    }
    void TearDown() override { LogUtil::Cleanup(); }

    std::string takeOutput() {
        std::string text = out.str();
        out.str("");
        return text;
    }

    std::ostringstream out;
    LogUtil* log = nullptr;
};

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

TEST(LogBeforeStaticInitialisation, IsDroppedWithoutEffect) {
    EXPECT_FALSE(earlyCall.hadInstance);
    EXPECT_FALSE(earlyCall.written);
    EXPECT_FALSE(earlyCall.filteredTrue);
    EXPECT_NE(LogUtil::m_mutex, nullptr);
    LogUtil::Cleanup();
}

TEST(LogLevels, AreNumberedAndNamed) {
    EXPECT_EQ(BaseLogger::Debug, 0);
    EXPECT_EQ(BaseLogger::Info, 1);
    EXPECT_EQ(BaseLogger::Warning, 2);
    EXPECT_EQ(BaseLogger::Error, 3);
    EXPECT_EQ(BaseLogger::Fatal, 4);
    EXPECT_EQ(sizeof(BaseLogger::_LogLevel), 4U);
    const std::vector<std::string> names(PRINTABLE_LOGLEVEL.begin(), PRINTABLE_LOGLEVEL.end());
    EXPECT_THAT(names, ElementsAre("Debug", "Info", "Warning", "Error", "Fatal"));
}

TEST(LogModuleOrder, IsThatOfStrcmpNotOfPointers) {
    const char first[] = "same";
    const char second[] = "same";
    const LogUtil::mapCmp less;
    EXPECT_FALSE(less(first, second));
    EXPECT_FALSE(less(second, first));
    EXPECT_TRUE(less("Job", "Manager"));
    EXPECT_FALSE(less("Manager", "Job"));
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

TEST_F(LoggerTest, WithoutAnyLevelSetEveryMessageIsWritten) {
    EXPECT_EQ(log->getDefaultLogLevel(), -1);
    EXPECT_EQ(log->getLogLevel("Anything"), -1);
    EXPECT_TRUE(LogUtil::Debug("Anything", "written"));
    EXPECT_THAT(takeOutput(), HasSubstr("[Anything:Debug] written"));
}

TEST_F(LoggerTest, DefaultLevelTwoDropsInfoAndWritesWarning) {
    log->setDefaultLogLevel(2);
    EXPECT_TRUE(LogUtil::Info("M", "dropped"));
    EXPECT_TRUE(log->info("M", L"dropped"));
    EXPECT_EQ(takeOutput(), "");
    EXPECT_TRUE(LogUtil::Warning("M", "written"));
    EXPECT_THAT(takeOutput(), HasSubstr("[M:Warning] written"));
}

TEST_F(LoggerTest, ModuleLevelGoesBeforeTheDefaultLevel) {
    log->setDefaultLogLevel(3);
    log->setLogLevel("Chatty", BaseLogger::Debug);
    log->setLogLevel("Quiet", BaseLogger::Fatal);
    log->setLogLevel("Between", BaseLogger::Warning);
    EXPECT_EQ(log->getLogLevel("Chatty"), BaseLogger::Debug);
    EXPECT_EQ(log->getLogLevel("Quiet"), BaseLogger::Fatal);
    EXPECT_EQ(log->getLogLevel("Between"), BaseLogger::Warning);
    EXPECT_EQ(log->getLogLevel("Other"), BaseLogger::Error);

    LogUtil::Debug("Chatty", "1");
    LogUtil::Error("Quiet", "2");
    LogUtil::Fatal("Quiet", "3");
    LogUtil::Warning("Other", "4");
    LogUtil::Error("Other", "5");
    log->setShowTimestamp(false);
    const std::string text = takeOutput();
    EXPECT_THAT(text, AllOf(HasSubstr("[Chatty:Debug] 1"), HasSubstr("[Quiet:Fatal] 3"),
                            HasSubstr("[Other:Error] 5")));
    EXPECT_THAT(text, AllOf(Not(HasSubstr("] 2")), Not(HasSubstr("] 4"))));
}

TEST_F(LoggerTest, SettingAModuleAgainOverwritesItsLevel) {
    const char first[] = "Module";
    const char second[] = "Module";
    log->setLogLevel(first, BaseLogger::Fatal);
    log->setLogLevel(second, BaseLogger::Debug);
    EXPECT_EQ(log->getLogLevel("Module"), BaseLogger::Debug);
    LogUtil::Debug("Module", "written");
    EXPECT_THAT(takeOutput(), HasSubstr("written"));
}

TEST_F(LoggerTest, DefaultLevelChangesAfterModulesWereAdded) {
    log->setLogLevel("A", BaseLogger::Info);
    log->setDefaultLogLevel(4);
    log->setLogLevel("B", BaseLogger::Info);
    EXPECT_EQ(log->getDefaultLogLevel(), 4);
    EXPECT_EQ(log->getLogLevel("C"), BaseLogger::Fatal);
    LogUtil::Error("C", "dropped");
    EXPECT_EQ(takeOutput(), "");
}

TEST_F(LoggerTest, FilteredCallTakesNoLock) {
    log->setDefaultLogLevel(BaseLogger::Warning);
    log->setLogLevel("Quiet", BaseLogger::Fatal);
    // The mutex is not recursive: a call that took it would never return.
    MutexLock held(*LogUtil::m_mutex);
    EXPECT_TRUE(LogUtil::Debug("M", "dropped"));
    EXPECT_TRUE(LogUtil::Error("Quiet", "dropped"));
    EXPECT_TRUE(log->info("M", L"dropped"));
    EXPECT_EQ(log->getLogLevel("Quiet"), BaseLogger::Fatal);
    EXPECT_EQ(out.str(), "");
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

TEST_F(LoggerTest, LevelsMayChangeWhileOthersLog) {
    static const std::vector<std::string> modules = [] {
        std::vector<std::string> names;
        for (int i = 0; i < 50; ++i)
            names.push_back("Module" + std::to_string(i));
        return names;
    }();
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&] {
            while (!stop) {
                for (const std::string& module : modules)
                    LogUtil::Debug(module.c_str(), "x");
            }
        });
    }
    for (int round = 0; round < 20; ++round) {
        log->setDefaultLogLevel(round % 5);
        for (const std::string& module : modules)
            log->setLogLevel(module.c_str(), BaseLogger::Fatal);
    }
    stop = true;
    for (std::thread& thread : threads)
        thread.join();
    takeOutput();
    LogUtil::Error(modules[7].c_str(), "dropped");
    EXPECT_EQ(takeOutput(), "");
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

} // namespace
