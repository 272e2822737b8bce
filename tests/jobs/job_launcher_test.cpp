// Launching and watching real worker processes over real queues.
#include "jobs/JobLauncher.h"

#include "foundation/PosixWrappers.h"
#include "foundation/ProcessTree.h"
#include "foundation/QueueMessages.h"
#include "foundation/WaitUntilAsleep.h"
#include "job_workers.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <thread>

using kestrel::test::childrenOf;
using kestrel::test::threadsOf;
using ::testing::AnyOf;
using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::Not;

namespace {

pid_t firstChild() {
    const std::vector<pid_t> children = childrenOf(getpid());
    return children.empty() ? 0 : children.front();
}

// A queue of the launcher's as others see it, also when its name is gone.
class OtherEnd {
public:
    explicit OtherEnd(const char* name) : m_queue(mq_open(name, O_RDWR | O_CLOEXEC)) {
        EXPECT_GE(m_queue, 0) << name;
    }
    ~OtherEnd() { mq_close(m_queue); }
    OtherEnd(const OtherEnd&) = delete;
    OtherEnd& operator=(const OtherEnd&) = delete;

    // False when there was no room for it within the time.
    [[nodiscard]] bool send(const std::string& text) const {
        timespec limit{};
        clock_gettime(CLOCK_REALTIME, &limit);
        limit.tv_sec += 20;
        return mq_timedsend(m_queue, text.data(), text.size(), 0, &limit) == 0;
    }
    // Empty when none waits.
    [[nodiscard]] std::string receive() const {
        char bytes[1000];
        timespec now{};
        const ssize_t length = mq_timedreceive(m_queue, bytes, sizeof bytes, nullptr, &now);
        return {bytes, static_cast<std::size_t>(std::max<ssize_t>(length, 0))};
    }
    [[nodiscard]] long waiting() const {
        mq_attr attributes{};
        return mq_getattr(m_queue, &attributes) == 0 ? attributes.mq_curmsgs : -1;
    }

private:
    mqd_t m_queue;
};

} // namespace

TEST_F(JobLauncherTest, ThreadDataCopiesTheCommandLine) {
    std::string text = "abc";
    const JobLauncher::ThreadData data(text.c_str());
    text[0] = 'X';
    EXPECT_STREQ(data.cmdLine, "abc");
    EXPECT_STREQ(JobLauncher::ThreadData(nullptr).cmdLine, "");
}

// How a worker ends, and what becomes of its job in each state.
TEST_F(JobLauncherTest, HowTheWorkerEndsDecidesTheState) {
    struct Row {
        const char* script;
        Job::JobState before;
        Job::JobState after;
        const char* logged;
    };
    const Row rows[] = {
        {"exit:0", Job::QUEUED, Job::COMPLETE, "[JobLauncher:Info] Info: Job process returned SUCCESS."},
        {"exit:0", Job::IN_PROGRESS, Job::COMPLETE, "SUCCESS."},
        {"exit:0", Job::CANCELLED, Job::CANCELLED, "SUCCESS."},
        {"exit:3", Job::QUEUED, Job::ERROR, " exited with code 3."},
        {"exit:3", Job::IN_PROGRESS, Job::ERROR, " exited with code 3."},
        {"exit:255", Job::IN_PROGRESS, Job::ERROR, " exited with code 255."},
        {"exit:3", Job::CANCELLED, Job::CANCELLED, " exited with code 3."},
        {"signal:9", Job::IN_PROGRESS, Job::ERROR,
         " exited, but could not retrieve exit code.  Was exit() used?"},
        {"signal:15", Job::CANCELLED, Job::ERROR,
         " exited, but could not retrieve exit code.  Was exit() used?"},
    };
    unsigned long id = 901000;
    for (const Row& row : rows) {
        CaptureManualJob job(id++);
        job.setState(row.before);
        EXPECT_EQ(run(job, row.script), row.after) << row.script;
        EXPECT_THAT(log.text(), HasSubstr(row.logged));
        EXPECT_FALSE(queueExists(job.jobUpdateQueueName));
        EXPECT_FALSE(queueExists(job.mgrQueueName));
    }
    EXPECT_THAT(log.text(),
                HasSubstr("[JobLauncher:Info] Info: Launching Job command \"" KESTREL_TEST_WORKER));
    EXPECT_THAT(log.text(), HasSubstr("[JobLauncher:Error] Error: Process \"" KESTREL_TEST_WORKER));
    EXPECT_THAT(log.text(), HasSubstr("[JobLauncher:Error] Child process \"" KESTREL_TEST_WORKER));
    EXPECT_THAT(log.text(), ContainsRegex("Warning\\] Job 901007 : process [0-9]+ was ended by signal 9 "
                                          "\\(SIGKILL\\)\\."));
}

