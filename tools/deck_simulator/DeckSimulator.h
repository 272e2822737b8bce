// A tape deck at the other end of a pseudo-terminal, with a thread of its own.
#pragma once

#include "Options.h"
#include "Orders.h"
#include "PseudoTerminal.h"
#include "Responder.h"
#include "TapeSender.h"
#include "capture/WakeEvent.h"
#include "foundation/Mutex.h"

#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace kestrel::deck_simulator {

class DeckSimulator {
public:
    // Lines that tell what the deck does: "play 10:00:00:00", "line unplugged". Called by any thread.
    using Report = std::function<void(const std::string& line)>;

    explicit DeckSimulator(SimulatorOptions options, Report report = {});
    ~DeckSimulator();
    DeckSimulator(const DeckSimulator&) = delete;
    DeckSimulator& operator=(const DeckSimulator&) = delete;

    // Plugs the line in and begins. What stands against it in words, or empty.
    [[nodiscard]] std::string start();

    // Carries an order out; false for a line that is none.
    bool order(std::string_view line);

    // The path that a controller opens.
    [[nodiscard]] std::string device() const;
    [[nodiscard]] TapeTime time() const;
    [[nodiscard]] Transport::State state() const;
    // What the deck tells of its mechanics.
    [[nodiscard]] deck::Status status() const;
    // Every block with a correct checksum so far.
    [[nodiscard]] std::vector<deck::Block> received() const;
    // How the controller has set the line.
    [[nodiscard]] termios lineSettings() const;

private:
    struct Due {
        Clock::time_point when;
        std::vector<std::uint8_t> bytes;
    };

    void run();
    // Milliseconds for poll; what is due by now is done first.
    [[nodiscard]] int timeout() REQUIRES(m_mutex);
    void readLine();
    void takeByte(std::uint8_t byte) REQUIRES(m_mutex);
    void takeBlock() REQUIRES(m_mutex);
    void obey(const Order& order) REQUIRES(m_mutex);
    void plug() REQUIRES(m_mutex);
    void unplug() REQUIRES(m_mutex);
    void tell(const std::string& line) REQUIRES(m_mutex);
    // Reports a state that is not the last reported one, and has the stream follow it.
    void noteState() REQUIRES(m_mutex);

    const SimulatorOptions m_options;
    const Report m_report;
    capture::WakeEvent m_wake;
    mutable Mutex m_mutex;
    bool m_end GUARDED_BY(m_mutex) = false;
    PseudoTerminal m_line GUARDED_BY(m_mutex);
    bool m_hungUp GUARDED_BY(m_mutex) = false; // nobody has the other end open
    Responder m_responder GUARDED_BY(m_mutex);
    deck::BlockParser m_parser GUARDED_BY(m_mutex);
    Clock::time_point m_lastByte GUARDED_BY(m_mutex);
    std::vector<Due> m_due GUARDED_BY(m_mutex);
    std::vector<deck::Block> m_received GUARDED_BY(m_mutex);
    int m_unplugAfter GUARDED_BY(m_mutex);
    std::string m_told GUARDED_BY(m_mutex);
    TapeSender m_sender;
    std::thread m_thread;
};

} // namespace kestrel::deck_simulator
