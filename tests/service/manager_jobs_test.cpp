// The manager's job commands, as far as no worker is needed.
#include "jobs/CaptureJob.h"
#include "request_lists.h"
#include "service_directories.h"

#include "foundation/CallbackLib.h"
#include "foundation/PosixWrappers.h"
#include "foundation/UniqueFd.h"

#include <atomic>
#include <cstring>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>
#include <vector>

using testing::HasSubstr;

namespace {

// A message queue that only this test knows.
class OwnQueue {
public:
    explicit OwnQueue(long messages = 10, long size = 1000) {
        static std::atomic<int> number{0};
        m_name = "/kestrel_test_" + std::to_string(getpid()) + "_" + std::to_string(++number);
        long attributes[4] = {0, messages, size, 0};
        m_queue = createMsgQueue(m_name.c_str(), 0600, attributes);
        EXPECT_GE(m_queue, 0);
        m_room.resize(static_cast<std::size_t>(size));
    }
    ~OwnQueue() {
        closeMsgQueue(m_queue);
        unlinkMsgQueue(m_name.c_str());
    }
    OwnQueue(const OwnQueue&) = delete;
    OwnQueue& operator=(const OwnQueue&) = delete;

    char* name() { return m_name.data(); }
    std::string receive(unsigned* priority = nullptr) {
        int length = 0;
        EXPECT_EQ(
            receivePriorityMsg(m_queue, m_room.data(), static_cast<int>(m_room.size()), &length, priority),
            0);
        return {m_room.data(), static_cast<std::size_t>(std::max(length, 0))};
    }
    // Messages that wait.
    [[nodiscard]] long waiting() const {
        mq_attr attributes{};
        EXPECT_EQ(mq_getattr(m_queue, &attributes), 0);
        return attributes.mq_curmsgs;
    }

private:
    std::string m_name;
    mqd_t m_queue;
    std::vector<char> m_room;
};

std::string typeBytes(std::int32_t type) {
    std::string bytes(sizeof type, '\0');
    std::memcpy(bytes.data(), &type, sizeof type);
    return bytes;
}

class ManagerJobs : public ServiceDirectories {
protected:
    CManagerLib& manager() { return *CManagerLib::GetInstance(); }

    CaptureJob* queuedJob(const char* guid = "cafe") {
        CaptureJob* const job = manager().jobQueue().AddCaptureManualJob(CaptureManualJob());
        job->setGuid(guid);
        job->setLogDir(root + "jobs-");
        return job;
    }
    // A job in the queue whose log has this content.
    CaptureJob* jobWithLog(const std::string& content) {
        CaptureJob* const job = queuedJob();
        std::ofstream(job->getLogFilename(), std::ios::binary) << content;
        return job;
    }

    // Answers into a buffer of exactly that size.
    template <typename Call>
    std::string into(int size, Call&& call) {
        std::vector<char> out(static_cast<std::size_t>(size) + 1, 'x');
        code = call(out.data(), size);
        EXPECT_EQ(out.back(), 'x') << "nothing is written behind the buffer";
        return std::string(out.data(), strnlen(out.data(), static_cast<std::size_t>(size)));
    }
    std::string lastEntries(int size) {
        return into(size,
                    [&](char* out, int n) { return manager().GetCaptureLastLogEntries("cafe", out, n); });
    }
    std::string status(const char* guid, int size = 2001) {
        return into(size, [&](char* out, int n) { return manager().GetJobStatus(guid, out, n); });
    }
    std::string results(const char* guid, int size = 2001) {
        return into(size, [&](char* out, int n) { return manager().GetJobResults(guid, out, n); });
    }
    std::string logFilename(const char* guid, int size = 2001) {
        return into(size, [&](char* out, int n) { return manager().GetCaptureLogFilename(guid, out, n); });
    }
    std::string stop(const char* guid, int size = 2001) {
        return into(size, [&](char* out, int n) {
            if (n > 0)
                out[0] = '\0';
            return manager().StopJob(guid, out, n);
        });
    }

