// Times that lie apart from those before them: a damaged one, or a stream that has really gone elsewhere.
#pragma once

#include "mpeg/pts.h"

#include <cstdint>
#include <cstdlib>

namespace kestrel::flowscope {

// A time that lies further than this from where it is expected leaps, in the units of PTS.
inline constexpr std::int64_t longLeap = PTS::units_per_second;

// Whether a step from the last time leaps where another was expected.
inline bool leaps(std::int64_t step, std::int64_t expected) noexcept {
    return step < -longLeap || step > expected + longLeap;
}

// A time that leaps, and the next one: steps from the last time to each, and from the one to the other.
struct Leap {
    std::int64_t step;     // to the time that leaps
    std::int64_t past;     // from the last time to the next
    std::int64_t pastWant; // and what is expected of that
    std::int64_t on;       // from the time that leaps to the next
    std::int64_t onWant;

    // The next goes on right behind it.
    [[nodiscard]] bool goesOn() const noexcept { return std::abs(on - onWant) <= longLeap; }
    // Where the last time is the only one: not this one leaps, but that one was wrong.
    [[nodiscard]] bool fromWrongFirst() const noexcept {
        return goesOn() && (step < 0 || step > on + longLeap);
    }
    // The next bears it out: one that is nearer to where the times before lead does not.
    [[nodiscard]] bool confirmed() const noexcept {
        if (!leaps(past, pastWant) && std::abs(past - pastWant) <= std::abs(on - onWant))
            return false;
        // Pictures may be shown for seconds each: time that goes on in the same direction is no damage.
        return goesOn() || (on > 0 && (step > 0 || past < 0));
    }
};

} // namespace kestrel::flowscope
