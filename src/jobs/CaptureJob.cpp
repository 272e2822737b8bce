#include "jobs/CaptureJob.h"

#include "capture_profile/CSettings.h"
#include "foundation/AppLaunchUtil.h"
#include "foundation/ErrorCodes.h"
#include "foundation/FixedText.h"
#include "foundation/Logger.h"
#include "jobs/InputField.h"
#include "jobs/RequestValues.h"
#include "resources/ResourceMgr.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

using namespace kestrel;

CaptureJob::CaptureJob() : Job(nullptr) {}

CaptureJob::CaptureJob(unsigned long newId, JobType type, JobState state) : Job(newId, type, state) {}

CaptureJob::CaptureJob(const CaptureJob& other) : Job(other) {
    copyCaptureFields(other);
}

CaptureJob& CaptureJob::operator=(const CaptureJob& other) {
    if (this != &other) {
        Job::operator=(other);
        copyCaptureFields(other);
    }
    return *this;
}

CaptureJob::~CaptureJob() {
    delete[] outputFile;
}

CaptureJob* CaptureJob::clone() const {
    return new CaptureJob(*this);
}

void CaptureJob::copyCaptureFields(const CaptureJob& other) {
    SetOutputFile(other.outputFile);
    encoders = other.encoders;
    m_encoderOptions = other.m_encoderOptions;

    // A queued job is copied while its worker reports. The other's lock is let go before this one's is taken.
    std::vector<std::unique_ptr<struct statusDetails>> details;
    char ini[sizeof iniFilename];
    char log[sizeof logFilename];
    int error = 0;
    {
        MutexLock lock(other.m_statusMutex);
        for (const auto& entry : other.statusDetails)
            details.push_back(std::make_unique<struct statusDetails>(*entry));
        std::memcpy(ini, other.iniFilename, sizeof ini);
        std::memcpy(log, other.logFilename, sizeof log);
        error = other.m_settingsErrno;
    }
    MutexLock lock(m_statusMutex);
    statusDetails = std::move(details);
    std::memcpy(iniFilename, ini, sizeof ini);
    std::memcpy(logFilename, log, sizeof log);
    m_settingsErrno = error;
}

int CaptureJob::refuse(long code, const char* text) {
    setResults(text);
    LogUtil::Error("JobMgmt", "%s", text);
    return static_cast<int>(code);
}

int CaptureJob::validate() {
    if (outputFile == nullptr || *outputFile == '\0')
        return refuse(error::noOutputFile, LOG_MSG(error::noOutputFile));
    if (encoders.empty() && jobType != CAPTURE_MPEG_NORMALIZE_JOB)
        return refuse(error::noEncoder, LOG_MSG(error::noEncoder));
    if (encoders.size() > CSettings::MAX_ENCODERS) {
        // The settings file has no room for more, and a capture that quietly left some out would be worse. No
        // code of its own: to the client it is the encoders of the request that are wrong.
        char text[sizeof results];
        formatText(text, "Error: Cannot add job - %zu encoders specified, at most %d are supported.",
                   encoders.size(), CSettings::MAX_ENCODERS);
        return refuse(error::noEncoder, text);
    }
    return 0;
}

void CaptureJob::setField(InputField& field) {
    const int number = field.getFieldName();
    switch (number) {
    case InputField::FILENAME:
        SetOutputFile(field.currValue);
        break;
    case InputField::ENCODER_IP:
        setEncoder(field);
        break;
    case InputField::ENCODER_PROFILE:
    case InputField::ENCODER_VITC_INPUT:
        setEncoderField(field, number);
        break;
    default:
        // A misspelt name would be left out without a trace. Known ones that this kind of job has no use for
        // are sent by clients with one form for all.
        if (number < 0 && field.name != nullptr)
            LogUtil::Warning("JobMgmt", "%s=%s: no field of this name is known, it is ignored.", field.name,
                             valueText(field));
        break;
    }
}

void CaptureJob::setEncoder(const InputField& field) {
    const auto address = deviceAddress(field);
    if (!address) {
        warnOfValue(field, DEVICE_ADDRESS);
        return;
    }
    Encoder* const encoder = ResourceMgr::GetResourceMgrInst()->GetEncoder(*address);
    // No rule forbids it here. What an encoder sends to one receiver can be recorded once only; what it sends
    // to a group is recorded twice.
    if (jobType != CAPTURE_MPEG_NORMALIZE_JOB &&
        std::find(encoders.begin(), encoders.end(), encoder) != encoders.end())
        LogUtil::Warning("JobMgmt",
                         "%s=%s: the request has this encoder already. It is taken twice: the job's worker "
                         "fails, or records the same twice.",
                         field.name, valueText(field));
    AddEncoder(encoder);
}

