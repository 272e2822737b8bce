// Deadlines as poll(2) wants them.
#pragma once

#include "Limits.h"

#include <algorithm>
#include <cstdint>

namespace kestrel::capture {

// Milliseconds until a time: rounded up, -1 for never, an hour at most.
[[nodiscard]] inline int pollTime(Clock::time_point until, Clock::time_point now) {
    if (until == Clock::time_point::max())
        return -1;
    const auto left = std::chrono::ceil<milliseconds>(until - now).count();
    return static_cast<int>(std::clamp<std::int64_t>(left, 0, 3'600'000));
}

} // namespace kestrel::capture
