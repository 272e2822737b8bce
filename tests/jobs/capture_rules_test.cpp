// Which capture jobs are refused, with which code and in which words.
#include "capture_rules.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>

using ::testing::HasSubstr;

namespace {

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

TEST_F(CaptureRulesTest, TapeMarksMustBeGivenAndInOrder) {
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
