// The capture jobs as records: their kinds, their copies, their command line and the worker's reports.
#include "jobs/CaptureJob.h"

#include "capture_requests.h"
#include "foundation/CapturedLog.h"

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

    CapturedLog log;
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

std::vector<int> fieldsOf(const mpeg_timecode& time) {
    return {time.hours, time.minutes, time.seconds, time.frames, time.dropFrame, time.frameRateCode};
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
    const mpeg_timecode zero;
    for (std::size_t i = 0; i < 3; ++i) {
        const auto& unreported = *job.statusDetails[i];
        EXPECT_EQ(fieldsOf(unreported.duration), fieldsOf(zero)) << "encoder " << i;
        EXPECT_EQ(unreported.number1, 0);
        EXPECT_EQ(unreported.number2, 0);
        EXPECT_EQ(unreported.number3, 0);
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
    static_assert(CaptureJob::STATUS_LIMIT == 64);
    for (const int index : {-1, INT_MIN, CaptureJob::STATUS_LIMIT, 2'000'000'000}) {
        _CaptureJobStatusData status = report(index, 1);
        job.UpdateStatus(&status);
    }
    job.UpdateStatus(nullptr);
    EXPECT_TRUE(job.statusDetails.empty());
    EXPECT_THAT(log.text(), HasSubstr("[JobMgmt:Warning] Job 1: status of encoder 64 is ignored, the last "
                                      "possible is 63."));
    EXPECT_THAT(log.text(), HasSubstr("status of encoder 2000000000 is ignored"));
    _CaptureJobStatusData last = report(CaptureJob::STATUS_LIMIT - 1, 1);
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
