// A serial line to one deck: 38,400 baud, 8 data bits, odd parity, 1 stop bit, raw and exclusive.
#pragma once

#include "Limits.h"
#include "NinePin.h"
#include "foundation/UniqueFd.h"

#include <optional>
#include <string>

namespace kestrel::deck {

// What came of one block that was sent.
struct Exchange {
    enum class Result {
        answered, // reply is the deck's
        silent,   // not a byte came
        garbled,  // bytes came that are no reply
        lost,     // the line is gone
        stopped,  // the process is to end
    };
    Result result = Result::silent;
    Block reply;
    std::string detail; // of garbled and lost: what was seen
};

// What stands against opening a port, in words.
struct OpenProblem {
    std::string text;
    bool inUse = false; // another program, or another thread of this one, has it
};

class SerialPort {
public:
    // Opens the device and sets the line. Nothing when all is well.
    [[nodiscard]] std::optional<OpenProblem> open(const std::string& device);
    [[nodiscard]] bool isOpen() const noexcept { return m_fd.valid(); }
    // To poll, without events of its own, for the end of the line; -1 while it is not open.
    [[nodiscard]] int fd() const noexcept { return m_fd.get(); }
    void close() noexcept;
    ~SerialPort() { close(); }
    SerialPort() = default;
    SerialPort(const SerialPort&) = delete;
    SerialPort& operator=(const SerialPort&) = delete;

    // Sends a block and waits for one reply. What came before it and was not read is thrown away. stopFd ends
    // the wait when it becomes readable; -1 for none.
    [[nodiscard]] Exchange exchange(const Block& block, const Timing& timing, int stopFd);
    // Reads what is still on its way, and throws it away, until no byte comes for timing.byteGap.
    void swallow(const Timing& timing, int stopFd);

private:
    enum class Wait { ready, timeout, hangup, stopped };

    [[nodiscard]] std::optional<OpenProblem> configure();
    [[nodiscard]] Wait wait(short events, Clock::time_point until, int stopFd) const;
    [[nodiscard]] std::optional<Exchange> send(const Block& block, const Timing& timing, int stopFd);
    [[nodiscard]] Exchange receive(const Timing& timing, int stopFd);

    UniqueFd m_fd;
    bool m_reserved = false;
};

} // namespace kestrel::deck
