#include "Options.h"

#include <charconv>
#include <cmath>
#include <getopt.h>

namespace kestrel::deck_simulator {
namespace {

enum Option : int {
    link = 1,
    rate,
    start,
    length,
    spinUp,
    seek,
    wind,
    noVitc,
    nak,
    garbage,
    silent,
    unplugAfter,
    order,
    tape,
    send,
    help
};

constexpr option table[] = {
    {"link", required_argument, nullptr, link},
    {"rate", required_argument, nullptr, rate},
    {"start", required_argument, nullptr, start},
    {"length", required_argument, nullptr, length},
    {"spin-up", required_argument, nullptr, spinUp},
    {"seek", required_argument, nullptr, seek},
    {"wind", required_argument, nullptr, wind},
    {"no-vitc", no_argument, nullptr, noVitc},
    {"nak", required_argument, nullptr, nak},
    {"garbage", no_argument, nullptr, garbage},
    {"silent", no_argument, nullptr, silent},
    {"unplug-after", required_argument, nullptr, unplugAfter},
    {"order", required_argument, nullptr, order},
    {"tape", required_argument, nullptr, tape},
    {"send", required_argument, nullptr, send},
    {"help", no_argument, nullptr, help},
    {nullptr, 0, nullptr, 0},
};

constexpr double longestTape = 86'400; // seconds: each label is there once

class Reader {
public:
    explicit Reader(SimulatorOptions& options) : m_options(options) {}

    void take(int found, char** argv) {
        switch (found) {
        case link:
            m_options.link = optarg;
            break;
        case rate:
            if (const auto known = findRate(optarg))
                m_options.rate = *known;
            else
                wrong("--rate", "none of " + rateNames());
            break;
        case start:
            m_start = optarg;
            break;
        case length:
            m_options.seconds = number("--length", 1.0 / 30, longestTape);
            break;
        case spinUp:
            m_options.mechanics.spinUp = milliseconds(std::lround(number("--spin-up", 0, 60'000)));
            break;
        case seek:
            m_options.mechanics.seek = milliseconds(std::lround(number("--seek", 0, 3'600'000)));
            break;
        case wind:
            m_options.mechanics.windSpeed = number("--wind", 1, 1000);
            break;
        case noVitc:
            addOrder("novitc");
            break;
        case nak:
            addOrder(std::string("nak ") + optarg);
            break;
        case garbage:
            addOrder("garbage");
            break;
        case silent:
            addOrder("silent");
            break;
        case unplugAfter:
            m_options.unplugAfter = static_cast<int>(number("--unplug-after", 0, 1e9));
            break;
        case order:
            addOrder(optarg);
            break;
        case tape:
            m_options.tapeFile = optarg;
            break;
        case send:
            m_options.target = optarg;
            break;
        case help:
            m_options.help = true;
            break;
        case ':':
            m_options.error = std::string("option ") + argv[optind - 1] + " needs a value";
            break;
        default:
            m_options.error = std::string("unknown option ") + argv[optind - 1];
            break;
        }
    }

    // What hangs on more than one option.
    void finish() {
        if (m_options.tapeFile.empty() != m_options.target.empty())
            m_options.error = "--tape and --send go together";
        m_options.start.dropFrame = m_options.rate.dropFrame;
        if (m_start.empty())
            return;
        auto time = TapeTime::parse(m_start);
        if (time)
            time->dropFrame = m_options.rate.dropFrame;
        // Once more, by the counting of the rate.
        if (!time || !TapeTime::parse(time->text()) ||
            time->frames >= std::lround(m_options.rate.labelsPerSecond))
            m_options.error = "--start " + m_start + " is no timecode at this rate";
        else
            m_options.start = *time;
    }

private:
    void wrong(const std::string& name, const std::string& why) {
        m_options.error = name + " " + optarg + " is " + why;
    }

    double number(const std::string& name, double least, double most) {
        const std::string_view text = optarg;
        double value = 0;
        const auto [end, problem] = std::from_chars(text.data(), text.data() + text.size(), value);
        if (problem == std::errc() && end == text.data() + text.size() && value >= least && value <= most)
            return value;
        wrong(name, "no number in range");
        return least;
    }

    void addOrder(const std::string& line) {
        if (const auto parsed = parseOrder(line))
            m_options.orders.push_back(*parsed);
        else
            m_options.error = "\"" + line + "\" is no order";
    }

    SimulatorOptions& m_options;
    std::string m_start;
};

} // namespace

SimulatorOptions parseOptions(int argc, char** argv) {
    SimulatorOptions options;
    Reader reader(options);
    optind = 0; // also resets getopt's state, so that tests may parse more than once
    opterr = 0;
    for (int found = 0; (found = getopt_long(argc, argv, ":", table, nullptr)) != -1;) {
        reader.take(found, argv);
        if (options.help || !options.error.empty())
            return options;
    }
    if (optind < argc)
        options.error = std::string("unexpected argument ") + argv[optind];
    else
        reader.finish();
    return options;
}

std::string usage(const std::string& program) {
    return "Usage: " + program +
           " [options]\n"
           "A tape deck at the end of a pseudo-terminal: 9-pin remote protocol, timecode in real time.\n"
           "Prints a line for each change of state, and takes orders from standard input, one a line.\n"
           "\n"
           "  --link PATH           symbolic link to the terminal, for a stable name; replaces only a link\n"
           "  --rate RATE           " +
           rateNames() +
           "\n"
           "                        (default 25; the double rates count pairs of frames, 59.94 drop-frame)\n"
           "  --start HH:MM:SS:FF   first timecode of the tape (default 10:00:00:00)\n"
           "  --length SECONDS      of the tape (default 3600)\n"
           "  --spin-up MS          from standing still to moving (default 400)\n"
           "  --wind SPEED          winding speed in multiples of play speed (default 50)\n"
           "  --seek MS             time of a cue-up; without it, as long as winding takes\n"
           "  --no-vitc             only LTC can be read\n"
           "  --nak BITS, --garbage, --silent, --order 'ORDER'\n"
           "                        orders to begin with, see below\n"
           "  --unplug-after N      the line goes when N blocks have been answered\n"
           "  --tape FILE.ts --send ADDRESS:PORT\n"
           "                        what is on the tape: a transport stream whose GOP timecodes are the\n"
           "                        tape's. While the deck plays, it is sent over UDP, seven packets a\n"
           "                        datagram, at the pace of its clock.\n"
           "  --help                this text\n"
           "\n"
           "Orders:\n" +
           orderHelp();
}

} // namespace kestrel::deck_simulator
