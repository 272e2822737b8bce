// The log of the test's own process, for what has no other witness.
#pragma once

#include "foundation/Logger.h"

#include <sstream>
#include <string>

namespace capture_test {

// Takes the lines written while it lives. Threads that log have ended before it does.
class CapturedLog {
public:
    CapturedLog() { LogUtil::GetInstance()->addStreamLogger(&m_lines); }
    ~CapturedLog() { LogUtil::Cleanup(); }
    CapturedLog(const CapturedLog&) = delete;
    CapturedLog& operator=(const CapturedLog&) = delete;

    std::string text() const { return m_lines.str(); }
    int count(const std::string& part) const {
        const std::string all = text();
        int found = 0;
        for (std::size_t at = all.find(part); at != std::string::npos; at = all.find(part, at + part.size()))
            ++found;
        return found;
    }

private:
    std::ostringstream m_lines;
};

} // namespace capture_test
