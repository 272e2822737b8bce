// The port of a decoder on loopback, which takes what is played to it, with the kernel's times of arrival.
#pragma once

#include "foundation/UniqueFd.h"

#include <arpa/inet.h>
#include <cstdint>
#include <cstring>
#include <netinet/in.h>
#include <span>
#include <string>
#include <sys/socket.h>
#include <system_error>
#include <vector>

namespace capture_test {

class DecoderSocket {
public:
    // group: a multicast group that is joined on loopback; none for 127.0.0.1. port: 0 takes a free one.
    explicit DecoderSocket(const std::string& group = "", int port = 0)
        : m_socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        const int on = 1;
        const int size = 32 << 20;
        check(::setsockopt(m_socket.get(), SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on));
        if (::setsockopt(m_socket.get(), SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) != 0)
            check(::setsockopt(m_socket.get(), SOL_SOCKET, SO_RCVBUF, &size, sizeof size));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<std::uint16_t>(port));
        inet_pton(AF_INET, group.empty() ? "127.0.0.1" : group.c_str(), &address.sin_addr);
        socklen_t length = sizeof address;
        check(::bind(m_socket.get(), reinterpret_cast<const sockaddr*>(&address), length));
        if (!group.empty()) {
            const ip_mreq membership{address.sin_addr, {htonl(INADDR_LOOPBACK)}};
            check(
                ::setsockopt(m_socket.get(), IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof membership));
        }
        check(::getsockname(m_socket.get(), reinterpret_cast<sockaddr*>(&address), &length));
        m_port = ntohs(address.sin_port);
    }
    int port() const { return m_port; }

    // Calls take(nanoseconds of CLOCK_REALTIME, bytes) with each datagram that has come.
    template <class Take>
    void drain(Take&& take) {
        for (;;) {
            iovec part{m_buffer.data(), m_buffer.size()};
            alignas(cmsghdr) char control[256];
            msghdr header{};
            header.msg_iov = &part;
            header.msg_iovlen = 1;
            header.msg_control = control;
            header.msg_controllen = sizeof control;
            const ssize_t got = ::recvmsg(m_socket.get(), &header, MSG_DONTWAIT);
            if (got < 0)
                return;
            timespec time{};
            for (cmsghdr* at = CMSG_FIRSTHDR(&header); at; at = CMSG_NXTHDR(&header, at))
                if (at->cmsg_type == SCM_TIMESTAMPNS)
                    std::memcpy(&time, CMSG_DATA(at), sizeof time);
            take(std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec,
                 std::span<const unsigned char>(m_buffer.data(), static_cast<std::size_t>(got)));
        }
    }

private:
    static void check(int result) {
        if (result != 0)
            throw std::system_error(errno, std::generic_category(), "a decoder's socket");
    }

    kestrel::UniqueFd m_socket;
    int m_port = 0;
    std::vector<unsigned char> m_buffer = std::vector<unsigned char>(65536);
};

} // namespace capture_test
