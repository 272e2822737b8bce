#include "GroupDevice.h"

#include "foundation/UniqueFd.h"

#include <array>
#include <cstring>
#include <ifaddrs.h>
#include <linux/rtnetlink.h>
#include <memory>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace kestrel::capture {
namespace {

unsigned deviceOfAddress(std::uint32_t address) noexcept {
    ifaddrs* list = nullptr;
    if (::getifaddrs(&list) != 0)
        return 0;
    const std::unique_ptr<ifaddrs, decltype(&::freeifaddrs)> owner(list, &::freeifaddrs);
    for (const ifaddrs* entry = list; entry; entry = entry->ifa_next) {
        sockaddr_in own{};
        if (!entry->ifa_addr || entry->ifa_addr->sa_family != AF_INET)
            continue;
        std::memcpy(&own, entry->ifa_addr, sizeof own);
        if (ntohl(own.sin_addr.s_addr) == address)
            return ::if_nametoindex(entry->ifa_name);
    }
    return 0;
}

// The device among the attributes of a route; 0 when it is not there.
unsigned deviceAmong(const unsigned char* at, std::size_t length) noexcept {
    rtattr attribute{};
    while (length >= sizeof attribute) {
        std::memcpy(&attribute, at, sizeof attribute);
        const std::size_t size = RTA_ALIGN(attribute.rta_len);
        if (attribute.rta_len < RTA_LENGTH(0) || attribute.rta_len > length)
            return 0;
        std::uint32_t device = 0;
        if (attribute.rta_type == RTA_OIF && attribute.rta_len >= RTA_LENGTH(sizeof device)) {
            std::memcpy(&device, at + RTA_LENGTH(0), sizeof device);
            return device;
        }
        if (size >= length)
            return 0;
        at += size;
        length -= size;
    }
    return 0;
}

// Asked of the kernel, which answers before send(2) returns.
unsigned deviceOfRoute(std::uint32_t group) noexcept {
    struct {
        nlmsghdr head;
        rtmsg route;
        rtattr attribute;
        std::uint32_t address;
    } question{};
    question.head.nlmsg_len = sizeof question;
    question.head.nlmsg_type = RTM_GETROUTE;
    question.head.nlmsg_flags = NLM_F_REQUEST;
    question.route.rtm_family = AF_INET;
    question.route.rtm_dst_len = 32;
    question.attribute.rta_type = RTA_DST;
    question.attribute.rta_len = RTA_LENGTH(sizeof question.address);
    question.address = htonl(group);
    const UniqueFd kernel(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    std::array<unsigned char, 4096> answer{};
    if (!kernel.valid() || ::send(kernel.get(), &question, sizeof question, 0) < 0)
        return 0;
    const ssize_t got = ::recv(kernel.get(), answer.data(), answer.size(), MSG_DONTWAIT);
    nlmsghdr head{};
    constexpr std::size_t before = NLMSG_LENGTH(NLMSG_ALIGN(sizeof(rtmsg)));
    if (got < static_cast<ssize_t>(before))
        return 0;
    std::memcpy(&head, answer.data(), sizeof head);
    if (head.nlmsg_type != RTM_NEWROUTE || head.nlmsg_len < before ||
        head.nlmsg_len > static_cast<std::size_t>(got))
        return 0;
    return deviceAmong(answer.data() + before, head.nlmsg_len - before);
}

} // namespace

unsigned groupDevice(std::uint32_t group, std::uint32_t interfaceAddress) noexcept {
    return interfaceAddress != 0 ? deviceOfAddress(interfaceAddress) : deviceOfRoute(group);
}

} // namespace kestrel::capture
