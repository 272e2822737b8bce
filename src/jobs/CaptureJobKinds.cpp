// The capture jobs that record live from encoders: manual, timed, rolling and from a tape deck; and the
// normalisation of a file.
#include "foundation/ErrorCodes.h"
#include "foundation/FixedText.h"
#include "foundation/Logger.h"
#include "jobs/CaptureJob.h"
#include "jobs/InputField.h"
#include "jobs/RequestValues.h"
#include "resources/ResourceMgr.h"

#include <cstring>

using namespace kestrel;

// Manual

CaptureManualJob::CaptureManualJob() : CaptureManualJob(0) {}

CaptureManualJob::CaptureManualJob(unsigned long newId)
    : CaptureJob(newId, CAPTURE_MANUAL_JOB, IN_PROGRESS) {}

CaptureManualJob::CaptureManualJob(const CaptureManualJob& other) = default;

CaptureManualJob& CaptureManualJob::operator=(const CaptureManualJob& other) = default;

CaptureManualJob::~CaptureManualJob() = default;

CaptureManualJob* CaptureManualJob::clone() const {
    return new CaptureManualJob(*this);
}

int CaptureManualJob::validate() {
    return CaptureJob::validate();
}

int CaptureManualJob::setFields(std::vector<InputField>& fields) {
    for (InputField& field : fields)
        if (field.getFieldName() != InputField::SRC_FILENAME)
            setField(field);
    return validate();
}

// Timed

CaptureTimedJob::CaptureTimedJob() : CaptureTimedJob(0) {}

CaptureTimedJob::CaptureTimedJob(unsigned long newId) : CaptureJob(newId, CAPTURE_TIMED_JOB, IN_PROGRESS) {}

CaptureTimedJob::CaptureTimedJob(const CaptureTimedJob& other) = default;

CaptureTimedJob& CaptureTimedJob::operator=(const CaptureTimedJob& other) = default;

CaptureTimedJob::~CaptureTimedJob() = default;

CaptureTimedJob* CaptureTimedJob::clone() const {
    return new CaptureTimedJob(*this);
}

int CaptureTimedJob::validate() {
    return CaptureJob::validate();
}

int CaptureTimedJob::setFields(std::vector<InputField>& fields) {
    for (InputField& field : fields) {
        if (field.getFieldName() == InputField::DURATION)
            takeText(duration, field);
        else
            setField(field);
    }
    // Not checked, but told: the worker's refusal speaks of a frame rate.
    warnUnlessDuration(InputField::FieldName[InputField::DURATION], duration);
    return validate();
}

// Rolling

CaptureRollingJob::CaptureRollingJob() : CaptureRollingJob(0) {}

CaptureRollingJob::CaptureRollingJob(unsigned long newId)
    : CaptureJob(newId, CAPTURE_ROLLING_JOB, IN_PROGRESS) {}

CaptureRollingJob::CaptureRollingJob(const CaptureRollingJob& other) = default;

CaptureRollingJob& CaptureRollingJob::operator=(const CaptureRollingJob& other) = default;

CaptureRollingJob::~CaptureRollingJob() = default;

CaptureRollingJob* CaptureRollingJob::clone() const {
    return new CaptureRollingJob(*this);
}

int CaptureRollingJob::validate() {
    if (rollingDurationMin < 1) {
        char text[sizeof results];
        formatText(text, LOG_MSG(error::invalidRollingDuration), rollingDurationMin);
        return refuse(error::invalidRollingDuration, text);
    }
    return CaptureJob::validate();
}

int CaptureRollingJob::setFields(std::vector<InputField>& fields) {
    for (InputField& field : fields) {
        switch (field.getFieldName()) {
        case InputField::SRC_FILENAME:
            break;
        case InputField::DURATION:
            rollingDurationMin = minutesValue(field.currValue);
            if (rollingDurationMin < 1)
                warnOfValue(field, MINUTES);
            break;
        case InputField::START_TIME:
            rollingStartNow = false;
            break;
        default:
            setField(field);
            break;
        }
    }
    return validate();
}

// From a tape deck

CaptureVTRJob::CaptureVTRJob() : CaptureVTRJob(0) {}

CaptureVTRJob::CaptureVTRJob(unsigned long newId) : CaptureJob(newId, CAPTURE_VTR_JOB, QUEUED) {}

CaptureVTRJob::CaptureVTRJob(const CaptureVTRJob& other) = default;

CaptureVTRJob& CaptureVTRJob::operator=(const CaptureVTRJob& other) = default;

CaptureVTRJob::~CaptureVTRJob() = default;

CaptureVTRJob* CaptureVTRJob::clone() const {
    return new CaptureVTRJob(*this);
}

