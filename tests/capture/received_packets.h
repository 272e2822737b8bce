// What a receiver put into its ring.
#pragma once

#include "capture/PacketRing.h"
#include "capture/WakeEvent.h"
#include "capture/stream_builder.h"

#include <chrono>
#include <poll.h>

namespace capture_test {

// What a ring holds once it has that many packets, or after five seconds.
inline Packets collect(kestrel::capture::PacketRing& ring, kestrel::capture::WakeEvent& wake,
                       std::size_t count) {
    Packets packets;
    const auto deadline = kestrel::capture::Clock::now() + std::chrono::seconds(5);
    while (packets.size() < count && kestrel::capture::Clock::now() < deadline) {
        pollfd wait{wake.fd(), POLLIN, 0};
        ::poll(&wait, 1, 100);
        wake.clear();
        for (auto part = ring.readable(); !part.empty(); part = ring.readable()) {
            packets.insert(packets.end(), part.begin(), part.end());
            ring.consume(part.size());
        }
    }
    return packets;
}

} // namespace capture_test
