// A place for a report that nobody else has to do with.
#pragma once

#include <string>

namespace kestrel {

// A directory for the report of one request, made for it and removed, with all that is in it, at the end: a
// verifier that is to answer one request cannot disturb the report of a queued verification of the same name
// then, whichever of the two ends first. Only its owner may enter it.
class OwnReportDirectory {
public:
    // Makes a new directory whose path begins with prefix and goes on as no other does.
    explicit OwnReportDirectory(const std::string& prefix);
    ~OwnReportDirectory();
    OwnReportDirectory(const OwnReportDirectory&) = delete;
    OwnReportDirectory& operator=(const OwnReportDirectory&) = delete;

    // 0, or the errno of a directory that could not be made; logged.
    [[nodiscard]] int failure() const noexcept { return m_failure; }
    // With its trailing slash; empty where there is none.
    [[nodiscard]] const std::string& path() const noexcept { return m_path; }

private:
    std::string m_path;
    int m_failure = 0;
};

} // namespace kestrel
