#include "Options.h"

#include <algorithm>
#include <charconv>
#include <getopt.h>
#include <optional>
#include <string_view>

namespace kestrel::deck {
namespace {

enum Option : int { log = 1, logLevel, input, output, ports, timeout, help };

constexpr option table[] = {
    {"log", required_argument, nullptr, log},     {"loglvl", required_argument, nullptr, logLevel},
    {"i", required_argument, nullptr, input},     {"o", required_argument, nullptr, output},
    {"ports", required_argument, nullptr, ports}, {"timeout", required_argument, nullptr, timeout},
    {"help", no_argument, nullptr, help},         {nullptr, 0, nullptr, 0},
};

constexpr int longestTimeoutMs = 5000;

std::optional<int> number(std::string_view text) {
    int value = 0;
    const auto [end, problem] = std::from_chars(text.data(), text.data() + text.size(), value);
    return problem == std::errc() && end == text.data() + text.size() ? std::optional(value) : std::nullopt;
}

void readLogLevel(const char* text, Options& options) {
    // The service passes on what its profile says, whatever that is.
    if (const auto level = number(text))
        options.logLevel = std::clamp(*level, 0, 4);
    else
        options.error = std::string("-loglvl ") + text + " is no number";
}

void readTimeout(const char* text, Options& options) {
    const auto value = number(text);
    if (value && *value >= 1 && *value <= longestTimeoutMs)
        options.timing.reply = milliseconds(*value);
    else
        options.error = std::string("-timeout ") + text + " is not 1 to 5000 ms";
}

void readOption(int found, Options& options, char** argv) {
    switch (found) {
    case log:
        options.logFile = optarg;
        break;
    case logLevel:
        readLogLevel(optarg, options);
        break;
    case input:
        options.readQueue = optarg;
        break;
    case output:
        options.writeQueue = optarg;
        break;
    case ports:
        options.portMap = optarg;
        break;
    case timeout:
        readTimeout(optarg, options);
        break;
    case help:
        options.help = true;
        break;
    case ':':
        options.error = std::string("option ") + argv[optind - 1] + " needs a value";
        break;
    default:
        options.error = std::string("unknown option ") + argv[optind - 1];
        break;
    }
}

} // namespace

std::string installedPortMap() {
    return std::string(KESTREL_DECK_CONFIG_DIRECTORY) + "deck_ports.xml";
}

Options parseOptions(int argc, char** argv) {
    Options options;
    optind = 0; // also resets getopt's state, so that tests may parse more than once
    opterr = 0;
    // A leading ':' tells a missing value from an unknown option.
    for (int found = 0; (found = getopt_long_only(argc, argv, ":", table, nullptr)) != -1;) {
        readOption(found, options, argv);
        if (options.help || !options.error.empty())
            return options;
    }
    if (optind < argc)
        options.error = std::string("unexpected argument ") + argv[optind];
    else if (options.readQueue.empty() || options.writeQueue.empty())
        options.error = "the queues -i and -o are required";
    return options;
}

std::string usage(const std::string& program) {
    return "Usage: " + program +
           " [-log FILE] [-loglvl N] -i QUEUE -o QUEUE [-ports FILE] [-timeout MS]\n"
           "Drives tape decks over serial ports (9-pin remote protocol), as the service's requests say.\n"
           "\n"
           "  -log FILE     log, one file a day: x.log becomes x-20261115.log; without it standard error\n"
           "  -loglvl N     0 debug (every block), 1 info (default), 2 warning, 3 error, 4 fatal\n"
           "  -i QUEUE      message queue of the requests\n"
           "  -o QUEUE      message queue for the answers\n"
           "  -ports FILE   names of ports (XML, see below); without it\n"
           "                " +
           installedPortMap() +
           ", when it exists\n"
           "  -timeout MS   how long a deck may take to answer, 1 to 5000 (default 150)\n"
           "  --help        this text\n"
           "\n"
           "COM1 is /dev/ttyS0 and so on, ttyUSB0 is /dev/ttyUSB0, a path is itself. A port map:\n"
           "\n"
           "  <DeckPorts>\n"
           "    <Port NAME=\"COM1\" DEVICE=\"/dev/serial/by-path/pci-0000:00:14.0-usb-0:2:1.0-port0\"/>\n"
           "  </DeckPorts>\n"
           "\n"
           "Ends on the exit message, SIGTERM and SIGINT (exit code 0), when its queues are gone (1), and on "
           "a wrong\n"
           "command line (2).\n";
}

} // namespace kestrel::deck
