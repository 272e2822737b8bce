#include "job_bench.h"

#include "figures.h"
#include "jobs/CaptureJob.h"
#include "jobs/JobLauncher.h"

#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sched.h>
#include <stdexcept>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace kestrel::bench {

namespace {

constexpr const char* WORKER = "/bin/true";
constexpr const char* SLEEPER = "/bin/sleep 60";
constexpr int JOBS_A_ROUND = 100;
constexpr int ROUNDS = 7;

// The settings file, the queues, the process, its end seen, the queues removed.
double oneJob(unsigned long id) {
    CaptureManualJob job(id);
    job.SetOutputFile("/tmp/o.ts");
    return timed([&] {
        const char* const line = job.getCmdLine(WORKER);
        JobLauncher::Launch(&job, line, 120, true);
    });
}

double forkExecWait() {
    return timed([] {
        const pid_t child = fork();
        if (child == 0) {
            execl(WORKER, WORKER, static_cast<char*>(nullptr));
            _exit(255);
        }
        int status = 0;
        waitpid(child, &status, 0);
    });
}

double medianJob() {
    std::vector<double> times;
    for (int i = 0; i < JOBS_A_ROUND; ++i)
        times.push_back(oneJob(900'000UL + static_cast<unsigned long>(i)));
    return median(times);
}

// The worker of the only job that runs; this process has no other child.
pid_t onlyChild() {
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream children(task.path() / "children");
        pid_t child = 0;
        if (children >> child)
            return child;
    }
    return 0;
}

struct End {
    double waited = 0; // until a wait for the process returned
    double seen = 0;   // until the job had its final state
};

// Kills a worker that sleeps. The wait leaves the process to be reaped by the watching thread. The state is
// looked at when the wait has returned, so it is never reported earlier than that.
End oneEnd(unsigned long id) {
    CaptureManualJob job(id);
    const int code = JobLauncher::Launch(&job, SLEEPER, 120, false);
    const pid_t worker = onlyChild();
    if (code != 0 || worker < 1)
        throw std::runtime_error("the worker of the benchmark is not running");
    timespec untilAsleep{0, 5'000'000};
    nanosleep(&untilAsleep, nullptr);
    End end;
    end.seen = timed([&] {
        end.waited = timed([&] {
            kill(worker, SIGKILL);
            siginfo_t info{};
            waitid(P_PID, static_cast<id_t>(worker), &info, WEXITED | WNOWAIT);
        });
        while (job.state() == Job::IN_PROGRESS)
            sched_yield();
    });
    JobLauncher::StopWatching();
    return end;
}

} // namespace

void ends() {
    std::vector<double> waited;
    std::vector<double> seen;
    std::vector<double> ratios;
    for (int i = 0; i < ROUNDS * JOBS_A_ROUND; ++i) {
        const End end = oneEnd(901'000UL + static_cast<unsigned long>(i));
        waited.push_back(end.waited);
        seen.push_back(end.seen);
        ratios.push_back(end.seen / end.waited);
    }
    constexpr double RARE = 0.99;
    std::printf("worker's end, state seen     p50 %6.0f us, p99 %6.0f us, waitpid %6.0f us, %6.0f us, "
                "ratio %.3f   (bar: 1.4)\n",
                1e6 * median(seen), 1e6 * quantile(seen, RARE), 1e6 * median(waited),
                1e6 * quantile(waited, RARE), median(ratios));
}

void jobs() {
    // The limit program is timed in a process of the same size: this one, before it grows.
    std::vector<double> ratios;
    std::vector<double> small;
    std::vector<double> bare;
    for (int round = 0; round < ROUNDS; ++round) {
        std::vector<double> limit;
        for (int i = 0; i < JOBS_A_ROUND; ++i)
            limit.push_back(forkExecWait());
        bare.push_back(median(limit));
        small.push_back(medianJob());
        ratios.push_back(small.back() / bare.back());
    }
    std::printf(
        "job, start to end seen       p50 %6.0f us, fork+exec+wait %6.0f us, ratio %.3f   (bar: 1.4)\n",
        1e6 * median(small), 1e6 * median(bare), median(ratios));

    constexpr std::size_t RESIDENT = 100UL << 20;
    std::vector<double> grown;
    for (int round = 0; round < ROUNDS; ++round) {
        const double without = medianJob();
        const std::unique_ptr<char[]> memory(new char[RESIDENT]);
        std::memset(memory.get(), round + 1, RESIDENT);
        grown.push_back(medianJob() / without);
    }
    std::printf("job with 100 MB resident     ratio to a small process %.3f   (bar: 1.3)\n", median(grown));
}

} // namespace kestrel::bench
