#include "jobs/JobQueue.h"

#include "foundation/ErrorCodes.h"
#include "foundation/FixedText.h"
#include "foundation/Logger.h"
#include "foundation/PosixWrappers.h"
#include "foundation/QueueMessages.h"
#include "jobs/CaptureJob.h"
#include "resources/ResourceMgr.h"
#include "verifier/VerifierJob.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>

namespace {

constexpr const char* MODULE = "ResourceMgmt";
constexpr std::int64_t LAST_ID = 0x7FFFFFFE;
constexpr int WRITE_ACCESS = 1;

// A descriptor of a worker's queue that never makes the caller wait for the worker.
class WorkerQueue {
public:
    explicit WorkerQueue(const char* name) : m_queue(connectToMsgQueue(name, WRITE_ACCESS)) {
        if (m_queue < 0)
            return;
        long attributes[4] = {O_NONBLOCK, 0, 0, 0};
        setQueueAttr(m_queue, attributes);
    }
    ~WorkerQueue() {
        if (m_queue >= 0)
            closeMsgQueue(m_queue);
    }
    WorkerQueue(const WorkerQueue&) = delete;
    WorkerQueue& operator=(const WorkerQueue&) = delete;

    [[nodiscard]] bool open() const { return m_queue >= 0; }
    [[nodiscard]] bool send(AppMsgType type) const {
        const GenericMsg message(type, nullptr, 0);
        return sendPriorityMsg(m_queue, reinterpret_cast<const char*>(message.buffer), message.length, 0) ==
               0;
    }

private:
    mqd_t m_queue;
};

void logCannotCancel(const Job& job) {
    LogUtil::Error(MODULE, "Error: Could not cancel job %d.", static_cast<int>(job.id));
}

// The job's state is all that such a cancel changes, deliberately; whoever wants the worker to end must know
// how. One that a cancel before this one has reached is on its way to its end.
void logWorkerRunsOn(const Job& job, Job::JobState found) {
    const int pid = job.workerPid();
    if (pid <= 0 || found == Job::COMPLETE || found == Job::ERROR)
        return;
    const int number = static_cast<int>(job.id);
    if (job.workerTold())
        LogUtil::Info(
            MODULE,
            "Job %d %s was %s: its worker has been told of an abort before, process %d has not ended "
            "yet.",
            number, job.guidStr, Job::JobStateStr[found], pid);
    else
        LogUtil::Warning(
            MODULE,
            "Job %d %s was %s: its worker is not told of the abort, process %d runs on. To end it: "
            "kill -TERM %d",
            number, job.guidStr, Job::JobStateStr[found], pid, pid);
}

} // namespace

const mpeg_timecode JobQueue::JOB_START_BUFFER(0, 3, 0, 0, false, 3);
const CTimeSpanUtil JobQueue::CTS_JOB_START_BUFFER(0, 0, 0, JobQueue::JOB_START_BUFFER.hours,
                                                   JobQueue::JOB_START_BUFFER.minutes,
                                                   JobQueue::JOB_START_BUFFER.seconds);

JobQueue::JobQueue() = default;

JobQueue::~JobQueue() {
    MutexLock lock(m_mutex);
    m_index.clear();
    DeleteJobList(jobs);
}

unsigned long JobQueue::getNextId() {
    const std::int64_t given = nextId;
    // Id 0 is given once, to the first job; after the wrap ids start at 1.
    nextId = nextId < LAST_ID ? nextId + 1 : 1;
    return static_cast<unsigned long>(given);
}

unsigned long JobQueue::incNextId() {
    MutexLock lock(m_mutex);
    return getNextId();
}

Job* JobQueue::addJob(Job* job, Job::JobState state) {
    if (job == nullptr)
        return nullptr;
    job->setState(state);
    jobs.push_back(job);
    m_index.add(*job);
    return job;
}

Job* JobQueue::addOfflineJob(Job* job) {
    return addJob(job, Job::QUEUED);
}

Job* JobQueue::addImmediateJob(Job* job) {
    return addJob(job, Job::IN_PROGRESS);
}

Job* JobQueue::addScheduledJob(Job* job, CTimeUtil start, CTimeUtil end) {
    if (addJob(job, Job::QUEUED) != nullptr)
        ResourceMgr::GetResourceMgrInst()->AddScheduleTime(job->equipment, job->id, job->jobType, start, end);
    return job;
}

template <typename Kind>
std::unique_ptr<Kind> JobQueue::cloneWithNextId(const Kind& job) {
    std::unique_ptr<Kind> copy(job.clone());
    copy->setId(getNextId());
    return copy;
}

template <typename Kind>
Kind* JobQueue::cloneOffline(const Kind& job) {
    MutexLock lock(m_mutex);
    std::unique_ptr<Kind> copy = cloneWithNextId(job);
    addOfflineJob(copy.get());
    return copy.release();
}

template <typename Kind>
Kind* JobQueue::cloneImmediate(const Kind& job) {
    MutexLock lock(m_mutex);
    std::unique_ptr<Kind> copy = cloneWithNextId(job);
    addImmediateJob(copy.get());
    return copy.release();
}

CaptureVTRJob* JobQueue::AddCaptureVTRJob(const CaptureVTRJob& job) {
    return cloneOffline(job);
}

CaptureReencodeJob* JobQueue::AddCaptureReencodeJob(const CaptureReencodeJob& job) {
    return cloneOffline(job);
}

