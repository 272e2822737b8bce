// Which capture jobs are refused, with which code and in which words.
#include "capture_requests.h"
#include "mpeg/ts_maker.h"

#include <cstdlib>
#include <ctime>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <optional>

using ::testing::HasSubstr;
using ::testing::Not;

namespace {

constexpr const char* enc1 = "EncoderIp0=10.1.2.3";
// What the log says of a mezzanine whose source is the trouble, behind the reason.
const std::string notTheMarks = "The source is the reason of the refusal, not the marks.";

std::unique_ptr<CaptureJob> makeJob(Job::JobType type) {
    switch (type) {
    case Job::CAPTURE_VTR_JOB:
        return std::make_unique<CaptureVTRJob>(1);
    case Job::CAPTURE_MANUAL_JOB:
        return std::make_unique<CaptureManualJob>(1);
    case Job::CAPTURE_TIMED_JOB:
        return std::make_unique<CaptureTimedJob>(1);
    case Job::CAPTURE_SCHEDULED_JOB:
        return std::make_unique<CaptureScheduledJob>(1);
    case Job::CAPTURE_ROLLING_JOB:
        return std::make_unique<CaptureRollingJob>(1);
    case Job::CAPTURE_MPEG_NORMALIZE_JOB:
        return std::make_unique<MpegNormalizeJob>(1);
    default:
        return std::make_unique<CaptureReencodeJob>(1, type);
    }
}

// A time zone for one test.
class TimeZone {
public:
    explicit TimeZone(const char* zone) {
        if (const char* const before = std::getenv("TZ"))
            m_before = before;
        setenv("TZ", zone, 1);
        tzset();
    }
    ~TimeZone() {
        if (m_before)
            setenv("TZ", m_before->c_str(), 1);
        else
            unsetenv("TZ");
        tzset();
    }
    TimeZone(const TimeZone&) = delete;
    TimeZone& operator=(const TimeZone&) = delete;

private:
    std::optional<std::string> m_before;
};

// The lines of that level, each with its end.
std::string errorLines(const std::string& text) {
    std::string errors;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = text.find('\n', at);
        const std::string line = text.substr(at, end == std::string::npos ? end : end + 1 - at);
        if (line.find(":Error] ") != std::string::npos)
            errors += line;
        at += line.size();
    }
    return errors;
}

class CaptureRulesTest : public ::testing::Test {
protected:
    ~CaptureRulesTest() override { ResourceMgr::Cleanup(); }

    // A source file of that frame_rate_code; its path.
    std::string source(const char* name, int rateCode) {
        TsMaker stream;
        stream.tables({{0x02, 0x100}});
        for (int i = 0; i < 3; ++i)
            stream.pes(0x100, pesHeader(1),
                       sequenceHeader(720, 576, rateCode) + sequenceExtension(0x48) + gopHeader(0, 0, i, 0) +
                           filler(500));
        return stream.write(directory, name);
    }

    ScratchDir directory;
    JobLog log;
};

} // namespace

