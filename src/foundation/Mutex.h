// The mutex that guards the system's shared state, and its scoped lock.
#pragma once

#include "foundation/thread_annotations.h"

#include <pthread.h>

// One non-recursive POSIX mutex with default attributes. No error is reported.
class CAPABILITY("mutex") Mutex {
public:
    Mutex() noexcept;
    ~Mutex();
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    // Waits until no other thread holds the mutex, and takes it.
    void lock() noexcept ACQUIRE();
    // Gives back the mutex that this thread holds.
    void unlock() noexcept RELEASE();

    // The wrapped mutex, for waiting on a POSIX condition variable.
    pthread_mutex_t* native() noexcept { return &m_mutex; }

private:
    pthread_mutex_t m_mutex;
};

// Holds a Mutex for the length of a scope.
class SCOPED_CAPABILITY MutexLock {
public:
    explicit MutexLock(Mutex& mutex) noexcept ACQUIRE(mutex) : m_mutex(mutex) { m_mutex.lock(); }
    ~MutexLock() RELEASE() { m_mutex.unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

private:
    Mutex& m_mutex;
};
