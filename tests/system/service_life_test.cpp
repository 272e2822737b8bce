// Start, stop, signals, profiles: the service as an operator sees it.
#include "foundation/ProcessTree.h"
#include "system/service_under_test.h"

#include <arpa/inet.h>
#include <csignal>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iterator>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace kestrel::test;
using testing::HasSubstr;
using testing::Not;

namespace {

Ended endOf(Child& child, std::chrono::milliseconds limit = 20s) {
    const std::optional<Ended> ended = child.wait(limit);
    EXPECT_TRUE(ended.has_value()) << "the process still runs";
    return ended.value_or(Ended{});
}

// Asks again until it ends: the service may still be starting its last thread, and the thread sanitizer loses
// a signal that reaches a thread half made.
void endWhileItStarts(Child& child) {
    EXPECT_TRUE(eventually([&] {
        child.signal(SIGTERM);
        return child.wait(3s).has_value();
    })) << "the process still runs";
}

TEST(ServiceLife, StopServiceIsAnsweredAndEndsTheServiceWithStatusZero) {
    ServiceUnderTest service;
    service.start();
    EXPECT_EQ(service.ask("STOP_SERVICE"), "TRUE - Shutdown Signalled to Kestrel Manager Service");
    const Ended ended = endOf(service.process());
    EXPECT_TRUE(ended.exited);
    EXPECT_EQ(ended.code, 0);
    const std::string log = service.log();
    EXPECT_THAT(log, HasSubstr("[Manager:Info] setShutdownEvent\r\n"));
    EXPECT_THAT(log, HasSubstr("[Manager:Info] Received Shutdown Request\r\n"));
    EXPECT_THAT(log, HasSubstr("[Manager:Info] Shutting down KestrelManager\r\n"));
    EXPECT_THAT(log, HasSubstr("[Manager:Info] Stopping SocketServer\r\n"));
    EXPECT_THAT(log, HasSubstr("[Manager:Info] All KestrelManager threads exited\r\n"));
    EXPECT_THAT(log, HasSubstr("[Manager:Info] Signal Shutdown Complete\r\n"));
    EXPECT_THAT(log, Not(HasSubstr("Ending VTR Process")));
}

class ServiceSignals : public testing::TestWithParam<int> {};

TEST_P(ServiceSignals, EndTheServiceInOrder) {
    ServiceUnderTest service;
    service.start();
    service.process().signal(GetParam());
    const Ended ended = endOf(service.process());
    EXPECT_TRUE(ended.exited);
    EXPECT_EQ(ended.code, 0);
    EXPECT_THAT(service.log(), HasSubstr("Signal Shutdown Complete"));
}

INSTANTIATE_TEST_SUITE_P(Each, ServiceSignals, testing::Values(SIGINT, SIGHUP, SIGTERM),
                         [](const auto& each) { return std::string(sigabbrev_np(each.param)); });

TEST(ServiceLife, ASecondSignalAndAStopDuringTheShutdownChangeNothing) {
    ServiceUnderTest service;
    service.start();
    service.ask("STOP_SERVICE");
    service.process().signal(SIGTERM);
    service.process().signal(SIGINT);
    const Ended ended = endOf(service.process());
    EXPECT_TRUE(ended.exited);
    EXPECT_EQ(ended.code, 0);
}

TEST(ServiceLife, TheStopClientPrintsTheAnswerAndTheServiceEnds) {
    ServiceUnderTest service;
    service.start();
    const auto client = service.run("stop");
    const Ended ended = endOf(*client);
    EXPECT_EQ(ended.code, 0);
    EXPECT_THAT(ended.output, HasSubstr("TRUE - Shutdown Signalled to Kestrel Manager Service\n"));
    EXPECT_EQ(endOf(service.process()).code, 0);
}

TEST(ServiceLife, TheStopClientFindsAServiceWhosePortComesFromTheIntegerReadBefore) {
    ServiceUnderTest service;
    service.setProfileText("<Profile><Logging LOG_FILENAME='" + (service.root() / "logs").string() +
                           "/KestrelManager.log' LOG_IP='127.0.0.1' LOG_PORT='" +
                           std::to_string(service.port()) +
                           "'/><WebServicesComm NUMBER_OF_SIMULTANEOUS_HANDLES='5'/></Profile>");
    service.start();
    const Ended ended = endOf(*service.run("stop"));
    EXPECT_THAT(ended.output, HasSubstr("TRUE - Shutdown Signalled to Kestrel Manager Service\n"));
    EXPECT_EQ(endOf(service.process()).code, 0);
}

TEST(ServiceLife, TheStopClientSaysWhereItCouldNotConnect) {
    ServiceUnderTest service;
    const Ended ended = endOf(*service.run("stop"));
    EXPECT_EQ(ended.output, "Could not connect to port " + std::to_string(service.port()) +
                                " to send stop message: errno=111\n");
    EXPECT_EQ(ended.code, 255);
}

TEST(ServiceLife, TheStopClientGivesUpAfterThirtySecondsWithoutAnAnswer) {
    ServiceUnderTest service;
    const kestrel::UniqueFd listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(service.port()));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(listener.get(), 1), 0);
    const Ended ended = endOf(*service.run("stop"), 45s);
    EXPECT_EQ(ended.output, "No response from Service.  Check that it is running\n");
    EXPECT_EQ(ended.code, 0);
}

