#include "service/ProcessStart.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <initializer_list>
#include <unistd.h>

namespace kestrel {

namespace {

// From below, so that each gets the lowest free number, its own.
void openMissingStreams() {
    for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream)
        if (fcntl(stream, F_GETFD) < 0 && errno == EBADF) {
            // Not close-on-exec: workers get the three streams. There is nowhere to tell of a failure.
            [[maybe_unused]] const int opened =
                open("/dev/null", stream == STDIN_FILENO ? O_RDONLY : O_WRONLY);
        }
}

// Where the end of a child is ignored nobody learns how it ended, and each job would fail.
void restoreSignals() {
    std::signal(SIGCHLD, SIG_DFL);
    sigset_t needed;
    sigemptyset(&needed);
    for (const int number : {SIGCHLD, SIGTERM, SIGINT, SIGHUP})
        sigaddset(&needed, number);
    sigprocmask(SIG_UNBLOCK, &needed, nullptr);
}

} // namespace

void prepareProcess() {
    openMissingStreams();
    restoreSignals();
}

} // namespace kestrel
