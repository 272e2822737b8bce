// KestrelManager: runs the service, in the foreground or detached, or tells a running one to stop.
#include "service/Daemon.h"
#include "service/ManagerLib.h"
#include "service/ProcessStart.h"
#include "service/StopClient.h"

#include <cerrno>
#include <cstdio>
#include <string>
#include <string_view>
#include <unistd.h>

namespace {

// Without a word the service runs first, in the foreground, and the process detaches when it has ended. The
// odd order is kept: supervisors rely on the foreground run.
int runThenDetach() {
    CManagerLib::RunCmdLine();
    if (daemon(1, 0) == 0)
        return 0;
    const int error = errno;
    std::printf("daemon call failed with error %d\n", error);
    return error;
}

// The exit status does not tell of a failed start, deliberately; whoever watches must not have to look for
// the log first.
void runInForeground() {
    // The first call sets up the log.
    CManagerLib::GetInstance();
    if (const std::string failure = CManagerLib::LogFailure(); !failure.empty())
        std::fprintf(stderr, "KestrelManager: %s\n", failure.c_str());
    CManagerLib::RunCmdLine();
    if (const std::string failure = CManagerLib::StartFailure(); !failure.empty())
        std::fprintf(stderr, "KestrelManager could not start: %s\n", failure.c_str());
}

} // namespace

int main(int argc, char** argv) {
    kestrel::prepareProcess();
    if (argc < 2)
        return runThenDetach();
    const std::string_view word = argv[1];
    if (word == "debug")
        runInForeground();
    else if (word == "start")
        kestrel::runDetached();
    else if (word == "stop")
        return kestrel::stopService();
    // "install", "uninstall" and any other word do nothing, so that scripts that pass them succeed.
    return 0;
}
