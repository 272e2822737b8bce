// A logging object with a stream to look at, and a logger that tells what was asked of it.
#pragma once

#include "foundation/Logger.h"

#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

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
