// The job commands.
#include "foundation/ErrorCodes.h"
#include "foundation/FixedText.h"
#include "foundation/PosixWrappers.h"
#include "foundation/file_io.h"
#include "jobs/CaptureJob.h"
#include "jobs/JobLauncher.h"
#include "jobs/RequestValues.h"
#include "service/ManagerLib.h"
#include "service/RequestMessages.h"
#include "verifier/VerifierJob.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <span>

namespace {

constexpr const char* MODULE = "Manager";
constexpr int WRITE_ACCESS = 1;

std::span<char> buffer(char* out, int size) {
    return {out, size > 0 ? static_cast<std::size_t>(size) : 0};
}

int asCode(long code) {
    return static_cast<int>(code);
}

int invalidGuid(const char* guid, char* out, int size) {
    kestrel::formatText(buffer(out, size), "Error: Invalid job GUID %s.", guid == nullptr ? "" : guid);
    return asCode(kestrel::error::invalidJobGuid);
}

struct CloseFile {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

} // namespace

Job* CManagerLib::GetJob(const char* guid) {
    return m_jobQueue.getJob(guid);
}

std::unique_ptr<CaptureJob> CManagerLib::makeCaptureJob(int type) const {
    switch (type) {
    case Job::CAPTURE_VTR_JOB:
        return std::make_unique<CaptureVTRJob>();
    case Job::CAPTURE_MANUAL_JOB:
        return std::make_unique<CaptureManualJob>();
    case Job::CAPTURE_TIMED_JOB:
        return std::make_unique<CaptureTimedJob>();
    case Job::CAPTURE_SCHEDULED_JOB:
        return std::make_unique<CaptureScheduledJob>();
    case Job::CAPTURE_ROLLING_JOB:
        return std::make_unique<CaptureRollingJob>();
    case Job::CAPTURE_MEZZANINE_JOB:
    case Job::CAPTURE_REENCODE_JOB:
        return std::make_unique<CaptureReencodeJob>(0, static_cast<Job::JobType>(type));
    case Job::CAPTURE_MPEG_NORMALIZE_JOB:
        return std::make_unique<MpegNormalizeJob>();
    default:
        return nullptr;
    }
}

CaptureJob* CManagerLib::queueCaptureJob(CaptureJob& job) {
    switch (job.jobType) {
    case Job::CAPTURE_VTR_JOB:
        return m_jobQueue.AddCaptureVTRJob(static_cast<CaptureVTRJob&>(job));
    case Job::CAPTURE_MANUAL_JOB:
        return m_jobQueue.AddCaptureManualJob(static_cast<CaptureManualJob&>(job));
    case Job::CAPTURE_TIMED_JOB:
        return m_jobQueue.AddCaptureTimedJob(static_cast<CaptureTimedJob&>(job));
    case Job::CAPTURE_SCHEDULED_JOB:
        return m_jobQueue.AddCaptureScheduledJob(static_cast<CaptureScheduledJob&>(job));
    case Job::CAPTURE_ROLLING_JOB:
        return m_jobQueue.AddCaptureRollingJob(static_cast<CaptureRollingJob&>(job));
    case Job::CAPTURE_MEZZANINE_JOB:
        return m_jobQueue.AddCaptureMezzanineJob(static_cast<CaptureReencodeJob&>(job));
    case Job::CAPTURE_REENCODE_JOB:
        return m_jobQueue.AddCaptureReencodeJob(static_cast<CaptureReencodeJob&>(job));
    default:
        return m_jobQueue.AddMpegNormalizeJob(static_cast<MpegNormalizeJob&>(job));
    }
}

int CManagerLib::AddCaptureJob(CaptureRequest* request, bool add) {
    const std::unique_ptr<CaptureJob> job = makeCaptureJob(request->captureJobType);
    if (!job) {
        kestrel::formatText(request->errorText, "Error: Invalid Job Type %d.", request->captureJobType);
        LogUtil::Error(MODULE, "%s", request->errorText);
        return asCode(kestrel::error::invalidJobType);
    }
    if (const int result = job->setFields(request->inputFields); result != 0) {
        kestrel::copyText(request->errorText, job->resultsText());
        return result;
    }
    if (!add)
        return 0;
    kestrel::warnUnlessGuid(request->guid);
    warnOfKnownGuid(request->guid);
    // Before it is queued, so that nobody sees a job of a half-known name or a log in the wrong directory.
    job->setGuid(request->guid);
    job->setLogDir(m_settings.captureLogDir);
    CaptureJob* const queued = queueCaptureJob(*job);
    // Again on the queued job: a copy goes through the kept text, which is shorter than a GUID with dashes.
    queued->setGuid(request->guid);
    return launchCaptureJob(*request, *queued);
}

// Jobs may share a GUID, deliberately: a job that could not be started is kept under its own, and a client
// that tries again with the same must not be turned away. Lookups find the first.
void CManagerLib::warnOfKnownGuid(const char* guid) {
    if (const Job* const first = m_jobQueue.getJobByGivenGuid(guid); first != nullptr)
        LogUtil::Warning(MODULE,
                         "GUID %s is that of job %d (%s) already: requests for it are answered for that one.",
                         guid, static_cast<int>(first->id), Job::JobStateStr[first->state()]);
}

int CManagerLib::ValidateCaptureJob(CaptureRequest* request) {
    return AddCaptureJob(request, false);
}

int CManagerLib::launchCaptureJob(CaptureRequest& request, CaptureJob& job) {
    const char* const commandLine = job.getCmdLine(m_settings.captureExe);
    const int reason = job.settingsErrno();
    if (reason == 0)
        return launchJob(job, m_settings.captureExe, commandLine, false, request.errorText);
    kestrel::formatText(request.errorText, "Error: Could not write settings file %s: errno %d (%s).",
                        job.iniFilename, reason, std::strerror(reason));
    LogUtil::Error(MODULE, "%s", request.errorText);
    job.setResults(request.errorText);
    job.finish(Job::ERROR);
    return asCode(kestrel::error::fileNotOpened);
}

// Starts a job's worker. A job that cannot be started keeps the state it was queued with, as the launcher
// leaves it: client and results carry the reason.
int CManagerLib::launchJob(Job& job, const char* program, const char* commandLine, bool wait,
                           char (&errorText)[300]) {
    const int result = JobLauncher::Launch(&job, commandLine, m_settings.heartbeatTimeoutSecs, wait);
    if (result == 0)
        return 0;
    if (result == asCode(kestrel::error::queueNotCreated))
        kestrel::copyText(errorText, job.resultsText());
    else if (result == asCode(kestrel::error::processNotLaunched))
        kestrel::formatText(errorText, "Error: Could not launch process %s.", program);
    else
        kestrel::copyText(errorText, LOG_MSG(result));
    LogUtil::Error(MODULE, "%s", errorText);
    job.setResults(errorText);
    return result;
}

int CManagerLib::StopJob(const char* guid, char* out, int size) {
    Job* const job = GetJob(guid);
    if (job == nullptr)
        return invalidGuid(guid, out, size);
    const int result = m_jobQueue.CancelJob(job, Job::CANCELLED);
    if (result != 0)
        kestrel::copyText(buffer(out, size), job->resultsText());
    return result;
}

int CManagerLib::GetJobStatus(const char* guid, char* out, int size) {
    const Job* const job = GetJob(guid);
    if (job == nullptr)
        return invalidGuid(guid, out, size);
    kestrel::copyText(buffer(out, size), Job::JobStateStr[job->state()]);
    return 0;
}

int CManagerLib::GetJobResults(const char* guid, char* out, int size) {
    Job* const job = GetJob(guid);
    if (job == nullptr)
        return invalidGuid(guid, out, size);
    if (job->jobType == Job::VERIFIER_JOB)
        return verificationResults(static_cast<VerifierJob&>(*job), buffer(out, size));
    return job->getJobResults(out, size);
}

CaptureJob* CManagerLib::findCaptureJob(const char* guid) {
    Job* const job = GetJob(guid);
    if (job == nullptr || job->jobType > Job::CAPTURE_MPEG_NORMALIZE_JOB)
        return nullptr;
    return static_cast<CaptureJob*>(job);
}

int CManagerLib::GetCaptureLogFilename(const char* guid, char* out, int size) {
    CaptureJob* const job = findCaptureJob(guid);
    if (job == nullptr)
        return invalidGuid(guid, out, size);
    kestrel::copyText(buffer(out, size), job->getLogFilename());
    return 0;
}

int CManagerLib::GetCaptureLastLogEntries(const char* guid, char* out, int size) {
    CaptureJob* const job = findCaptureJob(guid);
    if (job == nullptr)
        return invalidGuid(guid, out, size);
    const std::span<char> excerpt = buffer(out, size);
    if (excerpt.empty())
        return 0;
    const char* const path = job->getLogFilename();
    const std::int64_t length = FileIO::GetFileLen(path);
    if (length < 1) {
        kestrel::formatText(excerpt, "Log file %s is empty.", path);
        return asCode(kestrel::error::logFileEmpty);
    }
    const std::unique_ptr<std::FILE, CloseFile> file(std::fopen(path, "rbe"));
    if (!file) {
        kestrel::formatText(excerpt, "Could not open %s.", path);
        return asCode(kestrel::error::fileNotOpened);
    }
    // One byte further back than the excerpt is long, so the file's last byte, normally its line end, is left
    // out when the file is longer; kept.
    if (FileIO::TruncSeek(file.get(), std::max<std::int64_t>(length - size - 1, 0), SEEK_SET) != 0) {
        kestrel::formatText(excerpt, "Fseek error %d on file %s.", errno, path);
        return asCode(kestrel::error::seekFailed);
    }
    const std::size_t got = std::fread(excerpt.data(), 1, excerpt.size(), file.get());
    excerpt[std::min(got, excerpt.size() - 1)] = '\0';
    if (excerpt.size() >= 3)
        for (char& c : excerpt.first(std::min(got, excerpt.size() - 2)))
            if (c == '\r' || c == '\n')
                c = '\t';
    return 0;
}

int CManagerLib::SendQueueMessage(char* queueName, AppMsgType type, void* data, int size) {
    const mqd_t queue = connectToMsgQueue(queueName, WRITE_ACCESS);
    if (queue < 0) {
        LogUtil::Error(MODULE, "Error: Could not connect to queue %s.", queueName);
        return asCode(kestrel::error::queueNotConnected);
    }
    // A reader that has stopped reading must not hold its sender: a full queue is a failed send.
    long attributes[4] = {O_NONBLOCK, 0, 0, 0};
    setQueueAttr(queue, attributes);
    const GenericMsg message(type, data, size);
    if (sendPriorityMsg(queue, reinterpret_cast<const char*>(message.buffer), message.length, 0) != 0) {
        LogUtil::Error(MODULE, "Error: Failed to send message on queue %s.", queueName);
        closeMsgQueue(queue);
        return asCode(kestrel::error::queueSendFailed);
    }
    if (closeMsgQueue(queue) != 0) {
        LogUtil::Error(MODULE, "Error: Could not close queue %s.", queueName);
        return asCode(kestrel::error::queueNotClosed);
    }
    return 0;
}
