#include "foundation/EventWrapper.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

#if defined(__SANITIZE_THREAD__)
#define KESTREL_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define KESTREL_THREAD_SANITIZER 1
#endif
#endif
#ifdef KESTREL_THREAD_SANITIZER
#include <sanitizer/tsan_interface.h>
#endif

namespace {

constexpr long nanosecondsPerMillisecond = 1'000'000;
constexpr long nanosecondsPerSecond = 1'000'000'000;

// How long a wait for several events sleeps at most before it looks at them again, for a semaphore that was
// posted without SignalEvent.
constexpr int recheckMs = 5000;

// Every SignalEvent changes the number, and waits for several events sleep on it. A futex rather than a
// condition variable, because SignalEvent must stay callable from a signal handler.
std::atomic<std::uint32_t> signalCount{0};
std::atomic<int> sleepers{0};
static_assert(sizeof signalCount == sizeof(std::uint32_t) && std::atomic<std::uint32_t>::is_always_lock_free);

// Deadlines are on the monotonic clock: setting the time of day neither shortens nor lengthens a wait.
timespec deadlineAfter(int milliseconds) {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    const long wait = std::max(milliseconds, 0);
    time.tv_sec += wait / 1000;
    time.tv_nsec += wait % 1000 * nanosecondsPerMillisecond;
    if (time.tv_nsec >= nanosecondsPerSecond) {
        time.tv_nsec -= nanosecondsPerSecond;
        ++time.tv_sec;
    }
    return time;
}

bool isEarlier(const timespec& left, const timespec& right) {
    return left.tv_sec < right.tv_sec || (left.tv_sec == right.tv_sec && left.tv_nsec < right.tv_nsec);
}

// Sleeps until the number is no longer count, or the deadline.
void sleepUntilSignal(std::uint32_t count, const timespec& deadline) {
    syscall(SYS_futex, reinterpret_cast<std::uint32_t*>(&signalCount), FUTEX_WAIT_BITSET_PRIVATE, count,
            &deadline, nullptr, FUTEX_BITSET_MATCH_ANY);
}

// sem_wait or, with a deadline, its timed form on the monotonic clock. Returns 0 or the error.
int waitForPost(sem_t* event, const timespec* deadline) {
    if (!deadline)
        return sem_wait(event) == 0 ? 0 : errno;
    if (sem_clockwait(event, CLOCK_MONOTONIC, deadline) != 0)
        return errno;
#ifdef KESTREL_THREAD_SANITIZER
    // The sanitizer knows sem_post but not this wait.
    __tsan_acquire(event);
#endif
    return 0;
}

class Sleeper {
public:
    Sleeper() { ++sleepers; }
    ~Sleeper() { --sleepers; }
    Sleeper(const Sleeper&) = delete;
    Sleeper& operator=(const Sleeper&) = delete;
};

} // namespace

void EventWrapper::InitEvent(sem_t*& event) {
    event = static_cast<sem_t*>(std::calloc(1, sizeof(sem_t)));
    if (event)
        sem_init(event, 0, 0);
}

void EventWrapper::InitEventToZero(sem_t*& event) {
    event = nullptr;
}

bool EventWrapper::IsInitialized(sem_t*& event) {
    return event != nullptr;
}

void EventWrapper::SignalEvent(sem_t*& event) {
    if (!event)
        return;
    sem_post(event);
    // The event may be gone from here on: its waiter may have cleaned it up.
    ++signalCount;
    if (sleepers > 0)
        syscall(SYS_futex, reinterpret_cast<std::uint32_t*>(&signalCount), FUTEX_WAKE_PRIVATE, INT_MAX,
                nullptr, nullptr, 0);
}

void EventWrapper::ResetEvent(sem_t*& event) {
    if (!event)
        return;
    int count = 0;
    sem_getvalue(event, &count);
    for (; count > 0; --count)
        sem_trywait(event);
}

void EventWrapper::CleanupEvent(sem_t*& event) {
    if (!event)
        return;
    sem_destroy(event);
    std::free(event);
    event = nullptr;
}

int EventWrapper::WaitForEventSignal(sem_t*& event, int timeoutMs, bool returnOnInterrupt) {
    if (!event)
        return NotInitialized;
    const timespec deadline = deadlineAfter(timeoutMs);
    for (;;) {
        const int error = waitForPost(event, timeoutMs == -1 ? nullptr : &deadline);
        if (error == 0)
            return Signalled;
        const int result = mapError(error);
        if (result != Interrupted || returnOnInterrupt)
            return result;
    }
}

int EventWrapper::WaitForMultipleEventSignals(int count, sem_t** events, bool waitAll, int timeoutMs,
                                              bool /*ignoredFlag*/, int* signalledIndex) {
    const std::size_t size = count > 0 ? static_cast<std::size_t>(count) : 0;
    if (size > 0 && !events)
        return NotInitialized;
    if (std::find(events, events + size, nullptr) != events + size)
        return NotInitialized;

    const timespec deadline = deadlineAfter(timeoutMs);
    std::vector<bool> taken(size, false);
    const Sleeper sleeper;
    for (;;) {
        // Read before looking at the events, so that a signal in between ends the sleep at once.
        const std::uint32_t seen = signalCount;
        for (std::size_t i = 0; i < size; ++i) {
            if (taken[i] || sem_trywait(events[i]) != 0)
                continue;
            taken[i] = true;
            if (signalledIndex)
                *signalledIndex = static_cast<int>(i);
            if (!waitAll)
                return Signalled;
        }
        if (waitAll && std::find(taken.begin(), taken.end(), false) == taken.end())
            return Signalled;

        timespec wake = deadlineAfter(recheckMs);
        if (timeoutMs != -1) {
            if (!isEarlier(deadlineAfter(0), deadline))
                return TimedOut;
            if (isEarlier(deadline, wake))
                wake = deadline;
        }
        sleepUntilSignal(seen, wake);
    }
}

int EventWrapper::mapError(int error) {
    switch (error) {
    case ETIMEDOUT:
        return TimedOut;
    case EINVAL:
        return Invalid;
    case EINTR:
        return Interrupted;
    default:
        return OtherError;
    }
}