TEST_F(CaptureRulesTest, EveryRefusalStandsInTheResultsAndInTheLog) {
    const std::string sourceField = "SrcFilename=" + source("pal", 3);
    const char* const pal = sourceField.c_str();
    constexpr const char* out = "Filename=/tmp/out.ts";
    constexpr const char* dec = "DecoderIp=10.9.9.9";
    constexpr const char* one = "MarkInTime=01:00:00:00";
    constexpr const char* ten = "StartTime=11/20/2026 10:00:00";
    struct Row {
        Job::JobType type;
        std::vector<const char*> fields;
        int code;
        const char* text;
    };
    const Row rows[] = {
        {Job::CAPTURE_SCHEDULED_JOB,
         {out, enc1, ten, "EndTime=11/20/2026 09:59:59"},
         10010,
         "Error: End time is less than start time."},
        {Job::CAPTURE_SCHEDULED_JOB, {out, enc1}, 10011, "Error: Cannot add job - Start time not specified."},
        {Job::CAPTURE_SCHEDULED_JOB,
         {enc1, ten, "EndTime=11/20/2026 10:00:01"},
         10012,
         "Error: Cannot add job - No output filename specified."},
        {Job::CAPTURE_MANUAL_JOB, {enc1}, 10012, "Error: Cannot add job - No output filename specified."},
        {Job::CAPTURE_TIMED_JOB, {enc1}, 10012, "Error: Cannot add job - No output filename specified."},
        {Job::CAPTURE_MPEG_NORMALIZE_JOB,
         {out},
         10013,
         "Error: Cannot add job - No source filename specified."},
        {Job::CAPTURE_REENCODE_JOB,
         {out, enc1, dec},
         10013,
         "Error: Cannot add job - No source filename specified."},
        {Job::CAPTURE_MEZZANINE_JOB,
         {out, enc1, dec},
         10013,
         "Error: Cannot add job - No source filename specified."},
        {Job::CAPTURE_MANUAL_JOB, {out}, 10015, "Error: Cannot add job - No encoder specified."},
        {Job::CAPTURE_TIMED_JOB, {out}, 10015, "Error: Cannot add job - No encoder specified."},
        {Job::CAPTURE_ROLLING_JOB,
         {out, "Duration=5"},
         10015,
         "Error: Cannot add job - No encoder specified."},
        {Job::CAPTURE_REENCODE_JOB, {out, dec, pal}, 10015, "Error: Cannot add job - No encoder specified."},
        {Job::CAPTURE_REENCODE_JOB, {out, enc1, pal}, 10016, "Error: Cannot add job - No decoder specified."},
        {Job::CAPTURE_MEZZANINE_JOB,
         {out, enc1, pal},
         10016,
         "Error: Cannot add job - No decoder specified."},
        {Job::CAPTURE_VTR_JOB,
         {out, enc1, one, "MarkOutTime=01:00:00:00"},
         10021,
         "Error: Mark out time must be greater than Mark in time."},
        {Job::CAPTURE_MEZZANINE_JOB,
         {out, enc1, pal, dec, one, "MarkOutTime=01:00:00:00"},
         10021,
         "Error: Mark out time must be greater than Mark in time."},
        {Job::CAPTURE_MEZZANINE_JOB,
         {out, enc1, pal, dec, one, "MarkOutTime=01:00:00:25"},
         10022,
         "Error: Invalid timecode parameter 01:00:00:25 for frame rate 25.000000."},
        {Job::CAPTURE_VTR_JOB, {out, enc1}, 10023, "Error: Must specify Mark In Time and Mark Out Time."},
        {Job::CAPTURE_MEZZANINE_JOB,
         {out, enc1, pal, dec, one},
         10023,
         "Error: Must specify Mark In Time and Mark Out Time."},
        {Job::CAPTURE_ROLLING_JOB,
         {out, enc1, "Duration=0"},
         20085,
         "Error: Invalid Rolling Capture duration 0."},
    };
    for (const Row& row : rows) {
        const std::size_t before = log.text().size();
        const std::unique_ptr<CaptureJob> job = makeJob(row.type);
        std::vector<InputField> fields;
        for (const char* text : row.fields)
            fields.emplace_back(text);
        EXPECT_EQ(job->setFields(fields), row.code) << row.text;
        EXPECT_STREQ(job->results, row.text);
        EXPECT_EQ(errorLines(log.text().substr(before)), "[JobMgmt:Error] " + std::string(row.text) + "\r\n")
            << Job::JobTypeStr[row.type];
    }
}

