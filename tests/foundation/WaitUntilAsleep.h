// Waiting for another thread to wait.
#pragma once

#include <atomic>
#include <cstdio>
#include <string>
#include <sys/types.h>
#include <thread>

// Waits until a thread of this process, 0 while it is not known yet, sleeps in the kernel.
inline void waitUntilAsleep(const std::atomic<pid_t>& thread) {
    for (;;) {
        if (thread != 0) {
            const std::string path = "/proc/self/task/" + std::to_string(thread) + "/stat";
            if (std::FILE* file = std::fopen(path.c_str(), "re")) {
                char state = 0;
                const int fields = std::fscanf(file, "%*d (%*[^)]) %c", &state);
                std::fclose(file);
                if (fields == 1 && state == 'S')
                    return;
            }
        }
        std::this_thread::yield();
    }
}
