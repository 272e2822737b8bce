#include "RateProfile.h"

#include <algorithm>

namespace kestrel::flowscope {

void RateProfile::add(double seconds, std::uint64_t bytes) {
    // A clock that jumps ahead by years must not take memory with it.
    constexpr double longest = 1e7;
    const double time = std::clamp(seconds, 0.0, longest);
    auto step = static_cast<std::size_t>(time / m_step);
    while (step >= mostSteps) {
        std::vector<std::uint64_t> halved((m_bytes.size() + 1) / 2);
        for (std::size_t i = 0; i < m_bytes.size(); ++i)
            halved[i / 2] += m_bytes[i];
        m_bytes = std::move(halved);
        m_step *= 2;
        step /= 2;
    }
    if (step >= m_bytes.size())
        m_bytes.resize(step + 1);
    m_bytes[step] += bytes;
}

std::vector<double> RateProfile::bitsPerSecond() const {
    std::vector<double> rates;
    for (std::size_t i = 0; i + 1 < m_bytes.size(); ++i)
        rates.push_back(static_cast<double>(m_bytes[i]) * 8 / m_step);
    return rates;
}

} // namespace kestrel::flowscope
