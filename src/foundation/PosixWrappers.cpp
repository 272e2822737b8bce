#include "foundation/PosixWrappers.h"

#include "foundation/Logger.h"

#include <csignal>

namespace {

// The convention of the wrappers: 0 on success, 1 on failure.
int resultOf(int error) {
    return error == 0 ? 0 : 1;
}

int failWith(const char* line) {
    fileLog("%s", line);
    return 1;
}

// Thread attributes that are destroyed again.
class ThreadAttributes {
public:
    ThreadAttributes() : m_valid(pthread_attr_init(&m_attributes) == 0) {}
    ~ThreadAttributes() {
        if (m_valid)
            pthread_attr_destroy(&m_attributes);
    }
    ThreadAttributes(const ThreadAttributes&) = delete;
    ThreadAttributes& operator=(const ThreadAttributes&) = delete;

    [[nodiscard]] bool valid() const { return m_valid; }
    pthread_attr_t* get() { return &m_attributes; }

private:
    pthread_attr_t m_attributes{};
    bool m_valid;
};

} // namespace

int createPosixThread(pthread_t* handle, void* (*fn)(void*), void* arg) {
    if (pthread_create(handle, nullptr, fn, arg) != 0)
        return failWith("Failed to create thread\n");
    return 0;
}

int joinPosixThread(pthread_t thread, void** result) {
    return resultOf(pthread_join(thread, result));
}

void exitPosixThread(void* value) {
    pthread_exit(value);
}

int sendSignalToThread(pthread_t thread, int signal) {
    return resultOf(pthread_kill(thread, signal));
}

// Sets the size on an attribute object that no thread is made with, so it changes nothing. Kept: callers only
// rely on the result.
int setPosixThreadStackSize(std::size_t size) {
    ThreadAttributes attributes;
    if (!attributes.valid())
        return failWith("Couldn't get thread attributes\n");
    if (pthread_attr_setstacksize(attributes.get(), size) != 0)
        return failWith("Couldn't set thread stacksize\n");
    return 0;
}

int getPosixThreadStackSize(std::size_t* size) {
    ThreadAttributes attributes;
    if (!attributes.valid())
        return failWith("Couldn't get thread attributes\n");
    if (!size || pthread_attr_getstacksize(attributes.get(), size) != 0)
        return failWith("Couldn't get thread stacksize\n");
    return 0;
}

int initPosixMutex(pthread_mutex_t* mutex) {
    const int error = pthread_mutex_init(mutex, nullptr);
    if (error != 0)
        fileLog("Couldn't ini mutext errno %d\n", error);
    return resultOf(error);
}

int destroyPosixMutex(pthread_mutex_t* mutex) {
    if (pthread_mutex_destroy(mutex) != 0)
        return failWith("Mutex destroy failed\n");
    return 0;
}

int lockPosixMutex(pthread_mutex_t* mutex) {
    return resultOf(pthread_mutex_lock(mutex));
}

int trylockPosixMutex(pthread_mutex_t* mutex) {
    return resultOf(pthread_mutex_trylock(mutex));
}

int unlockPosixMutex(pthread_mutex_t* mutex) {
    return resultOf(pthread_mutex_unlock(mutex));
}
