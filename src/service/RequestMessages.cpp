#include "service/RequestMessages.h"

#include "foundation/FixedText.h"
#include "foundation/Logger.h"
#include "jobs/Job.h"
#include "service/ManagerLib.h"

#include <span>

namespace {

constexpr const char* MODULE = "RequestMessages";
// What the check of a command type has always compared with; a lookup answers -1 for an unknown word.
constexpr int NO_REQUEST_TYPE = 10;

// A failed call has left its answer in the response.
bool copyAnswerToError(Message& message) {
    kestrel::copyText(message.errorText, kestrel::fieldText(message.responseText));
    return false;
}

} // namespace

ServicePing::ServicePing(char /*args*/[][300], int /*count*/) : Message(SERVICE_PING) {}

bool ServicePing::process() {
    kestrel::copyText(responseText, "ALIVE");
    return true;
}

ServiceStop::ServiceStop(char /*args*/[][300], int /*count*/) : Message(SERVICE_STOP) {}

bool ServiceStop::process() {
    CManagerLib::GetInstance()->setShutdownEvent();
    kestrel::copyText(responseText, "Shutdown Signalled to Kestrel Manager Service");
    return true;
}

CaptureRequest::CaptureRequest(char args[][300], int count)
    : Message(CAPTURE_REQUEST), captureJobType(Job::NONE) {
    if (count < 3) {
        refuse("Invalid Capture Request.  Expected cmdType, GUID.");
        return;
    }
    requestType = getRequestType(args[1]);
    // Kept: an unknown word is -1 and passes, and is then handled like a validation. Clients that misspell a
    // query are answered by the job type's check.
    if (requestType == NO_REQUEST_TYPE) {
        char text[300];
        kestrel::formatText(text, "Invalid Command Type %s in Capture Request", args[1]);
        refuse(text);
        return;
    }
    setGuidStr(args[2]);
    if (requestType == JOB_BEGIN || requestType == JOB_VALIDATE)
        takeJob(args, count);
    else if (requestType == -1)
        LogUtil::Warning(
            MODULE,
            "CAPTURE: \"%s\" is no command type, it is handled as a check of no job type; expected is "
            "JOB_BEGIN, JOB_VALIDATE, JOB_ABORT, JOB_LOGFILENAME or JOB_LAST_LOG_ENTRIES.",
            args[1]);
    else if (requestType == JOB_STATUS || requestType == JOB_RESULTS)
        LogUtil::Warning(MODULE, "CAPTURE,%s is not answered; the request is %s,GUID.", args[1], args[1]);
}

void CaptureRequest::takeJob(char args[][300], int count) {
    if (count == 3) {
        refuse("Invalid Capture Request.  Expected cmdType, GUID, captureJobType, args.");
        return;
    }
    captureJobType = Job::getJobType(args[3]);
    if (captureJobType == Job::NONE) {
        char text[300];
        kestrel::formatText(text, "Invalid Capture Job Type %s in Capture Request", args[3]);
        refuse(text);
        return;
    }
    for (int i = 4; i < count; ++i) {
        inputFields.emplace_back(args[i]);
        if (inputFields.back().name == nullptr)
            LogUtil::Warning(MODULE, "\"%s\" is not of the form name=value, it is ignored.", args[i]);
    }
}

void CaptureRequest::refuse(const char* text) {
    kestrel::copyText(errorText, text);
    LogUtil::Error(MODULE, "%s", errorText);
}

bool CaptureRequest::process() {
    CManagerLib& manager = *CManagerLib::GetInstance();
    switch (requestType) {
    case JOB_BEGIN:
        return manager.AddCaptureJob(this, true) == 0;
    case JOB_ABORT:
        return manager.StopJob(guid, responseText, ANSWER_SIZE) == 0 || copyAnswerToError(*this);
    case JOB_LOGFILENAME:
        return manager.GetCaptureLogFilename(guid, responseText, ANSWER_SIZE) == 0 ||
               copyAnswerToError(*this);
    case JOB_LAST_LOG_ENTRIES:
        return manager.GetCaptureLastLogEntries(guid, responseText, ANSWER_SIZE) == 0 ||
               copyAnswerToError(*this);
    default:
        // Status and results are not answered here, deliberately: clients use the requests of that name.
        return manager.ValidateCaptureJob(this) == 0;
    }
}

VerifierRequest::VerifierRequest(char args[][300], int count) : Message(VERIFIER_REQUEST) {
    if (count < 4) {
        kestrel::copyText(errorText, "Invalid Verifier Request.  Expected cmdType, GUID, filename.");
        return;
    }
    requestType = getRequestType(args[1]);
    setGuidStr(args[2]);
    if (!kestrel::copyText(fileName, args[3]))
        LogUtil::Warning(MODULE, "GET_MPEG_PROPERTIES: \"%s\" is too long and is cut to \"%s\".", args[3],
                         fileName);
    kestrel::copyText(propertyName, count == 4 ? "ALL" : args[4]);
    if (count > 5) {
        xmlOutput = std::string_view(args[5]) == "XML";
        blocking = xmlOutput || std::string_view(args[5]) == "BLOCK";
        if (!blocking && args[5][0] != '\0')
            LogUtil::Warning(
                MODULE, "GET_MPEG_PROPERTIES: \"%s\" is not BLOCK or XML, it is taken as neither of them.",
                args[5]);
    }
    if (count > 6)
        kestrel::copyText(optionText, args[6]);
}

bool VerifierRequest::process() {
    return CManagerLib::GetInstance()->AddVerifierJob(this) == 0;
}

JobStatusRequest::JobStatusRequest(char args[][300], int count) : Message(JOB_STATUS_REQUEST) {
    if (count < 2)
        kestrel::copyText(errorText, "Invalid Job Status Request.  Expected Job GUID.");
    else
        setGuidStr(args[1]);
}

bool JobStatusRequest::process() {
    return CManagerLib::GetInstance()->GetJobStatus(guid, responseText, ANSWER_SIZE) == 0 ||
           copyAnswerToError(*this);
}

JobResultsRequest::JobResultsRequest(char args[][300], int count) : Message(JOB_RESULTS_REQUEST) {
    if (count < 2)
        kestrel::copyText(errorText, "Invalid Job Results Request.  Expected Job GUID.");
    else
        setGuidStr(args[1]);
}

bool JobResultsRequest::process() {
    return CManagerLib::GetInstance()->GetJobResults(guid, responseText, ANSWER_SIZE) == 0 ||
           copyAnswerToError(*this);
}
