// Who is watching workers, so that all watching can be ended at once.
#pragma once

#include "foundation/Mutex.h"
#include "foundation/UniqueFd.h"

#include <atomic>
#include <memory>
#include <pthread.h>

namespace kestrel {

// Counts the threads that watch workers. Those that are members when stopAll is called are told to end; who
// joins later is not, unless stopAll was asked to keep the registry closed until it is reopened.
class WatchRegistry {
    struct Generation;

public:
    // A watching thread's membership, from its construction by join() to its end.
    class Membership {
    public:
        Membership(Membership&& other) noexcept = default;
        Membership& operator=(Membership&& other) = delete;
        ~Membership();

        // Readable once the member is to end; -1 when the system had no descriptor left, and the member has
        // to ask from time to time.
        [[nodiscard]] int stopDescriptor() const noexcept;
        [[nodiscard]] bool stopRequested() const noexcept;

    private:
        friend class WatchRegistry;
        explicit Membership(std::shared_ptr<Generation> generation) noexcept
            : m_generation(std::move(generation)) {}

        std::shared_ptr<Generation> m_generation;
    };

    // The one instance; never destroyed, since watching threads may outlive main.
    static WatchRegistry& instance();

    Membership join();
    // Tells all members to end and waits until they have. When it stays closed, whoever joins later is told
    // to end at once.
    void stopAll(bool staysClosed);
    void reopen();
    int count();

private:
    struct Generation {
        UniqueFd event;
        std::atomic<bool> stopped{false};
        int members = 0; // guarded by the registry's mutex
    };

    WatchRegistry() = default;

    Mutex m_mutex;
    pthread_cond_t m_left = PTHREAD_COND_INITIALIZER;
    std::shared_ptr<Generation> m_current GUARDED_BY(m_mutex);
    int m_count GUARDED_BY(m_mutex) = 0; // members of all generations
    bool m_closed GUARDED_BY(m_mutex) = false;
};

} // namespace kestrel
