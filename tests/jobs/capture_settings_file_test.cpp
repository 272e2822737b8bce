// The settings file, read back the way the capture worker reads it, and as text.
#include "capture_profile/CSettings.h"
#include "capture_requests.h"
#include "foundation/CapturedLog.h"
#include "foundation/ScratchDir.h"
#include "foundation/TimeZone.h"
#include "mpeg/ts_maker.h"

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sys/stat.h>
#include <unistd.h>

using ::testing::HasSubstr;
using ::testing::Not;

namespace {

constexpr unsigned long jobId = 903001;
constexpr const char* path = "/tmp/capture_903001.xml";
constexpr const char* out = "Filename=/media/out.mpg";
constexpr const char* enc1 = "EncoderIp0=10.1.2.3";

class CaptureSettingsFileTest : public ::testing::Test {
protected:
    ~CaptureSettingsFileTest() override {
        std::remove(path);
        ResourceMgr::Cleanup();
    }

    CSettings written(CaptureJob& job) {
        EXPECT_EQ(job.CreateIniFile(), 0);
        EXPECT_STREQ(job.iniFilename, path);
        CSettings settings;
        EXPECT_TRUE(settings.LoadProfile(path));
        return settings;
    }

    static std::string text() { return contentOf(path); }

    CapturedLog log;
};

} // namespace

TEST_F(CaptureSettingsFileTest, EncodersFillTheReceptionsInOrder) {
    CaptureManualJob job(jobId);
    EXPECT_EQ(setFields(job, {out, enc1, "EncoderIp1=10.1.2.4"}), 0);
    Encoder& first = *job.encoders[0];
    first.snmpPort = 1161;
    first.frameOffsetNoVitc = -3;
    first.filePrefix = "pre_";
    first.mainCaptureDirectory = "/m";
    first.scheduleCaptureDirectory = "/s";
    first.rollingCaptureDirectory = "/r";
    first.mezzanineCaptureDirectory = "/z";
    first.lockMainCaptureDirectory = true;
    first.lockRollingCaptureDirectory = true;
    Encoder& second = *job.encoders[1];
    second.lockScheduleCaptureDirectory = true;
    second.lockMezzanineCaptureDirectory = true;

    const CSettings s = written(job);
    ASSERT_EQ(s.numEncoders, 2);
    EXPECT_EQ(s.encoders[0].snmpIpAddress, 0x0a010203u);
    EXPECT_EQ(s.encoders[0].snmpPort, 1161);
    EXPECT_EQ(s.encoders[0].frameOffsetNoVitc, -3);
    EXPECT_STREQ(s.encoders[0].filePrefix, "pre_");
    EXPECT_STREQ(s.encoders[0].mainCaptureDirectory, "/m");
    EXPECT_STREQ(s.encoders[0].scheduleCaptureDirectory, "/s");
    EXPECT_STREQ(s.encoders[0].batchCaptureDirectory, "");
    EXPECT_STREQ(s.encoders[0].rollingCaptureDirectory, "/r");
    EXPECT_STREQ(s.encoders[0].mezzanineCaptureDirectory, "/z");
    EXPECT_TRUE(s.encoders[0].lockMainCaptureDirectory);
    EXPECT_FALSE(s.encoders[0].lockScheduleCaptureDirectory);
    EXPECT_FALSE(s.encoders[0].lockBatchCaptureDirectory);
    EXPECT_TRUE(s.encoders[0].lockRollingCaptureDirectory);
    EXPECT_FALSE(s.encoders[0].lockMezzanineCaptureDirectory);
    EXPECT_EQ(s.encoders[1].snmpIpAddress, 0x0a010204u);
    EXPECT_EQ(s.encoders[1].snmpPort, 161);
    EXPECT_TRUE(s.encoders[1].lockScheduleCaptureDirectory);
    EXPECT_TRUE(s.encoders[1].lockMezzanineCaptureDirectory);
    EXPECT_EQ(s.encoders[0].gopFrameCount, 15) << "the rest keeps its defaults";
    EXPECT_EQ(s.cmd.jobType, CSettings::JOB_MANUAL);
    EXPECT_THAT(text(), HasSubstr("JOB_TYPE=\"MANUAL\""));
    EXPECT_THAT(text(), HasSubstr("RUN_TYPE=\"SERVICE_MGR_INVOKED\""));
    EXPECT_THAT(text(), HasSubstr("OUTPUT_FILE=\"/media/out.mpg\""));
}