TEST_F(JobLauncherTest, QuotedStretchesAreOneArgument) {
    CaptureManualJob job(901022);
    const std::string held = file("a b");
    ASSERT_EQ(launch(job, "\"hold:" + held + "\""), 0);
    EXPECT_TRUE(eventually([&] { return std::filesystem::exists(held + ".there"); }));
    std::ofstream(held).flush();
    EXPECT_TRUE(allEnded());
    EXPECT_EQ(job.state(), Job::COMPLETE);
}

TEST_F(JobLauncherTest, LaunchReturnsWhileTheWorkerRuns) {
    CaptureManualJob job(901023);
    const std::string held = file("held");
    ASSERT_EQ(launch(job, "hold:" + held), 0);
    EXPECT_EQ(JobLauncher::WatchingCount(), 1);
    EXPECT_EQ(job.state(), Job::IN_PROGRESS);
    const pid_t worker = firstChild();
    EXPECT_NE(worker, 0) << "the process exists when Launch has returned";
    EXPECT_TRUE(eventually([&] { return job.workerPid() == worker; }));
    std::ofstream(held).flush();
    EXPECT_TRUE(allEnded());
    EXPECT_EQ(job.state(), Job::COMPLETE);
    EXPECT_EQ(job.workerPid(), 0);
    EXPECT_THAT(log.text(), HasSubstr("[JobLauncher:Info] Job 901023 : its worker is process " +
                                      std::to_string(worker) + ".\r\n"));
}

TEST_F(JobLauncherTest, TheManagersQueueReachesTheWorker) {
    CaptureManualJob job(901024);
    ASSERT_EQ(launch(job, "cancel exit:0"), 0);
    const mqd_t queue = connectToMsgQueue(job.mgrQueueName, O_WRONLY);
    GenericMsg cancel(CANCEL_MSG, nullptr, 0);
    EXPECT_EQ(sendPriorityMsg(queue, reinterpret_cast<char*>(cancel.buffer), cancel.length, 0), 0);
    closeMsgQueue(queue);
    job.setState(Job::CANCELLED);
    EXPECT_TRUE(allEnded());
    EXPECT_EQ(job.state(), Job::CANCELLED);
}

TEST_F(JobLauncherTest, ResultsSentJustBeforeTheEndAreNeverLost) {
    for (int i = 0; i < 50; ++i) {
        CaptureManualJob job(901030);
        EXPECT_EQ(run(job, "say:3: say:3: say:7:done" + std::to_string(i)), Job::COMPLETE);
        EXPECT_EQ(job.resultsText(), "done" + std::to_string(i));
    }
}

TEST_F(JobLauncherTest, AWorkerFasterThanTheQueueIsDrainedAllTheSame) {
    CaptureManualJob job(901031);
    EXPECT_EQ(run(job, "every:0:500 say:7:last"), Job::COMPLETE);
    EXPECT_EQ(job.resultsText(), "last");
    const std::string text = log.text();
    int count = 0;
    for (std::size_t at = text.find("status msg"); at != std::string::npos;
         at = text.find("status msg", at + 1))
        ++count;
    EXPECT_EQ(count, 500);
}

TEST_F(JobLauncherTest, AfterTheExitMessageOnlyTheEndCounts) {
    CaptureManualJob job(901032);
    // The silence limit is passed twice over after the announcement.
    EXPECT_EQ(run(job, "say:7:before say:0: sleep:3000 say:7:after exit:4", 1), Job::ERROR);
    EXPECT_EQ(job.resultsText(), "before");
    EXPECT_THAT(log.text(), HasSubstr("EXIT_MSG"));
    EXPECT_THAT(log.text(), Not(HasSubstr("No status message")));
}

