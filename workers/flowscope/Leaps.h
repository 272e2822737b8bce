// Times that lie apart from those before them: a damaged one, or a stream that has really gone elsewhere.
//
// The rule for video and sound: a time that leaps is held until others tell what it is worth. Where the next
// one goes on from the times before, it is damaged; where the next one goes on from it, the stream has leapt.
// Where the next agrees with neither it is held, too, and the one behind it tells: of the two the one counts
// from which time goes on, and none where it goes on from the times before. Where all of them follow each
// other, pictures are shown for seconds each, now and then or all the time; else the first of the two is
// damaged.
// Of times in a new time base that is announced behind a held one nothing follows for that: it is the last of
// its own, and like the last of a file it is damaged.
#pragma once

#include "mpeg/pts.h"

#include <cstdint>
#include <cstdlib>

namespace kestrel::flowscope {

// A time that lies further than this from where it is expected leaps, in the units of PTS.
inline constexpr std::int64_t longLeap = PTS::units_per_second;
// The longest that one picture is shown, or one PES packet of sound heard.
inline constexpr std::int64_t longestFrame = 100 * PTS::units_per_second;
// Times that are held at most.
inline constexpr std::size_t mostHeld = 2;

// Whether a step from the last time leaps where another was expected.
inline bool leaps(std::int64_t step, std::int64_t expected) noexcept {
    return step < -longLeap || step > expected + longLeap;
}

// A time that is held, and the next one: steps from the last time to each, and from the one to the other.
struct Leap {
    std::int64_t step;     // to the time that is held
    std::int64_t stepWant; // and what is expected of that
    std::int64_t past;     // from the last time to the next
    std::int64_t pastWant;
    std::int64_t on; // from the time that is held to the next
    std::int64_t onWant;

    // The next goes on right behind it.
    [[nodiscard]] bool goesOn() const noexcept { return std::abs(on - onWant) <= longLeap; }
    // The next is nearer to where the times before lead.
    [[nodiscard]] bool fitsPast() const noexcept {
        return !leaps(past, pastWant) && std::abs(past - pastWant) <= std::abs(on - onWant);
    }
    // Where the last time is the only one: not this one leaps, but that one was wrong.
    [[nodiscard]] bool fromWrongFirst() const noexcept {
        return goesOn() ? step < 0 || step > on + longLeap : step < 0 || step > longestFrame;
    }
};

// Whether one time follows the other as pictures do that are shown for seconds.
inline bool follows(std::int64_t step) noexcept {
    return step > 0 && step <= longestFrame;
}

enum class Verdict { unclear, damaged, real };

// On the first time that is held. second: the other one, null where there is none. newTimeBase: one was
// announced before the next time.
inline Verdict judged(const Leap& first, const Leap* second, bool newTimeBase) noexcept {
    // What is usual may have been learnt from the one before.
    if (!leaps(first.step, first.stepWant))
        return Verdict::real;
    if (newTimeBase || (second == nullptr ? first : *second).fitsPast())
        return Verdict::damaged;
    if (second == nullptr)
        return first.goesOn() ? Verdict::real : Verdict::unclear;
    const bool secondFollows = follows(second->step - first.step);
    // Where nothing is usual yet, or seconds are, that it follows tells more than where the others are.
    const bool slow = second->onWant == 0 || second->onWant >= longLeap;
    if (slow && follows(first.step) && (secondFollows || follows(first.on)))
        return Verdict::real;
    // Pauses one behind the other: a damaged time that lies between two true ones as if it were one of them
    // lengthens nothing.
    const bool inOrder = secondFollows && follows(second->on);
    if (inOrder && follows(first.step))
        return Verdict::real;
    if (second->goesOn())
        return Verdict::damaged;
    const bool inOneDirection = inOrder && (first.step > 0 || second->past < 0);
    return first.goesOn() || inOneDirection ? Verdict::real : Verdict::damaged;
}

} // namespace kestrel::flowscope
