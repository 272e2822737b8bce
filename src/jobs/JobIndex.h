// The lookup of queued jobs by GUID and by id, beside the ordered list.
#pragma once

#include "foundation/Mutex.h"
#include "jobs/Job.h"

#include <array>
#include <cstdint>
#include <map>
#include <unordered_map>

namespace kestrel {

// Answers what a walk through the jobs in order of insertion would: the first that matches. It has a lock of
// its own, under which only a job's own lock is taken, so that lookups neither wait for the queue's lock nor
// take it. A job's changes of GUID and id through Job::setGuid and Job::setId are followed; a field that was
// written without them is found by a walk.
class JobIndex : private JobListener {
public:
    using Guid = std::array<unsigned char, 16>;

    JobIndex() = default;
    ~JobIndex() { clear(); }
    JobIndex(const JobIndex&) = delete;
    JobIndex& operator=(const JobIndex&) = delete;

    // Behind all others.
    void add(Job& job) EXCLUDES(m_mutex);
    void remove(Job& job) EXCLUDES(m_mutex);
    // Lets go of every job, to be called before they are destroyed.
    void clear() EXCLUDES(m_mutex);
    // The first job with that GUID or id; null when there is none.
    [[nodiscard]] Job* find(const Guid& guid) const EXCLUDES(m_mutex);
    [[nodiscard]] Job* find(unsigned long id) const EXCLUDES(m_mutex);
    // The first job entered under that GUID, without the walk: for what need not be certain of every job.
    [[nodiscard]] Job* findEntered(const Guid& guid) const EXCLUDES(m_mutex);

private:
    struct GuidHash {
        std::size_t operator()(const Guid& guid) const noexcept;
    };
    using Position = std::uint64_t;
    // Jobs under one key by position in the list, so that the first is the one that a walk would find.
    using Matches = std::map<Position, Job*>;
    // Under which keys a job was entered.
    struct Entry {
        Position position;
        Guid guid;
        unsigned long id;
    };

    void changeGuid(Job& job, const char* text) override;
    void changeId(Job& job, unsigned long id) override;
    template <typename Matching>
    [[nodiscard]] Job* walk(Matching matches) const REQUIRES(m_mutex);

    mutable Mutex m_mutex;
    Position m_next GUARDED_BY(m_mutex) = 0;
    Matches m_order GUARDED_BY(m_mutex);
    std::unordered_map<Guid, Matches, GuidHash> m_byGuid GUARDED_BY(m_mutex);
    std::unordered_map<unsigned long, Matches> m_byId GUARDED_BY(m_mutex);
    std::unordered_map<const Job*, Entry> m_entries GUARDED_BY(m_mutex);
};

} // namespace kestrel
