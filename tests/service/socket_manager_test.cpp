// The socket server: slots, threads and their end.
#include "foundation/Eventually.h"
#include "foundation/ProcessTree.h"
#include "loopback.h"
#include "service/CSocketManager.h"
#include "service_directories.h"

#include <algorithm>
#include <chrono>
#include <ctime>
#include <filesystem>
#include <gmock/gmock.h>
#include <iterator>
#include <netinet/tcp.h>
#include <optional>
#include <pthread.h>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using kestrel::UniqueFd;
using kestrel::test::threadsOf;
using testing::HasSubstr;
using testing::Not;

namespace {

using Clock = std::chrono::steady_clock;

long entries(const char* directory) {
    return std::distance(std::filesystem::directory_iterator(directory), {});
}
long descriptors() {
    return entries("/proc/self/fd");
}
long threads() {
    return static_cast<long>(threadsOf(getpid()));
}

// Detached threads have left their slot a moment before they are gone.
bool threadsComeDownTo(long wanted) {
    const auto end = Clock::now() + std::chrono::seconds(20);
    while (threads() > wanted && Clock::now() < end)
        std::this_thread::yield();
    return threads() <= wanted;
}

long countOf(const std::string& text, const std::string& part) {
    long count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++count;
    return count;
}

class SocketServer : public testing::Test {
protected:
    void SetUp() override {
        // The library's own threads and descriptors, if it has any, are there from now on.
        LogUtil::GetInstance();
    }
    void TearDown() override {
        stop();
        lines.reset();
    }

    // On a port that is free; another program may be faster once, not always.
    void start(int handles, int backlog = 5) {
        for (int attempt = 0; server == nullptr && attempt < 20; ++attempt) {
            port = freePort();
            server = CSocketManager::SetupSocketServer(port, handles, backlog);
        }
        ASSERT_NE(server, nullptr);
        acceptor = std::thread([this] { server->StartSocketServer(); });
    }

    void stop() {
        if (acceptor.joinable()) {
            server->stop();
            acceptor.join();
        }
        CSocketManager::destroyInstance();
        server = nullptr;
    }

    // Of a connection that has a slot.
    std::string ping(const UniqueFd& client) {
        EXPECT_TRUE(sendText(client, "PING_SERVICE"));
        return receive(client);
    }

    unsigned short port = 0;
    CSocketManager* server = nullptr;
    std::thread acceptor;
    std::optional<CapturedLog> lines;
};

TEST_F(SocketServer, AnswersAndClosesTheConnection) {
    start(2);
    EXPECT_EQ(CSocketManager::getInstance(), server);
    EXPECT_EQ(ping(connectTo(port)), "TRUE - ALIVE\n");
}

// The other end of a connection of this process, as a number that stays the server's.
int serversEnd(const UniqueFd& client) {
    sockaddr_in own{};
    socklen_t length = sizeof own;
    EXPECT_EQ(getsockname(client.get(), reinterpret_cast<sockaddr*>(&own), &length), 0);
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        const int candidate = std::stoi(entry.path().filename());
        sockaddr_in peer{};
        length = sizeof peer;
        if (candidate != client.get() &&
            getpeername(candidate, reinterpret_cast<sockaddr*>(&peer), &length) == 0 &&
            peer.sin_family == AF_INET && peer.sin_port == own.sin_port)
            return candidate;
    }
    return -1;
}

TEST_F(SocketServer, AClientWhoseHostVanishesGivesItsSlotBackWithinTwoMinutes) {
    lines.emplace();
    start(1);
    const UniqueFd client = connectTo(port);
    int accepted = -1;
    ASSERT_TRUE(kestrel::test::eventually([&] {
        accepted = serversEnd(client);
        return accepted >= 0;
    }));
    const auto option = [accepted](int level, int name) {
        int value = -1;
        socklen_t length = sizeof value;
        EXPECT_EQ(getsockopt(accepted, level, name, &value, &length), 0);
        return value;
    };
    EXPECT_TRUE(kestrel::test::eventually([&] { return option(IPPROTO_TCP, TCP_KEEPCNT) == 6; }));
    EXPECT_EQ(option(SOL_SOCKET, SO_KEEPALIVE), 1);
    EXPECT_EQ(option(IPPROTO_TCP, TCP_KEEPIDLE), 60);
    EXPECT_EQ(option(IPPROTO_TCP, TCP_KEEPINTVL), 10);
    EXPECT_EQ(ping(client), "TRUE - ALIVE\n");
    stop();
    EXPECT_THAT(lines->text(), Not(HasSubstr("cannot be watched")));
}

