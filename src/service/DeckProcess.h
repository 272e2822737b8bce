// The deck-control process: started, looked at, and ended within a bounded time.
#pragma once

#include "foundation/UniqueFd.h"

#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace kestrel {

// One thread uses it at a time.
class DeckProcess {
public:
    // Starts the program; 0, or the errno of why no process could be made. A program that cannot be executed
    // is logged, and is a process that ends with 255.
    int start(std::vector<std::string> arguments);
    [[nodiscard]] bool running() const noexcept { return m_pid > 0; }
    // Whether the program of the last start could be executed.
    [[nodiscard]] bool executed() const noexcept { return m_executed; }
    [[nodiscard]] pid_t pid() const noexcept { return m_pid; }
    // Readable once the process has ended; -1 when there is none.
    [[nodiscard]] int descriptor() const noexcept { return m_handle.get(); }

    // When the process has ended: how, in words ("with exit status 3", "by signal 9"). It is then reaped.
    std::optional<std::string> takeEnd();
    // Waits for the end of a process that has been asked to end; after the first time it is terminated,
    // after the second killed. Says how it ended; nothing when it has not even after the third time, which a
    // process that waits for a serial driver may do: it is then no longer this object's.
    std::optional<std::string> waitForEnd(int askedMs, int terminatedMs, int killedMs);

private:
    std::optional<std::string> waitAtMost(int milliseconds);

    pid_t m_pid = -1;
    bool m_executed = false;
    UniqueFd m_handle; // pidfd
};

} // namespace kestrel