CaptureReencodeJob* JobQueue::AddCaptureMezzanineJob(const CaptureReencodeJob& job) {
    return cloneOffline(job);
}

MpegNormalizeJob* JobQueue::AddMpegNormalizeJob(const MpegNormalizeJob& job) {
    return cloneOffline(job);
}

VerifierJob* JobQueue::AddVerifierJob(const VerifierJob& job) {
    return cloneOffline(job);
}

CaptureManualJob* JobQueue::AddCaptureManualJob(const CaptureManualJob& job) {
    return cloneImmediate(job);
}

CaptureTimedJob* JobQueue::AddCaptureTimedJob(const CaptureTimedJob& job) {
    return cloneImmediate(job);
}

CaptureRollingJob* JobQueue::AddCaptureRollingJob(const CaptureRollingJob& job) {
    return cloneImmediate(job);
}

CaptureScheduledJob* JobQueue::AddCaptureScheduledJob(const CaptureScheduledJob& job) {
    MutexLock lock(m_mutex);
    std::unique_ptr<CaptureScheduledJob> copy = cloneWithNextId(job);
    addScheduledJob(copy.get(), copy->startTime, copy->endTime);
    return copy.release();
}

int JobQueue::CancelJob(Job* job, Job::JobState newState) {
    // A worker may end at any moment: only the state that is found is replaced.
    for (Job::JobState found = job->state(); found != Job::IN_PROGRESS; found = job->state())
        if (job->changeState(found, newState)) {
            logWorkerRunsOn(*job, found);
            return 0;
        }

    const WorkerQueue queue(job->mgrQueueName);
    if (!queue.open()) {
        char text[300];
        kestrel::formatText(text, "Error: Could not connect to queue %s.", job->mgrQueueName);
        job->setResults(text);
        LogUtil::Error(MODULE, "%s", text);
        job->appendResults(" Error cancelling job");
        logCannotCancel(*job);
        return static_cast<int>(kestrel::error::queueNotConnected);
    }
    if (!queue.send(CANCEL_MSG)) {
        const char* const text = LOG_MSG(kestrel::error::cancelMessageFailed);
        job->setResults(text);
        LogUtil::Error(MODULE, "%s", text);
        logCannotCancel(*job);
        return static_cast<int>(kestrel::error::cancelMessageFailed);
    }
    job->setWorkerTold();
    job->setState(newState);
    return 0;
}

int JobQueue::DeleteJob(Job* job) {
    if (job->state() == Job::IN_PROGRESS) {
        LogUtil::Error(MODULE, "Error: Job %d is in-progress.  Cancel job before attempting to delete.",
                       static_cast<int>(job->id));
        return static_cast<int>(kestrel::error::jobInProgress);
    }
    MutexLock lock(m_mutex);
    const int index = getIndex(job, "DeleteJob");
    if (index >= 0) {
        m_index.remove(*jobs[static_cast<std::size_t>(index)]);
        jobs.erase(jobs.begin() + index);
    }
    // Found or not, callers have always been answered with this code.
    return static_cast<int>(kestrel::error::invalidJobId);
}

Job* JobQueue::getJob(const char* guidText) {
    kestrel::JobIndex::Guid guid{};
    Job::getGuid(guidText, guid.data());
    return m_index.find(guid);
}

Job* JobQueue::getJobByGivenGuid(const char* guidText) {
    kestrel::JobIndex::Guid guid{};
    Job::getGuid(guidText, guid.data());
    return m_index.findEntered(guid);
}

VerifierJob* JobQueue::getVerification(const char* reportFilename) {
    MutexLock lock(m_mutex);
    VerifierJob* latest = nullptr;
    for (Job* const job : jobs) {
        if (job->jobType != Job::VERIFIER_JOB)
            continue;
        auto* const verification = static_cast<VerifierJob*>(job);
        if (std::strcmp(verification->reportFilename, reportFilename) != 0)
            continue;
        if (latest == nullptr || !latest->mayWriteReport())
            latest = verification;
    }
    return latest;
}

const char* JobQueue::GetJobStatus(const char* guidText) {
    const Job* const job = getJob(guidText);
    return job == nullptr ? "" : Job::JobStateStr[job->state()];
}

Job* JobQueue::GetJobById(unsigned long id) {
    if (Job* const job = m_index.find(id); job != nullptr)
        return job;
    LogUtil::Error(MODULE, "Error: Invalid Job Id %d in %s.", static_cast<int>(id), "GetJobById");
    return nullptr;
}

int JobQueue::getIndex(Job* job, const char* caller) {
    const auto found = std::find_if(jobs.begin(), jobs.end(),
                                    [&](const Job* candidate) { return candidate->id == job->id; });
    if (found == jobs.end()) {
        LogUtil::Error(MODULE, "Error: Invalid Job Id %d in %s.", static_cast<int>(job->id), caller);
        return -1;
    }
    return static_cast<int>(found - jobs.begin());
}

void JobQueue::AllocCopyJobList(std::vector<Job*>& out) {
    MutexLock lock(m_mutex);
    out.clear();
    for (const Job* job : jobs)
        out.push_back(job->clone());
}

void JobQueue::DeleteJobList(std::vector<Job*>& list) {
    while (!list.empty()) {
        delete list.back();
        list.pop_back();
    }
}
