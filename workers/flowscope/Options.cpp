#include "Options.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <getopt.h>

namespace kestrel::flowscope {
namespace {

enum Option : int { format = 1, directory, name, duration, outQueue, inQueue, file, help };

constexpr option table[] = {
    {"r", required_argument, nullptr, format},
    {"report_dst", required_argument, nullptr, directory},
    {"report_name", required_argument, nullptr, name},
    {"duration", required_argument, nullptr, duration},
    {"out_queue_name", required_argument, nullptr, outQueue},
    {"in_queue_name", required_argument, nullptr, inQueue},
    {"f", required_argument, nullptr, file},
    {"help", no_argument, nullptr, help},
    {nullptr, 0, nullptr, 0},
};

std::string takeDuration(Options& options, const char* text) {
    char* end = nullptr;
    errno = 0;
    const long seconds = std::strtol(text, &end, 10);
    if (end == text || *end != '\0' || errno != 0 || seconds < 1 || seconds > INT_MAX)
        return std::string("-duration ") + text + ": expected a number of seconds from 1 on";
    options.durationSeconds = static_cast<int>(seconds);
    return {};
}

std::string take(Options& options, int found) {
    switch (found) {
    case format:
        options.format = optarg;
        return options.format == "xml" || options.format == "html"
                   ? ""
                   : "-r " + options.format + ": expected xml or html";
    case directory:
        options.reportDirectory = optarg;
        return {};
    case name:
        options.reportName = optarg;
        return {};
    case duration:
        return takeDuration(options, optarg);
    case outQueue:
        options.outQueue = optarg;
        return {};
    case inQueue:
        options.inQueue = optarg;
        return {};
    case file:
        options.file = optarg;
        return {};
    case help:
        options.help = true;
        return {};
    case ':':
        return std::string("option ") + optarg + " needs a value";
    default:
        return std::string("unknown option ") + optarg;
    }
}

} // namespace

Options parseOptions(int argc, char** argv) {
    Options options;
    optind = 0; // also resets getopt's state, so that tests may parse more than once
    opterr = 0;
    // A leading ':' tells a missing value from an unknown option.
    for (int found = 0; (found = getopt_long_only(argc, argv, ":", table, nullptr)) != -1;) {
        if (found == ':' || found == '?')
            optarg = argv[optind - 1];
        const std::string error = take(options, found);
        if (options.help)
            return options;
        if (options.error.empty())
            options.error = error;
    }
    if (!options.error.empty())
        return options;
    if (optind < argc)
        options.error = std::string("unexpected argument ") + argv[optind];
    else if (options.file.empty())
        options.error = "no file: -f is required";
    return options;
}

std::string Options::reportPath() const {
    std::string path = reportDirectory.empty() ? "." : reportDirectory;
    if (path.back() != '/')
        path += '/';
    if (!reportName.empty())
        return path + reportName;
    const std::size_t slash = file.rfind('/');
    return path + (slash == std::string::npos ? file : file.substr(slash + 1)) + ".report." + format;
}

std::string usage(const std::string& program) {
    return "Usage: " + program +
           " [-r xml|html] [-report_dst DIR] [-report_name NAME] [-duration SECONDS]\n"
           "       [-out_queue_name QUEUE] [-in_queue_name QUEUE] -f FILE\n"
           "Reads an MPEG transport stream once and writes a report about it.\n"
           "\n"
           "  -r FORMAT              xml, which the service reads (default), or html, for people\n"
           "  -report_dst DIR        directory of the report (default: the current one)\n"
           "  -report_name NAME      its name (default: the file's, with .report.xml or .report.html)\n"
           "  -duration SECONDS      read only so much of the stream, by its own clock\n"
           "  -out_queue_name QUEUE  message queue for heartbeats, progress and results\n"
           "  -in_queue_name QUEUE   message queue on which the cancel message arrives\n"
           "  -f FILE                the transport stream, of 188-byte packets\n"
           "  --help                 this text\n"
           "\n"
           "The report is written beside its name and renamed when it is whole. Exit code 0: the report is\n"
           "there; 1: it is not, and the results text and standard error say why; 2: wrong command line.\n";
}

} // namespace kestrel::flowscope
