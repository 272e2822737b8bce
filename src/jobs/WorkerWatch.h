// Watching one worker process: its messages, its silence and its end.
#pragma once

#include "foundation/UniqueFd.h"
#include "jobs/JobLauncher.h"
#include "jobs/WatchRegistry.h"

#include <chrono>
#include <sys/types.h>

namespace kestrel {

class WorkerWatch {
public:
    // data and membership must outlive the watch; pid is a child of this process that nobody else waits for.
    WorkerWatch(const JobLauncher::ThreadData& data, pid_t pid, const WatchRegistry::Membership& membership);

    // Watches until the worker has ended or stopped, has been silent for too long, or watching is ended. The
    // job has its final state then, where the worker's end gives it one.
    void run();

    // Whether the worker has not been waited for, so that somebody has to reap it.
    [[nodiscard]] bool workerRemains() const noexcept { return m_remains; }

private:
    using Clock = std::chrono::steady_clock;

    void waitForEvent();
    [[nodiscard]] int waitMilliseconds() const;
    [[nodiscard]] int lookAgainMilliseconds() const;
    [[nodiscard]] bool silentTooLong() const;
    void drain();
    bool workerChanged();
    void takeEnd(int status);
    void reportResults() const;
    void reportSignal(int status) const;
    void reportSilence();
    void reportUnwatched() const;

    const JobLauncher::ThreadData& m_data;
    Job& m_job;
    pid_t m_pid;
    const WatchRegistry::Membership& m_membership;
    UniqueFd m_process;
    Clock::time_point m_lastStatus;
    bool m_queueUsable = true;
    bool m_exitAnnounced = false;
    bool m_remains = true;
    bool m_endUnseen = false; // somebody else has reaped it
};

// Waits for the end of a child in the background, so that it leaves no zombie.
void reapInBackground(pid_t pid);

} // namespace kestrel
