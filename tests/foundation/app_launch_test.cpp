// Starting external programs.
#include "foundation/AppLaunchUtil.h"
#include "foundation/CapturedLog.h"
#include "foundation/ProcessTree.h"
#include "foundation/ScratchDir.h"
#include "foundation/UniqueFd.h"
#include "foundation/WaitUntilAsleep.h"
#include "foundation/WithoutFurtherProcesses.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// Runs a program through runCmd and returns the status of its end.
int statusOf(const char* file, char** argv) {
    int err = 99;
    const int pid = AppLaunchUtil::runCmd(file, argv, err);
    int status = -1;
    EXPECT_EQ(err, 0);
    if (pid <= 0) {
        ADD_FAILURE() << "no child";
        return status;
    }
    EXPECT_EQ(::waitpid(pid, &status, 0), pid);
    return status;
}

int runScript(const std::string& script) {
    kestrel::ArgumentVector arguments(std::vector<std::string>{"sh", "-c", script});
    return statusOf(arguments.file(), arguments.argv());
}

void expectExit(int status, int code) {
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), code);
}

// A program that reports its process id through a pipe in the file system, and then does as its script says.
class ReportingProgram {
public:
    explicit ReportingProgram(const std::string& script) {
        ::mkfifo(m_dir.path("pid").c_str(), 0600);
        // Open for both, so that neither side waits for the other in open.
        m_fifo.reset(::open(m_dir.path("pid").c_str(), O_RDWR | O_CLOEXEC));
        const std::string file =
            m_dir.file("program", "echo $$ > " + m_dir.path("pid") + "\n" + script + "\n");
        m_commandLine = "sh \"" + file + "\"";
    }
    ~ReportingProgram() {
        if (m_pid > 0) {
            kestrel::test::signalTo(m_pid, SIGKILL);
            ::waitpid(m_pid, nullptr, 0);
        }
    }

    char* commandLine() { return m_commandLine.data(); }

    // Somebody has collected the program: its process id may be another's from now on.
    void wasReaped() { m_pid = -1; }

    // Waits until the program runs.
    pid_t pid() {
        char text[32] = {};
        if (m_pid == 0 && ::read(m_fifo.get(), text, sizeof text - 1) > 0)
            m_pid = std::atoi(text);
        return m_pid;
    }

private:
    ScratchDir m_dir;
    kestrel::UniqueFd m_fifo;
    std::string m_commandLine;
    pid_t m_pid = 0;
};

TEST(RunCmd, StartsAProgramOnThePathWithItsArguments) {
    const ScratchDir dir;
    kestrel::ArgumentVector arguments(std::vector<std::string>{"sh", "-c", "printf '%s|' \"$@\" > \"$0\"",
                                                               dir.path("out"), "a b", "", "c"});
    int err = 99;
    const int pid = AppLaunchUtil::runCmd("sh", arguments.argv(), err);
    ASSERT_GT(pid, 0);
    EXPECT_EQ(err, 0);
    int status = -1;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    expectExit(status, 0);
    EXPECT_EQ(contentOf(dir.path("out")), "a b||c|");
}

TEST(RunCmd, ChildsExitCodeIsTheProgramsOwn) {
    expectExit(runScript("exit 42"), 42);
}

TEST(RunCmd, ProgramThatCannotBeExecutedIsAChildThatExitsWith255) {
    const ScratchDir dir;
    for (const std::string& name : {std::string("kestrel-no-such-program"), dir.path("missing"),
                                    dir.file("not-executable", "exit 0\n")}) {
        kestrel::ArgumentVector arguments(std::vector<std::string>{name});
        int err = 99;
        const int pid = AppLaunchUtil::runCmd(arguments, err);
        ASSERT_GT(pid, 0) << name;
        EXPECT_EQ(err, 0) << name;
        int status = -1;
        ASSERT_EQ(::waitpid(pid, &status, 0), pid);
        expectExit(status, 255);
    }
}

TEST(RunCmd, WhyAProgramCannotBeExecutedIsToldOnRequest) {
    const ScratchDir dir;
    const std::pair<std::string, int> programs[] = {{"kestrel-no-such-program", ENOENT},
                                                    {dir.path("missing"), ENOENT},
                                                    {dir.file("not-executable", "exit 0\n"), EACCES},
                                                    {dir.path("missing") + "/below", ENOENT},
                                                    {"", ENOENT},
                                                    {"true", 0}};
    for (const auto& [name, reason] : programs) {
        kestrel::ArgumentVector arguments(std::vector<std::string>{name});
        int err = 99;
        int execError = 99;
        const int pid = AppLaunchUtil::runCmd(arguments, err, execError);
        ASSERT_GT(pid, 0) << name;
        EXPECT_EQ(err, 0) << name;
        EXPECT_EQ(execError, reason) << name;
        int status = -1;
        ASSERT_EQ(::waitpid(pid, &status, 0), pid);
        expectExit(status, reason == 0 ? 0 : 255);
    }
}

