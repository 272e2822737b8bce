// The program's clock: intervals, jumps and jitter of its references (ISO/IEC 13818-1, 2.4.2.2 and 2.7.2).
#pragma once

#include "LossyPace.h"
#include "RateProfile.h"

#include <cstdint>
#include <optional>
#include <span>
#include <utility>
#include <vector>

namespace kestrel::flowscope {

// Takes the references one by one, in constant memory.
class ClockCheck {
public:
    // A reference in ticks of 27 MHz, in that packet. announced: the packet says that a new time base begins
    // with it (2.4.3.5). at: seconds at which the plots show it, else by the references themselves.
    void reference(std::int64_t pcr, std::int64_t packet, bool announced = false,
                   std::optional<double> at = std::nullopt);
    // Packets are missing, of any PID: of the multiplex, before the next reference or within the last second.
    // No rate and no jitter is measured across them, unless the clock itself tells how many they are.
    void lose();
    // Some may be missing of which no counter tells. They are where the clock leaves a known pace within the
    // last second or with the next reference: one that goes on at its pace lacks nothing.
    void suspectLoss();

    // References so far.
    [[nodiscard]] std::uint64_t count() const noexcept { return m_count; }
    // Between two references, jumps left out; 0 before the second.
    [[nodiscard]] double longestIntervalMs() const noexcept {
        return static_cast<double>(m_longest) / 27'000;
    }
    // Intervals over the 100 ms of 2.7.2.
    [[nodiscard]] std::uint64_t tooLong() const noexcept { return m_tooLong; }
    // References that go back or ahead by more than a second without a new time base, and new time bases.
    [[nodiscard]] std::uint64_t jumps() const noexcept { return m_jumps; }
    [[nodiscard]] std::uint64_t newTimeBases() const noexcept { return m_newTimeBases; }

    // What 2.4.2.2 allows.
    static constexpr double jitterLimitUs = 0.5;
    // Largest distance of a reference from where a constant rate would put it, in microseconds, over the
    // stretches between jumps: from lines of twelve seconds each, since the clock may drift by 0.075 Hz a
    // second (2.4.2.1), which is within 0.04 us there. Nothing where no stretch has a constant rate: each of
    // its seconds the same within a hundredth, and at least two of them.
    [[nodiscard]] std::optional<double> jitterUs() const;
    // The packet of the reference that lies so far off.
    [[nodiscard]] std::optional<std::int64_t> jitterPacket() const;
    struct ConstantRate {
        double packetsPerSecond;
        double farthestUs; // a reference from its line
    };
    // By the straight line nearest to the references (least squares), so that what each of them is off by
    // counts for little; of several stretches by parallel lines. Nothing where there is no constant rate:
    // that of jitterUs(), the same one in all stretches. A single stretch that has no two seconds may have
    // five tenths of a second instead. Where packets are lost, with those that the clock tells of.
    [[nodiscard]] std::optional<ConstantRate> rate() const;
    // Packets that are missing at a constant rate; 0 where none are known to be lost.
    [[nodiscard]] double lostPackets() const { return m_losses == 0 ? 0 : m_lossy.lostPackets(m_losses); }
    // Seconds from the first reference to the last, jumps left out.
    [[nodiscard]] double elapsedSeconds() const noexcept { return static_cast<double>(m_elapsed) / 27e6; }

    // Longest interval of each step of time, in milliseconds.
    [[nodiscard]] const PeakProfile& intervals() const noexcept { return m_intervals; }
    // Largest distance from a constant rate of each step of the stretch since the last jump, or loss, in
    // microseconds; empty where it has no constant rate.
    [[nodiscard]] PeakProfile jitterOverTime() const;

private:
    static constexpr std::uint64_t leastGroup = 2;
    struct Sample {
        std::int64_t pcr;
        std::int64_t packet;
        double at; // in the plots
    };
    // The straight line nearest to the references (least squares).
    struct Line {
        Sample first{};
        // Of the mean reference, from the first.
        double packets = 0;
        double ticks = 0;
        // Sums over all of them, by their distances from the mean one.
        double packetsSquared = 0;
        double packetsByTicks = 0;

        // Of a reference, in ticks.
        [[nodiscard]] double distance(const Sample& sample) const;
    };
    [[nodiscard]] static Line lineOf(std::span<const Sample> samples);
    // How packets pass in equal spans of time.
    struct Pace {
        int spans = 0;
        double least = 0; // packets a tick of any span
        double most = 0;
        // Of the lines of the references within the spans.
        double packetsSquared = 0;
        double packetsByTicks = 0;
        double farthest = 0; // ticks of a reference from its line

        void join(const Pace& other);
        [[nodiscard]] bool constant(int spansWanted) const;
    };
    struct Distance {
        double us;
        std::int64_t packet;
    };
    void keep(const Sample& sample);
    void keepRecent(const Sample& sample);
    static void measure(const Line& line, std::span<const Sample> samples, std::optional<Distance>& farthest,
                        PeakProfile& overTime);
    void measureRest(std::optional<Distance>& farthest, PeakProfile& overTime) const;
    [[nodiscard]] static std::pair<Sample, Sample> outermost(std::span<const Sample> samples, double pace);
    // Of spans that are no shorter than that many ticks.
    [[nodiscard]] static Pace paceOf(std::span<const Sample> samples, std::int64_t shortest);
    // Without what a damaged reference may have spoilt: a second behind the jump that began the stretch, and
    // one before the jump that ends it.
    [[nodiscard]] Pace paceOfStretch(bool endsByJump) const;
    // The next reference begins another one.
    void endStretch(bool byJump);
    [[nodiscard]] bool constantRate() const;
    [[nodiscard]] std::optional<Distance> ofStretch() const;
    [[nodiscard]] std::optional<Distance> ofAll() const;

    std::uint64_t m_count = 0;
    std::uint64_t m_tooLong = 0;
    std::uint64_t m_jumps = 0;
    std::uint64_t m_newTimeBases = 0;
    std::int64_t m_longest = 0;
    std::int64_t m_last = -1;
    std::int64_t m_elapsed = 0; // since the first reference, without the jumps
    PeakProfile m_intervals;
    std::vector<Sample> m_samples; // of the stretch since the last jump or loss; times as m_elapsed
    // Of so many references the two are kept that lie farthest apart: one that is off is always among them.
    std::uint64_t m_group = leastGroup;
    std::uint64_t m_inGroup = 0;  // references of the last one, while it is not whole
    std::vector<Sample> m_recent; // all of the latest seconds, of the same stretch
    std::size_t m_measured = 0;   // of these
    // Of those that were measured of the stretch.
    std::optional<Distance> m_farthest;
    PeakProfile m_jitterOverTime;
    std::optional<Distance> m_jitter; // of the stretches before
    Pace m_pace;                      // of them, too
    bool m_beganByJump = false;       // the stretch
    std::uint64_t m_losses = 0;
    bool m_suspected = false; // a loss, of which the next reference tells
    LossyPace m_lossy;
};

} // namespace kestrel::flowscope
