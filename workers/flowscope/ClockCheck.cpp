#include "ClockCheck.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace kestrel::flowscope {
namespace {

constexpr std::int64_t TURN = (std::int64_t{1} << 33) * 300; // the counter begins again
constexpr std::int64_t SECOND = 27'000'000;
constexpr std::int64_t LONGEST_INTERVAL = SECOND / 10;
constexpr std::size_t MOST_SAMPLES = 4096;
constexpr double TICKS_PER_US = 27;
// Of one line that jitter is measured from. What is off at its ends bends it, so only those in its middle
// third are measured by it, and at the beginning and end of a stretch those that are in no other's.
constexpr std::int64_t LINE = 12 * SECOND;
// References that are held for it. Where more come, lines are shorter.
constexpr std::size_t MOST_RECENT = 16'384;

} // namespace

// Of references that all keep to about that pace, in ticks a packet, the two that lie farthest apart.
std::pair<ClockCheck::Sample, ClockCheck::Sample> ClockCheck::outermost(std::span<const Sample> samples,
                                                                        double pace) {
    const Sample& first = samples.front();
    const auto off = [&](const Sample& sample) {
        return static_cast<double>(sample.pcr - first.pcr) -
               pace * static_cast<double>(sample.packet - first.packet);
    };
    // Never the same one.
    std::size_t least = 0;
    std::size_t most = 1;
    if (off(samples[0]) > off(samples[1]))
        std::swap(least, most);
    for (std::size_t i = 2; i < samples.size(); ++i) {
        if (off(samples[i]) < off(samples[least]))
            least = i;
        else if (off(samples[i]) > off(samples[most]))
            most = i;
    }
    return {samples[std::min(least, most)], samples[std::max(least, most)]};
}

