// The verifier job: what it is told, what it starts, and how it names things.
#include "foundation/CapturedLog.h"
#include "verifier/VerifierJob.h"

#include "foundation/Logger.h"
#include "jobs/JobQueue.h"
#include "reports.h"

#include <cstring>
#include <gmock/gmock.h>
#include <sstream>
#include <unistd.h>

namespace {

constexpr const char* GUID = "0123456789abcdef0123456789abcdef";

class VerifierJobTest : public testing::Test {
protected:
    VerifierJobTest() : file(directory.file("a.ts", "x")) {}

    VerifierJob job(const char* property = "ALL", const char* disabled = "", bool blocking = false,
                    bool xml = false) const {
        return VerifierJob(file.c_str(), (directory.path("") + "").c_str(), GUID, property, 20, blocking, xml,
                           disabled, 8, "placeholder");
    }

    ScratchDir directory;
    std::string file;
};

TEST_F(VerifierJobTest, EveryPropertyHasItsCode) {
    const char* const names[] = {"QUICK",
                                 "VIDEO_ENCODING",
                                 "VIDEO_RESOLUTION",
                                 "VIDEO_ASPECT_RATIO",
                                 "TRANSPORT_RATE",
                                 "DROP_FRAME",
                                 "VIDEO_PID",
                                 "PCR_PID",
                                 "PMT_PID",
                                 "IS_HD",
                                 "VIDEO_FRAME_RATE",
                                 "IS_CC",
                                 "GOP_STRUCTURE",
                                 "VARIABLE_GOPS",
                                 "VIDEO_RATE",
                                 "GOP_LENGTH",
                                 "QUADBYTEALIGNED",
                                 "IS_MPEG2",
                                 "IS_MPEG4",
                                 "AUDIO_MODES",
                                 "ALL",
                                 "RUNTIME",
                                 "VIDEO_CBR",
                                 "NEEDS_REENCODING",
                                 "VALIDATION_ERRORS"};
    ASSERT_EQ(std::size(names), std::size_t{VerifierJob::PROPERTY_COUNT});
    for (int i = 0; i < VerifierJob::PROPERTY_COUNT; ++i) {
        EXPECT_STREQ(VerifierJob::PropertyNameStr[i], names[i]);
        EXPECT_EQ(VerifierJob::getPropertyName(names[i]), i);
        EXPECT_EQ(job(names[i]).property, i);
    }
    EXPECT_EQ(VerifierJob::getPropertyName("all"), -1);
    EXPECT_EQ(VerifierJob::getPropertyName(""), -1);
    EXPECT_EQ(VerifierJob::getPropertyName(nullptr), -1);
}

TEST_F(VerifierJobTest, EveryRuleHasItsFlag) {
    const char* const names[] = {"File_isMpeg2",
                                 "PMTPid_480",
                                 "PCRPid_481",
                                 "VideoPid_481",
                                 "GOPLength_FPS24_12",
                                 "GOPLength_FPSnot24_15",
                                 "GOPStructure_IBBP",
                                 "SD_Resolution_352x480_or_528x480",
                                 "Mpeg2SD_QuadByteAligned",
                                 "SD_TxRate_3p75Mbs",
                                 "SD_VidBR_3p18Mbs",
                                 "HD_TxRate_19Mbs",
                                 "HD_VidBR_18p1Mbs",
                                 "Audio_FirstPid_482",
                                 "Audio_PidsIncBy1",
                                 "AudioRate_192or384Kbps",
                                 "AudioRate_DD5p1_384Kbps",
                                 "AC3_AudioSamplingRate_48kHz",
                                 "Audio_isAC3"};
    ASSERT_EQ(std::size(names), std::size_t{VerifierJob::RULE_COUNT});
    for (int i = 0; i < VerifierJob::RULE_COUNT; ++i) {
        EXPECT_STREQ(VerifierJob::ValidationErrorEnabledStr[i], names[i]);
        EXPECT_EQ(VerifierJob::getValidationErrorFlag(names[i]), i);
        const VerifierJob one = job("ALL", names[i]);
        for (int rule = 0; rule < VerifierJob::RULE_COUNT; ++rule)
            EXPECT_EQ(one.validationErrorEnabled[rule], rule != i) << names[rule];
    }
    EXPECT_EQ(VerifierJob::getValidationErrorFlag("file_ismpeg2"), -1);
}

TEST_F(VerifierJobTest, RulesAreOnlySwitchedOffAndUnknownNamesIgnored) {
    VerifierJob some = job("ALL", "PMTPid_480;Audio_isAC3;Nonsense;");
    for (int rule = 0; rule < VerifierJob::RULE_COUNT; ++rule)
        EXPECT_EQ(some.validationErrorEnabled[rule], rule != 1 && rule != 18);
    some.setValidationErrorFlags(";;PMTPid_480;GOPStructure_IBBP");
    EXPECT_FALSE(some.validationErrorEnabled[1]);
    EXPECT_FALSE(some.validationErrorEnabled[6]);
    some.setValidationErrorFlags(nullptr);
    EXPECT_TRUE(some.validationErrorEnabled[0]);
}

TEST_F(VerifierJobTest, ANewJobIsAVerifierJobWithoutId) {
    const VerifierJob made = job();
    EXPECT_EQ(made.jobType, Job::VERIFIER_JOB);
    EXPECT_EQ(made.id, static_cast<unsigned long>(-1));
    EXPECT_STREQ(made.guidStr, GUID);
    EXPECT_EQ(made.duration, 20);
    EXPECT_EQ(made.numAudios, 8);
    EXPECT_STREQ(made.audioPlaceholder, "placeholder");
    EXPECT_FALSE(made.blocking);
    EXPECT_TRUE(job("ALL", "", true).blocking);
    EXPECT_TRUE(job("ALL", "", true, true).returnReportXml);
}

TEST_F(VerifierJobTest, AnEmptyJobHasNothing) {
    VerifierJob none;
    EXPECT_STREQ(none.fileName, "");
    EXPECT_STREQ(none.reportDir, "");
    EXPECT_EQ(none.property, -1);
    EXPECT_FALSE(none.blocking);
    EXPECT_FALSE(none.returnReportXml);
    EXPECT_EQ(none.numAudios, 0);
    EXPECT_EQ(none.validate(), 10013);
}

TEST_F(VerifierJobTest, EveryRuleIsOnAtConstruction) {
    const VerifierJob none;
    const VerifierJob made = job();
    for (int rule = 0; rule < VerifierJob::RULE_COUNT; ++rule) {
        EXPECT_TRUE(none.validationErrorEnabled[rule]) << rule;
        EXPECT_TRUE(made.validationErrorEnabled[rule]) << rule;
    }
}

TEST_F(VerifierJobTest, TheReportIsNamedByGuidAndFile) {
    const VerifierJob made("/in/a.ts", "/r/", "G", "ALL", 20, false, false, "", 0, "");
    EXPECT_STREQ(made.reportFilename, "/r/G-a.ts.report.xml");
    EXPECT_STREQ(VerifierJob("a.ts", "/r", "G", "ALL", 20, false, false, "", 0, "").reportFilename,
                 "/rG-a.ts.report.xml")
        << "the directory brings its separator";
}

TEST_F(VerifierJobTest, LongTextsAreCutAndTerminated) {
    const std::string longText(1000, 'n');
    const VerifierJob made(longText.c_str(), longText.c_str(), longText.c_str(), "ALL", 20, false, false,
                           longText.c_str(), 1, longText.c_str());
    EXPECT_EQ(std::strlen(made.fileName), 260U);
    EXPECT_EQ(std::strlen(made.reportDir), 260U);
    EXPECT_EQ(std::strlen(made.reportFilename), 260U + 32 + 1 + 260 + 11);
    EXPECT_EQ(std::strlen(made.audioPlaceholder), 259U);
}

TEST_F(VerifierJobTest, CopiesHaveAllFieldsAndTheirOwnReportName) {
    const VerifierJob original = job("IS_HD", "Audio_isAC3", true, true);
    const std::unique_ptr<VerifierJob> clone(original.clone());
    VerifierJob assigned;
    assigned = original;
    for (const VerifierJob* copy : {clone.get(), &assigned}) {
        EXPECT_STREQ(copy->fileName, original.fileName);
        EXPECT_STREQ(copy->reportDir, original.reportDir);
        EXPECT_STREQ(copy->reportFilename, original.reportFilename);
        EXPECT_EQ(copy->property, original.property);
        EXPECT_EQ(copy->duration, 20);
        EXPECT_TRUE(copy->blocking);
        EXPECT_TRUE(copy->returnReportXml);
        EXPECT_FALSE(copy->validationErrorEnabled[18]);
        EXPECT_TRUE(copy->validationErrorEnabled[0]);
        EXPECT_EQ(copy->numAudios, 8);
        EXPECT_STREQ(copy->audioPlaceholder, "placeholder");
        EXPECT_STREQ(copy->guidStr, GUID);
    }
}

TEST_F(VerifierJobTest, TheFirstFailingCheckIsNamed) {
    const auto check = [&](const char* fileName, const char* reports, const char* property) {
        VerifierJob made(fileName, reports, GUID, property, 20, false, false, "", 0, "");
        const int code = made.validate();
        return std::pair{code, made.resultsText()};
    };
    using Result = std::pair<int, std::string>;
    EXPECT_EQ(check("", "", "no"), Result(10013, "Error: Cannot add job - No source filename specified."));
    EXPECT_EQ(check("/no/such.ts", "", "no"), Result(10014, "Error: file /no/such.ts could not be found."));
    EXPECT_EQ(check(file.c_str(), "", "no"),
              Result(10012, "Error: Cannot add job - No output filename specified."));
    EXPECT_EQ(check(file.c_str(), "/tmp/", "no"), Result(10025, "Error: Invalid Mpeg Property."));
    EXPECT_EQ(check(file.c_str(), "/tmp/", "ALL"), Result(0, ""));
}

TEST_F(VerifierJobTest, FailuresAreLogged) {
    const CapturedLog log;
    VerifierJob bad("", "", GUID, "no", 20, false, false, "", 0, "");
    EXPECT_EQ(bad.validate(), 10013);
    EXPECT_THAT(log.text(), testing::HasSubstr("Error: Cannot add job - No source filename specified."));
    VerifierJob made = job("VIDEO_PID");
    char out[200];
    EXPECT_EQ(made.getJobResults(out, sizeof out), 10026);
    EXPECT_THAT(log.text(), testing::HasSubstr("Error: Failed to get requested Mpeg Property."));
}

TEST_F(VerifierJobTest, NamesThatAreNotKnownAreLoggedWithThoseThatAre) {
    const CapturedLog log;
    static_cast<void>(job("ALL", ";PMTPid_480;;Audio_isAC3;"));
    EXPECT_EQ(log.text(), "");
    static_cast<void>(job("ALL", "PMTPID_480;Audio_isAC3;Nonsense;"));
    std::string rules;
    for (const char* const name : VerifierJob::ValidationErrorEnabledStr)
        rules += (rules.empty() ? "" : ", ") + std::string(name);
    EXPECT_THAT(log.text(),
                testing::EndsWith("[JobMgmt:Warning] No rule has the name \"PMTPID_480\", \"Nonsense\", "
                                  "none is switched off for it; the rules are " +
                                  rules + ".\r\n"));
    static_cast<void>(job("BLOCK"));
    EXPECT_THAT(log.text(),
                testing::HasSubstr("[JobMgmt:Warning] \"BLOCK\" is no property; expected is one of "
                                   "QUICK, VIDEO_ENCODING, "));
    EXPECT_THAT(log.text(), testing::EndsWith("NEEDS_REENCODING, VALIDATION_ERRORS.\r\n"));
}

TEST_F(VerifierJobTest, TheCommandLineTellsTheWorkerEverything) {
    VerifierJob whole("/in/a.ts", "/r/", "G", "ALL", 20, false, false, "", 0, "");
    whole.setId(7);
    EXPECT_STREQ(
        whole.getCmdLine("/opt/v"),
        "/opt/v -r xml -report_dst /r/ -report_name G-a.ts.report.xml -out_queue_name /job_update_q_7 "
        "-in_queue_name /mgr_msg_q_7 -f /in/a.ts");
    VerifierJob brief("/in/a.ts", "/r/", "G", "AUDIO_MODES", 33, false, false, "", 0, "");
    brief.setId(8);
    EXPECT_STREQ(brief.getCmdLine("/opt/v"),
                 "/opt/v -r xml -report_dst /r/ -report_name G-a.ts.report.xml -duration 33 -out_queue_name "
                 "/job_update_q_8 -in_queue_name /mgr_msg_q_8 -f /in/a.ts");
}

TEST_F(VerifierJobTest, OnlyShortPropertiesLimitTheAnalysis) {
    for (int i = 0; i < VerifierJob::PROPERTY_COUNT; ++i) {
        VerifierJob one = job(VerifierJob::PropertyNameStr[i]);
        EXPECT_EQ(std::string(one.getCmdLine("v")).find(" -duration 20 ") != std::string::npos, i < 20) << i;
    }
}

TEST_F(VerifierJobTest, NamesWithBlanksStayOneArgument) {
    VerifierJob made("/in/my file.ts", "/r/", "G", "ALL", 20, false, false, "", 0, "");
    EXPECT_THAT(made.getCmdLine("v"), testing::EndsWith(" -f \"/in/my file.ts\""));
    EXPECT_THAT(made.getCmdLine("v"), testing::HasSubstr(" -report_name \"G-my file.ts.report.xml\" "));
}

TEST_F(VerifierJobTest, ACommandLineThatIsCutIsNotToBeRun) {
    const CapturedLog log;
    VerifierJob fits = job();
    fits.getCmdLine("/bin/flowScope");
    EXPECT_EQ(fits.commandLineErrno(), 0);
    EXPECT_EQ(log.text(), "");
    VerifierJob cut = job();
    EXPECT_EQ(std::strlen(cut.getCmdLine(("/bin/" + std::string(1'000, 'v')).c_str())),
              sizeof cut.cmdLine - 1);
    EXPECT_EQ(cut.commandLineErrno(), ENAMETOOLONG);
    EXPECT_THAT(
        log.text(),
        testing::HasSubstr("[JobMgmt:Error] Job -1 0123456789abcdef0123456789abcdef: the command line is "
                           "too long and is cut: /bin/vvv"));
    cut.getCmdLine("/bin/flowScope");
    EXPECT_EQ(cut.commandLineErrno(), 0);
}

TEST_F(VerifierJobTest, WhatHoldsADoubleQuoteIsNamed) {
    const struct {
        const char *file, *directory, *guid, *named;
    } rows[] = {
        {"/in/15\".ts", "/r/", "G", "in the name of the file cannot"},
        {"/in\"/a.ts", "/r/", "G", "in the name of the file cannot"},
        {"/in/a.ts", "/r\"/", "G", "in the report's directory cannot"},
        {"/in/a.ts", "/r/", "G\"", "in the GUID cannot"},
        {"/in/15\".ts", "/r/", "\"", "in the name of the file and the GUID cannot"},
        {"/in/15\".ts", "/\"/", "\"",
         "in the name of the file and the GUID and the report's directory cannot"},
    };
    for (const auto& row : rows) {
        const CapturedLog log;
        VerifierJob quoted(row.file, row.directory, row.guid, "ALL", 20, false, false, "", 0, "");
        quoted.getCmdLine("/bin/flowScope");
        EXPECT_EQ(quoted.commandLineErrno(), EINVAL) << row.named;
        EXPECT_THAT(log.text(), testing::HasSubstr(std::string("a double quote (\") ") + row.named +
                                                   " be passed to the verifier: /bin/flowScope -r xml"));
    }
    const CapturedLog log;
    VerifierJob none = job();
    none.getCmdLine("\"/bin/my flowScope\"");
    EXPECT_EQ(none.commandLineErrno(), 0) << "the program's own quotes are the profile's";
    EXPECT_EQ(log.text(), "");
}

TEST_F(VerifierJobTest, AReportWhoseNameNoFileCanHaveIsWarnedOf) {
    const CapturedLog log;
    const auto commandLineOf = [this](std::size_t length) {
        VerifierJob named((directory.path("") + std::string(length, 'n')).c_str(), directory.path("").c_str(),
                          GUID, "ALL", 20, false, false, "", 0, "");
        named.getCmdLine("/bin/flowScope");
    };
    constexpr std::size_t longest = 255 - 32 - 1 - 11; // less GUID, "-" and ".report.xml"
    commandLineOf(longest);
    EXPECT_EQ(log.text(), "");
    commandLineOf(longest + 1);
    EXPECT_THAT(log.text(),
                testing::HasSubstr("[JobMgmt:Warning] Job -1 0123456789abcdef0123456789abcdef: the "
                                   "name of the report has 256 bytes, a file's has at most 255: the "
                                   "verifier will not be able to write "));
}

TEST_F(VerifierJobTest, TheQueueKeepsAVerificationAsQueued) {
    JobQueue queue;
    const VerifierJob made = job();
    VerifierJob* const queued = queue.AddVerifierJob(made);
    ASSERT_NE(queued, nullptr);
    EXPECT_NE(queued, &made);
    EXPECT_EQ(queued->state(), Job::QUEUED);
    EXPECT_EQ(queued->id, 0UL);
    EXPECT_STREQ(queued->jobUpdateQueueName, "/job_update_q_0");
    EXPECT_STREQ(queued->fileName, made.fileName);
    EXPECT_EQ(queue.getJob(GUID), queued);
}

} // namespace