TEST_F(JobLauncherTest, SilenceEndsTheWatchingAndLeavesTheWorkerAlone) {
    CaptureManualJob job(901033);
    std::strcpy(job.guidStr, "g-33");
    const std::string held = file("held");
    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(launch(job, "hold:" + held, 1), 0);
    const pid_t worker = firstChild();
    EXPECT_TRUE(allEnded());
    const auto silence = std::chrono::steady_clock::now() - start;
    EXPECT_GT(silence, 1s);
    EXPECT_LT(silence, 3s);
    EXPECT_THAT(log.text(),
                HasSubstr("[JobLauncher:Error] No status message in last 1 seconds, terminating job "
                          "901033 g-33."));
    EXPECT_EQ(job.state(), Job::IN_PROGRESS);
    EXPECT_FALSE(queueExists(job.jobUpdateQueueName));
    EXPECT_FALSE(queueExists(job.mgrQueueName));
    EXPECT_THAT(processState(worker), AnyOf('S', 'R'));
    std::ofstream(held).flush();
    EXPECT_TRUE(eventually([&] { return processState(worker) == '\0'; })) << "and is reaped when it ends";
}

TEST_F(JobLauncherTest, AnyMessageResetsTheSilence) {
    CaptureManualJob job(901034);
    EXPECT_EQ(run(job, "sleep:900 say:9: sleep:900 say:3: sleep:900 say:1: sleep:900", 1), Job::COMPLETE);
    EXPECT_THAT(log.text(), Not(HasSubstr("No status message")));
}

TEST_F(JobLauncherTest, WithoutATimeoutSilenceIsAllowed) {
    for (const int timeout : {0, -1}) {
        CaptureManualJob job(901035);
        EXPECT_EQ(run(job, "sleep:300", timeout), Job::COMPLETE);
    }
    CaptureManualJob job(901035);
    EXPECT_EQ(run(job, "sleep:50", 2147483647), Job::COMPLETE);
}

TEST_F(JobLauncherTest, AStoppedWorkerIsAnErrorAndIsReapedWhenItEnds) {
    CaptureManualJob job(901036);
    job.setState(Job::CANCELLED);
    const std::string held = file("held");
    ASSERT_EQ(launch(job, "hold:" + held), 0);
    const pid_t worker = firstChild();
    ASSERT_TRUE(eventually([&] { return std::filesystem::exists(held + ".there"); }));
    kestrel::test::signalTo(worker, SIGSTOP);
    EXPECT_TRUE(allEnded());
    EXPECT_EQ(job.state(), Job::ERROR);
    EXPECT_THAT(log.text(), HasSubstr("could not retrieve exit code.  Was exit() used?"));
    EXPECT_THAT(log.text(),
                HasSubstr("[JobLauncher:Warning] Job 901036 : process " + std::to_string(worker) +
                          " was stopped by signal 19 (SIGSTOP) and is no longer watched. To let it "
                          "go on: kill -CONT " +
                          std::to_string(worker) + "\r\n"));
    EXPECT_EQ(processState(worker), 'T');
    kestrel::test::signalTo(worker, SIGKILL);
    EXPECT_TRUE(eventually([&] { return processState(worker) == '\0'; }));
}

TEST_F(JobLauncherTest, TheEndOfAWorkerIsSeenAtOnce) {
    // A busy machine may let any one wait, so they are as many as it takes, at most fifty. Seen only at the
    // next look for a stopped worker, each would take up to a second.
    auto quickest = std::chrono::steady_clock::duration::max();
    for (unsigned long round = 0; round < 50 && quickest >= 10ms; ++round) {
        CaptureManualJob job(901037 + round * 1000);
        const std::string held = file("held" + std::to_string(round));
        ASSERT_EQ(launch(job, "hold:" + held), 0);
        const pid_t worker = firstChild();
        ASSERT_TRUE(eventually([&] { return std::filesystem::exists(held + ".there"); }));
        const auto start = std::chrono::steady_clock::now();
        kestrel::test::signalTo(worker, SIGKILL);
        while (job.state() != Job::ERROR && std::chrono::steady_clock::now() - start < 5s)
            std::this_thread::sleep_for(100us);
        quickest = std::min(quickest, std::chrono::steady_clock::now() - start);
        EXPECT_TRUE(allEnded());
    }
    EXPECT_LT(quickest, 10ms);
}

