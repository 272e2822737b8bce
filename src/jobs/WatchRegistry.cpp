#include "jobs/WatchRegistry.h"

#include <algorithm>
#include <sys/eventfd.h>
#include <utility>

namespace kestrel {

namespace {

void wake(const UniqueFd& descriptor) {
    if (descriptor.valid())
        eventfd_write(descriptor.get(), 1);
}

} // namespace

WatchRegistry& WatchRegistry::instance() {
    static auto* const registry = new WatchRegistry;
    return *registry;
}

WatchRegistry::Membership WatchRegistry::join() {
    auto member = std::make_unique<Member>();
    member->wake.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    MutexLock lock(m_mutex);
    m_members.push_back(member.get());
    if (m_closed) {
        member->stopped = true;
        wake(member->wake);
    }
    return Membership(std::move(member));
}

WatchRegistry::Membership::Membership(std::unique_ptr<Member> member) noexcept
    : m_member(std::move(member)) {}

WatchRegistry::Membership::~Membership() {
    if (!m_member)
        return;
    WatchRegistry& registry = instance();
    MutexLock lock(registry.m_mutex);
    std::erase(registry.m_members, m_member.get());
    // Before anybody is told, so that a manager without watching threads holds no descriptor of theirs.
    m_member.reset();
    pthread_cond_broadcast(&registry.m_left);
}

int WatchRegistry::Membership::wakeDescriptor() const noexcept {
    return m_member->wake.get();
}

void WatchRegistry::Membership::clearWake() const noexcept {
    eventfd_t count = 0;
    eventfd_read(m_member->wake.get(), &count);
}

bool WatchRegistry::Membership::stopRequested() const noexcept {
    return m_member->stopped;
}

WatchRegistry::ChildReports::ChildReports() {
    instance().m_childrenReported = true;
    instance().wakeAll(); // what changed before was not reported
}

// Who waits for a report that does not come any more learns of it.
WatchRegistry::ChildReports::~ChildReports() {
    instance().m_childrenReported = false;
    instance().wakeAll();
}

void WatchRegistry::ChildReports::childChanged() {
    instance().wakeAll();
}

void WatchRegistry::wakeAll() {
    MutexLock lock(m_mutex);
    for (const Member* const member : m_members)
        wake(member->wake);
}

void WatchRegistry::stopAll(bool staysClosed) {
    MutexLock lock(m_mutex);
    m_closed = staysClosed;
    for (Member* const member : m_members) {
        member->stopped = true;
        wake(member->wake);
    }
    while (std::any_of(m_members.begin(), m_members.end(),
                       [](const Member* member) { return member->stopped.load(); }))
        pthread_cond_wait(&m_left, m_mutex.native());
}

void WatchRegistry::reopen() {
    MutexLock lock(m_mutex);
    m_closed = false;
}

int WatchRegistry::count() {
    MutexLock lock(m_mutex);
    return static_cast<int>(m_members.size());
}

} // namespace kestrel
