#include "job_bench.h"

#include "figures.h"
#include "jobs/CaptureJob.h"
#include "jobs/JobLauncher.h"

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace kestrel::bench {

namespace {

constexpr const char* WORKER = "/bin/true";
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

} // namespace

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
