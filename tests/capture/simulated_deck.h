// A tape deck in a few lines: a position that moves with the time it is given, and answers to command
// records.
#pragma once

#include "capture/DeckLink.h"
#include "foundation/QueueMessages.h"

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace capture_test {

class SimulatedDeck {
public:
    using Clock = std::chrono::steady_clock;

    // The tape stands at a label, counted by a frame-rate code (3: 25; 4: 29.97, drop-frame).
    SimulatedDeck(const std::string& label, int rateCode, Clock::time_point now);

    // What makes this deck a bad one.
    std::chrono::milliseconds spinUp{0}; // from play to movement
    double playSpeed = 1;                // of play: 0 never moves, -1 runs backwards
    double shuttleSpeed = 1;             // of shuttle, times what was asked for
    double seekSeconds = 1;              // of a go to
    int seekError = 0;                   // frames by which it misses
    bool stepsStick = false;
    bool pauseSticks = false; // it runs on
    // Called before a record is carried out; gives an error code and text, or nothing.
    std::function<std::optional<kestrel::capture::Failure>(const _VTRCmdData&)> refuse;

    // Carries a record out and fills in the answer.
    void handle(_VTRCmdData& record, Clock::time_point now);
    // The same of a request without a record.
    kestrel::capture::DeckAnswer answer(const kestrel::capture::DeckRequest& request, Clock::time_point now);

    [[nodiscard]] double frame(Clock::time_point now) const; // within the day
    [[nodiscard]] std::string label(Clock::time_point now) const;
    [[nodiscard]] bool playing() const { return m_playing; }
    // The tape is moved by hand.
    void place(const std::string& label, Clock::time_point now);
    // What was asked, in order, without queries that repeat.
    [[nodiscard]] const std::vector<std::string>& heard() const { return m_heard; }
    [[nodiscard]] int count(const std::string& request) const;

private:
    void run(double speed, Clock::time_point now);
    [[nodiscard]] double number(const std::string& label) const;

    int m_rateCode;
    double m_from = 0; // frame at m_since
    double m_speed = 0;
    bool m_playing = false;
    Clock::time_point m_since;
    std::optional<Clock::time_point> m_seekEnd;
    double m_seekTarget = 0;
    std::vector<std::string> m_heard;
};

} // namespace capture_test
