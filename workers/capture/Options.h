// The worker's command line.
#pragma once

#include <string>

namespace kestrel::capture {

struct Options {
    std::string settingsFile; // -ini: the capture settings
    std::string writeQueue;   // -wq: worker to service; empty when run by hand
    std::string readQueue;    // -rq: service to worker; empty when run by hand
    std::string logFile;      // -log: exactly this file; empty logs to standard error
    std::string encoderMap;   // -encoders: where each encoder's stream is
    bool overwrite = false;   // -overwrite: existing output files are replaced, whatever the map says
    bool keepNulls = false;   // -nulls keep: a normalised file keeps the null packets of its source
    bool help = false;
    std::string
        error; // not empty: the first that is wrong with the command line; the rest is read all the same
};

// Reads the command line. Both -name value and --name value are taken.
[[nodiscard]] Options parseOptions(int argc, char** argv);

// What --help prints.
[[nodiscard]] std::string usage(const std::string& program);

} // namespace kestrel::capture
