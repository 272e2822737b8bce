#include "verifier/VerifierJob.h"

#include "foundation/AppLaunchUtil.h"
#include "foundation/ErrorCodes.h"
#include "foundation/FileUtil.h"
#include "foundation/FixedText.h"
#include "foundation/Logger.h"
#include "foundation/StringUtil.h"
#include "verifier/VerifierXml.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <iterator>
#include <span>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <thread>
#include <utility>

const char* const VerifierJob::PropertyNameStr[PROPERTY_COUNT] = {
    "QUICK",
    "VIDEO_ENCODING",
    "VIDEO_RESOLUTION",
    "VIDEO_ASPECT_RATIO",
    "TRANSPORT_RATE",
    "DROP_FRAME",
    "VIDEO_PID",
    "PCR_PID",
    "PMT_PID",
    "IS_HD",
    "VIDEO_FRAME_RATE",
    "IS_CC",
    "GOP_STRUCTURE",
    "VARIABLE_GOPS",
    "VIDEO_RATE",
    "GOP_LENGTH",
    "QUADBYTEALIGNED",
    "IS_MPEG2",
    "IS_MPEG4",
    "AUDIO_MODES",
    "ALL",
    "RUNTIME",
    "VIDEO_CBR",
    "NEEDS_REENCODING",
    "VALIDATION_ERRORS",
};

const char* const VerifierJob::ValidationErrorEnabledStr[RULE_COUNT] = {
    "File_isMpeg2",
    "PMTPid_480",
    "PCRPid_481",
    "VideoPid_481",
    "GOPLength_FPS24_12",
    "GOPLength_FPSnot24_15",
    "GOPStructure_IBBP",
    "SD_Resolution_352x480_or_528x480",
    "Mpeg2SD_QuadByteAligned",
    "SD_TxRate_3p75Mbs",
    "SD_VidBR_3p18Mbs",
    "HD_TxRate_19Mbs",
    "HD_VidBR_18p1Mbs",
    "Audio_FirstPid_482",
    "Audio_PidsIncBy1",
    "AudioRate_192or384Kbps",
    "AudioRate_DD5p1_384Kbps",
    "AC3_AudioSamplingRate_48kHz",
    "Audio_isAC3",
};

namespace {

constexpr const char* MODULE = "JobMgmt";
// Longer than a tick of the clock that file systems take their times from.
constexpr std::chrono::milliseconds CLOCK_TICK{20};
// What the coarsest file systems keep of it.
constexpr std::chrono::seconds COARSE_TIME{2};

std::span<char> buffer(char* out, int size) {
    return {out, out != nullptr && size > 0 ? static_cast<std::size_t>(size) : 0};
}

bool hasQuote(const char* name) {
    return std::strchr(name, '"') != nullptr;
}

template <std::size_t Count>
int indexOf(const char* const (&names)[Count], const char* name) {
    if (name == nullptr)
        return -1;
    const auto found = std::find_if(std::begin(names), std::end(names),
                                    [&](const char* n) { return std::strcmp(n, name) == 0; });
    return found == std::end(names) ? -1 : static_cast<int>(found - std::begin(names));
}

template <std::size_t Count>
std::string listed(const char* const (&names)[Count]) {
    std::string list;
    for (const char* const name : names)
        list += (list.empty() ? "" : ", ") + std::string(name);
    return list;
}

} // namespace

VerifierJob::VerifierJob() : Job(static_cast<unsigned long>(-1), VERIFIER_JOB, CREATED) {
    std::fill(std::begin(validationErrorEnabled), std::end(validationErrorEnabled), true);
}

VerifierJob::VerifierJob(const char* file, const char* directory, const char* guidText,
                         const char* propertyName, int seconds, bool isBlocking, bool returnXml,
                         const char* disabledRules, int audios, const char* placeholder)
    : Job(static_cast<unsigned long>(-1), VERIFIER_JOB, CREATED), property(getPropertyName(propertyName)),
      duration(seconds), blocking(isBlocking), returnReportXml(returnXml), numAudios(audios) {
    kestrel::copyText(fileName, file);
    kestrel::copyText(reportDir, directory);
    kestrel::copyText(audioPlaceholder, placeholder);
    if (property == -1)
        LogUtil::Warning(MODULE, "\"%s\" is no property; expected is one of %s.",
                         cStringUtil::cValue(propertyName), listed(PropertyNameStr).c_str());
    setGuid(guidText);
    setReportFilename();
    std::fill(std::begin(validationErrorEnabled), std::end(validationErrorEnabled), true);
    if (disabledRules != nullptr && *disabledRules != '\0')
        setValidationErrorFlags(disabledRules);
}

