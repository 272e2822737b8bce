#include "service/ReportLocks.h"

#include <ctime>

using namespace std::chrono_literals;

namespace kestrel {

namespace {

// The limit from now on, of a clock that nobody sets.
timespec deadlineIn(std::chrono::milliseconds limit) {
    timespec deadline{};
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    const auto nanoseconds = deadline.tv_nsec + std::chrono::nanoseconds(limit % 1s).count();
    deadline.tv_sec += limit / 1s + nanoseconds / std::nano::den;
    deadline.tv_nsec = nanoseconds % std::nano::den;
    return deadline;
}

} // namespace

ReportLocks::ReportLocks() {
    pthread_condattr_t attributes;
    pthread_condattr_init(&attributes);
    pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    pthread_cond_init(&m_changed, &attributes);
    pthread_condattr_destroy(&attributes);
}

ReportLocks::~ReportLocks() {
    pthread_cond_destroy(&m_changed);
}

bool ReportLocks::take(const std::string& path, std::optional<std::chrono::milliseconds> limit) {
    const timespec deadline = deadlineIn(limit.value_or(0ms));
    MutexLock lock(m_mutex);
    int result = 0;
    while (result == 0 && !m_closed && m_taken.contains(path))
        result = limit ? pthread_cond_timedwait(&m_changed, m_mutex.native(), &deadline)
                       : pthread_cond_wait(&m_changed, m_mutex.native());
    // Also where the limit was reached just as the path became free.
    if (m_closed || m_taken.contains(path))
        return false;
    m_taken.insert(path);
    return true;
}

void ReportLocks::give(const std::string& path) {
    MutexLock lock(m_mutex);
    m_taken.erase(path);
    pthread_cond_broadcast(&m_changed);
}

void ReportLocks::close() {
    MutexLock lock(m_mutex);
    m_closed = true;
    pthread_cond_broadcast(&m_changed);
}

void ReportLocks::reopen() {
    MutexLock lock(m_mutex);
    m_closed = false;
}

} // namespace kestrel
