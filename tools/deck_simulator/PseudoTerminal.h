// The deck's end of a serial line: the master side of a pseudo-terminal.
#pragma once

#include "foundation/UniqueFd.h"

#include <cstdint>
#include <span>
#include <string>
#include <sys/types.h>
#include <termios.h>

namespace kestrel::deck_simulator {

class PseudoTerminal {
public:
    // Opens a pair; link, unless empty, becomes a symbolic link to the other end and goes with this object.
    // What went wrong in words, or empty.
    [[nodiscard]] std::string open(const std::string& link);
    // Whoever has the other end open sees its line hang up.
    void close();
    ~PseudoTerminal() { close(); }
    PseudoTerminal() = default;
    PseudoTerminal(const PseudoTerminal&) = delete;
    PseudoTerminal& operator=(const PseudoTerminal&) = delete;

    [[nodiscard]] int fd() const noexcept { return m_master.get(); }
    // Path of the other end: the link when there is one.
    [[nodiscard]] const std::string& path() const noexcept { return m_link.empty() ? m_slave : m_link; }
    // How the other end has set the line.
    [[nodiscard]] termios settings() const noexcept;

    // Bytes that came; 0 when there are none, -1 while nobody has the other end open.
    [[nodiscard]] ssize_t read(std::span<std::uint8_t> bytes) noexcept;
    void write(std::span<const std::uint8_t> bytes) noexcept;

private:
    UniqueFd m_master;
    std::string m_slave;
    std::string m_link;
};

} // namespace kestrel::deck_simulator
