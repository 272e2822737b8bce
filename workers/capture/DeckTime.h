// The time of a tape as its deck shows it.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kestrel::capture {

// A label of a tape. Decks count at most 30 frames a second; at the double rates a label stands for a pair of
// frames.
struct DeckTime {
    int hours = 0;
    int minutes = 0;
    int seconds = 0;
    int frames = 0;
    bool drop = false; // ';' before the frames

    // "hh:mm:ss:ff", with ';', '.' or ',' for a ':' too; none for any other text or a time out of bounds. A
    // frame number of 30 and more is one of a double rate and becomes that of its pair.
    [[nodiscard]] static std::optional<DeckTime> parse(std::string_view text);
    // Seconds of the day, when a second has so many labels. Dropped labels are not made up for: this is to
    // find a place on a tape, not to count frames.
    [[nodiscard]] double secondsOfDay(int labelsPerSecond) const;
    // The same label so many seconds before, through midnight; where drop-frame counting leaves that out, the
    // next one.
    [[nodiscard]] DeckTime before(int count) const;
    // "hh:mm:ss:ff", ';' before the frames when drop-frame.
    [[nodiscard]] std::string text() const;
    bool operator==(const DeckTime&) const = default;
};

// Seconds from one time of day to another, the shorter way round: negative when `to` lies before.
[[nodiscard]] double secondsBetween(double from, double to);

} // namespace kestrel::capture
