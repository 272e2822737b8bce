// What happens where the system lets a user have no further process or thread: run in a process of its own.
#pragma once

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

// Becomes a user who may have no further process. False where the system lets him have one all the same.
inline bool forbidFurtherProcesses() {
    constexpr uid_t nobody = 65534;
    const rlimit none{0, 0};
    if ((::getuid() == 0 && ::setuid(nobody) != 0) || ::setrlimit(RLIMIT_NPROC, &none) != 0)
        return false;
    const pid_t child = ::fork();
    if (child == 0)
        ::_exit(0);
    if (child > 0)
        ::waitpid(child, nullptr, 0);
    return child < 0;
}

// The status of a process that could not become such a user, and why a test is skipped then.
constexpr int cannotForbid = 77;
constexpr const char* whyCannotForbid = "this system does not limit the processes of a user";

// Runs body in a process that cannot make another, and returns the status of its end.
template <typename Body>
int statusWithoutFurtherProcesses(Body body) {
    const pid_t pid = ::fork();
    if (pid == 0)
        ::_exit(forbidFurtherProcesses() ? body() : cannotForbid);
    int status = -1;
    EXPECT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status));
    return WEXITSTATUS(status);
}
