#include "jobs/WorkerWatch.h"

#include "foundation/ErrorCodes.h"
#include "foundation/Logger.h"
#include "foundation/PosixWrappers.h"
#include "foundation/QueueMessages.h"
#include "jobs/WorkerMessages.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <limits>
#include <poll.h>
#include <string>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kestrel {

namespace {

constexpr const char* category = "JobLauncher";

// Messages, the end of the worker and the end of watching are events; that a worker was stopped is one where
// SIGCHLD is told of. A program that does not tell of it has its workers looked at this often.
constexpr int stoppedCheckMs = 1000;
// Where the system has no descriptor for it, the end of the worker, or of watching, is no event either.
constexpr int endCheckMs = 10;
constexpr int untilEvent = -1;

UniqueFd openProcess(pid_t pid) {
    return UniqueFd(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
}

} // namespace

WorkerWatch::WorkerWatch(const JobLauncher::ThreadData& data, pid_t pid,
                         const WatchRegistry::Membership& membership)
    : m_data(data), m_job(*data.job), m_pid(pid), m_membership(membership), m_process(openProcess(pid)),
      m_lastStatus(Clock::now()) {
    // Another reader of the queue may take a message between its being counted and its being received.
    long attributes[4] = {O_NONBLOCK, 0, 0, 0};
    setQueueAttr(m_data.updateQueue, attributes);
}

void WorkerWatch::run() {
    for (;;) {
        waitForEvent();
        if (m_membership.stopRequested()) {
            reportUnwatched();
            return;
        }
        // Once the worker has announced its end, all that counts is its end.
        if (!m_exitAnnounced) {
            drain();
            if (silentTooLong() && !m_exitAnnounced) {
                reportSilence();
                return;
            }
        }
        if (workerChanged())
            return;
    }
}

void WorkerWatch::waitForEvent() {
    // Negative descriptors are skipped by poll.
    const int queue = m_exitAnnounced || !m_queueUsable ? -1 : m_data.updateQueue;
    std::array<pollfd, 3> events{
        {{queue, POLLIN, 0}, {m_process.get(), POLLIN, 0}, {m_membership.wakeDescriptor(), POLLIN, 0}}};
    if (poll(events.data(), events.size(), waitMilliseconds()) <= 0)
        return;
    if ((events[0].revents & (POLLERR | POLLNVAL)) != 0)
        m_queueUsable = false;
    // Before anything is looked at, so that what changes meanwhile ends the next wait.
    if (events[2].revents != 0)
        m_membership.clearWake();
}

int WorkerWatch::waitMilliseconds() const {
    const int slice = lookAgainMilliseconds();
    if (m_data.statusTimeout <= 0 || m_exitAnnounced)
        return slice;
    constexpr int longest = std::numeric_limits<int>::max();
    const auto deadline = m_lastStatus + std::chrono::seconds(std::int64_t{m_data.statusTimeout} + 1);
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return static_cast<int>(std::clamp<std::int64_t>(left, 0, slice == untilEvent ? longest : slice));
}

int WorkerWatch::lookAgainMilliseconds() const {
    if (!m_process.valid() || m_membership.wakeDescriptor() < 0)
        return endCheckMs;
    return WatchRegistry::instance().childrenReported() ? untilEvent : stoppedCheckMs;
}

// Silence is counted in whole seconds, of a clock that nobody sets.
bool WorkerWatch::silentTooLong() const {
    if (m_data.statusTimeout <= 0)
        return false;
    const auto silence = std::chrono::floor<std::chrono::seconds>(Clock::now() - m_lastStatus);
    return silence.count() > m_data.statusTimeout;
}

void WorkerWatch::drain() {
    long attributes[4] = {};
    if (getQueueAttr(m_data.updateQueue, attributes) != 0 || attributes[3] <= 0)
        return;
    std::array<char, maxQueueMessage> buffer;
    for (long i = 0; i < attributes[3]; ++i) {
        int length = 0;
        unsigned priority = 0;
        if (receivePriorityMsg(m_data.updateQueue, buffer.data(), static_cast<int>(buffer.size()), &length,
                               &priority) != 0)
            continue;
        const GenericFlatMsg message(reinterpret_cast<unsigned char*>(buffer.data()), length);
        if (takeWorkerMessage(m_job, message))
            m_exitAnnounced = true;
    }
    m_lastStatus = Clock::now();
}

// Looks at the process. True when it has ended or stopped and the job has its final state.
bool WorkerWatch::workerChanged() {
    int status = 0;
    const pid_t changed = waitpid(m_pid, &status, WNOHANG | WUNTRACED);
    if (changed == 0 || (changed < 0 && errno == EINTR))
        return false;
    // Somebody else has reaped it, and its exit code is lost.
    constexpr int unknownEnd = SIGKILL;
    m_endUnseen = changed < 0;
    if (m_endUnseen)
        status = unknownEnd;
    m_remains = changed > 0 && WIFSTOPPED(status);
    // What the worker sent last may have come after the queue was read; results must not be lost.
    if (!m_exitAnnounced)
        drain();
    reportResults();
    takeEnd(status);
    return true;
}

// What a worker says reaches nobody but the service, and of a verification only what was asked for is
// answered: its findings are in these words.
void WorkerWatch::reportResults() const {
    std::string results = m_job.resultsText();
    if (results.empty())
        return;
    // A name of a file in it may have a line end.
    std::replace_if(
        results.begin(), results.end(), [](unsigned char each) { return each < ' ' || each == 0x7f; }, ' ');
    LogUtil::Info(category, "Job %d %s: results: %s", static_cast<int>(m_job.id), m_job.guidStr,
                  results.c_str());
}

void WorkerWatch::takeEnd(int status) {
    if ((status & 0x7f) != 0) {
        LogUtil::Error(category,
                       "Child process %s exited, but could not retrieve exit code.  Was exit() used?",
                       m_data.cmdLine);
        reportSignal(status);
        // A cancelled job too: its worker did not end in order.
        if (m_job.finish(Job::ERROR) != Job::ERROR)
            m_job.setState(Job::ERROR);
        return;
    }
    const int exitCode = WEXITSTATUS(status);
    // The lines that follow do not say whose process it was.
    LogUtil::Info(category, "Job %d %s: process %d ended with exit code %d.", static_cast<int>(m_job.id),
                  m_job.guidStr, static_cast<int>(m_pid), exitCode);
    if (exitCode == 0) {
        LogUtil::Info(category, "%s", LOG_MSG(error::jobProcessSucceeded));
        m_job.finish(Job::COMPLETE);
        return;
    }
    LogUtil::Error(category, LOG_MSG(error::processExited), m_data.cmdLine, static_cast<long>(exitCode));
    m_job.finish(Job::ERROR);
}

void WorkerWatch::reportSignal(int status) const {
    const int job = static_cast<int>(m_job.id);
    const int pid = static_cast<int>(m_pid);
    if (m_endUnseen) {
        LogUtil::Warning(category, "Job %d %s: how process %d ended is not known.", job, m_job.guidStr, pid);
        return;
    }
    const int number = WIFSTOPPED(status) ? WSTOPSIG(status) : WTERMSIG(status);
    const char* const known = sigabbrev_np(number);
    const std::string signal = std::to_string(number) + (known ? std::string(" (SIG") + known + ")" : "");
    if (WIFSTOPPED(status))
        LogUtil::Warning(
            category,
            "Job %d %s: process %d was stopped by signal %s and is no longer watched. To let it go "
            "on: kill -CONT %d",
            job, m_job.guidStr, pid, signal.c_str(), pid);
    else
        LogUtil::Warning(category, "Job %d %s: process %d was ended by signal %s.", job, m_job.guidStr, pid,
                         signal.c_str());
}

// The worker is only probed, deliberately: a recording whose reports got lost is still a recording.
void WorkerWatch::reportSilence() {
    LogUtil::Error(category, "No status message in last %d seconds, terminating job %d %s.",
                   m_data.statusTimeout, static_cast<int>(m_job.id), m_job.guidStr);
    LogUtil::Warning(
        category, "Job %d %s: its worker, process %d, is no longer watched. To end it: kill -TERM %d",
        static_cast<int>(m_job.id), m_job.guidStr, static_cast<int>(m_pid), static_cast<int>(m_pid));
    kill(m_pid, 0);
}

void WorkerWatch::reportUnwatched() const {
    LogUtil::Info(category,
                  "Job %d %s is no longer watched. Its worker, process %d, keeps running; to end it: "
                  "kill -TERM %d",
                  static_cast<int>(m_job.id), m_job.guidStr, static_cast<int>(m_pid),
                  static_cast<int>(m_pid));
}

void reapInBackground(pid_t pid) {
    pthread_t thread{};
    const auto reap = [](void* child) -> void* {
        const auto id = static_cast<pid_t>(reinterpret_cast<std::intptr_t>(child));
        while (waitpid(id, nullptr, 0) < 0 && errno == EINTR) {
        }
        return nullptr;
    };
    // NOLINTNEXTLINE(performance-no-int-to-ptr): a number travels as the thread's argument.
    if (createPosixThread(&thread, reap, reinterpret_cast<void*>(static_cast<std::intptr_t>(pid))) == 0)
        pthread_detach(thread);
    else
        LogUtil::Warning(category, "Process %d will not be reaped: no thread can be started.",
                         static_cast<int>(pid));
}

} // namespace kestrel
