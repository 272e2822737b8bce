#include "foundation/AppLaunchUtil.h"

#include "foundation/ErrorCodes.h"
#include "foundation/Logger.h"
#include "foundation/Mutex.h"
#include "foundation/StringUtil.h"
#include "foundation/UniqueFd.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kestrel {

std::string commandLineWord(std::string_view text) {
    const std::string word(text);
    return word.find(' ') == std::string::npos ? word : '"' + word + '"';
}

ArgumentVector::ArgumentVector(std::string_view commandLine) {
    ArgumentSplit split = splitArguments(commandLine, " ");
    m_complete = split.withinBounds();
    m_arguments = std::move(split.arguments);
    if (m_arguments.size() > maxArguments)
        m_arguments.resize(maxArguments);
    for (std::string& argument : m_arguments)
        if (argument.size() >= argumentCapacity)
            argument.resize(argumentCapacity - 1);
    point();
}

ArgumentVector::ArgumentVector(std::vector<std::string> arguments) : m_arguments(std::move(arguments)) {
    point();
}

void ArgumentVector::point() {
    m_pointers.reserve(m_arguments.size() + 1);
    for (std::string& argument : m_arguments)
        m_pointers.push_back(argument.data());
    m_pointers.push_back(nullptr);
}

} // namespace kestrel

namespace {

using Clock = std::chrono::steady_clock;

constexpr int firstPrivateFd = 3;
constexpr int execFailedCode = 255;
// How late the abort flag or a stopped child may be seen.
constexpr std::chrono::milliseconds watchSlice{250};

// The kernel's own view of a signal set. The library's calls leave out the signals it keeps for itself.
using SignalSet = std::uint64_t;

long setSignalMask(const SignalSet* mask, SignalSet* old) noexcept {
    return ::syscall(SYS_rt_sigprocmask, SIG_SETMASK, mask, old, sizeof(SignalSet));
}

// Between vfork and exec the child lives in the parent's memory, so all it does from here on is system calls:
// nothing that a library or a sanitizer keeps a record of. kept is left open (-1: none).
void closePrivateDescriptors(int kept) noexcept {
    const bool below = kept <= firstPrivateFd || ::syscall(SYS_close_range, firstPrivateFd, kept - 1, 0) == 0;
    if (below && ::syscall(SYS_close_range, std::max(kept + 1, firstPrivateFd), ~0U, 0) == 0)
        return;
    constexpr rlim_t highest = rlim_t{1} << 20;
    rlimit limit{};
    const rlim_t end = ::getrlimit(RLIMIT_NOFILE, &limit) == 0 ? std::min(limit.rlim_cur, highest) : highest;
    for (int fd = firstPrivateFd; fd < static_cast<int>(end); ++fd)
        if (fd != kept)
            ::syscall(SYS_close, fd);
}

// An ignored signal stays ignored across exec, and an inherited handler must not run in shared memory once
// the mask is open.
void restoreSignals() noexcept {
    // All zero bits are "default disposition" in the kernel's record, whose layout depends on the machine.
    alignas(std::uint64_t) const unsigned char defaultAction[64] = {};
    for (int signal = 1; signal <= static_cast<int>(sizeof(SignalSet)) * 8; ++signal)
        ::syscall(SYS_rt_sigaction, signal, defaultAction, nullptr, sizeof(SignalSet));
    const SignalSet none = 0;
    setSignalMask(&none, nullptr);
}

// report is closed by a successful exec; else it takes the errno of the failed one. -1: nobody asks.
[[noreturn]] void becomeProgram(const char* file, char* const* argv, int report) noexcept {
    restoreSignals();
    // Ctrl-C at the terminal of a service run by hand ends the service, not the recordings under it.
    ::setpgid(0, 0);
    closePrivateDescriptors(report);
    ::execvp(file, argv);
    const int reason = errno;
    if (report >= 0)
        ::syscall(SYS_write, report, &reason, sizeof reason);
    while (true)
        ::syscall(SYS_exit_group, execFailedCode);
}

// A large parent's page tables are not copied only to be thrown away by exec. Kept apart and without
// variables of its own, because both processes run on this stack.
[[gnu::noinline]] pid_t startChild(const char* file, char* const* argv, int report) noexcept {
    const pid_t pid = ::vfork();
    if (pid == 0)
        becomeProgram(file, argv, report);
    return pid;
}

// What the child writes of its failed exec; 0 when the program runs. Waits no longer than for the exec.
int readReport(int fd) noexcept {
    int reason = 0;
    ssize_t count = 0;
    while ((count = ::read(fd, &reason, sizeof reason)) < 0 && errno == EINTR) {
    }
    return count == static_cast<ssize_t>(sizeof reason) ? reason : 0;
}

// The child on its way to the program; report as in becomeProgram.
pid_t run(const char* file, char** argv, int report, int& err) noexcept {
    // Nothing to run is a program that cannot be executed like any other.
    if (file == nullptr)
        file = "";
    char* const fileAlone[] = {const_cast<char*>(file), nullptr};
    // No handler of this process may run in the child while it shares our memory.
    const SignalSet all = ~SignalSet{0};
    SignalSet before = 0;
    setSignalMask(&all, &before);
    const pid_t pid = startChild(file, argv != nullptr ? argv : fileAlone, report);
    const int failure = errno;
    setSignalMask(&before, nullptr);
    // What went wrong in the child shows as its exit code, never here.
    err = pid < 0 ? failure : 0;
    return pid;
}

kestrel::UniqueFd openPidFd(pid_t pid) noexcept {
    // Such a descriptor is close-on-exec from the start.
    return kestrel::UniqueFd(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
}

// The children that were still running when their caller stopped waiting: nobody else knows their ids, so
// each launch collects those that have ended since.
class LeftChildren {
public:
    void add(kestrel::UniqueFd child) noexcept EXCLUDES(m_mutex) {
        const MutexLock lock(m_mutex);
        try {
            if (child.valid())
                m_children.push_back(std::move(child));
        } catch (const std::bad_alloc&) {
            // It stays a zombie until the service ends.
        }
    }

    void reapEnded() noexcept EXCLUDES(m_mutex) {
        const MutexLock lock(m_mutex);
        std::erase_if(m_children, [](const kestrel::UniqueFd& child) {
            siginfo_t info{};
            const int result = ::waitid(P_PIDFD, static_cast<id_t>(child.get()), &info, WEXITED | WNOHANG);
            return result != 0 || info.si_pid != 0;
        });
    }

private:
    Mutex m_mutex;
    std::vector<kestrel::UniqueFd> m_children GUARDED_BY(m_mutex);
};

LeftChildren& leftChildren() {
    static LeftChildren children;
    return children;
}

enum class Watch { changed, vanished, running };

bool isSet(bool* flag) noexcept {
    return flag != nullptr && std::atomic_ref<bool>(*flag).load();
}

// Waits until the child ends or stops, the time is over or abort is seen.
Watch watchChild(pid_t pid, int pidFd, Clock::time_point deadline, bool* abort, int& status) noexcept {
    for (auto now = Clock::now(); now < deadline; now = Clock::now()) {
        const pid_t changed = ::waitpid(pid, &status, WNOHANG | WUNTRACED);
        if (changed == pid)
            return Watch::changed;
        if (changed < 0 && errno != EINTR)
            return Watch::vanished;
        // Rounded up, so that the last slice is not spent in waits of no time.
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - now);
        pollfd wait{pidFd, POLLIN, 0};
        const int ended = ::poll(&wait, 1, static_cast<int>(std::min(left, watchSlice).count()));
        if (ended <= 0 && isSet(abort))
            break;
    }
    return Watch::running;
}

} // namespace

