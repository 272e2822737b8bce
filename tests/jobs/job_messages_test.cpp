// What each message of a worker does to its job.
#include "foundation/CallbackLib.h"
#include "foundation/QueueMessages.h"
#include "job_workers.h"
#include "jobs/WorkerMessages.h"

#include <cstring>
#include <filesystem>
#include <initializer_list>
#include <string>

using ::testing::HasSubstr;
using ::testing::Not;

namespace {

class JobMessagesTest : public JobLauncherTest {};

bool take(Job& job, int type, std::string_view payload) {
    std::string bytes(4, '\0');
    std::memcpy(bytes.data(), &type, 4);
    bytes += payload;
    const GenericFlatMsg message(reinterpret_cast<unsigned char*>(bytes.data()),
                                 static_cast<int>(bytes.size()));
    return kestrel::takeWorkerMessage(job, message);
}

// Deck commands that reached the manager's side of the callback registry.
struct DeckCalls {
    DeckCalls() {
        CallbackLib::initCallBackLib()->registerCallback(DATA_CALLBACK_VTR_CMD_REQUEST, &DeckCalls::called,
                                                         &buffer, "test", -1, this);
    }
    ~DeckCalls() { CallbackLib::ShutDownCallBackLib(); }
    static void called(CallbackLib::_Data* data) {
        static_cast<DeckCalls*>(data->context)->calls.push_back(*static_cast<_VTRCmdData*>(data->data));
    }

    _VTRCmdData buffer{};
    std::vector<_VTRCmdData> calls;
};

} // namespace

TEST_F(JobMessagesTest, HeartbeatIsLoggedWithJobAndGuid) {
    CaptureManualJob job(902001);
    std::strcpy(job.guidStr, "g-1");
    EXPECT_EQ(run(job, "say:3:"), Job::COMPLETE);
    EXPECT_THAT(log.text(), HasSubstr("[JobLauncher:Debug] status msg received from job 902001 g-1."));
}

TEST_F(JobMessagesTest, CaptureStatusReachesTheJob) {
    CaptureManualJob job(902002);
    EXPECT_EQ(run(job, "status:1:50"), Job::COMPLETE);
    ASSERT_EQ(job.statusDetails.size(), 2u);
    EXPECT_EQ(job.statusDetails[1]->duration.frame_count(), 50);
    EXPECT_EQ(job.statusDetails[1]->number1, 33);
    EXPECT_EQ(job.statusDetails[1]->number2, 11);
    EXPECT_EQ(job.statusDetails[1]->number3, 22);
}

TEST_F(JobMessagesTest, CaptureStatusOfEveryShorterLengthIsIgnored) {
    CaptureManualJob job(902003);
    for (std::size_t length = 0; length < sizeof(_CaptureJobStatusData); ++length)
        take(job, CAPTURE_STATUS_MSG, std::string(length, '\0'));
    EXPECT_TRUE(job.statusDetails.empty());
    EXPECT_THAT(log.text(), HasSubstr("message of type 6 ignored, 39 bytes instead of 40."));
    take(job, CAPTURE_STATUS_MSG, std::string(sizeof(_CaptureJobStatusData), '\0'));
    take(job, CAPTURE_STATUS_MSG, std::string(996, '\0'));
    EXPECT_EQ(job.statusDetails.size(), 1u);
}

TEST_F(JobMessagesTest, CaptureStatusForAnotherKindOfJobIsIgnored) {
    Job job(902004, Job::VERIFIER_JOB, Job::QUEUED);
    take(job, CAPTURE_STATUS_MSG, std::string(40, '\0'));
    EXPECT_THAT(log.text(), HasSubstr("capture status ignored, the job is no capture."));
}

TEST_F(JobMessagesTest, ResultsAreTextUpToTheTerminatorOrTheField) {
    CaptureManualJob job(902005);
    EXPECT_EQ(run(job, "say:7:all_well"), Job::COMPLETE);
    EXPECT_EQ(job.resultsText(), "all_well");
    take(job, RESULTS_MSG, std::string_view("seen\0unseen", 11));
    EXPECT_EQ(job.resultsText(), "seen");
    take(job, RESULTS_MSG, std::string(299, 'a'));
    EXPECT_EQ(job.resultsText(), std::string(299, 'a'));
    take(job, RESULTS_MSG, std::string(996, 'b'));
    EXPECT_EQ(job.resultsText(), std::string(299, 'b'));
    take(job, RESULTS_MSG, "");
    EXPECT_EQ(job.resultsText(), "");
    EXPECT_EQ(run(job, "fill:7:996"), Job::COMPLETE);
    EXPECT_EQ(job.resultsText(), std::string(299, 'x'));
}

