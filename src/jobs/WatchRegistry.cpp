#include "jobs/WatchRegistry.h"

#include <sys/eventfd.h>
#include <utility>

namespace kestrel {

WatchRegistry& WatchRegistry::instance() {
    static auto* const registry = new WatchRegistry;
    return *registry;
}

WatchRegistry::Membership WatchRegistry::join() {
    MutexLock lock(m_mutex);
    if (!m_current) {
        m_current = std::make_shared<Generation>();
        m_current->event.reset(eventfd(m_closed ? 1 : 0, EFD_CLOEXEC | EFD_NONBLOCK));
        m_current->stopped = m_closed;
    }
    ++m_current->members;
    ++m_count;
    return Membership(m_current);
}

WatchRegistry::Membership::~Membership() {
    if (!m_generation)
        return;
    WatchRegistry& registry = instance();
    MutexLock lock(registry.m_mutex);
    --registry.m_count;
    // The descriptor goes with the last member, so that an idle manager holds none.
    if (--m_generation->members == 0 && registry.m_current == m_generation)
        registry.m_current.reset();
    pthread_cond_broadcast(&registry.m_left);
}

int WatchRegistry::Membership::stopDescriptor() const noexcept {
    return m_generation->event.get();
}

bool WatchRegistry::Membership::stopRequested() const noexcept {
    return m_generation->stopped;
}

void WatchRegistry::stopAll(bool staysClosed) {
    MutexLock lock(m_mutex);
    m_closed = staysClosed;
    const std::shared_ptr<Generation> ending = std::exchange(m_current, nullptr);
    if (!ending)
        return;
    ending->stopped = true;
    if (ending->event.valid())
        eventfd_write(ending->event.get(), 1);
    while (ending->members > 0)
        pthread_cond_wait(&m_left, m_mutex.native());
}

void WatchRegistry::reopen() {
    MutexLock lock(m_mutex);
    m_closed = false;
    // Its members are leaving; the next one begins a generation of its own.
    if (m_current && m_current->stopped)
        m_current.reset();
}

int WatchRegistry::count() {
    MutexLock lock(m_mutex);
    return m_count;
}

} // namespace kestrel
