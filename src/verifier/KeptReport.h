// A finished report that outlives another verification of the same name.
#pragma once

#include <string>

namespace kestrel {

// Sets the report of a queued verification aside, so that a verifier can write one of the same name for
// somebody else, and puts it back at the end. Where there was none the other one is removed at the end: it
// would be taken for the queued one's.
class KeptReport {
public:
    // aside: a path in the same file system that nothing else uses. A report that cannot be moved there is
    // removed, with a warning.
    KeptReport(std::string report, std::string aside);
    ~KeptReport();
    KeptReport(const KeptReport&) = delete;
    KeptReport& operator=(const KeptReport&) = delete;

    // Whether there is a report to put back.
    [[nodiscard]] bool kept() const noexcept { return m_kept; }
    // What has been written meanwhile is the queued verification's own: it is left, where nothing is kept.
    void leaveNew() noexcept { m_leaveNew = true; }

private:
    const std::string m_report;
    const std::string m_aside;
    bool m_kept = false;
    bool m_leaveNew = false;
};

} // namespace kestrel
