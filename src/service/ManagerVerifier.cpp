// The verifications: run at once for a client that waits, or queued like any other job.
#include "foundation/ErrorCodes.h"
#include "foundation/FixedText.h"
#include "foundation/Logger.h"
#include "foundation/StringUtil.h"
#include "jobs/JobLauncher.h"
#include "jobs/RequestValues.h"
#include "service/ManagerLib.h"
#include "service/RequestMessages.h"
#include "verifier/OwnReportDirectory.h"
#include "verifier/VerifierJob.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <unistd.h>

namespace {

constexpr const char* MODULE = "Manager";

// Silent for too long, or the service is ending: nobody knows the answer.
int timeout(std::span<char> text) {
    kestrel::copyText(text, LOG_MSG(kestrel::error::jobTimeout));
    LogUtil::Error(MODULE, "%s", LOG_MSG(kestrel::error::jobTimeout));
    return static_cast<int>(kestrel::error::jobTimeout);
}

// Beside the reports, under a name that no report has and no other request.
std::string ownReportPrefix(const VerifierJob& job) {
    return std::string(job.reportDir) + ".kestrel-" + std::to_string(getpid()) + "-" +
           std::to_string(job.id) + "-";
}

// The verifier has done its work, but the request has no report.
void failWithoutReport(VerifierJob& job, const std::string& reason) {
    job.setResults(reason);
    job.finish(Job::ERROR);
}

// Puts the report that has been written at its name; whether there was one. A verifier that says so and has
// written none leaves what is there, which is nobody else's answer.
bool putReport(VerifierJob& job, const std::string& written) {
    if (std::rename(written.c_str(), job.reportFilename) == 0)
        return true;
    if (const int reason = errno; reason != ENOENT)
        failWithoutReport(job, "The report cannot be renamed: errno " + std::to_string(reason) + " (" +
                                   std::strerror(reason) + ").");
    else if (job.reportIsOlder())
        failWithoutReport(job, "The verifier has written no report; what is there is of an earlier job.");
    return false;
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
    if (job.property < VerifierJob::SHORT_PROPERTIES || request->blocking)
        return runVerification(*request, job);
    return queueVerification(*request, job);
}

int CManagerLib::queueVerification(VerifierRequest& request, VerifierJob& job) {
    const kestrel::ReportLocks::Hold report(m_reportLocks, job.reportFilename);
    if (!report.held())
        return timeout(request.errorText);
    job.disownReport();
    kestrel::warnUnlessGuid(request.guid);
    warnOfKnownGuid(request.guid);
    VerifierJob* const queued = m_jobQueue.AddVerifierJob(job);
    queued->setGuid(request.guid);
    return launchVerification(request, *queued, false);
}

// Outside the queue, on the connection's thread, until the worker has ended. A queued verification of the
// same GUID and file keeps its report: nobody needs to wait for one that is elsewhere.
int CManagerLib::runVerification(VerifierRequest& request, VerifierJob& job) {
    job.setId(m_jobQueue.incNextId());
    job.setGuid(request.guid);
    if (job.returnReportXml) {
        // What is there may be a report that somebody was told of: it stays until the new one is whole.
        job.disownReport();
        return answerFromOwnReport(request, job);
    }
    if (m_jobQueue.getVerification(job.reportFilename) == nullptr) {
        const kestrel::ReportLocks::Hold report(m_reportLocks, job.reportFilename);
        if (!report.held())
            return timeout(request.errorText);
        // Again, since one may have been queued while this one waited.
        if (m_jobQueue.getVerification(job.reportFilename) == nullptr) {
            job.disownReport();
            return answerAtOnce(request, job);
        }
    }
    return answerFromOwnReport(request, job);
}

void CManagerLib::warnOfSharedReport(const VerifierJob& job) {
    if (const VerifierJob* const queued = m_jobQueue.getVerification(job.reportFilename); queued != nullptr)
        LogUtil::Warning(
            MODULE,
            "Job %d %s is a verification of this file (%s), and its report is that of this request "
            "too: %s. Give each a GUID of its own.",
            static_cast<int>(queued->id), queued->guidStr, Job::JobStateStr[queued->state()],
            job.reportFilename);
}

// Whichever of two verifiers ends first, neither has the other's report.
int CManagerLib::answerFromOwnReport(VerifierRequest& request, VerifierJob& job) {
    const kestrel::OwnReportDirectory directory(ownReportPrefix(job));
    if (directory.failure() != 0)
        return refuseVerification(request, job, directory.failure());
    if (!job.setReportDir(directory.path()))
        return refuseVerification(request, job, ENAMETOOLONG);
    // The verifier is told the name alone, also where the GUID has directories in it.
    const std::string name = cStringUtil::getStrippedFilename(job.reportFilename);
    kestrel::copyText(job.reportFilename, directory.path() + name);
    if (const int result = launchVerification(request, job, true); result != 0)
        return result;
    return job.returnReportXml ? answerWithReport(request, job) : answerVerification(request, job);
}

// Gives the report of a verifier that has not failed its documented name.
int CManagerLib::answerWithReport(VerifierRequest& request, VerifierJob& job) {
    const std::string written = job.reportFilename;
    job.setReportDir(m_settings.reportDir);
    if (job.state() != Job::COMPLETE)
        return answerVerification(request, job);
    // Not while an answer is still to be read from what a verifier writes there, but for the service's end:
    // it would take the report along.
    const kestrel::ReportLocks::Hold report(m_reportLocks, job.reportFilename);
    if (putReport(job, written))
        warnOfSharedReport(job);
    return answerVerification(request, job);
}

int CManagerLib::answerAtOnce(VerifierRequest& request, VerifierJob& job) {
    const int result = launchVerification(request, job, true);
    return result != 0 ? result : answerVerification(request, job);
}

int CManagerLib::launchVerification(VerifierRequest& request, VerifierJob& job, bool wait) {
    const char* const commandLine = job.getCmdLine(m_settings.verifierExe);
    if (const int reason = job.commandLineErrno(); reason != 0)
        return refuseVerification(request, job, reason);
    return launchJob(job, m_settings.verifierExe, commandLine, wait, request.errorText);
}

int CManagerLib::refuseVerification(VerifierRequest& request, VerifierJob& job, int reason) {
    kestrel::formatText(request.errorText, "Error: Could not launch process %s: errno %d (%s).",
                        m_settings.verifierExe, reason, std::strerror(reason));
    LogUtil::Error(MODULE, "%s", request.errorText);
    job.setResults(request.errorText);
    job.finish(Job::ERROR);
    return static_cast<int>(kestrel::error::processNotLaunched);
}

int CManagerLib::answerVerification(VerifierRequest& request, VerifierJob& job) {
    if (job.state() == Job::COMPLETE) {
        const int result =
            verificationResults(job, std::span(request.responseText).first(Message::ANSWER_SIZE));
        if (result != 0)
            kestrel::copyText(request.errorText, kestrel::fieldText(request.responseText));
        return result;
    }
    if (job.state() == Job::ERROR)
        return verificationResults(job, request.errorText);
    return timeout(request.errorText);
}

// What the job answers. One that has failed fails whatever its report says: its worker has not verified the
// file. A list of validation errors may be empty, which would tell the client that the file passed.
int CManagerLib::verificationResults(VerifierJob& job, std::span<char> out) {
    const int result = job.getJobResults(out.data(), static_cast<int>(out.size()));
    if (result != 0 || !job.hasFailed())
        return result;
    // An answer that is no failure text, such as the path of the report, leaves the reason untold.
    const std::string failure = job.failureText();
    LogUtil::Error(MODULE, "%s", failure.c_str());
    if (kestrel::fieldText(out).empty())
        kestrel::copyText(out, failure);
    return static_cast<int>(kestrel::error::mpegPropertyFailed);
}
