// The manager's one container of jobs: hands out ids, owns the jobs, finds, cancels and deletes them.
#pragma once

#include "foundation/Mutex.h"
#include "foundation/TimeUtil.h"
#include "jobs/Job.h"
#include "jobs/JobIndex.h"
#include "timecode/mpeg_timecode.h"

#include <cstdint>
#include <memory>
#include <vector>

class CaptureManualJob;
class CaptureReencodeJob;
class CaptureRollingJob;
class CaptureScheduledJob;
class CaptureTimedJob;
class CaptureVTRJob;
class MpegNormalizeJob;
class VerifierJob;

// Jobs in order of insertion, with an index by GUID and by id that keeps the first match. Operations marked
// "Caller's lock" are called with m_mutex held, or on a queue that nobody else uses; those that look a job up
// or cancel it never take it; all others take it themselves.
class JobQueue {
public:
    // The published start margin of scheduled jobs: three minutes. No operation consults them.
    static const mpeg_timecode JOB_START_BUFFER;
    static const CTimeSpanUtil CTS_JOB_START_BUFFER;

    JobQueue();
    ~JobQueue();
    JobQueue(const JobQueue&) = delete;
    JobQueue& operator=(const JobQueue&) = delete;

    // The next id; 0x7FFFFFFE is followed by 1. Caller's lock.
    unsigned long getNextId();
    // The same, under the lock.
    unsigned long incNextId();

    // Caller's lock; each returns the job (null for null), which the queue owns from then on.
    Job* addJob(Job* job, Job::JobState state);
    Job* addOfflineJob(Job* job);
    Job* addImmediateJob(Job* job);
    Job* addScheduledJob(Job* job, CTimeUtil start, CTimeUtil end);

    // Each stores a clone of the request's job under a fresh id and returns it.
    CaptureVTRJob* AddCaptureVTRJob(const CaptureVTRJob& job);
    CaptureReencodeJob* AddCaptureReencodeJob(const CaptureReencodeJob& job);
    CaptureReencodeJob* AddCaptureMezzanineJob(const CaptureReencodeJob& job);
    MpegNormalizeJob* AddMpegNormalizeJob(const MpegNormalizeJob& job);
    VerifierJob* AddVerifierJob(const VerifierJob& job);
    CaptureManualJob* AddCaptureManualJob(const CaptureManualJob& job);
    CaptureTimedJob* AddCaptureTimedJob(const CaptureTimedJob& job);
    CaptureRollingJob* AddCaptureRollingJob(const CaptureRollingJob& job);
    CaptureScheduledJob* AddCaptureScheduledJob(const CaptureScheduledJob& job);

    // Sends the cancel message to the worker of a job in progress, then sets newState; any other job only
    // takes newState. 0, 10029 or 10033 (text in the job's results, state unchanged).
    int CancelJob(Job* job, Job::JobState newState);
    // 10009 for a job in progress; otherwise drops the pointer and returns 10003, this operation's normal
    // result. The job itself is not freed.
    int DeleteJob(Job* job);

    // First job with that GUID, or null.
    Job* getJob(const char* guidText);
    // The first job that has had that GUID from when it was queued or was given it by setGuid, or null; as
    // soon found among many jobs as among few, also where there is none. Bytes written into guid itself do
    // not count.
    Job* getJobByGivenGuid(const char* guidText);
    // The verification whose report that is, or null; of several the one whose worker may still run, else the
    // latest.
    VerifierJob* getVerification(const char* reportFilename);
    // State name of the job with that GUID; an empty text when there is none.
    const char* GetJobStatus(const char* guidText);
    // First job with that id, or null (10003 logged).
    Job* GetJobById(unsigned long id);
    // Position of the first job with the same id; -1 (10003 logged with caller) when there is none. Caller's
    // lock.
    int getIndex(Job* job, const char* caller);

    // Clones of all jobs, owned by the caller. What out held before is dropped, not deleted.
    void AllocCopyJobList(std::vector<Job*>& out);
    // Deletes every job of the list, from the back.
    static void DeleteJobList(std::vector<Job*>& list);

    Mutex m_mutex;
    std::int64_t nextId = 0;
    std::vector<Job*> jobs; // owned

private:
    template <typename Kind>
    std::unique_ptr<Kind> cloneWithNextId(const Kind& job);
    template <typename Kind>
    Kind* cloneOffline(const Kind& job);
    template <typename Kind>
    Kind* cloneImmediate(const Kind& job);

    kestrel::JobIndex m_index;
};