    int code = -1;
};

TEST_F(ManagerJobs, AnUnknownGuidIsTheSameErrorEverywhere) {
    const std::string expected = "Error: Invalid job GUID beef.";
    EXPECT_EQ(stop("beef"), expected);
    EXPECT_EQ(code, 10002);
    EXPECT_EQ(status("beef"), expected);
    EXPECT_EQ(code, 10002);
    EXPECT_EQ(results("beef"), expected);
    EXPECT_EQ(code, 10002);
    EXPECT_EQ(logFilename("beef"), expected);
    EXPECT_EQ(code, 10002);
    EXPECT_EQ(into(100, [&](char* o, int n) { return manager().GetCaptureLastLogEntries("beef", o, n); }),
              expected);
    EXPECT_EQ(code, 10002);
    EXPECT_EQ(manager().GetJob("beef"), nullptr);
}

TEST_F(ManagerJobs, TextsAreCutAtTheBuffer) {
    queuedJob()->setResults("recorded");
    manager().GetJob("cafe")->setState(Job::IN_PROGRESS);
    const std::string name = logFilename("cafe");
    const std::string unknown = "Error: Invalid job GUID beef.";
    for (int size = 0; size < 40; ++size) {
        const std::size_t most = size == 0 ? 0 : static_cast<std::size_t>(size) - 1;
        EXPECT_EQ(status("beef", size), unknown.substr(0, most));
        EXPECT_EQ(stop("beef", size), unknown.substr(0, most));
        EXPECT_EQ(results("beef", size), unknown.substr(0, most));
        EXPECT_EQ(logFilename("beef", size), unknown.substr(0, most));
        EXPECT_EQ(status("cafe", size), std::string("IN_PROGRESS").substr(0, most));
        EXPECT_EQ(logFilename("cafe", size), name.substr(0, most));
    }
}

TEST_F(ManagerJobs, EveryStateHasItsName) {
    const char* const names[] = {"CREATED", "QUEUED", "IN_PROGRESS", "COMPLETE", "CANCELLED", "ERROR"};
    CaptureJob* const job = queuedJob();
    for (int state = 0; state < 6; ++state) {
        job->setState(static_cast<Job::JobState>(state));
        EXPECT_EQ(status("cafe"), names[state]);
        EXPECT_EQ(code, 0);
    }
}

TEST_F(ManagerJobs, AJobIsFoundByItsOwnGuid) {
    CaptureJob* const one = queuedJob("11111111-2222-3333-4444-555555555555");
    CaptureJob* const two = queuedJob("11111111-2222-3333-4444-555555555556");
    EXPECT_EQ(manager().GetJob("11111111-2222-3333-4444-555555555555"), one);
    EXPECT_EQ(manager().GetJob("11111111222233334444555555555556"), two);
    EXPECT_EQ(manager().GetJob("11111111-2222-3333-4444-555555555557"), nullptr);
}

TEST_F(ManagerJobs, OnlyACaptureHasALog) {
    auto* const job = new Job(77, Job::VERIFIER_JOB, Job::QUEUED);
    manager().jobQueue().addOfflineJob(job);
    job->setGuid("cafe");
    EXPECT_EQ(lastEntries(100), "Error: Invalid job GUID cafe.");
    EXPECT_EQ(code, 10002);
    EXPECT_EQ(logFilename("cafe"), "Error: Invalid job GUID cafe.");
    EXPECT_EQ(code, 10002);
    EXPECT_EQ(status("cafe"), "QUEUED");
    EXPECT_EQ(code, 0);
}

TEST_F(ManagerJobs, EveryKindOfCaptureHasALog) {
    JobQueue& queue = manager().jobQueue();
    CaptureJob* const jobs[] = {
        queue.AddCaptureVTRJob(CaptureVTRJob()),
        queue.AddCaptureManualJob(CaptureManualJob()),
        queue.AddCaptureTimedJob(CaptureTimedJob()),
        queue.AddCaptureScheduledJob(CaptureScheduledJob()),
        queue.AddCaptureRollingJob(CaptureRollingJob()),
        queue.AddCaptureMezzanineJob(CaptureReencodeJob(0, Job::CAPTURE_MEZZANINE_JOB)),
        queue.AddCaptureReencodeJob(CaptureReencodeJob(0, Job::CAPTURE_REENCODE_JOB)),
        queue.AddMpegNormalizeJob(MpegNormalizeJob()),
    };
    int type = 0;
    for (CaptureJob* const job : jobs) {
        const std::string guid = "a" + std::to_string(type);
        job->setGuid(guid.c_str());
        job->setLogDir(root);
        EXPECT_EQ(job->jobType, type++);
        EXPECT_EQ(logFilename(guid.c_str()), root + "capture_" + std::to_string(job->id) + ".log");
        EXPECT_EQ(code, 0);
    }
}

TEST_F(ManagerJobs, AShortLogComesWholeWithTabsForLineEnds) {
    jobWithLog("one\r\ntwo\r\n");
    EXPECT_EQ(lastEntries(2001), "one\t\ttwo\t\t");
    EXPECT_EQ(code, 0);
    EXPECT_EQ(lastEntries(13), "one\t\ttwo\t\t");
}

TEST_F(ManagerJobs, OfALongLogTheTailComesWithoutItsVeryEnd) {
    std::string log;
    for (int i = 0; i < 1000; ++i)
        log += "line " + std::to_string(i) + "\n";
    jobWithLog(log);
    const std::string entries = lastEntries(101);
    std::string expected = log.substr(log.size() - 102, 100);
    for (char& c : expected)
        if (c == '\n')
            c = '\t';
    EXPECT_EQ(entries, expected);
    EXPECT_EQ(code, 0);
}

TEST_F(ManagerJobs, ExcerptsOfEverySizeStartAtTheSameDistanceFromTheEnd) {
    const std::string log = "abcdefghij"; // ten bytes
    jobWithLog(log);
    for (int size = 1; size < 20; ++size) {
        const std::size_t start = size + 1 < 10 ? 10U - static_cast<std::size_t>(size) - 1 : 0;
        const std::size_t room = static_cast<std::size_t>(size) - 1; // and the terminator
        EXPECT_EQ(lastEntries(size), log.substr(start, room)) << size;
        EXPECT_EQ(code, 0);
    }
}

TEST_F(ManagerJobs, LineEndsBecomeTabsButForTheLastTwoBytesOfTheBuffer) {
    jobWithLog(std::string(10, '\n'));
    EXPECT_EQ(lastEntries(1), "");
    EXPECT_EQ(lastEntries(2), "\n") << "too small for any";
    EXPECT_EQ(lastEntries(3), "\t\n");
    EXPECT_EQ(lastEntries(6), "\t\t\t\t\n");
    EXPECT_EQ(lastEntries(11), std::string(9, '\t') + "\n");
    EXPECT_EQ(lastEntries(12), std::string(10, '\t'));
    EXPECT_EQ(lastEntries(2001), std::string(10, '\t'));
}

TEST_F(ManagerJobs, ALogWithZeroBytesEndsAtTheFirst) {
    jobWithLog(std::string("one\0two\n", 8));
    EXPECT_EQ(lastEntries(100), "one");
    EXPECT_EQ(code, 0);
}

TEST_F(ManagerJobs, ABufferWithoutRoomIsNotTouched) {
    jobWithLog("one\n");
    EXPECT_EQ(lastEntries(0), "");
    EXPECT_EQ(manager().GetCaptureLastLogEntries("cafe", nullptr, 0), 0);
    char untouched = 'x';
    manager().GetCaptureLastLogEntries("cafe", &untouched, -1);
    EXPECT_EQ(untouched, 'x');
}

TEST_F(ManagerJobs, AnEmptyAndAMissingLogAreEmpty) {
    const std::string path = jobWithLog("")->getLogFilename();
    EXPECT_EQ(lastEntries(500), "Log file " + path + " is empty.");
    EXPECT_EQ(code, 10042);
    std::filesystem::remove(path);
    EXPECT_EQ(lastEntries(500), "Log file " + path + " is empty.");
    EXPECT_EQ(code, 10042);
    EXPECT_EQ(lastEntries(9), "Log file");
}

TEST_F(ManagerJobs, ALogOfOneByteIsNotEmpty) {
    jobWithLog("x");
    EXPECT_EQ(lastEntries(500), "x");
    EXPECT_EQ(code, 0);
}

TEST_F(ManagerJobs, ALogThatCannotBeOpenedIsNamed) {
    const std::string path = jobWithLog("one\n")->getLogFilename();
    rlimit former{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &former), 0);
    // From here on no descriptor is left.
    const kestrel::UniqueFd last(dup(STDIN_FILENO));
    const rlimit none{static_cast<rlim_t>(last.get()), former.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    const std::string entries = lastEntries(500);
    const int result = code;
    const std::string cut = lastEntries(16);
    setrlimit(RLIMIT_NOFILE, &former);
    EXPECT_EQ(entries, "Could not open " + path + ".");
    EXPECT_EQ(result, 10043);
    EXPECT_EQ(cut, "Could not open ");
}

TEST_F(ManagerJobs, StoppingAQueuedJobOnlyChangesItsState) {
    CaptureJob* const job = queuedJob();
    job->setState(Job::QUEUED);
    EXPECT_EQ(stop("cafe"), "");
    EXPECT_EQ(code, 0);
    EXPECT_EQ(job->state(), Job::CANCELLED);
    EXPECT_EQ(stop("cafe"), "") << "a second time changes nothing";
    EXPECT_EQ(code, 0);
}

TEST_F(ManagerJobs, StoppingAJobInProgressTellsItsWorker) {
    OwnQueue queue;
    CaptureJob* const job = queuedJob();
    kestrel::copyText(job->mgrQueueName, queue.name());
    job->setState(Job::IN_PROGRESS);
    EXPECT_EQ(stop("cafe"), "");
    EXPECT_EQ(code, 0);
    EXPECT_EQ(job->state(), Job::CANCELLED);
    ASSERT_EQ(queue.waiting(), 1);
    EXPECT_THAT(queue.receive(), testing::StartsWith(typeBytes(CANCEL_MSG)));
}

TEST_F(ManagerJobs, AWorkerWithoutAQueueCannotBeStopped) {
    CaptureJob* const job = queuedJob();
    const std::string gone = "/kestrel_test_gone_" + std::to_string(getpid());
    kestrel::copyText(job->mgrQueueName, gone);
    job->setState(Job::IN_PROGRESS);
    EXPECT_EQ(stop("cafe"), "Error: Could not connect to queue " + gone + ". Error cancelling job");
    EXPECT_EQ(code, 10029);
    EXPECT_EQ(job->state(), Job::IN_PROGRESS);
    EXPECT_EQ(stop("cafe", 8), "Error: ") << "cut at the buffer";
}

TEST_F(ManagerJobs, ResultsComeFromTheJob) {
    CaptureJob* const job = queuedJob();
    EXPECT_EQ(results("cafe"), "");
    EXPECT_EQ(code, 0);
    job->setResults("recorded");
    EXPECT_EQ(results("cafe"), "recorded");
    EXPECT_EQ(results("cafe", 4), "reco") << "terminated only where there is room";
    EXPECT_EQ(results("cafe", 0), "");
    job->setResults(std::string(500, 'r'));
    EXPECT_EQ(results("cafe"), std::string(299, 'r'));
}

TEST_F(ManagerJobs, TypesThatAreNoCaptureAreRefused) {
    const auto message = request({"CAPTURE", "JOB_BEGIN", "cafe", "VERIFIER_JOB"});
    EXPECT_EQ(manager().AddCaptureJob(&as<CaptureRequest>(message), true), 10004);
    EXPECT_STREQ(message->errorText, "Error: Invalid Job Type 9.");
    for (const int type : {-1, 8, 10, 11, INT32_MAX, INT32_MIN}) {
        as<CaptureRequest>(message).captureJobType = type;
        EXPECT_EQ(manager().ValidateCaptureJob(&as<CaptureRequest>(message)), 10004);
        EXPECT_EQ(message->errorText, "Error: Invalid Job Type " + std::to_string(type) + ".");
    }
    EXPECT_TRUE(manager().jobQueue().jobs.empty());
    EXPECT_THAT(log(), HasSubstr("[Manager:Error] Error: Invalid Job Type 9."));
}

TEST_F(ManagerJobs, EveryKindOfCaptureIsCheckedByItsOwnRules) {
    // Without a field each kind misses something.
    for (int type = 0; type < 8; ++type) {
        const auto message = request({"CAPTURE", "JOB_BEGIN", "cafe", Job::JobTypeStr[type]});
        const int result = manager().AddCaptureJob(&as<CaptureRequest>(message), true);
        EXPECT_NE(result, 0) << type;
        EXPECT_NE(result, 10004) << type;
        EXPECT_THAT(message->errorText, testing::StartsWith("Error: ")) << type;
    }
    EXPECT_TRUE(manager().jobQueue().jobs.empty()) << "a refused job leaves nothing behind";
}

TEST_F(ManagerJobs, AValidationQueuesNothingAndUsesNoNumber) {
    const auto message = request(
        {"CAPTURE", "JOB_VALIDATE", "cafe", "CAPTURE_MANUAL_JOB", "Filename=a", "EncoderIp=127.0.0.1"});
    const std::int64_t next = manager().jobQueue().nextId;
    EXPECT_EQ(manager().ValidateCaptureJob(&as<CaptureRequest>(message)), 0);
    EXPECT_STREQ(message->errorText, "");
    EXPECT_TRUE(manager().jobQueue().jobs.empty());
    EXPECT_EQ(manager().jobQueue().nextId, next);
}

TEST_F(ManagerJobs, AVerificationThatCannotBeIsRefusedWithItsReason) {
    const auto refusal = [&](const std::string& file, const char* property) {
        const auto message = request({"GET_MPEG_PROPERTIES", "JOB_BEGIN", "cafe", file.c_str(), property});
        code = manager().AddVerifierJob(&as<VerifierRequest>(message));
        return std::string(message->errorText);
    };
    EXPECT_EQ(refusal("/no/such/file.ts", "ALL"), "Error: file /no/such/file.ts could not be found.");
    EXPECT_EQ(code, 10014);
    EXPECT_EQ(refusal(profilePath(), "NONSENSE"), "Error: file " + profilePath() + " could not be found.");
    writeProfile("<P/>");
    EXPECT_EQ(refusal(profilePath(), "NONSENSE"), "Error: Invalid Mpeg Property.");
    EXPECT_EQ(code, 10025);
    EXPECT_TRUE(manager().jobQueue().jobs.empty());
}

TEST_F(ManagerJobs, AMessageGoesOnTheNamedQueue) {
    OwnQueue queue;
    char data[] = "payload";
    EXPECT_EQ(manager().SendQueueMessage(queue.name(), RESULTS_MSG, data, 8), 0);
    EXPECT_EQ(manager().SendQueueMessage(queue.name(), EXIT_MSG, nullptr, 0), 0);
    ASSERT_EQ(queue.waiting(), 2);
    EXPECT_EQ(queue.receive(), typeBytes(RESULTS_MSG) + std::string("payload\0", 8));
    EXPECT_EQ(queue.receive(), typeBytes(EXIT_MSG)) << "in order, without a payload";
}

TEST_F(ManagerJobs, AMessageHasPriorityZero) {
    OwnQueue queue;
    EXPECT_EQ(manager().SendQueueMessage(queue.name(), EXIT_MSG, nullptr, 0), 0);
    unsigned priority = 99;
    queue.receive(&priority);
    EXPECT_EQ(priority, 0U);
}

TEST_F(ManagerJobs, TheQueueIsOpenedAndClosedForEachMessage) {
    OwnQueue queue;
    char data[] = "x";
    const auto descriptors = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    };
    manager();
    const auto before = descriptors();
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(manager().SendQueueMessage(queue.name(), STATUS_MSG, data, 1), 0);
        queue.receive();
    }
    EXPECT_EQ(descriptors(), before);
}