// A value that cannot be taken counts as none. The refusal that follows has its own text, which clients know;
// the log names the value.
TEST_F(CaptureRulesTest, AValueThatCannotBeTakenIsNamedInTheLog) {
    const std::string sourceField = "SrcFilename=" + source("pal", 3);
    const char* const pal = sourceField.c_str();
    const std::string empty = "SrcFilename=" + directory.file("empty.ts", "");
    const std::string emptyName = empty.substr(empty.find('=') + 1);
    constexpr const char* out = "Filename=/tmp/out.ts";
    constexpr const char* dec = "DecoderIp=10.9.9.9";
    constexpr const char* one = "MarkInTime=01:00:00:00";
    constexpr const char* two = "MarkOutTime=02:00:00:00";
    constexpr const char* ten = "StartTime=11/20/2026 10:00:00";
    constexpr const char* noEncoder = "Error: Cannot add job - No encoder specified.";
    constexpr const char* badRolling = "Error: Invalid Rolling Capture duration 0.";
    constexpr const char* badMarks = "Error: Mark out time must be greater than Mark in time.";
    struct Row {
        Job::JobType type;
        std::vector<const char*> fields;
        int code;
        std::string refusal;
        std::string told;
    };
    const Row rows[] = {
        {Job::CAPTURE_MANUAL_JOB,
         {out, "EncoderIp0=1.2.3.999"},
         10015,
         noEncoder,
         "EncoderIp0: \"1.2.3.999\" is not the IPv4 address of a device."},
        {Job::CAPTURE_MANUAL_JOB,
         {out, "EncoderIp=0.0.0.0"},
         10015,
         noEncoder,
         "EncoderIp: \"0.0.0.0\" is not the IPv4 address of a device."},
        {Job::CAPTURE_REENCODE_JOB,
         {out, enc1, pal, "DecoderIp=decoder-1"},
         10016,
         "Error: Cannot add job - No decoder specified.",
         "DecoderIp: \"decoder-1\" is not the IPv4 address of a device."},
        {Job::CAPTURE_SCHEDULED_JOB,
         {out, enc1, "StartTime=tomorrow"},
         10011,
         "Error: Cannot add job - Start time not specified.",
         "StartTime: \"tomorrow\" is not a time month/day/year hour:minute:second."},
        {Job::CAPTURE_SCHEDULED_JOB,
         {out, enc1, ten, "EndTime=10:30"},
         10010,
         "Error: End time is less than start time.",
         "EndTime: \"10:30\" is not a time month/day/year hour:minute:second."},
        {Job::CAPTURE_ROLLING_JOB,
         {out, enc1, "Duration=abc"},
         20085,
         badRolling,
         "Duration: \"abc\" is not a number of minutes or a time hh:mm:ss:ff of one minute at least."},
        {Job::CAPTURE_ROLLING_JOB,
         {out, enc1, "Duration=00:00:59:00"},
         20085,
         badRolling,
         "Duration: \"00:00:59:00\" is not a number of minutes or a time hh:mm:ss:ff of one minute at "
         "least."},
        {Job::CAPTURE_VTR_JOB,
         {out, enc1, one, "MarkOutTime=later"},
         10021,
         badMarks,
         "MarkOutTime: \"later\" is not a timecode hh:mm:ss:ff."},
        {Job::CAPTURE_MEZZANINE_JOB,
         {out, enc1, pal, dec, one, "MarkOutTime=1 hour"},
         10021,
         badMarks,
         "MarkOutTime: \"1 hour\" is not a timecode hh:mm:ss:ff."},
        {Job::CAPTURE_MEZZANINE_JOB,
         {out, enc1, "SrcFilename=/nonexistent/a.ts", dec, one, two},
         10021,
         badMarks,
         "SrcFilename: \"/nonexistent/a.ts\" cannot be opened: errno 2 (No such file or directory). " +
             notTheMarks},
        {Job::CAPTURE_MEZZANINE_JOB,
         {out, enc1, empty.c_str(), dec, one, two},
         10021,
         badMarks,
         "SrcFilename: \"" + emptyName + "\" has no video whose frame rate can be read. " + notTheMarks},
    };
    for (const Row& row : rows) {
        const std::unique_ptr<CaptureJob> job = makeJob(row.type);
        std::vector<InputField> fields;
        for (const char* text : row.fields)
            fields.emplace_back(text);
        EXPECT_EQ(job->setFields(fields), row.code) << row.told;
        EXPECT_STREQ(job->results, row.refusal.c_str()) << row.told;
        EXPECT_THAT(log.text(), HasSubstr("[JobMgmt:Warning] " + row.told + "\r\n"));
    }
    EXPECT_THAT(log.text(), testing::EndsWith(notTheMarks + "\r\n")) << "behind the refusal's own text";
}

