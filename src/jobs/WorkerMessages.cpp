#include "jobs/WorkerMessages.h"

#include "foundation/CallbackLib.h"
#include "foundation/FixedText.h"
#include "foundation/Logger.h"
#include "foundation/QueueMessages.h"
#include "jobs/CaptureJob.h"
#include "jobs/RefusalDetail.h"

#include <cstring>
#include <span>
#include <string>
#include <string_view>

namespace kestrel {

namespace {

constexpr const char* category = "JobLauncher";

int number(const Job& job) {
    return static_cast<int>(job.id);
}

// The payload as a record. A shorter payload gives false; a longer one is read as far as the record goes.
template <typename Record>
bool readRecord(const Job& job, const GenericFlatMsg& message, Record& record) {
    if (message.payload == nullptr || message.payloadSize < static_cast<std::int32_t>(sizeof record)) {
        LogUtil::Warning(category, "Job %d %s: message of type %d ignored, %d bytes instead of %zu.",
                         number(job), job.guidStr, static_cast<int>(message.type), message.payloadSize,
                         sizeof record);
        return false;
    }
    std::memcpy(&record, message.payload, sizeof record);
    return true;
}

void takeCaptureStatus(Job& job, const GenericFlatMsg& message) {
    auto* const capture = dynamic_cast<CaptureJob*>(&job);
    if (capture == nullptr) {
        LogUtil::Warning(category, "Job %d %s: capture status ignored, the job is no capture.", number(job),
                         job.guidStr);
        return;
    }
    _CaptureJobStatusData status;
    if (readRecord(job, message, status))
        capture->UpdateStatus(&status);
}

void takeResults(Job& job, const GenericFlatMsg& message) {
    if (message.payload == nullptr) {
        job.setResults({});
        return;
    }
    const auto* const text = reinterpret_cast<const char*>(message.payload);
    const auto size = static_cast<std::size_t>(message.payloadSize);
    const std::string_view results = fieldText(std::span(text, size)).substr(0, sizeof job.results - 1);
    job.setResults(results);
    if (const auto* const capture = dynamic_cast<const CaptureJob*>(&job); capture != nullptr)
        if (const std::string detail = refusalDetail(results, *capture); !detail.empty())
            LogUtil::Warning(category, "Job %d %s: %s", number(job), job.guidStr, detail.c_str());
}

// The deck's answer goes straight to the worker, on the queue that it reads.
void relayDeckCommand(const Job& job, const GenericFlatMsg& message) {
    _VTRCmdData command;
    if (!readRecord(job, message, command))
        return;
    copyText(command.replyQueueName, job.mgrQueueName);
    CallbackLib::initCallBackLib()->callback(DATA_CALLBACK_VTR_CMD_REQUEST, &command, sizeof command);
}

} // namespace

bool takeWorkerMessage(Job& job, const GenericFlatMsg& message) {
    switch (message.type) {
    case EXIT_MSG:
        LogUtil::Error(category, "EXIT_MSG");
        return true;
    case STATUS_MSG:
        LogUtil::Debug(category, "status msg received from job %d %s.", number(job), job.guidStr);
        return false;
    case CAPTURE_STATUS_MSG:
        takeCaptureStatus(job, message);
        return false;
    case RESULTS_MSG:
        takeResults(job, message);
        return false;
    case VTR_CMD_REQUEST_MSG:
        relayDeckCommand(job, message);
        return false;
    default:
        return false;
    }
}

} // namespace kestrel
