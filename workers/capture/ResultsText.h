// The one text that tells the service how a job went, which keeps no more than 299 bytes of it.
#pragma once

#include "Limits.h"

#include <span>
#include <string>

namespace kestrel::capture {

// A part of the text, with what separates it from the one before.
struct ResultsPart {
    std::string text;
    bool failure = false;
};

// The parts in their order. Where they are longer than the room, each keeps its beginning, failures as much
// as there is room for before the others get more.
[[nodiscard]] std::string resultsText(std::span<const ResultsPart> parts, std::size_t room = resultsBytes);

} // namespace kestrel::capture
