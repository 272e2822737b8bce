// One tape deck: what requests mean in the 9-pin protocol, and what a deck's replies mean to who asked.
#pragma once

#include "DeckLine.h"
#include "Failure.h"
#include "Limits.h"
#include "foundation/QueueMessages.h"

#include <string>
#include <variant>

namespace kestrel::deck {

// Used by one thread. The line is opened by the first request, and again after it was lost.
class Deck {
public:
    // device: path of the serial port. stopFd ends a wait for the deck when it becomes readable; -1 for none.
    Deck(std::string device, const Timing& timing, int stopFd)
        : m_timing(timing), m_line(std::move(device), timing, stopFd) {}

    // Carries a request out and fills its answer in: error code and text, time, seeking flag. All else in the
    // record stays as it was.
    void carryOut(_VTRCmdData& record);

    // To poll, without events of its own, for the end of the line between two requests; -1 while none is
    // open.
    [[nodiscard]] int lineFd() const noexcept { return m_line.fd(); }
    // The poll told it: the line is closed.
    void lineHungUp() { m_line.hungUp(); }

private:
    using MaybeProblem = std::optional<Problem>;
    using MaybeStatus = std::variant<std::optional<Status>, Problem>;
    using Time = std::variant<TapeTime, Problem>;

    // A cue-up that was begun here and has not ended yet.
    struct Seek {
        std::string target; // as the request named it
        TapeTime time;
        Clock::time_point begun;
        bool fresh;         // what the deck tells of "cue up complete" is of this cue-up
        bool before;        // the tape has moved since before the go-to
        bool moved = false; // for this cue-up
        std::optional<Clock::time_point> standing = {}; // since then the tape has not moved
    };

    [[nodiscard]] MaybeFailure perform(_VTRCmdData& record);
    [[nodiscard]] MaybeProblem transport(const Block& block, const std::string& name);
    [[nodiscard]] MaybeProblem goTo(const std::string& target);
    [[nodiscard]] MaybeProblem currentTime(_VTRCmdData& record);
    [[nodiscard]] MaybeProblem isSeeking(bool& seeking);
    [[nodiscard]] MaybeProblem followSeek(const Status& status, bool& seeking);
    // The tape stands at its target: the cue-up is over.
    void arrived();

    // Whether the deck takes commands over the line and has a tape.
    [[nodiscard]] static MaybeProblem ready(const MaybeStatus& state);
    [[nodiscard]] MaybeProblem ready() { return ready(status()); }
    // Nothing where a deck has no status sense.
    [[nodiscard]] MaybeStatus status();
    [[nodiscard]] Time readTime();

    const Timing m_timing;
    std::string m_port; // name in the request that is being carried out
    DeckLine m_line;
    int m_connection = 0; // that the time source below is of
    TimeSource m_source = TimeSource::asDeckReads;
    std::optional<Seek> m_seek;
};

// Why no deck can carry this request out: its command kind or transport code is unknown.
[[nodiscard]] MaybeFailure unknownIn(const _VTRCmdData& record);

// Makes the record an answer: nothing is success.
void setResult(_VTRCmdData& record, const MaybeFailure& failure);

} // namespace kestrel::deck
