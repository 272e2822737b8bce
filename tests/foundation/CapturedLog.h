// The log lines that a test provokes in its own process.
#pragma once

#include "foundation/Logger.h"

#include <sstream>
#include <string>

// Collects what is logged while it lives, one "[module:level] text" a line, whatever logged before. Read it
// only while no other thread logs.
class CapturedLog {
public:
    CapturedLog() {
        LogUtil::Cleanup();
        LogUtil* const log = LogUtil::GetInstance();
        log->setDefaultLogLevel(BaseLogger::Debug);
        log->setShowTimestamp(false);
        log->addStreamLogger(&m_lines);
    }
    ~CapturedLog() { LogUtil::Cleanup(); }
    CapturedLog(const CapturedLog&) = delete;
    CapturedLog& operator=(const CapturedLog&) = delete;

    [[nodiscard]] std::string text() const { return m_lines.str(); }

private:
    std::ostringstream m_lines;
};
