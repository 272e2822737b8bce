// The manager's job commands, as far as no worker is needed.
#include "jobs/CaptureJob.h"
#include "service/RequestMessages.h"
#include "service_directories.h"

#include "foundation/PosixWrappers.h"

#include <cstring>
#include <gmock/gmock.h>
#include <unistd.h>
#include <vector>

namespace {

class JobCommands : public ServiceDirectories {
protected:
    CManagerLib& manager() { return *CManagerLib::GetInstance(); }

    // A job in the queue whose log has this content.
    CaptureJob* jobWithLog(const std::string& content) {
        CaptureJob* const job = manager().jobQueue().AddCaptureManualJob(CaptureManualJob());
        job->setGuid("cafe");
        job->setLogDir(root + "jobs-");
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

    int code = -1;
};

TEST_F(JobCommands, AnUnknownGuidIsTheSameErrorEverywhere) {
    const std::string expected = "Error: Invalid job GUID beef.";
    CManagerLib& m = manager();
    EXPECT_EQ(into(100, [&](char* o, int n) { return m.StopJob("beef", o, n); }), expected);
    EXPECT_EQ(code, 10002);
    EXPECT_EQ(into(100, [&](char* o, int n) { return m.GetJobStatus("beef", o, n); }), expected);
    EXPECT_EQ(into(100, [&](char* o, int n) { return m.GetJobResults("beef", o, n); }), expected);
    EXPECT_EQ(into(100, [&](char* o, int n) { return m.GetCaptureLogFilename("beef", o, n); }), expected);
    EXPECT_EQ(into(100, [&](char* o, int n) { return m.GetCaptureLastLogEntries("beef", o, n); }), expected);
    EXPECT_EQ(code, 10002);
    EXPECT_EQ(into(8, [&](char* o, int n) { return m.GetJobStatus("beef", o, n); }), "Error: ");
}

TEST_F(JobCommands, AVerifierJobHasNoCaptureLog) {
    auto* const job = new Job(77, Job::VERIFIER_JOB, Job::QUEUED);
    manager().jobQueue().addOfflineJob(job);
    job->setGuid("cafe");
    EXPECT_EQ(lastEntries(100), "Error: Invalid job GUID cafe.");
    EXPECT_EQ(into(100, [&](char* o, int n) { return manager().GetCaptureLogFilename("cafe", o, n); }),
              "Error: Invalid job GUID cafe.");
    EXPECT_EQ(into(100, [&](char* o, int n) { return manager().GetJobStatus("cafe", o, n); }), "QUEUED");
    EXPECT_EQ(code, 0);
}

TEST_F(JobCommands, AShortLogComesWholeWithTabsForLineEnds) {
    jobWithLog("one\r\ntwo\r\n");
    EXPECT_EQ(lastEntries(2001), "one\t\ttwo\t\t");
    EXPECT_EQ(code, 0);
}

TEST_F(JobCommands, OfALongLogTheTailComesWithoutItsVeryEnd) {
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
}

TEST_F(JobCommands, TinyBuffersAreNotOverrun) {
    jobWithLog("one\ntwo\n");
    for (int size = 0; size < 12; ++size)
        lastEntries(size);
}

TEST_F(JobCommands, AnEmptyAMissingAndAnUnreadableLogAreToldApart) {
    CaptureJob* const job = jobWithLog("");
    const std::string path = job->getLogFilename();
    EXPECT_EQ(lastEntries(500), "Log file " + path + " is empty.");
    EXPECT_EQ(code, 10042);
    std::filesystem::remove(path);
    EXPECT_EQ(lastEntries(500), "Log file " + path + " is empty.");
    EXPECT_EQ(code, 10042);
}

TEST_F(JobCommands, StoppingAQueuedJobOnlyChangesItsState) {
    CaptureJob* const job = jobWithLog("x");
    job->setState(Job::QUEUED);
    EXPECT_EQ(into(100,
                   [&](char* o, int n) {
                       o[0] = '\0';
                       return manager().StopJob("cafe", o, n);
                   }),
              "");
    EXPECT_EQ(code, 0);
    EXPECT_EQ(job->state(), Job::CANCELLED);
}

TEST_F(JobCommands, ResultsComeFromTheJob) {
    jobWithLog("x")->setResults("recorded");
    EXPECT_EQ(into(100, [&](char* o, int n) { return manager().GetJobResults("cafe", o, n); }), "recorded");
    EXPECT_EQ(into(4, [&](char* o, int n) { return manager().GetJobResults("cafe", o, n); }), "reco");
}

TEST_F(JobCommands, AMessageGoesOnTheNamedQueue) {
    const std::string name = "/kestrel_test_" + std::to_string(getpid());
    long attributes[4] = {0, 10, 1000, 0};
    const mqd_t queue = createMsgQueue(name.c_str(), 0600, attributes);
    ASSERT_GE(queue, 0);
    char data[] = "payload";
    std::string copy = name;
    EXPECT_EQ(manager().SendQueueMessage(copy.data(), RESULTS_MSG, data, 8), 0);
    char buffer[1000];
    int length = 0;
    ASSERT_EQ(receiveMsg(queue, buffer, sizeof buffer, &length), 0);
    EXPECT_EQ(length, 12);
    EXPECT_STREQ(buffer + 4, "payload");
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(manager().SendQueueMessage(copy.data(), RESULTS_MSG, data, 8), 0);
    EXPECT_EQ(manager().SendQueueMessage(copy.data(), RESULTS_MSG, data, 8), 10030)
        << "a full queue is not waited for";
    closeMsgQueue(queue);
    unlinkMsgQueue(name.c_str());
    EXPECT_EQ(manager().SendQueueMessage(copy.data(), RESULTS_MSG, data, 8), 10029);
}

} // namespace
