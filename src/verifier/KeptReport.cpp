#include "verifier/KeptReport.h"

#include "foundation/Logger.h"

#include <cerrno>
#include <cstdio>
#include <unistd.h>
#include <utility>

namespace kestrel {

namespace {

constexpr const char* MODULE = "JobMgmt";

void removeReport(const std::string& report) {
    if (unlink(report.c_str()) != 0 && errno != ENOENT && errno != ENOTDIR)
        LogUtil::Warning(MODULE, "The old report %s cannot be removed: errno %d", report.c_str(), errno);
}

} // namespace

KeptReport::KeptReport(std::string report, std::string aside)
    : m_report(std::move(report)), m_aside(std::move(aside)) {
    m_kept = std::rename(m_report.c_str(), m_aside.c_str()) == 0;
    if (m_kept || errno == ENOENT || errno == ENOTDIR)
        return;
    LogUtil::Warning(MODULE, "The report %s cannot be set aside: errno %d", m_report.c_str(), errno);
    removeReport(m_report);
}

KeptReport::~KeptReport() {
    if (m_kept && std::rename(m_aside.c_str(), m_report.c_str()) != 0)
        LogUtil::Error(MODULE, "The report %s cannot be put back: errno %d; it is %s", m_report.c_str(),
                       errno, m_aside.c_str());
    else if (!m_kept && !m_leaveNew)
        removeReport(m_report);
}

} // namespace kestrel
