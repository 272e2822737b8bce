#include "service/Daemon.h"

#include "service/ManagerLib.h"

#include <cstdio>
#include <cstdlib>
#include <sys/stat.h>
#include <unistd.h>

namespace kestrel {

namespace {

void orExit(bool done, const char* failure) {
    if (done)
        return;
    std::puts(failure);
    std::exit(-1);
}

// Continues in the child; the parent's process ends well.
void forkAndContinue(const char* failure) {
    const pid_t child = fork();
    orExit(child >= 0, failure);
    if (child > 0)
        std::exit(0);
}

void reopen(const char* mode, std::FILE* stream) {
    // There is nowhere to tell when even this fails.
    [[maybe_unused]] const std::FILE* const opened = std::freopen("/dev/null", mode, stream);
}

} // namespace

void runDetached() {
    forkAndContinue("fork failed, cannot start daemon");
    orExit(setsid() >= 0, "setsid failed, cannot start daemon");
    forkAndContinue("2nd fork failed, cannot start daemon");
    orExit(chdir("/tmp") >= 0, "chdir failed, cannot start daemon");
    umask(0);
    reopen("r", stdin);
    reopen("w", stdout);
    reopen("w", stderr);
    CManagerLib::RunCmdLine();
    std::exit(0);
}

} // namespace kestrel
