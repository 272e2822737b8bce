// How far a bounded pass has come where no decoding time of the video tells.
#pragma once

#include <cstdint>
#include <optional>

namespace kestrel::flowscope {

// Goes by the clock references of the first PID that has any, and by the sound where nothing has.
class PassLimit {
public:
    explicit PassLimit(std::optional<int> seconds) : m_seconds(seconds) {}

    // The seconds that were asked for; nothing for the whole stream.
    [[nodiscard]] std::optional<int> asked() const noexcept { return m_seconds; }
    // A reference of that PID, in ticks of 27 MHz.
    void reference(int pid, std::int64_t pcr);
    // So many seconds of a sound have come.
    void sound(double seconds) noexcept;
    // So much more than was asked for has passed that no decoding time of the video will end the pass.
    [[nodiscard]] bool passed() const noexcept;

private:
    std::optional<int> m_seconds;
    int m_pid = -1;
    std::int64_t m_last = 0;
    std::int64_t m_elapsed = 0; // of the references, without jumps
    double m_sound = 0;
};

} // namespace kestrel::flowscope
