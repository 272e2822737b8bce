// The connection to one deck: opened when it is needed, and again after it was lost; lost replies are asked
// for again.
#pragma once

#include "Limits.h"
#include "SerialPort.h"

#include <optional>
#include <span>
#include <string>
#include <variant>

namespace kestrel::deck {

// What went wrong, and whether there is a deck at all.
struct Problem {
    bool noDeck = false;
    std::string detail;
};

// A deck's reply. Commands that are refused are problems; a refused question comes back as its NAK, since a
// deck may lack a question.
using Reply = std::variant<Block, Problem>;

class DeckLine {
public:
    DeckLine(std::string device, const Timing& timing, int stopFd)
        : m_device(std::move(device)), m_timing(timing), m_stopFd(stopFd) {}

    // How the log calls the deck from here on.
    void setPort(const std::string& port) { m_port = port; }
    // How often a deck has been connected to: another number means that it may be another one.
    [[nodiscard]] int connections() const noexcept { return m_connections; }

    // Sends a block, on a line that is opened if need be, and once more when it is lost.
    [[nodiscard]] Reply ask(const Block& block);

    // To poll for the end of the line while nothing is asked; -1 while it is not open.
    [[nodiscard]] int fd() const noexcept { return m_line.fd(); }
    // The poll told it: closes the line, so that the system may give its name to another device.
    void hungUp();

private:
    [[nodiscard]] std::optional<Problem> connect();
    [[nodiscard]] std::optional<Problem> openLine();
    void lost(const std::string& why);
    // Over the open line; a lost reply is asked for again where that does no harm.
    [[nodiscard]] Reply askOpen(const Block& block, bool& gone);
    void logExchange(const Block& block, const Exchange& exchange) const;

    const std::string m_device;
    const Timing m_timing;
    const int m_stopFd;
    std::string m_port;
    SerialPort m_line;
    int m_connections = 0;
    // Until then a port that others use is tried again; not set while none does.
    std::optional<Clock::time_point> m_inUseUntil;
};

// "the deck answered NAK 04, checksum error"
[[nodiscard]] std::string nakText(const Block& nak);

} // namespace kestrel::deck
