// What the requests take from their arguments, and how each refuses the wrong ones.
#include "request_lists.h"
#include "service_directories.h"

#include "jobs/Job.h"

#include <gmock/gmock.h>

using testing::HasSubstr;

namespace {

using Words = std::vector<std::string>;

// The error text of a request; each such request must be invalid and leave the manager alone.
std::string refusal(const Words& words) {
    const auto message = request(words);
    EXPECT_FALSE(message->isValid());
    EXPECT_EQ(CManagerLib::m_instance, nullptr);
    return message->errorText;
}

TEST(CaptureArguments, AreCommandGuidTypeAndFieldsInOrder) {
    const auto message =
        request({"CAPTURE", "JOB_BEGIN", "cafe", "CAPTURE_TIMED_JOB", "Filename=a", "Duration=b", "noValue"});
    const CaptureRequest& capture = as<CaptureRequest>(message);
    EXPECT_TRUE(message->isValid());
    EXPECT_EQ(capture.requestType, Message::JOB_BEGIN);
    EXPECT_STREQ(capture.guid, "cafe");
    EXPECT_EQ(capture.captureJobType, Job::CAPTURE_TIMED_JOB);
    ASSERT_EQ(capture.inputFields.size(), 3U);
    EXPECT_STREQ(capture.inputFields[0].name, "Filename");
    EXPECT_STREQ(capture.inputFields[1].currValue, "b");
    EXPECT_EQ(capture.inputFields[2].name, nullptr) << "an argument that is no field keeps its place";
}

TEST(CaptureArguments, NameEveryJobTypeThatThereIs) {
    for (int type = 0; type < Job::NONE; ++type) {
        const auto message = request({"CAPTURE", "JOB_VALIDATE", "1", Job::JobTypeStr[type]});
        EXPECT_TRUE(message->isValid()) << "the manager refuses what is no capture";
        EXPECT_EQ(as<CaptureRequest>(message).captureJobType, type);
        EXPECT_TRUE(as<CaptureRequest>(message).inputFields.empty());
    }
}

TEST(CaptureArguments, AreCheckedInOrder) {
    const char* const noGuid = "Invalid Capture Request.  Expected cmdType, GUID.";
    EXPECT_EQ(refusal({"CAPTURE"}), noGuid);
    EXPECT_EQ(refusal({"CAPTURE", "JOB_BEGIN"}), noGuid);
    EXPECT_EQ(refusal({"CAPTURE", "JOB_PAUSE"}), noGuid) << "counted before the word is looked at";
    const char* const noType = "Invalid Capture Request.  Expected cmdType, GUID, captureJobType, args.";
    EXPECT_EQ(refusal({"CAPTURE", "JOB_BEGIN", "1"}), noType);
    EXPECT_EQ(refusal({"CAPTURE", "JOB_VALIDATE", "1"}), noType);
    for (const std::string& word : Words{"NONE", "capture_manual_job", "SOMETHING", "Filename=a"})
        EXPECT_EQ(refusal({"CAPTURE", "JOB_BEGIN", "1", word}),
                  "Invalid Capture Job Type " + word + " in Capture Request");
    EXPECT_STREQ(request({"CAPTURE", "JOB_BEGIN", "1"})->guid, "1") << "stored before the check that fails";
}

TEST(CaptureArguments, ALongJobTypeIsCutInTheText) {
    EXPECT_EQ(refusal({"CAPTURE", "JOB_BEGIN", "1", std::string(299, 't')}),
              ("Invalid Capture Job Type " + std::string(299, 't')).substr(0, 299));
}

TEST(CaptureArguments, RefusalsAreLoggedAsErrors) {
    const CapturedLog log;
    refusal({"CAPTURE"});
    refusal({"CAPTURE", "JOB_BEGIN", "1"});
    refusal({"CAPTURE", "JOB_BEGIN", "1", "X"});
    EXPECT_EQ(log.text(),
              "[RequestMessages:Error] Invalid Capture Request.  Expected cmdType, GUID.\r\n"
              "[RequestMessages:Error] Invalid Capture Request.  Expected cmdType, GUID, captureJobType, "
              "args.\r\n"
              "[RequestMessages:Error] Invalid Capture Job Type X in Capture Request\r\n");
}

TEST(CaptureArguments, OfTheOtherRequestsAreNotLogged) {
    const CapturedLog log;
    for (const char* word :
         {"VTR_CMD", "VTR_SEEKING", "GET_MPEG_PROPERTIES", "JOB_STATUS", "JOB_RESULTS", "WHAT"})
        refusal({word});
    EXPECT_EQ(log.text(), "");
}

TEST(CaptureArguments, OfQueriesEndWithTheGuid) {
    for (const char* word :
         {"JOB_ABORT", "JOB_STATUS", "JOB_RESULTS", "JOB_LOGFILENAME", "JOB_LAST_LOG_ENTRIES"}) {
        for (const Words& words :
             {Words{"CAPTURE", word, "cafe"}, Words{"CAPTURE", word, "cafe", "NO_TYPE", "Filename=a"}}) {
            const auto message = request(words);
            EXPECT_TRUE(message->isValid()) << word;
            EXPECT_EQ(message->requestType, Message::getRequestType(word));
            EXPECT_STREQ(message->guid, "cafe");
            EXPECT_EQ(as<CaptureRequest>(message).captureJobType, Job::NONE);
            EXPECT_TRUE(as<CaptureRequest>(message).inputFields.empty());
        }
    }
}

TEST(CaptureArguments, AnUnknownCommandPassesTheCheckThatNamesIt) {
    const CapturedLog log;
    const auto unknown = request({"CAPTURE", "JOB_PAUSE", "cafe", "CAPTURE_MANUAL_JOB"});
    EXPECT_TRUE(unknown->isValid());
    EXPECT_EQ(unknown->requestType, -1);
    EXPECT_STREQ(unknown->guid, "cafe");
    EXPECT_EQ(as<CaptureRequest>(unknown).captureJobType, Job::NONE) << "no job type is taken";
    EXPECT_EQ(
        log.text(),
        "[RequestMessages:Warning] CAPTURE: \"JOB_PAUSE\" is no command type, it is handled as a check of no "
        "job type; expected is JOB_BEGIN, JOB_VALIDATE, JOB_ABORT, JOB_LOGFILENAME or "
        "JOB_LAST_LOG_ENTRIES.\r\n");
}

TEST(CaptureArguments, AQueryThatHasARequestOfItsOwnIsLogged) {
    const CapturedLog log;
    for (const char* word : {"JOB_ABORT", "JOB_LOGFILENAME", "JOB_LAST_LOG_ENTRIES"})
        request({"CAPTURE", word, "cafe"});
    EXPECT_EQ(log.text(), "");
    request({"CAPTURE", "JOB_STATUS", "cafe"});
    EXPECT_EQ(
        log.text(),
        "[RequestMessages:Warning] CAPTURE,JOB_STATUS is not answered; the request is JOB_STATUS,GUID.\r\n");
}

TEST(VerifierArguments, NeedCommandGuidAndFile) {
    const char* const expected = "Invalid Verifier Request.  Expected cmdType, GUID, filename.";
    Words words{"GET_MPEG_PROPERTIES"};
    for (const char* word : {"JOB_BEGIN", "cafe", "/f.ts"}) {
        EXPECT_EQ(refusal(words), expected) << words.size();
        words.emplace_back(word);
    }
    const auto message = request(words);
    const VerifierRequest& verifier = as<VerifierRequest>(message);
    EXPECT_TRUE(message->isValid());
    EXPECT_EQ(verifier.requestType, Message::JOB_BEGIN);
    EXPECT_STREQ(verifier.guid, "cafe");
    EXPECT_STREQ(verifier.fileName, "/f.ts");
    EXPECT_STREQ(verifier.propertyName, "ALL");
    EXPECT_STREQ(verifier.optionText, "");
    EXPECT_FALSE(verifier.blocking);
    EXPECT_FALSE(verifier.xmlOutput);
}

TEST(VerifierArguments, TheCommandIsNotChecked) {
    const auto message = request({"GET_MPEG_PROPERTIES", "NOTHING", "1", "/f.ts"});
    EXPECT_TRUE(message->isValid());
    EXPECT_EQ(message->requestType, -1);
}

TEST(VerifierArguments, TakePropertyModeAndOptions) {
    const struct {
        const char* mode;
        bool blocking;
        bool xml;
    } rows[] = {{"BLOCK", true, false}, {"XML", true, true}, {"block", false, false},
                {"xml", false, false},  {"", false, false},  {"BLOCKED", false, false},
                {"ASYNC", false, false}};
    for (const auto& row : rows) {
        const auto message =
            request({"GET_MPEG_PROPERTIES", "JOB_BEGIN", "1", "/f.ts", "QUICK", row.mode, "a;b", "more"});
        const VerifierRequest& verifier = as<VerifierRequest>(message);
        EXPECT_TRUE(message->isValid());
        EXPECT_STREQ(verifier.propertyName, "QUICK");
        EXPECT_EQ(verifier.blocking, row.blocking) << row.mode;
        EXPECT_EQ(verifier.xmlOutput, row.xml) << row.mode;
        EXPECT_STREQ(verifier.optionText, "a;b");
    }
}

TEST(VerifierArguments, AMisspeltModeIsTakenAsNoneWithAWarning) {
    const CapturedLog log;
    for (const char* mode : {"BLOCK", "XML", ""})
        request({"GET_MPEG_PROPERTIES", "JOB_BEGIN", "1", "/f.ts", "ALL", mode});
    EXPECT_EQ(log.text(), "") << "an empty one is how rules are given without a mode";
    request({"GET_MPEG_PROPERTIES", "JOB_BEGIN", "1", "/f.ts", "ALL", "block"});
    EXPECT_EQ(log.text(),
              "[RequestMessages:Warning] GET_MPEG_PROPERTIES: \"block\" is not BLOCK or XML, it is taken "
              "as neither of them.\r\n");
}

TEST(VerifierArguments, AFileNameIsCutAtItsField) {
    const auto message = request({"GET_MPEG_PROPERTIES", "JOB_BEGIN", "1", std::string(299, 'f')});
    EXPECT_EQ(as<VerifierRequest>(message).fileName, std::string(259, 'f'));
}

TEST(VtrArguments, EveryCommandWordHasItsKindAndCode) {
    const struct {
        const char* word;
        int kind;
        int code;
    } rows[] = {{"Play", 0, 1},        {"Rewind", 0, 3}, {"FastForward", 0, 4}, {"StepForward", 0, 5},
                {"StepReverse", 0, 6}, {"Pause", 0, 10}, {"Shuttle", 10, 7},    {"GoTo", 3, 0}};
    for (const auto& row : rows) {
        const auto message = request({"VTR_CMD", "COM1", "12", row.word, "-5", "01:02:03:04"});
        const VtrCmdRequest& vtr = as<VtrCmdRequest>(message);
        EXPECT_TRUE(message->isValid()) << row.word;
        EXPECT_EQ(vtr.command.commandKind, row.kind) << row.word;
        EXPECT_EQ(vtr.command.transportCode, row.code) << row.word;
        EXPECT_EQ(vtr.number, 12);
        EXPECT_STREQ(vtr.command.serialPort, "COM1");
        EXPECT_EQ(vtr.command.shuttleSpeed, row.kind == 10 ? -5 : 0);
        EXPECT_STREQ(vtr.command.timecode, row.kind == 3 ? "01:02:03:04" : "");
    }
}

TEST(VtrArguments, CommandsWithoutAnExtraArgumentNeedFour) {
    for (const char* word : {"Play", "Rewind", "FastForward", "StepForward", "StepReverse", "Pause"})
        EXPECT_TRUE(request({"VTR_CMD", "COM1", "0", word})->isValid()) << word;
    EXPECT_TRUE(request({"VTR_CMD", "COM1", "0", "Shuttle", "1"})->isValid());
}

TEST(VtrArguments, NumbersAreDecimalAndStayWithinThirtyTwoBits) {
    const auto shuttle = [](const char* number, const char* speed) {
        return request({"VTR_CMD", "COM1", number, "Shuttle", speed});
    };
    EXPECT_EQ(as<VtrRequest>(shuttle("012", "x")).number, 12);
    EXPECT_EQ(as<VtrRequest>(shuttle("port", "x")).number, 0);
    EXPECT_EQ(as<VtrRequest>(shuttle("1", "x")).command.shuttleSpeed, 0);
    EXPECT_EQ(as<VtrRequest>(shuttle("1", "99999999999999999999")).command.shuttleSpeed, INT32_MAX);
    EXPECT_EQ(as<VtrRequest>(shuttle("-3000000000", "-3000000000")).number, INT32_MIN);
    EXPECT_EQ(as<VtrRequest>(shuttle("-3000000000", "-3000000000")).command.shuttleSpeed, INT32_MIN);
}

TEST(VtrArguments, ASpeedThatIsNoNumberIsLoggedWithWhatItIsTakenAs) {
    const CapturedLog log;
    for (const char* speed : {"0", "-5", "+5", "007", "2147483647", "-2147483648"})
        request({"VTR_CMD", "COM1", "0", "Shuttle", speed});
    EXPECT_EQ(log.text(), "");
    const struct {
        const char* speed;
        int taken;
    } rows[] = {
        {"fast", 0}, {"2x", 2}, {" 5", 5}, {"1.5", 1}, {"", 0}, {"+-5", 0}, {"99999999999", INT32_MAX}};
    std::string told;
    for (const auto& row : rows) {
        const auto message = request({"VTR_CMD", "COM1", "0", "Shuttle", row.speed});
        EXPECT_TRUE(message->isValid());
        EXPECT_EQ(as<VtrRequest>(message).command.shuttleSpeed, row.taken);
        told += std::string("[RequestMessages:Warning] VTR_CMD Shuttle: the speed \"") + row.speed +
                "\" is not a decimal number of 32 bits, it is taken as " + std::to_string(row.taken) +
                ".\r\n";
    }
    EXPECT_EQ(log.text(), told);
}

TEST(VtrArguments, TheFirstFailingCheckWins) {
    for (const char* word : {"VTR_CMD", "VTR_SEEKING", "VTR_CURRENT_TIME", "VTR_STATUS"})
        EXPECT_EQ(refusal({word}), "Invalid VTR Request.  Port argument not specified");
    EXPECT_EQ(refusal({"VTR_CMD", "COM1"}), "Invalid VTR Request.  Not enough arguments supplied");
    EXPECT_EQ(refusal({"VTR_CMD", "COM1", "0"}), "Invalid VTR Request.  Not enough arguments supplied");
    for (const std::string& word : Words{"play", "Play ", "Stop", ""})
        EXPECT_EQ(refusal({"VTR_CMD", "COM1", "0", word}), "Invalid VTR Cmd " + word);
    EXPECT_EQ(refusal({"VTR_CMD", "COM1", "0", "Shuttle"}),
              "Invalid VTR Shuttle Request.  Speed argument not supplied");
    EXPECT_EQ(refusal({"VTR_CMD", "COM1", "0", "GoTo"}), "Invalid VTR GoTo Request.  Timecode not supplied");
    EXPECT_EQ(refusal({"VTR_CMD", "COM1", "0", "GoTo", "01:02:03:04"}),
              "Invalid VTR GoTo Request.  Timecode not supplied")
        << "the timecode is the argument after the speed";
}

TEST(VtrArguments, APortThatNoDeckCanHaveIsRefusedRatherThanCut) {
    const auto fits = request({"VTR_SEEKING", "12345678901"});
    EXPECT_TRUE(fits->isValid());
    EXPECT_STREQ(as<VtrRequest>(fits).command.serialPort, "12345678901");
    // Cut, it would be the port of another deck.
    for (const char* word : {"VTR_SEEKING", "VTR_CURRENT_TIME", "VTR_CMD"}) {
        const auto message = request({word, "/dev/ttyS100", "0", "Rewind"});
        EXPECT_FALSE(message->isValid());
        EXPECT_STREQ(message->errorText,
                     "Error: Could not connect to VTR at /dev/ttyS100. (a port's name has at "
                     "most 11 characters)");
    }
    EXPECT_TRUE(request({"VTR_STATUS", "/dev/ttyS100"})->isValid()) << "no deck is asked";
    const auto longest = request({"VTR_SEEKING", std::string(299, 'p')});
    EXPECT_EQ(longest->errorText, "Error: Could not connect to VTR at " + std::string(100, 'p') +
                                      ". (a port's name has at most 11 characters)");
}

TEST(VtrArguments, ALongTimecodeIsCutAtTheRecordsField) {
    const std::string text(299, 't');
    const auto message = request({"VTR_CMD", "COM1", "0", "GoTo", "0", text});
    const _VTRCmdData& command = as<VtrRequest>(message).command;
    EXPECT_EQ(command.timecode, std::string(sizeof command.timecode - 1, 't'));
}

TEST(VtrArguments, QueriesCarryTheirKindAndFlag) {
    const auto time = request({"VTR_CURRENT_TIME", "COM1"});
    EXPECT_TRUE(time->isValid());
    EXPECT_EQ(as<VtrRequest>(time).command.commandKind, 6);
    EXPECT_EQ(as<VtrRequest>(time).command.queryFlag, 0);
    EXPECT_STREQ(as<VtrRequest>(time).command.serialPort, "COM1");
    const auto seeking = request({"VTR_SEEKING", "COM2"});
    EXPECT_TRUE(seeking->isValid());
    EXPECT_EQ(as<VtrRequest>(seeking).command.commandKind, 7);
    EXPECT_EQ(as<VtrRequest>(seeking).command.queryFlag, 1);
    EXPECT_STREQ(as<VtrRequest>(seeking).command.serialPort, "COM2");
}

TEST(VtrArguments, StatusIsNeverAnswered) {
    const auto message = request({"VTR_STATUS", "COM1"});
    EXPECT_TRUE(message->isValid());
    EXPECT_FALSE(message->process());
    EXPECT_STREQ(message->errorText, "");
}

TEST(JobArguments, AreAGuid) {
    EXPECT_EQ(refusal({"JOB_STATUS"}), "Invalid Job Status Request.  Expected Job GUID.");
    EXPECT_EQ(refusal({"JOB_RESULTS"}), "Invalid Job Results Request.  Expected Job GUID.");
    for (const char* word : {"JOB_STATUS", "JOB_RESULTS"}) {
        const auto message = request({word, "ab", "more"});
        EXPECT_TRUE(message->isValid());
        EXPECT_STREQ(message->guid, "ab");
    }
}

class FailedCalls : public ServiceDirectories {};

TEST_F(FailedCalls, CopyTheManagersAnswerIntoTheErrorText) {
    for (const Words& words :
         {Words{"JOB_STATUS", "beef"}, Words{"JOB_RESULTS", "beef"}, Words{"CAPTURE", "JOB_ABORT", "beef"},
          Words{"CAPTURE", "JOB_LOGFILENAME", "beef"}, Words{"CAPTURE", "JOB_LAST_LOG_ENTRIES", "beef"}}) {
        const auto message = request(words);
        EXPECT_TRUE(message->isValid());
        EXPECT_FALSE(message->process());
        EXPECT_STREQ(message->errorText, "Error: Invalid job GUID beef.");
        EXPECT_STREQ(message->responseText, message->errorText);
    }
}

TEST_F(FailedCalls, ALongAnswerIsCutAtTheErrorText) {
    const std::string guid(299, 'g');
    const auto message = request({"JOB_STATUS", guid});
    EXPECT_FALSE(message->process());
    EXPECT_EQ(message->errorText, ("Error: Invalid job GUID " + guid).substr(0, 299));
    EXPECT_EQ(message->responseText, "Error: Invalid job GUID " + guid + ".");
}

} // namespace
