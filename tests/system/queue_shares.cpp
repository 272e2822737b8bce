// Preloaded into a service whose user may not have the bytes that its queues take: the kernel counts a queue
// against the real user of the thread that makes it, so each is made as a user of its own, who has the whole
// limit. The effective user, to whom the queue belongs, stays.
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <dlfcn.h>
#include <fcntl.h>
#include <mqueue.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

constexpr uid_t FIRST_USER = 100'000;
constexpr uid_t KEPT = static_cast<uid_t>(-1);

// Of this thread alone: the library's call would change all threads.
void becomeRealUser(uid_t user) {
    syscall(SYS_setresuid, user, KEPT, KEPT);
}

} // namespace

extern "C" mqd_t mq_open(const char* name, int flags, ...) noexcept {
    using Open = mqd_t (*)(const char*, int, ...);
    static const Open open = reinterpret_cast<Open>(dlsym(RTLD_NEXT, "mq_open"));
    if ((flags & O_CREAT) == 0)
        return open(name, flags);
    std::va_list arguments;
    va_start(arguments, flags);
    const auto mode = va_arg(arguments, mode_t);
    mq_attr* const attributes = va_arg(arguments, mq_attr*);
    va_end(arguments);

    static std::atomic<uid_t> made{0};
    const uid_t user = getuid();
    becomeRealUser(FIRST_USER + made++);
    const mqd_t queue = open(name, flags, mode, attributes);
    const int failure = errno;
    becomeRealUser(user);
    errno = failure;
    return queue;
}