TEST_F(CaptureRulesTest, ATapeJobWithoutADeckThatCanBeReachedIsTakenWithAWarning) {
    constexpr const char* out = "Filename=/tmp/out.ts";
    constexpr const char* one = "MarkInTime=01:00:00:00";
    constexpr const char* two = "MarkOutTime=02:00:00:00";
    CaptureVTRJob none(1);
    EXPECT_EQ(setFields(none, {out, enc1, one, two}), 0);
    EXPECT_THAT(log.text(),
                HasSubstr("[JobMgmt:Warning] VTR_Com_Port: none is given: the job has no deck, and "
                          "its worker will fail.\r\n"));
    CaptureVTRJob eleven(1);
    const std::size_t before = log.text().size();
    EXPECT_EQ(setFields(eleven, {out, enc1, one, two, "VTR_Com_Port=/dev/ttyS10"}), 0);
    EXPECT_EQ(log.text().substr(before), "");
    CaptureVTRJob twelve(1);
    EXPECT_EQ(setFields(twelve, {out, enc1, one, two, "VTR_Com_Port=/dev/ttyUSB0"}), 0);
    EXPECT_EQ(log.text().substr(before),
              "[JobMgmt:Warning] VTR_Com_Port: \"/dev/ttyUSB0\" has more than 11 characters: no deck can be "
              "reached by it, and the job's worker will fail.\r\n");
}

// Values of the right form that no rule forbids are the client's own business.
TEST_F(CaptureRulesTest, WhatNoRuleForbidsIsTaken) {
    CaptureScheduledJob past(1);
    EXPECT_EQ(setFields(past, {"Filename=/tmp", enc1, "StartTime=01/01/1999 10:00:00",
                               "EndTime=01/01/1999 11:00:00"}),
              0)
        << "a time in the past, and a directory for a file: the worker tells of it";
    CaptureVTRJob vtr(1);
    EXPECT_EQ(setFields(vtr, {"Filename=/tmp/a", enc1, "MarkInTime=abc", "MarkOutTime=01:00:00:00"}), 0);
    EXPECT_THAT(log.text(),
                HasSubstr("[JobMgmt:Warning] MarkInTime: \"abc\" is not a timecode hh:mm:ss:ff.\r\n"));
}

TEST_F(CaptureRulesTest, ATimeThatTheCalendarDoesNotHaveIsTakenWithAWarning) {
    const struct {
        const char* given;
        const char* taken;
    } rows[] = {
        {"02/31/2026 10:00:00", "03/03/2026 10:00:00"},
        {"02/29/2027 10:00:00", "03/01/2027 10:00:00"},
        {"13/01/2026 10:00:00", "01/01/2027 10:00:00"},
        {"01/00/2026 10:00:00", "12/31/2025 10:00:00"},
        {"11/20/2026 25:00:00", "11/21/2026 01:00:00"},
        {"11/20/2026 10:60:00", "11/20/2026 11:00:00"},
        {"11/20/2026 10:00:60", "11/20/2026 10:01:00"},
        {"11/20/2026 10:00:-1", "11/20/2026 09:59:59"},
        {"11/20/26 10:00:00", "11/20/1926 10:00:00"},
        {"1/2/2147483647 2147483647:00:00", "01/02/2147483647 2147483647:00:00"},
    };
    for (const auto& row : rows) {
        CaptureScheduledJob job(1);
        setFields(job, {"Filename=/tmp/a", enc1, (std::string("StartTime=") + row.given).c_str()});
        EXPECT_FALSE(job.startTime == CTimeUtil()) << row.given;
        EXPECT_THAT(log.text(),
                    HasSubstr("[JobMgmt:Warning] StartTime: \"" + std::string(row.given) +
                              "\" is not a time of the calendar, it is taken as " + row.taken + ".\r\n"));
    }
    CaptureScheduledJob job(1);
    EXPECT_EQ(setFields(job, {"Filename=/tmp/a", enc1, "StartTime=11/20/2026 10:00:00",
                              "EndTime=11/20/2026 11:00:00 PM"}),
              0);
    EXPECT_THAT(log.text(),
                HasSubstr("[JobMgmt:Warning] EndTime: \"11/20/2026 11:00:00 PM\" is not a time "
                          "month/day/year hour:minute:second, it is taken as 11/20/2026 11:00:00.\r\n"));
}

