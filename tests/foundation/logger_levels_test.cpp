// Log levels: their names, and which messages they keep out.
#include "foundation/logger_fixture.h"

#include <atomic>
#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

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

TEST_F(LoggerTest, ALevelThatGoesDownIsSeenAtOnce) {
    log->setDefaultLogLevel(BaseLogger::Fatal);
    log->setLogLevel("A", BaseLogger::Fatal);
    EXPECT_TRUE(LogUtil::IsFiltered("A", BaseLogger::Info));
    log->setLogLevel("A", BaseLogger::Info);
    EXPECT_FALSE(LogUtil::IsFiltered("A", BaseLogger::Info));
    EXPECT_TRUE(LogUtil::IsFiltered("B", BaseLogger::Info));
    log->setLogLevel("B", BaseLogger::Debug);
    EXPECT_FALSE(LogUtil::IsFiltered("B", BaseLogger::Debug));
    log->setDefaultLogLevel(-1);
    EXPECT_FALSE(LogUtil::IsFiltered("C", BaseLogger::Debug));
    log->setDefaultLogLevel(BaseLogger::Fatal);
    LogUtil::Cleanup();
    EXPECT_FALSE(LogUtil::IsFiltered("C", BaseLogger::Debug)) << "a new object writes everything";
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

} // namespace
