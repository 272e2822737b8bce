#include "LossyPace.h"

#include <algorithm>
#include <cmath>

namespace kestrel::flowscope {
namespace {

constexpr double SECOND = 27e6;
// What a reference may be off by: of a packet's time, and where more is known, beyond so many times what
// those before it were off by.
constexpr double TOLERANCE = 0.1;
constexpr double TIMES_OFF = 4;
constexpr double TICKS_OFF = 27;
// Fewer intervals may be in line by chance.
constexpr double LEAST_INTERVALS = 5;

} // namespace

void LossyPace::Line::add(double packet, double tick) {
    ++count;
    packets += packet;
    ticks += tick;
    packetsSquared += packet * packet;
    packetsByTicks += packet * tick;
}

// Which packet bears a reference is exact, its time is not: ticks by packets, not packets by ticks.
double LossyPace::Line::ticksAPacket() const {
    const double squares = centredSquares();
    return squares > 0 ? centredProducts() / squares : 0;
}

double LossyPace::Line::ticksAt(double packet) const {
    return (ticks + ticksAPacket() * (packet * count - packets)) / count;
}

double LossyPace::Line::packetsAt(double tick) const {
    return (packets + (tick * count - ticks) / ticksAPacket()) / count;
}

void LossyPace::begin(std::int64_t ticks, std::int64_t packet) {
    m_before.join(m_run);
    m_run = {};
    m_run.firstTick = ticks;
    m_run.firstPacket = packet;
    m_run.line.add(0, 0);
}

void LossyPace::reference(std::int64_t ticks, std::int64_t packet, bool anew) {
    // A pace tells nothing of a gap that is so many times as long as what it was measured in.
    constexpr double LONGEST_GAP = 4;
    m_ticks = ticks;
    if (m_run.line.count == 0 || anew) {
        begin(ticks, packet);
        return;
    }
    const auto tick = static_cast<double>(ticks - m_run.firstTick);
    double sent = static_cast<double>(packet - m_run.firstPacket) + m_run.lost;
    if (m_run.line.count >= 2) {
        const double each = m_run.line.ticksAPacket();
        const double missing = each > 0 ? m_run.line.packetsAt(tick) - sent : -1;
        const double whole = std::round(missing);
        double most = TOLERANCE * each;
        // A join that is nearly seamless is none of the same line.
        const bool known = m_run.whole >= LEAST_INTERVALS;
        if (known)
            most = std::min(most, TIMES_OFF * m_run.farthest + TICKS_OFF);
        if (known && whole != 0)
            m_left = ticks;
        const bool near = tick - m_run.lastTick <= LONGEST_GAP * m_run.lastTick;
        if (!near || whole < 0 || std::abs(missing - whole) * each > most) {
            begin(ticks, packet);
            return;
        }
        ++(whole == 0 ? m_run.whole : m_run.broken);
        m_run.lost += whole;
        sent += whole;
    }
    m_run.line.add(sent, tick);
    m_run.lastTick = tick;
    m_run.farthest = std::max(m_run.farthest, std::abs(m_run.line.ticksAt(sent) - tick));
}

void LossyPace::Sum::join(const Run& run) {
    const double each = run.line.count < 2 ? 0 : run.line.ticksAPacket();
    if (run.whole < LEAST_INTERVALS || each <= 0)
        return;
    least = ticks <= 0 ? each : std::min(least, each);
    most = std::max(most, each);
    ticks += run.lastTick;
    packetsSquared += run.line.centredSquares();
    packetsByTicks += run.line.centredProducts();
    broken += run.broken;
    lost += run.lost;
    farthest = std::max(farthest, run.farthest);
}

LossyPace::Sum LossyPace::all() const {
    Sum sum = m_before;
    sum.join(m_run);
    return sum;
}

bool LossyPace::constant(const Sum& sum, std::uint64_t losses) const {
    constexpr double ALIKE = 0.01;
    // Of null packets that are lost in between no counter tells.
    constexpr double INTERVALS_A_LOSS = 2;
    const bool longEnough = sum.ticks >= SECOND / 2 && sum.ticks >= static_cast<double>(m_ticks) / 2;
    const bool explained = sum.broken <= INTERVALS_A_LOSS * static_cast<double>(losses);
    return longEnough && explained && sum.most - sum.least <= ALIKE * sum.most;
}

std::optional<LossyPace::Rate> LossyPace::rate(std::uint64_t losses) const {
    const Sum sum = all();
    if (!constant(sum, losses))
        return std::nullopt;
    return Rate{sum.packetsSquared / sum.packetsByTicks, sum.farthest};
}

double LossyPace::lostPackets(std::uint64_t losses) const {
    const Sum sum = all();
    return constant(sum, losses) ? sum.lost : 0;
}

} // namespace kestrel::flowscope
