#include "ClockCheck.h"

#include <algorithm>
#include <cmath>

namespace kestrel::flowscope {
namespace {

constexpr std::int64_t TURN = (std::int64_t{1} << 33) * 300; // the counter begins again
constexpr std::int64_t SECOND = 27'000'000;
constexpr std::int64_t LONGEST_INTERVAL = SECOND / 10;
constexpr std::size_t MOST_SAMPLES = 4096;
constexpr double TICKS_PER_US = 27;

} // namespace

void ClockCheck::reference(std::int64_t pcr, std::int64_t packet, bool announced, std::optional<double> at) {
    if (m_last >= 0) {
        const std::int64_t step = (pcr - m_last + TURN) % TURN;
        if (announced || step > SECOND) {
            ++(announced ? m_newTimeBases : m_jumps);
            m_jitter = ofAll();
            m_samples.clear();
        } else {
            m_elapsed += step;
            m_longest = std::max(m_longest, step);
            m_tooLong += step > LONGEST_INTERVAL ? 1 : 0;
            m_intervals.add(at.value_or(elapsedSeconds()), static_cast<double>(step) / 27'000);
        }
    }
    m_last = pcr;
    if (m_count++ % m_every != 0)
        return;
    m_samples.push_back({m_elapsed, packet, at.value_or(elapsedSeconds())});
    if (m_samples.size() < MOST_SAMPLES)
        return;
    // Every second one is dropped, so that a recording of days takes no more room.
    for (std::size_t i = 0; i < MOST_SAMPLES / 2; ++i)
        m_samples[i] = m_samples[2 * i];
    m_samples.resize(MOST_SAMPLES / 2);
    m_every *= 2;
}

bool ClockCheck::constantRate() const {
    constexpr double TOLERANCE = 0.01;
    double least = 0;
    double most = 0;
    int spans = 0;
    for (std::size_t begin = 0, i = 1; i < m_samples.size(); ++i) {
        if (m_samples[i].pcr - m_samples[begin].pcr < SECOND)
            continue;
        const double rate = static_cast<double>(m_samples[i].packet - m_samples[begin].packet) /
                            static_cast<double>(m_samples[i].pcr - m_samples[begin].pcr);
        least = spans == 0 ? rate : std::min(least, rate);
        most = std::max(most, rate);
        ++spans;
        begin = i;
    }
    return spans >= 2 && most > 0 && most - least <= TOLERANCE * most;
}

// From the line between the first and the last reference of the stretch.
double ClockCheck::distanceUs(const Sample& sample) const {
    const Sample& first = m_samples.front();
    const Sample& last = m_samples.back();
    const double rate =
        static_cast<double>(last.pcr - first.pcr) / static_cast<double>(last.packet - first.packet);
    return std::abs(static_cast<double>(sample.pcr - first.pcr) -
                    rate * static_cast<double>(sample.packet - first.packet)) /
           TICKS_PER_US;
}

std::optional<ClockCheck::Distance> ClockCheck::ofStretch() const {
    if (!constantRate())
        return std::nullopt;
    Distance most{0, m_samples.front().packet};
    for (const Sample& sample : m_samples)
        if (const double us = distanceUs(sample); us > most.us)
            most = {us, sample.packet};
    return most;
}

std::optional<ClockCheck::Distance> ClockCheck::ofAll() const {
    const std::optional<Distance> latest = ofStretch();
    return !m_jitter || (latest && latest->us > m_jitter->us) ? latest : m_jitter;
}

std::optional<double> ClockCheck::jitterUs() const {
    const auto most = ofAll();
    return most ? std::optional(most->us) : std::nullopt;
}

std::optional<std::int64_t> ClockCheck::jitterPacket() const {
    const auto most = ofAll();
    return most ? std::optional(most->packet) : std::nullopt;
}

PeakProfile ClockCheck::jitterOverTime() const {
    PeakProfile profile;
    if (constantRate())
        for (const Sample& sample : m_samples)
            profile.add(sample.at, distanceUs(sample));
    return profile;
}

} // namespace kestrel::flowscope
