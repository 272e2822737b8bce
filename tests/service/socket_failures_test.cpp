// The socket server and the request processor where the system refuses.
#include "loopback.h"
#include "service/CMessageProcessor.h"
#include "service/CSocketHelper.h"
#include "service/CSocketManager.h"
#include "service/RequestMessages.h"
#include "service_directories.h"
#include "system_refusals.h"

#include <cerrno>
#include <gmock/gmock.h>
#include <thread>

using kestrel::UniqueFd;
using testing::HasSubstr;
using testing::Not;

namespace {

// What is logged while a server tries to listen; the listener, if any, is closed again.
std::string logOfListening(bool& listens) {
    const CapturedLog lines;
    CSocketManager server(1);
    const UniqueFd listener(server.establish(freePort()));
    listens = listener.valid();
    return lines.text();
}

TEST(SocketFailures, WithoutASocketThereIsNoServer) {
    const unsigned short port = freePort();
    const CapturedLog lines;
    const Refusal refusal(systemRefusals().socket, EMFILE);
    EXPECT_EQ(CSocketManager::SetupSocketServer(port, 1), nullptr);
    EXPECT_EQ(CSocketManager::getInstance(), nullptr);
    EXPECT_THAT(lines.text(), HasSubstr("[SocketManager:Error] socket failed with error 24"));
    EXPECT_THAT(lines.text(),
                HasSubstr("[SocketManager:Fatal] Could not use port " + std::to_string(port) + "."));
}

TEST(SocketFailures, AnAddressThatCannotBeReusedIsLoggedAndIgnored) {
    const Refusal refusal(systemRefusals().setsockopt, ENOPROTOOPT);
    bool listens = false;
    EXPECT_THAT(logOfListening(listens),
                HasSubstr("[SocketManager:Error] setsockopt(,,SO_REUSEADDR,,) failed with error 92"));
    EXPECT_TRUE(listens);
}

TEST(SocketFailures, APortThatCannotBeListenedOnIsLogged) {
    const Refusal refusal(systemRefusals().listen, EADDRINUSE);
    bool listens = true;
    EXPECT_THAT(logOfListening(listens), HasSubstr("[SocketManager:Error] listen failed with error 98"));
    EXPECT_FALSE(listens);
}

TEST(SocketFailures, OnAHealthySystemNothingIsLogged) {
    bool listens = false;
    EXPECT_THAT(logOfListening(listens), Not(HasSubstr("Error]")));
    EXPECT_TRUE(listens);
}

TEST(SocketFailures, TheAcceptLoopGoesOnAfterDescriptorsRanOut) {
    const unsigned short port = freePort();
    std::string logged;
    {
        const CapturedLog lines;
        CSocketManager* const server = CSocketManager::SetupSocketServer(port, 1, 5);
        ASSERT_NE(server, nullptr);
        const Refusal refusal(systemRefusals().accept, EMFILE, 3);
        const UniqueFd client = connectTo(port);
        ASSERT_TRUE(client.valid());
        std::thread acceptor([&] { server->StartSocketServer(); });
        EXPECT_TRUE(sendText(client, "PING_SERVICE"));
        EXPECT_EQ(receive(client), "TRUE - ALIVE\n");
        EXPECT_EQ(systemRefusals().accept.toRefuse, 0);
        server->stop();
        acceptor.join();
        CSocketManager::destroyInstance();
        logged = lines.text();
    }
    const std::string line = "[SocketManager:Error] accept failed with error 24";
    const std::size_t first = logged.find(line);
    EXPECT_NE(first, std::string::npos);
    EXPECT_EQ(logged.find(line, first + 1), std::string::npos) << "once, however often it is tried";
}

class HarmlessAcceptErrors : public testing::TestWithParam<int> {};

TEST_P(HarmlessAcceptErrors, AreNotLogged) {
    const CapturedLog lines;
    const unsigned short port = freePort();
    CSocketManager* const server = CSocketManager::SetupSocketServer(port, 1, 5);
    ASSERT_NE(server, nullptr);
    const Refusal refusal(systemRefusals().accept, GetParam(), 2);
    const UniqueFd client = connectTo(port);
    std::thread acceptor([&] { server->StartSocketServer(); });
    EXPECT_TRUE(sendText(client, "PING_SERVICE"));
    EXPECT_EQ(receive(client), "TRUE - ALIVE\n");
    server->stop();
    acceptor.join();
    CSocketManager::destroyInstance();
    EXPECT_THAT(lines.text(), Not(HasSubstr("accept failed")));
}

INSTANTIATE_TEST_SUITE_P(Each, HarmlessAcceptErrors, testing::Values(EAGAIN, EINTR, ECONNABORTED));

TEST(SocketFailures, AConnectionWithoutAThreadIsClosedAndItsSlotIsFreeAgain) {
    const CapturedLog lines;
    CSocketManager manager(1);
    int slot = -1;
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
    const UniqueFd refused(pair[0]);
    {
        const Refusal refusal(systemRefusals().thread, EAGAIN);
        EXPECT_FALSE(manager.createSocketHelper(slot, pair[1]));
    }
    EXPECT_TRUE(closedByPeer(refused));

    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
    const UniqueFd served(pair[0]);
    EXPECT_TRUE(manager.createSocketHelper(slot, pair[1]));
    EXPECT_EQ(slot, 0);
    EXPECT_TRUE(sendText(served, "PING_SERVICE"));
    EXPECT_EQ(receive(served), "TRUE - ALIVE\n");
}

TEST(SocketFailures, AnExceptionEndsTheAcceptLoopWithALine) {
    const CapturedLog lines;
    const unsigned short port = freePort();
    CSocketManager* const server = CSocketManager::SetupSocketServer(port, 1, 5);
    ASSERT_NE(server, nullptr);
    const UniqueFd client = connectTo(port);
    systemRefusals().refusedBytes = sizeof(CMessageProcessor);
    server->StartSocketServer(); // returns, though nobody stopped it
    EXPECT_EQ(systemRefusals().refusedBytes, 0U);
    EXPECT_TRUE(closedByPeer(client));
    EXPECT_THAT(lines.text(), HasSubstr("[SocketManager:Error] CSocketManager.startSocketServer\r\n"));
    EXPECT_THAT(lines.text(), Not(HasSubstr("Exiting successfully")));
    CSocketManager::destroyInstance();
}

TEST(SocketFailures, TheEndJoinsItsConnectionsWithoutFurtherMemory) {
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
    const UniqueFd client(pair[0]);
    const CapturedLog lines;
    {
        CSocketManager manager(1);
        int slot = -1;
        ASSERT_TRUE(manager.createSocketHelper(slot, pair[1]));
        systemRefusals().refusedBytes = sizeof(pthread_t); // what a list of one thread takes
    }
    EXPECT_EQ(systemRefusals().refusedBytes.exchange(0), sizeof(pthread_t)) << "no list was made";
    EXPECT_TRUE(closedByPeer(client));
    EXPECT_THAT(lines.text(), HasSubstr("[SocketManager:Info] Socket Manager got destructed..."));
    EXPECT_THAT(lines.text(), Not(HasSubstr("Exception while destructing")));
}

TEST(SocketFailures, WithoutADescriptorToWakeTheLoopThereIsNoServer) {
    const unsigned short port = freePort();
    const CapturedLog lines;
    const Refusal refusal(systemRefusals().eventfd, EMFILE);
    EXPECT_EQ(CSocketManager::SetupSocketServer(port, 1), nullptr);
    EXPECT_THAT(lines.text(),
                HasSubstr("[SocketManager:Error] no descriptor left to wake the accept loop with\r\n"
                          "[SocketManager:Fatal] Could not use port " +
                          std::to_string(port) + "."));
}

TEST(ProcessorFailures, AnExceptionIsAnAnswerAndALine) {
    const CapturedLog lines;
    CMessageProcessor processor;
    char request[] = "PING_SERVICE";
    char response[2000] = "";
    systemRefusals().refusedBytes = sizeof(ServicePing);
    EXPECT_TRUE(processor.process(request, response, sizeof response));
    EXPECT_EQ(systemRefusals().refusedBytes, 0U) << "the request was not made";
    EXPECT_STREQ(response, "FALSE - exception");
    EXPECT_THAT(lines.text(), HasSubstr("[CMessageProcessor:Error] CMessageProcessor::process error"));
    EXPECT_TRUE(processor.process(request, response, sizeof response));
    EXPECT_STREQ(response, "TRUE - ALIVE") << "the next one is served";
}

// Both ends of one; a CSocketHelper owns the served one.
struct Connection {
    Connection() {
        int pair[2] = {-1, -1};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
        client.reset(pair[0]);
        served = pair[1];
    }