TEST_F(JobLauncherTest, AWorkerThatSomebodyElseReapedIsAnError) {
    CaptureManualJob job(901038);
    struct sigaction ignore {};
    struct sigaction former {};
    ignore.sa_handler = SIG_IGN; // the system reaps children itself then
    sigaction(SIGCHLD, &ignore, &former);
    EXPECT_EQ(run(job, "exit:0"), Job::ERROR);
    sigaction(SIGCHLD, &former, nullptr);
    EXPECT_THAT(log.text(), HasSubstr("could not retrieve exit code.  Was exit() used?"));
}

TEST_F(JobLauncherTest, AStaleQueueIsReplaced) {
    CaptureManualJob job(901039);
    mq_attr small{};
    small.mq_maxmsg = 1;
    small.mq_msgsize = 8;
    const mqd_t stale = mq_open(job.jobUpdateQueueName, O_CREAT | O_RDWR | O_CLOEXEC, 0600, &small);
    ASSERT_GE(stale, 0);
    ASSERT_EQ(mq_send(stale, "\7\0\0\0old", 7, 0), 0);
    EXPECT_EQ(run(job, "say:7:a_text_longer_than_the_old_queue_takes"), Job::COMPLETE);
    EXPECT_EQ(job.resultsText(), "a_text_longer_than_the_old_queue_takes");
    EXPECT_THAT(log.text(), HasSubstr("[JobLauncher:Warning] Queue /job_update_q_901039 was there already"));
    EXPECT_THAT(log.text(), Not(HasSubstr("Queue /mgr_msg_q_901039 was there")));
    mq_close(stale);
}

TEST_F(JobLauncherTest, CreatedQueuesHaveTheDocumentedAttributes) {
    char name[] = "/job_update_q_901040";
    int queue = -1;
    const mode_t formerMask = umask(0);
    const int result = JobLauncher::createQueue(name, queue);
    umask(formerMask);
    ASSERT_EQ(result, 0);
    long attributes[4] = {};
    ASSERT_EQ(getQueueAttr(queue, attributes), 0);
    EXPECT_EQ(attributes[0], 0);
    EXPECT_EQ(attributes[1], 10);
    EXPECT_EQ(attributes[2], 1000);
    EXPECT_EQ(attributes[3], 0);
    EXPECT_NE(fcntl(queue, F_GETFD) & FD_CLOEXEC, 0);
    struct stat queueFile {};
    ASSERT_EQ(fstat(queue, &queueFile), 0);
    EXPECT_EQ(queueFile.st_mode & 07777, 0666U);
    for (int i = 0; i < 10; ++i)
        ASSERT_EQ(sendMsg(queue, "1234", 4), 0);
    EXPECT_EQ(JobLauncher::flushAndDestroyQueue(name, queue), 0) << "waiting messages do not hold it up";
    EXPECT_FALSE(queueExists(name));
    EXPECT_EQ(fcntl(queue, F_GETFD), -1);
}

TEST_F(JobLauncherTest, DestroyingAQueueDropsAsManyMessagesAsItHeld) {
    char name[] = "/job_update_q_901041";
    int queue = -1;
    ASSERT_EQ(JobLauncher::createQueue(name, queue), 0);
    const OtherEnd other(name);
    for (int i = 0; i < 10; ++i)
        ASSERT_EQ(sendMsg(queue, "held", 4), 0);
    std::atomic<pid_t> waiting{0};
    std::thread sender([&] {
        waiting = gettid();
        EXPECT_TRUE(other.send("late")) << "a sender that waits for room is let go";
    });
    waitUntilAsleep(waiting);
    EXPECT_EQ(JobLauncher::flushAndDestroyQueue(name, queue), 0);
    sender.join();
    EXPECT_EQ(other.receive(), "late");
    EXPECT_EQ(other.waiting(), 0);
}

