#include "PassLimit.h"

#include <algorithm>

namespace kestrel::flowscope {
namespace {

constexpr std::int64_t SECOND = 27'000'000;
constexpr std::int64_t TURN = (std::int64_t{1} << 33) * 300;
// Video is sent ahead of its decoding: by a second in MPEG-2, by ten in H.264 (2.7.9, 2.14.3).
constexpr double AHEAD = 10;

} // namespace

void PassLimit::reference(int pid, std::int64_t pcr) {
    if (m_pid < 0) {
        m_pid = pid;
        m_last = pcr;
    }
    if (pid != m_pid)
        return;
    const std::int64_t step = (pcr - m_last + TURN) % TURN;
    // A clock that goes back stands still here; one that leaps ahead has at most stood still so long.
    constexpr std::int64_t LONGEST = 10 * SECOND;
    if (step < TURN / 2)
        m_elapsed += std::min(step, LONGEST);
    m_last = pcr;
}

void PassLimit::sound(double seconds) noexcept {
    m_sound = std::max(m_sound, seconds);
}

bool PassLimit::passed() const noexcept {
    if (!m_seconds)
        return false;
    const double passed = m_pid >= 0 ? static_cast<double>(m_elapsed) / SECOND : m_sound;
    return passed >= *m_seconds + AHEAD;
}

} // namespace kestrel::flowscope