int CaptureVTRJob::validate() {
    if (markIn[0] == '\0' && (markOut[0] == '\0' || m_thirdMark[0] == '\0'))
        return refuse(error::marksRequired, LOG_MSG(error::marksRequired));
    // Texts that are no timecodes count as far as they can be read, and are told in the log. A deck counts 60
    // frames here at most, so the highest rate compares the marks of every rate.
    constexpr int marksRateCode = 8;
    if (mpeg_timecode(markOut, false, marksRateCode) <= mpeg_timecode(markIn, false, marksRateCode))
        return refuse(error::markOutNotAfterMarkIn, LOG_MSG(error::markOutNotAfterMarkIn));
    return CaptureJob::validate();
}

int CaptureVTRJob::setFields(std::vector<InputField>& fields) {
    bool portGiven = false;
    for (InputField& field : fields) {
        switch (field.getFieldName()) {
        case InputField::MARK_IN_TIME:
            takeText(markIn, field);
            warnUnlessTimecode(field);
            break;
        case InputField::MARK_OUT_TIME:
            takeText(markOut, field);
            warnUnlessTimecode(field);
            break;
        case InputField::VTR_COM_PORT:
            portGiven = true;
            warnOfLongPort(field);
            if (*valueText(field) == '\0') {
                LogUtil::Warning("JobMgmt", "%s names no port: the job has no deck.", field.name);
            } else {
                SetVTR(ResourceMgr::GetResourceMgrInst()->GetVTR(field.currValue));
                // The port's text goes through the flag's step too; only a port called TRUE or FALSE would
                // change the flag.
                setInternalCue(field);
            }
            setField(field);
            break;
        case InputField::VTR_USE_INTERNAL_CUE:
            setInternalCue(field);
            setField(field);
            break;
        default:
            setField(field);
            break;
        }
    }
    if (!portGiven)
        LogUtil::Warning("JobMgmt", "%s: none is given: the job has no deck, and its worker will fail.",
                         InputField::FieldName[InputField::VTR_COM_PORT]);
    return validate();
}

// No rule forbids it here; the deck control knows no such deck.
void CaptureVTRJob::warnOfLongPort(const InputField& field) {
    constexpr std::size_t LONGEST = sizeof(_VTRCmdData::serialPort) - 1;
    if (std::strlen(valueText(field)) > LONGEST)
        LogUtil::Warning(
            "JobMgmt",
            "%s: \"%s\" has more than %zu characters: no deck can be reached by it, and the job's "
            "worker will fail.",
            field.name, valueText(field), LONGEST);
}

void CaptureVTRJob::setInternalCue(InputField& field) {
    if (vtr == nullptr) {
        LogUtil::Warning("JobMgmt", "%s=%s stands before the port of the deck and is ignored.", field.name,
                         valueText(field));
        return;
    }
    bool used = false;
    ResourceMgr::GetResourceMgrInst()->withRecords(
        [&] { used = vtr->useInternalCue = field.getCurrValue_bool(vtr->useInternalCue); });
    if (const auto said = saidBool(field))
        m_internalCue = said;
    else if (field.getFieldName() == InputField::VTR_USE_INTERNAL_CUE)
        warnOfTaken(field, TRUE_OR_FALSE, boolText(used));
}

void CaptureVTRJob::SetVTR(Vtr* deck) {
    if (deck == nullptr)
        return;
    if (deck != vtr)
        m_internalCue.reset();
    vtr = deck;
    equipment.push_back(deck);
}

// Normalisation

MpegNormalizeJob::MpegNormalizeJob() : MpegNormalizeJob(0) {}

MpegNormalizeJob::MpegNormalizeJob(unsigned long newId)
    : CaptureJob(newId, CAPTURE_MPEG_NORMALIZE_JOB, QUEUED) {}

MpegNormalizeJob::MpegNormalizeJob(const MpegNormalizeJob& other) = default;

MpegNormalizeJob& MpegNormalizeJob::operator=(const MpegNormalizeJob& other) = default;

MpegNormalizeJob::~MpegNormalizeJob() = default;

MpegNormalizeJob* MpegNormalizeJob::clone() const {
    return new MpegNormalizeJob(*this);
}

int MpegNormalizeJob::validate() {
    if (sourceFile[0] == '\0')
        return refuse(error::noSourceFile, LOG_MSG(error::noSourceFile));
    return CaptureJob::validate();
}

int MpegNormalizeJob::setFields(std::vector<InputField>& fields) {
    for (InputField& field : fields) {
        if (field.getFieldName() == InputField::SRC_FILENAME)
            takeText(sourceFile, field);
        else
            setField(field);
    }
    return validate();
}