    UniqueFd client;
    int served = -1;
};

TEST(ProcessorFailures, AnAnswerThatCannotBeSentIsLogged) {
    const CapturedLog lines;
    const Connection connection;
    CSocketHelper helper(connection.served, new CMessageProcessor);
    char text[] = "TRUE";
    {
        const Refusal refusal(systemRefusals().send, EPIPE);
        EXPECT_FALSE(helper.sendToSocket(text));
    }
    EXPECT_THAT(lines.text(),
                HasSubstr("[CSocketHelper:Error] CSocketHelper::sendToSocket - Error while sending..."));
    EXPECT_TRUE(helper.sendToSocket(text));
}

TEST(ProcessorFailures, AnAnswerThatIsSentInPartIsNotSentAgain) {
    const CapturedLog lines;
    const Connection connection;
    {
        CSocketHelper helper(connection.served, new CMessageProcessor);
        char text[] = "TRUE - ALIVE";
        systemRefusals().sent = 4;
        EXPECT_TRUE(helper.sendToSocket(text)) << "a part is no failure";
    }
    EXPECT_EQ(receive(connection.client), "") << "neither the rest nor the whole";
    EXPECT_THAT(lines.text(),
                HasSubstr("[CSocketHelper:Debug] CSocketHelper::sendToSocket sent len 4- Exiting\r\n"));
}

} // namespace
