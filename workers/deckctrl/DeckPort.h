// A deck with a thread of its own, so that it never keeps another one waiting.
#pragma once

#include "AnswerBox.h"
#include "Deck.h"

#include <deque>
#include <string>
#include <thread>

namespace kestrel::deck {

class DeckPort {
public:
    // Starts the thread; throws std::system_error when it, or an event to wake it with, is not to be had.
    // Answers go to the box, which must outlive this.
    DeckPort(std::string device, const Timing& timing, AnswerBox& answers);
    // Ends the thread: what is going on is broken off, what waits is answered as not carried out.
    ~DeckPort();
    DeckPort(const DeckPort&) = delete;
    DeckPort& operator=(const DeckPort&) = delete;

    // Has a request carried out after those before it; false when too many wait.
    [[nodiscard]] bool submit(const _VTRCmdData& request);
    // Nothing waits or is going on, and the line is closed: nobody misses this port.
    [[nodiscard]] bool unused() const;
    // Asks the thread to end, without waiting for it.
    void stop() noexcept { m_stop.signal(); }

private:
    struct Waiting {
        _VTRCmdData request;
        Clock::time_point since;
    };

    void run();
    [[nodiscard]] std::optional<Waiting> next();
    void answer(Waiting waiting);

    WakeEvent m_stop;
    WakeEvent m_work;
    AnswerBox& m_answers;
    const milliseconds m_stale;
    Deck m_deck;
    mutable Mutex m_mutex;
    std::deque<Waiting> m_waiting GUARDED_BY(m_mutex);
    bool m_unused GUARDED_BY(m_mutex) = false;
    std::thread m_thread; // last, so that it finds the rest made
};

} // namespace kestrel::deck