VerifierJob::VerifierJob(const VerifierJob& other) : Job(other) {
    copyFields(other);
}

VerifierJob& VerifierJob::operator=(const VerifierJob& other) {
    if (this == &other)
        return *this;
    Job::operator=(other);
    copyFields(other);
    return *this;
}

VerifierJob::~VerifierJob() = default;

void VerifierJob::copyFields(const VerifierJob& other) {
    kestrel::copyText(fileName, kestrel::fieldText(other.fileName));
    kestrel::copyText(reportDir, kestrel::fieldText(other.reportDir));
    kestrel::copyText(audioPlaceholder, kestrel::fieldText(other.audioPlaceholder));
    property = other.property;
    duration = other.duration;
    blocking = other.blocking;
    returnReportXml = other.returnReportXml;
    numAudios = other.numAudios;
    std::copy(std::begin(other.validationErrorEnabled), std::end(other.validationErrorEnabled),
              std::begin(validationErrorEnabled));
    m_olderReport = other.m_olderReport;
    setReportFilename();
}

VerifierJob* VerifierJob::clone() const {
    return new VerifierJob(*this);
}

int VerifierJob::getPropertyName(const char* name) {
    return indexOf(PropertyNameStr, name);
}

int VerifierJob::getValidationErrorFlag(const char* name) {
    return indexOf(ValidationErrorEnabledStr, name);
}

