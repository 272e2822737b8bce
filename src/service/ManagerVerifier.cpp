// The verifications: run at once for a client that waits, or queued like any other job.
#include "foundation/ErrorCodes.h"
#include "foundation/FixedText.h"
#include "foundation/Logger.h"
#include "jobs/JobLauncher.h"
#include "jobs/RequestValues.h"
#include "service/ManagerLib.h"
#include "service/RequestMessages.h"
#include "verifier/VerifierJob.h"

#include <memory>

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
    job.removeOldReport();
    kestrel::warnUnlessGuid(request->guid);
    warnOfKnownGuid(request->guid);
    VerifierJob* const queued = m_jobQueue.AddVerifierJob(job);
    queued->setGuid(request->guid);
    return launchJob(*queued, m_settings.verifierExe, queued->getCmdLine(m_settings.verifierExe), false,
                     request->errorText);
}

// Outside the queue, on the connection's thread, until the worker has ended.
int CManagerLib::runVerification(VerifierRequest& request, VerifierJob& job) {
    job.setId(m_jobQueue.incNextId());
    job.setGuid(request.guid);
    job.removeOldReport();
    if (const int result = launchJob(job, m_settings.verifierExe, job.getCmdLine(m_settings.verifierExe),
                                     true, request.errorText);
        result != 0)
        return result;
    if (job.state() == Job::COMPLETE) {
        const int result = job.getJobResults(request.responseText, Message::ANSWER_SIZE);
        if (result != 0)
            kestrel::copyText(request.errorText, kestrel::fieldText(request.responseText));
        return result;
    }
    if (job.state() == Job::ERROR) {
        // Whatever its report says: a worker that failed has not verified the file. A list of validation
        // errors may be empty, which would tell the client nothing.
        const int result = job.getJobResults(request.errorText, sizeof request.errorText);
        // An answer that is no failure text, such as the path of the report, leaves the reason untold.
        if (result == 0)
            LogUtil::Error("Manager", "%s", job.failureText().c_str());
        if (request.errorText[0] == '\0')
            kestrel::copyText(request.errorText, job.failureText());
        return result != 0 ? result : static_cast<int>(kestrel::error::mpegPropertyFailed);
    }
    // Silent for too long, or the service is ending: nobody knows the answer.
    const char* const text = LOG_MSG(kestrel::error::jobTimeout);
    LogUtil::Error("Manager", "%s", text);
    kestrel::copyText(request.errorText, text);
    return static_cast<int>(kestrel::error::jobTimeout);
}
