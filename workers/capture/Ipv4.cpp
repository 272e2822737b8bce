#include "Ipv4.h"

#include <arpa/inet.h>

namespace kestrel::capture {

std::optional<std::uint32_t> parseAddress(const std::string& text) {
    in_addr address{};
    if (inet_pton(AF_INET, text.c_str(), &address) != 1)
        return std::nullopt;
    return ntohl(address.s_addr);
}

std::string addressText(std::uint32_t address) {
    char text[INET_ADDRSTRLEN] = {};
    const in_addr network{htonl(address)};
    inet_ntop(AF_INET, &network, text, sizeof text);
    return text;
}

sockaddr_in socketAddress(std::uint32_t address, int port) noexcept {
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_addr.s_addr = htonl(address);
    result.sin_port = htons(static_cast<std::uint16_t>(port));
    return result;
}

} // namespace kestrel::capture