void ClockCheck::reference(std::int64_t pcr, std::int64_t packet, bool announced, std::optional<double> at) {
    bool anew = false;
    if (m_last >= 0) {
        const std::int64_t step = (pcr - m_last + TURN) % TURN;
        if (announced || step > SECOND) {
            ++(announced ? m_newTimeBases : m_jumps);
            endStretch(!announced);
            anew = true;
        } else {
            m_elapsed += step;
            m_longest = std::max(m_longest, step);
            m_tooLong += step > LONGEST_INTERVAL ? 1 : 0;
            m_intervals.add(at.value_or(elapsedSeconds()), static_cast<double>(step) / 27'000);
        }
    }
    m_last = pcr;
    m_lossy.reference(m_elapsed, packet, anew);
    if (std::exchange(m_suspected, false) && m_lossy.leftBehind(m_elapsed - 1))
        lose();
    ++m_count;
    const Sample sample{m_elapsed, packet, at.value_or(elapsedSeconds())};
    keep(sample);
    keepRecent(sample);
}

void ClockCheck::keepRecent(const Sample& sample) {
    m_recent.push_back(sample);
    const std::int64_t begin = m_recent.front().pcr;
    const auto countBefore = [&](std::int64_t ticks) {
        const auto place =
            std::lower_bound(m_recent.begin(), m_recent.end(), begin + ticks,
                             [](const Sample& each, std::int64_t pcr) { return each.pcr < pcr; });
        return static_cast<std::size_t>(place - m_recent.begin());
    };
    std::size_t third = MOST_RECENT / 4;
    std::size_t measured = 2 * third;
    std::size_t end = 3 * third;
    // Of the last second it is not known yet whether packets are lost there.
    if (sample.pcr - begin >= LINE + SECOND) {
        third = countBefore(LINE / 3);
        measured = countBefore(2 * LINE / 3);
        end = countBefore(LINE);
    } else if (m_recent.size() < MOST_RECENT) {
        return;
    }
    // Where references come more or less often than before, more may have been measured by the line before.
    measured = std::max(measured, m_measured);
    const std::span<const Sample> all(m_recent);
    measure(lineOf(all.first(end)), all.subspan(m_measured, measured - m_measured), m_farthest,
            m_jitterOverTime);
    m_measured = measured - third;
    m_recent.erase(m_recent.begin(), m_recent.begin() + static_cast<std::ptrdiff_t>(third));
}

void ClockCheck::measureRest(std::optional<Distance>& farthest, PeakProfile& overTime) const {
    const std::span<const Sample> all(m_recent);
    measure(lineOf(all), all.subspan(std::min(all.size(), m_measured)), farthest, overTime);
}

void ClockCheck::measure(const Line& line, std::span<const Sample> samples, std::optional<Distance>& farthest,
                         PeakProfile& overTime) {
    for (const Sample& sample : samples) {
        const double us = line.distance(sample) / TICKS_PER_US;
        if (!farthest || us > farthest->us)
            farthest = {us, sample.packet};
        overTime.add(sample.at, us);
    }
}

void ClockCheck::keep(const Sample& sample) {
    m_samples.push_back(sample);
    const Sample& from = m_samples.front();
    const auto packets = static_cast<double>(sample.packet - from.packet);
    const double slope = packets > 0 ? static_cast<double>(sample.pcr - from.pcr) / packets : 0;
    const auto thin = [&](std::size_t begin, std::size_t count, std::size_t to) {
        const auto two = outermost(std::span<const Sample>(m_samples).subspan(begin, count), slope);
        m_samples[to] = two.first;
        m_samples[to + 1] = two.second;
    };
    if (++m_inGroup > 2) {
        thin(m_samples.size() - 3, 3, m_samples.size() - 3);
        m_samples.pop_back();
    }
    if (m_inGroup < m_group)
        return;
    m_inGroup = 0;
    if (m_samples.size() < MOST_SAMPLES)
        return;
    // Two groups become one, so that a recording of days takes no more room.
    for (std::size_t i = 0; i < MOST_SAMPLES; i += 4)
        thin(i, 4, i / 2);
    m_samples.resize(MOST_SAMPLES / 2);
    m_group *= 2;
}

void ClockCheck::endStretch(bool byJump) {
    m_jitter = ofAll();
    m_pace.join(paceOfStretch(byJump));
    m_beganByJump = byJump;
    m_samples.clear();
    m_group = leastGroup;
    m_inGroup = 0;
    m_recent.clear();
    m_measured = 0;
    m_farthest.reset();
    m_jitterOverTime = {};
}

void ClockCheck::lose() {
    ++m_losses;
    if (m_samples.empty())
        return;
    // The counter of a PID tells of a loss when its next packet comes.
    for (auto* const samples : {&m_samples, &m_recent})
        while (!samples->empty() && samples->back().pcr > m_elapsed - SECOND)
            samples->pop_back();
    endStretch(false);
}

void ClockCheck::suspectLoss() {
    if (m_lossy.leftBehind(m_elapsed - SECOND))
        lose();
    else
        m_suspected = true;
}

void ClockCheck::Pace::join(const Pace& other) {
    if (other.spans == 0)
        return;
    least = spans == 0 ? other.least : std::min(least, other.least);
    most = std::max(most, other.most);
    spans += other.spans;
    packetsSquared += other.packetsSquared;
    packetsByTicks += other.packetsByTicks;
    farthest = std::max(farthest, other.farthest);
}

bool ClockCheck::Pace::constant(int spansWanted) const {
    constexpr double TOLERANCE = 0.01;
    return spans >= spansWanted && most > 0 && most - least <= TOLERANCE * most;
}

ClockCheck::Pace ClockCheck::paceOf(std::span<const Sample> samples, std::int64_t shortest) {
    Pace pace;
    std::size_t begin = 0;
    const auto rateOf = [&](std::size_t from, std::size_t to) {
        return static_cast<double>(samples[to].packet - samples[from].packet) /
               static_cast<double>(samples[to].pcr - samples[from].pcr);
    };
    for (std::size_t i = 1; i < samples.size(); ++i) {
        if (samples[i].pcr - samples[begin].pcr < shortest)
            continue;
        // Of two the one that is nearer to the mean ends a span: a single one that is off ends none.
        const auto departure = [&](std::size_t end) {
            return std::abs(rateOf(begin, end) - rateOf(0, samples.size() - 1));
        };
        if (i + 1 < samples.size() && departure(i + 1) < departure(i))
            ++i;
        const double rate = rateOf(begin, i);
        pace.least = pace.spans == 0 ? rate : std::min(pace.least, rate);
        pace.most = std::max(pace.most, rate);
        ++pace.spans;
        begin = i;
    }
    if (pace.spans == 0)
        return pace;
    const auto whole = samples.first(begin + 1);
    const Line line = lineOf(whole);
    pace.packetsSquared = line.packetsSquared;
    pace.packetsByTicks = line.packetsByTicks;
    for (const Sample& sample : whole)
        pace.farthest = std::max(pace.farthest, line.distance(sample));
    return pace;
}

ClockCheck::Line ClockCheck::lineOf(std::span<const Sample> samples) {
    Line line;
    if (samples.empty())
        return line;
    line.first = samples.front();
    for (const Sample& sample : samples) {
        line.packets += static_cast<double>(sample.packet - line.first.packet);
        line.ticks += static_cast<double>(sample.pcr - line.first.pcr);
    }
    line.packets /= static_cast<double>(samples.size());
    line.ticks /= static_cast<double>(samples.size());
    for (const Sample& sample : samples) {
        const double distance = static_cast<double>(sample.packet - line.first.packet) - line.packets;
        line.packetsSquared += distance * distance;
        line.packetsByTicks += distance * (static_cast<double>(sample.pcr - line.first.pcr) - line.ticks);
    }
    return line;
}

// Which packet bears a reference is exact, its time is not: ticks by packets, not packets by ticks.
double ClockCheck::Line::distance(const Sample& sample) const {
    const double slope = packetsSquared > 0 ? packetsByTicks / packetsSquared : 0;
    return std::abs(static_cast<double>(sample.pcr - first.pcr) - ticks -
                    slope * (static_cast<double>(sample.packet - first.packet) - packets));
}

ClockCheck::Pace ClockCheck::paceOfStretch(bool endsByJump) const {
    std::span<const Sample> samples(m_samples);
    while (m_beganByJump && !samples.empty() && samples.front().pcr < m_samples.front().pcr + SECOND)
        samples = samples.subspan(1);
    while (endsByJump && !samples.empty() && samples.back().pcr > m_samples.back().pcr - SECOND)
        samples = samples.first(samples.size() - 1);
    return paceOf(samples, SECOND);
}

bool ClockCheck::constantRate() const {
    return paceOf(m_samples, SECOND).constant(2);
}

std::optional<ClockCheck::ConstantRate> ClockCheck::rate() const {
    // Half of what a reference is off by: the line leads through others that may be off, too.
    if (const auto lossy = m_losses == 0 ? std::nullopt : m_lossy.rate(m_losses))
        return ConstantRate{static_cast<double>(SECOND) * lossy->packetsPerTick,
                            lossy->farthestTicks / 2 / TICKS_PER_US};
    Pace pace = paceOfStretch(false);
    pace.join(m_pace);
    bool constant = pace.constant(2);
    if (pace.spans < 2 && m_jumps + m_newTimeBases == 0) {
        constexpr int LEAST_TENTHS = 5;
        pace = paceOf(m_samples, SECOND / 10);
        constant = pace.constant(LEAST_TENTHS);
    }
    if (!constant || pace.packetsByTicks <= 0)
        return std::nullopt;
    return ConstantRate{static_cast<double>(SECOND) * pace.packetsSquared / pace.packetsByTicks,
                        pace.farthest / TICKS_PER_US};
}

std::optional<ClockCheck::Distance> ClockCheck::ofStretch() const {
    if (!constantRate())
        return std::nullopt;
    std::optional<Distance> farthest = m_farthest;
    PeakProfile overTime;
    measureRest(farthest, overTime);
    return farthest;
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
    if (!constantRate())
        return {};
    PeakProfile profile = m_jitterOverTime;
    std::optional<Distance> farthest;
    measureRest(farthest, profile);
    return profile;
}

} // namespace kestrel::flowscope
