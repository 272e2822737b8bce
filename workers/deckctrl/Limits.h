// Every size, count and waiting time of the deck process, with its unit.
#pragma once

#include <chrono>
#include <cstddef>

namespace kestrel::deck {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// What the line and the decks are given; tests and slow adapters choose others.
struct Timing {
    // A deck answers within 9 ms; a USB adapter may keep its answer back for 16 ms more.
    milliseconds reply{150};
    // Between two bytes of a reply. The protocol allows 10 ms.
    milliseconds byteGap{50};
    // A port in use is tried for so long: the deck process before this one looks every second whether it is
    // to end.
    milliseconds inUse{1500};
    int tries = 3; // of a command whose reply was lost
    // A deck that was told to cue up moves its tape by then: many unthread, wind off or spin up first.
    milliseconds begin{10'000};
    // A tape that has stood for so long during a cue-up is where the deck wants it.
    milliseconds settle{2000};
    // From one end of the longest tape to the other.
    milliseconds seek{10 * 60 * 1000};
    // A request that has waited this long for its deck is not carried out: whoever sent it has given it up.
    milliseconds stale{25'000};
};

// Bytes that are kept of what is no reply, and time after which a deck that sends without end is not listened
// to any longer.
inline constexpr std::size_t garbageBytes = 64;
inline constexpr milliseconds garbageTime{500};

// Requests that may wait for one deck, decks at once, and answers that may wait for room in the queue.
inline constexpr std::size_t waitingRequests = 64;
inline constexpr std::size_t mostDecks = 64;
inline constexpr std::size_t waitingAnswers = 1000;

// How often a port in use is tried.
inline constexpr milliseconds inUsePause{50};

// How often it is looked whether the queues still have their names.
inline constexpr milliseconds queueCheck{1000};
// How long the last answers wait for room at the end.
inline constexpr milliseconds finalSendTime{1000};

} // namespace kestrel::deck
