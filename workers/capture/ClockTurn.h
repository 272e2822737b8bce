// The turn of the 33-bit clock of PTS and DTS (ISO/IEC 13818-1, 2.4.3.7).
#pragma once

#include "mpeg/pts.h"

#include <cstdint>
#include <optional>

namespace kestrel::capture {

// One turn, in PTS units (1/360000 s).
inline constexpr std::int64_t clockTurn = (std::int64_t{1} << 33) * 4;

// From one timestamp to a later one, over a turn if need be, in PTS units; none where one of them is absent.
[[nodiscard]] inline std::optional<std::int64_t> stampedStep(PTS stamp, PTS before) {
    if (stamp.is_absent() || before.is_absent())
        return std::nullopt;
    return ((stamp - before) % clockTurn + clockTurn) % clockTurn;
}

} // namespace kestrel::capture
