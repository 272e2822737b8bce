// What a test of the timecode arithmetic made it log, and short forms of labels.
#pragma once

#include "foundation/Logger.h"
#include "timecode/mpeg_timecode.h"

#include <cstddef>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <vector>

// Collects the log lines of one test, without time stamp and line end: "[mpegParseLib:Error] text".
class TimecodeLog {
public:
    TimecodeLog() {
        LogUtil::Cleanup();
        LogUtil::GetInstance()->addStreamLogger(&m_stream);
        LogUtil::GetInstance()->setShowTimestamp(false);
    }
    ~TimecodeLog() { LogUtil::Cleanup(); }
    TimecodeLog(const TimecodeLog&) = delete;
    TimecodeLog& operator=(const TimecodeLog&) = delete;

    // The texts of the lines since the last call, each checked to be an error of the library.
    std::vector<std::string> errors() {
        std::vector<std::string> texts;
        const std::string head = "[mpegParseLib:Error] ";
        for (const std::string& line : lines()) {
            const std::size_t at = line.find(head);
            EXPECT_NE(at, std::string::npos) << line;
            if (at != std::string::npos)
                texts.push_back(line.substr(at + head.size()));
        }
        return texts;
    }

    std::vector<std::string> lines() {
        std::istringstream all(m_stream.str());
        m_stream.str({});
        std::vector<std::string> result;
        for (std::string line; std::getline(all, line);) {
            if (!line.empty() && line.back() == '\r')
                line.pop_back();
            result.push_back(line);
        }
        return result;
    }

private:
    std::ostringstream m_stream;
};

inline std::string invalidCode(int code, const std::string& function) {
    return "Invalid Frame Rate Code " + std::to_string(code) + " in Function:  " + function;
}

// The printed form of a value.
inline std::string label(mpeg_timecode value) {
    return value.windows_string();
}

// The six fields as a text, for messages that tell all.
inline std::string fields(const mpeg_timecode& v) {
    std::ostringstream out;
    out << v.hours << ' ' << v.minutes << ' ' << v.seconds << ' ' << v.frames << ' ' << v.dropFrame << ' '
        << v.frameRateCode;
    return out.str();
}