TEST_F(CaptureRulesTest, ATimeOfTheCalendarIsTakenSilently) {
    for (const char* start :
         {"11/20/2026 10:00:00", " 1/2/2026  9:05:00 ", "02/29/2028 23:59:59", "+1/+2/2026 1:2:3"}) {
        CaptureScheduledJob job(1);
        EXPECT_EQ(setFields(job, {"Filename=/tmp/a", enc1, (std::string("StartTime=") + start).c_str(),
                                  "EndTime=12/20/2029 10:00:00"}),
                  0);
    }
    EXPECT_THAT(log.text(), Not(HasSubstr("Warning]")));
}

TEST_F(CaptureRulesTest, WhyAnEndIsBeforeItsStartIsTold) {
    CaptureScheduledJob without(1);
    EXPECT_EQ(setFields(without, {"Filename=/tmp/a", enc1, "StartTime=11/20/2026 10:00:00"}), 10010);
    EXPECT_STREQ(without.results, "Error: End time is less than start time.");
    EXPECT_THAT(log.text(),
                HasSubstr("[JobMgmt:Warning] EndTime: none is given, expected is a time month/day/year "
                          "hour:minute:second. Without it the end is before any start.\r\n"));

    CaptureScheduledJob acrossMonths(1);
    EXPECT_EQ(setFields(acrossMonths, {"Filename=/tmp/a", enc1, "StartTime=01/31/2027 23:00:00",
                                       "EndTime=02/01/2027 01:00:00"}),
              10010);
    EXPECT_THAT(
        log.text(),
        HasSubstr("[JobMgmt:Warning] EndTime: 02/01/2027 01:00:00 is not before the StartTime 01/31/2027 "
                  "23:00:00, but times are compared as those of the following month, which has not as many "
                  "days. A capture of the same length on another day is taken.\r\n"));
    EXPECT_THAT(log.text(), Not(HasSubstr("has no length")));
}

// The month after the one that is written changes its clocks between the two.
TEST_F(CaptureRulesTest, AnEndBehindAClockChangeIsRefusedAndToldAsSuch) {
    const TimeZone newYork("EST5EDT,M3.2.0,M11.1.0");
    CaptureScheduledJob job(1);
    EXPECT_EQ(setFields(job, {"Filename=/tmp/a", enc1, "StartTime=02/14/2026 02:30:00",
                              "EndTime=02/14/2026 03:10:00"}),
              10010);
    EXPECT_THAT(log.text(),
                HasSubstr("[JobMgmt:Warning] EndTime: 02/14/2026 03:10:00 is not before the StartTime "
                          "02/14/2026 02:30:00, but times are compared as those of the following month, in "
                          "which the clock is changed then. A capture of the same length on another day is "
                          "taken.\r\n"));
}

TEST_F(CaptureRulesTest, ACaptureWithoutLengthIsTakenAndTold) {
    for (const char* end : {"11/20/2026 10:00:00", "11/20/2026 10:00:01"}) {
        CaptureScheduledJob job(1);
        EXPECT_EQ(setFields(job, {"Filename=/tmp/a", enc1, "StartTime=11/20/2026 10:00:00",
                                  (std::string("EndTime=") + end).c_str()}),
                  0);
    }
    EXPECT_THAT(log.text(),
                HasSubstr("[JobMgmt:Warning] EndTime: 11/20/2026 10:00:00 is not after the StartTime "
                          "11/20/2026 10:00:00: the capture has no length.\r\n"));
    EXPECT_THAT(log.text(), Not(HasSubstr("EndTime: 11/20/2026 10:00:01")));
}

