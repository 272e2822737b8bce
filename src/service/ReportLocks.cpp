#include "service/ReportLocks.h"

namespace kestrel {

bool ReportLocks::take(const std::string& path) {
    MutexLock lock(m_mutex);
    while (!m_closed && m_taken.contains(path))
        pthread_cond_wait(&m_changed, m_mutex.native());
    if (m_closed)
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
