#include "figures.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <unistd.h>

namespace kestrel::bench {

double quantile(std::vector<double> values, double share) {
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    const auto index = static_cast<std::size_t>(share * static_cast<double>(values.size() - 1) + 0.5);
    return values[index];
}

double median(std::vector<double> values) {
    return quantile(std::move(values), 0.5);
}

Usage usageOf(pid_t process) {
    Usage usage;
    const std::string directory = "/proc/" + std::to_string(process);
    std::ifstream stat(directory + "/stat");
    std::string line;
    std::getline(stat, line);
    // Fields after the command, which may hold blanks: utime and stime are the 12th and 13th of them.
    std::istringstream fields(line.substr(line.rfind(')') + 2));
    std::string field;
    for (int i = 0; i < 11; ++i)
        fields >> field;
    double user = 0;
    double system = 0;
    fields >> user >> system;
    usage.cpuSeconds = (user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
    for (const auto& task : std::filesystem::directory_iterator(directory + "/task")) {
        // The scheduler's own account is finer than a clock tick.
        std::ifstream status(task.path() / "status");
        for (std::string entry; std::getline(status, entry);)
            if (entry.starts_with("voluntary_ctxt_switches:"))
                usage.voluntarySwitches += std::stol(entry.substr(24));
    }
    double nanoseconds = 0;
    for (const auto& task : std::filesystem::directory_iterator(directory + "/task")) {
        std::ifstream schedule(task.path() / "schedstat");
        double ran = 0;
        if (schedule >> ran)
            nanoseconds += ran;
    }
    if (nanoseconds > 0)
        usage.cpuSeconds = nanoseconds / 1e9;
    return usage;
}

} // namespace kestrel::bench
