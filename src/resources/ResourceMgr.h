// The registry of all equipment, and the tests, bookings and checkouts of a job's whole set of devices.
#pragma once

#include "foundation/Mutex.h"
#include "foundation/TimeUtil.h"
#include "jobs/Job.h"
#include "resources/Equipment.h"

#include <memory>
#include <utility>
#include <vector>

// Owns every Equipment record. m_mutex guards the list and every record in it; it is not recursive: the
// lower-case isAvailable calls expect it held, the upper-case operations take it.
class ResourceMgr {
public:
    // The one instance, made on first use.
    static ResourceMgr* GetResourceMgrInst();
    // Deletes the instance and its records.
    static void Cleanup();

    ResourceMgr();
    ~ResourceMgr();
    ResourceMgr(const ResourceMgr&) = delete;
    ResourceMgr& operator=(const ResourceMgr&) = delete;

    // The record of that port (ignoring case) or address (IPv4, host order), made when there is none.
    // Never null.
    Vtr* GetVTR(const char* port);
    Encoder* GetEncoder(unsigned long address);
    Decoder* GetDecoder(unsigned long address);
    // Takes ownership.
    void AddEquipment(Equipment* record);

    // Books every device of the set for a job, or drops its bookings. The ends of a booking belong to it.
    void AddScheduleTime(std::vector<Equipment*>& set, unsigned long jobId, Job::JobType type,
                         CTimeUtil start, CTimeUtil end);
    void RemoveScheduleTime(std::vector<Equipment*>& set, unsigned long jobId);

    // Window test: whether every device is free from start to end, ends included. The first device that is
    // not answers with the job in the way and its type. The lower-case form is called with the lock held.
    bool isAvailable(std::vector<Equipment*>& set, unsigned long& jobId, Job::JobType& type, CTimeUtil start,
                     CTimeUtil end) REQUIRES(m_mutex);
    bool IsAvailable(std::vector<Equipment*>& set, unsigned long& jobId, Job::JobType& type, CTimeUtil start,
                     CTimeUtil end);
    // Present test: whether every device is free now, and in next the earliest start of their bookings
    // (Equipment::NOT_SCHEDULED for none; a device without any resets what those before it answered).
    bool isAvailable(std::vector<Equipment*>& set, unsigned long& jobId, Job::JobType& type, CTimeUtil& next)
        REQUIRES(m_mutex);
    bool IsAvailable(std::vector<Equipment*>& set, unsigned long& jobId, Job::JobType& type, CTimeUtil& next);
    // Whether every device is free now and its next booking begins strictly later than the span from now.
    bool IsAvailableFor(std::vector<Equipment*>& set, unsigned long& jobId, Job::JobType& type,
                        CTimeSpanUtil span);

    // All or nothing.
    bool CheckoutEquipment(std::vector<Equipment*>& set, unsigned long jobId, Job::JobType type,
                           CTimeUtil until);
    // Tries every member; true only when all succeeded.
    bool CheckinEquipment(std::vector<Equipment*>& set, unsigned long jobId);

    // Runs fn with the registry locked: how a job reads or sets options on records that others share.
    template <typename Fn>
    auto withRecords(Fn&& fn) {
        MutexLock lock(m_mutex);
        return std::forward<Fn>(fn)();
    }

    Mutex m_mutex;
    std::vector<std::unique_ptr<Equipment>> equipment GUARDED_BY(m_mutex); // in order of creation
    char errorText[300] GUARDED_BY(m_mutex) = {};                          // of the last checkout that failed
};
