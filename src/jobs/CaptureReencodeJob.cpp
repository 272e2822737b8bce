// The captures that play a source file out through a decoder: re-encode and mezzanine.
#include "foundation/ErrorCodes.h"
#include "foundation/FixedText.h"
#include "foundation/Logger.h"
#include "foundation/UniqueFd.h"
#include "jobs/CaptureJob.h"
#include "jobs/InputField.h"
#include "jobs/RequestValues.h"
#include "mpeg/MpegWrapper.h"
#include "mpeg/grab_h264_header.h"
#include "resources/ResourceMgr.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>

using namespace kestrel;

namespace {

// Why a file is not to be asked for its frame rate; empty when it is. What is no regular file is not even
// opened: a pipe would hold the request, and lose what is read of it; a serial port may be a deck's.
std::string unreadable(const char* file) {
    struct stat status {};
    if (stat(file, &status) == 0 && !S_ISREG(status.st_mode))
        return "is not a regular file.";
    if (const UniqueFd opened(open(file, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK)); !opened.valid())
        return "cannot be opened: errno " + std::to_string(errno) + " (" + std::strerror(errno) + ").";
    return "";
}

// Whether a source's 29.97 frames a second are only what H.264 without timing in its headers (E.1.1,
// timing_info_present_flag) counts as.
bool isUntimed(char* file) {
    H264::SequenceParameterSet set;
    grab_h264_header::getSequenceParams(file, set, 0);
    return set.num_units_in_tick == set.UNTIMED_UNITS_IN_TICK && set.time_scale == set.UNTIMED_TIME_SCALE;
}

} // namespace

CaptureReencodeJob::CaptureReencodeJob() : CaptureReencodeJob(0) {}

CaptureReencodeJob::CaptureReencodeJob(unsigned long newId, JobType type) : CaptureJob(newId, type, QUEUED) {
    formatText(blackFileSuffix, "_%ld", static_cast<long>(newId));
}

CaptureReencodeJob::CaptureReencodeJob(const CaptureReencodeJob& other) : CaptureJob(other) {
    copyReencodeFields(other);
}

CaptureReencodeJob& CaptureReencodeJob::operator=(const CaptureReencodeJob& other) {
    if (this != &other) {
        CaptureJob::operator=(other);
        copyReencodeFields(other);
    }
    return *this;
}

CaptureReencodeJob::~CaptureReencodeJob() = default;

CaptureReencodeJob* CaptureReencodeJob::clone() const {
    return new CaptureReencodeJob(*this);
}

void CaptureReencodeJob::copyReencodeFields(const CaptureReencodeJob& other) {
    std::memcpy(sourceFile, other.sourceFile, sizeof sourceFile);
    std::memcpy(markIn, other.markIn, sizeof markIn);
    std::memcpy(markOut, other.markOut, sizeof markOut);
    std::memcpy(blackFileSuffix, other.blackFileSuffix, sizeof blackFileSuffix);
    m_interfaceAddress = other.m_interfaceAddress;
    // Each job has a placeholder of its own.
    m_placeholder.reset();
    decoder = other.decoder;
    if (other.m_placeholder) {
        m_placeholder = std::make_unique<Decoder>(0);
        m_placeholder->interfaceAddress = other.m_placeholder->interfaceAddress;
        if (other.m_placeholder->profile)
            m_placeholder->setProfile(other.m_placeholder->profile);
        decoder = m_placeholder.get();
    }
}

void CaptureReencodeJob::setId(unsigned long newId) {
    formatText(blackFileSuffix, "_%ld", static_cast<long>(newId));
    Job::setId(newId);
}

int CaptureReencodeJob::validate() {
    if (sourceFile[0] == '\0')
        return refuse(error::noSourceFile, LOG_MSG(error::noSourceFile));
    // A placeholder stands for a decoder that the request has not named.
    if (decoder == nullptr || decoder == m_placeholder.get())
        return refuse(error::noDecoder, LOG_MSG(error::noDecoder));
    if (jobType == CAPTURE_MEZZANINE_JOB) {
        if (const int code = validateMezzanine())
            return code;
    }
    return CaptureJob::validate();
}

