// The capture jobs as records: their kinds, their rules, their command line and the worker's reports.
#include "jobs/CaptureJob.h"
#include "mpeg/ts_maker.h"

#include "capture_requests.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <type_traits>

using ::testing::HasSubstr;

namespace {

constexpr const char* enc1 = "EncoderIp0=10.1.2.3";

// Every class of the family can be made in all the documented ways.
template <typename T>
constexpr bool fullFamilyMember =
    std::is_default_constructible_v<T>&& std::is_constructible_v<T, unsigned long>&&
        std::is_copy_constructible_v<T>&& std::is_copy_assignable_v<T>&& std::has_virtual_destructor_v<T>&&
            std::is_same_v<decltype(std::declval<const T&>().clone()), T*>;
static_assert(fullFamilyMember<CaptureJob> && fullFamilyMember<CaptureManualJob> &&
              fullFamilyMember<CaptureTimedJob> && fullFamilyMember<CaptureScheduledJob> &&
              fullFamilyMember<CaptureRollingJob> && fullFamilyMember<CaptureVTRJob> &&
              fullFamilyMember<CaptureReencodeJob> && fullFamilyMember<MpegNormalizeJob>);
static_assert(std::is_constructible_v<CaptureReencodeJob, unsigned long, Job::JobType>);

class CaptureJobTest : public ::testing::Test {
protected:
    ~CaptureJobTest() override { ResourceMgr::Cleanup(); }

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

template <typename T>
void expectKind(Job::JobType type, Job::JobState state) {
    for (const T& job : {T(7), T()}) {
        EXPECT_EQ(job.jobType, type);
        EXPECT_EQ(job.jobState, state);
        EXPECT_EQ(job.outputFile, nullptr);
        EXPECT_TRUE(job.encoders.empty());
        EXPECT_TRUE(job.statusDetails.empty());
        EXPECT_STREQ(job.iniFilename, "");
        EXPECT_STREQ(job.logFilename, "");
    }
    EXPECT_EQ(T(7).id, 7u);
}

_CaptureJobStatusData report(int index, std::uint32_t frames) {
    _CaptureJobStatusData status{};
    status.encoderIndex = index;
    status.frames = frames;
    status.frameRateCode = 3;
    status.statusNumber1 = 1;
    status.statusNumber2 = 2;
    status.statusNumber3 = 3;
    return status;
}

} // namespace

TEST_F(CaptureJobTest, EachKindHasItsTypeAndInitialState) {
    expectKind<CaptureVTRJob>(Job::CAPTURE_VTR_JOB, Job::QUEUED);
    expectKind<CaptureManualJob>(Job::CAPTURE_MANUAL_JOB, Job::IN_PROGRESS);
    expectKind<CaptureTimedJob>(Job::CAPTURE_TIMED_JOB, Job::IN_PROGRESS);
    expectKind<CaptureScheduledJob>(Job::CAPTURE_SCHEDULED_JOB, Job::QUEUED);
    expectKind<CaptureRollingJob>(Job::CAPTURE_ROLLING_JOB, Job::IN_PROGRESS);
    expectKind<CaptureReencodeJob>(Job::CAPTURE_REENCODE_JOB, Job::QUEUED);
    expectKind<MpegNormalizeJob>(Job::CAPTURE_MPEG_NORMALIZE_JOB, Job::QUEUED);
    EXPECT_EQ(CaptureReencodeJob(7, Job::CAPTURE_MEZZANINE_JOB).jobType, Job::CAPTURE_MEZZANINE_JOB);
}

TEST_F(CaptureJobTest, ManualNeedsAnOutputFileThenAnEncoder) {
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

TEST_F(CaptureJobTest, AnEmptyOutputFileIsNone) {
    CaptureManualJob job(1);
    EXPECT_EQ(setFields(job, {"Filename=", enc1}), 10012);
}

TEST_F(CaptureJobTest, MoreEncodersThanTheSettingsHoldAreRefused) {
    CaptureManualJob job(1);
    EXPECT_EQ(setFields(job, {"Filename=/tmp/a", enc1, "EncoderIp1=10.1.2.4", "EncoderIp2=10.1.2.5"}), 10015);
    EXPECT_STREQ(job.results, "Error: Cannot add job - 3 encoders specified, at most 2 are supported.");
}

TEST_F(CaptureJobTest, TimedDoesNotCheckItsDuration) {
    CaptureTimedJob job(1);
    EXPECT_EQ(setFields(job, {"Filename=/tmp/a", enc1}), 0);
    EXPECT_EQ(setFields(job, {"Duration=nonsense"}), 0);
    EXPECT_STREQ(job.duration, "nonsense");
}

TEST_F(CaptureJobTest, RollingNeedsAMinuteBeforeItLooksAtTheRest) {
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

TEST_F(CaptureJobTest, ScheduledNeedsAStartAndAnEndNotBeforeIt) {
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
TEST_F(CaptureJobTest, ScheduledDaysThatTheNextMonthLacksCountBeyondIt) {
    CaptureScheduledJob job(1);
    EXPECT_EQ(setFields(job, {"Filename=/tmp/a", enc1, "StartTime=01/31/2026 23:00:00",
                              "EndTime=02/01/2026 01:00:00"}),
              10010);
}

TEST_F(CaptureJobTest, ScheduledTimesAreStoredAsGiven) {
    CaptureScheduledJob job(1);
    EXPECT_EQ(
        setFields(job, {"Filename=/tmp/a", enc1, "StartTime=5/6/2026 7:08:09", "EndTime=5/6/2026 8:0:0"}), 0);
    EXPECT_EQ(job.startTime, CTimeUtil(2026, 5, 6, 7, 8, 9));
    EXPECT_EQ(job.endTime, CTimeUtil(2026, 5, 6, 8, 0, 0));
    EXPECT_EQ(job.startTime.m_tm.tm_year, 2026);
    EXPECT_EQ(job.scheduledDuration, CTimeSpanUtil());
    EXPECT_EQ(job.elapsedSeconds(), 51 * 60 + 51);
}

TEST_F(CaptureJobTest, VtrMarks) {
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

TEST_F(CaptureJobTest, NormalizeNeedsASourceButNoEncoder) {
    MpegNormalizeJob job(1);
    EXPECT_EQ(setFields(job, {"Filename=/tmp/out.mpg"}), 10013);
    EXPECT_STREQ(job.results, "Error: Cannot add job - No source filename specified.");
    EXPECT_EQ(setFields(job, {"SrcFilename=/tmp/in.mpg"}), 0);
    EXPECT_STREQ(job.sourceFile, "/tmp/in.mpg");
    MpegNormalizeJob noOutput(1);
    EXPECT_EQ(setFields(noOutput, {"SrcFilename=/tmp/in.mpg"}), 10012);
}

TEST_F(CaptureJobTest, ReencodeNeedsASourceThenADecoder) {
    CaptureReencodeJob job(1);
    EXPECT_EQ(setFields(job, {"Filename=/tmp/out.mpg", enc1}), 10013);
    EXPECT_EQ(setFields(job, {"SrcFilename=/tmp/in.mpg"}), 10016);
    EXPECT_STREQ(job.results, "Error: Cannot add job - No decoder specified.");
    EXPECT_EQ(setFields(job, {"DecoderProfile=p"}), 10016) << "options alone name no decoder";
    EXPECT_EQ(setFields(job, {"DecoderIp=10.9.9.9"}), 0);
    CaptureReencodeJob bare(1);
    EXPECT_EQ(setFields(bare, {"SrcFilename=/tmp/in.mpg", "DecoderIp=10.9.9.9"}), 10012);
}

TEST_F(CaptureJobTest, MezzanineNeedsBothMarks) {
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

TEST_F(CaptureJobTest, MezzanineMarksFollowTheRateOfTheSource) {
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

TEST_F(CaptureJobTest, SetIdNamesTheBlackFile) {
    CaptureReencodeJob job(5);
    EXPECT_STREQ(job.blackFileSuffix, "_5");
    Job& base = job;
    base.setId(2147483646);
    EXPECT_STREQ(job.blackFileSuffix, "_2147483646");
    EXPECT_STREQ(job.mgrQueueName, "/mgr_msg_q_2147483646");
}

TEST_F(CaptureJobTest, OutputFileIsAnOwnedCopyThatNullClears) {
    CaptureManualJob job(1);
    std::string path = "/tmp/a";
    job.SetOutputFile(path.c_str());
    path[1] = 'X';
    EXPECT_STREQ(job.outputFile, "/tmp/a");
    job.SetOutputFile(job.outputFile);
    EXPECT_STREQ(job.outputFile, "/tmp/a");
    job.SetOutputFile(nullptr);
    EXPECT_EQ(job.outputFile, nullptr);
}

TEST_F(CaptureJobTest, NullDevicesAreIgnored) {
    CaptureVTRJob vtrJob(1);
    vtrJob.SetVTR(nullptr);
    vtrJob.AddEncoder(nullptr);
    CaptureReencodeJob reencode(1);
    reencode.SetDecoder(nullptr);
    EXPECT_TRUE(vtrJob.equipment.empty() && vtrJob.encoders.empty() && reencode.equipment.empty());
}

TEST_F(CaptureJobTest, LogFileIsNamedOnceAndKept) {
    CaptureManualJob job(12);
    std::snprintf(job.logDir, sizeof job.logDir, "/var/log/cap/");
    EXPECT_STREQ(job.getLogFilename(), "/var/log/cap/capture_12.log");
    std::snprintf(job.logDir, sizeof job.logDir, "/elsewhere/");
    job.setId(13);
    EXPECT_STREQ(job.getLogFilename(), "/var/log/cap/capture_12.log");
}

TEST_F(CaptureJobTest, CommandLineNamesSettingsQueuesAndLog) {
    CaptureManualJob job(904001);
    EXPECT_EQ(setFields(job, {"Filename=/tmp/a.mpg", enc1}), 0);
    std::snprintf(job.logDir, sizeof job.logDir, "/var/log/");
    EXPECT_STREQ(job.getCmdLine("/opt/kestrelCapture -encoders /etc/map.xml"),
                 "/opt/kestrelCapture -encoders /etc/map.xml -ini \"/tmp/capture_904001.xml\" "
                 "-wq /job_update_q_904001 -rq /mgr_msg_q_904001 -log /var/log/capture_904001.log");
    EXPECT_EQ(job.settingsErrno(), 0);
    EXPECT_EQ(std::remove("/tmp/capture_904001.xml"), 0) << "the settings file is written with it";
}

TEST_F(CaptureJobTest, ALineThatDoesNotFitIsCutAndReported) {
    CaptureManualJob job(904002);
    EXPECT_EQ(setFields(job, {"Filename=/tmp/a.mpg", enc1}), 0);
    const std::string program(2000, 'p');
    EXPECT_EQ(std::string(job.getCmdLine(program.c_str())).size(), sizeof job.cmdLine - 1);
    EXPECT_EQ(job.settingsErrno(), ENAMETOOLONG);
    std::remove("/tmp/capture_904002.xml");
}

TEST_F(CaptureJobTest, StatusCreatesTheEntriesUpToItsEncoder) {
    CaptureManualJob job(1);
    _CaptureJobStatusData status = report(3, 90 * 25 + 4);
    job.UpdateStatus(&status);
    ASSERT_EQ(job.statusDetails.size(), 4u);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(job.statusDetails[static_cast<std::size_t>(i)]->duration.frameRateCode, 0);
        EXPECT_EQ(job.statusDetails[static_cast<std::size_t>(i)]->number1, 0);
    }
    const auto& entry = *job.statusDetails[3];
    EXPECT_STREQ(mpeg_timecode(entry.duration).windows_string(), "00:01:30:04");
    EXPECT_EQ(entry.number1, 3);
    EXPECT_EQ(entry.number2, 1);
    EXPECT_EQ(entry.number3, 2);
    EXPECT_THAT(log.text(), HasSubstr(":Debug] DURATION 00:01:30:04"));

    status = report(3, 5);
    job.UpdateStatus(&status);
    EXPECT_EQ(job.statusDetails.size(), 4u);
    EXPECT_EQ(job.statusDetails[3]->duration.frame_count(), 5);
}

TEST_F(CaptureJobTest, StatusOfAnImpossibleEncoderIsDropped) {
    CaptureManualJob job(1);
    for (const int index : {-1, INT_MIN, 64, 2'000'000'000}) {
        _CaptureJobStatusData status = report(index, 1);
        job.UpdateStatus(&status);
    }
    job.UpdateStatus(nullptr);
    EXPECT_TRUE(job.statusDetails.empty());
    EXPECT_THAT(log.text(), HasSubstr("status of encoder 2000000000 is ignored"));
    _CaptureJobStatusData last = report(63, 1);
    job.UpdateStatus(&last);
    EXPECT_EQ(job.statusDetails.size(), 64u);
}

TEST_F(CaptureJobTest, StatusWithAnUnknownRateIsTaken) {
    CaptureManualJob job(1);
    _CaptureJobStatusData status = report(0, 0xffffffffu);
    status.frameRateCode = 0xffffffffu;
    status.dropFrame = 7;
    job.UpdateStatus(&status);
    ASSERT_EQ(job.statusDetails.size(), 1u);
    EXPECT_EQ(job.statusDetails[0]->number1, 3);
}

TEST_F(CaptureJobTest, CloneIsDeepAndOfTheSameKind) {
    CaptureRollingJob job(9);
    EXPECT_EQ(setFields(job, {"Filename=/tmp/a", enc1, "Duration=15", "StartTime=x"}), 0);
    _CaptureJobStatusData status = report(0, 10);
    job.UpdateStatus(&status);
    job.getLogFilename();

    const Job& base = job;
    std::unique_ptr<Job> copy(base.clone());
    auto* const rolling = dynamic_cast<CaptureRollingJob*>(copy.get());
    ASSERT_NE(rolling, nullptr);
    EXPECT_EQ(rolling->id, 9u);
    EXPECT_EQ(rolling->rollingDurationMin, 15);
    EXPECT_FALSE(rolling->rollingStartNow);
    EXPECT_STREQ(rolling->outputFile, "/tmp/a");
    EXPECT_NE(rolling->outputFile, job.outputFile);
    EXPECT_EQ(rolling->encoders, job.encoders);
    EXPECT_EQ(rolling->equipment, job.equipment);
    EXPECT_STREQ(rolling->logFilename, "capture_9.log");
    ASSERT_EQ(rolling->statusDetails.size(), 1u);
    EXPECT_NE(rolling->statusDetails[0], job.statusDetails[0]);
    EXPECT_EQ(rolling->statusDetails[0]->duration.frame_count(), 10);
}

TEST_F(CaptureJobTest, AssignmentTakesAllFieldsAndAppendsEquipment) {
    CaptureVTRJob from(3);
    EXPECT_EQ(setFields(from, {"Filename=/tmp/a", enc1, "MarkInTime=01:00:00:00", "MarkOutTime=02:00:00:00",
                               "VTR_Com_Port=COM3"}),
              0);
    CaptureVTRJob to(4);
    EXPECT_NE(setFields(to, {"EncoderIp0=10.1.2.99"}), 0);
    to = from;
    EXPECT_EQ(to.id, 3u);
    EXPECT_STREQ(to.markIn, "01:00:00:00");
    EXPECT_STREQ(to.markOut, "02:00:00:00");
    EXPECT_EQ(to.vtr, from.vtr);
    EXPECT_EQ(to.encoders, from.encoders);
    EXPECT_EQ(to.equipment.size(), from.equipment.size() + 1) << "the list is not emptied first";
    const CaptureVTRJob& self = to;
    to = self;
    EXPECT_STREQ(to.outputFile, "/tmp/a");
    EXPECT_EQ(to.equipment.size(), from.equipment.size() + 1);
}

TEST_F(CaptureJobTest, CopiesOfAJobWithAPlaceholderDecoderHaveTheirOwn) {
    CaptureReencodeJob job(1);
    EXPECT_NE(setFields(job, {"DecoderProfile=hd", "DecoderIntfIp=10.0.0.7"}), 0);
    ASSERT_NE(job.decoder, nullptr);
    EXPECT_TRUE(job.equipment.empty()) << "a placeholder is no equipment";
    CaptureReencodeJob copy(job);
    CaptureReencodeJob assigned;
    assigned = job;
    for (const CaptureReencodeJob* other : {&copy, &assigned}) {
        ASSERT_NE(other->decoder, nullptr);
        EXPECT_NE(other->decoder, job.decoder);
        EXPECT_STREQ(other->decoder->profile, "hd");
        EXPECT_EQ(other->decoder->interfaceAddress, 0x0a000007u);
    }
    EXPECT_NE(setFields(copy, {"DecoderIp=10.9.9.9"}), 0);
    EXPECT_STREQ(copy.decoder->profile, "hd");
}
