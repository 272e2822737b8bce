// What a simulated deck can be told while it runs, one line each.
#pragma once

#include "Fault.h"

#include <optional>
#include <string>
#include <string_view>

namespace kestrel::deck_simulator {

struct Order {
    enum class Kind { fault, line, local, cassette, vitc, timecode, old, lag, where };

    Kind kind = Kind::where;
    bool on = true;
    Fault fault;                      // of Kind::fault
    std::chrono::milliseconds lag{0}; // of Kind::lag
};

// "nak 01", "silent 3", "unplug", ...; nothing for any other line.
[[nodiscard]] std::optional<Order> parseOrder(std::string_view line);
// All of them, for a help text.
[[nodiscard]] std::string orderHelp();

} // namespace kestrel::deck_simulator
