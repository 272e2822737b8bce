#include "system/isolation.h"

#include "foundation/UniqueFd.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sched.h>
#include <stdexcept>
#include <string>
#include <string_view>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace kestrel::test {

namespace {

constexpr const char* USUAL_QUEUES = "/dev/mqueue";
constexpr const char* PRIVATE_QUEUES = "/tmp/mqueue";
constexpr decltype(statfs::f_type) MQUEUE_MAGIC = 0x19800202; // of the kernel's sources
constexpr std::string_view TO_DECKS = "to_vtr_proc_q";

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

// A container may have queues without the mount that lists them.
bool queuesAreListed() {
    struct statfs status {};
    return isolated || (statfs(USUAL_QUEUES, &status) == 0 && status.f_type == MQUEUE_MAGIC);
}

// Whether an installed or a hand-started service runs; those under test have another name.
bool serviceRuns() {
    std::error_code error;
    for (const auto& process : std::filesystem::directory_iterator("/proc", error)) {
        std::string name;
        if (std::ifstream comm(process.path() / "comm"); std::getline(comm, name) && name == "KestrelManager")
            return true;
    }
    return false;
}

// A private /tmp that still shows the build, and in it the directory of this namespace's queues.
bool mountPrivateNames(const std::string& build) {
    // Opened inside the new namespace: a directory of another one cannot be mounted here.
    const UniqueFd kept(build.empty() ? -1 : open(build.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    // Without the first this tmpfs would also appear in the host's /tmp.
    if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", "/tmp", "tmpfs", MS_NOSUID | MS_NODEV, "mode=1777") != 0)
        return false;
    if (mkdir(PRIVATE_QUEUES, 0755) != 0 || mount("mqueue", PRIVATE_QUEUES, "mqueue", 0, nullptr) != 0)
        return false;
    const std::string source = "/proc/self/fd/" + std::to_string(kept.get());
    return !kept.valid() || (mkdir(build.c_str(), 0755) == 0 &&
                             mount(source.c_str(), build.c_str(), nullptr, MS_BIND, nullptr) == 0);
}

// A container may allow the namespaces and refuse to mount in them: then this process goes back to its own.
bool enterNamespaces() {
    const std::string build = buildDirectoryInTmp();
    const UniqueFd ownNames(open("/proc/self/ns/ipc", O_RDONLY | O_CLOEXEC));
    const UniqueFd ownMounts(open("/proc/self/ns/mnt", O_RDONLY | O_CLOEXEC));
    const std::filesystem::path directory = std::filesystem::current_path();
    if (unshare(CLONE_NEWIPC | CLONE_NEWNS) != 0)
        return false;
    isolated = mountPrivateNames(build);
    if (isolated)
        return true;
    if (setns(ownMounts.get(), CLONE_NEWNS) != 0 || setns(ownNames.get(), CLONE_NEWIPC) != 0)
        fail("the former namespaces cannot be entered again");
    std::filesystem::current_path(directory); // which setns changes
    return false;
}

// Whether a name has the number of a job between these two. Where names are shared: a small number, as the
// first jobs of a service have. The tests of single jobs, which do not wait for these, take large ones.
bool hasJobNumber(std::string_view name, std::string_view before, std::string_view after) {
    constexpr std::size_t SMALL_DIGITS = 5;
    if (!name.starts_with(before) || !name.substr(before.size()).ends_with(after))
        return false;
    const std::string_view number = name.substr(before.size(), name.size() - before.size() - after.size());
    return !number.empty() && number.find_first_not_of("0123456789") == std::string_view::npos &&
           (isolated || number.size() <= SMALL_DIGITS);
}

bool isJobQueue(std::string_view name) {
    return hasJobNumber(name, "mgr_msg_q_", "") || hasJobNumber(name, "job_update_q_", "");
}

bool isDeckQueue(std::string_view name) {
    return name == TO_DECKS || name == "from_vtr_proc_q";
}

// Whether a service that runs has the deck queues: it locks one of them.
bool decksAreServed() {
    const std::filesystem::path name = std::filesystem::path(queueDirectory()) / TO_DECKS;
    const UniqueFd queue(open(name.c_str(), O_RDONLY | O_CLOEXEC));
    return queue.valid() && flock(queue.get(), LOCK_EX | LOCK_NB) != 0;
}

// Removes what has such a name there; of a shared directory only what is this user's.
void removeOwn(const char* directory, bool (*isMeant)(std::string_view name)) {
    std::error_code error;
    std::vector<std::filesystem::path> meant;
    for (const auto& entry : std::filesystem::directory_iterator(directory, error)) {
        struct stat status {};
        if (isMeant(entry.path().filename().string()) && lstat(entry.path().c_str(), &status) == 0 &&
            (isolated || status.st_uid == geteuid()))
            meant.push_back(entry.path());
    }
    for (const std::filesystem::path& path : meant)
        std::filesystem::remove_all(path, error);
}

} // namespace

const char* queueDirectory() {
    if (isolated)
        return PRIVATE_QUEUES;
    if (!queuesAreListed())
        throw std::runtime_error(
            "message queues are not listed in /dev/mqueue: mount -t mqueue none /dev/mqueue");
    return USUAL_QUEUES;
}

void isolateHostNames() {
    if (enterNamespaces())
        return;
    // Held by the descriptor, which stays open on purpose until the process ends. Another user's file can be
    // locked, but in a directory like /tmp it can be neither written nor opened as if to be made.
    constexpr const char* LOCK = "/tmp/kestrel-host-names.lock";
    int lock = open(LOCK, O_RDONLY | O_CLOEXEC);
    if (lock < 0 && errno == ENOENT)
        lock = open(LOCK, O_CREAT | O_RDONLY | O_CLOEXEC, 0644);
    if (lock < 0 || flock(lock, LOCK_EX) != 0)
        fail("the host-wide test lock cannot be taken");
    if (serviceRuns()) {
        std::fprintf(stderr,
                     "A KestrelManager runs, and no namespace may be entered: it and the tests would take "
                     "each other's queues. Stop it, or run the tests as root.\n");
        std::exit(1);
    }
    // What a run that was ended before its time has left.
    clearPrivateNames();
}

bool isServiceQueue(std::string_view name) {
    return isolated || isJobQueue(name) || isDeckQueue(name);
}

void clearPrivateNames() {
    if (queuesAreListed())
        removeOwn(queueDirectory(), [](std::string_view name) {
            return isolated || isJobQueue(name) || (isDeckQueue(name) && !decksAreServed());
        });
    removeOwn("/tmp", [](std::string_view name) { return hasJobNumber(name, "capture_", ".xml"); });
}

} // namespace kestrel::test
