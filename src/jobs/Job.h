// The job record: what one unit of work is, in which state it is, and how its worker is started.
#pragma once

#include "foundation/Mutex.h"
#include "foundation/TimeUtil.h"

#include <atomic>
#include <string>
#include <string_view>
#include <vector>

class Equipment;
class InputField;
class Job;

namespace kestrel {

// Told by a job that its GUID or id is to change, so that a container can keep an index. Implementations make
// the change themselves, under their own lock, through Job::storeGuid and Job::storeId.
class JobListener {
public:
    virtual void changeGuid(Job& job, const char* text) = 0;
    virtual void changeId(Job& job, unsigned long id) = 0;

protected:
    ~JobListener() = default;
};

} // namespace kestrel

// A job's life:
//
//   from                  event                                              to
//   CREATED               queued as immediate (manual, timed, rolling)       IN_PROGRESS
//   CREATED               queued as offline or scheduled (all others)        QUEUED
//   any                   cancel succeeds                                    CANCELLED
//   QUEUED, IN_PROGRESS   worker exits with code 0                           COMPLETE
//   QUEUED, IN_PROGRESS   worker exits with another code                     ERROR
//   any                   worker is killed by a signal or stopped            ERROR (also from CANCELLED)
//
// A QUEUED job stays QUEUED while its worker runs.
//
// jobState and results are written by the thread that watches the worker while request threads read them:
// use state(), setState(), finish(), resultsText() and setResults() wherever a worker may be running. The
// fields are public for code that has a job to itself.
class Job {
public:
    enum JobType {
        CAPTURE_VTR_JOB = 0,
        CAPTURE_MANUAL_JOB = 1,
        CAPTURE_TIMED_JOB = 2,
        CAPTURE_SCHEDULED_JOB = 3,
        CAPTURE_ROLLING_JOB = 4,
        CAPTURE_MEZZANINE_JOB = 5,
        CAPTURE_REENCODE_JOB = 6,
        CAPTURE_MPEG_NORMALIZE_JOB = 7,
        COMBINER_JOB = 8,
        VERIFIER_JOB = 9,
        NONE = 10,
    };
    enum JobState {
        CREATED = 0,
        QUEUED = 1,
        IN_PROGRESS = 2,
        COMPLETE = 3,
        CANCELLED = 4,
        ERROR = 5,
    };

    // Names of the types and states, by value.
    static const char* const JobTypeStr[11];
    static const char* const JobStateStr[6];
    // All fields zero: the open end of a checkout.
    static const CTimeUtil UNSPECIFIED_DURATION;

    // Type NONE, state CREATED, no texts; takes the GUID when it is not null. id is 0, queue names empty.
    explicit Job(const char* guid);
    Job(unsigned long id, JobType type, JobState state);
    Job(const Job& other);
    // Appends the other's equipment to this job's own list, which is not emptied first.
    Job& operator=(const Job& other);
    virtual ~Job();

    // A copy of the dynamic type; the caller owns it.
    virtual Job* clone() const;
    // 0 when the job may run, else an error code whose text is in results.
    virtual int validate();
    // Takes the request's fields into the job, then validates. 0 or an error code.
    virtual int setFields(std::vector<InputField>& fields);
    // Sets id and the queue names that carry it.
    virtual void setId(unsigned long newId);
    // Builds (in subclasses) and returns cmdLine; program is the worker's path from the manager profile.
    virtual const char* getCmdLine(const char* program);
    // Copies at most len characters of results into buf (terminated where there is room). Returns 0.
    virtual int getJobResults(char* buf, int len);

    // "/mgr_msg_q_%ld" and "/job_update_q_%ld" with the id.
    void setQueueNames();
    // Up to 16 bytes from the hex digits of text; any other character separates; missing bytes are 0.
    static void getGuid(const char* text, unsigned char* out16);
    // Sets guid from the whole text and guidStr from its first 32 characters.
    void setGuid(const char* text);
    // Whether the 16 bytes are this job's GUID.
    bool equals(const unsigned char* guid16) const;
    // The type of that exact name, NONE when there is none.
    static JobType getJobType(const char* name);

    // State and results, safe while a worker is watched.
    [[nodiscard]] JobState state() const;
    void setState(JobState newState);
    // The worker's end: sets newState unless the job was cancelled. Returns the state that holds now.
    JobState finish(JobState newState);
    // Whether finish was told ERROR, which a cancelled job's state does not show. Not copied with the job.
    [[nodiscard]] bool workerFailed() const;
    // Sets newState only where the state is expected; returns whether it did.
    bool changeState(JobState expected, JobState newState);
    // What the worker, or a failing check, last said; cut at 299 bytes.
    [[nodiscard]] std::string resultsText() const;
    void setResults(std::string_view text);
    void appendResults(std::string_view text);
    // The directory of the worker's log, with trailing separator; set before the log's name is first asked
    // for.
    void setLogDir(std::string_view directory);

    // The process of the worker while it is watched, 0 without one. Not copied with the job.
    [[nodiscard]] int workerPid() const noexcept { return m_workerPid; }
    void setWorkerPid(int pid) noexcept { m_workerPid = pid; }

    // Whether a cancel message has been put into the worker's queue. Not copied with the job.
    [[nodiscard]] bool workerTold() const noexcept { return m_workerTold; }
    void setWorkerTold() noexcept { m_workerTold = true; }

    // Who hears of a new GUID or id; null for a job outside a queue. Not copied with the job.
    void setListener(kestrel::JobListener* listener) noexcept { m_listener = listener; }
    // Writes guid and guidStr without telling the listener.
    void storeGuid(const char* text);
    // Writes id and the queue names without telling the listener.
    void storeId(unsigned long newId);

    JobType jobType = NONE;
    JobState jobState = CREATED;
    std::vector<Equipment*> equipment; // not owned: the resource manager owns the records
    char results[300] = {};
    char mgrQueueName[30] = {};       // manager to worker
    char jobUpdateQueueName[30] = {}; // worker to manager
    char cmdLine[1040] = {};
    char logDir[264] = {}; // with trailing separator
    unsigned long id = 0;
    unsigned char guid[16] = {};
    char guidStr[33] = {}; // first 32 characters of the client's text, and the terminator

protected:
    // Guards jobState, results, cmdLine and logDir (and a subclass's status) of a job that others can see; id
    // and GUID are written under it, so that a job can be copied at any time.
    mutable Mutex m_statusMutex;

private:
    kestrel::JobListener* m_listener = nullptr;
    std::atomic<int> m_workerPid{0};
    std::atomic<bool> m_workerTold{false};
    bool m_workerFailed = false; // under m_statusMutex
};
