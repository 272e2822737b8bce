#include "verifier/OwnReportDirectory.h"

#include "foundation/Logger.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace kestrel {

namespace {

constexpr const char* MODULE = "JobMgmt";

} // namespace

// A name of mkdtemp's: what a killed service of the same process id has left, as the only process of a
// container does, is not in the way, nor is what somebody else has put into a directory of all.
OwnReportDirectory::OwnReportDirectory(const std::string& prefix) {
    std::string pattern = prefix + "XXXXXX";
    if (mkdtemp(pattern.data()) != nullptr) {
        m_path = pattern + '/';
        return;
    }
    m_failure = errno;
    LogUtil::Error(MODULE, "No directory %sXXXXXX can be made for a report: errno %d", prefix.c_str(),
                   m_failure);
}

OwnReportDirectory::~OwnReportDirectory() {
    if (m_path.empty())
        return;
    std::error_code error;
    std::filesystem::remove_all(m_path, error);
    if (error)
        LogUtil::Warning(MODULE, "The directory %s of a report cannot be removed: errno %d", m_path.c_str(),
                         error.value());
}

} // namespace kestrel
