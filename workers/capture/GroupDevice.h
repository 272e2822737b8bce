// The network device on which a multicast group is received.
#pragma once

#include <cstdint>

namespace kestrel::capture {

// The index of the device that the kernel would join a group on now: the one that has the address, or for 0
// the one to which the group's route leads. 0 where there is none, or it is not to be told. Addresses in host
// order.
[[nodiscard]] unsigned groupDevice(std::uint32_t group, std::uint32_t interfaceAddress) noexcept;

} // namespace kestrel::capture
