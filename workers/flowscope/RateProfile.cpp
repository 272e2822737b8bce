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

RateProfile::Step& RateProfile::at(double seconds) {
    return m_steps[stepAt(m_steps, m_length, seconds, [](const Step& a, const Step& b) {
        return Step{a.bytes + b.bytes, a.lacksSome || b.lacksSome};
    })];
}

void RateProfile::add(double seconds, std::uint64_t bytes) {
    at(seconds).bytes += bytes;
}

void RateProfile::lose(double from, double to) {
    for (double seconds = from; seconds < to; seconds += m_length)
        at(seconds).lacksSome = true;
    at(to).lacksSome = true;
}

double RateProfile::bitsPerSecond(const Step& step) const {
    return static_cast<double>(step.bytes) * 8 / m_length;
}

std::vector<double> RateProfile::bitsPerSecond() const {
    std::vector<double> rates;
    for (std::size_t i = 0; i + 1 < m_steps.size(); ++i)
        rates.push_back(bitsPerSecond(m_steps[i]));
    return rates;
}

bool RateProfile::constant(double tolerance) const {
    std::vector<double> rates;
    for (std::size_t i = 0; i + 1 < m_steps.size(); ++i)
        if (!m_steps[i].lacksSome)
            rates.push_back(bitsPerSecond(m_steps[i]));
    if (rates.size() < 2 || 2 * rates.size() + 1 < m_steps.size())
        return false;
    const auto [least, most] = std::minmax_element(rates.begin(), rates.end());
    return *most - *least <= tolerance * *most;
}

void PeakProfile::add(double seconds, double value) {
    const std::size_t step =
        stepAt(m_peaks, m_step, seconds, [](double a, double b) { return std::max(a, b); });
    m_peaks[step] = std::max(m_peaks[step], value);
}

} // namespace kestrel::flowscope
