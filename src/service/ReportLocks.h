// Who may replace or read a verification's report.
#pragma once

#include "foundation/Mutex.h"

#include <pthread.h>
#include <set>
#include <string>

namespace kestrel {

// Verifications of one file under one GUID have one report, so they take turns: a request that waits for its
// verifier, and has no directory of its own for the report, holds the report's path from before the verifier
// is started until its answer is read; one that has such a directory only to put its report at the path. What
// wants the same path meanwhile waits, and nothing else does. The wait ends with the verifier that is waited
// for (by HEARTBEAT_TIMEOUT_SECS of silence at the latest), or with close().
class ReportLocks {
public:
    // One path, held until this object ends.
    class Hold {
    public:
        // Waits until nobody else holds the path.
        Hold(ReportLocks& locks, const std::string& path) : m_locks(locks), m_path(path) {
            m_held = m_locks.take(m_path);
        }
        ~Hold() {
            if (m_held)
                m_locks.give(m_path);
        }
        Hold(const Hold&) = delete;
        Hold& operator=(const Hold&) = delete;

        // False when the locks were closed before the path was free.
        [[nodiscard]] bool held() const noexcept { return m_held; }

    private:
        ReportLocks& m_locks;
        const std::string m_path;
        bool m_held = false;
    };

    ReportLocks() = default;
    ~ReportLocks() { pthread_cond_destroy(&m_changed); }
    ReportLocks(const ReportLocks&) = delete;
    ReportLocks& operator=(const ReportLocks&) = delete;

    // Ends all waiting and lets nobody begin, until reopen(). Paths that are held stay held.
    void close() EXCLUDES(m_mutex);
    void reopen() EXCLUDES(m_mutex);

private:
    bool take(const std::string& path) EXCLUDES(m_mutex);
    void give(const std::string& path) EXCLUDES(m_mutex);

    Mutex m_mutex;
    pthread_cond_t m_changed = PTHREAD_COND_INITIALIZER;
    std::set<std::string> m_taken GUARDED_BY(m_mutex);
    bool m_closed GUARDED_BY(m_mutex) = false;
};

} // namespace kestrel