TEST_F(JobMessagesTest, TheLastResultsAreInTheLogWhenTheWorkerHasEnded) {
    CaptureManualJob job(902016);
    std::strcpy(job.guidStr, "g-16");
    EXPECT_EQ(run(job, "say:7:half say:7:three_findings"), Job::COMPLETE);
    const std::string results = "[JobLauncher:Info] Job 902016 g-16: results: ";
    EXPECT_THAT(log.text(),
                HasSubstr(results + "three_findings\r\n[JobLauncher:Info] Job 902016 g-16: process "));
    EXPECT_THAT(log.text(), Not(HasSubstr(results + "half")));
    EXPECT_EQ(run(job, "say:7:torn exit:3"), Job::ERROR);
    EXPECT_THAT(log.text(), HasSubstr(results + "torn\r\n"));
    EXPECT_EQ(run(job, "say:7:a\nb\x7f signal:9"), Job::ERROR);
    EXPECT_THAT(log.text(), HasSubstr(results + "a b \r\n")) << "one line, whatever the name of a file has";
}

TEST_F(JobMessagesTest, AWorkerThatSaysNothingHasNoResultsInTheLog) {
    CaptureManualJob job(902017);
    EXPECT_EQ(run(job, "say:3:"), Job::COMPLETE);
    EXPECT_THAT(log.text(), Not(HasSubstr("results: ")));
}

TEST_F(JobMessagesTest, AnInvalidDurationIsExplainedInTheLog) {
    CaptureTimedJob job(902010);
    std::strcpy(job.guidStr, "g-10");
    const std::string refusal = "Error: Invalid Duration 00:00:10:27 for rate_code 3 and drop frame 0.";
    take(job, RESULTS_MSG, refusal);
    EXPECT_EQ(job.resultsText(), refusal) << "the client's text stays";
    EXPECT_THAT(log.text(),
                HasSubstr("[JobLauncher:Warning] Job 902010 g-10: Duration: \"00:00:10:27\" has no such "
                          "frame: the stream has 25 frames a second, so the last part goes from 00 to "
                          "24.\r\n"));
    take(job, RESULTS_MSG, "Error: Invalid Duration 10 for rate_code 0 and drop frame 0.");
    EXPECT_THAT(log.text(),
                HasSubstr("Duration: \"10\" is not of the form hh:mm:ss:ff, two digits each (of the hours "
                          "two or three), with minutes, seconds and frames up to 59; no stream was "
                          "looked at.\r\n"));
}

TEST_F(JobMessagesTest, AnInvalidDurationIsExplainedWithTheEncoderWhoseStreamItIs) {
    const std::string refusal = "Error: Invalid Duration 00:00:01:30 for rate_code 4 and drop frame 1.";
    const auto told = [&](const std::string& results, std::initializer_list<const char*> encoders) {
        CaptureTimedJob job(902015);
        setFields(job, encoders);
        const std::size_t before = log.text().size();
        take(job, RESULTS_MSG, results);
        return log.text().substr(before);
    };
    const auto explained = [](const std::string& stream) {
        return HasSubstr("\"00:00:01:30\" has no such frame: " + stream +
                         " has 29.97 frames a second, so the last part goes from 00 to 29.\r\n");
    };
    EXPECT_THAT(told(refusal, {"EncoderIp=10.1.2.3"}), explained("the stream of encoder 10.1.2.3"));
    EXPECT_THAT(told("Encoder 2: " + refusal, {"EncoderIp1=10.1.2.3", "EncoderIp2=10.1.2.4"}),
                explained("the stream of encoder 10.1.2.4"));
    EXPECT_THAT(told("Encoder 1: " + refusal, {"EncoderIp1=10.1.2.3", "EncoderIp2=10.1.2.4"}),
                explained("the stream of encoder 10.1.2.3"));
    // What names none of them is not guessed at.
    EXPECT_THAT(told(refusal, {"EncoderIp1=10.1.2.3", "EncoderIp2=10.1.2.4"}), explained("the stream"));
    for (const char* name : {"Encoder 0: ", "Encoder 3: ", "Encoder -1: ", "Encoder 99999999999999999999: "})
        EXPECT_THAT(told(name + refusal, {"EncoderIp1=10.1.2.3", "EncoderIp2=10.1.2.4"}),
                    explained("the stream"))
            << name;
}

TEST_F(JobMessagesTest, ARelativeFilenameIsExplainedWithItsWholePath) {
    CaptureManualJob job(902016);
    job.SetOutputFile("no-such-directory/");
    take(job, RESULTS_MSG, "Error: Invalid filename. (no-such-directory/)");
    EXPECT_THAT(log.text(), HasSubstr("Filename: \"no-such-directory/\" (" +
                                      (std::filesystem::current_path() / "no-such-directory/").string() +
                                      ") ends in a slash: the name of the file is missing.\r\n"));
}