TEST_F(CaptureSettingsFileTest, VitcSupportIsTheLastEncoders) {
    CaptureManualJob job(jobId);
    EXPECT_EQ(setFields(job, {out, enc1, "EncoderVitcInput=FALSE", "EncoderIp1=10.1.2.4"}), 0);
    EXPECT_TRUE(written(job).vtr.vitcSupport);
    EXPECT_EQ(setFields(job, {"EncoderVitcInput1=FALSE"}), 0);
    EXPECT_FALSE(written(job).vtr.vitcSupport);
}

TEST_F(CaptureSettingsFileTest, AnEncoderProfileThatDoesNotFitIsCutAndWarnedAbout) {
    const auto field = [](std::size_t length) { return "EncoderProfile0=" + std::string(length, 'p'); };
    CaptureManualJob fitting(jobId);
    EXPECT_EQ(setFields(fitting, {out, enc1, field(259).c_str()}), 0);
    EXPECT_EQ(written(fitting).encoders[0].profile, std::string(259, 'p'));
    EXPECT_THAT(log.text(), Not(HasSubstr("Warning]")));

    CaptureManualJob job(jobId);
    EXPECT_EQ(setFields(job, {out, enc1, field(280).c_str()}), 0);
    EXPECT_EQ(written(job).encoders[0].profile, std::string(259, 'p'));
    EXPECT_THAT(log.text(),
                HasSubstr("[JobMgmt:Warning] Job 903001: the profile of encoder 1 is too long and "
                          "was cut: " +
                          std::string(259, 'p') + "\r\n"));
}

TEST_F(CaptureSettingsFileTest, WhatThisRequestSaidOutlivesALaterRequest) {
    CaptureVTRJob job(jobId);
    EXPECT_EQ(setFields(job, {out, enc1, "EncoderProfile0=mine", "EncoderVitcInput0=FALSE",
                              "MarkInTime=01:00:00:00", "MarkOutTime=02:00:00:00", "VTR_Com_Port=COM3",
                              "VTR_UseInternalCue=TRUE"}),
              0);
    CaptureVTRJob other(jobId + 1);
    EXPECT_EQ(setFields(other, {out, enc1, "EncoderProfile0=theirs", "EncoderVitcInput0=TRUE",
                                "MarkInTime=01:00:00:00", "MarkOutTime=02:00:00:00", "VTR_Com_Port=COM3",
                                "VTR_UseInternalCue=FALSE"}),
              0);
    const std::unique_ptr<CaptureVTRJob> queued(job.clone());
    const CSettings s = written(*queued);
    EXPECT_STREQ(s.encoders[0].profile, "mine");
    EXPECT_FALSE(s.vtr.vitcSupport);
    EXPECT_TRUE(s.vtr.useInternalCue);

    CaptureManualJob silent(jobId);
    EXPECT_EQ(setFields(silent, {out, enc1}), 0);
    EXPECT_STREQ(written(silent).encoders[0].profile, "theirs") << "without a word of its own: the record's";
}

// A check of a request leaves its options at the devices, too.
TEST_F(CaptureSettingsFileTest, OptionsOfAnEarlierRequestAreTold) {
    constexpr const char* marks[] = {"MarkInTime=01:00:00:00", "MarkOutTime=02:00:00:00"};
    CaptureVTRJob checked(0);
    EXPECT_EQ(setFields(checked, {out, enc1, "EncoderProfile0=theirs", "EncoderVitcInput0=FALSE", marks[0],
                                  marks[1], "VTR_Com_Port=COM3", "VTR_UseInternalCue=TRUE"}),
              0);
    CaptureReencodeJob played(0);
    EXPECT_EQ(
        setFields(played, {out, enc1, "SrcFilename=/in.ts", "DecoderIp=10.9.9.9", "DecoderIntfIp=10.0.0.7"}),
        0);
    EXPECT_EQ(log.text(), "");

    CaptureVTRJob silent(jobId);
    EXPECT_EQ(setFields(silent, {out, enc1, marks[0], marks[1], "VTR_Com_Port=COM3"}), 0);
    EXPECT_STREQ(written(silent).encoders[0].profile, "theirs");
    const std::string told = "[JobMgmt:Info] Job 903001: ";
    EXPECT_EQ(log.text(),
              told + "EncoderProfile theirs of an earlier request for encoder 10.1.2.3 is used.\r\n" + told +
                  "EncoderVitcInput FALSE of an earlier request for encoder 10.1.2.3 is used.\r\n" + told +
                  "VTR_UseInternalCue TRUE of an earlier request for deck COM3 is used.\r\n");

    CaptureReencodeJob again(jobId);
    EXPECT_EQ(setFields(again, {out, "EncoderIp0=10.1.2.4", "SrcFilename=/in.ts", "DecoderIp=10.9.9.9"}), 0);
    const std::size_t before = log.text().size();
    EXPECT_EQ(written(again).decoder.interfaceAddress, 0x0a000007u);
    EXPECT_EQ(log.text().substr(before),
              told + "DecoderIntfIp 10.0.0.7 of an earlier request for decoder 10.9.9.9 is used.\r\n");
}

