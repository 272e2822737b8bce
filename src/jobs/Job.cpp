#include "jobs/Job.h"

#include "foundation/FixedText.h"

#include <algorithm>
#include <cstring>
#include <iterator>

const char* const Job::JobTypeStr[11] = {
    "CAPTURE_VTR_JOB",
    "CAPTURE_MANUAL_JOB",
    "CAPTURE_TIMED_JOB",
    "CAPTURE_SCHEDULED_JOB",
    "CAPTURE_ROLLING_JOB",
    "CAPTURE_MEZZANINE_JOB",
    "CAPTURE_REENCODE_JOB",
    "CAPTURE_MPEG_NORMALIZE_JOB",
    "COMBINER_JOB",
    "VERIFIER_JOB",
    "NONE",
};
static_assert(std::size(Job::JobTypeStr) == Job::NONE + 1);

const char* const Job::JobStateStr[6] = {"CREATED",  "QUEUED",    "IN_PROGRESS",
                                         "COMPLETE", "CANCELLED", "ERROR"};
static_assert(std::size(Job::JobStateStr) == Job::ERROR + 1);

const CTimeUtil Job::UNSPECIFIED_DURATION;

namespace {

constexpr std::size_t GUID_BYTES = 16;
constexpr std::size_t GUID_TEXT = 32; // characters that guidStr keeps

int hexValue(char c) noexcept {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    return -1;
}

} // namespace

Job::Job(const char* guidText) {
    if (guidText != nullptr)
        storeGuid(guidText);
}

Job::Job(unsigned long newId, JobType type, JobState state) : jobType(type), jobState(state), id(newId) {
    setQueueNames();
}

Job::Job(const Job& other) : jobType(other.jobType), equipment(other.equipment) {
    {
        MutexLock lock(other.m_statusMutex);
        id = other.id;
        jobState = other.jobState;
        kestrel::copyText(results, kestrel::fieldText(other.results));
        kestrel::copyText(cmdLine, kestrel::fieldText(other.cmdLine));
        kestrel::copyText(logDir, kestrel::fieldText(other.logDir));
        kestrel::copyText(guidStr, kestrel::fieldText(other.guidStr));
    }
    setQueueNames();
    getGuid(guidStr, guid);
}

Job& Job::operator=(const Job& other) {
    if (this == &other)
        return *this;
    // A copy first: the two locks are never held together.
    const Job source(other);
    jobType = source.jobType;
    setState(source.jobState);
    setId(source.id);
    equipment.insert(equipment.end(), source.equipment.begin(), source.equipment.end());
    setResults(source.results);
    {
        MutexLock lock(m_statusMutex);
        kestrel::copyText(cmdLine, source.cmdLine);
        kestrel::copyText(logDir, source.logDir);
    }
    setGuid(source.guidStr);
    return *this;
}

Job::~Job() = default;

Job* Job::clone() const {
    return new Job(*this);
}

int Job::validate() {
    return 0;
}

int Job::setFields(std::vector<InputField>& /*fields*/) {
    return validate();
}

void Job::setId(unsigned long newId) {
    if (m_listener != nullptr)
        m_listener->changeId(*this, newId);
    else
        storeId(newId);
}

void Job::storeId(unsigned long newId) {
    MutexLock lock(m_statusMutex);
    id = newId;
    setQueueNames();
}

const char* Job::getCmdLine(const char* /*program*/) {
    return cmdLine;
}

int Job::getJobResults(char* buf, int len) {
    if (buf == nullptr || len <= 0)
        return 0;
    // No terminator is added when the text fills the buffer: the callers' buffers are longer than results.
    const std::string text = resultsText();
    std::strncpy(buf, text.c_str(), static_cast<std::size_t>(len));
    return 0;
}

void Job::setQueueNames() {
    kestrel::formatText(mgrQueueName, "/mgr_msg_q_%ld", static_cast<long>(id));
    kestrel::formatText(jobUpdateQueueName, "/job_update_q_%ld", static_cast<long>(id));
}

void Job::getGuid(const char* text, unsigned char* out16) {
    std::fill_n(out16, GUID_BYTES, static_cast<unsigned char>(0));
    if (text == nullptr)
        return;
    const std::string_view digits(text);
    std::size_t position = 0;
    for (std::size_t count = 0; count < GUID_BYTES; ++count) {
        while (position < digits.size() && hexValue(digits[position]) < 0)
            ++position;
        if (position >= digits.size())
            return;
        int value = hexValue(digits[position++]);
        if (position < digits.size() && hexValue(digits[position]) >= 0)
            value = value * 16 + hexValue(digits[position++]);
        out16[count] = static_cast<unsigned char>(value);
    }
}

void Job::setGuid(const char* text) {
    if (m_listener != nullptr)
        m_listener->changeGuid(*this, text);
    else
        storeGuid(text);
}

void Job::storeGuid(const char* text) {
    // A copy first: the text may be the job's own.
    const std::string whole(text == nullptr ? "" : text);
    MutexLock lock(m_statusMutex);
    getGuid(whole.c_str(), guid);
    kestrel::copyText(guidStr, std::string_view(whole).substr(0, GUID_TEXT));
}

bool Job::equals(const unsigned char* guid16) const {
    return std::memcmp(guid, guid16, GUID_BYTES) == 0;
}

Job::JobType Job::getJobType(const char* name) {
    for (int type = 0; name != nullptr && type <= NONE; ++type)
        if (std::strcmp(name, JobTypeStr[type]) == 0)
            return static_cast<JobType>(type);
    return NONE;
}

Job::JobState Job::state() const {
    MutexLock lock(m_statusMutex);
    return jobState;
}

void Job::setState(JobState newState) {
    MutexLock lock(m_statusMutex);
    jobState = newState;
}

Job::JobState Job::finish(JobState newState) {
    MutexLock lock(m_statusMutex);
    m_workerFailed = newState == ERROR;
    if (jobState != CANCELLED)
        jobState = newState;
    return jobState;
}

bool Job::workerFailed() const {
    MutexLock lock(m_statusMutex);
    return m_workerFailed;
}

bool Job::changeState(JobState expected, JobState newState) {
    MutexLock lock(m_statusMutex);
    if (jobState != expected)
        return false;
    jobState = newState;
    return true;
}

std::string Job::resultsText() const {
    MutexLock lock(m_statusMutex);
    return std::string(kestrel::fieldText(results));
}

void Job::setResults(std::string_view text) {
    MutexLock lock(m_statusMutex);
    kestrel::copyText(results, text);
}

void Job::setLogDir(std::string_view directory) {
    MutexLock lock(m_statusMutex);
    kestrel::copyText(logDir, directory);
}

void Job::appendResults(std::string_view text) {
    MutexLock lock(m_statusMutex);
    kestrel::appendText(results, text);
}
