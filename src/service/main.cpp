// KestrelManager: runs the service, in the foreground or detached, or tells a running one to stop.
#include "service/Daemon.h"
#include "service/ManagerLib.h"
#include "service/StopClient.h"

#include <cerrno>
#include <cstdio>
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

} // namespace

int main(int argc, char** argv) {
    if (argc < 2)
        return runThenDetach();
    const std::string_view word = argv[1];
    if (word == "debug")
        CManagerLib::RunCmdLine();
    else if (word == "start")
        kestrel::runDetached();
    else if (word == "stop")
        return kestrel::stopService();
    // "install", "uninstall" and any other word do nothing, so that scripts that pass them succeed.
    return 0;
}