TEST_F(CaptureSettingsFileTest, ATapeJobTellsItsMarksItsDeckAndItsCue) {
    CaptureVTRJob job(jobId);
    EXPECT_EQ(
        setFields(job, {out, enc1, "MarkInTime=01:00:00:00", "MarkOutTime=02:00:00:00", "VTR_Com_Port=COM3"}),
        0);
    const CSettings s = written(job);
    EXPECT_EQ(s.cmd.jobType, CSettings::JOB_VTR);
    EXPECT_STREQ(s.cmd.markInTime, "01:00:00:00");
    EXPECT_STREQ(s.cmd.markOutTime, "02:00:00:00");
    EXPECT_STREQ(s.vtr.port, "COM3");
    EXPECT_FALSE(s.vtr.useInternalCue);
    EXPECT_THAT(text(), HasSubstr("JOB_TYPE=\"VTR\""));
}

TEST_F(CaptureSettingsFileTest, ASilentRequestTakesTheDecksOwnInternalCue) {
    ResourceMgr::GetResourceMgrInst()->GetVTR("COM3")->useInternalCue = true;
    CaptureVTRJob job(jobId);
    EXPECT_EQ(
        setFields(job, {out, enc1, "MarkInTime=01:00:00:00", "MarkOutTime=02:00:00:00", "VTR_Com_Port=COM3"}),
        0);
    EXPECT_TRUE(written(job).vtr.useInternalCue);
    EXPECT_THAT(text(), HasSubstr("USE_INTERNAL_CUE=\"TRUE\""));
    job.vtr->useInternalCue = false;
    EXPECT_FALSE(written(job).vtr.useInternalCue);
    EXPECT_THAT(text(), HasSubstr("USE_INTERNAL_CUE=\"FALSE\""));
}

TEST_F(CaptureSettingsFileTest, ATapeJobWithoutAPortTellsItsTypeAllTheSame) {
    CaptureVTRJob job(jobId);
    EXPECT_EQ(setFields(job, {out, enc1, "MarkInTime=01:00:00:00", "MarkOutTime=02:00:00:00"}), 0);
    EXPECT_EQ(written(job).cmd.jobType, CSettings::JOB_VTR);
}

TEST_F(CaptureSettingsFileTest, ATimedJobTellsItsDuration) {
    CaptureTimedJob job(jobId);
    EXPECT_EQ(setFields(job, {out, enc1, "Duration=00:30:00:12"}), 0);
    EXPECT_STREQ(written(job).cmd.duration, "00:30:00:12");
    EXPECT_THAT(text(), HasSubstr("JOB_TYPE=\"TIMED\""));
}

