// The capture at a scheduled time.
#include "foundation/ErrorCodes.h"
#include "foundation/FixedText.h"
#include "foundation/Logger.h"
#include "jobs/CaptureJob.h"
#include "jobs/InputField.h"
#include "jobs/RequestValues.h"

#include <algorithm>
#include <charconv>
#include <ctime>
#include <string_view>

using namespace kestrel;

namespace {

constexpr std::string_view BLANKS = " \t\r\n\v\f";

} // namespace

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
    bool endGiven = false;
    for (InputField& field : fields) {
        switch (field.getFieldName()) {
        case InputField::START_TIME:
            takeTime(field, startTime, m_givenStart);
            break;
        case InputField::END_TIME:
            takeTime(field, endTime, m_givenEnd);
            endGiven = true;
            break;
        default:
            setField(field);
            break;
        }
    }
    const int code = validate();
    explainTimes(code, endGiven);
    return code;
}

// The refusal of an end before its start has one text for all its causes, and a capture without length none.
void CaptureScheduledJob::explainTimes(int code, bool endGiven) const {
    if (code == error::endBeforeStart && !endGiven && endTime == CTimeUtil()) {
        LogUtil::Warning("JobMgmt",
                         "EndTime: none is given, expected is %s. Without it the end is before any start.",
                         DATE_AND_TIME);
        return;
    }
    if (!m_givenStart || !m_givenEnd)
        return;
    const std::string start = m_givenStart->calendarText();
    const std::string end = m_givenEnd->calendarText();
    const bool later = m_givenEnd->onTheCalendar() >= m_givenStart->onTheCalendar();
    if (code == error::endBeforeStart && later)
        LogUtil::Warning("JobMgmt",
                         "EndTime: %s is not before the StartTime %s, but times are compared as those of the "
                         "following month, %s. A capture of the same length on another day is taken.",
                         end.c_str(), start.c_str(),
                         m_givenStart->hasFollowing() && m_givenEnd->hasFollowing()
                             ? "in which the clock is changed then"
                             : "which has not as many days");
    else if (code == 0 && elapsedSeconds() == 0)
        LogUtil::Warning("JobMgmt", "EndTime: %s is not after the StartTime %s: the capture has no length.",
                         end.c_str(), start.c_str());
}

void CaptureScheduledJob::takeTime(const InputField& field, CTimeUtil& time,
                                   std::optional<GivenTime>& given) {
    given = GivenTime::read(field.currValue);
    time = given ? given->asStored() : CTimeUtil();
    if (!given)
        warnOfValue(field, DATE_AND_TIME);
    else if (given->followed)
        warnOfTaken(field, DATE_AND_TIME, given->calendarText());
    else if (!given->possible())
        warnOfTaken(field, CALENDAR_TIME, given->calendarText());
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
        const std::size_t blanks = std::min(rest.find_first_not_of(BLANKS), rest.size());
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
    given.followed = rest.find_first_not_of(BLANKS) != std::string_view::npos;
    return given;
}

// The numbers go into the record as the client wrote them, without the record's offsets (1900 years, one
// month); bookings of all jobs are made this way and compare among themselves.
CTimeUtil CaptureScheduledJob::GivenTime::asStored() const {
    return {year, month, day, hour, minute, second};
}

tm CaptureScheduledJob::GivenTime::record() const {
    tm record{};
    record.tm_year = year >= 1900 ? year - 1900 : year;
    record.tm_mon = month > 0 ? month - 1 : month;
    record.tm_mday = day;
    record.tm_hour = hour;
    record.tm_min = minute;
    record.tm_sec = second;
    record.tm_isdst = -1;
    return record;
}

std::time_t CaptureScheduledJob::GivenTime::onTheCalendar() const {
    tm normal = record();
    return std::mktime(&normal);
}

bool CaptureScheduledJob::GivenTime::possible() const {
    tm normal = record();
    constexpr int unset = -1;
    normal.tm_wday = unset;
    std::mktime(&normal);
    // Beyond the years that can be counted the record is left as it was.
    return normal.tm_wday != unset && normal.tm_year + std::int64_t{1900} == year &&
           normal.tm_mon + 1 == month && normal.tm_mday == day && normal.tm_hour == hour &&
           normal.tm_min == minute && normal.tm_sec == second;
}

bool CaptureScheduledJob::GivenTime::hasFollowing() const {
    tm next = record();
    next.tm_mon += 1;
    next.tm_hour = 12; // which no clock change skips
    const int wanted = next.tm_mday;
    std::mktime(&next);
    return next.tm_mday == wanted;
}

std::string CaptureScheduledJob::GivenTime::calendarText() const {
    tm normal = record();
    std::mktime(&normal);
    char text[80];
    formatText(text, "%02d/%02d/%04lld %02d:%02d:%02d", normal.tm_mon + 1, normal.tm_mday,
               static_cast<long long>(normal.tm_year) + 1900, normal.tm_hour, normal.tm_min, normal.tm_sec);
    return text;
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