TEST_F(ManagerJobs, ALongMessageIsCutAtWhatAQueueTakes) {
    OwnQueue queue;
    std::string data(5'000, 'd');
    EXPECT_EQ(manager().SendQueueMessage(queue.name(), RESULTS_MSG, data.data(), 5'000), 0);
    EXPECT_EQ(queue.receive(), typeBytes(RESULTS_MSG) + std::string(996, 'd'));
}

TEST_F(ManagerJobs, AMessageToNoQueueIsAnError) {
    std::string name = "/kestrel_test_gone_" + std::to_string(getpid());
    char data[] = "x";
    EXPECT_EQ(manager().SendQueueMessage(name.data(), RESULTS_MSG, data, 1), 10029);
    EXPECT_THAT(log(), HasSubstr("[Manager:Error] Error: Could not connect to queue " + name + "."));
}

TEST_F(ManagerJobs, AMessageThatTheQueueDoesNotTakeIsAnError) {
    OwnQueue queue(10, 8);
    char data[] = "too long for it";
    EXPECT_EQ(manager().SendQueueMessage(queue.name(), RESULTS_MSG, data, sizeof data), 10030);
    EXPECT_THAT(log(), HasSubstr("[Manager:Error] Error: Failed to send message on queue " +
                                 std::string(queue.name()) + "."));
    EXPECT_EQ(queue.waiting(), 0);
}

TEST_F(ManagerJobs, AWorkersDeckCommandIsRefusedOnItsOwnQueue) {
    OwnQueue queue;
    _VTRCmdData record{};
    record.commandKind = kestrel::vtrIsSeeking;
    kestrel::copyText(record.serialPort, "Studio B2/1"); // as long as a name can be
    kestrel::copyText(record.replyQueueName, queue.name());
    CallbackLib::_Data data{DATA_CALLBACK_VTR_CMD_REQUEST, &record, &manager()};
    CManagerLib::VTRCmdRequestCallbackFn(&data);
    ASSERT_EQ(queue.waiting(), 1);
    const std::string message = queue.receive();
    ASSERT_EQ(message.size(), 4 + sizeof record);
    EXPECT_THAT(message, testing::StartsWith(typeBytes(VTR_CMD_RESPONSE_MSG)));
    _VTRCmdData answer{};
    std::memcpy(&answer, message.data() + 4, sizeof answer);
    EXPECT_EQ(answer.commandKind, kestrel::vtrIsSeeking);
    EXPECT_EQ(answer.errorCode, 20080);
    EXPECT_STREQ(answer.errorText, "Error: Could not connect to VTR at Studio B2/1. (no deck control is "
                                   "configured: DeckCtrl EXE of the profile)");
    record.replyQueueName[0] = '\0';
    CManagerLib::VTRCmdRequestCallbackFn(&data);
    EXPECT_EQ(queue.waiting(), 0) << "nobody to answer";
}

TEST_F(ManagerJobs, SeveralConnectionsMayAskAboutOneJob) {
    CaptureJob* const job = jobWithLog("one\ntwo\n");
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&] {
            char out[2001];
            for (int round = 0; round < 100; ++round) {
                EXPECT_EQ(manager().GetJobStatus("cafe", out, sizeof out), 0);
                EXPECT_EQ(manager().GetJobResults("cafe", out, sizeof out), 0);
                EXPECT_EQ(manager().GetCaptureLogFilename("cafe", out, sizeof out), 0);
                EXPECT_EQ(manager().GetCaptureLastLogEntries("cafe", out, sizeof out), 0);
            }
        });
    for (int round = 0; round < 100; ++round) {
        job->setState(round % 2 == 0 ? Job::QUEUED : Job::IN_PROGRESS);
        job->setResults("round " + std::to_string(round));
    }
    for (std::thread& thread : threads)
        thread.join();
}

} // namespace
