// Log lines as UDP datagrams.
#include "foundation/Logger.h"

#include "foundation/UniqueFd.h"

#include <arpa/inet.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <iterator>
#include <netinet/in.h>
#include <poll.h>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>

namespace {

// A UDP receiver on a free port of the loopback interface.
class Receiver {
public:
    Receiver() : m_socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(::bind(m_socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        socklen_t size = sizeof address;
        EXPECT_EQ(::getsockname(m_socket.get(), reinterpret_cast<sockaddr*>(&address), &size), 0);
        m_port = ntohs(address.sin_port);
    }

    [[nodiscard]] int port() const { return m_port; }

    // The next datagram; fails after five seconds.
    std::string receive() {
        pollfd ready{m_socket.get(), POLLIN, 0};
        if (::poll(&ready, 1, 5000) != 1) {
            ADD_FAILURE() << "no datagram";
            return {};
        }
        char buffer[8192];
        const ssize_t length = ::recv(m_socket.get(), buffer, sizeof buffer, 0);
        return {buffer, static_cast<std::size_t>(std::max<ssize_t>(length, 0))};
    }

    bool hasMore() {
        pollfd ready{m_socket.get(), POLLIN, 0};
        return ::poll(&ready, 1, 0) == 1;
    }

private:
    kestrel::UniqueFd m_socket;
    int m_port = 0;
};

long openDescriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                         std::filesystem::directory_iterator());
}

TEST(NetLogger, IsActiveAsSoonAsConstructed) {
    EXPECT_TRUE(NetLogger("127.0.0.1", 5140).isActive());
    EXPECT_TRUE(NetLogger("nonsense", -1).isActive());
}

TEST(NetLogger, SendsOneDatagramPerLineWithoutTerminator) {
    Receiver receiver;
    NetLogger logger("127.0.0.1", receiver.port());
    const std::string line = "20261115.17:08:49: [Manager:Info] RunCmdLine\r\n";
    EXPECT_TRUE(logger.log(line.c_str()));
    EXPECT_TRUE(logger.log(L"wide\r\n"));
    EXPECT_EQ(receiver.receive(), line);
    EXPECT_EQ(receiver.receive(), "wide\r\n");
    EXPECT_FALSE(receiver.hasMore());
}

TEST(NetLogger, ClosesTheSocketOfEachLine) {
    Receiver receiver;
    NetLogger logger("127.0.0.1", receiver.port());
    const long before = openDescriptors();
    for (int i = 0; i < 20; ++i)
        EXPECT_TRUE(logger.log("x"));
    EXPECT_EQ(openDescriptors(), before);
}

TEST(NetLogger, WithoutReceiverTheLineStillCountsAsWritten) {
    int port = 0;
    {
        const Receiver gone;
        port = gone.port();
    }
    NetLogger logger("127.0.0.1", port);
    EXPECT_TRUE(logger.log("nobody listens"));
    EXPECT_TRUE(logger.log("nobody listens"));
}

TEST(NetLogger, DatagramThatCannotBeSentCountsAsWritten) {
    // Nothing can be sent to port 0.
    EXPECT_TRUE(NetLogger("127.0.0.1", 0).log("x"));
}

TEST(NetLogger, LineForABadAddressOrPortCountsAsWrittenLikeAnyThatCannotBeSent) {
    for (const char* ip : {"", "localhost", "256.0.0.1", "1.2.3", "127.0.0.1 "})
        EXPECT_TRUE(NetLogger(ip, 5140).log("x")) << ip;
    EXPECT_TRUE(NetLogger(nullptr, 5140).log("x"));
    EXPECT_TRUE(NetLogger("127.0.0.1", -1).log("x"));
    EXPECT_TRUE(NetLogger("127.0.0.1", 65536).log(L"x"));
}

TEST(NetLogger, PortBeyond16BitsIsNotTakenForALowerOne) {
    Receiver receiver;
    EXPECT_TRUE(NetLogger("127.0.0.1", receiver.port() + 65536).log("x"));
    EXPECT_TRUE(NetLogger("127.0.0.1", receiver.port() - 65536).log("x"));
    EXPECT_FALSE(receiver.hasMore());
}

TEST(NetLogger, OverlongAddressIsCutNotOverrun) {
    NetLogger logger(std::string(500, '1').c_str(), 5140);
    EXPECT_TRUE(logger.isActive());
    EXPECT_TRUE(logger.log("x"));
}

// No descriptor can be made while it lives.
class NoDescriptors {
public:
    NoDescriptors() {
        EXPECT_EQ(::getrlimit(RLIMIT_NOFILE, &m_before), 0);
        const rlimit none{0, m_before.rlim_max};
        EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    }
    ~NoDescriptors() { ::setrlimit(RLIMIT_NOFILE, &m_before); }
    NoDescriptors(const NoDescriptors&) = delete;
    NoDescriptors& operator=(const NoDescriptors&) = delete;

private:
    rlimit m_before{};
};

TEST(NetLogger, WithoutASocketTheLineIsNotWritten) {
    Receiver receiver;
    NetLogger logger("127.0.0.1", receiver.port());
    NetLogger badAddress("nonsense", -1);
    {
        const NoDescriptors none;
        EXPECT_FALSE(logger.log("lost"));
        EXPECT_FALSE(logger.log(L"lost"));
        EXPECT_FALSE(badAddress.log("lost"));
    }
    EXPECT_TRUE(logger.log("found"));
    EXPECT_EQ(receiver.receive(), "found");
}

} // namespace
