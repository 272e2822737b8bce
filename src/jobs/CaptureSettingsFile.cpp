// The settings file: how a capture job describes itself to the capture worker.
#include "capture_profile/CSettings.h"
#include "foundation/FixedText.h"
#include "foundation/Logger.h"
#include "jobs/CaptureJob.h"
#include "jobs/InputField.h"
#include "jobs/RequestValues.h"
#include "resources/ResourceMgr.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>

using namespace kestrel;

namespace {

std::uint32_t ipv4(unsigned long address) {
    return static_cast<std::uint32_t>(address);
}

// Room in a longer field is left to what the profile makes of it: texts of records come from profiles of the
// same lengths.
void describeEncoder(CSettings::EncoderReception& reception, const Encoder& encoder) {
    reception.snmpIpAddress = ipv4(encoder.address);
    reception.snmpPort = static_cast<int>(encoder.snmpPort);
    reception.frameOffsetNoVitc = encoder.frameOffsetNoVitc;
    copyText(reception.filePrefix, encoder.filePrefix);
    copyText(reception.mainCaptureDirectory, encoder.mainCaptureDirectory);
    copyText(reception.scheduleCaptureDirectory, encoder.scheduleCaptureDirectory);
    copyText(reception.rollingCaptureDirectory, encoder.rollingCaptureDirectory);
    copyText(reception.mezzanineCaptureDirectory, encoder.mezzanineCaptureDirectory);
    reception.lockMainCaptureDirectory = encoder.lockMainCaptureDirectory;
    reception.lockScheduleCaptureDirectory = encoder.lockScheduleCaptureDirectory;
    reception.lockRollingCaptureDirectory = encoder.lockRollingCaptureDirectory;
    reception.lockMezzanineCaptureDirectory = encoder.lockMezzanineCaptureDirectory;
    copyText(reception.profile, encoder.profile);
}

// An option stays with its device. A request that does not name it gets what an earlier one left there, which
// may have been no more than a check.
void tellOfEarlier(const Job& job, InputField::Number option, const std::string& value,
                   const std::string& device) {
    LogUtil::Info("JobMgmt", "Job %d: %s %s of an earlier request for %s is used.", static_cast<int>(job.id),
                  InputField::FieldName[option], value.c_str(), device.c_str());
}

// The worker has the service's working directory, which a client need not know. directory: what the name is
// taken against before that, "" for nothing else.
void tellOfRelative(const Job& job, InputField::Number field, const std::filesystem::path& name,
                    const std::filesystem::path& directory) {
    if (name.empty() || name.is_absolute())
        return;
    std::error_code failed;
    std::filesystem::path base = std::filesystem::current_path(failed);
    if (!directory.empty())
        base /= directory;
    if (!failed)
        LogUtil::Info("JobMgmt", "Job %d: %s \"%s\" is relative and is taken against %s: %s",
                      static_cast<int>(job.id), InputField::FieldName[field], name.c_str(), base.c_str(),
                      (base / name).c_str());
}

} // namespace

int CaptureJob::CreateIniFile() {
    std::string path;
    {
        MutexLock lock(m_statusMutex);
        formatText(iniFilename, "/tmp/capture_%d.xml", static_cast<int>(id));
        path = iniFilename;
    }
    CSettings settings;
    settings.Init();
    // A cut name would be another file, so there is no settings file then.
    int error = copyText(settings.cmd.outputFile, outputFile) ? 0 : ENAMETOOLONG;
    if (error == 0) {
        ResourceMgr::GetResourceMgrInst()->withRecords([&] {
            describeEncoders(settings);
            describe(settings);
        });
        tellOfRelative(*this, InputField::FILENAME, settings.cmd.outputFile,
                       settings.encoders[0].mainCaptureDirectory);
        tellOfRelative(*this, InputField::SRC_FILENAME, settings.cmd.sourceFile, {});
        settings.cmd.serviceMgrInvoked = true;
        setRemoteEncodeSettings(settings);
        if (!settings.SaveProfile(path.c_str()))
            error = errno ? errno : EIO;
    }
    if (error != 0)
        LogUtil::Error("JobMgmt", "Could not write the settings file %s: %s (errno %d).", path.c_str(),
                       std::strerror(error), error);
    return error;
}

void CaptureJob::setRemoteEncodeSettings(CSettings& /*settings*/) {}

