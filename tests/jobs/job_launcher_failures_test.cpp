// Launches that fail, and command lines that do not make a worker.
#include "jobs/JobLauncher.h"

#include "foundation/FixedText.h"
#include "foundation/PosixWrappers.h"
#include "foundation/ScratchDir.h"
#include "foundation/WithoutFurtherProcesses.h"
#include "job_workers.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>

using ::testing::HasSubstr;
using ::testing::Not;

namespace {

// Lowers a limit of this process while it lives.
class LowerLimit {
public:
    LowerLimit(__rlimit_resource resource, rlim_t value) : m_resource(resource) {
        getrlimit(resource, &m_former);
        const rlimit lower{value, m_former.rlim_max};
        setrlimit(resource, &lower);
    }
    ~LowerLimit() { setrlimit(m_resource, &m_former); }
    LowerLimit(const LowerLimit&) = delete;
    LowerLimit& operator=(const LowerLimit&) = delete;

private:
    __rlimit_resource m_resource;
    rlimit m_former{};
};

// What a launch came to in a process that could have no further process or thread.
struct Outcome {
    int result;
    Job::JobState state;
    int descriptors; // more than before
    int watched;
    bool updateQueueThere;
    bool mgrQueueThere;
    char log[2000];
};

int openDescriptors() {
    int count = 0;
    for (int descriptor = 0; descriptor < 1000; ++descriptor)
        count += fcntl(descriptor, F_GETFD) >= 0 ? 1 : 0;
    return count;
}

class WithoutProcessesTest : public JobLauncherTest {
protected:
    WithoutProcessesTest()
        : m_memory(
              mmap(nullptr, sizeof(Outcome), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) {
        if (m_memory == MAP_FAILED)
            throw std::runtime_error("mmap failed");
    }
    ~WithoutProcessesTest() override { munmap(m_memory, sizeof(Outcome)); }

    // Null where the system cannot be made to refuse.
    const Outcome* launched(Job& job, const char* commandLine, bool wait) {
        auto* const outcome = new (m_memory) Outcome{};
        const int status = statusWithoutFurtherProcesses([&] {
            const int before = openDescriptors();
            outcome->result = JobLauncher::Launch(&job, commandLine, 0, wait);
            outcome->state = job.state();
            outcome->descriptors = openDescriptors() - before;
            outcome->watched = JobLauncher::WatchingCount();
            outcome->updateQueueThere = queueExists(job.jobUpdateQueueName);
            outcome->mgrQueueThere = queueExists(job.mgrQueueName);
            kestrel::copyText(outcome->log, log.text());
            return 0;
        });
        if (status == cannotForbid)
            return nullptr;
        EXPECT_EQ(status, 0);
        return outcome;
    }

private:
    void* m_memory;
};

// A word of the command line is cut at 299 characters and there are 50 of them at most, the program included.
struct CutCase {
    std::size_t words;
    std::size_t longest;
    bool cut;
};

class CutCommandLine : public JobLauncherTest, public ::testing::WithParamInterface<CutCase> {};

} // namespace

TEST_F(JobLauncherTest, AProgramThatDoesNotExistExitsWith255) {
    CaptureManualJob job(901020);
    EXPECT_EQ(JobLauncher::Launch(&job, "/nowhere/worker -x", 0, true), 0);
    EXPECT_EQ(job.state(), Job::ERROR);
    EXPECT_THAT(log.text(), HasSubstr("Error: Process /nowhere/worker -x exited with code 255."));
    const std::string reason = "Error: Could not run /nowhere/worker: errno 2 (No such file or directory).";
    EXPECT_EQ(job.resultsText(), reason);
    EXPECT_THAT(log.text(), HasSubstr("[JobLauncher:Error] " + reason + "\r\n"));
}

TEST_F(JobLauncherTest, AnEmptyCommandLineIsAProgramThatDoesNotExist) {
    CaptureManualJob job(901021);
    EXPECT_EQ(JobLauncher::Launch(&job, "", 0, true), 0);
    EXPECT_EQ(job.state(), Job::ERROR);
    EXPECT_THAT(log.text(), HasSubstr("Error: Process  exited with code 255."));
    EXPECT_EQ(run(job, "exit:0"), Job::COMPLETE);
    EXPECT_FALSE(queueExists(job.mgrQueueName));
}

TEST_F(JobLauncherTest, FlushReportsWhatItCannotDo) {
    char name[] = "/job_update_q_901041";
    int queue = -1;
    ASSERT_EQ(JobLauncher::createQueue(name, queue), 0);
    EXPECT_EQ(JobLauncher::flushAndDestroyQueue(name, -1), 10031);
    EXPECT_THAT(log.text(), HasSubstr("Error: Could not close queue /job_update_q_901041."));
    EXPECT_EQ(JobLauncher::flushAndDestroyQueue(name, queue), 10032) << "the name is gone by now";
    EXPECT_THAT(log.text(), HasSubstr("Error: Could not unlink queue /job_update_q_901041."));
    EXPECT_EQ(JobLauncher::flushAndDestroyQueue(name, -1), 10032);
    EXPECT_EQ(JobLauncher::flushAndDestroyQueue(nullptr, -1), 10032);
}

TEST_F(JobLauncherTest, AQueueThatCannotBeMadeHasNoDescriptor) {
    char name[] = "no-leading-slash/inside";
    int queue = 5;
    EXPECT_EQ(JobLauncher::createQueue(name, queue), 10028);
    EXPECT_LT(queue, 0);
    EXPECT_THAT(log.text(),
                HasSubstr("[JobLauncher:Error] Error: Could not create queue no-leading-slash/inside."));
    EXPECT_EQ(JobLauncher::createQueue(nullptr, queue), 10028);
}

TEST_F(JobLauncherTest, ALaunchWithoutQueuesSaysWhichLimitWasMet) {
    CaptureManualJob job(901042);
    {
        const LowerLimit limit(RLIMIT_MSGQUEUE, 1000);
        EXPECT_EQ(launch(job, "exit:0"), 10028);
    }
    EXPECT_THAT(job.resultsText(),
                HasSubstr("Error: Could not create queue /job_update_q_901042. (limit met: bytes "
                          "in message queues of this user, RLIMIT_MSGQUEUE 1000"));
    EXPECT_EQ(job.state(), Job::IN_PROGRESS);
    const std::size_t open = entriesOf("/proc/self/fd");
    {
        const LowerLimit limit(RLIMIT_NOFILE, 3);
        EXPECT_EQ(launch(job, "exit:0"), 10028);
    }
    EXPECT_THAT(job.resultsText(), HasSubstr("(limit met: open files of this process, RLIMIT_NOFILE 3"));
    EXPECT_EQ(entriesOf("/proc/self/fd"), open);
    EXPECT_EQ(JobLauncher::WatchingCount(), 0);
}

TEST_F(JobLauncherTest, WhenTheSecondQueueFailsTheFirstGoesToo) {
    CaptureManualJob job(901043);
    std::strcpy(job.mgrQueueName, "/not/a/queue");
    EXPECT_EQ(launch(job, "exit:0"), 10028);
    EXPECT_THAT(job.resultsText(), HasSubstr("Error: Could not create queue /not/a/queue. ("));
    EXPECT_FALSE(queueExists(job.jobUpdateQueueName));
}

TEST_P(CutCommandLine, ReachesTheWorkerWithinTheBoundsAndIsWarnedAbout) {
    const CutCase& row = GetParam();
    CaptureManualJob job(901060);
    const std::string told = file("told");
    // The shell's own name is the fourth word, the long one the fifth.
    std::string command = "sh -c \"echo $# ${#1} > " + told + "\" worker " + std::string(row.longest, 'x');
    for (std::size_t word = 5; word < row.words; ++word)
        command += " y";
    EXPECT_EQ(JobLauncher::Launch(&job, command.c_str(), 0, true), 0);
    EXPECT_EQ(job.state(), Job::COMPLETE);
    EXPECT_EQ(contentOf(told), std::to_string(std::min<std::size_t>(row.words, 50) - 4) + " " +
                                   std::to_string(std::min<std::size_t>(row.longest, 299)) + "\n");
    const auto warning = HasSubstr("[JobLauncher:Warning] More than 50 words, or one of more than 299 "
                                   "characters, were cut from " +
                                   command);
    if (row.cut)
        EXPECT_THAT(log.text(), warning);
    else
        EXPECT_THAT(log.text(), Not(HasSubstr("Warning]")));
}

INSTANTIATE_TEST_SUITE_P(Bounds, CutCommandLine,
                         ::testing::Values(CutCase{50, 299, false}, CutCase{51, 299, true},
                                           CutCase{50, 300, true}, CutCase{70, 900, true}),
                         [](const auto& each) {
                             return std::to_string(each.param.words) + "WordsOf" +
                                    std::to_string(each.param.longest);
                         });

TEST_F(WithoutProcessesTest, WithoutAThreadTheLaunchFailsAndLeavesNothing) {
    CaptureManualJob job(901050);
    const Outcome* const outcome = launched(job, "true", false);
    if (outcome == nullptr)
        GTEST_SKIP() << whyCannotForbid;
    EXPECT_EQ(outcome->result, 10035);
    EXPECT_THAT(outcome->log, HasSubstr("[JobLauncher:Error] Error: Could not launch thread.\r\n"));
    EXPECT_FALSE(outcome->updateQueueThere);
    EXPECT_FALSE(outcome->mgrQueueThere);
    EXPECT_EQ(outcome->descriptors, 0);
    EXPECT_EQ(outcome->watched, 0);
    EXPECT_EQ(outcome->state, Job::IN_PROGRESS);
}

TEST_F(WithoutProcessesTest, WithoutAChildTheJobKeepsItsStateAndItsQueues) {
    CaptureManualJob job(901051);
    const Outcome* const outcome = launched(job, "worker -x \"a b\"", true);
    if (outcome == nullptr)
        GTEST_SKIP() << whyCannotForbid;
    EXPECT_EQ(outcome->result, 10036);
    EXPECT_THAT(outcome->log,
                HasSubstr("[JobLauncher:Error] Error: Could not launch process worker -x \"a b\".\r\n"));
    EXPECT_EQ(outcome->state, Job::IN_PROGRESS);
    EXPECT_EQ(outcome->watched, 0);
    EXPECT_EQ(outcome->descriptors, 2) << "both queues stay open";
    EXPECT_TRUE(outcome->updateQueueThere);
    EXPECT_TRUE(outcome->mgrQueueThere);

    // Its process is gone, the queues are not: the next job of this id replaces them.
    EXPECT_TRUE(queueExists(job.jobUpdateQueueName));
    EXPECT_TRUE(queueExists(job.mgrQueueName));
    EXPECT_EQ(run(job, "say:7:next"), Job::COMPLETE);
    EXPECT_EQ(job.resultsText(), "next");
    EXPECT_FALSE(queueExists(job.jobUpdateQueueName));
    EXPECT_FALSE(queueExists(job.mgrQueueName));
}
