// The pace of a constant multiplex of which packets are lost: how many were sent is told by its clock.
#pragma once

#include <cstdint>
#include <optional>

namespace kestrel::flowscope {

// Takes the clock references one by one, in constant memory. Where packets are lost, a reference comes too
// early by its count of packets: at a constant pace by a whole number of them, which are counted as sent.
// Continuity counters do not tell that number: they turn at 16, null packets have none, and those of a seldom
// PID show a loss only when its next packet comes.
class LossyPace {
public:
    // At so many ticks of 27 MHz since the first one, in that packet. anew: nothing follows from those
    // before.
    void reference(std::int64_t ticks, std::int64_t packet, bool anew);

    // By the lines nearest to the references (least squares), with the lost packets. Nothing unless
    // references follow each other at one pace for half of the time, and half a second, at least, and so many
    // losses explain what they lack: of null packets that were taken out nothing tells.
    struct Rate {
        double packetsPerTick;
        double farthestTicks; // a reference from the line of those before it and itself
    };
    [[nodiscard]] std::optional<Rate> rate(std::uint64_t losses) const;
    // Packets that are missing where there is such a pace; else 0.
    [[nodiscard]] double lostPackets(std::uint64_t losses) const;
    // Whether a reference behind that time, in ticks, has not kept to a pace that was known.
    [[nodiscard]] bool leftBehind(std::int64_t ticks) const noexcept { return m_left && *m_left > ticks; }

private:
    // A straight line through references.
    struct Line {
        double count = 0;
        double packets = 0; // sums, from the first one on
        double ticks = 0;
        double packetsSquared = 0;
        double packetsByTicks = 0;

        void add(double packet, double tick);
        [[nodiscard]] double centredSquares() const { return packetsSquared - packets * packets / count; }
        [[nodiscard]] double centredProducts() const { return packetsByTicks - packets * ticks / count; }
        [[nodiscard]] double ticksAPacket() const;
        [[nodiscard]] double ticksAt(double packet) const;
        [[nodiscard]] double packetsAt(double tick) const;
    };
    // References that follow each other at one pace.
    struct Run {
        std::int64_t firstTick = 0;
        std::int64_t firstPacket = 0;
        double lastTick = 0; // from the first
        Line line;
        double whole = 0;  // intervals of which nothing is missing
        double broken = 0; // and others
        double lost = 0;
        double farthest = 0;
    };
    // Of all runs that tell a pace.
    struct Sum {
        double ticks = 0;
        double least = 0; // ticks a packet
        double most = 0;
        double packetsSquared = 0;
        double packetsByTicks = 0;
        double broken = 0;
        double lost = 0;
        double farthest = 0;

        void join(const Run& run);
    };
    void begin(std::int64_t ticks, std::int64_t packet);
    [[nodiscard]] Sum all() const;
    [[nodiscard]] bool constant(const Sum& sum, std::uint64_t losses) const;

    Run m_run;
    Sum m_before;                       // the run
    std::int64_t m_ticks = 0;           // of the latest reference
    std::optional<std::int64_t> m_left; // the latest that has not kept to a pace
};

} // namespace kestrel::flowscope