TEST_F(CaptureSettingsFileTest, ScheduledIsTimedWithTheRealTimeFromStartToEnd) {
    // A zone with daylight saving, so that the days on which the clocks change are seen.
    const kestrel::test::TimeZone zone(kestrel::test::SUMMER_TIME_ZONE);
    struct Row {
        const char* start;
        const char* end;
        const char* duration;
    };
    const Row rows[] = {
        {"StartTime=11/20/2026 10:00:00", "EndTime=11/20/2026 10:00:00", "00:00:00:00"},
        {"StartTime=11/20/2026 10:00:30", "EndTime=11/20/2026 11:00:29", "00:59:59:00"},
        {"StartTime=11/20/2026 23:59:59", "EndTime=11/21/2026 00:00:00", "00:00:01:00"},
        {"StartTime=11/30/2026 23:00:00", "EndTime=12/01/2026 01:00:00", "02:00:00:00"},
        {"StartTime=12/31/2026 23:00:00", "EndTime=01/01/2027 01:30:00", "02:30:00:00"},
        {"StartTime=02/28/2026 23:00:00", "EndTime=03/01/2026 01:00:00", "02:00:00:00"},
        {"StartTime=02/28/2028 23:00:00", "EndTime=03/01/2028 01:00:00", "26:00:00:00"},
        {"StartTime=03/28/2026 12:00:00", "EndTime=03/29/2026 12:00:00", "23:00:00:00"},
        {"StartTime=10/24/2026 12:00:00", "EndTime=10/25/2026 12:00:00", "25:00:00:00"},
        {"StartTime=11/01/2026 00:00:00", "EndTime=11/05/2026 03:59:59", "99:59:59:00"},
        {"StartTime=11/01/2026 00:00:00", "EndTime=11/05/2026 04:00:01", "100:00:01:00"},
        {"StartTime=01/01/2026 00:00:00", "EndTime=01/01/2126 00:00:00", "876576:00:00:00"},
    };
    for (const Row& row : rows) {
        CaptureScheduledJob job(jobId);
        EXPECT_EQ(setFields(job, {out, enc1, row.start, row.end}), 0) << row.start;
        EXPECT_STREQ(written(job).cmd.duration, row.duration) << row.start << " " << row.end;
        EXPECT_THAT(text(), HasSubstr("JOB_TYPE=\"TIMED\""));
    }
    CaptureScheduledJob direct(jobId);
    direct.startTime = CTimeUtil(126, 10, 30, 23, 0, 0);
    direct.endTime = CTimeUtil(126, 11, 1, 1, 0, 0);
    EXPECT_STREQ(written(direct).cmd.duration, "02:00:00:00") << "times set without a request";
}

TEST_F(CaptureSettingsFileTest, ARollingJobTellsItsSegmentsAndWhenItStarts) {
    CaptureRollingJob job(jobId);
    EXPECT_EQ(setFields(job, {out, enc1, "Duration=15"}), 0);
    CSettings s = written(job);
    EXPECT_EQ(s.cmd.rollingDurationMin, 15);
    EXPECT_TRUE(s.cmd.rollingStartNow);
    EXPECT_THAT(text(), HasSubstr("JOB_TYPE=\"ROLLING\""));
    job.rollingStartNow = false;
    EXPECT_FALSE(written(job).cmd.rollingStartNow);
}

TEST_F(CaptureSettingsFileTest, JobsThatPlayASourceTellItAndTheirDecoder) {
    // A mezzanine's marks are checked against the source.
    const ScratchDir directory;
    TsMaker stream;
    stream.tables({{0x02, 0x100}});
    for (int i = 0; i < 3; ++i)
        stream.pes(0x100, pesHeader(1), sequenceHeader(720, 576, 3) + gopHeader(0, 0, i, 0) + filler(500));
    const std::string source = stream.write(directory);
    const std::string sourceField = "SrcFilename=" + source;
    struct Row {
        Job::JobType type;
        const char* name;
    };
    for (const Row& row : {Row{Job::CAPTURE_REENCODE_JOB, "JOB_TYPE=\"TIMED_REENCODE\""},
                           Row{Job::CAPTURE_MEZZANINE_JOB, "JOB_TYPE=\"MEZZANINE\""}}) {
        CaptureReencodeJob job(jobId, row.type);
        EXPECT_EQ(
            setFields(job, {out, enc1, sourceField.c_str(), "DecoderIp=10.9.9.9", "DecoderIntfIp=10.0.0.7",
                            "MarkInTime=01:00:00:00", "MarkOutTime=02:00:00:00"}),
            0);
        job.decoder->streamAddress = 0xe0000105;
        job.decoder->interfaceAddress = 9; // another request's word
        const CSettings s = written(job);
        EXPECT_THAT(text(), HasSubstr(row.name));
        EXPECT_EQ(s.cmd.sourceFile, source);
        EXPECT_STREQ(s.cmd.blackFileSuffix, "_903001");
        EXPECT_EQ(s.decoder.controlAddress, 0x0a090909u);
        EXPECT_EQ(s.decoder.interfaceAddress, 0x0a000007u);
        EXPECT_EQ(s.decoder.ipAddress, 0xe0000105u);
        EXPECT_STREQ(s.cmd.markInTime, row.type == Job::CAPTURE_MEZZANINE_JOB ? "01:00:00:00" : "");
        EXPECT_STREQ(s.cmd.markOutTime, row.type == Job::CAPTURE_MEZZANINE_JOB ? "02:00:00:00" : "");
    }
}