class OtherWords : public testing::TestWithParam<const char*> {};

TEST_P(OtherWords, DoNothingAndExitZero) {
    const ServiceUnderTest service;
    const Ended ended = endOf(*service.run(GetParam()));
    EXPECT_TRUE(ended.exited);
    EXPECT_EQ(ended.code, 0);
    EXPECT_EQ(ended.output, "");
    EXPECT_EQ(service.log(), "");
}

INSTANTIATE_TEST_SUITE_P(Each, OtherWords,
                         testing::Values("install", "uninstall", "Debug", "START", "stopx", "--help"));

TEST(ServiceLife, AnArgumentBehindTheWordIsIgnored) {
    const ServiceUnderTest service;
    const Ended stopped = endOf(*service.run("stop", "now"));
    EXPECT_EQ(stopped.output, "Could not connect to port " + std::to_string(service.port()) +
                                  " to send stop message: errno=111\n");
    EXPECT_EQ(stopped.code, 255);
    const Ended installed = endOf(*service.run("install", "stop"));
    EXPECT_EQ(installed.output, "");
    EXPECT_EQ(installed.code, 0);
}

TEST(ServiceLife, WithoutAWordItRunsInTheForegroundAndDetachesOnlyAfterTheEnd) {
    ServiceUnderTest service;
    const auto process = service.run("");
    ASSERT_TRUE(eventually([&] { return service.ask("PING_SERVICE") == "TRUE - ALIVE"; }, 30s));
    EXPECT_TRUE(process->running());
    service.ask("STOP_SERVICE");
    EXPECT_EQ(endOf(*process).code, 0);
}

// The process that runs with the service's directory and is no child of this one any more.
pid_t daemonOf(const ServiceUnderTest& service) {
    const std::string wanted = "KESTREL_TEST_ROOT=" + service.root().string() + '\0';
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        const std::string name = entry.path().filename();
        if (name.find_first_not_of("0123456789") != std::string::npos)
            continue;
        std::ifstream in(entry.path() / "environ", std::ios::binary);
        const std::string environment{std::istreambuf_iterator<char>(in), {}};
        if (environment.find(wanted) == std::string::npos)
            continue;
        // The leader of its session, which it was started by, may not have ended yet.
        const pid_t process = std::stoi(name);
        if (const pid_t session = getsid(process); session > 0 && session != process)
            return process;
    }
    return -1;
}

// What /proc says in the line that begins with that word.
std::string statusLine(pid_t process, const std::string& word) {
    std::ifstream in("/proc/" + std::to_string(process) + "/status");
    for (std::string line; std::getline(in, line);)
        if (line.starts_with(word + ":\t"))
            return line.substr(word.size() + 2);
    return {};
}

// A process that nobody has waited for does not run any more.
bool runs(pid_t process) {
    const std::string state = statusLine(process, "State");
    return !state.empty() && !state.starts_with("Z");
}

