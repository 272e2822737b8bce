// Jobs over the protocol with real worker processes: begin, states, results, logs, abort, failure.
#include "foundation/ProcessTree.h"
#include "system/isolation.h"
#include "system/service_under_test.h"

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sstream>

using namespace kestrel::test;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

namespace {

constexpr const char* ENCODER = "EncoderIp=127.0.0.1";

std::string begin(const std::string& guid, const std::string& type, const std::string& fields) {
    return "CAPTURE,JOB_BEGIN," + guid + "," + type + "," + fields;
}

std::string manual(const std::string& guid) {
    return begin(guid, "CAPTURE_MANUAL_JOB", std::string("Filename=/tmp/out.ts,") + ENCODER);
}

// A job whose worker starts and stays QUEUED while it runs.
std::string queued(const std::string& guid) {
    return begin(guid, "CAPTURE_MPEG_NORMALIZE_JOB", "Filename=/tmp/out.ts,SrcFilename=/tmp/in.ts");
}

struct KindCase {
    const char* type;
    const char* fields;
    const char* missing;      // the same without one needed field
    const char* missingError; // and what it answers
    const char* stateWhileRunning;
};

// Shown in the names of the tests.
void PrintTo(const KindCase& kind, std::ostream* out) {
    *out << kind.fields;
}

class EveryKind : public testing::TestWithParam<KindCase> {};

TEST_P(EveryKind, IsValidatedBegunAndCompleted) {
    const KindCase& kind = GetParam();
    ServiceUnderTest service;
    const std::string go = service.root() / "go";
    service.setWorker("--wait-file " + go + " --say 7:done");
    service.start();

    EXPECT_EQ(service.ask(std::string("CAPTURE,JOB_VALIDATE,1,") + kind.type + "," + kind.fields), "TRUE");
    EXPECT_EQ(service.ask("JOB_STATUS,1"), "FALSE - Error: Invalid job GUID 1.") << "validation queued a job";
    EXPECT_EQ(service.ask(std::string("CAPTURE,JOB_VALIDATE,1,") + kind.type + "," + kind.missing),
              std::string("FALSE - ") + kind.missingError);
    EXPECT_EQ(service.ask(begin("1", kind.type, kind.missing)), std::string("FALSE - ") + kind.missingError);

    EXPECT_EQ(service.ask(begin("1", kind.type, kind.fields)), "TRUE");
    EXPECT_EQ(service.ask("JOB_STATUS,1"), std::string("TRUE - ") + kind.stateWhileRunning);
    std::ofstream(go) << "go";
    EXPECT_EQ(service.waitForState("1", "COMPLETE"), "TRUE - COMPLETE");
    EXPECT_EQ(service.ask("JOB_RESULTS,1"), "TRUE - done");
}

INSTANTIATE_TEST_SUITE_P(
    Capture, EveryKind,
    testing::Values(
        KindCase{"CAPTURE_VTR_JOB",
                 "Filename=/tmp/"
                 "o.ts,EncoderIp=127.0.0.1,VTR_Com_Port=COM1,MarkInTime=01:00:00:00,MarkOutTime=01:00:10:00",
                 "Filename=/tmp/"
                 "o.ts,EncoderIp=127.0.0.1,VTR_Com_Port=COM1,MarkInTime=01:00:00:00,MarkOutTime=01:00:00:00",
                 "Error: Mark out time must be greater than Mark in time.", "QUEUED"},
        KindCase{"CAPTURE_MANUAL_JOB", "Filename=/tmp/o.ts,EncoderIp=127.0.0.1", "EncoderIp=127.0.0.1",
                 "Error: Cannot add job - No output filename specified.", "IN_PROGRESS"},
        KindCase{"CAPTURE_TIMED_JOB", "Filename=/tmp/o.ts,EncoderIp=127.0.0.1,Duration=00:00:10:00",
                 "Filename=/tmp/o.ts,Duration=00:00:10:00", "Error: Cannot add job - No encoder specified.",
                 "IN_PROGRESS"},
        KindCase{"CAPTURE_SCHEDULED_JOB",
                 "Filename=/tmp/o.ts,EncoderIp=127.0.0.1,StartTime=11/21/2026 10:00:00,EndTime=11/21/2026 "
                 "11:00:00",
                 "Filename=/tmp/o.ts,EncoderIp=127.0.0.1,StartTime=11/21/2026 10:00:00,EndTime=11/21/2026 "
                 "09:00:00",
                 "Error: End time is less than start time.", "QUEUED"},
        KindCase{"CAPTURE_ROLLING_JOB", "Filename=/tmp/o.ts,EncoderIp=127.0.0.1,Duration=5",
                 "Filename=/tmp/o.ts,EncoderIp=127.0.0.1,Duration=0",
                 "Error: Invalid Rolling Capture duration 0.", "IN_PROGRESS"},
        KindCase{"CAPTURE_REENCODE_JOB",
                 "Filename=/tmp/o.ts,EncoderIp=127.0.0.1,SrcFilename=/tmp/in.ts,DecoderIp=127.0.0.2",
                 "Filename=/tmp/o.ts,EncoderIp=127.0.0.1,SrcFilename=/tmp/in.ts,DecoderIp=somewhere",
                 "Error: Cannot add job - No decoder specified.", "QUEUED"},
        KindCase{"CAPTURE_MPEG_NORMALIZE_JOB", "Filename=/tmp/o.ts,SrcFilename=/tmp/in.ts",
                 "Filename=/tmp/o.ts", "Error: Cannot add job - No source filename specified.", "QUEUED"}),
    [](const auto& each) { return std::string(each.param.type); });

TEST(Jobs, AMezzanineJobNeedsItsMarks) {
    ServiceUnderTest service;
    service.start();
    EXPECT_EQ(
        service.ask("CAPTURE,JOB_VALIDATE,1,CAPTURE_MEZZANINE_JOB,Filename=/tmp/o.ts,EncoderIp=127.0.0.1,"
                    "SrcFilename=/tmp/in.ts,DecoderIp=127.0.0.2"),
        "FALSE - Error: Must specify Mark In Time and Mark Out Time.");
}

TEST(Jobs, AMezzanineJobIsCheckedAgainstItsSourcesRealFrameRate) {
    ServiceUnderTest service;
    const std::string source = service.root() / "source.ts";
    ASSERT_EQ(
        std::system(("ffmpeg -v error -nostdin -f lavfi -i testsrc2=size=320x240:rate=30000/1001 -t 2 -c:v "
                     "mpeg2video -g 15 -f mpegts " +
                     source)
                        .c_str()),
        0);
    const std::string go = service.root() / "go";
    service.setWorker("--wait-file " + go);
    service.start();
    const auto mezzanine = [&](const char* type, const char* in, const char* out) {
        return service.ask(std::string("CAPTURE,") + type + ",1,CAPTURE_MEZZANINE_JOB,Filename=/tmp/o.ts," +
                           ENCODER + ",SrcFilename=" + source + ",DecoderIp=127.0.0.2,MarkInTime=" + in +
                           ",MarkOutTime=" + out);
    };
    EXPECT_EQ(mezzanine("JOB_VALIDATE", "00:01:00:00", "00:02:00:10"),
              "FALSE - Error: Invalid timecode parameter 00:01:00:00 for frame rate 29.970030.")
        << "a label that drop-frame counting skips";
    EXPECT_EQ(mezzanine("JOB_VALIDATE", "00:01:00:10", "00:01:00:10"),
              "FALSE - Error: Mark out time must be greater than Mark in time.");
    EXPECT_EQ(mezzanine("JOB_VALIDATE", "00:01:00:10", "00:01:00:29"), "TRUE");
    EXPECT_EQ(mezzanine("JOB_BEGIN", "00:00:00:00", "00:00:01:00"), "TRUE");
    EXPECT_EQ(service.ask("JOB_STATUS,1"), "TRUE - QUEUED");
    std::ofstream(go) << "go";
    EXPECT_EQ(service.waitForState("1", "COMPLETE"), "TRUE - COMPLETE");
}

// Which labels exist depends on what the source really is.
struct MezzanineSource {
    const char* name;
    const char* rate;
    const char* codec;
    const char* taken;
    const char* refused; // by its rate, as the answer prints it
    const char* printed;
};

class MezzanineSources : public testing::TestWithParam<MezzanineSource> {};

TEST_P(MezzanineSources, MarksAreHeldToTheRateOfTheSource) {
    const MezzanineSource& each = GetParam();
    ServiceUnderTest service;
    const std::string source = service.root() / "source.ts";
    ASSERT_EQ(std::system(("ffmpeg -v error -nostdin -f lavfi -i testsrc2=size=320x240:rate=" +
                           std::string(each.rate) + " -t 2 -c:v " + each.codec + " -g 15 -f mpegts " + source)
                              .c_str()),
              0);
    service.start();
    const auto validate = [&](const char* in) {
        return service.ask(std::string("CAPTURE,JOB_VALIDATE,1,CAPTURE_MEZZANINE_JOB,Filename=/tmp/o.ts,") +
                           ENCODER + ",SrcFilename=" + source + ",DecoderIp=127.0.0.2,MarkInTime=" + in +
                           ",MarkOutTime=00:02:00:10");
    };
    EXPECT_EQ(validate(each.taken), "TRUE");
    EXPECT_EQ(validate(each.refused), std::string("FALSE - Error: Invalid timecode parameter ") +
                                          each.refused + " for frame rate " + each.printed + ".");
}

INSTANTIATE_TEST_SUITE_P(Jobs, MezzanineSources,
                         testing::Values(MezzanineSource{"At25", "25", "mpeg2video", "00:01:00:00",
                                                         "00:01:00:25", "25.000000"},
                                         MezzanineSource{"At59_94", "60000/1001", "mpeg2video", "00:01:00:04",
                                                         "00:01:00:03", "59.940060"},
                                         MezzanineSource{"H264At25", "25", "libx264 -bf 2", "00:01:00:00",
                                                         "00:01:00:25", "25.000000"}),
                         [](const auto& each) { return std::string(each.param.name); });

TEST(Jobs, AnEncoderAddressThatIsNoneAddsNoEncoderAndIsLogged) {
    ServiceUnderTest service;
    service.start();
    EXPECT_EQ(service.ask("CAPTURE,JOB_VALIDATE,1,CAPTURE_MANUAL_JOB,Filename=/tmp/o.ts,EncoderIp=studio7"),
              "FALSE - Error: Cannot add job - No encoder specified.");
    EXPECT_TRUE(service.waitForLog("[JobMgmt:Warning] EncoderIp: \"studio7\" is not"));
}

TEST(Jobs, MoreThanTwoEncodersAreRefused) {
    ServiceUnderTest service;
    service.start();
    const std::string answer =
        service.ask("CAPTURE,JOB_VALIDATE,1,CAPTURE_MANUAL_JOB,Filename=/tmp/o.ts,EncoderIp0=127.0.0.1,"
                    "EncoderIp1=127.0.0.2,EncoderIp2=127.0.0.3");
    EXPECT_THAT(answer, StartsWith("FALSE - "));
    EXPECT_THAT(answer, HasSubstr("3"));
}

TEST(Jobs, AWorkerThatFailsMakesTheJobAnErrorWithTheWorkersText) {
    ServiceUnderTest service;
    service.setWorker("--say 7:No_stream --say 0: --exit 3");
    service.start();
    ASSERT_EQ(service.ask(manual("1")), "TRUE");
    EXPECT_EQ(service.waitForState("1", "ERROR"), "TRUE - ERROR");
    EXPECT_THAT(service.ask("JOB_RESULTS,1"), HasSubstr("No_stream"));
    EXPECT_TRUE(service.waitForLog("exited with code 3."));
    EXPECT_TRUE(service.waitForLog("EXIT_MSG"));
}

TEST(Jobs, AMissingProgramIsExitCode255) {
    ServiceUnderTest service;
    service.set("Capture", "EXE", "/nonexistent/recorder");
    service.start();
    service.ask(manual("1"));
    EXPECT_EQ(service.waitForState("1", "ERROR"), "TRUE - ERROR");
    EXPECT_TRUE(service.waitForLog("exited with code 255."));
    const std::string reason =
        "Error: Could not run /nonexistent/recorder: errno 2 (No such file or directory).";
    EXPECT_EQ(service.ask("JOB_RESULTS,1"), "TRUE - " + reason);
    EXPECT_THAT(service.log(), HasSubstr("[JobLauncher:Error] " + reason));
}

TEST(Jobs, ASecondJobOfAGuidRunsAndTheFirstOneAnswersForIt) {
    ServiceUnderTest service;
    service.setWorker("--exit 3");
    service.start();
    ASSERT_EQ(service.ask(manual("cafe")), "TRUE");
    EXPECT_EQ(service.waitForState("cafe", "ERROR"), "TRUE - ERROR");
    EXPECT_THAT(service.log(), Not(HasSubstr("GUID cafe is that of")));
    // The same again, in other letters.
    ASSERT_EQ(service.ask(manual("CA-FE")), "TRUE");
    EXPECT_TRUE(
        service.waitForLog("[Manager:Warning] GUID CA-FE is that of job 0 (ERROR) already: requests for it "
                           "are answered for that one."));
    EXPECT_THAT(service.ask("CAPTURE,JOB_LOGFILENAME,cafe"), HasSubstr("capture_0.log"));
    EXPECT_TRUE(service.waitForLog("capture_1.log"));
}

TEST(Jobs, ANameInPlaceOfAGuidIsWarnedOf) {
    ServiceUnderTest service;
    service.setWorker("--exit 0");
    service.start();
    ASSERT_EQ(service.ask(manual("news-1")), "TRUE");
    EXPECT_TRUE(
        service.waitForLog("[JobMgmt:Warning] GUID \"news-1\": what is no hex digit is left out (nws). It "
                           "is taken as 0E010000000000000000000000000000,"));
    EXPECT_EQ(service.ask("JOB_STATUS,e1"), "FALSE - Error: Invalid job GUID e1.")
        << "two digits in a row are one byte";
    EXPECT_EQ(service.waitForState("e-1", "COMPLETE"), "TRUE - COMPLETE");
}

TEST(Jobs, AnArgumentThatIsNoFieldIsIgnoredWithAWarning) {
    ServiceUnderTest service;
    service.start();
    EXPECT_EQ(service.ask(manual("1") + ",nonsense"), "TRUE");
    EXPECT_TRUE(
        service.waitForLog("[RequestMessages:Warning] \"nonsense\" is not of the form name=value, it is "
                           "ignored."));
}

TEST(Jobs, AWorkerKilledByASignalIsAnError) {
    ServiceUnderTest service;
    service.setWorker("--signal 9");
    service.start();
    ASSERT_EQ(service.ask(manual("1")), "TRUE");
    EXPECT_EQ(service.waitForState("1", "ERROR"), "TRUE - ERROR");
    EXPECT_TRUE(service.waitForLog("exited, but could not retrieve exit code.  Was exit() used?"));
}

TEST(Jobs, AWorkerThatIsStoppedIsAnError) {
    ServiceUnderTest service;
    service.setWorker("--signal 19");
    service.start();
    ASSERT_EQ(service.ask(manual("1")), "TRUE");
    const std::vector<pid_t> workers = service.children();
    EXPECT_EQ(service.waitForState("1", "ERROR"), "TRUE - ERROR");
    for (const pid_t worker : workers)
        kestrel::test::signalTo(worker, SIGKILL);
}

TEST(Jobs, AbortOfAJobInProgressReachesTheWorkerAndTheStateStaysCancelled) {
    ServiceUnderTest service;
    const std::string note = service.root() / "cancelled";
    service.setWorker("--wait-cancel --write " + note + ":5 --say 7:Ended_early");
    service.start();
    ASSERT_EQ(service.ask(manual("1")), "TRUE");
    EXPECT_EQ(service.ask("CAPTURE,JOB_ABORT,1"), "TRUE");
    EXPECT_EQ(service.ask("JOB_STATUS,1"), "TRUE - CANCELLED");
    EXPECT_TRUE(service.waitForLog("Info: Job process returned SUCCESS."));
    EXPECT_EQ(contentOf(note), "5\n");
    EXPECT_EQ(service.ask("JOB_STATUS,1"), "TRUE - CANCELLED");
    EXPECT_EQ(service.ask("JOB_RESULTS,1"), "TRUE - Ended_early");
}

TEST(Jobs, AbortOfAQueuedJobOnlyChangesItsState) {
    ServiceUnderTest service;
    const std::string go = service.root() / "go";
    const std::string note = service.root() / "ran";
    service.setWorker("--wait-file " + go + " --write " + note + ":on");
    service.start();
    ASSERT_EQ(service.ask(queued("1")), "TRUE");
    EXPECT_EQ(service.ask("CAPTURE,JOB_ABORT,1"), "TRUE");
    EXPECT_EQ(service.ask("JOB_STATUS,1"), "TRUE - CANCELLED");
    std::ofstream(go) << "go";
    EXPECT_TRUE(service.waitForLog("Info: Job process returned SUCCESS."));
    EXPECT_EQ(contentOf(note), "on\n") << "the worker of a queued job is left to run to its end";
    EXPECT_EQ(service.ask("JOB_STATUS,1"), "TRUE - CANCELLED");
}

TEST(Jobs, AbortOfAJobWhoseQueueIsGoneSaysSoAndKeepsTheState) {
    ServiceUnderTest service;
    const std::string go = service.root() / "go";
    const std::string up = service.root() / "up";
    service.setWorker("--write " + up + ":on --wait-file " + go);
    service.start();
    ASSERT_EQ(service.ask(manual("1")), "TRUE");
    // The worker has its queues open from here on.
    ASSERT_TRUE(eventually([&] { return std::filesystem::exists(up); }));
    ASSERT_THAT(messageQueues(), testing::Contains("mgr_msg_q_0"));
    ASSERT_TRUE(std::filesystem::remove(std::filesystem::path(queueDirectory()) / "mgr_msg_q_0"));
    EXPECT_THAT(service.ask("CAPTURE,JOB_ABORT,1"),
                StartsWith("FALSE - Error: Could not connect to queue /mgr_msg_q_0."));
    EXPECT_EQ(service.ask("JOB_STATUS,1"), "TRUE - IN_PROGRESS");
    std::ofstream(go) << "go";
}

TEST(Jobs, ASilentWorkerIsNoLongerWatchedKeepsItsStateAndIsReapedLater) {
    ServiceUnderTest service;
    const std::string go = service.root() / "go";
    service.set("Job", "HEARTBEAT_TIMEOUT_SECS", "1");
    service.setWorker("--wait-file " + go);
    service.start();
    ASSERT_EQ(service.ask(manual("1")), "TRUE");
    EXPECT_TRUE(service.waitForLog("No status message in last 1 seconds, terminating job 0 1."));
    EXPECT_EQ(service.ask("JOB_STATUS,1"), "TRUE - IN_PROGRESS");
    EXPECT_EQ(service.children().size(), 1U) << "the worker is left running";
    EXPECT_TRUE(eventually([] { return messageQueues().empty(); }));
    std::ofstream(go) << "go";
    EXPECT_TRUE(eventually([&] { return service.children().empty(); })) << "no zombie stays";
}

TEST(Jobs, HeartbeatsKeepAQuietWorkerWatched) {
    ServiceUnderTest service;
    service.set("Job", "HEARTBEAT_TIMEOUT_SECS", "1");
    std::string life;
    for (int i = 0; i < 6; ++i)
        life += "--sleep 500 --say 3:alive ";
    service.setWorker(life + "--exit 0");
    service.start();
    ASSERT_EQ(service.ask(manual("1")), "TRUE");
    EXPECT_EQ(service.waitForState("1", "COMPLETE"), "TRUE - COMPLETE");
    EXPECT_THAT(service.log(), Not(HasSubstr("No status message")));
    EXPECT_THAT(service.log(), HasSubstr("status msg received from job 0 1."));
}

TEST(Jobs, TheLogOfACaptureIsNamedAndItsTailComesInOneLine) {
    ServiceUnderTest service;
    service.setWorker("--log first --log second");
    service.start();
    ASSERT_EQ(service.ask(manual("1")), "TRUE");
    ASSERT_EQ(service.waitForState("1", "COMPLETE"), "TRUE - COMPLETE");
    const std::string path = service.root() / "logs" / "capture_0.log";
    EXPECT_EQ(service.ask("CAPTURE,JOB_LOGFILENAME,1"), "TRUE - " + path);
    EXPECT_EQ(service.ask("CAPTURE,JOB_LAST_LOG_ENTRIES,1"), "TRUE - first\t\tsecond\t\t");
}

TEST(Jobs, AnEmptyOrMissingLogIsSaidToBeEmpty) {
    ServiceUnderTest service;
    service.start();
    ASSERT_EQ(service.ask(manual("1")), "TRUE");
    ASSERT_EQ(service.waitForState("1", "COMPLETE"), "TRUE - COMPLETE");
    EXPECT_EQ(service.ask("CAPTURE,JOB_LAST_LOG_ENTRIES,1"),
              "FALSE - Log file " + (service.root() / "logs" / "capture_0.log").string() + " is empty.");
}

TEST(Jobs, EitherFormOfAGuidFindsTheJob) {
    ServiceUnderTest service;
    service.start();
    ASSERT_EQ(service.ask(manual("{01234567-89AB-CDEF-0123-456789ABCDEF}")), "TRUE");
    EXPECT_EQ(service.waitForState("0123456789abcdef0123456789ABCDEF", "COMPLETE"), "TRUE - COMPLETE");
}

TEST(Jobs, AWorkerInheritsNothingButItsStandardStreamsAndDefaultSignals) {
    ServiceUnderTest service;
    const std::string report = service.root() / "report";
    service.setWorker("--report " + report);
    service.start();
    ASSERT_EQ(service.ask(manual("1")), "TRUE");
    ASSERT_EQ(service.waitForState("1", "COMPLETE"), "TRUE - COMPLETE");
    std::ifstream in(report);
    std::vector<std::string> extra;
    for (std::string line; std::getline(in, line);) {
        std::istringstream words(line);
        std::string kind;
        std::string value;
        std::string target;
        words >> kind >> value >> target;
        if (kind == "fd" && std::stoi(value) > 2 && target.find("/fd") == std::string::npos &&
            target.find("report") == std::string::npos)
            extra.push_back(line);
        // Handlers go with the exec; what a worker could inherit is a mask and ignored signals.
        if ((kind == "SigBlk:" || kind == "SigIgn:") && value.find_first_not_of('0') != std::string::npos)
            extra.push_back(line);
    }
    EXPECT_THAT(extra, IsEmpty());
}

TEST(Jobs, TheSettingsFileTellsTheWorkerItsJob) {
    ServiceUnderTest service;
    service.start();
    ASSERT_EQ(service.ask(begin("1", "CAPTURE_TIMED_JOB",
                                "Filename=/media/a.ts,EncoderIp=127.0.0.9,EncoderProfile=HD8,"
                                "EncoderVitcInput=FALSE,Duration=00:01:00:12")),
              "TRUE");
    const std::string settings = contentOf("/tmp/capture_0.xml");
    EXPECT_THAT(settings, HasSubstr("JOB_TYPE=\"TIMED\""));
    EXPECT_THAT(settings, HasSubstr("DURATION=\"00:01:00:12\""));
    EXPECT_THAT(settings, HasSubstr("OUTPUT_FILE=\"/media/a.ts\""));
    EXPECT_THAT(settings, HasSubstr("SNMP_IP_ADDRESS=\"127.0.0.9\""));
    EXPECT_THAT(settings, HasSubstr("PROFILE=\"HD8\""));
    EXPECT_THAT(settings, HasSubstr("VITC_SUPPORT=\"FALSE\""));
    EXPECT_THAT(settings, HasSubstr("RUN_TYPE=\"SERVICE_MGR_INVOKED\""));
}

TEST(Jobs, ASettingsFileThatCannotBeWrittenIsAnErrorThatNamesFileAndReason) {
    ServiceUnderTest service;
    service.start();
    // A directory of that name cannot be replaced by a file.
    std::filesystem::create_directories("/tmp/capture_0.xml/occupied");
    const std::string answer = service.ask(manual("1"));
    std::filesystem::remove_all("/tmp/capture_0.xml");
    EXPECT_THAT(answer, StartsWith("FALSE - "));
    EXPECT_THAT(answer, HasSubstr("/tmp/capture_0.xml"));
    EXPECT_EQ(service.ask("JOB_STATUS,1"), "TRUE - ERROR");
    EXPECT_THAT(messageQueues(), IsEmpty());
}

TEST(Jobs, APlantedLinkIsReplacedAndNeverFollowed) {
    ServiceUnderTest service;
    service.start();
    const std::filesystem::path victim = service.root() / "victim";
    std::ofstream(victim) << "untouched";
    std::filesystem::create_symlink(victim, "/tmp/capture_0.xml");
    ASSERT_EQ(service.ask(manual("1")), "TRUE");
    EXPECT_EQ(contentOf(victim), "untouched");
    EXPECT_FALSE(std::filesystem::is_symlink("/tmp/capture_0.xml"));
}

// Whether the worker has got as far as to open its queues.
bool hasOpenedQueues(pid_t worker) {
    int queues = 0;
    std::error_code error;
    for (const auto& entry :
         std::filesystem::directory_iterator("/proc/" + std::to_string(worker) + "/fd", error)) {
        const std::string target = std::filesystem::read_symlink(entry.path(), error).string();
        queues += target.find("_q_") != std::string::npos ? 1 : 0;
    }
    return queues == 2;
}

TEST(Jobs, AServiceStoppedWithJobsRunningLeavesTheWorkersAndNoQueue) {
    constexpr int BY_REQUEST = 0;
    for (const int by : {BY_REQUEST, SIGTERM, SIGINT, SIGHUP}) {
        SCOPED_TRACE(by);
        ServiceUnderTest service;
        const std::string go = service.root() / "go";
        const std::string note = service.root() / "ran";
        service.setWorker("--wait-file " + go + " --write " + note + ":on");
        service.start();
        ASSERT_EQ(service.ask(manual("1")), "TRUE");
        ASSERT_EQ(service.ask(queued("2")), "TRUE");
        const std::vector<pid_t> workers = service.children();
        ASSERT_EQ(workers.size(), 2U);
        for (const pid_t worker : workers)
            ASSERT_TRUE(eventually([&] { return hasOpenedQueues(worker); }));
        if (by == BY_REQUEST)
            service.ask("STOP_SERVICE");
        else
            service.process().signal(by);
        const auto ended = service.process().wait(20s);
        ASSERT_TRUE(ended.has_value());
        EXPECT_TRUE(ended->exited);
        EXPECT_EQ(ended->code, 0);
        EXPECT_THAT(messageQueues(), IsEmpty());
        for (const pid_t worker : workers) {
            EXPECT_EQ(kestrel::test::signalTo(worker, 0), 0) << "a running recording was ended";
            EXPECT_THAT(service.log(), HasSubstr(std::to_string(worker)));
        }
        std::ofstream(go) << "go";
        EXPECT_TRUE(eventually([&] { return contentOf(note) == "on\n"; }));
    }
}

} // namespace
