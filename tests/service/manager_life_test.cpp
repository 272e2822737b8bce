// The manager's life inside one process: start, stop, and what stays.
#include "foundation/CallbackLib.h"
#include "jobs/WatchRegistry.h"
#include "loopback.h"
#include "service/CSocketManager.h"
#include "service_directories.h"

#include <csignal>
#include <future>
#include <gmock/gmock.h>
#include <netinet/tcp.h>
#include <thread>

using testing::HasSubstr;
using testing::Not;

namespace {

class ManagerLife : public ServiceDirectories {
protected:
    void SetUp() override {
        port = freePort();
        writeProfile("<P><Logging/><WebServicesComm PORT_NUMBER='" + std::to_string(port) +
                     "' NUMBER_OF_SIMULTANEOUS_HANDLES='3'/></P>");
    }

    std::string ask(const std::string& line) const {
        const kestrel::UniqueFd client = connectTo(port);
        sendText(client, line);
        return receive(client);
    }
    bool answers() const { return connectTo(port).valid(); }

    void waitUntilItAnswers() const {
        while (!answers())
            std::this_thread::yield();
    }

    unsigned short port = 0;
};

TEST_F(ManagerLife, RunStartsTheServiceAndShutdownEndsIt) {
    EXPECT_EQ(CManagerLib::Run(), 0);
    EXPECT_EQ(ask("PING_SERVICE"), "TRUE - ALIVE\n");
    EXPECT_EQ(CManagerLib::Shutdown(), 0);
    EXPECT_EQ(CManagerLib::m_instance, nullptr);
    EXPECT_EQ(CSocketManager::getInstance(), nullptr);
    EXPECT_FALSE(answers());
}

TEST_F(ManagerLife, ARunIsLoggedThoughItSetsUpTheLog) {
    CManagerLib::Run();
    EXPECT_THAT(log(), HasSubstr("[Manager:Info] Run\r\n"));
}

// The backlog that the listener of this process on that port has.
int backlogOf(unsigned short port) {
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        const int fd = std::stoi(entry.path().filename());
        int listening = 0;
        socklen_t length = sizeof listening;
        sockaddr_in address{};
        socklen_t addressLength = sizeof address;
        if (getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listening, &length) != 0 || listening == 0 ||
            getsockname(fd, reinterpret_cast<sockaddr*>(&address), &addressLength) != 0 ||
            ntohs(address.sin_port) != port)
            continue;
        tcp_info info{};
        length = sizeof info;
        // Of a listener the system says here what was given to listen.
        return getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &length) == 0 ? static_cast<int>(info.tcpi_sacked)
                                                                          : -1;
    }
    return -1;
}

TEST_F(ManagerLife, TheListenerHasTheProfilesBacklog) {
    CManagerLib::Run();
    EXPECT_EQ(backlogOf(port), 1) << "the default";
    CManagerLib::Shutdown();
    writeProfile("<P><Logging/><WebServicesComm PORT_NUMBER='" + std::to_string(port) +
                 "' NUMBER_OF_SIMULTANEOUS_HANDLES='3' LISTEN_BACKLOG='7'/></P>");
    CManagerLib::Run();
    EXPECT_EQ(backlogOf(port), 7);
}

TEST_F(ManagerLife, ShutdownWithoutAManagerIsMinusOne) {
    EXPECT_EQ(CManagerLib::Shutdown(), -1);
    CManagerLib::Run();
    EXPECT_EQ(CManagerLib::Shutdown(), 0);
    EXPECT_EQ(CManagerLib::Shutdown(), -1);
}

TEST_F(ManagerLife, OfTwoShutdownsAtOnceBothReturnTheResult) {
    CManagerLib::Run();
    auto other = std::async(std::launch::async, CManagerLib::Shutdown);
    EXPECT_TRUE(LogUtil::GetInstance() != nullptr);
    while (log().find("Shutting down KestrelManager") == std::string::npos)
        std::this_thread::yield();
    EXPECT_EQ(CManagerLib::Shutdown(), 0) << "waits for the first";
    EXPECT_EQ(other.get(), 0);
}