TEST(ServiceLife, StartDetachesAndTheServiceRunsInTmp) {
    ServiceUnderTest service;
    const Ended caller = endOf(*service.run("start"));
    EXPECT_EQ(caller.code, 0);
    EXPECT_EQ(caller.output, "");
    ASSERT_TRUE(eventually([&] { return service.ask("PING_SERVICE") == "TRUE - ALIVE"; }, 30s));
    const pid_t process = daemonOf(service);
    ASSERT_GT(process, 0);
    const std::filesystem::path proc = "/proc/" + std::to_string(process);
    EXPECT_EQ(std::filesystem::read_symlink(proc / "cwd"), "/tmp");
    EXPECT_EQ(statusLine(process, "Umask"), "0000");
    for (const char* descriptor : {"0", "1", "2"})
        EXPECT_EQ(std::filesystem::read_symlink(proc / "fd" / descriptor), "/dev/null") << descriptor;
    // It cannot get a terminal: its session is new, and its leader, the first child, has ended.
    const pid_t session = getsid(process);
    EXPECT_NE(session, process);
    EXPECT_NE(session, getsid(0));
    EXPECT_TRUE(eventually([&] { return !runs(session); }));
    EXPECT_NE(statusLine(process, "PPid"), std::to_string(getpid()));
    service.ask("STOP_SERVICE");
    EXPECT_TRUE(service.waitForLog("Signal Shutdown Complete"));
    EXPECT_TRUE(eventually([&] { return service.ask("PING_SERVICE").empty(); }));
    EXPECT_TRUE(eventually([&] { return !runs(process); })) << "the process ends, too";
}

TEST(ServiceLife, ASecondInstanceOnThePortFailsToStartAndTheFirstGoesOn) {
    ServiceUnderTest service;
    service.start();
    const Ended second = endOf(*service.run("debug"));
    EXPECT_EQ(second.code, 0);
    EXPECT_THAT(service.log(), HasSubstr("[SocketManager:Fatal] Could not use port " +
                                         std::to_string(service.port()) + ".\r\n"));
    EXPECT_EQ(service.ask("PING_SERVICE"), "TRUE - ALIVE");
}

TEST(ServiceLife, WithoutAProfileTheDefaultsHoldAndTheLogSaysSo) {
    ServiceUnderTest service;
    service.removeProfile();
    const auto process = service.run("debug");
    // The default port may be taken on this machine; either way the profile's absence is logged first.
    EXPECT_TRUE(service.waitForLog("Could not load KestrelManager settings file " + service.root().string() +
                                   "/conf/KestrelManagerProfile.xml."));
    EXPECT_TRUE(eventually([&] {
        const std::string log = service.log();
        return log.find("on port 5112...") != std::string::npos ||
               log.find("Could not use port 5112.") != std::string::npos;
    }));
    endWhileItStarts(*process);
}

TEST(ServiceLife, AMalformedProfileIsLoggedAndTheDefaultsHold) {
    ServiceUnderTest service;
    service.setProfileText("this is no XML <<<");
    const auto process = service.run("debug");
    EXPECT_TRUE(service.waitForLog("Could not load KestrelManager settings file " + service.root().string() +
                                   "/conf/KestrelManagerProfile.xml."));
    EXPECT_TRUE(eventually([&] {
        const std::string log = service.log();
        return log.find("on port 5112...") != std::string::npos ||
               log.find("Could not use port 5112.") != std::string::npos;
    }));
    endWhileItStarts(*process);
}

TEST(ServiceLife, AProfileWithoutALoggingSectionLogsNothing) {
    ServiceUnderTest service;
    service.setProfileText("<Profile><WebServicesComm PORT_NUMBER='" + std::to_string(service.port()) +
                           "' NUMBER_OF_SIMULTANEOUS_HANDLES='5'/></Profile>");
    service.start();
    service.stop();
    EXPECT_EQ(service.log(), "");
}

TEST(ServiceLife, AnIdleServiceMakesNoWakeUps) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer's own thread wakes ten times a second";
#endif
    ServiceUnderTest service;
    service.start();
    const auto switches = [&] { return timesAsleep(service.process().pid()); };
    // The connection thread of the last question must be gone first.
    ASSERT_TRUE(service.waitForLog("Number of handles: 0"));
    timespec second{1, 0};
    nanosleep(&second, nullptr);
    const long before = switches();
    timespec interval{3, 0};
    nanosleep(&interval, nullptr);
    EXPECT_LE(switches() - before, 6);
}

} // namespace
