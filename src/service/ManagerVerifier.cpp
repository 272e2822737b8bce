// The verifications: run at once for a client that waits, or queued like any other job.
#include "foundation/ErrorCodes.h"
#include "foundation/FixedText.h"
#include "foundation/Logger.h"
#include "jobs/JobLauncher.h"
#include "jobs/RequestValues.h"
#include "service/ManagerLib.h"
#include "service/RequestMessages.h"
#include "verifier/KeptReport.h"
#include "verifier/VerifierJob.h"

#include <cstring>
#include <optional>
#include <unistd.h>

namespace {

constexpr const char* MODULE = "Manager";

// Silent for too long, or the service is ending: nobody knows the answer.
int timeout(std::span<char> text) {
    kestrel::copyText(text, LOG_MSG(kestrel::error::jobTimeout));
    LogUtil::Error(MODULE, "%s", LOG_MSG(kestrel::error::jobTimeout));
    return static_cast<int>(kestrel::error::jobTimeout);
}

// What the job answers. One that has failed fails whatever its report says: its worker has not verified the
// file. A list of validation errors may be empty, which would tell the client that the file passed.
int resultsOf(VerifierJob& job, std::span<char> out) {
    const int result = job.getJobResults(out.data(), static_cast<int>(out.size()));
    if (result != 0 || job.state() != Job::ERROR)
        return result;
    // An answer that is no failure text, such as the path of the report, leaves the reason untold.
    const std::string failure = job.failureText();
    LogUtil::Error(MODULE, "%s", failure.c_str());
    if (kestrel::fieldText(out).empty())
        kestrel::copyText(out, failure);
    return static_cast<int>(kestrel::error::mpegPropertyFailed);
}

// Beside the reports, under a name that no report has and no other request.
std::string asidePath(const VerifierJob& job) {
    return std::string(job.reportDir) + ".kestrel-" + std::to_string(getpid()) + "-" +
           std::to_string(job.id) + ".report";
}

} // namespace

int CManagerLib::AddVerifierJob(VerifierRequest* request) {
    VerifierJob job(request->fileName, m_settings.reportDir, request->guid, request->propertyName,
                    m_settings.quickPropertiesDurationSecs, request->blocking, request->xmlOutput,
                    request->optionText, m_settings.numAudios, m_settings.audioPlaceholderValue);
    if (const int result = job.validate(); result != 0) {
        kestrel::copyText(request->errorText, job.resultsText());
        return result;
    }
    const kestrel::ReportLocks::Hold report(m_reportLocks, job.reportFilename);
    if (!report.held())
        return timeout(request->errorText);
    if (job.property < VerifierJob::SHORT_PROPERTIES || request->blocking)
        return runVerification(*request, job);
    return queueVerification(*request, job);
}

int CManagerLib::queueVerification(VerifierRequest& request, VerifierJob& job) {
    job.removeOldReport();
    kestrel::warnUnlessGuid(request.guid);
    warnOfKnownGuid(request.guid);
    VerifierJob* const queued = m_jobQueue.AddVerifierJob(job);
    queued->setGuid(request.guid);
    return launchVerification(request, *queued, false);
}

// Outside the queue, on the connection's thread, until the worker has ended. A queued verification of the
// same GUID and file keeps its report, but for a client that asks for the new one.
int CManagerLib::runVerification(VerifierRequest& request, VerifierJob& job) {
    job.setId(m_jobQueue.incNextId());
    job.setGuid(request.guid);
    const VerifierJob* const queued = m_jobQueue.getVerification(job.reportFilename);
    const bool queuedRuns = queued != nullptr && queued->mayWriteReport();
    if (queued != nullptr && (queuedRuns || job.returnReportXml))
        LogUtil::Warning(
            MODULE,
            "Job %d %s is a verification of this file (%s), and its report is that of this request "
            "too: %s. Give each a GUID of its own.",
            static_cast<int>(queued->id), queued->guidStr, Job::JobStateStr[queued->state()],
            job.reportFilename);
    std::optional<kestrel::KeptReport> kept;
    if (queued != nullptr && !job.returnReportXml)
        kept.emplace(job.reportFilename, asidePath(job));
    else
        job.removeOldReport();
    if (const int result = launchVerification(request, job, true); result != 0)
        return result;
    const int result = answerVerification(request, job);
    if (kept && queuedRuns && !queued->mayWriteReport())
        kept->leaveNew();
    return result;
}

int CManagerLib::launchVerification(VerifierRequest& request, VerifierJob& job, bool wait) {
    const char* const commandLine = job.getCmdLine(m_settings.verifierExe);
    const int reason = job.commandLineErrno();
    if (reason == 0)
        return launchJob(job, m_settings.verifierExe, commandLine, wait, request.errorText);
    kestrel::formatText(request.errorText, "Error: Could not launch process %s: errno %d (%s).",
                        m_settings.verifierExe, reason, std::strerror(reason));
    LogUtil::Error(MODULE, "%s", request.errorText);
    job.setResults(request.errorText);
    job.finish(Job::ERROR);
    return static_cast<int>(kestrel::error::processNotLaunched);
}

int CManagerLib::answerVerification(VerifierRequest& request, VerifierJob& job) {
    if (job.state() == Job::COMPLETE) {
        const int result = resultsOf(job, std::span(request.responseText).first(Message::ANSWER_SIZE));
        if (result != 0)
            kestrel::copyText(request.errorText, kestrel::fieldText(request.responseText));
        return result;
    }
    if (job.state() == Job::ERROR)
        return resultsOf(job, request.errorText);
    return timeout(request.errorText);
}

// Of a queued verification.
int CManagerLib::verificationResults(VerifierJob& job, std::span<char> out) {
    const kestrel::ReportLocks::Hold report(m_reportLocks, job.reportFilename);
    if (!report.held())
        return timeout(out);
    return resultsOf(job, out);
}