void CaptureJob::setEncoderField(InputField& field, int number) {
    if (encoders.empty()) {
        LogUtil::Warning("JobMgmt", "%s=%s stands before any encoder and is ignored.", field.name,
                         valueText(field));
        return;
    }
    Encoder& encoder = *encoders.back();
    // encoders is open to all, so an encoder may have come without AddEncoder.
    m_encoderOptions.resize(encoders.size());
    EncoderOptions& options = m_encoderOptions.back();
    ResourceMgr::GetResourceMgrInst()->withRecords([&] {
        if (number == InputField::ENCODER_PROFILE) {
            if (field.currValue == nullptr)
                return;
            encoder.setProfile(field.currValue);
            options.profile = field.currValue;
        } else {
            encoder.vitcInput = field.getCurrValue_bool(encoder.vitcInput);
            if (const auto said = saidBool(field))
                options.vitcInput = said;
            else
                warnOfTaken(field, TRUE_OR_FALSE, boolText(encoder.vitcInput));
        }
    });
}

void CaptureJob::AddEncoder(Encoder* encoder) {
    if (encoder == nullptr)
        return;
    encoders.push_back(encoder);
    m_encoderOptions.resize(encoders.size());
    equipment.push_back(encoder);
}

void CaptureJob::SetOutputFile(const char* path) {
    char* copy = nullptr;
    if (path != nullptr) {
        const std::size_t size = std::strlen(path) + 1;
        copy = new char[size];
        std::memcpy(copy, path, size);
    }
    delete[] outputFile;
    outputFile = copy;
}

const char* CaptureJob::getLogFilename() {
    MutexLock lock(m_statusMutex);
    if (logFilename[0] == '\0' && !formatText(logFilename, "%scapture_%d.log", logDir, static_cast<int>(id)))
        LogUtil::Warning("JobMgmt", "Job %d: the name of the log file is too long and is cut: %s",
                         static_cast<int>(id), logFilename);
    return logFilename;
}

const char* CaptureJob::getCmdLine(const char* program) {
    int error = CreateIniFile();
    const char* log = getLogFilename();
    MutexLock lock(m_statusMutex);
    if (!formatText(cmdLine, "%s -ini \"%s\" -wq %s -rq %s -log %s", program ? program : "", iniFilename,
                    jobUpdateQueueName, mgrQueueName, commandLineWord(log).c_str()) &&
        error == 0) {
        LogUtil::Error("JobMgmt", "Job %d: the command line is too long and is cut: %s", static_cast<int>(id),
                       cmdLine);
        error = ENAMETOOLONG;
    }
    m_settingsErrno = error;
    return cmdLine;
}

int CaptureJob::settingsErrno() const {
    MutexLock lock(m_statusMutex);
    return m_settingsErrno;
}

void CaptureJob::UpdateStatus(_CaptureJobStatusData* status) {
    if (status == nullptr || status->encoderIndex < 0)
        return;
    // The number comes from another process and sizes a list here.
    if (status->encoderIndex >= STATUS_LIMIT) {
        LogUtil::Warning("JobMgmt", "Job %d: status of encoder %d is ignored, the last possible is %d.",
                         static_cast<int>(id), status->encoderIndex, STATUS_LIMIT - 1);
        return;
    }
    mpeg_timecode duration = mpeg_timecode::from_frames(
        static_cast<int>(status->frames), status->dropFrame != 0, static_cast<int>(status->frameRateCode));
    {
        MutexLock lock(m_statusMutex);
        const auto index = static_cast<std::size_t>(status->encoderIndex);
        while (statusDetails.size() <= index)
            statusDetails.push_back(std::make_unique<struct statusDetails>());
        struct statusDetails& entry = *statusDetails[index];
        entry.duration = duration;
        entry.number1 = static_cast<std::int64_t>(status->statusNumber3);
        entry.number2 = static_cast<std::int64_t>(status->statusNumber1);
        entry.number3 = static_cast<std::int64_t>(status->statusNumber2);
    }
    LogUtil::Debug("JobMgmt", "DURATION %s", duration.windows_string());
}
