#include "foundation/Logger.h"
#include "foundation/PosixWrappers.h"

#include <cerrno>
#include <fcntl.h>

namespace {

// Priority of sendMsg.
constexpr unsigned fixedPriority = 16;

struct ErrorName {
    int error;
    const char* name;
};

constexpr ErrorName queueErrors[] = {
    {ENOENT, "ENOENT"},
    {EINTR, "EINTR"},
    {EBADF, "EBADF"},
    {EAGAIN, "EAGAIN"},
    {EACCES, "EACCES"},
    {EEXIST, "EEXIST"},
    {EINVAL, "EINVAL"},
    {ENFILE, "ENFILE"},
    {EMFILE, "EMFILE"},
    {ENOSPC, "ENOSPC"},
    {ENAMETOOLONG, "ENAMETOOLONG"},
    {EMSGSIZE, "EMSGSIZE"},
    {ETIMEDOUT, "ETIMEDOUT"},
};

mq_attr toSystem(const long attr[4]) {
    mq_attr system{};
    system.mq_flags = attr[0];
    system.mq_maxmsg = attr[1];
    system.mq_msgsize = attr[2];
    system.mq_curmsgs = attr[3];
    return system;
}

int send(mqd_t queue, const char* bytes, int length, unsigned priority, const char* failure) {
    if (length < 0)
        errno = EMSGSIZE;
    else if (mq_send(queue, bytes, static_cast<std::size_t>(length), priority) == 0)
        return 0;
    fileLog("%s", failure);
    return 1;
}

int receive(mqd_t queue, char* buffer, int size, int* received, unsigned* priority, const char* function) {
    ssize_t length = -1;
    if (size < 0)
        errno = EMSGSIZE;
    else
        length = mq_receive(queue, buffer, static_cast<std::size_t>(size), priority);
    if (length < 1) {
        fileLog("%s: receiveMsg failed\n", function);
        return 1;
    }
    if (received)
        *received = static_cast<int>(length);
    return 0;
}

} // namespace

int createMsgQueue(const char* name, int mode, long attr[4]) {
    mq_attr system = toSystem(attr);
    const mqd_t queue =
        mq_open(name, O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC, static_cast<mode_t>(mode), &system);
    if (queue < 0)
        printQueueError();
    return queue;
}

int connectToMsgQueue(const char* name, int access, ...) {
    const bool known = access == O_RDONLY || access == O_WRONLY || access == O_RDWR;
    const mqd_t queue = mq_open(name, (known ? access : 0) | O_CLOEXEC);
    if (queue < 0) {
        fileLog("Failed to connect to %s queue\n", name ? name : "");
        printQueueError();
    }
    return queue;
}

int sendMsg(mqd_t queue, const char* bytes, int length) {
    return send(queue, bytes, length, fixedPriority, "sendMsg: mq_send failed\n");
}

int sendPriorityMsg(mqd_t queue, const char* bytes, int length, unsigned priority) {
    return send(queue, bytes, length, priority, "sendPriorityMsg: sendPriorityMsg failed\n");
}

int receiveMsg(mqd_t queue, char* buffer, int size, int* received) {
    return receive(queue, buffer, size, received, nullptr, "receiveMsg");
}

int receivePriorityMsg(mqd_t queue, char* buffer, int size, int* received, unsigned* priority) {
    return receive(queue, buffer, size, received, priority, "receivePriorityMsg");
}

int getQueueAttr(mqd_t queue, long attr[4]) {
    mq_attr system{};
    if (mq_getattr(queue, &system) != 0)
        return 1;
    attr[0] = system.mq_flags;
    attr[1] = system.mq_maxmsg;
    attr[2] = system.mq_msgsize;
    attr[3] = system.mq_curmsgs;
    return 0;
}

int setQueueAttr(mqd_t queue, long attr[4]) {
    const mq_attr system = toSystem(attr);
    return mq_setattr(queue, &system, nullptr) == 0 ? 0 : 1;
}

int closeMsgQueue(mqd_t queue) {
    return mq_close(queue) == 0 ? 0 : 1;
}

int unlinkMsgQueue(const char* name) {
    return mq_unlink(name) == 0 ? 0 : 1;
}

void printQueueError() {
    const int error = errno;
    for (const ErrorName& known : queueErrors) {
        if (known.error == error) {
            fileLog("Queue Error %s\n", known.name);
            return;
        }
    }
    fileLog("Queue Error %d\n", error);
}
