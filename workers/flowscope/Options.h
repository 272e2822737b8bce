// The command line of the verifier.
#pragma once

#include <optional>
#include <string>

namespace kestrel::flowscope {

// What the command line asks for.
struct Options {
    std::string format = "xml"; // or "html"
    std::string reportDirectory = ".";
    std::string reportName; // by default the file's name with ".report.xml" or ".report.html"
    std::optional<int> durationSeconds;
    std::string outQueue;
    std::string inQueue;
    std::string file;
    bool help = false;
    // What is wrong with the command line first, empty when nothing is; the queues are those that are given
    // all the same.
    std::string error;

    // Directory and name of the report.
    [[nodiscard]] std::string reportPath() const;
};

// The options have one dash, as the service writes them.
Options parseOptions(int argc, char** argv);
// What --help prints, and a wrong command line too.
std::string usage(const std::string& program);

} // namespace kestrel::flowscope
