// How far a bounded pass has come where no decoding time of the video tells.
#pragma once

#include "mpeg/pts.h"

#include <cstdint>
#include <optional>

namespace kestrel::flowscope {

// Goes by the clock references of the first PID that has any, and by the times of the sound where nothing
// has.
class PassLimit {
public:
    explicit PassLimit(std::optional<int> seconds) : m_seconds(seconds) {}

    // The seconds that were asked for; nothing for the whole stream.
    [[nodiscard]] std::optional<int> asked() const noexcept { return m_seconds; }
    // A reference of that PID, in ticks of 27 MHz.
    void reference(int pid, std::int64_t pcr);
    // A presentation time of a sound.
    void sound(PTS pts);
    // So much more than was asked for has passed that no decoding time of the video will end the pass.
    [[nodiscard]] bool passed() const noexcept;

private:
    std::optional<int> m_seconds;
    int m_pid = -1;
    std::int64_t m_last = 0;
    std::int64_t m_elapsed = 0; // of the references, without jumps
    PTS m_firstSound{-1};
    PTS m_lastSound{-1};
};

} // namespace kestrel::flowscope
