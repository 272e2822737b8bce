#include "foundation/TimeUtil.h"

#include "foundation/ErrorCodes.h"
#include "foundation/Logger.h"

#include <cstdio>
#include <tuple>
#include <type_traits>

static_assert(std::is_trivially_copyable_v<CTimeUtil>);

namespace {

// Every sum is kept in 32 bits; computed in 64, it wraps instead of overflowing.
int wrapped(std::int64_t value) noexcept {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(static_cast<std::uint64_t>(value)));
}

int sum(std::int64_t a, std::int64_t b) noexcept {
    return wrapped(a + b);
}

int difference(std::int64_t a, std::int64_t b) noexcept {
    return wrapped(a - b);
}

// The daylight flag is left to the system to find out.
void normalise(tm& record) noexcept {
    record.tm_isdst = -1;
    std::mktime(&record);
}

auto fields(const CTimeSpanUtil& span) noexcept {
    return std::tie(span.years, span.months, span.days, span.hours, span.minutes, span.seconds);
}

auto order(const tm& record) noexcept {
    return std::tie(record.tm_year, record.tm_yday, record.tm_hour, record.tm_min, record.tm_sec);
}

} // namespace

CTimeSpanUtil::CTimeSpanUtil(int yearCount, int monthCount, int dayCount, int hourCount, int minuteCount,
                             int secondCount) noexcept
    : years(yearCount), months(monthCount), days(dayCount), hours(hourCount), minutes(minuteCount),
      seconds(secondCount) {}

CTimeSpanUtil CTimeSpanUtil::operator+(const CTimeSpanUtil& other) const noexcept {
    return {sum(years, other.years), sum(months, other.months),   sum(days, other.days),
            sum(hours, other.hours), sum(minutes, other.minutes), sum(seconds, other.seconds)};
}

bool CTimeSpanUtil::operator<(const CTimeSpanUtil& other) const noexcept {
    return fields(*this) < fields(other);
}

bool CTimeSpanUtil::operator>(const CTimeSpanUtil& other) const noexcept {
    return fields(*this) > fields(other);
}

bool CTimeSpanUtil::operator<=(const CTimeSpanUtil& other) const noexcept {
    return !(*this > other);
}

bool CTimeSpanUtil::operator>=(const CTimeSpanUtil& other) const noexcept {
    return !(*this < other);
}

bool CTimeSpanUtil::operator==(const CTimeSpanUtil& other) const noexcept {
    return fields(*this) == fields(other);
}

bool CTimeSpanUtil::operator!=(const CTimeSpanUtil& other) const noexcept {
    return !(*this == other);
}

long CTimeSpanUtil::inSeconds() const {
    // A month has no fixed length, so such a span is only reported and its days still count.
    if (years >= 1 || months >= 1)
        LogUtil::Error("TimeUtils", "%s", LOG_MSG(kestrel::error::spanHasMonths));
    const std::int64_t totalHours = std::int64_t{days} * 24 + hours;
    return wrapped((totalHours * 60 + minutes) * 60 + seconds);
}

bool CTimeSpanUtil::getHHMMSSFF(char* out) const noexcept {
    if (out == nullptr)
        return false;
    const int totalHours = wrapped(std::int64_t{days} * 24 + hours);
    const bool fits = years < 1 && months < 1 && totalHours <= 99;
    std::snprintf(out, HHMMSSFF_CAPACITY, "%02d:%02d:%02d:00", fits ? totalHours : 99, minutes, seconds);
    return fits;
}

CTimeUtil::CTimeUtil(int year, int month, int day, int hour, int minute, int second) noexcept : m_tm{} {
    m_tm.tm_year = year;
    m_tm.tm_mon = month;
    m_tm.tm_mday = day;
    m_tm.tm_hour = hour;
    m_tm.tm_min = minute;
    m_tm.tm_sec = second;
    normalise(m_tm);
}

CTimeUtil::CTimeUtil(tm* record) noexcept : m_tm{} {
    if (record != nullptr)
        m_tm = *record;
}

CTimeUtil CTimeUtil::CurrentTime() noexcept {
    const std::time_t now = std::time(nullptr);
    CTimeUtil result;
    localtime_r(&now, &result.m_tm);
    return result;
}

CTimeSpanUtil CTimeUtil::operator-(const CTimeUtil& other) const noexcept {
    return {difference(m_tm.tm_year, other.m_tm.tm_year), difference(m_tm.tm_mon, other.m_tm.tm_mon),
            difference(m_tm.tm_mday, other.m_tm.tm_mday), difference(m_tm.tm_hour, other.m_tm.tm_hour),
            difference(m_tm.tm_min, other.m_tm.tm_min),   difference(m_tm.tm_sec, other.m_tm.tm_sec)};
}

CTimeUtil CTimeUtil::operator+(const CTimeSpanUtil& span) const noexcept {
    CTimeUtil result = *this;
    return result += span;
}

CTimeUtil CTimeUtil::operator-(const CTimeSpanUtil& span) const noexcept {
    CTimeUtil result = *this;
    return result -= span;
}

CTimeUtil& CTimeUtil::operator+=(const CTimeSpanUtil& span) noexcept {
    m_tm.tm_year = sum(m_tm.tm_year, span.years);
    m_tm.tm_mon = sum(m_tm.tm_mon, span.months);
    m_tm.tm_mday = sum(m_tm.tm_mday, span.days);
    m_tm.tm_hour = sum(m_tm.tm_hour, span.hours);
    m_tm.tm_min = sum(m_tm.tm_min, span.minutes);
    m_tm.tm_sec = sum(m_tm.tm_sec, span.seconds);
    normalise(m_tm);
    return *this;
}

CTimeUtil& CTimeUtil::operator-=(const CTimeSpanUtil& span) noexcept {
    m_tm.tm_year = difference(m_tm.tm_year, span.years);
    m_tm.tm_mon = difference(m_tm.tm_mon, span.months);
    m_tm.tm_mday = difference(m_tm.tm_mday, span.days);
    m_tm.tm_hour = difference(m_tm.tm_hour, span.hours);
    m_tm.tm_min = difference(m_tm.tm_min, span.minutes);
    m_tm.tm_sec = difference(m_tm.tm_sec, span.seconds);
    normalise(m_tm);
    return *this;
}

bool CTimeUtil::operator<(const CTimeUtil& other) const noexcept {
    return order(m_tm) < order(other.m_tm);
}

bool CTimeUtil::operator>(const CTimeUtil& other) const noexcept {
    return order(m_tm) > order(other.m_tm);
}

bool CTimeUtil::operator<=(const CTimeUtil& other) const noexcept {
    return !(*this > other);
}

bool CTimeUtil::operator>=(const CTimeUtil& other) const noexcept {
    return !(*this < other);
}

bool CTimeUtil::operator==(const CTimeUtil& other) const noexcept {
    const tm& a = m_tm;
    const tm& b = other.m_tm;
    return std::tie(a.tm_sec, a.tm_min, a.tm_hour, a.tm_mday, a.tm_mon, a.tm_year) ==
           std::tie(b.tm_sec, b.tm_min, b.tm_hour, b.tm_mday, b.tm_mon, b.tm_year);
}

bool CTimeUtil::operator!=(const CTimeUtil& other) const noexcept {
    return !(*this == other);
}
