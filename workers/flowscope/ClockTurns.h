// The turns of the 33-bit clock of PTS and DTS (ISO/IEC 13818-1, 2.4.3.7).
#pragma once

#include "capture/ClockTurn.h"
#include "mpeg/pts.h"

#include <cmath>
#include <cstdint>

namespace kestrel::flowscope {

using capture::clockTurn;

// The time nearest to `near` that the clock shows as `raw`; `raw` itself where either is absent.
inline PTS unwrapped(PTS raw, PTS near) {
    if (near.is_absent() || raw.is_absent())
        return raw;
    const std::int64_t turns = std::llround(static_cast<double>(near - raw) / static_cast<double>(clockTurn));
    return PTS(raw + turns * clockTurn);
}

// A time that lies so far behind another; absent where that is.
inline PTS shifted(PTS raw, std::int64_t shift) {
    return raw.is_absent() ? raw : PTS(raw + shift);
}

// A difference between times in seconds.
inline double seconds(std::int64_t units) {
    return static_cast<double>(units) / static_cast<double>(PTS::units_per_second);
}

} // namespace kestrel::flowscope
