#include "PacketRing.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace kestrel::capture {

PacketRing::PacketRing(std::size_t packets)
    : m_mask(std::bit_ceil(std::max<std::size_t>(packets, 1)) - 1),
      m_slots(std::make_unique_for_overwrite<Packet[]>(m_mask + 1)),
      m_arrivals(std::make_unique_for_overwrite<Arrival[]>(m_mask + 1)) {}

std::size_t PacketRing::push(std::span<const unsigned char> packets, Clock::time_point arrived,
                             bool afterLoss) noexcept {
    const std::size_t pushed = m_pushed.load(std::memory_order_relaxed);
    const std::size_t room = capacity() - (pushed - m_consumed.load(std::memory_order_acquire));
    const std::size_t taken = std::min(packets.size() / packetSize, room);
    for (std::size_t done = 0; done < taken;) {
        const std::size_t slot = (pushed + done) & m_mask;
        const std::size_t run = std::min(taken - done, capacity() - slot);
        std::memcpy(m_slots[slot].data(), packets.data() + done * packetSize, run * packetSize);
        std::fill_n(m_arrivals.get() + slot, run, Arrival{arrived.time_since_epoch().count(), false});
        m_arrivals[slot].afterLoss = afterLoss && done == 0;
        done += run;
    }
    m_pushed.store(pushed + taken, std::memory_order_release);
    return taken;
}

std::span<const Packet> PacketRing::readable() const noexcept {
    const std::size_t consumed = m_consumed.load(std::memory_order_relaxed);
    const std::size_t held = m_pushed.load(std::memory_order_acquire) - consumed;
    const std::size_t slot = consumed & m_mask;
    return {m_slots.get() + slot, std::min(held, capacity() - slot)};
}

PacketRing::Portion PacketRing::portion(std::size_t most) const noexcept {
    const auto packets = readable();
    if (packets.empty())
        return {};
    const Arrival* const begin = m_arrivals.get() + (packets.data() - m_slots.get());
    const Arrival* const end = begin + std::min(packets.size(), most);
    const auto time = [](const Arrival& of) { return Clock::time_point(Clock::duration(of.at)); };
    const Arrival* const other = std::find_if(begin + 1, end, [&](const Arrival& next) {
        return next.afterLoss || time(next) - time(*begin) >= gatherTime;
    });
    return {time(*begin), time(*(other - 1)), begin->afterLoss,
            packets.first(static_cast<std::size_t>(other - begin))};
}

void PacketRing::consume(std::size_t count) noexcept {
    m_consumed.store(m_consumed.load(std::memory_order_relaxed) + count, std::memory_order_release);
}

} // namespace kestrel::capture