TEST_F(CaptureRulesTest, AMarkBeyondADayIsTakenAndTold) {
    CaptureVTRJob job(1);
    EXPECT_EQ(setFields(job, {"Filename=/tmp/a", enc1, "MarkInTime=23:59:59;29", "MarkOutTime=25:00:00:00"}),
              0);
    EXPECT_STREQ(job.markOut, "25:00:00:00");
    const auto told = [](const std::string& field) {
        return HasSubstr("[JobMgmt:Warning] " + field +
                         " is not a timecode of one day, 23:59:59:59 at most.\r\n");
    };
    EXPECT_THAT(log.text(), told("MarkOutTime: \"25:00:00:00\""));
    EXPECT_THAT(log.text(), Not(HasSubstr("MarkInTime")));
    for (const char* mark : {"24:00:00:00", "10:60:00:00", "10:00:60:00", "10:00:00:60"}) {
        setFields(job, {(std::string("MarkInTime=") + mark).c_str()});
        EXPECT_THAT(log.text(), told("MarkInTime: \"" + std::string(mark) + '"'));
    }
    setFields(job, {"MarkInTime=100:00:00:00"});
    EXPECT_THAT(log.text(), HasSubstr("MarkInTime: \"100:00:00:00\" is not a timecode hh:mm:ss:ff.\r\n"));
}

TEST_F(CaptureRulesTest, AFieldOfAnUnknownNameIsIgnoredWithAWarning) {
    CaptureManualJob job(1);
    EXPECT_EQ(setFields(job, {"Filename=/tmp/a", enc1, "FileName=/tmp/b", "NumEncoders=1"}), 0);
    EXPECT_STREQ(job.outputFile, "/tmp/a");
    EXPECT_THAT(log.text(),
                HasSubstr("[JobMgmt:Warning] FileName=/tmp/b: no field of this name is known, it is "
                          "ignored.\r\n"));
    EXPECT_THAT(log.text(), Not(HasSubstr("NumEncoders"))) << "known, though of no use here";
}

TEST_F(CaptureRulesTest, ManualNeedsAnOutputFileThenAnEncoder) {
    CaptureManualJob job(1);
    EXPECT_EQ(setFields(job, {enc1}), 10012);
    EXPECT_STREQ(job.results, "Error: Cannot add job - No output filename specified.");
    EXPECT_THAT(log.text(),
                HasSubstr("[JobMgmt:Error] Error: Cannot add job - No output filename specified."));
    CaptureManualJob other(1);
    EXPECT_EQ(setFields(other, {"Filename=/tmp/a.mpg"}), 10015);
    EXPECT_STREQ(other.results, "Error: Cannot add job - No encoder specified.");
    EXPECT_EQ(setFields(other, {enc1}), 0);
}

TEST_F(CaptureRulesTest, AnEmptyOutputFileIsNone) {
    CaptureManualJob job(1);
    EXPECT_EQ(setFields(job, {"Filename=", enc1}), 10012);
}

TEST_F(CaptureRulesTest, MoreEncodersThanTheSettingsHoldAreRefused) {
    CaptureManualJob job(1);
    EXPECT_EQ(setFields(job, {"Filename=/tmp/a", enc1, "EncoderIp1=10.1.2.4", "EncoderIp2=10.1.2.5"}), 10015);
    EXPECT_STREQ(job.results, "Error: Cannot add job - 3 encoders specified, at most 2 are supported.");
}

TEST_F(CaptureRulesTest, TimedDoesNotCheckItsDuration) {
    CaptureTimedJob job(1);
    EXPECT_EQ(setFields(job, {"Filename=/tmp/a", enc1}), 0);
    EXPECT_EQ(setFields(job, {"Duration=nonsense"}), 0);
    EXPECT_STREQ(job.duration, "nonsense");
}

