// How far a bounded pass has come where no decoding time of the video tells.
#pragma once

#include <cstdint>
#include <optional>

namespace kestrel::flowscope {

// Goes by the clock references of the first PID that has any, and by the sound where nothing has; both count
// from the latest decoding time on, so that they end a pass only where no more of these come.
class PassLimit {
public:
    explicit PassLimit(std::optional<int> seconds) : m_seconds(seconds) {}

    // The seconds that were asked for; nothing for the whole stream.
    [[nodiscard]] std::optional<int> asked() const noexcept { return m_seconds; }
    // A decoding time came, so many seconds behind the first one.
    void decoded(double seconds) noexcept;
    // A reference of that PID, in ticks of 27 MHz. announced: a new time base begins with it (ISO/IEC
    // 13818-1, 2.4.3.5).
    void reference(int pid, std::int64_t pcr, bool announced) noexcept;
    // So many seconds of a sound have come.
    void sound(double seconds) noexcept;
    // So much more than was asked for has passed that no decoding time of the video will end the pass.
    [[nodiscard]] bool passed() const noexcept;

private:
    std::optional<int> m_seconds;
    double m_decoded = 0; // seconds up to the latest decoding time
    int m_pid = -1;
    std::int64_t m_last = 0;
    std::optional<std::int64_t> m_held; // a reference that leaps
    std::int64_t m_elapsed = 0;         // of the references since that time, without leaps
    double m_sound = 0;
    double m_soundElapsed = 0; // since that time
};

} // namespace kestrel::flowscope
