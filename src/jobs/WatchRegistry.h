// Who is watching workers, and what all of them are to be told.
#pragma once

#include "foundation/Mutex.h"
#include "foundation/UniqueFd.h"

#include <atomic>
#include <memory>
#include <pthread.h>
#include <vector>

namespace kestrel {

// Knows the threads that watch workers. Those that are members when stopAll is called are told to end; who
// joins later is not, unless stopAll was asked to keep the registry closed until it is reopened.
class WatchRegistry {
    struct Member;

public:
    // A watching thread's membership, from its construction by join() to its end.
    class Membership {
    public:
        Membership(Membership&& other) noexcept = default;
        Membership& operator=(Membership&& other) = delete;
        ~Membership();

        // Readable once there is something to look at: stopRequested(), or the worker. It stays so until it
        // is cleared, which is done before looking. -1 when the system had no descriptor left, and the member
        // has to look from time to time.
        [[nodiscard]] int wakeDescriptor() const noexcept;
        void clearWake() const noexcept;
        [[nodiscard]] bool stopRequested() const noexcept;

    private:
        friend class WatchRegistry;
        explicit Membership(std::unique_ptr<Member> member) noexcept;

        std::unique_ptr<Member> m_member;
    };

    // While one lives, its owner takes each SIGCHLD and tells of it; else members have to look for a stopped
    // worker from time to time. One at a time in a process.
    class ChildReports {
    public:
        ChildReports();
        ~ChildReports();
        ChildReports(const ChildReports&) = delete;
        ChildReports& operator=(const ChildReports&) = delete;

        // Some child has ended, stopped or gone on; signals that come together are one, so nobody knows
        // which.
        static void childChanged();
    };

    // The one instance; never destroyed, since watching threads may outlive main.
    static WatchRegistry& instance();

    // Joined before the worker is started, a member misses nothing.
    Membership join();
    // Tells all members to end and waits until they have. When it stays closed, whoever joins later is told
    // to end at once.
    void stopAll(bool staysClosed);
    void reopen();
    int count();
    [[nodiscard]] bool childrenReported() const noexcept { return m_childrenReported; }

private:
    struct Member {
        UniqueFd wake;
        std::atomic<bool> stopped{false};
    };

    WatchRegistry() = default;
    void wakeAll();

    Mutex m_mutex;
    pthread_cond_t m_left = PTHREAD_COND_INITIALIZER;
    std::vector<Member*> m_members GUARDED_BY(m_mutex); // not owned
    bool m_closed GUARDED_BY(m_mutex) = false;
    std::atomic<bool> m_childrenReported{false};
};

} // namespace kestrel
