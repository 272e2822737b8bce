// One verification from the command line to the exit code.
#pragma once

#include "Options.h"
#include "capture/ServiceLink.h"

#include <chrono>
#include <string>

namespace kestrel::flowscope {

class Analysis;

// Reads the file, tells the service how it goes, and leaves a report or says why there is none.
class VerifierSession {
public:
    explicit VerifierSession(Options options);
    // The exit code.
    int run();
    // Tells the service what is wrong with a command line that names its queue.
    static void refuse(const Options& options);

private:
    // Empty, or why there can be no report.
    std::string analyse(Analysis& analysis);
    std::string examineBeginning() const;
    static std::string missing(const Analysis& analysis);
    // Heartbeat and progress; true when the service, or a signal, asks for the end.
    bool attend(std::uint64_t position);
    std::string writeReport(const Analysis& analysis) const;
    int fail(const std::string& why);

    Options m_options;
    capture::ServiceLink m_link;
    std::int64_t m_fileBytes = 0;
    std::chrono::steady_clock::time_point m_nextHeartbeat;
};

} // namespace kestrel::flowscope
