// The deck's mechanics: what the tape does under each command, and where it is. Time is given from outside.
#pragma once

#include "Tape.h"

#include <chrono>
#include <optional>

namespace kestrel::deck_simulator {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// How long things take.
struct Mechanics {
    milliseconds spinUp{400};         // from standing still to a moving tape
    double windSpeed = 50;            // times play speed
    std::optional<milliseconds> seek; // a cue-up takes as long; without it, as winding does
};

class Transport {
public:
    enum class State { stop, still, play, fastForward, rewind, shuttle, jog, cueUp, cassetteOut };

    // Stopped at the beginning of the tape.
    Transport(const Tape& tape, const Mechanics& mechanics) : m_tape(tape), m_mechanics(mechanics) {}

    // Commands; without a cassette they do nothing. Each takes in first what has happened by itself until
    // now.
    void stop(Clock::time_point now);
    void still(Clock::time_point now);
    void play(Clock::time_point now);
    void wind(bool forward, Clock::time_point now);
    // Times play speed, negative is backwards; 0 shows a still picture.
    void shuttle(double speed, Clock::time_point now);
    void jog(double speed, Clock::time_point now);
    void step(int labels, Clock::time_point now);
    // False for a label that this tape does not count.
    bool cueUp(const TapeTime& target, Clock::time_point now);
    void eject(Clock::time_point now);
    // The cassette goes in at its beginning.
    void insert(Clock::time_point now);

    // Cue-ups begin so much later; until then the status tells of what was before.
    void setLag(milliseconds lag) noexcept { m_lag = lag; }

    // Takes in what happens by itself: a cue-up that arrives, an end of the tape.
    void advance(Clock::time_point now);
    // When the next such thing happens.
    [[nodiscard]] std::optional<Clock::time_point> nextChange() const;

    [[nodiscard]] const Tape& tape() const noexcept { return m_tape; }
    [[nodiscard]] State state() const noexcept { return m_state; }
    [[nodiscard]] double position(Clock::time_point now) const;
    [[nodiscard]] TapeTime time(Clock::time_point now) const { return m_tape.label(position(now)); }
    [[nodiscard]] bool moving(Clock::time_point now) const noexcept { return m_speed != 0 && now >= m_begin; }
    [[nodiscard]] deck::Status status(Clock::time_point now) const;
    // "play 10:00:00:00"
    [[nodiscard]] std::string describe(Clock::time_point now) const;

    // A play that goes on: the tape was at this position when it began to move, which may be yet to come.
    struct Play {
        double position;
        Clock::time_point begin;
        bool operator==(const Play&) const = default;
    };
    [[nodiscard]] std::optional<Play> playing() const;

private:
    // From where the tape is, at this many times play speed, after the spin-up if it stands.
    void move(State state, double speed, Clock::time_point now);
    // A cue-up was ordered and has not begun.
    [[nodiscard]] bool lagging(Clock::time_point now) const noexcept {
        return m_state == State::cueUp && now < m_begin;
    }
    void standAt(State state, double position, Clock::time_point now);

    Tape m_tape;
    Mechanics m_mechanics;
    State m_state = State::stop;
    double m_from = 0;
    Clock::time_point m_begin;
    double m_speed = 0; // labels per second
    double m_limit = 0; // position at which the movement ends
    bool m_cued = false;
    bool m_targetOnTape = true;
    milliseconds m_lag{0};
};

} // namespace kestrel::deck_simulator
