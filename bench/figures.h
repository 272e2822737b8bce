// Figures of paired runs.
#pragma once

#include <chrono>
#include <sys/types.h>
#include <vector>

namespace kestrel::bench {

using Seconds = std::chrono::duration<double>;

double median(std::vector<double> values);
// The value below which that share of the values lies.
double quantile(std::vector<double> values, double share);

// What a process has used so far: CPU in seconds, voluntary context switches, all threads.
struct Usage {
    double cpuSeconds = 0;
    long voluntarySwitches = 0;
};
Usage usageOf(pid_t process);

// Runs fn and returns the seconds it took.
template <typename Fn>
double timed(Fn&& fn) {
    const auto start = std::chrono::steady_clock::now();
    fn();
    return Seconds(std::chrono::steady_clock::now() - start).count();
}

} // namespace kestrel::bench
