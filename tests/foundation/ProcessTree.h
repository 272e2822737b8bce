#pragma once

// What the kernel tells about a process: its children, its threads, how often they slept. And a signal to
// one.

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace kestrel::test {

// kill(2) to one process. A test that asks before it has looked whether there is one has -1 or 0 in hand,
// which kill takes for every process of the machine, or of the group.
inline int signalTo(pid_t process, int number) {
    if (process > 0)
        return ::kill(process, number);
    errno = ESRCH;
    return -1;
}

// The children of a process that it has not waited for, zombies included, in order of their ids. All of
// /proc is read: a walk over the threads' own lists of children is cut short when a thread ends meanwhile.
inline std::vector<pid_t> childrenOf(pid_t parent) {
    std::vector<pid_t> found;
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        const std::string name = entry.path().filename();
        pid_t pid = 0;
        if (std::from_chars(name.data(), name.data() + name.size(), pid).ptr != name.data() + name.size())
            continue;
        std::ifstream in(entry.path() / "stat");
        std::string line;
        std::getline(in, line);
        // "pid (name) state parent ...": the name may itself hold blanks and brackets.
        const std::size_t nameEnd = line.rfind(") ");
        if (nameEnd == std::string::npos)
            continue;
        std::istringstream rest(line.substr(nameEnd + 2));
        char state = '\0';
        pid_t itsParent = 0;
        if (rest >> state >> itsParent && itsParent == parent)
            found.push_back(pid);
    }
    std::sort(found.begin(), found.end());
    return found;
}

// A number of /proc/<pid>/status or of a thread's status there, 0 when it has no such line.
inline long statusNumber(const std::filesystem::path& status, std::string_view field) {
    std::ifstream in(status);
    for (std::string line; std::getline(in, line);)
        if (line.starts_with(field) && line.size() > field.size() && line[field.size()] == ':')
            return std::stol(line.substr(field.size() + 1));
    return 0;
}

// How many threads a process has; counted by the kernel, so that none is missed while others end.
inline std::size_t threadsOf(pid_t pid) {
    return static_cast<std::size_t>(statusNumber("/proc/" + std::to_string(pid) + "/status", "Threads"));
}

// How often the threads that a process has now went to sleep of their own will.
inline long timesAsleep(pid_t pid) {
    long sum = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task"))
        sum += statusNumber(task.path() / "status", "voluntary_ctxt_switches");
    return sum;
}

} // namespace kestrel::test
