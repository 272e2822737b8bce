// The linker sends the calls of this program to the functions below (--wrap).
#include "system_refusals.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <fcntl.h>
#include <mqueue.h>
#include <new>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

bool RefusedCall::refuses() {
    if (toRefuse == 0)
        return false;
    if (toGrant > 0) {
        --toGrant;
        return false;
    }
    --toRefuse;
    errno = error;
    return true;
}

SystemRefusals& systemRefusals() {
    static SystemRefusals* const refusals = new SystemRefusals;
    return *refusals;
}

namespace {

// Allocations happen before main, and while the object above is made.
std::atomic<std::size_t>* refusedBytes = nullptr;
[[maybe_unused]] const bool ready = [] {
    refusedBytes = &systemRefusals().refusedBytes;
    return true;
}();

} // namespace

extern "C" {

int __real_accept4(int fd, sockaddr* address, socklen_t* length, int flags);
int __wrap_accept4(int fd, sockaddr* address, socklen_t* length, int flags) {
    return systemRefusals().accept.refuses() ? -1 : __real_accept4(fd, address, length, flags);
}

int __real_chdir(const char* path);
int __wrap_chdir(const char* path) {
    return systemRefusals().chdir.refuses() ? -1 : __real_chdir(path);
}

// Never real: a test would go on in another process.
int __wrap_daemon(int, int) {
    return systemRefusals().daemon.refuses() ? -1 : 0;
}

int __real_eventfd(unsigned count, int flags);
int __wrap_eventfd(unsigned count, int flags) {
    return systemRefusals().eventfd.refuses() ? -1 : __real_eventfd(count, flags);
}

pid_t __real_fork();
pid_t __wrap_fork() {
    std::vector<int>& results = systemRefusals().forks;
    if (results.empty())
        return __real_fork();
    const int result = results.front();
    results.erase(results.begin());
    return result;
}

int __real_fseeko(std::FILE* file, off_t offset, int whence);
int __wrap_fseeko(std::FILE* file, off_t offset, int whence) {
    return systemRefusals().fseek.refuses() ? -1 : __real_fseeko(file, offset, whence);
}

int __real_listen(int fd, int backlog);
int __wrap_listen(int fd, int backlog) {
    return systemRefusals().listen.refuses() ? -1 : __real_listen(fd, backlog);
}

// The descriptor goes all the same, as with the real call.
int __real_mq_close(mqd_t queue);
int __wrap_mq_close(mqd_t queue) {
    const int result = __real_mq_close(queue);
    return systemRefusals().closeQueue.refuses() ? -1 : result;
}

// Refuses only to make queues.
mqd_t __real_mq_open(const char* name, int flags, ...);
mqd_t __wrap_mq_open(const char* name, int flags, ...) {
    if ((flags & O_CREAT) == 0)
        return __real_mq_open(name, flags);
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = va_arg(arguments, mode_t);
    mq_attr* const attributes = va_arg(arguments, mq_attr*);
    va_end(arguments);
    return systemRefusals().openQueue.refuses() ? -1 : __real_mq_open(name, flags, mode, attributes);
}

int __real_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*entry)(void*),
                          void* argument);
int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*entry)(void*),
                          void* argument) {
    return systemRefusals().thread.refuses() ? EAGAIN
                                             : __real_pthread_create(thread, attributes, entry, argument);
}

ssize_t __real_send(int fd, const void* bytes, std::size_t length, int flags);
ssize_t __wrap_send(int fd, const void* bytes, std::size_t length, int flags) {
    if (const int sent = systemRefusals().sent.exchange(-1); sent >= 0)
        return sent;
    return systemRefusals().send.refuses() ? -1 : __real_send(fd, bytes, length, flags);
}

pid_t __real_setsid();
pid_t __wrap_setsid() {
    return systemRefusals().setsid.refuses() ? -1 : __real_setsid();
}

int __real_setsockopt(int fd, int level, int name, const void* value, socklen_t length);
int __wrap_setsockopt(int fd, int level, int name, const void* value, socklen_t length) {
    return systemRefusals().setsockopt.refuses() ? -1 : __real_setsockopt(fd, level, name, value, length);
}

int __real_socket(int domain, int type, int protocol);
int __wrap_socket(int domain, int type, int protocol) {
    return systemRefusals().socket.refuses() ? -1 : __real_socket(domain, type, protocol);
}

pid_t __real_waitpid(pid_t pid, int* status, int options);
pid_t __wrap_waitpid(pid_t pid, int* status, int options) {
    return systemRefusals().waitpid.refuses() ? -1 : __real_waitpid(pid, status, options);
}

// operator new(std::size_t)
void* __real__Znwm(std::size_t size);
void* __wrap__Znwm(std::size_t size) {
    std::size_t wanted = size;
    if (refusedBytes != nullptr && size > 0 && refusedBytes->compare_exchange_strong(wanted, 0))
        throw std::bad_alloc();
    return __real__Znwm(size);
}
}
