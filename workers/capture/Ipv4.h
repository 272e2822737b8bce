// IPv4 addresses as 32-bit numbers in host order.
#pragma once

#include <cstdint>
#include <netinet/in.h>
#include <optional>
#include <string>

namespace kestrel::capture {

// Dotted quad, or none when text is not one.
[[nodiscard]] std::optional<std::uint32_t> parseAddress(const std::string& text);
[[nodiscard]] std::string addressText(std::uint32_t address);
// 224.0.0.0 to 239.255.255.255.
[[nodiscard]] constexpr bool isMulticast(std::uint32_t address) noexcept {
    return (address >> 28) == 0xE;
}
// As the system's calls take it.
[[nodiscard]] sockaddr_in socketAddress(std::uint32_t address, int port) noexcept;

} // namespace kestrel::capture
