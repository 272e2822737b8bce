// Plays a tape's stream over UDP while the deck plays, as an encoder at its output would send it.
#pragma once

#include "TapeStream.h"
#include "Transport.h"
#include "capture/WakeEvent.h"
#include "foundation/Mutex.h"
#include "foundation/UniqueFd.h"

#include <optional>
#include <string>
#include <thread>

namespace kestrel::deck_simulator {

class TapeSender {
public:
    TapeSender() = default;
    ~TapeSender();
    TapeSender(const TapeSender&) = delete;
    TapeSender& operator=(const TapeSender&) = delete;

    // Loads the file and connects to "ADDRESS:PORT". What stands against it in words, or empty.
    [[nodiscard]] std::string open(const std::string& file, const std::string& target, const Tape& tape);
    // What the deck does now: nothing is sent unless it plays. Sending begins with the first GOP at or after
    // the deck's position, when the tape is there, so that stream and deck show the same time.
    void follow(const std::optional<Transport::Play>& play);

private:
    void run();
    void send(const Transport::Play& play);
    // False when the deck does something else before then.
    [[nodiscard]] bool waitUntil(Clock::time_point when);

    TapeStream m_stream;
    double m_labelsPerSecond = 25;
    UniqueFd m_socket;
    capture::WakeEvent m_wake;
    Mutex m_mutex;
    std::optional<Transport::Play> m_play GUARDED_BY(m_mutex);
    bool m_end GUARDED_BY(m_mutex) = false;
    std::thread m_thread;
};

} // namespace kestrel::deck_simulator
