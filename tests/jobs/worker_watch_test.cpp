// What tells a watching thread that its worker was stopped.
#include "jobs/WorkerWatch.h"

#include "foundation/AppLaunchUtil.h"
#include "foundation/ProcessTree.h"
#include "job_workers.h"
#include "jobs/WatchRegistry.h"

#include <algorithm>
#include <csignal>
#include <future>
#include <gmock/gmock.h>
#include <poll.h>
#include <sys/wait.h>
#include <vector>

using kestrel::WatchRegistry;
using kestrel::WorkerWatch;
using kestrel::test::childrenOf;
using kestrel::test::signalTo;

namespace {

// Returns when the child has stopped, and leaves the news of it to whoever watches.
void waitUntilStopped(pid_t child) {
    siginfo_t info{};
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(child), &info, WSTOPPED | WEXITED | WNOWAIT), 0);
    ASSERT_EQ(info.si_code, CLD_STOPPED);
}

class WorkerWatchTest : public JobLauncherTest {
protected:
    ~WorkerWatchTest() override {
        for (const pid_t child : childrenOf(getpid()))
            signalTo(child, SIGKILL);
        EXPECT_TRUE(eventually([] { return childrenOf(getpid()).empty(); }));
    }
};

} // namespace

TEST_F(WorkerWatchTest, OneReportIsEnoughForAllWorkersThatWereStopped) {
    const WatchRegistry::ChildReports reports;
    std::vector<std::unique_ptr<CaptureManualJob>> jobs;
    for (unsigned long i = 0; i < 3; ++i) {
        jobs.push_back(std::make_unique<CaptureManualJob>(901300 + i));
        ASSERT_EQ(launch(*jobs.back(), "hold:" + file("held")), 0);
    }
    EXPECT_TRUE(eventually([&] {
        return std::all_of(jobs.begin(), jobs.end(), [](const auto& job) { return job->workerPid() > 0; });
    }));
    const pid_t first = jobs[0]->workerPid();
    for (const pid_t worker : {first, jobs[2]->workerPid()}) {
        signalTo(worker, SIGSTOP);
        waitUntilStopped(worker);
    }
    reports.childChanged();
    EXPECT_TRUE(eventually([] { return JobLauncher::WatchingCount() == 1; }));
    EXPECT_EQ(jobs[0]->state(), Job::ERROR);
    EXPECT_EQ(jobs[1]->state(), Job::IN_PROGRESS);
    EXPECT_EQ(jobs[2]->state(), Job::ERROR);
    EXPECT_EQ(processState(first), 'T');
    JobLauncher::StopWatching(); // before the jobs go
}

TEST_F(WorkerWatchTest, WhenReportsBeginAllThatWatchLookOnce) {
    const WatchRegistry::Membership member = WatchRegistry::instance().join();
    pollfd wake{member.wakeDescriptor(), POLLIN, 0};
    EXPECT_EQ(poll(&wake, 1, 0), 0);
    const WatchRegistry::ChildReports reports;
    EXPECT_EQ(poll(&wake, 1, 0), 1) << "what changed before was not reported";
}

TEST_F(WorkerWatchTest, AStopThatWasReportedBeforeTheFirstWaitIsSeen) {
    const WatchRegistry::ChildReports reports;
    CaptureManualJob job(901310);
    JobLauncher::ThreadData data(line(job, "signal:19").c_str());
    ASSERT_EQ(JobLauncher::createQueue(job.jobUpdateQueueName, data.updateQueue), 0);
    data.job = &job;
    auto watched = std::async(std::launch::async, [&] {
        const WatchRegistry::Membership membership = WatchRegistry::instance().join();
        kestrel::ArgumentVector arguments{std::string_view(data.cmdLine)};
        int failure = 0;
        const pid_t worker = AppLaunchUtil::runCmd(arguments, failure);
        ASSERT_GT(worker, 0);
        waitUntilStopped(worker);
        reports.childChanged();
        WorkerWatch watch(data, worker, membership);
        watch.run();
        EXPECT_TRUE(watch.workerRemains());
        signalTo(worker, SIGKILL);
        EXPECT_EQ(waitpid(worker, nullptr, 0), worker);
    });
    EXPECT_EQ(watched.wait_for(20s), std::future_status::ready);
    JobLauncher::StopWatching();
    watched.get();
    EXPECT_EQ(job.state(), Job::ERROR);
    EXPECT_EQ(JobLauncher::flushAndDestroyQueue(job.jobUpdateQueueName, data.updateQueue), 0);
}

TEST_F(WorkerWatchTest, AWorkerThatIsStoppedBehindItsExitMessageIsAnError) {
    const WatchRegistry::ChildReports reports;
    CaptureManualJob job(901313);
    ASSERT_EQ(launch(job, "say:7:last say:0: hold:" + file("held")), 0);
    EXPECT_TRUE(eventually(
        [&] { return std::filesystem::exists(file("held.there")) && job.resultsText() == "last"; }));
    const pid_t worker = job.workerPid();
    ASSERT_GT(worker, 0);
    signalTo(worker, SIGSTOP);
    waitUntilStopped(worker);
    reports.childChanged();
    EXPECT_TRUE(allEnded());
    EXPECT_EQ(job.state(), Job::ERROR);
    JobLauncher::StopWatching();
}

TEST_F(WorkerWatchTest, ReportsThatTellOfOthersChangeNothing) {
    const WatchRegistry::ChildReports reports;
    CaptureManualJob job(901311);
    const std::string held = file("held");
    ASSERT_EQ(launch(job, "say:7:first hold:" + held + " say:7:last"), 0);
    EXPECT_TRUE(eventually([&] {
        reports.childChanged();
        return job.resultsText() == "first";
    }));
    for (int i = 0; i < 1000; ++i)
        reports.childChanged();
    EXPECT_EQ(job.state(), Job::IN_PROGRESS);
    std::ofstream(held).flush();
    EXPECT_TRUE(allEnded());
    EXPECT_EQ(job.state(), Job::COMPLETE);
    EXPECT_EQ(job.resultsText(), "last");
}

TEST_F(WorkerWatchTest, WhenReportsEndWorkersAreLookedAtAgain) {
    CaptureManualJob job(901312);
    {
        const WatchRegistry::ChildReports reports;
        ASSERT_EQ(launch(job, "say:7:watched hold:" + file("held")), 0);
        // Its watching thread has begun to wait, or will in a moment.
        EXPECT_TRUE(eventually([&] { return job.resultsText() == "watched"; }));
    }
    const std::vector<pid_t> workers = childrenOf(getpid());
    ASSERT_EQ(workers.size(), 1U);
    signalTo(workers[0], SIGSTOP);
    EXPECT_TRUE(allEnded());
    EXPECT_EQ(job.state(), Job::ERROR);
    JobLauncher::StopWatching();
}
