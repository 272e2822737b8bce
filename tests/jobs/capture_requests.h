// Requests for capture jobs, and the log lines that a test provokes.
#pragma once

#include "foundation/Logger.h"
#include "jobs/CaptureJob.h"
#include "jobs/InputField.h"
#include "resources/ResourceMgr.h"

#include <initializer_list>
#include <sstream>
#include <string>
#include <vector>

// The fields of a request, each name=value.
inline std::vector<InputField> request(std::initializer_list<const char*> texts) {
    std::vector<InputField> fields;
    fields.reserve(texts.size());
    for (const char* text : texts)
        fields.emplace_back(text);
    return fields;
}

inline int setFields(Job& job, std::initializer_list<const char*> texts) {
    std::vector<InputField> fields = request(texts);
    return job.setFields(fields);
}

// Collects what is logged while it lives, one "[category:level] text" a line. Read it only while no watching
// thread runs.
class JobLog {
public:
    JobLog() {
        LogUtil::Cleanup();
        LogUtil::GetInstance()->setDefaultLogLevel(BaseLogger::Debug);
        LogUtil::GetInstance()->setShowTimestamp(false);
        LogUtil::GetInstance()->addStreamLogger(&m_stream);
    }
    ~JobLog() { LogUtil::Cleanup(); }
    JobLog(const JobLog&) = delete;
    JobLog& operator=(const JobLog&) = delete;

    [[nodiscard]] std::string text() const { return m_stream.str(); }

private:
    std::ostringstream m_stream;
};
