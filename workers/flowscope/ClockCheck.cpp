#include "ClockCheck.h"

#include <algorithm>
#include <cmath>

namespace kestrel::flowscope {
namespace {

constexpr std::int64_t TURN = (std::int64_t{1} << 33) * 300; // the counter begins again
constexpr std::int64_t SECOND = 27'000'000;
constexpr std::int64_t LONGEST_INTERVAL = SECOND / 10;
constexpr std::size_t MOST_SAMPLES = 4096;

} // namespace

void ClockCheck::reference(std::int64_t pcr, std::int64_t packet) {
    if (m_last >= 0 && pcr < m_last - TURN / 2)
        m_turns += TURN;
    if (m_last >= 0) {
        const std::int64_t step = (pcr - m_last + TURN) % TURN;
        if (step > SECOND) {
            ++m_jumps;
            m_samples.clear();
        } else {
            m_longest = std::max(m_longest, step);
            m_tooLong += step > LONGEST_INTERVAL ? 1 : 0;
        }
    }
    m_last = pcr;
    if (m_count++ % m_every != 0)
        return;
    m_samples.push_back({pcr + m_turns, packet});
    if (m_samples.size() < MOST_SAMPLES)
        return;
    // Every second one is dropped, so that a recording of days takes no more room.
    for (std::size_t i = 0; i < MOST_SAMPLES / 2; ++i)
        m_samples[i] = m_samples[2 * i];
    m_samples.resize(MOST_SAMPLES / 2);
    m_every *= 2;
}

double ClockCheck::jitterUs() const {
    if (m_jumps != 0 || m_samples.size() < 3)
        return 0;
    const Sample& first = m_samples.front();
    const Sample& last = m_samples.back();
    const double rate =
        static_cast<double>(last.pcr - first.pcr) / static_cast<double>(last.packet - first.packet);
    double most = 0;
    for (const Sample& sample : m_samples)
        most = std::max(most, std::abs(static_cast<double>(sample.pcr - first.pcr) -
                                       rate * static_cast<double>(sample.packet - first.packet)));
    return most / 27;
}

} // namespace kestrel::flowscope
