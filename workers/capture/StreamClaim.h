// The claim of one process on what one encoder sends to one port.
#pragma once

#include "Failure.h"
#include "foundation/UniqueFd.h"

#include <cstdint>

namespace kestrel::capture {

// Recorders of different encoders share the default port, which takes SO_REUSEADDR; with it the kernel would
// also let a second recorder of the same encoder in and give the stream to the newcomer, without a word to
// either. So each sender and port is claimed first, by an abstract unix socket: it belongs to the same
// network namespace as the port, and goes away with its process however that ends.
class StreamClaim {
public:
    // Fails with startCaptureFailed and a detail that names the sender, the port and the process that has
    // them; again leaves the process out, which cannot be asked any number of times. sender in host order.
    [[nodiscard]] MaybeFailure take(std::uint32_t sender, int port, bool again = false);
    // Whether take() failed because somebody has it.
    [[nodiscard]] bool taken() const noexcept { return m_taken; }
    void release() noexcept { m_socket.reset(); }

private:
    UniqueFd m_socket;
    bool m_taken = false;
};

} // namespace kestrel::capture
