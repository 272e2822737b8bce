#include "PassLimit.h"

#include <algorithm>

namespace kestrel::flowscope {
namespace {

constexpr std::int64_t SECOND = 27'000'000;
constexpr std::int64_t TURN = (std::int64_t{1} << 33) * 300;
// Video is sent ahead of its decoding: by a second in MPEG-2, by ten in H.264 (2.7.9, 2.14.3).
constexpr double AHEAD = 10;
// A clock or a sound that leaps ahead has at most stood still so long.
constexpr std::int64_t LONGEST = 5;

std::int64_t stepOf(std::int64_t from, std::int64_t to) noexcept {
    const std::int64_t step = ((to - from) % TURN + TURN) % TURN;
    return step < TURN / 2 ? step : step - TURN;
}

} // namespace

void PassLimit::decoded(double seconds) noexcept {
    m_decoded = seconds;
    m_elapsed = 0;
    m_soundElapsed = 0;
}

void PassLimit::reference(int pid, std::int64_t pcr, bool announced) noexcept {
    if (m_pid < 0 || (announced && pid == m_pid)) {
        m_pid = pid;
        m_last = pcr;
        m_held.reset();
    }
    if (pid != m_pid)
        return;
    const std::int64_t step = stepOf(m_last, pcr);
    if (step >= 0 && step <= SECOND) {
        m_elapsed += step;
    } else if (const std::int64_t on = m_held ? stepOf(*m_held, pcr) : -1;
               on >= 0 && on <= LONGEST * SECOND) {
        // The clock has gone elsewhere, or its references come seldom; one damaged reference is neither.
        m_elapsed += on + std::clamp(stepOf(m_last, *m_held), std::int64_t{0}, LONGEST * SECOND);
    } else {
        m_held = pcr;
        return;
    }
    m_last = pcr;
    m_held.reset();
}

void PassLimit::sound(double seconds) noexcept {
    m_soundElapsed += std::clamp(seconds - m_sound, 0.0, static_cast<double>(LONGEST));
    m_sound = std::max(m_sound, seconds);
}

bool PassLimit::passed() const noexcept {
    if (!m_seconds)
        return false;
    const double since = m_pid >= 0 ? static_cast<double>(m_elapsed) / SECOND : m_soundElapsed;
    return m_decoded + since >= *m_seconds + AHEAD;
}

} // namespace kestrel::flowscope
