#include "RateProfile.h"

#include <algorithm>

namespace kestrel::flowscope {
namespace {

// Makes room for the step of that time and returns its index. Two steps become one by join.
template <typename T, typename Join>
std::size_t stepAt(std::vector<T>& steps, int& length, double seconds, Join join) {
    // A clock that jumps ahead by years must not take memory with it.
    constexpr double longest = 1e7;
    const double time = std::clamp(seconds, 0.0, longest);
    auto step = static_cast<std::size_t>(time / length);
    while (step >= RateProfile::mostSteps) {
        std::vector<T> halved((steps.size() + 1) / 2);
        for (std::size_t i = 0; i < steps.size(); ++i)
            halved[i / 2] = join(halved[i / 2], steps[i]);
        steps = std::move(halved);
        length *= 2;
        step /= 2;
    }
    if (step >= steps.size())
        steps.resize(step + 1);
    return step;
}

} // namespace

void RateProfile::add(double seconds, std::uint64_t bytes) {
    const std::size_t step =
        stepAt(m_bytes, m_step, seconds, [](std::uint64_t a, std::uint64_t b) { return a + b; });
    m_bytes[step] += bytes;
}

std::vector<double> RateProfile::bitsPerSecond() const {
    std::vector<double> rates;
    for (std::size_t i = 0; i + 1 < m_bytes.size(); ++i)
        rates.push_back(static_cast<double>(m_bytes[i]) * 8 / m_step);
    return rates;
}

void PeakProfile::add(double seconds, double value) {
    const std::size_t step =
        stepAt(m_peaks, m_step, seconds, [](double a, double b) { return std::max(a, b); });
    m_peaks[step] = std::max(m_peaks[step], value);
}

} // namespace kestrel::flowscope