void VerifierJob::setValidationErrorFlags(const char* list) {
    std::string_view rest(list == nullptr ? "" : list);
    std::string unknown;
    while (!rest.empty()) {
        const std::size_t end = std::min(rest.find(';'), rest.size());
        const std::string name(rest.substr(0, end));
        if (const int rule = getValidationErrorFlag(name.c_str()); rule >= 0)
            validationErrorEnabled[rule] = false;
        else if (!name.empty())
            unknown += (unknown.empty() ? "\"" : ", \"") + name + '"';
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    // In one line, however many a request names.
    if (!unknown.empty())
        LogUtil::Warning(MODULE, "No rule has the name %s, none is switched off for it; the rules are %s.",
                         unknown.c_str(), listed(ValidationErrorEnabledStr).c_str());
}

void VerifierJob::setReportFilename() {
    kestrel::formatText(reportFilename, "%s%s-%s.report.xml", reportDir, guidStr,
                        cStringUtil::getStrippedFilename(fileName));
}

bool VerifierJob::setReportDir(const std::string& directory) {
    const bool whole = kestrel::copyText(reportDir, directory);
    setReportFilename();
    return whole;
}

bool VerifierJob::hasFailed() const {
    return state() == ERROR || workerFailed();
}

int VerifierJob::validate() {
    long code = 0;
    char text[sizeof results] = "";
    if (fileName[0] == '\0')
        kestrel::copyText(text, LOG_MSG(code = kestrel::error::noSourceFile));
    else if (!cFileUtil::FileExists(fileName))
        kestrel::formatText(text, LOG_MSG(code = kestrel::error::fileNotFound), fileName);
    else if (reportDir[0] == '\0')
        kestrel::copyText(text, LOG_MSG(code = kestrel::error::noOutputFile));
    else if (property == -1)
        kestrel::copyText(text, LOG_MSG(code = kestrel::error::invalidMpegProperty));
    if (code != 0) {
        setResults(text);
        LogUtil::Error(MODULE, "%s", text);
    }
    return static_cast<int>(code);
}

const char* VerifierJob::getCmdLine(const char* exe) {
    // The profile may give options behind the program.
    std::string line = cStringUtil::cValue(exe);
    line += " -r xml -report_dst " + kestrel::commandLineWord(reportDir);
    line += " -report_name " + kestrel::commandLineWord(cStringUtil::getStrippedFilename(reportFilename));
    if (property < SHORT_PROPERTIES)
        line += " -duration " + std::to_string(duration);
    line += std::string(" -out_queue_name ") + jobUpdateQueueName + " -in_queue_name " + mgrQueueName;
    line += " -f " + kestrel::commandLineWord(fileName);
    if (const std::size_t length = std::strlen(cStringUtil::getStrippedFilename(reportFilename));
        length > NAME_MAX)
        LogUtil::Warning(
            MODULE,
            "Job %d %s: the name of the report has %zu bytes, a file's has at most %d: the verifier "
            "will not be able to write %s",
            static_cast<int>(id), guidStr, length, NAME_MAX, reportFilename);
    const std::string quoted = quoteHolders();
    MutexLock lock(m_statusMutex);
    const bool whole = kestrel::copyText(cmdLine, line);
    m_commandLineErrno = !quoted.empty() ? EINVAL : whole ? 0 : ENAMETOOLONG;
    if (!quoted.empty())
        LogUtil::Error(MODULE, "Job %d %s: a double quote (\") in %s cannot be passed to the verifier: %s",
                       static_cast<int>(id), guidStr, quoted.c_str(), cmdLine);
    else if (!whole)
        LogUtil::Error(MODULE, "Job %d %s: the command line is too long and is cut: %s", static_cast<int>(id),
                       guidStr, cmdLine);
    return cmdLine;
}

// Whose characters the command line would have to carry: the report's name has the GUID in it.
std::string VerifierJob::quoteHolders() const {
    const std::pair<const char*, const char*> parts[] = {
        {fileName, "the name of the file"}, {guidStr, "the GUID"}, {reportDir, "the report's directory"}};
    std::string holders;
    for (const auto& [text, name] : parts)
        if (hasQuote(text))
            holders += (holders.empty() ? "" : " and ") + std::string(name);
    return holders;
}

int VerifierJob::commandLineErrno() const {
    MutexLock lock(m_statusMutex);
    return m_commandLineErrno;
}

bool VerifierJob::mayWriteReport() const {
    return state() == QUEUED || workerPid() > 0;
}

int VerifierJob::getJobResults(char* out, int capacity) {
    const std::span<char> text = buffer(out, capacity);
    kestrel::copyText(text, "");
    if (returnReportXml) {
        kestrel::copyText(text, reportFilename);
        return 0;
    }
    // Asked before the report is opened: what replaces it meanwhile is this job's.
    const bool older = reportIsOlder();
    VerifierXml report(older ? "" : reportFilename);
    const int code = answer(report, out, capacity);
    if (code == 0)
        return 0;
    const std::string failure = failureText();
    LogUtil::Error(MODULE, "%s", failure.c_str());
    // The text does not say which report, and a directory without its closing slash makes another of it.
    const char* const problem = older                      ? "what is there is of an earlier job"
                                : report.problem().empty() ? "it lacks the property"
                                                           : report.problem().c_str();
    LogUtil::Warning(MODULE, "Job %d %s: the report sought is %s: %s", static_cast<int>(id), guidStr,
                     reportFilename, problem);
    kestrel::copyText(text, failure);
    return code;
}

std::string VerifierJob::failureText() {
    std::string text = LOG_MSG(kestrel::error::mpegPropertyFailed);
    // What a worker said of its failure is the reason why there is no report.
    if (const std::string reason = resultsText(); hasFailed() && !reason.empty())
        text += " " + reason;
    return text;
}

std::optional<VerifierJob::ReportMark> VerifierJob::reportMark() const {
    struct stat file {};
    if (stat(reportFilename, &file) != 0)
        return std::nullopt;
    return ReportMark{file.st_dev, file.st_ino, file.st_size,
                      std::chrono::seconds(file.st_mtim.tv_sec) +
                          std::chrono::nanoseconds(file.st_mtim.tv_nsec)};
}

void VerifierJob::disownReport() {
    m_olderReport = reportMark();
    if (!m_olderReport)
        return;
    // A verifier that writes over the file itself, rather than beside it, is told by the time alone: the new
    // one must not be able to have the old one's. A time of whole seconds is taken for all that the file
    // system keeps.
    const bool whole = m_olderReport->modified % std::chrono::seconds(1) == std::chrono::seconds(0);
    const auto tick = whole ? CLOCK_TICK + COARSE_TIME : CLOCK_TICK;
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const auto age = now - m_olderReport->modified;
    if (age < std::chrono::nanoseconds(0) || age >= tick)
        return;
    std::this_thread::sleep_for(tick - age);
    m_olderReport = reportMark();
}

bool VerifierJob::reportIsOlder() const {
    return m_olderReport && reportMark() == m_olderReport;
}

int VerifierJob::answer(VerifierXml& report, char* out, int capacity) {
    switch (property) {
    case 0:
        return quickProperties(report, out, capacity);
    case 19:
        return audioModes(report, out, capacity);
    case 20:
        return allProperties(report, out, capacity);
    case 24:
        return validationErrors(report, out, capacity);
    default:
        return singleAnswer(report, out, capacity);
    }
}
