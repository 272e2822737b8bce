// The capture at a scheduled time.
#include "foundation/ErrorCodes.h"
#include "foundation/Logger.h"
#include "jobs/CaptureJob.h"
#include "jobs/InputField.h"
#include "jobs/RequestValues.h"

#include <algorithm>
#include <charconv>
#include <ctime>
#include <string_view>

using namespace kestrel;

CaptureScheduledJob::CaptureScheduledJob() : CaptureScheduledJob(0) {}

CaptureScheduledJob::CaptureScheduledJob(unsigned long newId)
    : CaptureJob(newId, CAPTURE_SCHEDULED_JOB, QUEUED) {}

CaptureScheduledJob::CaptureScheduledJob(const CaptureScheduledJob& other) = default;

CaptureScheduledJob& CaptureScheduledJob::operator=(const CaptureScheduledJob& other) = default;

CaptureScheduledJob::~CaptureScheduledJob() = default;

CaptureScheduledJob* CaptureScheduledJob::clone() const {
    return new CaptureScheduledJob(*this);
}

int CaptureScheduledJob::validate() {
    if (startTime == CTimeUtil())
        return refuse(error::noStartTime, LOG_MSG(error::noStartTime));
    if (endTime < startTime)
        return refuse(error::endBeforeStart, LOG_MSG(error::endBeforeStart));
    return CaptureJob::validate();
}

int CaptureScheduledJob::setFields(std::vector<InputField>& fields) {
    for (InputField& field : fields) {
        switch (field.getFieldName()) {
        case InputField::START_TIME:
            takeTime(field, startTime, m_givenStart);
            break;
        case InputField::END_TIME:
            takeTime(field, endTime, m_givenEnd);
            break;
        default:
            setField(field);
            break;
        }
    }
    return validate();
}

void CaptureScheduledJob::takeTime(const InputField& field, CTimeUtil& time,
                                   std::optional<GivenTime>& given) {
    given = GivenTime::read(field.currValue);
    time = given ? given->asStored() : CTimeUtil();
    if (!given)
        warnOfValue(field, "a time month/day/year hour:minute:second");
}

// "%d/%d/%d %d:%d:%d" as scanf reads it: blanks before any number, and anything behind the last.
std::optional<CaptureScheduledJob::GivenTime> CaptureScheduledJob::GivenTime::read(const char* text) {
    std::string_view rest = text ? text : "";
    GivenTime given;
    struct Step {
        int* number;
        char separator; // behind it; 0: none
    };
    const Step steps[] = {{&given.month, '/'}, {&given.day, '/'},    {&given.year, '\0'},
                          {&given.hour, ':'},  {&given.minute, ':'}, {&given.second, '\0'}};
    for (const Step& step : steps) {
        const std::size_t blanks = std::min(rest.find_first_not_of(" \t\r\n\v\f"), rest.size());
        rest.remove_prefix(blanks);
        if (rest.starts_with('+') && !rest.starts_with("+-"))
            rest.remove_prefix(1);
        const auto [end, error] = std::from_chars(rest.data(), rest.data() + rest.size(), *step.number);
        if (error != std::errc())
            return std::nullopt;
        rest.remove_prefix(static_cast<std::size_t>(end - rest.data()));
        if (step.separator == '\0')
            continue;
        if (!rest.starts_with(step.separator))
            return std::nullopt;
        rest.remove_prefix(1);
    }
    return given;
}

// The numbers go into the record as the client wrote them, without the record's offsets (1900 years, one
// month); bookings of all jobs are made this way and compare among themselves.
CTimeUtil CaptureScheduledJob::GivenTime::asStored() const {
    return {year, month, day, hour, minute, second};
}

std::time_t CaptureScheduledJob::GivenTime::onTheCalendar() const {
    tm record{};
    record.tm_year = year >= 1900 ? year - 1900 : year;
    record.tm_mon = month > 0 ? month - 1 : month;
    record.tm_mday = day;
    record.tm_hour = hour;
    record.tm_min = minute;
    record.tm_sec = second;
    record.tm_isdst = -1;
    return std::mktime(&record);
}

std::int64_t CaptureScheduledJob::elapsedSeconds() const {
    std::time_t start = 0;
    std::time_t end = 0;
    // With the record's offsets missing, a month is taken for its neighbour, which has another length and
    // other daylight saving: the client's own numbers are right. A caller that set the times itself gave true
    // records.
    if (m_givenStart && m_givenEnd && startTime == m_givenStart->asStored() &&
        endTime == m_givenEnd->asStored()) {
        start = m_givenStart->onTheCalendar();
        end = m_givenEnd->onTheCalendar();
    } else {
        tm startRecord = startTime.m_tm;
        tm endRecord = endTime.m_tm;
        start = std::mktime(&startRecord);
        end = std::mktime(&endRecord);
    }
    return std::max<std::int64_t>(static_cast<std::int64_t>(std::difftime(end, start)), 0);
}