int CaptureReencodeJob::validateMezzanine() {
    if (markIn[0] == '\0' || markOut[0] == '\0')
        return refuse(error::marksRequired, LOG_MSG(error::marksRequired));
    std::string reason = unreadable(sourceFile);
    const double framesPerSecond = reason.empty() ? MpegWrapper::GetFrameRateFromFile(sourceFile) : 0.0;
    const int code = validateMarks(framesPerSecond);
    // Without a rate no marks are good, and the refusal is about them: the log tells, last, that it is the
    // file; also where they are judged at a rate that the file does not name.
    const auto tell = [this](const std::string& what, const char* consequence) {
        LogUtil::Warning("JobMgmt", "SrcFilename: \"%s\" %s %s", sourceFile, what.c_str(), consequence);
    };
    // What is known of an H.264 file whose parameter set is not read as far as its timing.
    constexpr double UNREAD_TIMING = 0.5;
    constexpr int CODE_OF_29_97 = 4;
    constexpr const char* AT_THE_LOWEST = "The marks are judged as at 23.976 frames a second.";
    if (framesPerSecond < 0)
        tell("names a frame rate that does not exist.", AT_THE_LOWEST);
    else if (framesPerSecond == UNREAD_TIMING)
        tell("has H.264 video whose frame rate is not read.", AT_THE_LOWEST);
    else if (framesPerSecond == 0)
        tell(reason.empty() ? "has no video whose frame rate can be read." : reason,
             "The source is the reason of the refusal, not the marks.");
    else if (MpegWrapper::GetFrameRateCode(framesPerSecond) == CODE_OF_29_97 && isUntimed(sourceFile))
        tell("has H.264 video that does not tell its frame rate.",
             "The marks are judged as at 29.97 frames a second.");
    return code;
}

int CaptureReencodeJob::validateMarks(double framesPerSecond) {
    const int code = MpegWrapper::GetFrameRateCode(framesPerSecond);
    const bool dropFrame = mpeg_timecode::frameRateCodeToDropFrame(code);
    const mpeg_timecode in(markIn, dropFrame, code);
    const mpeg_timecode out(markOut, dropFrame, code);
    if (out <= in)
        return refuse(error::markOutNotAfterMarkIn, LOG_MSG(error::markOutNotAfterMarkIn));

    struct Mark {
        const mpeg_timecode& time;
        const char* text;
    };
    for (const Mark& mark : {Mark{in, markIn}, Mark{out, markOut}}) {
        const mpeg_timecode& t = mark.time;
        if (!mpeg_timecode::IsTimecodeValid(t.hours, t.minutes, t.seconds, t.frames, code)) {
            char text[sizeof results];
            formatText(text, LOG_MSG(error::invalidTimecode), mark.text, framesPerSecond);
            return refuse(error::invalidTimecode, text);
        }
    }
    return 0;
}

int CaptureReencodeJob::setFields(std::vector<InputField>& fields) {
    for (InputField& field : fields) {
        switch (field.getFieldName()) {
        case InputField::SRC_FILENAME:
            takeText(sourceFile, field);
            break;
        case InputField::MARK_IN_TIME:
            takeText(markIn, field);
            warnUnlessTimecode(field);
            break;
        case InputField::MARK_OUT_TIME:
            takeText(markOut, field);
            warnUnlessTimecode(field);
            break;
        case InputField::DECODER_IP:
            takeDecoderAddress(field);
            break;
        case InputField::DECODER_PROFILE:
            takeDecoderProfile(field);
            break;
        case InputField::DECODER_INTF_IP:
            takeDecoderInterface(field);
            setField(field);
            break;
        default:
            setField(field);
            break;
        }
    }
    return validate();
}

void CaptureReencodeJob::SetDecoder(Decoder* found) {
    if (found == nullptr)
        return;
    m_placeholder.reset();
    decoder = found;
    equipment.push_back(found);
}

Decoder& CaptureReencodeJob::decoderOrPlaceholder() {
    if (decoder == nullptr) {
        m_placeholder = std::make_unique<Decoder>(0);
        decoder = m_placeholder.get();
    }
    return *decoder;
}

void CaptureReencodeJob::takeDecoderAddress(const InputField& field) {
    const auto address = deviceAddress(field);
    if (!address) {
        warnOfValue(field, DEVICE_ADDRESS);
        return;
    }
    Decoder* found = ResourceMgr::GetResourceMgrInst()->GetDecoder(*address);
    if (found == nullptr)
        return;
    if (m_placeholder) {
        // The interface address is taken over even where the request named a profile only: it is then zero,
        // and the decoder sends where its own settings say.
        ResourceMgr::GetResourceMgrInst()->withRecords([&] {
            if (m_placeholder->profile)
                found->setProfile(m_placeholder->profile);
            found->interfaceAddress = m_placeholder->interfaceAddress;
        });
    } else if (found != decoder) {
        m_interfaceAddress.reset();
    }
    SetDecoder(found);
}

void CaptureReencodeJob::takeDecoderProfile(const InputField& field) {
    if (field.currValue == nullptr)
        return;
    Decoder& record = decoderOrPlaceholder();
    ResourceMgr::GetResourceMgrInst()->withRecords([&] { record.setProfile(field.currValue); });
}

void CaptureReencodeJob::takeDecoderInterface(const InputField& field) {
    Decoder& record = decoderOrPlaceholder();
    const auto address = addressValue(field);
    if (!address) {
        warnOfValue(field, ADDRESS);
        return;
    }
    ResourceMgr::GetResourceMgrInst()->withRecords([&] { record.interfaceAddress = *address; });
    m_interfaceAddress = address;
}
