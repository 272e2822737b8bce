// The two message queues of a job: made before its worker starts, removed after it has ended.
#include "jobs/JobQueues.h"

#include "foundation/ErrnoKeeper.h"
#include "foundation/ErrorCodes.h"
#include "foundation/Logger.h"
#include "foundation/PosixWrappers.h"
#include "foundation/QueueMessages.h"
#include "foundation/UniqueFd.h"
#include "jobs/JobLauncher.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <sys/resource.h>

namespace kestrel {

namespace {

constexpr const char* category = "JobLauncher";
constexpr int queuePermissions = 0666;
constexpr long waitingMessages = 10;

std::string limitOf(__rlimit_resource resource) {
    rlimit limit{};
    if (getrlimit(resource, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY)
        return "unlimited";
    return std::to_string(limit.rlim_cur);
}

std::string hostSetting(const char* path) {
    std::ifstream file(path);
    std::string value;
    file >> value;
    return value.empty() ? "unknown" : value;
}

// mq_open answers EMFILE both when the process has no descriptor left and when its user may not have more
// bytes in queues; only the first keeps other files from being opened.
bool descriptorsUsedUp() {
    const UniqueFd probe(open("/dev/null", O_RDONLY | O_CLOEXEC));
    return !probe.valid();
}

} // namespace

std::string describeQueueFailure(int error) {
    std::string what;
    switch (error) {
    case EMFILE:
        what = descriptorsUsedUp()
                   ? "open files of this process, RLIMIT_NOFILE " + limitOf(RLIMIT_NOFILE)
                   : "bytes in message queues of this user, RLIMIT_MSGQUEUE " + limitOf(RLIMIT_MSGQUEUE);
        break;
    case ENFILE:
        what = "open files of this host, /proc/sys/fs/file-max " + hostSetting("/proc/sys/fs/file-max");
        break;
    case ENOSPC:
        what = "message queues of this host, /proc/sys/fs/mqueue/queues_max " +
               hostSetting("/proc/sys/fs/mqueue/queues_max");
        break;
    case EINVAL:
        what = "size of a message queue, /proc/sys/fs/mqueue/msg_max " +
               hostSetting("/proc/sys/fs/mqueue/msg_max") + " and msgsize_max " +
               hostSetting("/proc/sys/fs/mqueue/msgsize_max");
        break;
    default:
        return std::string(" (") + std::strerror(error) + ", errno " + std::to_string(error) + ")";
    }
    return " (limit met: " + what + ", errno " + std::to_string(error) + ")";
}

} // namespace kestrel

using namespace kestrel;

int JobLauncher::createQueue(char* name, int& descriptor) {
    descriptor = -1;
    if (name == nullptr)
        return static_cast<int>(error::queueNotCreated);
    // One that is there is replaced. Where it belongs to a job of another service, that job is deaf from now
    // on.
    if (unlinkMsgQueue(name) == 0)
        LogUtil::Warning(category,
                         "Queue %s was there already and is made anew: it is left of a service that was "
                         "killed, or another service of this host has a job of this number",
                         name);
    long attributes[4] = {0, waitingMessages, maxQueueMessage, 0};
    descriptor = createMsgQueue(name, queuePermissions, attributes);
    if (descriptor >= 0)
        return 0;
    const ErrnoKeeper keeper;
    const int failure = errno;
    LogUtil::Error(category, LOG_MSG(error::queueNotCreated), name);
    LogUtil::Error(category, "Queue %s%s", name, describeQueueFailure(failure).c_str());
    return static_cast<int>(error::queueNotCreated);
}

int JobLauncher::flushAndDestroyQueue(char* name, int descriptor) {
    if (name == nullptr)
        name = const_cast<char*>("");
    long attributes[4] = {};
    if (getQueueAttr(descriptor, attributes) == 0 && attributes[3] > 0) {
        // Another reader may be quicker; this one must not wait for a message that does not come.
        long nonBlocking[4] = {O_NONBLOCK, 0, 0, 0};
        setQueueAttr(descriptor, nonBlocking);
        std::array<char, maxQueueMessage> dropped;
        int length = 0;
        for (long i = 0; i < attributes[3]; ++i)
            receiveMsg(descriptor, dropped.data(), static_cast<int>(dropped.size()), &length);
    }
    int result = 0;
    if (closeMsgQueue(descriptor) != 0) {
        LogUtil::Error(category, LOG_MSG(error::queueNotClosed), name);
        result = static_cast<int>(error::queueNotClosed);
    }
    if (unlinkMsgQueue(name) != 0) {
        LogUtil::Error(category, LOG_MSG(error::queueNotUnlinked), name);
        result = static_cast<int>(error::queueNotUnlinked);
    }
    return result;
}
