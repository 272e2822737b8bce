#include "Options.h"

#include <getopt.h>
#include <string_view>
#include <utility>

namespace kestrel::capture {
namespace {

enum Option : int { settings = 1, writeQueue, readQueue, logFile, encoders, overwrite, nulls, help };

constexpr option table[] = {
    {"ini", required_argument, nullptr, settings},
    {"wq", required_argument, nullptr, writeQueue},
    {"rq", required_argument, nullptr, readQueue},
    {"log", required_argument, nullptr, logFile},
    {"encoders", required_argument, nullptr, encoders},
    {"overwrite", no_argument, nullptr, overwrite},
    {"nulls", required_argument, nullptr, nulls},
    {"help", no_argument, nullptr, help},
    {nullptr, 0, nullptr, 0},
};

} // namespace

Options parseOptions(int argc, char** argv) {
    Options options;
    optind = 0; // also resets getopt's state, so that tests may parse more than once
    opterr = 0;
    // What stands behind a mistake counts all the same: it tells where the mistake can be reported.
    const auto mistake = [&options](std::string text) {
        if (options.error.empty())
            options.error = std::move(text);
    };
    // A leading ':' tells a missing value from an unknown option.
    for (int found = 0; (found = getopt_long_only(argc, argv, ":", table, nullptr)) != -1;) {
        switch (found) {
        case settings:
            options.settingsFile = optarg;
            break;
        case writeQueue:
            options.writeQueue = optarg;
            break;
        case readQueue:
            options.readQueue = optarg;
            break;
        case logFile:
            options.logFile = optarg;
            break;
        case encoders:
            options.encoderMap = optarg;
            break;
        case overwrite:
            options.overwrite = true;
            break;
        case nulls:
            options.keepNulls = std::string_view(optarg) == "keep";
            if (!options.keepNulls && std::string_view(optarg) != "drop")
                mistake(std::string("-nulls is keep or drop, not ") + optarg);
            break;
        case help:
            options.help = true;
            return options;
        case ':':
            mistake(std::string("option ") + argv[optind - 1] + " needs a value");
            break;
        default:
            mistake(std::string("unknown option ") + argv[optind - 1]);
            break;
        }
    }
    if (optind < argc)
        mistake(std::string("unexpected argument ") + argv[optind]);
    if (options.settingsFile.empty())
        mistake("no settings file: -ini is required");
    return options;
}

std::string usage(const std::string& program) {
    return "Usage: " + program +
           " [-encoders FILE] [-overwrite] [-nulls keep|drop] -ini FILE [-wq QUEUE] [-rq QUEUE] [-log FILE]"
           " | --help\n"
           "Records MPEG transport streams from one or two encoders as a settings file says.\n"
           "\n"
           "  -ini FILE         capture settings (XML, root CaptureSettings)\n"
           "  -wq QUEUE         message queue for heartbeats, status and results\n"
           "  -rq QUEUE         message queue on which the cancel message arrives\n"
           "  -log FILE         log file, appended to; without it the log goes to standard error\n"
           "  -encoders FILE    where each encoder's stream is (XML, see below)\n"
           "  -overwrite        replace output files that exist; else only where the map says OVERWRITE\n"
           "  -nulls keep|drop  what a normalised file does with null packets (drop)\n"
           "  --help            this text\n"
           "\n"
           "The stream of an encoder is looked for at IP_ADDRESS and PORT of its reception, else where the\n"
           "encoder map says, else in the datagrams that the encoder itself (SNMP_IP_ADDRESS) sends to UDP\n"
           "port 5000 of this host. An encoder map:\n"
           "\n"
           "  <Encoders>\n"
           "    <Encoder CONTROL_ADDRESS=\"10.1.2.3\" STREAM_ADDRESS=\"239.1.1.1\" PORT=\"5000\"\n"
           "             INTERFACE=\"0.0.0.0\" OVERWRITE=\"FALSE\"/>\n"
           "    <Decoder CONTROL_ADDRESS=\"10.1.2.4\" RTP=\"TRUE\"/>\n"
           "  </Encoders>\n"
           "\n"
           "A Decoder of the map is sent RTP instead of plain UDP when a source file is played to it.\n"
           "\n"
           "SIGTERM, SIGINT and SIGHUP end a recording like the cancel message. Exit code 0: recorded as\n"
           "asked, or cancelled after something was recorded; a timed capture or a re-encode that is\n"
           "cancelled before anything was recorded exits 0 as well, and its results say \"nothing "
           "recorded\".\n"
           "1: anything else; the results say why. 2: wrong command line.\n";
}

} // namespace kestrel::capture
