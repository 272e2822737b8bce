// How long the service waits before it starts the deck-control process again.
#pragma once

#include <algorithm>
#include <chrono>

namespace kestrel {

// A second, doubling to a minute, so that a program which ends at once is not started all the time; a second
// again after a run that was longer than the longest pause.
class RestartPause {
public:
    static constexpr std::chrono::seconds first{1};
    static constexpr std::chrono::seconds longest{60};

    // The pause after a process that ran so long; 0 for one that could not be started.
    [[nodiscard]] std::chrono::seconds after(std::chrono::steady_clock::duration ran) noexcept {
        if (ran > longest)
            m_next = first;
        const std::chrono::seconds pause = m_next;
        m_next = std::min(m_next * 2, longest);
        return pause;
    }

private:
    std::chrono::seconds m_next = first;
};

} // namespace kestrel
