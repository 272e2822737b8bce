// Why something failed: a code of the system's messages and the finished text.
#pragma once

#include "foundation/ErrnoText.h"

#include <optional>
#include <string>

namespace kestrel::deck {

struct Failure {
    long code = 0;
    std::string text;
};

using MaybeFailure = std::optional<Failure>;

// "Error: Could not connect to VTR at COM1. (detail)"
[[nodiscard]] Failure notConnected(const std::string& port, const std::string& detail);
// "Error: Command 6 to VTR at COM1 failed. (detail)"
[[nodiscard]] Failure commandFailed(int kind, const std::string& port, const std::string& detail);
// "Error: Preroll to 10:00:00:00 for VTR at COM1 failed. (detail)"
[[nodiscard]] Failure prerollFailed(const std::string& timecode, const std::string& port,
                                    const std::string& detail);
// "Error: Unknown VTR request 4. (detail)"
[[nodiscard]] Failure unknownRequest(int number, const std::string& detail);
// "Error: Timeout waiting for response from VTR. (detail)"
[[nodiscard]] Failure tooLate(const std::string& detail);

} // namespace kestrel::deck
