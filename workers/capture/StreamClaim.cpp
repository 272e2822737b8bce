#include "StreamClaim.h"

#include "Ipv4.h"
#include "foundation/ErrorCodes.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>

namespace kestrel::capture {
namespace {

// An abstract name begins with a zero byte and ends with its length.
socklen_t abstractName(const std::string& text, sockaddr_un& name) noexcept {
    name = {};
    name.sun_family = AF_UNIX;
    const std::size_t length = std::min(text.size(), sizeof name.sun_path - 1);
    std::copy_n(text.begin(), length, name.sun_path + 1);
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + length);
}

UniqueFd unixSocket() noexcept {
    return UniqueFd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

// The process that listens there: "process 4711", or less when it is not to be had.
std::string holder(const sockaddr_un& name, socklen_t length) {
    const UniqueFd asking = unixSocket();
    ucred peer{};
    socklen_t size = sizeof peer;
    // The holder never accepts: its backlog has room for as many questions as it is long, and then only its
    // number is not known.
    if (asking.valid() && ::connect(asking.get(), reinterpret_cast<const sockaddr*>(&name), length) == 0 &&
        ::getsockopt(asking.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 && peer.pid > 0)
        return "process " + std::to_string(peer.pid);
    return "another process";
}

} // namespace

MaybeFailure StreamClaim::take(std::uint32_t sender, int port, bool again) {
    const std::string what = "UDP port " + std::to_string(port) + " from " + addressText(sender);
    sockaddr_un name{};
    const socklen_t length =
        abstractName("kestrelCapture/" + addressText(sender) + "/" + std::to_string(port), name);
    m_taken = false;
    m_socket = unixSocket();
    if (m_socket.valid() && ::bind(m_socket.get(), reinterpret_cast<const sockaddr*>(&name), length) == 0 &&
        ::listen(m_socket.get(), SOMAXCONN) == 0)
        return std::nullopt;
    const int problem = errno;
    m_taken = problem == EADDRINUSE;
    m_socket.reset();
    return detailed(failure(error::startCaptureFailed),
                    what + (problem != EADDRINUSE ? ": " + errnoText(problem)
                            : again               ? " is already recorded"
                                                  : " is already recorded by " + holder(name, length)));
}

} // namespace kestrel::capture