TEST_F(CaptureRulesTest, RollingNeedsAMinuteBeforeItLooksAtTheRest) {
    CaptureRollingJob job(1);
    EXPECT_EQ(setFields(job, {}), 20085);
    EXPECT_STREQ(job.results, "Error: Invalid Rolling Capture duration 0.");
    job.rollingDurationMin = -3;
    EXPECT_EQ(job.validate(), 20085);
    EXPECT_STREQ(job.results, "Error: Invalid Rolling Capture duration -3.");
    job.rollingDurationMin = 1;
    EXPECT_EQ(job.validate(), 10012);
    EXPECT_EQ(setFields(job, {"Filename=/tmp/a", enc1}), 0);
}

TEST_F(CaptureRulesTest, ScheduledNeedsAStartAndAnEndNotBeforeIt) {
    struct Row {
        std::vector<const char*> fields;
        int code;
    };
    const Row rows[] = {
        {{"EndTime=11/20/2026 10:00:00"}, 10011},
        {{"StartTime=", "EndTime=11/20/2026 10:00:00"}, 10011},
        {{"StartTime=11/20/2026 10:00", "EndTime=11/20/2026 10:00:00"}, 10011},
        {{"StartTime=99999999999/20/2026 10:00:00", "EndTime=11/20/2026 10:00:00"}, 10011},
        {{"StartTime=11/20/2026 10:00:00"}, 10010},
        {{"StartTime=11/20/2026 10:00:00", "EndTime=11/20/2026 09:59:59"}, 10010},
        {{"StartTime=11/20/2026 10:00:00", "EndTime=11/20/2026 10:00:00"}, 0},
        {{"StartTime=11/20/2026 10:00:00", "EndTime=11/20/2026 10:00:01"}, 0},
        {{"StartTime= 11/ 20/ 2026 10: 00: 00 ", "EndTime=11/21/2026 10:00:01"}, 0},
    };
    for (const Row& row : rows) {
        CaptureScheduledJob job(1);
        std::vector<InputField> fields = request({"Filename=/tmp/a", enc1});
        for (const char* text : row.fields)
            fields.emplace_back(text);
        EXPECT_EQ(job.setFields(fields), row.code) << row.fields.front();
    }
}

// The numbers are compared as they are stored, a month on: the day after January 31 is then an earlier one.
TEST_F(CaptureRulesTest, ScheduledDaysThatTheNextMonthLacksCountBeyondIt) {
    CaptureScheduledJob job(1);
    EXPECT_EQ(setFields(job, {"Filename=/tmp/a", enc1, "StartTime=01/31/2026 23:00:00",
                              "EndTime=02/01/2026 01:00:00"}),
              10010);
}

TEST_F(CaptureRulesTest, VtrMarks) {
    struct Row {
        const char* in;
        const char* out;
        int code;
    };
    const Row rows[] = {
        {"", "", 10023},
        {"", "01:00:00:00", 10023}, // the third text is never filled
        {"01:00:00:00", "", 10021},
        {"01:00:00:00", "01:00:00:00", 10021},
        {"01:00:00:01", "01:00:00:00", 10021},
        {"01:00:00:00", "01:00:00:01", 0},
        {"01:00:00:00", "01:00:00:59", 0},
    };
    for (const Row& row : rows) {
        CaptureVTRJob job(1);
        const std::string in = std::string("MarkInTime=") + row.in;
        const std::string out = std::string("MarkOutTime=") + row.out;
        EXPECT_EQ(setFields(job, {"Filename=/tmp/a", enc1, in.c_str(), out.c_str()}), row.code)
            << row.in << " " << row.out;
        EXPECT_EQ(job.vtr, nullptr);
    }
    CaptureVTRJob job(1);
    EXPECT_EQ(setFields(job, {"MarkInTime=01:00:00:00", "MarkOutTime=02:00:00:00"}), 10012)
        << "the base's rules come last";
}

TEST_F(CaptureRulesTest, NormalizeNeedsASourceButNoEncoder) {
    MpegNormalizeJob job(1);
    EXPECT_EQ(setFields(job, {"Filename=/tmp/out.mpg"}), 10013);
    EXPECT_STREQ(job.results, "Error: Cannot add job - No source filename specified.");
    EXPECT_EQ(setFields(job, {"SrcFilename=/tmp/in.mpg"}), 0);
    EXPECT_STREQ(job.sourceFile, "/tmp/in.mpg");
    MpegNormalizeJob noOutput(1);
    EXPECT_EQ(setFields(noOutput, {"SrcFilename=/tmp/in.mpg"}), 10012);
}

