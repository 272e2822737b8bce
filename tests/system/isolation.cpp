#include "system/isolation.h"

#include "foundation/UniqueFd.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sched.h>
#include <string>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kestrel::test {

namespace {

constexpr const char* PRIVATE_QUEUES = "/tmp/mqueue";

bool isolated = false;

[[noreturn]] void fail(const char* what) {
    std::fprintf(stderr, "%s: %s\n", what, std::strerror(errno));
    std::exit(1);
}

// The directory right under /tmp that holds this build, empty when the build lies elsewhere: it must stay
// visible when /tmp is replaced.
std::string buildDirectoryInTmp() {
    const std::string program = std::filesystem::read_symlink("/proc/self/exe");
    const std::string tmp = "/tmp/";
    if (!program.starts_with(tmp))
        return {};
    return program.substr(0, program.find('/', tmp.size()));
}

bool enterNamespaces() {
    const std::string build = buildDirectoryInTmp();
    if (unshare(CLONE_NEWIPC | CLONE_NEWNS) != 0)
        return false;
    // Opened inside the new namespace: a directory of another one cannot be mounted here.
    const UniqueFd kept(build.empty() ? -1 : open(build.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    // Without this the tmpfs below would also appear in the host's /tmp.
    if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", "/tmp", "tmpfs", MS_NOSUID | MS_NODEV, "mode=1777") != 0)
        fail("a private /tmp cannot be mounted");
    if (mkdir(PRIVATE_QUEUES, 0755) != 0 || mount("mqueue", PRIVATE_QUEUES, "mqueue", 0, nullptr) != 0)
        fail("the queues' directory cannot be mounted");
    const std::string source = "/proc/self/fd/" + std::to_string(kept.get());
    if (kept.valid() && (mkdir(build.c_str(), 0755) != 0 ||
                         mount(source.c_str(), build.c_str(), nullptr, MS_BIND, nullptr) != 0))
        fail("the build directory cannot be kept in /tmp");
    isolated = true;
    return true;
}

} // namespace

const char* queueDirectory() {
    return isolated ? PRIVATE_QUEUES : "/dev/mqueue";
}

void isolateHostNames() {
    if (enterNamespaces())
        return;
    // Held by the descriptor, which stays open on purpose until the process ends.
    const int lock = open("/tmp/kestrel-host-names.lock", O_CREAT | O_RDWR | O_CLOEXEC, 0666);
    if (lock < 0 || flock(lock, LOCK_EX) != 0)
        fail("the host-wide test lock cannot be taken");
}

void clearPrivateNames() {
    if (!isolated)
        return;
    for (const auto& queue : std::filesystem::directory_iterator(PRIVATE_QUEUES))
        std::filesystem::remove(queue.path());
    for (const auto& entry : std::filesystem::directory_iterator("/tmp")) {
        const std::string name = entry.path().filename();
        if (name.starts_with("capture_") && name.ends_with(".xml"))
            std::filesystem::remove_all(entry.path());
    }
}

} // namespace kestrel::test
