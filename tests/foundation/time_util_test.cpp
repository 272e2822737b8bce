// Calendar times and field-wise spans.
#include "foundation/CapturedLog.h"
#include "foundation/ScratchDir.h"
#include "foundation/TimeUtil.h"
#include "foundation/TimeZone.h"

#include <climits>
#include <cstdlib>
#include <ctime>
#include <gtest/gtest.h>
#include <string>

namespace {

constexpr const char* monthsLine =
    "[TimeUtils:Error] TimeSpanUtil.getSeconds() was not implemented for spans "
    "of 1 month or greater!\r\n";

// Local time with a summer time, whatever the host's zone is.
class TimeUtil : public testing::Test {
    const kestrel::test::TimeZone m_zone{kestrel::test::SUMMER_TIME_ZONE};
};

using TimeSpanUtil = TimeUtil;

void expectFields(const CTimeUtil& time, int year, int month, int day, int hour, int minute, int second) {
    EXPECT_EQ(time.m_tm.tm_year, year);
    EXPECT_EQ(time.m_tm.tm_mon, month);
    EXPECT_EQ(time.m_tm.tm_mday, day);
    EXPECT_EQ(time.m_tm.tm_hour, hour);
    EXPECT_EQ(time.m_tm.tm_min, minute);
    EXPECT_EQ(time.m_tm.tm_sec, second);
}

void expectFields(const CTimeSpanUtil& span, int years, int months, int days, int hours, int minutes,
                  int seconds) {
    EXPECT_EQ(span.years, years);
    EXPECT_EQ(span.months, months);
    EXPECT_EQ(span.days, days);
    EXPECT_EQ(span.hours, hours);
    EXPECT_EQ(span.minutes, minutes);
    EXPECT_EQ(span.seconds, seconds);
}

std::string frames(const CTimeSpanUtil& span, bool expected) {
    char text[CTimeSpanUtil::HHMMSSFF_CAPACITY];
    EXPECT_EQ(span.getHHMMSSFF(text), expected);
    return text;
}

TEST_F(TimeUtil, IsExactlyTheSystemsRecord) {
    EXPECT_EQ(sizeof(CTimeUtil), sizeof(tm));
}

TEST_F(TimeUtil, DefaultTimeHasEveryFieldZero) {
    const CTimeUtil time;
    expectFields(time, 0, 0, 0, 0, 0, 0);
    EXPECT_EQ(time.m_tm.tm_wday, 0);
    EXPECT_EQ(time.m_tm.tm_yday, 0);
    EXPECT_EQ(time.m_tm.tm_isdst, 0);
}

TEST_F(TimeUtil, NumbersAreStoredAsGivenAndNormalised) {
    const CTimeUtil time(110, 0, 31, 10, 20, 30);
    expectFields(time, 110, 0, 31, 10, 20, 30);
    EXPECT_EQ(time.m_tm.tm_wday, 0) << "31 January 2010 was a Sunday";
    EXPECT_EQ(time.m_tm.tm_yday, 30);
    EXPECT_EQ(time.m_tm.tm_isdst, 0);
}

TEST_F(TimeUtil, NumbersOutOfRangeCarryOver) {
    expectFields(CTimeUtil(110, 12, 32, 24, 60, 60), 111, 1, 2, 1, 1, 0);
}

TEST_F(TimeUtil, DaylightFlagIsFoundOut) {
    EXPECT_EQ(CTimeUtil(110, 6, 1, 12, 0, 0).m_tm.tm_isdst, 1);
    expectFields(CTimeUtil(110, 6, 1, 12, 0, 0), 110, 6, 1, 12, 0, 0);
}

TEST_F(TimeUtil, RecordIsCopiedWithoutNormalising) {
    tm record{};
    record.tm_mday = 40;
    record.tm_year = 110;
    record.tm_isdst = 1;
    const CTimeUtil time(&record);
    expectFields(time, 110, 0, 40, 0, 0, 0);
    EXPECT_EQ(time.m_tm.tm_isdst, 1);
    CTimeUtil assigned;
    assigned = time;
    expectFields(assigned, 110, 0, 40, 0, 0, 0);
}

TEST_F(TimeUtil, NullRecordGivesTheDefaultTime) {
    EXPECT_EQ(CTimeUtil(static_cast<tm*>(nullptr)), CTimeUtil());
}

TEST_F(TimeUtil, CurrentTimeIsTheLocalTime) {
    const std::time_t before = std::time(nullptr);
    CTimeUtil now = CTimeUtil::CurrentTime();
    const std::time_t after = std::time(nullptr);
    const std::time_t shown = std::mktime(&now.m_tm);
    EXPECT_GE(shown, before);
    EXPECT_LE(shown, after);
}

TEST_F(TimeUtil, DifferenceIsFieldWiseWithoutBorrowing) {
    const CTimeUtil later(111, 2, 1, 0, 5, 10);
    const CTimeUtil earlier(110, 10, 30, 23, 50, 40);
    expectFields(later - earlier, 1, -8, -29, -23, -45, -30);
}

TEST_F(TimeUtil, DifferenceAcrossTheEndOfAMonthIsNotAUsableCountOfSeconds) {
    const CapturedLog log;
    const CTimeSpanUtil span = CTimeUtil(110, 1, 1, 0, 1, 0) - CTimeUtil(110, 0, 31, 23, 59, 0);
    expectFields(span, 0, 1, -30, -23, -58, 0);
    EXPECT_LT(span.inSeconds(), 0);
    EXPECT_EQ(log.text(), monthsLine);
}

TEST_F(TimeUtil, SumNormalisesIntoTheNextMonth) {
    const CTimeUtil sum = CTimeUtil(110, 0, 31, 10, 0, 0) + CTimeSpanUtil(0, 0, 1, 0, 0, 0);
    expectFields(sum, 110, 1, 1, 10, 0, 0);
    EXPECT_EQ(sum.m_tm.tm_yday, 31);
}

TEST_F(TimeUtil, EverySpanFieldIsAddedAndSubtracted) {
    const CTimeUtil start(110, 3, 10, 11, 12, 13);
    const CTimeSpanUtil span(1, 2, 3, 4, 5, 6);
    expectFields(start + span, 111, 5, 13, 15, 17, 19);
    expectFields(start - span, 109, 1, 7, 7, 7, 7);
    expectFields(start, 110, 3, 10, 11, 12, 13);
}

TEST_F(TimeUtil, InPlaceFormsDoTheSame) {
    const CTimeSpanUtil span(0, 0, 0, 0, 59, 50);
    CTimeUtil time(110, 11, 31, 23, 0, 10);
    EXPECT_EQ(&(time += span), &time);
    expectFields(time, 111, 0, 1, 0, 0, 0);
    EXPECT_EQ(&(time -= span), &time);
    expectFields(time, 110, 11, 31, 23, 0, 10);
}

TEST_F(TimeUtil, SumIntoTheSkippedHourOfSummerTimeMovesOn) {
    const CTimeUtil sum = CTimeUtil(110, 2, 28, 1, 30, 0) + CTimeSpanUtil(0, 0, 0, 1, 0, 0);
    expectFields(sum, 110, 2, 28, 3, 30, 0);
    EXPECT_EQ(sum.m_tm.tm_isdst, 1);
}

TEST_F(TimeUtil, SumKeepsTheWallClockAcrossTheChangeToSummerTime) {
    const CTimeUtil sum = CTimeUtil(110, 2, 27, 12, 0, 0) + CTimeSpanUtil(0, 0, 1, 0, 0, 0);
    expectFields(sum, 110, 2, 28, 12, 0, 0);
}

TEST_F(TimeUtil, OverflowingSumsWrapInsteadOfFailing) {
    CTimeUtil time;
    time.m_tm.tm_year = INT_MAX;
    time += CTimeSpanUtil(1, INT_MAX, INT_MAX, INT_MAX, INT_MAX, INT_MAX);
    CTimeUtil low;
    low.m_tm.tm_year = INT_MIN;
    const CTimeSpanUtil span = low - CTimeUtil(1, 0, 1, 0, 0, 0);
    EXPECT_EQ(span.years, INT_MAX);
}

TEST_F(TimeUtil, OrderIsYearThenDayOfYearThenClock) {
    const CTimeUtil base(110, 5, 15, 12, 30, 30);
    const CTimeUtil later[] = {CTimeUtil(111, 0, 1, 0, 0, 0),    CTimeUtil(110, 6, 1, 0, 0, 0),
                               CTimeUtil(110, 5, 16, 0, 0, 0),   CTimeUtil(110, 5, 15, 13, 0, 0),
                               CTimeUtil(110, 5, 15, 12, 31, 0), CTimeUtil(110, 5, 15, 12, 30, 31)};
    for (const CTimeUtil& other : later) {
        EXPECT_TRUE(base < other);
        EXPECT_TRUE(base <= other);
        EXPECT_TRUE(other > base);
        EXPECT_TRUE(other >= base);
        EXPECT_FALSE(base > other);
        EXPECT_FALSE(base >= other);
        EXPECT_FALSE(other < base);
        EXPECT_FALSE(other <= base);
        EXPECT_FALSE(base == other);
        EXPECT_TRUE(base != other);
    }
    const CTimeUtil same = base;
    EXPECT_FALSE(base < same);
    EXPECT_FALSE(base > same);
    EXPECT_TRUE(base <= same);
    EXPECT_TRUE(base >= same);
}

TEST_F(TimeUtil, OrderLooksAtTheDayOfYearAndEqualityAtMonthAndDay) {
    CTimeUtil a(110, 5, 15, 12, 0, 0);
    CTimeUtil b = a;
    b.m_tm.tm_mon = 11;
    EXPECT_FALSE(a < b);
    EXPECT_FALSE(a > b);
    EXPECT_NE(a, b);
    b = a;
    b.m_tm.tm_yday += 1;
    EXPECT_LT(a, b);
    EXPECT_EQ(a, b);
}

TEST_F(TimeUtil, TimesThatDifferOnlyInTheDaylightFlagAreEqual) {
    const CTimeUtil a(110, 5, 15, 12, 30, 30);
    CTimeUtil b = a;
    b.m_tm.tm_isdst = 0;
    EXPECT_TRUE(a == b);
    EXPECT_FALSE(a != b);
}

TEST_F(TimeUtil, EqualityNeedsEveryField) {
    const CTimeUtil base(110, 5, 15, 12, 30, 30);
    int tm::*const fields[] = {&tm::tm_sec,  &tm::tm_min, &tm::tm_hour,
                               &tm::tm_mday, &tm::tm_mon, &tm::tm_year};
    for (int tm::*field : fields) {
        CTimeUtil other = base;
        other.m_tm.*field += 1;
        EXPECT_NE(base, other);
    }
}

TEST_F(TimeUtil, DefaultTimeIsEarlierThanAnyPresentTime) {
    EXPECT_TRUE(CTimeUtil() < CTimeUtil::CurrentTime());
    EXPECT_TRUE(CTimeUtil::CurrentTime() > CTimeUtil());
}

TEST_F(TimeSpanUtil, DefaultSpanIsZero) {
    expectFields(CTimeSpanUtil(), 0, 0, 0, 0, 0, 0);
}

TEST_F(TimeSpanUtil, FieldsAreSixNumbersOf32BitsInOrder) {
    static_assert(sizeof(CTimeSpanUtil) == 24);
    expectFields(CTimeSpanUtil(1, -2, 300, -400, 5000, -6000), 1, -2, 300, -400, 5000, -6000);
}

TEST_F(TimeSpanUtil, SumIsFieldWiseAndNotNormalised) {
    expectFields(CTimeSpanUtil(1, 11, 30, 23, 59, 59) + CTimeSpanUtil(1, 11, 30, 23, 59, 59), 2, 22, 60, 46,
                 118, 118);
    expectFields(CTimeSpanUtil(INT_MAX, 0, 0, 0, 0, 0) + CTimeSpanUtil(1, 0, 0, 0, 0, 0), INT_MIN, 0, 0, 0, 0,
                 0);
}

TEST_F(TimeSpanUtil, OrderIsLexicographicOverTheFieldsAsStored) {
    const CTimeSpanUtil base(1, 1, 1, 1, 1, 1);
    const CTimeSpanUtil larger[] = {{2, 0, 0, 0, 0, 0}, {1, 2, 0, 0, 0, 0}, {1, 1, 2, 0, 0, 0},
                                    {1, 1, 1, 2, 0, 0}, {1, 1, 1, 1, 2, 0}, {1, 1, 1, 1, 1, 2}};
    for (const CTimeSpanUtil& other : larger) {
        EXPECT_TRUE(base < other);
        EXPECT_TRUE(base <= other);
        EXPECT_TRUE(other > base);
        EXPECT_TRUE(other >= base);
        EXPECT_FALSE(base > other);
        EXPECT_FALSE(base >= other);
        EXPECT_FALSE(other < base);
        EXPECT_FALSE(other <= base);
        EXPECT_FALSE(base == other);
        EXPECT_TRUE(base != other);
    }
    EXPECT_TRUE(base == CTimeSpanUtil(1, 1, 1, 1, 1, 1));
    EXPECT_FALSE(base != CTimeSpanUtil(1, 1, 1, 1, 1, 1));
    EXPECT_TRUE(base <= CTimeSpanUtil(1, 1, 1, 1, 1, 1));
    EXPECT_TRUE(base >= CTimeSpanUtil(1, 1, 1, 1, 1, 1));
    EXPECT_TRUE(CTimeSpanUtil(0, 0, 0, 0, 90, 0) < CTimeSpanUtil(0, 0, 0, 1, 0, 0));
}

TEST_F(TimeSpanUtil, SecondsCountDaysHoursMinutesAndSeconds) {
    const CapturedLog log;
    EXPECT_EQ(CTimeSpanUtil(0, 0, 1, 2, 3, 4).inSeconds(), 93784);
    EXPECT_EQ(CTimeSpanUtil(0, 0, 0, 0, 0, -5).inSeconds(), -5);
    EXPECT_EQ(CTimeSpanUtil(-1, -1, 0, 1, 0, 0).inSeconds(), 3600);
    EXPECT_EQ(log.text(), "");
}

TEST_F(TimeSpanUtil, MonthsAndYearsAreIgnoredInSecondsAndLogged) {
    const CapturedLog log;
    EXPECT_EQ(CTimeSpanUtil(0, 1, 0, 0, 1, 0).inSeconds(), 60);
    EXPECT_EQ(log.text(), monthsLine);
    EXPECT_EQ(CTimeSpanUtil(1, 0, 0, 1, 0, 0).inSeconds(), 3600);
    EXPECT_EQ(log.text(), std::string(monthsLine) + monthsLine);
}

TEST_F(TimeSpanUtil, SecondsWrapAt32Bits) {
    EXPECT_EQ(CTimeSpanUtil(0, 0, 24855, 3, 14, 7).inSeconds(), INT_MAX);
    EXPECT_EQ(CTimeSpanUtil(0, 0, 24855, 3, 14, 8).inSeconds(), INT_MIN);
    EXPECT_EQ(CTimeSpanUtil(0, 0, INT_MAX, INT_MAX, INT_MAX, INT_MAX).inSeconds(), 2147393587);
}

TEST_F(TimeSpanUtil, TextCountsDaysAsHours) {
    EXPECT_EQ(frames({0, 0, 1, 2, 3, 4}, true), "26:03:04:00");
    EXPECT_EQ(frames({}, true), "00:00:00:00");
    EXPECT_EQ(frames({0, 0, 4, 3, 59, 59}, true), "99:59:59:00");
}

TEST_F(TimeSpanUtil, TextOfALongerSpanIsCappedAt99Hours) {
    EXPECT_EQ(frames({0, 0, 5, 0, 0, 0}, false), "99:00:00:00");
    EXPECT_EQ(frames({0, 0, 4, 4, 5, 6}, false), "99:05:06:00");
    EXPECT_EQ(frames({0, 1, 0, 0, 7, 8}, false), "99:07:08:00");
    EXPECT_EQ(frames({1, 0, 0, 0, 9, 10}, false), "99:09:10:00");
}

TEST_F(TimeSpanUtil, TextOfTheLongestFieldsFitsItsCapacity) {
    EXPECT_EQ(frames({0, 0, 0, INT_MIN, INT_MIN, INT_MIN}, true), "-2147483648:-2147483648:-2147483648:00");
    EXPECT_FALSE(CTimeSpanUtil().getHHMMSSFF(nullptr));
}

} // namespace
