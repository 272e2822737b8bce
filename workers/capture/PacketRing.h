// The ring of transport packets between a receiver thread and a writer thread.
#pragma once

#include "Limits.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <memory>
#include <span>

namespace kestrel::capture {

using Packet = std::array<unsigned char, packetSize>;

// One producer, one consumer, no lock: neither ever waits for the other. The addresses are taken at
// construction, the memory itself when packets first come to lie in it.
class PacketRing {
public:
    // Room for at least that many packets, rounded up to a power of two.
    explicit PacketRing(std::size_t packets);

    // Producer: copies whole packets in, which arrived at that time, and publishes them together. afterLoss:
    // something was lost between the packet pushed last and the first of these. Returns how many found room;
    // the rest were not taken.
    std::size_t push(std::span<const unsigned char> packets, Clock::time_point arrived = {},
                     bool afterLoss = false) noexcept;

    // Consumer: the oldest packets that lie in one piece; empty when there are none. Valid until consume.
    [[nodiscard]] std::span<const Packet> readable() const noexcept;
    // Packets that arrived together, within the time for which the receiver lets them gather, and without a
    // loss between them.
    struct Portion {
        Clock::time_point first; // when the first of them arrived, and the last
        Clock::time_point last;
        bool afterLoss = false; // something was lost before the first
        std::span<const Packet> packets;
    };
    // Consumer: the first of readable(), at most so many.
    [[nodiscard]] Portion portion(std::size_t most) const noexcept;
    // Consumer: gives the first count packets of readable() back.
    void consume(std::size_t count) noexcept;

    [[nodiscard]] std::size_t capacity() const noexcept { return m_mask + 1; }

private:
    std::size_t m_mask;
    std::unique_ptr<Packet[]> m_slots;
    // Left as the memory comes, until packets do.
    struct Arrival {
        Clock::rep at;
        bool afterLoss;
    };
    std::unique_ptr<Arrival[]> m_arrivals; // of each slot
    // Packets ever pushed and ever consumed, each on a cache line of its own.
    alignas(64) std::atomic<std::size_t> m_pushed{0};
    alignas(64) std::atomic<std::size_t> m_consumed{0};
};

} // namespace kestrel::capture