TEST(RunCmd, AskingWhyLeavesTheProgramNoDescriptor) {
    // Also where the question's own descriptor lies between others.
    const kestrel::UniqueFd low(::dup(STDERR_FILENO));
    const kestrel::UniqueFd high(::fcntl(STDERR_FILENO, F_DUPFD, 700));
    ASSERT_TRUE(high.valid());
    kestrel::ArgumentVector arguments(std::vector<std::string>{
        "sh", "-c", "for fd in /proc/$$/fd/*; do [ ${fd##*/} -le 2 ] || [ ! -e $fd ] || exit 1; done"});
    int err = 0;
    int execError = 99;
    const int pid = AppLaunchUtil::runCmd(arguments, err, execError);
    ASSERT_GT(pid, 0);
    EXPECT_EQ(execError, 0);
    int status = -1;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    expectExit(status, 0);
}

TEST(RunCmd, WithoutADescriptorToAskWithTheProgramIsStartedAllTheSame) {
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none{0, before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    kestrel::ArgumentVector arguments(std::vector<std::string>{"kestrel-no-such-program"});
    int err = 99;
    int execError = 99;
    const int pid = AppLaunchUtil::runCmd(arguments, err, execError);
    ::setrlimit(RLIMIT_NOFILE, &before);
    ASSERT_GT(pid, 0);
    EXPECT_EQ(execError, 0) << "nobody knows";
    int status = -1;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    expectExit(status, 255);
}

TEST(RunCmd, NothingToRunIsAChildThatExitsWith255) {
    char name[] = "true";
    char* argv[] = {name, nullptr};
    char* none[] = {nullptr};
    for (const char* file : {static_cast<const char*>(nullptr), ""})
        for (char** arguments : {argv, none, static_cast<char**>(nullptr)})
            expectExit(statusOf(file, arguments), 255);
    kestrel::ArgumentVector empty(std::string_view(""));
    expectExit(statusOf(empty.file(), empty.argv()), 255);
}

TEST(RunCmd, ProgramWithoutArgumentVectorGetsItsNameAlone) {
    const ScratchDir dir;
    const std::string program = dir.file("program", "#!/bin/sh\n[ \"$0\" = '" + dir.path("program") +
                                                        "' ] && [ $# -eq 0 ] && exit 42\n");
    ASSERT_EQ(::chmod(program.c_str(), 0700), 0);
    expectExit(statusOf(program.c_str(), nullptr), 42);
}

TEST(RunCmd, WithoutAChildTheResultIsMinusOneAndTheErrorIsStored) {
    const int status = statusWithoutFurtherProcesses([] {
        int err = 0;
        return AppLaunchUtil::runCmd("true", nullptr, err) == -1 ? err : 0;
    });
    if (status == cannotForbid)
        GTEST_SKIP() << whyCannotForbid;
    EXPECT_EQ(status, EAGAIN);
}

TEST(RunCmd, ChildHasOnlyTheStandardDescriptors) {
    const kestrel::UniqueFd low(::dup(STDERR_FILENO));
    const kestrel::UniqueFd high(::fcntl(STDERR_FILENO, F_DUPFD, 700));
    ASSERT_TRUE(low.valid());
    ASSERT_TRUE(high.valid());
    const auto absent = [](int fd) { return "[ ! -e /proc/$$/fd/" + std::to_string(fd) + " ]"; };
    expectExit(runScript(absent(low.get()) + " && " + absent(high.get()) + " && [ -e /proc/$$/fd/2 ]"), 0);
}

TEST(RunCmd, ChildHasDefaultSignalsAndAnEmptyMask) {
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    struct sigaction before[2];
    ASSERT_EQ(::sigaction(SIGPIPE, &ignore, &before[0]), 0);
    ASSERT_EQ(::sigaction(SIGHUP, &ignore, &before[1]), 0);
    sigset_t blocked;
    sigset_t maskBefore;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    sigaddset(&blocked, SIGUSR1);
    ASSERT_EQ(::pthread_sigmask(SIG_BLOCK, &blocked, &maskBefore), 0);

    const int status = runScript("! grep -E '^Sig(Blk|Ign):.*[1-9a-f]' /proc/self/status");

    sigset_t maskAfter;
    EXPECT_EQ(::pthread_sigmask(SIG_SETMASK, &maskBefore, &maskAfter), 0);
    struct sigaction after[2];
    ::sigaction(SIGPIPE, &before[0], &after[0]);
    ::sigaction(SIGHUP, &before[1], &after[1]);
    expectExit(status, 0);
    // The parent's own are as they were.
    EXPECT_EQ(after[0].sa_handler, SIG_IGN);
    EXPECT_EQ(after[1].sa_handler, SIG_IGN);
    EXPECT_EQ(sigismember(&maskAfter, SIGTERM), 1);
    EXPECT_EQ(sigismember(&maskAfter, SIGUSR1), 1);
    EXPECT_EQ(sigismember(&maskAfter, SIGINT), 0);
}

TEST(RunCmd, ChildHasAProcessGroupOfItsOwnSoThatCtrlCIsNotForIt) {
    expectExit(runScript("read -r pid comm state parent group rest < /proc/self/stat; [ $group = $$ ]"), 0);
}

volatile std::sig_atomic_t handled = 0;

TEST(RunCmd, ParentsHandlersStillRunInTheParent) {
    struct sigaction handler {};
    handler.sa_handler = [](int) { handled = handled + 1; };
    struct sigaction before {};
    ASSERT_EQ(::sigaction(SIGUSR2, &handler, &before), 0);
    handled = 0;
    expectExit(runScript("exit 0"), 0);
    ::raise(SIGUSR2);
    EXPECT_EQ(handled, 1);
    ::sigaction(SIGUSR2, &before, nullptr);
}

TEST(RunCmd, SeveralThreadsMayStartPrograms) {
    std::vector<std::jthread> threads;
    for (int thread = 0; thread < 4; ++thread)
        threads.emplace_back([thread] {
            for (int i = 0; i < 20; ++i)
                expectExit(runScript("exit " + std::to_string(thread * 20 + i)), thread * 20 + i);
        });
}

int launch(const char* commandLine, int timeoutSecs, bool* abort = nullptr, int* exitCode = nullptr) {
    std::string line = commandLine;
    return AppLaunchUtil::LaunchApplication(line.data(), timeoutSecs, abort, exitCode);
}

TEST(LaunchApplication, ReturnsTheExitCodeOfAProgramThatEnded) {
    int exitCode = 99;
    EXPECT_EQ(launch("true", 30, nullptr, &exitCode), 0);
    EXPECT_EQ(exitCode, 0);
    EXPECT_EQ(launch("sh -c \"exit 7\"", 30, nullptr, &exitCode), 0);
    EXPECT_EQ(exitCode, 7);
    EXPECT_EQ(launch("true", 30), 0) << "the exit code may be unwanted";
}

// With the abort flag set, the wait sleeps once and then gives up, unless the end of the program woke it.
int launchAndEndItInTheFirstSleep() {
    ReportingProgram program("exec sleep 60");
    bool abort = true;
    const std::atomic<pid_t> launcher = gettid();
    std::jthread killer([&] {
        const pid_t pid = program.pid();
        waitUntilAsleep(launcher);
        kestrel::test::signalTo(pid, SIGKILL);
    });
    const int result = AppLaunchUtil::LaunchApplication(program.commandLine(), 60, &abort, nullptr);
    killer.join();
    if (result == 0)
        program.wasReaped();
    return result;
}

TEST(LaunchApplication, SeesTheEndAtOnce) {
    // A busy machine may not get as far as the end within the 250 ms of the sleep, hence several tries.
    int result = -2;
    for (int i = 0; i < 100 && result == -2; ++i)
        result = launchAndEndItInTheFirstSleep();
    EXPECT_EQ(result, 0);
}

TEST(LaunchApplication, UnknownProgramExitsWith255) {
    int exitCode = 99;
    EXPECT_EQ(launch("kestrel-no-such-program -x", 30, nullptr, &exitCode), 0);
    EXPECT_EQ(exitCode, 255);
}

TEST(LaunchApplication, EmptyCommandExitsWith255) {
    const CapturedLog log;
    for (const char* commandLine : {"", "   "}) {
        int exitCode = 99;
        EXPECT_EQ(launch(commandLine, 30, nullptr, &exitCode), 0);
        EXPECT_EQ(exitCode, 255);
    }
    int exitCode = 99;
    EXPECT_EQ(AppLaunchUtil::LaunchApplication(nullptr, 30, nullptr, &exitCode), 0);
    EXPECT_EQ(exitCode, 255);
    EXPECT_EQ(log.text(), "");
}

TEST(LaunchApplication, CommandThatCannotBeStartedIsLogged) {
    const int status = statusWithoutFurtherProcesses([] {
        const CapturedLog log;
        int exitCode = 99;
        const std::string expected =
            "[AppLaunchUtil:Error] CreateProcess failed (" + std::to_string(EAGAIN) + ")\r\n";
        if (launch("true", 30, nullptr, &exitCode) != -1)
            return 1;
        if (exitCode != 99)
            return 2;
        return log.text() == expected ? 0 : 3;
    });
    if (status == cannotForbid)
        GTEST_SKIP() << whyCannotForbid;
    EXPECT_EQ(status, 0);
}

TEST(LaunchApplication, ProgramEndedByASignalCountsAsSuccess) {
    int exitCode = 99;
    ReportingProgram program("kill -KILL $$");
    EXPECT_EQ(AppLaunchUtil::LaunchApplication(program.commandLine(), 30, nullptr, &exitCode), 0);
    EXPECT_EQ(exitCode, 0);
}

TEST(LaunchApplication, StoppedProgramCountsAsEnded) {
    ReportingProgram program("kill -STOP $$");
    int exitCode = 99;
    EXPECT_EQ(AppLaunchUtil::LaunchApplication(program.commandLine(), 30, nullptr, &exitCode), 0);
    EXPECT_EQ(exitCode, 0);
    EXPECT_EQ(kestrel::test::signalTo(program.pid(), 0), 0);
}

TEST(LaunchApplication, ProgramThatOutlivesTheWaitIsLeftRunning) {
    ReportingProgram program("exec sleep 60");
    int exitCode = 99;
    const auto start = Clock::now();
    EXPECT_EQ(AppLaunchUtil::LaunchApplication(program.commandLine(), 1, nullptr, &exitCode), -2);
    EXPECT_GE(Clock::now() - start, 1s);
    EXPECT_EQ(exitCode, 99);
    EXPECT_EQ(kestrel::test::signalTo(program.pid(), 0), 0);
}

TEST(LaunchApplication, NoTimeMeansNoWait) {
    ReportingProgram program("exec sleep 60");
    EXPECT_EQ(AppLaunchUtil::LaunchApplication(program.commandLine(), 0, nullptr, nullptr), -2);
    EXPECT_GT(program.pid(), 0);
    ReportingProgram other("exec sleep 60");
    EXPECT_EQ(AppLaunchUtil::LaunchApplication(other.commandLine(), -5, nullptr, nullptr), -2);
    EXPECT_GT(other.pid(), 0);
}

TEST(LaunchApplication, AbortEndsTheWait) {
    ReportingProgram program("exec sleep 60");
    bool abort = false;
    std::jthread aborter([&] {
        program.pid();
        std::atomic_ref<bool>(abort).store(true);
    });
    const auto start = Clock::now();
    EXPECT_EQ(AppLaunchUtil::LaunchApplication(program.commandLine(), 600, &abort, nullptr), -2);
    EXPECT_LT(Clock::now() - start, 60s);
    aborter.join();
    EXPECT_EQ(kestrel::test::signalTo(program.pid(), 0), 0) << "the program itself is not ended";
}

TEST(LaunchApplication, ProgramThatEndsInTheFirstSliceIsReportedInSpiteOfAbort) {
    bool abort = true;
    int exitCode = 99;
    EXPECT_EQ(launch("true", 30, &abort, &exitCode), 0);
    EXPECT_EQ(exitCode, 0);
}

TEST(LaunchApplication, ProgramThatNobodyCanReapHasVanished) {
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    struct sigaction before {};
    ASSERT_EQ(::sigaction(SIGCHLD, &ignore, &before), 0);
    const auto start = Clock::now();
    int exitCode = 99;
    EXPECT_EQ(launch("true", 600, nullptr, &exitCode), -3);
    EXPECT_LT(Clock::now() - start, 60s);
    EXPECT_EQ(exitCode, 99);
    ::sigaction(SIGCHLD, &before, nullptr);
}

TEST(LaunchApplication, ProgramLeftRunningIsCollectedByALaterLaunchOnceItEnded) {
    ReportingProgram program("exec sleep 60");
    ASSERT_EQ(AppLaunchUtil::LaunchApplication(program.commandLine(), 0, nullptr, nullptr), -2);
    const pid_t pid = program.pid();
    ASSERT_GT(pid, 0);
    ASSERT_EQ(kestrel::test::signalTo(pid, SIGKILL), 0);
    siginfo_t info{};
    ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
    EXPECT_EQ(launch("true", 30), 0);
    EXPECT_EQ(::waitpid(pid, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
}

TEST(CommandLineWord, IsQuotedOnlyWhereItHasABlank) {
    EXPECT_EQ(kestrel::commandLineWord("/logs/capture_1.log"), "/logs/capture_1.log");
    EXPECT_EQ(kestrel::commandLineWord(""), "");
    EXPECT_EQ(kestrel::commandLineWord("/my logs/a.log"), "\"/my logs/a.log\"");
    kestrel::ArgumentVector split("worker -log " + kestrel::commandLineWord("/my logs/a.log"));
    EXPECT_STREQ(split.argv()[2], "/my logs/a.log");
}

} // namespace