TEST_F(SocketServer, AnOverLongRequestIsAnsweredWithoutAReset) {
    start(1);
    for (int i = 0; i < 20; ++i) {
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        const UniqueFd client(ends[0]);
        // All of it has arrived before the server reads.
        ASSERT_TRUE(sendText(client, "PING_SERVICE" + std::string(50'000, ' ')));
        int slot = -1;
        ASSERT_TRUE(server->createSocketHelper(slot, ends[1]));
        EXPECT_EQ(receive(client), "TRUE - ALIVE\n") << i;
        char byte = 0;
        EXPECT_EQ(recv(client.get(), &byte, 1, 0), 0) << "an orderly end";
    }
}

TEST_F(SocketServer, ThereIsNoneBeforeTheSetupAndAfterTheEnd) {
    EXPECT_EQ(CSocketManager::getInstance(), nullptr);
    CSocketManager::destroyInstance();
    start(1);
    stop();
    EXPECT_EQ(CSocketManager::getInstance(), nullptr);
    EXPECT_FALSE(connectTo(port).valid()) << "the listener is closed";
}

TEST_F(SocketServer, APortInUseIsAFatalLineAndNoServer) {
    lines.emplace();
    const UniqueFd other = boundSocket(SOCK_STREAM, port);
    ASSERT_EQ(listen(other.get(), 1), 0);
    EXPECT_EQ(CSocketManager::SetupSocketServer(port, 5), nullptr);
    EXPECT_EQ(CSocketManager::getInstance(), nullptr);
    EXPECT_EQ(lines->text(), "[SocketManager:Info] Socket Manager got constructed using 5 handles...\r\n"
                             "[SocketManager:Error] bind failed with error 98\r\n"
                             "[SocketManager:Fatal] Could not use port " +
                                 std::to_string(port) +
                                 ".\r\n"
                                 "[SocketManager:Debug] Destructing Socket Manager ...\r\n"
                                 "[SocketManager:Info] Socket Manager got destructed...\r\n");
}

TEST_F(SocketServer, APortInUseHasItsErrorCodeAndLeavesNoDescriptor) {
    const UniqueFd other = boundSocket(SOCK_STREAM, port);
    ASSERT_EQ(listen(other.get(), 1), 0);
    CSocketManager manager(1);
    const long before = descriptors();
    EXPECT_EQ(manager.setupSocketServer(port), 10001);
    EXPECT_EQ(manager.establish(port), -1);
    EXPECT_EQ(descriptors(), before);
    EXPECT_EQ(CSocketManager::startupWSDll(), 0);
}

TEST_F(SocketServer, TheListenerIsNonBlockingReusableAndOnEveryAddress) {
    CSocketManager manager(1);
    port = freePort();
    const UniqueFd listener(manager.establish(port));
    ASSERT_TRUE(listener.valid());
    EXPECT_EQ(accept(listener.get(), nullptr, nullptr), -1);
    EXPECT_EQ(errno, EAGAIN);
    int reuse = 0;
    socklen_t size = sizeof reuse;
    ASSERT_EQ(getsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &reuse, &size), 0);
    EXPECT_EQ(reuse, 1);
    sockaddr_in address{};
    size = sizeof address;
    ASSERT_EQ(getsockname(listener.get(), reinterpret_cast<sockaddr*>(&address), &size), 0);
    EXPECT_EQ(address.sin_addr.s_addr, htonl(INADDR_ANY));
    EXPECT_EQ(address.sin_port, htons(port));
}

TEST_F(SocketServer, APortCanBeUsedAgainAtOnce) {
    start(2);
    EXPECT_EQ(ping(connectTo(port)), "TRUE - ALIVE\n") << "whose socket now waits for stray segments";
    const unsigned short used = port;
    stop();
    server = CSocketManager::SetupSocketServer(used, 2);
    EXPECT_NE(server, nullptr);
}

TEST_F(SocketServer, TheStopFlagIsSeenWithinATenthOfASecond) {
    auto best = Clock::duration::max();
    for (int i = 0; i < 10; ++i) {
        start(1);
        const auto began = Clock::now();
        server->stop();
        acceptor.join();
        best = std::min(best, Clock::now() - began);
        stop();
    }
    EXPECT_LT(best, std::chrono::milliseconds(100));
}

TEST_F(SocketServer, AStopBeforeTheStartIsKept) {
    start(1);
    server->stop();
    acceptor.join();
    server->StartSocketServer();
    SUCCEED() << "it returns";
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

TEST_F(SocketServer, WithoutASlotNobodyIsAcceptedAndTheServerStillStops) {
    start(0);
    const UniqueFd client = connectTo(port);
    ASSERT_TRUE(client.valid()) << "it waits in the backlog";
    EXPECT_FALSE(readable(client, 100));
}

TEST_F(SocketServer, AClientWaitsInTheBacklogUntilASlotFrees) {
    start(1);
    UniqueFd first = connectTo(port);
    const UniqueFd second = connectTo(port);
    ASSERT_TRUE(sendText(second, "PING_SERVICE"));
    EXPECT_FALSE(readable(second, 200)) << "the only slot is taken";
    first.reset();
    EXPECT_EQ(receive(second), "TRUE - ALIVE\n");
}

TEST_F(SocketServer, WhileEverySlotIsInUseClientsThatWaitDoNotWakeIt) {
    start(1);
    UniqueFd first = connectTo(port);
    const UniqueFd second = connectTo(port);
    ASSERT_TRUE(sendText(second, "PING_SERVICE"));
    clockid_t clock{};
    ASSERT_EQ(pthread_getcpuclockid(acceptor.native_handle(), &clock), 0);
    const auto used = [clock] {
        timespec time{};
        EXPECT_EQ(clock_gettime(clock, &time), 0);
        return std::make_pair(time.tv_sec, time.tv_nsec);
    };
    // The first rounds may still see it accept the first client. A thread that sleeps uses nothing at all.
    bool slept = false;
    for (int round = 0; round < 20 && !slept; ++round) {
        const auto before = used();
        EXPECT_FALSE(readable(second, 200)) << "the only slot is taken";
        slept = used() == before;
    }
    EXPECT_TRUE(slept);
    first.reset();
    EXPECT_EQ(receive(second), "TRUE - ALIVE\n") << "the slot that frees does";
}

TEST_F(SocketServer, ASlotThatFreesServesTheNextClient) {
    start(1);
    for (int i = 0; i < 50; ++i)
        EXPECT_EQ(ping(connectTo(port)), "TRUE - ALIVE\n") << i;
}

TEST_F(SocketServer, ConnectionsAreServedBesideOneAnother) {
    start(4);
    std::vector<UniqueFd> clients;
    for (int i = 0; i < 4; ++i)
        clients.push_back(connectTo(port));
    for (auto client = clients.rbegin(); client != clients.rend(); ++client)
        EXPECT_EQ(ping(*client), "TRUE - ALIVE\n") << "whatever their order";
}

TEST_F(SocketServer, ItsEndEndsLiveConnectionsAndTheirThreads) {
    // A first round makes what lives as long as the process.
    start(3);
    EXPECT_EQ(ping(connectTo(port)), "TRUE - ALIVE\n");
    stop();
    const long threadsBefore = threads();
    const long descriptorsBefore = descriptors();
    start(5);
    std::vector<UniqueFd> clients;
    for (int i = 0; i < 4; ++i)
        clients.push_back(connectTo(port));
    EXPECT_EQ(ping(connectTo(port)), "TRUE - ALIVE\n") << "accepted after the others";
    stop();
    EXPECT_EQ(CSocketManager::getInstance(), nullptr);
    for (const UniqueFd& client : clients)
        EXPECT_TRUE(closedByPeer(client));
    clients.clear();
    EXPECT_EQ(descriptors(), descriptorsBefore);
    EXPECT_TRUE(threadsComeDownTo(threadsBefore));
}

TEST_F(SocketServer, ManyConnectionsLeaveNoDescriptorAndNoThread) {
    // A first round makes what lives as long as the process.
    start(3);
    EXPECT_EQ(ping(connectTo(port)), "TRUE - ALIVE\n");
    stop();
    const long threadsBefore = threads();
    const long descriptorsBefore = descriptors();
    start(3);
    for (int i = 0; i < 100; ++i) {
        const UniqueFd client = connectTo(port);
        if (i % 3 == 0)
            continue; // goes away without a word
        EXPECT_EQ(ping(client), "TRUE - ALIVE\n");
    }
    stop();
    EXPECT_EQ(descriptors(), descriptorsBefore);
    EXPECT_TRUE(threadsComeDownTo(threadsBefore));
}

TEST_F(SocketServer, ClientsThatComeWhileItEndsAreLetGo) {
    start(2, 20);
    std::thread clients([this] {
        for (int i = 0; i < 50; ++i) {
            const UniqueFd client = connectTo(port);
            if (!client.valid())
                return; // from here on the port may be another program's
            sendText(client, "PING_SERVICE");
        }
    });
    // What it does to these clients is open; that it ends is not.
    stop();
    clients.join();
    EXPECT_EQ(CSocketManager::getInstance(), nullptr);
}

TEST_F(SocketServer, ALifeIsLogged) {
    lines.emplace();
    start(2);
    {
        const UniqueFd first = connectTo(port);
        EXPECT_EQ(ping(connectTo(port)), "TRUE - ALIVE\n") << "in the second slot";
        EXPECT_EQ(ping(first), "TRUE - ALIVE\n");
    }
    stop();
    const std::string text = lines->text();
    EXPECT_THAT(text,
                HasSubstr("[SocketManager:Info] Socket Manager got constructed using 2 handles...\r\n"));
    EXPECT_THAT(text,
                HasSubstr("[SocketManager:Info] CSocketManager setup successful for connections on port " +
                          std::to_string(port) + "...\r\n"));
    EXPECT_EQ(
        countOf(text, "[SocketManager:Debug] CSocketManager.startSocketServer - got a valid connection\r\n"),
        2);
    EXPECT_EQ(countOf(text, "[SocketManager:Info] CSocketManager.startSocketServer - got a valid handle\r\n"),
              1)
        << "the first slot is not logged so";
    EXPECT_EQ(countOf(text, "[SocketManager:Debug] Number of handles: 2\r\n"), 1);
    EXPECT_EQ(countOf(text, "[SocketManager:Info] CSocketManager.destroySocketHelper - destroyed "
                            "successfully...\r\n"),
              2);
    EXPECT_THAT(text, HasSubstr("[SocketManager:Debug] CSocketManager.startSocketServer - Exiting "
                                "successfully...\r\n"));
    EXPECT_THAT(text, HasSubstr("[SocketManager:Debug] Destructing Socket Manager ...\r\n"));
    EXPECT_THAT(text, HasSubstr("[SocketManager:Info] Socket Manager got destructed...\r\n"));
}

// Connections that are handed to a manager directly.
class Slots : public SocketServer {
protected:
    // The client's end.
    UniqueFd handOver(CSocketManager& manager, bool expected, int expectedSlot) {
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        int slot = 7;
        EXPECT_EQ(manager.createSocketHelper(slot, ends[1]), expected);
        EXPECT_EQ(slot, expectedSlot);
        return UniqueFd(ends[0]);
    }
};

TEST_F(Slots, TheFirstFreeOneIsTaken) {
    CSocketManager manager(3);
    UniqueFd first = handOver(manager, true, 0);
    UniqueFd second = handOver(manager, true, 1);
    const UniqueFd third = handOver(manager, true, 2);
    EXPECT_EQ(ping(second), "TRUE - ALIVE\n") << "closed by its slot's end";
    second = handOver(manager, true, 1);
    EXPECT_EQ(ping(first), "TRUE - ALIVE\n");
    first = handOver(manager, true, 0);
    EXPECT_EQ(ping(third), "TRUE - ALIVE\n");
}

TEST_F(Slots, AConnectionThatFindsNoneIsClosedAndLogged) {
    lines.emplace();
    {
        CSocketManager manager(1);
        const UniqueFd served = handOver(manager, true, 0);
        EXPECT_TRUE(closedByPeer(handOver(manager, false, -1)));
        EXPECT_EQ(ping(served), "TRUE - ALIVE\n") << "the other goes on";
    }
    EXPECT_THAT(lines->text(), HasSubstr("[SocketManager:Error] CSocketManager.createSocketHelper - Max "
                                         "handles 1 already in use.\r\n"));
}

TEST_F(Slots, ANegativeNumberOfSlotsIsNone) {
    CSocketManager manager(-5);
    EXPECT_TRUE(closedByPeer(handOver(manager, false, -1)));
}

TEST_F(Slots, TheEndWaitsForThreadsThatHaveLeftTheirSlotButNotTheirConnection) {
    constexpr int ROUNDS = 200;
    const std::string left = "CSocketManager.destroySocketHelper - destroyed successfully...";
    lines.emplace();
    for (int round = 1; round <= ROUNDS; ++round) {
        {
            CSocketManager manager(1);
            const UniqueFd client = handOver(manager, true, 0);
            ASSERT_EQ(ping(client), "TRUE - ALIVE\n");
        }
        ASSERT_EQ(countOf(lines->text(), left), round);
    }
}

TEST_F(Slots, AThreadWithoutASlotFreesNothing) {
    CSocketManager manager(1);
    EXPECT_FALSE(manager.destroySocketHelper(pthread_self()));
}

} // namespace
