#include "service/DeckProcess.h"

#include "foundation/AppLaunchUtil.h"
#include "foundation/Logger.h"
#include "foundation/StringUtil.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kestrel {

namespace {

// How often the process is looked at where the system gives no descriptor for it.
constexpr int LOOK_MS = 100;

std::string describe(int status) {
    if (WIFSIGNALED(status))
        return "by signal " + std::to_string(WTERMSIG(status));
    return "with exit status " + std::to_string(WEXITSTATUS(status));
}

} // namespace

int DeckProcess::start(std::vector<std::string> arguments) {
    ArgumentVector list(std::move(arguments));
    int failure = 0;
    int execFailure = 0;
    const int pid = AppLaunchUtil::runCmd(list, failure, execFailure);
    if (pid < 1)
        return failure != 0 ? failure : EAGAIN;
    // It ends with exit status 255 then, which alone says nothing of the reason.
    if (execFailure != 0)
        LogUtil::Error("Manager", "Error: Could not run %s: errno %d (%s).", cStringUtil::cValue(list.file()),
                       execFailure, std::strerror(execFailure));
    m_executed = execFailure == 0;
    m_pid = pid;
    m_handle.reset(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
    return 0;
}

std::optional<std::string> DeckProcess::takeEnd() {
    if (!running())
        return std::nullopt;
    int status = 0;
    const pid_t ended = waitpid(m_pid, &status, WNOHANG);
    if (ended == 0 || (ended < 0 && errno == EINTR))
        return std::nullopt;
    m_pid = -1;
    m_handle.reset();
    return ended < 0 ? "in a way that nobody saw" : describe(status);
}

std::optional<std::string> DeckProcess::waitAtMost(int milliseconds) {
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + std::chrono::milliseconds(milliseconds);
    for (;;) {
        if (auto end = takeEnd())
            return end;
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left <= 0)
            return std::nullopt;
        pollfd entry{m_handle.get(), POLLIN, 0};
        poll(&entry, 1, static_cast<int>(m_handle.valid() ? left : std::min<long>(left, LOOK_MS)));
    }
}

std::optional<std::string> DeckProcess::waitForEnd(int askedMs, int terminatedMs, int killedMs) {
    if (!running())
        return "before";
    if (auto end = waitAtMost(askedMs))
        return *end;
    kill(m_pid, SIGTERM);
    if (auto end = waitAtMost(terminatedMs))
        return *end;
    kill(m_pid, SIGKILL);
    auto end = waitAtMost(killedMs);
    if (!end) {
        m_pid = -1;
        m_handle.reset();
    }
    return end;
}

} // namespace kestrel
