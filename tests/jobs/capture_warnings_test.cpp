// What the log tells of requests whose values are not what they should be, whether they are refused or taken.
#include "capture_rules.h"
#include "foundation/ControllingTerminal.h"
#include "foundation/TimeZone.h"
#include "foundation/UniqueFd.h"
#include "streams/stream_fixtures.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

using ::testing::HasSubstr;
using ::testing::Not;

using CaptureWarningsTest = CaptureRulesTest;

namespace {

// What the log says of a mezzanine whose source is the trouble, behind the reason.
const std::string notTheMarks = "The source is the reason of the refusal, not the marks.";

} // namespace

// A value that cannot be taken counts as none. The refusal that follows has its own text, which clients know;
// the log names the value.
TEST_F(CaptureWarningsTest, AValueThatCannotBeTakenIsNamedInTheLog) {
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

// A pipe would hold the request for as long as its writer likes, and its worker could not read it again.
TEST_F(CaptureWarningsTest, AMezzaninesSourceThatIsNoRegularFileIsRefusedUnopened) {
    const std::string pipe = directory.path("pipe");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    const kestrel::UniqueFd writer(open(pipe.c_str(), O_RDWR | O_CLOEXEC));
    const std::string video = contentOf(source("pal", 3));
    ASSERT_EQ(write(writer.get(), video.data(), video.size()), static_cast<ssize_t>(video.size()));
    for (const std::string& file : {pipe, std::string("/dev/zero"), directory.path()}) {
        CaptureReencodeJob job(1, Job::CAPTURE_MEZZANINE_JOB);
        const std::string field = "SrcFilename=" + file;
        EXPECT_EQ(setFields(job, {"Filename=/tmp/out.ts", enc1, field.c_str(), "DecoderIp=10.9.9.9",
                                  "MarkInTime=01:00:00:00", "MarkOutTime=02:00:00:00"}),
                  10021)
            << file;
        EXPECT_STREQ(job.results, "Error: Mark out time must be greater than Mark in time.");
        EXPECT_THAT(log.text(), testing::EndsWith("[JobMgmt:Warning] SrcFilename: \"" + file +
                                                  "\" is not a regular file. " + notTheMarks + "\r\n"));
    }
    int unread = 0;
    ASSERT_EQ(ioctl(writer.get(), FIONREAD, &unread), 0);
    EXPECT_EQ(static_cast<std::size_t>(unread), video.size());
}

TEST_F(CaptureWarningsTest, AMezzanineOfASourceWithAnUnusedRateIsTakenAndToldOf) {
    for (const int rateCode : {0, 9, 15}) {
        CaptureReencodeJob job(1, Job::CAPTURE_MEZZANINE_JOB);
        const std::string file = source(("rate" + std::to_string(rateCode)).c_str(), rateCode);
        const std::string field = "SrcFilename=" + file;
        EXPECT_EQ(setFields(job, {"Filename=/tmp/out.ts", enc1, field.c_str(), "DecoderIp=10.9.9.9",
                                  "MarkInTime=01:00:00:00", "MarkOutTime=02:00:00:00"}),
                  0)
            << job.results;
        EXPECT_THAT(log.text(),
                    testing::EndsWith("[JobMgmt:Warning] SrcFilename: \"" + file +
                                      "\" names a frame rate that does not exist. The marks are judged as at "
                                      "23.976 frames a second.\r\n"));
    }
}

// Sources of 25 frames a second, of which the last is number 24.
class MarksOfAnUnknownRate : public CaptureWarningsTest {
protected:
    // What a mezzanine between these marks is answered, and told in the log of its source.
    void expect(const std::string& source, const std::string& markIn, const std::string& markOut, int code,
                const std::string& results, const std::string& told) {
        const std::string file = kestrel::test::streamFile(source);
        CaptureReencodeJob job(1, Job::CAPTURE_MEZZANINE_JOB);
        const std::size_t before = log.text().size();
        EXPECT_EQ(setFields(job, {"Filename=/tmp/out.ts", enc1, ("SrcFilename=" + file).c_str(),
                                  "DecoderIp=10.9.9.9", ("MarkInTime=" + markIn).c_str(),
                                  ("MarkOutTime=" + markOut).c_str()}),
                  code);
        EXPECT_EQ(job.results, results);
        EXPECT_THAT(log.text().substr(before), testing::EndsWith("[JobMgmt:Warning] SrcFilename: \"" + file +
                                                                 "\" has H.264 video " + told + "\r\n"));
    }
};

TEST_F(MarksOfAnUnknownRate, AreJudgedAsAtTheLowestWhereTheTimingIsNotRead) {
    const std::string told =
        "whose frame rate is not read. The marks are judged as at 23.976 frames a second.";
    expect("h264_baseline", "01:00:00:00", "02:00:00:23", 0, "", told); // its pic_order_cnt_type is 2
    expect("h264_baseline", "01:00:00:00", "02:00:00:24", 10022,
           "Error: Invalid timecode parameter 02:00:00:24 for frame rate 0.500000.", told);
}

TEST_F(MarksOfAnUnknownRate, AreJudgedAsAt2997WhereTheHeadersDoNotTellIt) {
    const std::string told =
        "that does not tell its frame rate. The marks are judged as at 29.97 frames a second.";
    expect("h264_untimed_25", "01:00:10:27", "02:00:00:00", 0, "", told);
    expect("h264_untimed_25", "01:01:00:00", "02:00:00:00", 10022,
           "Error: Invalid timecode parameter 01:01:00:00 for frame rate 29.970030.", told);
}

TEST_F(CaptureWarningsTest, AMezzanineOfASourceWhoseRateIsReadIsNotToldOf) {
    // 29.97 told is not 29.97 taken for want of better.
    for (const char* stream : {"h264_main", "h264_high_2997", "m2_sd_2997"}) {
        const std::string field = "SrcFilename=" + kestrel::test::streamFile(stream);
        CaptureReencodeJob job(1, Job::CAPTURE_MEZZANINE_JOB);
        EXPECT_EQ(setFields(job, {"Filename=/tmp/out.ts", enc1, field.c_str(), "DecoderIp=10.9.9.9",
                                  "MarkInTime=01:00:10:10", "MarkOutTime=02:00:10:10"}),
                  0)
            << stream << ": " << job.results;
    }
    EXPECT_THAT(log.text(), Not(HasSubstr("SrcFilename")));
}

// A Ctrl-C on a terminal that had become the service's would end the service.
TEST_F(CaptureWarningsTest, ATerminalAsASourceDoesNotBecomeThatOfTheService) {
    const PseudoTerminal terminal;
    const std::string field = "SrcFilename=" + terminal.name();
    EXPECT_EQ(terminalAfter([&] {
                  CaptureReencodeJob job(1, Job::CAPTURE_MEZZANINE_JOB);
                  setFields(job, {"Filename=/tmp/out.ts", enc1, field.c_str(), "DecoderIp=10.9.9.9",
                                  "MarkInTime=01:00:00:00", "MarkOutTime=02:00:00:00"});
              }),
              0);
}

TEST_F(CaptureWarningsTest, ATapeJobWithoutADeckThatCanBeReachedIsTakenWithAWarning) {
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
TEST_F(CaptureWarningsTest, WhatNoRuleForbidsIsTaken) {
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

TEST_F(CaptureWarningsTest, ATimeThatTheCalendarDoesNotHaveIsTakenWithAWarning) {
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

TEST_F(CaptureWarningsTest, ATimeOfTheCalendarIsTakenSilently) {
    for (const char* start :
         {"11/20/2026 10:00:00", " 1/2/2026  9:05:00 ", "02/29/2028 23:59:59", "+1/+2/2026 1:2:3"}) {
        CaptureScheduledJob job(1);
        EXPECT_EQ(setFields(job, {"Filename=/tmp/a", enc1, (std::string("StartTime=") + start).c_str(),
                                  "EndTime=12/20/2029 10:00:00"}),
                  0);
    }
    EXPECT_THAT(log.text(), Not(HasSubstr("Warning]")));
}

TEST_F(CaptureWarningsTest, WhyAnEndIsBeforeItsStartIsTold) {
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
TEST_F(CaptureWarningsTest, AnEndBehindAClockChangeIsRefusedAndToldAsSuch) {
    const kestrel::test::TimeZone newYork("EST5EDT,M3.2.0,M11.1.0");
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

TEST_F(CaptureWarningsTest, ACaptureWithoutLengthIsTakenAndTold) {
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

TEST_F(CaptureWarningsTest, AMarkBeyondADayIsTakenAndTold) {
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

TEST_F(CaptureWarningsTest, AnEncoderGivenTwiceIsTakenTwiceWithAWarning) {
    CaptureManualJob job(1);
    EXPECT_EQ(setFields(job, {"Filename=/tmp/a", enc1, "EncoderIp1=10.1.2.4"}), 0);
    EXPECT_EQ(log.text(), "");
    CaptureManualJob twice(2);
    EXPECT_EQ(setFields(twice, {"Filename=/tmp/a", enc1, "EncoderIp1=10.1.2.3"}), 0);
    EXPECT_EQ(log.text(),
              "[JobMgmt:Warning] EncoderIp1=10.1.2.3: the request has this encoder already. It is "
              "taken twice: the job's worker fails, or records the same twice.\r\n");
    ASSERT_EQ(twice.encoders.size(), 2U);
    EXPECT_EQ(twice.encoders[0], twice.encoders[1]);
}

TEST_F(CaptureWarningsTest, ANormalisationHasNoUseForEncodersHoweverOftenOneIsGiven) {
    MpegNormalizeJob job(1);
    EXPECT_EQ(setFields(job, {"Filename=/tmp/a", "SrcFilename=/tmp/b", enc1, "EncoderIp1=10.1.2.3"}), 0);
    EXPECT_EQ(log.text(), "");
}

TEST_F(CaptureWarningsTest, AFieldOfAnUnknownNameIsIgnoredWithAWarning) {
    CaptureManualJob job(1);
    EXPECT_EQ(setFields(job, {"Filename=/tmp/a", enc1, "FileName=/tmp/b", "NumEncoders=1"}), 0);
    EXPECT_STREQ(job.outputFile, "/tmp/a");
    EXPECT_THAT(log.text(),
                HasSubstr("[JobMgmt:Warning] FileName=/tmp/b: no field of this name is known, it is "
                          "ignored.\r\n"));
    EXPECT_THAT(log.text(), Not(HasSubstr("NumEncoders"))) << "known, though of no use here";
}
