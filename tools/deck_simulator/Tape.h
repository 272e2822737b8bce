// A tape: how fast it plays, how its timecode counts, and where it begins and ends.
#pragma once

#include "deckctrl/NinePin.h"

#include <optional>
#include <string>
#include <string_view>

namespace kestrel::deck_simulator {

using deck::TapeTime;

// How a tape's timecode runs. Decks count the double rates in pairs of frames.
struct TapeRate {
    std::string_view name;
    double labelsPerSecond; // of real time, at play speed
    int countingCode;       // frame-rate code that counts the labels alike
    bool dropFrame;
    int framesPerLabel; // 2 for the double rates
};

// "25", "29.97df", "29.97", "59.94", ...; nothing for any other name.
[[nodiscard]] std::optional<TapeRate> findRate(std::string_view name) noexcept;
// All of them, for a help text: "23.976, 24, 25, ...".
[[nodiscard]] std::string rateNames();

class Tape {
public:
    Tape(const TapeRate& rate, const TapeTime& start, double seconds);

    [[nodiscard]] const TapeRate& rate() const noexcept { return m_rate; }
    // Positions count in labels from the tape's beginning; this is that of the last one.
    [[nodiscard]] double last() const noexcept { return m_last; }
    // The label at a position.
    [[nodiscard]] TapeTime label(double position) const;
    // Where a label is; before the tape's beginning it is negative, behind its end greater than last().
    // Nothing for a label that this tape's counting does not have.
    [[nodiscard]] std::optional<double> position(const TapeTime& time) const;

private:
    TapeRate m_rate;
    int m_start; // number of the first label within the day
    double m_last;
};

} // namespace kestrel::deck_simulator
