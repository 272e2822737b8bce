// What a simulated deck is like.
#pragma once

#include "Orders.h"
#include "Transport.h"

#include <string>
#include <vector>

namespace kestrel::deck_simulator {

struct SimulatorOptions {
    std::string link; // --link: symbolic link to the terminal; empty: none
    TapeRate rate = *findRate("25");
    TapeTime start{10, 0, 0, 0, false}; // --start
    double seconds = 3600;              // --length
    Mechanics mechanics;
    std::vector<Order> orders; // carried out at the start
    int unplugAfter = -1;      // --unplug-after: blocks; -1 never
    std::string tapeFile;      // --tape
    std::string target;        // --send
    bool help = false;
    std::string error; // not empty: what is wrong with the command line
};

[[nodiscard]] SimulatorOptions parseOptions(int argc, char** argv);
// What --help prints.
[[nodiscard]] std::string usage(const std::string& program);

} // namespace kestrel::deck_simulator
