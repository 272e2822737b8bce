// The deck process's command line.
#pragma once

#include "Limits.h"

#include <string>

namespace kestrel::deck {

struct Options {
    std::string logFile;    // -log: day files of this name; empty logs to standard error
    int logLevel = 1;       // -loglvl: 0 debug to 4 fatal
    std::string readQueue;  // -i: requests of the service
    std::string writeQueue; // -o: answers to the service
    std::string portMap;    // -ports; empty: that of the installation, when there is one
    Timing timing;          // -timeout sets the reply time
    bool help = false;
    std::string error; // not empty: what is wrong with the command line
};

// The port map that is read when none is named and it exists.
[[nodiscard]] std::string installedPortMap();

// Reads the command line. Both -name value and --name value are taken.
[[nodiscard]] Options parseOptions(int argc, char** argv);

// What --help prints.
[[nodiscard]] std::string usage(const std::string& program);

} // namespace kestrel::deck
