// The socket server: slots, threads and their end.
#include "service/CSocketManager.h"

#include "foundation/Logger.h"
#include "foundation/UniqueFd.h"

#include <arpa/inet.h>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sstream>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <vector>

using kestrel::UniqueFd;
using testing::HasSubstr;

namespace {

constexpr int SECONDS = 1000;

sockaddr_in loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

unsigned short freePort() {
    const UniqueFd socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof address;
    EXPECT_EQ(bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(getsockname(socket.get(), reinterpret_cast<sockaddr*>(&address), &length), 0);
    return ntohs(address.sin_port);
}

UniqueFd connectTo(int port) {
    UniqueFd socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_in address = loopback(port);
    if (connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        socket.reset();
    return socket;
}

// What comes until the peer closes, or within the time.
std::string receive(const UniqueFd& socket, int milliseconds = 5 * SECONDS) {
    std::string text;
    for (;;) {
        pollfd entry{socket.get(), POLLIN, 0};
        if (poll(&entry, 1, milliseconds) <= 0)
            return text;
        char buffer[500];
        const ssize_t count = recv(socket.get(), buffer, sizeof buffer, 0);
        if (count <= 0)
            return text;
        text.append(buffer, static_cast<std::size_t>(count));
    }
}

bool closedByPeer(const UniqueFd& socket) {
    pollfd entry{socket.get(), POLLIN, 0};
    char byte = 0;
    return poll(&entry, 1, 5 * SECONDS) == 1 && recv(socket.get(), &byte, 1, 0) <= 0;
}

class SocketServer : public testing::Test {
protected:
    void TearDown() override {
        stop();
        LogUtil::Cleanup();
    }

    void start(int handles) {
        server = CSocketManager::SetupSocketServer(port, handles);
        ASSERT_NE(server, nullptr);
        acceptor = std::thread([this] { server->StartSocketServer(); });
    }

    void stop() {
        if (acceptor.joinable()) {
            server->stop();
            acceptor.join();
        }
        CSocketManager::destroyInstance();
    }

    unsigned short port = freePort();
    CSocketManager* server = nullptr;
    std::thread acceptor;
};

TEST_F(SocketServer, AnswersAndClosesTheConnection) {
    start(2);
    EXPECT_EQ(CSocketManager::getInstance(), server);
    const UniqueFd client = connectTo(port);
    ASSERT_EQ(send(client.get(), "PING_SERVICE", 12, 0), 12);
    EXPECT_EQ(receive(client), "TRUE - ALIVE\n");
}

TEST_F(SocketServer, APortInUseIsAFatalLineAndNoServer) {
    std::ostringstream log;
    LogUtil::GetInstance()->addStreamLogger(&log);
    const UniqueFd other(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_in address = loopback(port);
    ASSERT_EQ(bind(other.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(other.get(), 1), 0);
    EXPECT_EQ(CSocketManager::SetupSocketServer(port, 5), nullptr);
    EXPECT_EQ(CSocketManager::getInstance(), nullptr);
    LogUtil::Cleanup();
    EXPECT_THAT(log.str(), HasSubstr("[SocketManager:Error] bind failed with error 98\r\n"));
    EXPECT_THAT(log.str(),
                HasSubstr("[SocketManager:Fatal] Could not use port " + std::to_string(port) + ".\r\n"));
}

TEST_F(SocketServer, StopsAtOnceWhileItWaits) {
    start(1);
    const auto began = std::chrono::steady_clock::now();
    server->stop();
    acceptor.join();
    EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::seconds(5));
}

TEST_F(SocketServer, StopsWhileEverySlotIsInUse) {
    start(1);
    const UniqueFd silent = connectTo(port);
    const UniqueFd waiting = connectTo(port);
    server->stop();
    acceptor.join();
    stop();
    EXPECT_TRUE(closedByPeer(silent));
}

TEST_F(SocketServer, ItsEndEndsLiveConnectionsAndTheirThreads) {
    start(5);
    std::vector<UniqueFd> clients;
    for (int i = 0; i < 4; ++i)
        clients.push_back(connectTo(port));
    // The last one is served only when the others have their slots.
    const UniqueFd last = connectTo(port);
    ASSERT_EQ(send(last.get(), "PING_SERVICE", 12, 0), 12);
    EXPECT_EQ(receive(last), "TRUE - ALIVE\n");
    stop();
    for (const UniqueFd& client : clients)
        EXPECT_TRUE(closedByPeer(client));
    EXPECT_EQ(CSocketManager::getInstance(), nullptr);
}

TEST_F(SocketServer, ASlotThatFreesServesTheNextClient) {
    start(1);
    for (int i = 0; i < 20; ++i) {
        const UniqueFd client = connectTo(port);
        ASSERT_EQ(send(client.get(), "PING_SERVICE", 12, 0), 12);
        EXPECT_EQ(receive(client), "TRUE - ALIVE\n") << i;
    }
}

TEST_F(SocketServer, AConnectionThatFindsNoSlotIsClosed) {
    CSocketManager none(0);
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    const UniqueFd client(ends[0]);
    int slot = 7;
    EXPECT_FALSE(none.createSocketHelper(slot, ends[1]));
    EXPECT_EQ(slot, -1);
    EXPECT_TRUE(closedByPeer(client));
    EXPECT_FALSE(none.destroySocketHelper(pthread_self()));
}

// A processor that notes what it was asked.
class Notes : public IMessageProcessor {
public:
    explicit Notes(std::vector<std::string>& heard, bool replies) : m_heard(heard), m_replies(replies) {}
    bool process(char* text, char* response, int size) override {
        m_heard.emplace_back(text);
        EXPECT_EQ(size, 2000);
        std::strcpy(response, "answer");
        return m_replies || text[0] == '!';
    }

private:
    std::vector<std::string>& m_heard;
    bool m_replies;
};

class SocketHelper : public testing::Test {
protected:
    void SetUp() override {
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        client.reset(ends[0]);
        service = ends[1];
    }
    void sendText(const std::string& text) const {
        ASSERT_EQ(send(client.get(), text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
    }

    UniqueFd client;
    int service = -1;
    std::vector<std::string> heard;
};

TEST_F(SocketHelper, TrimsTheRequestAndEndsAfterTheAnswer) {
    sendText(" \t PING \r\n");
    {
        CSocketHelper helper(service, new Notes(heard, true));
        helper.readFromSocket();
        EXPECT_STREQ(helper.m_Message, "PING");
    }
    EXPECT_THAT(heard, testing::ElementsAre("PING"));
    EXPECT_EQ(receive(client), "answer\n");
}

TEST_F(SocketHelper, ReadsOnWhenThereIsNothingToSend) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
    // Packets keep their bounds, so two requests wait at once.
    client.reset(ends[0]);
    close(service);
    sendText("one");
    sendText("!two");
    sendText("three");
    CSocketHelper helper(ends[1], new Notes(heard, false));
    helper.readFromSocket();
    EXPECT_THAT(heard, testing::ElementsAre("one", "!two"));
}

TEST_F(SocketHelper, CutsARequestAtTwoThousandBytes) {
    sendText(std::string(3'000, 'a'));
    shutdown(client.get(), SHUT_WR);
    CSocketHelper helper(service, new Notes(heard, true));
    helper.readFromSocket();
    ASSERT_EQ(heard.size(), 1U);
    EXPECT_EQ(heard[0].size(), 2'000U);
}

TEST_F(SocketHelper, AClientThatHasGoneRaisesNoSignal) {
    client.reset();
    CSocketHelper helper(service, new Notes(heard, true));
    char text[] = "late";
    EXPECT_FALSE(helper.sendToSocket(text));
    helper.readFromSocket();
    EXPECT_TRUE(heard.empty());
}

} // namespace
