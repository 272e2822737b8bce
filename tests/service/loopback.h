// Sockets of the test's side.
#pragma once

#include "foundation/UniqueFd.h"

#include <arpa/inet.h>
#include <cstdint>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>

constexpr int ANSWER_TIMEOUT_MS = 20'000;

inline sockaddr_in loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

// A socket of that type on a port that the system chose; the port is written to port.
inline kestrel::UniqueFd boundSocket(int type, unsigned short& port) {
    kestrel::UniqueFd socket(::socket(AF_INET, type | SOCK_CLOEXEC, 0));
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof address;
    EXPECT_EQ(bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(getsockname(socket.get(), reinterpret_cast<sockaddr*>(&address), &length), 0);
    port = ntohs(address.sin_port);
    return socket;
}

// A TCP port that nobody had a moment ago.
inline unsigned short freePort() {
    unsigned short port = 0;
    boundSocket(SOCK_STREAM, port);
    return port;
}

inline kestrel::UniqueFd connectTo(int port) {
    kestrel::UniqueFd socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_in address = loopback(port);
    if (connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        socket.reset();
    return socket;
}

inline bool sendText(const kestrel::UniqueFd& socket, const std::string& text) {
    return send(socket.get(), text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
}

// Whether something (also the end) can be read within the time.
inline bool readable(const kestrel::UniqueFd& socket, int milliseconds) {
    pollfd entry{socket.get(), POLLIN, 0};
    return poll(&entry, 1, milliseconds) == 1;
}

// What comes until the peer closes, or within the time.
inline std::string receive(const kestrel::UniqueFd& socket) {
    std::string text;
    while (readable(socket, ANSWER_TIMEOUT_MS)) {
        char buffer[500];
        const ssize_t count = recv(socket.get(), buffer, sizeof buffer, 0);
        if (count <= 0)
            break;
        text.append(buffer, static_cast<std::size_t>(count));
    }
    return text;
}

inline bool closedByPeer(const kestrel::UniqueFd& socket) {
    char byte = 0;
    return readable(socket, ANSWER_TIMEOUT_MS) && recv(socket.get(), &byte, 1, 0) <= 0;
}