int AppLaunchUtil::runCmd(const char* file, char** argv, int& err) noexcept {
    return run(file, argv, -1, err);
}

int AppLaunchUtil::runCmd(kestrel::ArgumentVector& arguments, int& err) noexcept {
    return runCmd(arguments.file(), arguments.argv(), err);
}

int AppLaunchUtil::runCmd(kestrel::ArgumentVector& arguments, int& err, int& execError) noexcept {
    execError = 0;
    int ends[2] = {-1, -1};
    // Where no descriptor is left the program is started all the same, and a failure is told by its exit code
    // alone.
    if (::pipe2(ends, O_CLOEXEC) != 0)
        return runCmd(arguments, err);
    const kestrel::UniqueFd reader(ends[0]);
    kestrel::UniqueFd writer(ends[1]);
    const pid_t pid = run(arguments.file(), arguments.argv(), writer.get(), err);
    writer.reset();
    if (pid > 0)
        execError = readReport(reader.get());
    return pid;
}

int AppLaunchUtil::LaunchApplication(char* cmdLine, int timeoutSecs, bool* abort, int* exitCode) {
    leftChildren().reapEnded();
    kestrel::ArgumentVector arguments{std::string_view(cStringUtil::cValue(cmdLine))};
    int err = 0;
    const pid_t pid = runCmd(arguments, err);
    if (pid < 1) {
        LogUtil::Error("AppLaunchUtil", LOG_MSG(kestrel::error::createProcessFailed), err);
        return -1;
    }
    kestrel::UniqueFd pidFd = openPidFd(pid);
    const auto deadline = Clock::now() + std::chrono::seconds(std::max(timeoutSecs, 0));
    int status = 0;
    if (watchChild(pid, pidFd.get(), deadline, abort, status) == Watch::changed) {
        // A signalled or stopped program counts as a success, as callers expect.
        if (exitCode != nullptr)
            *exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 0;
        if (WIFSTOPPED(status))
            leftChildren().add(std::move(pidFd));
        return 0;
    }
    // A probe that leaves the program alone.
    if (::kill(pid, 0) != 0)
        return -3;
    leftChildren().add(std::move(pidFd));
    return -2;
}