TEST_F(JobLauncherTest, MessagesStillWaitingWhenTheWorkerHasEndedAreDropped) {
    CaptureManualJob job(901042);
    const std::string held = file("held");
    ASSERT_EQ(launch(job, "hold:" + held), 0);
    const OtherEnd toWorker(job.mgrQueueName);
    for (int i = 0; i < 3; ++i)
        ASSERT_TRUE(toWorker.send("unread"));
    std::ofstream(held).flush();
    EXPECT_TRUE(allEnded());
    EXPECT_EQ(job.state(), Job::COMPLETE);
    EXPECT_EQ(toWorker.waiting(), 0);
    EXPECT_FALSE(queueExists(job.mgrQueueName));
}

TEST_F(JobLauncherTest, ASecondReaderOfTheQueueDoesNotHangTheWatching) {
    CaptureManualJob job(901044);
    ASSERT_EQ(launch(job, "every:0:300 exit:0"), 0);
    const mqd_t thief = mq_open(job.jobUpdateQueueName, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    char buffer[1000];
    while (JobLauncher::WatchingCount() > 0)
        mq_receive(thief, buffer, sizeof buffer, nullptr);
    mq_close(thief);
    EXPECT_EQ(job.state(), Job::COMPLETE);
}

TEST_F(JobLauncherTest, DoWorkAloneWatchesAndFreesItsData) {
    CaptureManualJob job(901045);
    auto* const data = new JobLauncher::ThreadData(line(job, "say:7:alone").c_str());
    ASSERT_EQ(JobLauncher::createQueue(job.jobUpdateQueueName, data->updateQueue), 0);
    ASSERT_EQ(JobLauncher::createQueue(job.mgrQueueName, data->mgrQueue), 0);
    data->job = &job;
    EXPECT_EQ(JobLauncher::doWork(data), nullptr);
    EXPECT_EQ(job.state(), Job::COMPLETE);
    EXPECT_EQ(job.resultsText(), "alone");
}

TEST_F(JobLauncherTest, AHundredShortJobsLeaveNothingBehind) {
    CaptureManualJob first(901100);
    EXPECT_EQ(run(first, "exit:0"), Job::COMPLETE);
    // A sanitizer starts a thread of its own with the first one of the program.
    std::thread([] {}).join();
    const std::size_t threads = threadsOf(getpid());
    const std::size_t descriptors = entriesOf("/proc/self/fd");
    std::vector<std::unique_ptr<CaptureManualJob>> jobs;
    for (unsigned long i = 0; i < 100; ++i) {
        jobs.push_back(std::make_unique<CaptureManualJob>(901100 + i));
        ASSERT_EQ(launch(*jobs.back(), "status:0:1 say:7:r exit:" + std::to_string(i % 2), 5), 0);
        // As many at a time as the host's limit on queues allows for sure.
        EXPECT_TRUE(eventually([] { return JobLauncher::WatchingCount() < 10; }));
    }
    EXPECT_TRUE(allEnded());
    for (unsigned long i = 0; i < 100; ++i) {
        EXPECT_EQ(jobs[i]->state(), i % 2 == 0 ? Job::COMPLETE : Job::ERROR);
        EXPECT_EQ(jobs[i]->resultsText(), "r");
        EXPECT_FALSE(queueExists(jobs[i]->jobUpdateQueueName));
        EXPECT_FALSE(queueExists(jobs[i]->mgrQueueName));
    }
    EXPECT_TRUE(eventually([&] { return threadsOf(getpid()) <= threads; }));
    EXPECT_EQ(entriesOf("/proc/self/fd"), descriptors);
    EXPECT_THAT(childrenOf(getpid()), testing::IsEmpty());
}

TEST_F(JobLauncherTest, StopWatchingLeavesWorkersAndJobsAsTheyAre) {
    const std::string held = file("held");
    std::vector<std::unique_ptr<CaptureManualJob>> jobs;
    for (unsigned long i = 0; i < 5; ++i) {
        jobs.push_back(std::make_unique<CaptureManualJob>(901210 + i));
        std::strcpy(jobs.back()->guidStr, "g-stop");
        ASSERT_EQ(launch(*jobs.back(), (i % 2 ? "say:0: hold:" : "hold:") + held, 30), 0);
    }
    const pid_t worker = firstChild();
    EXPECT_EQ(JobLauncher::WatchingCount(), 5);
    const auto start = std::chrono::steady_clock::now();
    JobLauncher::StopWatching();
    EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
    EXPECT_EQ(JobLauncher::WatchingCount(), 0);
    for (const auto& job : jobs) {
        EXPECT_EQ(job->state(), Job::IN_PROGRESS);
        EXPECT_FALSE(queueExists(job->jobUpdateQueueName));
        EXPECT_FALSE(queueExists(job->mgrQueueName));
    }
    jobs.clear();
    EXPECT_THAT(log.text(),
                HasSubstr("[JobLauncher:Info] Job 901210 g-stop is no longer watched. Its worker, process " +
                          std::to_string(worker) + ", keeps running; to end it: kill -TERM " +
                          std::to_string(worker)));
    EXPECT_THAT(processState(worker), AnyOf('S', 'R'));

    CaptureManualJob next(901210);
    EXPECT_EQ(run(next, "say:7:next"), Job::COMPLETE) << "a later launch is watched as usual";
    std::ofstream(held).flush();
    EXPECT_TRUE(eventually([] { return childrenOf(getpid()).empty(); })) << "reaped, though unwatched";
}

TEST_F(JobLauncherTest, AWorkerThatStartsWhenWatchingHasEndedForGoodIsNotWatched) {
    JobLauncher::StopWatching(true);
    const std::string held = file("held");
    CaptureManualJob job(901218);
    EXPECT_EQ(launch(job, "hold:" + held), 0);
    EXPECT_TRUE(allEnded());
    EXPECT_EQ(job.state(), Job::IN_PROGRESS);
    EXPECT_THAT(log.text(), HasSubstr("Job 901218  is no longer watched. Its worker, process "));
    JobLauncher::ResumeWatching();
    CaptureManualJob next(901219);
    EXPECT_EQ(run(next, "say:7:next"), Job::COMPLETE);
    std::ofstream(held).flush();
    EXPECT_TRUE(eventually([] { return childrenOf(getpid()).empty(); }));
}

TEST_F(JobLauncherTest, StopWatchingEndsAWaitingLaunchToo) {
    CaptureManualJob job(901220);
    const std::string held = file("held");
    int result = -1;
    std::thread caller([&] { result = launch(job, "hold:" + held, 0, true); });
    EXPECT_TRUE(eventually([&] { return std::filesystem::exists(held + ".there"); }));
    JobLauncher::StopWatching();
    caller.join();
    EXPECT_EQ(result, 0);
    EXPECT_EQ(job.state(), Job::IN_PROGRESS);
    std::ofstream(held).flush();
    EXPECT_TRUE(eventually([] { return childrenOf(getpid()).empty(); }));
}

TEST_F(JobLauncherTest, StopWatchingWithoutJobsReturns) {
    JobLauncher::StopWatching();
    JobLauncher::StopWatching();
    EXPECT_EQ(JobLauncher::WatchingCount(), 0);
}

TEST_F(JobLauncherTest, AJobIsCopiedAndAskedWhileItsWorkerReports) {
    CaptureManualJob job(901230);
    std::string script;
    for (int i = 0; i < 40; ++i)
        script += "status:" + std::to_string(i % 4) + ":7 say:7:r" + std::to_string(i) + " ";
    ASSERT_EQ(launch(job, script), 0);
    while (JobLauncher::WatchingCount() > 0) {
        const std::unique_ptr<CaptureManualJob> copy(job.clone());
        EXPECT_LE(copy->statusDetails.size(), 4u);
        copy->getLogFilename();
        job.getLogFilename();
    }
    EXPECT_EQ(job.state(), Job::COMPLETE);
}
