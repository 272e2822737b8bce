// Wall-clock times and field-wise spans between them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>

// A difference of two calendar times, counted field by field and never normalised: a field may be negative
// or out of its usual range. Sums wrap at 32 bits.
class CTimeSpanUtil {
public:
    // Size that holds every text of getHHMMSSFF, terminator included; ordinary spans need 12.
    static constexpr std::size_t HHMMSSFF_CAPACITY = 40;

    // All zero.
    CTimeSpanUtil() noexcept = default;
    // Stores the six numbers as given.
    CTimeSpanUtil(int yearCount, int monthCount, int dayCount, int hourCount, int minuteCount,
                  int secondCount) noexcept;

    // Sum field by field, not normalised.
    CTimeSpanUtil operator+(const CTimeSpanUtil& other) const noexcept;

    // Order is lexicographic over the fields as stored: 90 minutes are less than 1 hour.
    bool operator<(const CTimeSpanUtil& other) const noexcept;
    bool operator>(const CTimeSpanUtil& other) const noexcept;
    bool operator<=(const CTimeSpanUtil& other) const noexcept;
    bool operator>=(const CTimeSpanUtil& other) const noexcept;
    bool operator==(const CTimeSpanUtil& other) const noexcept;
    bool operator!=(const CTimeSpanUtil& other) const noexcept;

    // Days to seconds as one count of seconds, wrapped at 32 bits. Years and months are ignored; a span that
    // has any is logged as an error (10039).
    long inSeconds() const;

    // Writes "HH:MM:SS:00" and returns true; a span above 99 hours, or with years or months, gets 99 as its
    // hours and returns false. out needs HHMMSSFF_CAPACITY bytes (12 when minutes and seconds are in range
    // and nothing is negative). Null returns false.
    bool getHHMMSSFF(char* out) const noexcept;

    std::int32_t years = 0;
    std::int32_t months = 0;
    std::int32_t days = 0;
    std::int32_t hours = 0;
    std::int32_t minutes = 0;
    std::int32_t seconds = 0;
};

// A local calendar time: the system's broken-down time record and nothing else.
class CTimeUtil {
public:
    // Every field zero, not normalised; earlier than any present time.
    CTimeUtil() noexcept : m_tm{} {}

    // Stores the numbers as given (years counted from 1900 and months from 0, as in the record), with the
    // daylight flag unknown, and normalises.
    CTimeUtil(int year, int month, int day, int hour, int minute, int second) noexcept;

    // Copies the record; null gives the default time.
    CTimeUtil(tm* record) noexcept;

    // The present local time.
    static CTimeUtil CurrentTime() noexcept;

    // Difference field by field; nothing is normalised or borrowed.
    CTimeSpanUtil operator-(const CTimeUtil& other) const noexcept;

    // Adds or subtracts field by field, with the daylight flag unknown, and normalises.
    CTimeUtil operator+(const CTimeSpanUtil& span) const noexcept;
    CTimeUtil operator-(const CTimeSpanUtil& span) const noexcept;
    CTimeUtil& operator+=(const CTimeSpanUtil& span) noexcept;
    CTimeUtil& operator-=(const CTimeSpanUtil& span) noexcept;

    // Lexicographic over year, day of year, hour, minute, second.
    bool operator<(const CTimeUtil& other) const noexcept;
    bool operator>(const CTimeUtil& other) const noexcept;
    bool operator<=(const CTimeUtil& other) const noexcept;
    bool operator>=(const CTimeUtil& other) const noexcept;

    // Second to year are equal; daylight flag, weekday and day of year do not count.
    bool operator==(const CTimeUtil& other) const noexcept;
    bool operator!=(const CTimeUtil& other) const noexcept;

    tm m_tm;
};

static_assert(sizeof(CTimeUtil) == sizeof(tm));