TEST_F(ManagerLife, TheEndIsLoggedInItsOrder) {
    CManagerLib::Run();
    CManagerLib::GetInstance()->shutdown();
    const std::string text = log();
    const char* const lines[] = {"[Manager:Info] Shutting down KestrelManager\r\n",
                                 "[Manager:Info] Stopping SocketServer\r\n",
                                 "[Manager:Info] All KestrelManager threads exited\r\n",
                                 "[SocketManager:Info] Socket Manager got destructed...\r\n",
                                 "[Manager:Info] Signal Shutdown Complete\r\n"};
    std::size_t at = 0;
    for (const char* line : lines) {
        at = text.find(line, at);
        ASSERT_NE(at, std::string::npos) << line << "in order in:\n" << text;
    }
    EXPECT_THAT(text, Not(HasSubstr("Ending VTR Process")));
}

TEST_F(ManagerLife, TheWaitForEachThreadIsADebugLine) {
    writeProfile("<P><Logging LOG_LEVEL='0'/><WebServicesComm PORT_NUMBER='" + std::to_string(port) +
                 "'/></P>");
    CManagerLib::Run();
    CManagerLib::GetInstance()->shutdown();
    EXPECT_THAT(log(), HasSubstr("[Manager:Debug] Waiting for thread 0.\r\n"));
    EXPECT_THAT(log(), HasSubstr("[Manager:Debug] Thread 0 complete.\r\n"));
    EXPECT_THAT(log(), Not(HasSubstr("Waiting for thread 1."))) << "no deck control, no second thread";
}

TEST_F(ManagerLife, ACleanupWithoutAShutdownStopsServingToo) {
    CManagerLib::Run();
    const kestrel::UniqueFd silent = connectTo(port);
    EXPECT_EQ(ask("PING_SERVICE"), "TRUE - ALIVE\n");
    CManagerLib::Cleanup();
    EXPECT_TRUE(closedByPeer(silent));
    EXPECT_FALSE(answers());
}

TEST_F(ManagerLife, AShutdownLetsAWaitingDeckRequestGo) {
    CManagerLib::Run();
    const kestrel::UniqueFd client = connectTo(port);
    // Nobody answers: no deck control is configured.
    ASSERT_TRUE(sendText(client, "VTR_CURRENT_TIME,COM1"));
    while (log().find("Failed to send message on queue /to_vtr_proc_q.") == std::string::npos)
        std::this_thread::yield();
    EXPECT_EQ(CManagerLib::Shutdown(), 0);
    EXPECT_EQ(receive(client), "FALSE - Error: The service is shutting down.\n");
}

TEST_F(ManagerLife, ItsEndTakesItsCallbackAlong) {
    CManagerLib::Run();
    CManagerLib::Shutdown();
    _VTRCmdData record{};
    CallbackLib* const registry = CallbackLib::initCallBackLib();
    EXPECT_TRUE(registry->callback(DATA_CALLBACK_VTR_CMD_REQUEST, &record, sizeof record));
    char name[] = "CManagerLib";
    EXPECT_TRUE(registry->unregisterCallback(DATA_CALLBACK_VTR_CMD_REQUEST, name)) << "known, and inactive";
    CallbackLib::ShutDownCallBackLib();
}

TEST_F(ManagerLife, ItCanBeStartedAgainAfterItsEnd) {
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(CManagerLib::Run(), 0);
        EXPECT_EQ(ask("PING_SERVICE"), "TRUE - ALIVE\n");
        EXPECT_EQ(CManagerLib::Shutdown(), 0);
    }
}

