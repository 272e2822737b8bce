// The command line of the verifier.
#pragma once

#include <optional>
#include <string>

namespace kestrel::flowscope {

struct Options {
    std::string format = "xml"; // or "html"
    std::string reportDirectory = ".";
    std::string reportName; // by default the file's name with ".report.xml" or ".report.html"
    std::optional<int> durationSeconds;
    std::string outQueue;
    std::string inQueue;
    std::string file;
    bool help = false;
    std::string error; // what is wrong with the command line; empty when nothing is

    [[nodiscard]] std::string reportPath() const;
};

// The options have one dash, as the service writes them.
Options parseOptions(int argc, char** argv);
std::string usage(const std::string& program);

} // namespace kestrel::flowscope