void CaptureJob::describeEncoders(CSettings& settings) const {
    const std::size_t count = std::min(encoders.size(), settings.encoders.size());
    settings.numEncoders = static_cast<int>(count);
    for (std::size_t i = 0; i < count; ++i) {
        const Encoder& encoder = *encoders[i];
        const EncoderOptions options = i < m_encoderOptions.size() ? m_encoderOptions[i] : EncoderOptions();
        describeEncoder(settings.encoders[i], encoder);
        if (options.profile && !copyText(settings.encoders[i].profile, *options.profile))
            LogUtil::Warning("JobMgmt", "Job %d: the profile of encoder %zu is too long and was cut: %s",
                             static_cast<int>(id), i + 1, settings.encoders[i].profile);
        if (!options.profile && encoder.profile != nullptr && *encoder.profile != '\0')
            tellOfEarlier(*this, InputField::ENCODER_PROFILE, encoder.profile,
                          "encoder " + addressText(encoder.address));
        if (!options.vitcInput && !encoder.vitcInput)
            tellOfEarlier(*this, InputField::ENCODER_VITC_INPUT, boolText(encoder.vitcInput),
                          "encoder " + addressText(encoder.address));
        // There is one such setting for all encoders: the last one's.
        settings.vtr.vitcSupport = options.vitcInput.value_or(encoder.vitcInput);
    }
}

void CaptureJob::describe(CSettings& /*settings*/) const {}

void CaptureManualJob::describe(CSettings& settings) const {
    settings.cmd.jobType = CSettings::JOB_MANUAL;
}

void CaptureTimedJob::describe(CSettings& settings) const {
    settings.cmd.jobType = CSettings::JOB_TIMED;
    copyText(settings.cmd.duration, duration);
}

// The worker knows no schedule: it is started, and records for as long as the booking lasts.
void CaptureScheduledJob::describe(CSettings& settings) const {
    settings.cmd.jobType = CSettings::JOB_TIMED;
    const std::int64_t elapsed = elapsedSeconds();
    // A booking of a hundred hours and more has more than two digits of hours: cut, it would end too early.
    formatText(settings.cmd.duration, "%02lld:%02d:%02d:00", static_cast<long long>(elapsed / 3600),
               static_cast<int>(elapsed / 60 % 60), static_cast<int>(elapsed % 60));
}

void CaptureRollingJob::describe(CSettings& settings) const {
    settings.cmd.jobType = CSettings::JOB_ROLLING;
    settings.cmd.rollingDurationMin = rollingDurationMin;
    settings.cmd.rollingStartNow = rollingStartNow;
}

void CaptureVTRJob::describe(CSettings& settings) const {
    settings.cmd.jobType = CSettings::JOB_VTR;
    copyText(settings.cmd.markInTime, markIn);
    copyText(settings.cmd.markOutTime, markOut);
    if (vtr == nullptr)
        return;
    copyText(settings.vtr.port, vtr->comPort);
    if (!m_internalCue && vtr->useInternalCue)
        tellOfEarlier(*this, InputField::VTR_USE_INTERNAL_CUE, boolText(true),
                      std::string("deck ") + (vtr->comPort ? vtr->comPort : ""));
    settings.vtr.useInternalCue = m_internalCue.value_or(vtr->useInternalCue);
}

void CaptureReencodeJob::describe(CSettings& settings) const {
    settings.cmd.jobType =
        jobType == CAPTURE_MEZZANINE_JOB ? CSettings::JOB_MEZZANINE : CSettings::JOB_TIMED_REENCODE;
    if (jobType == CAPTURE_MEZZANINE_JOB) {
        copyText(settings.cmd.markInTime, markIn);
        copyText(settings.cmd.markOutTime, markOut);
    }
    copyText(settings.cmd.sourceFile, sourceFile);
    copyText(settings.cmd.blackFileSuffix, blackFileSuffix);
    describeDecoder(settings);
}

void CaptureReencodeJob::describeDecoder(CSettings& settings) const {
    if (decoder == nullptr)
        return;
    if (!m_interfaceAddress && decoder->interfaceAddress != 0)
        tellOfEarlier(*this, InputField::DECODER_INTF_IP, addressText(decoder->interfaceAddress),
                      "decoder " + addressText(decoder->address));
    settings.decoder.controlAddress = ipv4(decoder->address);
    settings.decoder.interfaceAddress = ipv4(m_interfaceAddress.value_or(decoder->interfaceAddress));
    settings.decoder.ipAddress = ipv4(decoder->streamAddress);
    settings.decoderStreamNumber = static_cast<int>(decoder->streamNumber);
}

void MpegNormalizeJob::describe(CSettings& settings) const {
    settings.cmd.jobType = CSettings::JOB_MPEG_NORMALIZE;
    copyText(settings.cmd.sourceFile, sourceFile);
}