TEST_F(CaptureRulesTest, ReencodeNeedsASourceThenADecoder) {
    CaptureReencodeJob job(1);
    EXPECT_EQ(setFields(job, {"Filename=/tmp/out.mpg", enc1}), 10013);
    EXPECT_EQ(setFields(job, {"SrcFilename=/tmp/in.mpg"}), 10016);
    EXPECT_STREQ(job.results, "Error: Cannot add job - No decoder specified.");
    EXPECT_EQ(setFields(job, {"DecoderProfile=p"}), 10016) << "options alone name no decoder";
    EXPECT_EQ(setFields(job, {"DecoderIp=10.9.9.9"}), 0);
    CaptureReencodeJob bare(1);
    EXPECT_EQ(setFields(bare, {"SrcFilename=/tmp/in.mpg", "DecoderIp=10.9.9.9"}), 10012);
}

TEST_F(CaptureRulesTest, MezzanineNeedsBothMarks) {
    for (const char* mark : {"MarkInTime=01:00:00:00", "MarkOutTime=01:00:00:00"}) {
        CaptureReencodeJob job(1, Job::CAPTURE_MEZZANINE_JOB);
        EXPECT_EQ(
            setFields(job, {"Filename=/tmp/out", enc1, "SrcFilename=/tmp/in", "DecoderIp=10.9.9.9", mark}),
            10023);
        EXPECT_STREQ(job.results, "Error: Must specify Mark In Time and Mark Out Time.");
    }
    CaptureReencodeJob plain(1);
    EXPECT_EQ(setFields(plain, {"Filename=/tmp/out", enc1, "SrcFilename=/tmp/in", "DecoderIp=10.9.9.9"}), 0);
}

TEST_F(CaptureRulesTest, MezzanineMarksFollowTheRateOfTheSource) {
    const std::string pal = source("pal", 3);
    const std::string ntsc = source("ntsc", 4);
    const std::string unknown = directory.path("missing");
    struct Row {
        const std::string& source;
        const char* in;
        const char* out;
        int code;
        const char* text;
    };
    const Row rows[] = {
        {pal, "01:00:00:00", "01:00:00:01", 0, ""},
        {pal, "01:00:00:00", "01:00:00:00", 10021, "Error: Mark out time must be greater than Mark in time."},
        {pal, "01:00:00:00", "01:00:59:25", 10022,
         "Error: Invalid timecode parameter 01:00:59:25 for frame rate 25.000000."},
        {pal, "01:00:00:25", "02:00:00:25", 10022,
         "Error: Invalid timecode parameter 01:00:00:25 for frame rate 25.000000."},
        {ntsc, "01:01:00:00", "02:00:00:00", 10022,
         "Error: Invalid timecode parameter 01:01:00:00 for frame rate 29.970030."},
        {ntsc, "01:01:00:02", "02:00:00:00", 0, ""},
        // A source whose rate cannot be told has no frames between its marks.
        {unknown, "01:00:00:00", "02:00:00:00", 10021,
         "Error: Mark out time must be greater than Mark in time."},
    };
    for (const Row& row : rows) {
        CaptureReencodeJob job(1, Job::CAPTURE_MEZZANINE_JOB);
        const std::string sourceField = "SrcFilename=" + row.source;
        const std::string in = std::string("MarkInTime=") + row.in;
        const std::string out = std::string("MarkOutTime=") + row.out;
        EXPECT_EQ(setFields(job, {"Filename=/tmp/out", enc1, sourceField.c_str(), "DecoderIp=10.9.9.9",
                                  in.c_str(), out.c_str()}),
                  row.code)
            << row.in << " " << row.out;
        EXPECT_STREQ(job.results, row.text);
    }
}
