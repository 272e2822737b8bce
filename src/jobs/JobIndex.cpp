#include "jobs/JobIndex.h"

#include <algorithm>

namespace kestrel {

namespace {

JobIndex::Guid guidOf(const Job& job) {
    JobIndex::Guid key;
    std::copy_n(job.guid, key.size(), key.begin());
    return key;
}

template <typename Index, typename Key>
void removeFrom(Index& index, const Key& key, std::uint64_t position) {
    const auto found = index.find(key);
    if (found == index.end())
        return;
    found->second.erase(position);
    if (found->second.empty())
        index.erase(found);
}

template <typename Index, typename Key>
Job* firstOf(const Index& index, const Key& key) {
    const auto found = index.find(key);
    return found == index.end() ? nullptr : found->second.begin()->second;
}

} // namespace

std::size_t JobIndex::GuidHash::operator()(const Guid& guid) const noexcept {
    // Clients send random GUIDs or counters; FNV-1a spreads both.
    std::size_t hash = 14695981039346656037ULL;
    for (const unsigned char byte : guid)
        hash = (hash ^ byte) * 1099511628211ULL;
    return hash;
}

void JobIndex::clear() {
    const MutexLock lock(m_mutex);
    for (const auto& [position, job] : m_order)
        job->setListener(nullptr);
    m_order.clear();
    m_byGuid.clear();
    m_byId.clear();
    m_entries.clear();
}

void JobIndex::add(Job& job) {
    const MutexLock lock(m_mutex);
    const Entry entry{m_next++, guidOf(job), job.id};
    m_order.emplace(entry.position, &job);
    m_byGuid[entry.guid].emplace(entry.position, &job);
    m_byId[entry.id].emplace(entry.position, &job);
    m_entries.insert_or_assign(&job, entry);
    job.setListener(this);
}

void JobIndex::remove(Job& job) {
    const MutexLock lock(m_mutex);
    const auto found = m_entries.find(&job);
    if (found == m_entries.end())
        return;
    const Entry& entry = found->second;
    removeFrom(m_byGuid, entry.guid, entry.position);
    removeFrom(m_byId, entry.id, entry.position);
    m_order.erase(entry.position);
    m_entries.erase(found);
    job.setListener(nullptr);
}

template <typename Matching>
Job* JobIndex::walk(Matching matches) const {
    const auto found = std::find_if(m_order.begin(), m_order.end(),
                                    [&](const auto& entry) { return matches(*entry.second); });
    return found == m_order.end() ? nullptr : found->second;
}

Job* JobIndex::find(const Guid& guid) const {
    const MutexLock lock(m_mutex);
    if (Job* const first = firstOf(m_byGuid, guid); first != nullptr && first->equals(guid.data()))
        return first;
    return walk([&](const Job& job) { return job.equals(guid.data()); });
}

Job* JobIndex::findEntered(const Guid& guid) const {
    const MutexLock lock(m_mutex);
    return firstOf(m_byGuid, guid);
}

Job* JobIndex::find(unsigned long id) const {
    const MutexLock lock(m_mutex);
    if (Job* const first = firstOf(m_byId, id); first != nullptr && first->id == id)
        return first;
    return walk([&](const Job& job) { return job.id == id; });
}

void JobIndex::changeGuid(Job& job, const char* text) {
    const MutexLock lock(m_mutex);
    Entry& entry = m_entries.at(&job);
    removeFrom(m_byGuid, entry.guid, entry.position);
    job.storeGuid(text);
    entry.guid = guidOf(job);
    m_byGuid[entry.guid].emplace(entry.position, &job);
}

void JobIndex::changeId(Job& job, unsigned long id) {
    const MutexLock lock(m_mutex);
    Entry& entry = m_entries.at(&job);
    removeFrom(m_byId, entry.id, entry.position);
    job.storeId(id);
    entry.id = id;
    m_byId[id].emplace(entry.position, &job);
}

} // namespace kestrel