TEST_F(JobMessagesTest, AnInvalidFilenameIsExplainedInTheLog) {
    CaptureManualJob job(902011);
    const auto told = [&](const char* file) {
        job.SetOutputFile(file);
        take(job, RESULTS_MSG, std::string("Error: Invalid filename. (") + file + ")");
        return log.text();
    };
    EXPECT_THAT(told("/tmp"),
                HasSubstr("[JobLauncher:Warning] Job 902011 : Filename: \"/tmp\" is a directory, not a "
                          "file.\r\n"));
    EXPECT_THAT(told("/tmp/"),
                HasSubstr("Filename: \"/tmp/\" ends in a slash: the name of the file is missing.\r\n"));
    EXPECT_THAT(
        told("/dev/null/a.ts"),
        HasSubstr("Filename: \"/dev/null/a.ts\" cannot be looked at: errno 20 (Not a directory).\r\n"));
    EXPECT_THAT(told("/no/such/a.ts"), Not(HasSubstr("/no/such"))) << "an output need not exist";
}

TEST_F(JobMessagesTest, TheFileThatIsExplainedIsTheOneThatTheResultsName) {
    CaptureManualJob job(902014);
    job.SetOutputFile("/no/such/a.ts");
    take(job, RESULTS_MSG, "Encoder 2: Error: Invalid filename. (/tmp)");
    EXPECT_THAT(log.text(), HasSubstr("Filename: \"/tmp\" is a directory, not a file.\r\n"));
}

TEST_F(JobMessagesTest, OtherResultsNeedNoExplanation) {
    CaptureManualJob job(902012);
    const std::string refusal = "Error: Invalid Duration 10 for rate_code 3 and drop frame 0.";
    // Cut before the code, which is the last thing that is looked for.
    for (std::size_t length = 0; length <= refusal.find("3 and"); ++length)
        take(job, RESULTS_MSG, refusal.substr(0, length));
    take(job, RESULTS_MSG, "Recorded 00:10:00:00 (15000 frames)");
    take(job, RESULTS_MSG, "Error: Invalid filename.");
    job.SetOutputFile("");
    job.SetOutputFile("/dev/null");
    take(job, RESULTS_MSG, "Error: Invalid filename.");
    Job other(902013, Job::VERIFIER_JOB, Job::QUEUED);
    take(other, RESULTS_MSG, refusal);
    EXPECT_THAT(log.text(), Not(HasSubstr("Warning]")));
}

TEST_F(JobMessagesTest, DeckCommandGoesToTheBridgeWithTheWorkersQueue) {
    DeckCalls deck;
    CaptureManualJob job(902006);
    EXPECT_EQ(run(job, "deck:COM7"), Job::COMPLETE);
    ASSERT_EQ(deck.calls.size(), 1u);
    EXPECT_EQ(deck.calls[0].commandKind, kestrel::vtrCurrentTime);
    EXPECT_STREQ(deck.calls[0].serialPort, "COM7");
    EXPECT_STREQ(deck.calls[0].replyQueueName, "/mgr_msg_q_902006");
    take(job, VTR_CMD_REQUEST_MSG, std::string(487, '\0'));
    EXPECT_EQ(deck.calls.size(), 1u);
    EXPECT_THAT(log.text(), HasSubstr("message of type 8 ignored, 487 bytes instead of 488."));
    take(job, VTR_CMD_REQUEST_MSG, std::string(488, '\0'));
    EXPECT_EQ(deck.calls.size(), 2u);
}

TEST_F(JobMessagesTest, OtherTypesAreDropped) {
    CaptureManualJob job(902007);
    for (const int type : {1, 2, 4, 5, 9, 10, 1000, -1, -2147483647})
        EXPECT_FALSE(take(job, type, "payload")) << type;
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(run(job, "say:1:a say:2:b say:4:c say:5:d say:9:e"), Job::COMPLETE);
}

TEST_F(JobMessagesTest, MessagesTooShortForATypeAreDropped) {
    CaptureManualJob job(902008);
    unsigned char bytes[3] = {};
    for (int length = 0; length <= 3; ++length)
        EXPECT_FALSE(kestrel::takeWorkerMessage(job, GenericFlatMsg(bytes, length)));
}

TEST_F(JobMessagesTest, ExitIsAnnouncedInTheLog) {
    CaptureManualJob job(902009);
    EXPECT_TRUE(take(job, EXIT_MSG, ""));
    EXPECT_THAT(log.text(), HasSubstr("[JobLauncher:Error] EXIT_MSG"));
}