// One whose manager stays, with the flag and both events of that end.
TEST_F(ManagerLife, ARunAfterAnEndKnowsNothingOfThatEnd) {
    const auto runAfterAnEnd = [this] {
        EXPECT_EQ(CManagerLib::Run(), 0);
        CManagerLib::GetInstance()->setShutdownEvent();
        EXPECT_EQ(CManagerLib::GetInstance()->shutdown(), 0);
        auto run = std::async(std::launch::async, CManagerLib::RunCmdLine);
        waitUntilItAnswers();
        return run;
    };
    auto run = runAfterAnEnd();
    raise(SIGINT);
    EXPECT_EQ(run.get(), 1) << "it waited until the signal";
    EXPECT_THAT(log(), Not(HasSubstr("Received Shutdown Request")));
    run = runAfterAnEnd();
    EXPECT_EQ(ask("STOP_SERVICE"), "TRUE - Shutdown Signalled to Kestrel Manager Service\n");
    EXPECT_EQ(run.get(), 0) << "it did not take the request for a signal";
    EXPECT_EQ(CManagerLib::m_instance, nullptr);
}

TEST_F(ManagerLife, APortInUseIsMinusOneAndNothingStays) {
    const kestrel::UniqueFd other = boundSocket(SOCK_STREAM, port);
    ASSERT_EQ(listen(other.get(), 1), 0);
    writeProfile("<P><Logging/><WebServicesComm PORT_NUMBER='" + std::to_string(port) + "'/></P>");
    EXPECT_EQ(CManagerLib::RunCmdLine(), -1);
    EXPECT_EQ(CManagerLib::m_instance, nullptr);
    EXPECT_THAT(log(), HasSubstr("[Manager:Info] RunCmdLine\r\n"));
    EXPECT_THAT(log(), HasSubstr("[Manager:Info] Signal Shutdown Complete\r\n"));
}

TEST_F(ManagerLife, ASignalWhileIdleEndsTheForegroundRunWithOne) {
    auto run = std::async(std::launch::async, CManagerLib::RunCmdLine);
    waitUntilItAnswers();
    EXPECT_TRUE(kestrel::WatchRegistry::instance().childrenReported());
    raise(SIGINT);
    EXPECT_EQ(run.get(), 1);
    EXPECT_EQ(CManagerLib::m_instance, nullptr);
    EXPECT_FALSE(kestrel::WatchRegistry::instance().childrenReported());
}

TEST_F(ManagerLife, AStopRequestEndsTheForegroundRunWithTheShutdownsResult) {
    auto run = std::async(std::launch::async, CManagerLib::RunCmdLine);
    waitUntilItAnswers();
    EXPECT_EQ(ask("STOP_SERVICE"), "TRUE - Shutdown Signalled to Kestrel Manager Service\n");
    EXPECT_EQ(run.get(), 0);
    EXPECT_THAT(log(), HasSubstr("[Manager:Info] Received Shutdown Request\r\n"));
}

TEST_F(ManagerLife, AStopRequestAndASignalTogetherEndItOnce) {
    auto run = std::async(std::launch::async, CManagerLib::RunCmdLine);
    waitUntilItAnswers();
    ask("STOP_SERVICE");
    raise(SIGTERM);
    EXPECT_THAT(run.get(), testing::AnyOf(0, 1)) << "whichever the main thread saw first";
    EXPECT_EQ(CManagerLib::m_instance, nullptr);
}

TEST_F(ManagerLife, ASignalDuringTheStartEndsTheServiceOnceItHasStarted) {
    struct sigaction former {};
    sigaction(SIGHUP, nullptr, &former);
    auto run = std::async(std::launch::async, CManagerLib::RunCmdLine);
    // The first moment at which a signal is caught lies before the start's own work.
    struct sigaction now {};
    do {
        sigaction(SIGHUP, nullptr, &now);
    } while (now.sa_handler == former.sa_handler);
    raise(SIGHUP);
    EXPECT_EQ(run.get(), 1);
    EXPECT_FALSE(answers());
}

} // namespace