TEST_F(CaptureSettingsFileTest, TheDecodersStreamNumberIsInTheRecordButNotInTheFile) {
    struct DescribedJob : CaptureReencodeJob {
        using CaptureReencodeJob::CaptureReencodeJob;
        using CaptureReencodeJob::describe;
    };
    DescribedJob job(jobId);
    EXPECT_EQ(setFields(job, {out, enc1, "SrcFilename=/media/in.mpg", "DecoderIp=10.9.9.9"}), 0);
    job.decoder->streamNumber = 4711;
    CSettings settings;
    settings.Init();
    job.describe(settings);
    EXPECT_EQ(settings.decoderStreamNumber, 4711);
    EXPECT_EQ(written(job).decoderStreamNumber, 0);
    EXPECT_THAT(text(), Not(HasSubstr("4711")));
}

TEST_F(CaptureSettingsFileTest, ANormalisationTellsItsSourceAndNoEncoder) {
    MpegNormalizeJob job(jobId);
    EXPECT_EQ(setFields(job, {out, "SrcFilename=/media/in.mpg"}), 0);
    const CSettings s = written(job);
    EXPECT_EQ(s.numEncoders, 0);
    EXPECT_STREQ(s.cmd.sourceFile, "/media/in.mpg");
    EXPECT_THAT(text(), HasSubstr("JOB_TYPE=\"MPEG_NORMALIZE\""));
}

TEST_F(CaptureSettingsFileTest, RelativeNamesAreTakenAsTheyAreAndToldWithTheirWholePaths) {
    const std::filesystem::path here = std::filesystem::current_path();
    const std::string told = "[JobMgmt:Info] Job 903001: ";
    const auto relative = [&](const std::string& field, const std::string& name, const std::string& base) {
        return told + field + " \"" + name + "\" is relative and is taken against " + base + ": " + base +
               "/" + name + "\r\n";
    };
    MpegNormalizeJob job(jobId);
    EXPECT_EQ(setFields(job, {"Filename=day/out.ts", "SrcFilename=../in.ts"}), 0);
    EXPECT_EQ(log.text(), "");
    const CSettings s = written(job);
    EXPECT_STREQ(s.cmd.outputFile, "day/out.ts");
    EXPECT_STREQ(s.cmd.sourceFile, "../in.ts");
    EXPECT_EQ(log.text(),
              relative("Filename", "day/out.ts", here) + relative("SrcFilename", "../in.ts", here));

    // An encoder's own directory comes first, be it a whole path or not.
    for (const char* directory : {"/media/main", "main"}) {
        const std::size_t before = log.text().size();
        CaptureManualJob recorded(jobId);
        EXPECT_EQ(setFields(recorded, {"Filename=out.ts", enc1}), 0);
        recorded.encoders[0]->mainCaptureDirectory = directory;
        written(recorded);
        EXPECT_EQ(log.text().substr(before), relative("Filename", "out.ts", here / directory));
    }
}

TEST_F(CaptureSettingsFileTest, ReplacesAnEarlierFile) {
    std::ofstream(path) << std::string(100000, 'x');
    CaptureManualJob job(jobId);
    EXPECT_EQ(setFields(job, {out, enc1}), 0);
    written(job);
    EXPECT_THAT(text(), Not(HasSubstr("xxx")));
}

TEST_F(CaptureSettingsFileTest, AnOutputFileThatDoesNotFitIsNotCut) {
    CaptureManualJob job(jobId);
    const std::string longName = "Filename=/" + std::string(300, 'o');
    EXPECT_EQ(setFields(job, {longName.c_str(), enc1}), 0);
    EXPECT_EQ(job.CreateIniFile(), ENAMETOOLONG);
    EXPECT_NE(access(path, F_OK), 0);
}

TEST_F(CaptureSettingsFileTest, AFailureIsRememberedAndTheLineStillBuilt) {
    CaptureManualJob job(jobId);
    EXPECT_EQ(setFields(job, {out, enc1}), 0);
    // A directory in the way cannot be replaced by a file, whoever runs this.
    ASSERT_EQ(mkdir(path, 0755), 0);
    EXPECT_THAT(job.getCmdLine("worker"), HasSubstr("worker -ini \"/tmp/capture_903001.xml\" -wq "));
    EXPECT_EQ(job.settingsErrno(), EISDIR);
    EXPECT_THAT(log.text(), HasSubstr("Could not write the settings file /tmp/capture_903001.xml: "));
    EXPECT_EQ(std::unique_ptr<CaptureManualJob>(job.clone())->settingsErrno(), EISDIR);
    ASSERT_EQ(rmdir(path), 0);
    job.getCmdLine("worker");
    EXPECT_EQ(job.settingsErrno(), 0);
}
