// Entry point, detaching and stop client where the system refuses.
#include "loopback.h"
#include "service/Daemon.h"
#include "service/StopClient.h"
#include "service_directories.h"
#include "system_refusals.h"

#include <cerrno>
#include <cstdlib>
#include <gmock/gmock.h>
#include <unistd.h>
#include <vector>

// The program's entry point.
int kestrelManagerMain(int argc, char** argv);

namespace {

constexpr int PARENT = 4'711;
constexpr int CHILD = 0;

// A death test looks at standard error only; the program writes to standard output.
void showOutput() {
    dup2(STDERR_FILENO, STDOUT_FILENO);
}

// Detaches, with these results of fork. Ends the process.
void detach(const std::vector<int>& forks) {
    showOutput();
    systemRefusals().forks = forks;
    kestrel::runDetached();
}

using testing::ExitedWithCode;

TEST(DetachFailures, TheFirstForkThatFailsIsSaidAndExits255) {
    EXPECT_EXIT(detach({-1}), ExitedWithCode(255), "^fork failed, cannot start daemon\n$");
}

TEST(DetachFailures, TheCallerExitsWithZeroAndSaysNothing) {
    EXPECT_EXIT(detach({PARENT}), ExitedWithCode(0), "^$");
}

TEST(DetachFailures, ASessionThatCannotBeMadeIsSaidAndExits255) {
    EXPECT_EXIT(
        {
            const Refusal refusal(systemRefusals().setsid, EPERM);
            detach({CHILD});
        },
        ExitedWithCode(255), "^setsid failed, cannot start daemon\n$");
}

TEST(DetachFailures, TheSecondForkThatFailsIsSaidAndExits255) {
    EXPECT_EXIT(detach({CHILD, -1}), ExitedWithCode(255), "^2nd fork failed, cannot start daemon\n$");
}

TEST(DetachFailures, TheFirstChildExitsWithZeroAndSaysNothing) {
    EXPECT_EXIT(detach({CHILD, PARENT}), ExitedWithCode(0), "^$");
}

TEST(DetachFailures, ADirectoryThatCannotBeEnteredIsSaidAndExits255) {
    EXPECT_EXIT(
        {
            const Refusal refusal(systemRefusals().chdir, ENOENT);
            detach({CHILD, CHILD});
        },
        ExitedWithCode(255), "^chdir failed, cannot start daemon\n$");
}

class WithoutAWord : public ServiceDirectories {
protected:
    // Runs the program without a word, with a service that cannot start.
    static void run(RefusedCall& call, int error, int times) {
        const Refusal refusal(call, error, times);
        runWith(nullptr);
    }
    // Runs it with that word, with such a service.
    static void runWith(const char* word) {
        showOutput();
        const Refusal noSockets(systemRefusals().socket, EMFILE);
        char program[] = "KestrelManager";
        std::string second = word ? word : "";
        char* argv[] = {program, word ? second.data() : nullptr, nullptr};
        std::exit(kestrelManagerMain(word ? 2 : 1, argv));
    }
};

TEST_F(WithoutAWord, TheErrorOfAFailedDetachIsSaidAndIsTheExitStatus) {
    writeProfile("<P><Logging/></P>");
    EXPECT_EXIT(run(systemRefusals().daemon, EAGAIN, 1), ExitedWithCode(EAGAIN),
                "^daemon call failed with error 11\n$");
    EXPECT_THAT(log(), testing::HasSubstr("[Manager:Info] Signal Shutdown Complete\r\n"))
        << "the service has run before";
}

TEST_F(WithoutAWord, AServiceThatCannotStartIsNoFailureOfTheProcess) {
    writeProfile("<P><Logging/></P>");
    EXPECT_EXIT(run(systemRefusals().daemon, 0, 0), ExitedWithCode(0), "^$");
    EXPECT_THAT(log(), testing::HasSubstr("[SocketManager:Fatal] Could not use port 5112.\r\n"));
}

TEST_F(WithoutAWord, WithTheWordDebugTheReasonIsSaid) {
    writeProfile("<P><Logging/></P>");
    EXPECT_EXIT(
        runWith("debug"), ExitedWithCode(0),
        "^KestrelManager could not start: Could not use port 5112\\. Where another service of this host "
        "has it, that one keeps running\\.\n$");
    EXPECT_THAT(log(), testing::ContainsRegex("\\[Manager:Info\\] Process [0-9]+\r\n"));
    EXPECT_THAT(log(), testing::ContainsRegex("\\[Manager:Error\\] Process [0-9]+ ends, it could not start: "
                                              "Could not use port 5112\\."));
}

TEST_F(WithoutAWord, WithTheWordDebugALogThatCannotBeOpenedIsSaidFirst) {
    writeProfile("<P><Logging LOG_FILENAME='/proc/x/K.log'/></P>");
    EXPECT_EXIT(runWith("debug"), ExitedWithCode(0),
                "^KestrelManager: the log /proc/x/K\\.log cannot be opened: No such file or directory "
                "\\(errno 2\\); the service runs without it\nKestrelManager could not start: ");
    EXPECT_EXIT(run(systemRefusals().daemon, 0, 0), ExitedWithCode(0), "^$") << "prints what it always has";
}

class StopClientFailures : public ServiceDirectories {
protected:
    void SetUp() override {
        server = boundSocket(SOCK_STREAM, port);
        ASSERT_EQ(listen(server.get(), 1), 0);
        writeProfile("<P><WebServicesComm PORT_NUMBER='" + std::to_string(port) + "'/></P>");
    }
    // What the client prints.
    std::string output() {
        testing::internal::CaptureStdout();
        status = kestrel::stopService();
        return testing::internal::GetCapturedStdout();
    }

    unsigned short port = 0;
    kestrel::UniqueFd server;
    int status = 7;
};

TEST_F(StopClientFailures, ASocketThatCannotBeMadeIsSaid) {
    const Refusal refusal(systemRefusals().socket, EMFILE);
    EXPECT_EQ(output(), "Could not create socket to send stop message: errno=24\n");
    EXPECT_EQ(status, -1);
}

TEST_F(StopClientFailures, ATimeoutThatCannotBeSetIsSaid) {
    const Refusal refusal(systemRefusals().setsockopt, ENOPROTOOPT);
    EXPECT_EQ(output(), "Could not set socket timeout: setsockopt errno=92\n");
    EXPECT_EQ(status, -1);
}

TEST_F(StopClientFailures, ARequestThatCannotBeSentIsSaid) {
    const Refusal refusal(systemRefusals().send, EPIPE);
    EXPECT_EQ(output(),
              "Error 32 sending stop message on port " + std::to_string(port) + " [len=14, actual=-1]\n");
    EXPECT_EQ(status, -1);
}

TEST_F(StopClientFailures, ARequestThatIsSentInPartIsSaid) {
    systemRefusals().sent = 5;
    EXPECT_THAT(output(), testing::MatchesRegex("Error [0-9]+ sending stop message on port " +
                                                std::to_string(port) + " .len=14, actual=5.\n"));
    EXPECT_EQ(status, -1);
}

} // namespace
