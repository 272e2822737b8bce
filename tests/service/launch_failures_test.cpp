// Workers and the deck process where the system has no thread or process left for them.
#include "foundation/Eventually.h"
#include "foundation/PosixWrappers.h"
#include "foundation/ProcessTree.h"
#include "foundation/WithoutFurtherProcesses.h"
#include "jobs/CaptureJob.h"
#include "jobs/JobLauncher.h"
#include "jobs/WatchRegistry.h"
#include "service/CMessageProcessor.h"
#include "service/CSocketManager.h"
#include "service_directories.h"
#include "system/isolation.h"
#include "system_refusals.h"

#include <cerrno>
#include <csignal>
#include <gmock/gmock.h>
#include <mqueue.h>
#include <string>
#include <vector>

using kestrel::test::childrenOf;
using kestrel::test::eventually;
using kestrel::test::signalTo;
using testing::HasSubstr;

namespace {

bool queueExists(const char* name) {
    const mqd_t queue = mq_open(name, O_RDONLY | O_CLOEXEC);
    if (queue >= 0)
        mq_close(queue);
    return queue >= 0;
}

// Becomes a user of no other process, who may have exactly one further process or thread. False where the
// system lets nobody become one, or lets him have any number, or where ThreadSanitizer would take the one
// thread for itself.
bool allowOneFurther() {
#if defined(__SANITIZE_THREAD__)
    return false;
#endif
    const uid_t unused = 60'000 + static_cast<uid_t>(getpid() % 5'000);
    if (getuid() != 0 || setuid(unused) != 0)
        return false;
    constexpr rlim_t MOST = 100; // sanitizers have threads too
    for (rlim_t limit = 1; limit <= MOST; ++limit) {
        const rlimit allowed{limit, MOST};
        if (setrlimit(RLIMIT_NPROC, &allowed) != 0)
            return false;
        const pid_t child = fork();
        if (child == 0)
            _exit(0);
        if (child > 0) {
            waitpid(child, nullptr, 0);
            return limit > 1; // this process itself is one
        }
    }
    return false;
}

class LaunchFailures : public ServiceDirectories {
protected:
    LaunchFailures() {
        writeProfile("<P><Logging/><Capture EXE='/bin/true -x' LOG_DIR='" + root +
                     "'/><DeckCtrl EXE='/bin/true'/></P>");
        manager = CManagerLib::GetInstance();
    }
    ~LaunchFailures() override { kestrel::test::clearPrivateNames(); }

    static std::string answer(std::string line) {
        char out[2000];
        CMessageProcessor processor;
        EXPECT_TRUE(processor.process(line.data(), out, sizeof out));
        return out;
    }
    static std::string capture() {
        return answer("CAPTURE,JOB_BEGIN,cafe,CAPTURE_MANUAL_JOB,Filename=a,EncoderIp=127.0.0.1");
    }

    CManagerLib* manager = nullptr;
};

TEST_F(LaunchFailures, ACaptureWithoutAThreadIsAnsweredSo) {
    const std::string reason = "Error: Could not launch thread.";
    {
        const Refusal refusal(systemRefusals().thread, EAGAIN);
        EXPECT_EQ(capture(), "FALSE - " + reason);
    }
    EXPECT_EQ(answer("JOB_RESULTS,cafe"), "TRUE - " + reason);
    EXPECT_EQ(answer("JOB_STATUS,cafe"), "TRUE - IN_PROGRESS") << "it keeps the state it was queued with";
    EXPECT_THAT(log(), HasSubstr("[Manager:Error] " + reason + "\r\n"));
    EXPECT_FALSE(queueExists("/mgr_msg_q_0"));
    EXPECT_FALSE(queueExists("/job_update_q_0"));
}

TEST_F(LaunchFailures, WithoutADescriptorToWakeItsWatchACaptureEndsAsItsWorkerDoes) {
    const Refusal refusal(systemRefusals().eventfd, EMFILE);
    EXPECT_EQ(kestrel::WatchRegistry::instance().join().wakeDescriptor(), -1);
    EXPECT_EQ(capture(), "TRUE");
    EXPECT_TRUE(eventually([] { return answer("JOB_STATUS,cafe") == "TRUE - COMPLETE"; }));
}

TEST_F(LaunchFailures, WithoutADescriptorToWakeItWatchingEndsAllTheSame) {
    const Refusal refusal(systemRefusals().eventfd, EMFILE);
    CaptureManualJob job(0);
    ASSERT_EQ(JobLauncher::Launch(&job, "/bin/sleep 600", 0, false), 0);
    const std::vector<pid_t> worker = childrenOf(getpid());
    EXPECT_EQ(JobLauncher::WatchingCount(), 1);
    JobLauncher::StopWatching();
    EXPECT_EQ(JobLauncher::WatchingCount(), 0);
    ASSERT_EQ(worker.size(), 1U);
    signalTo(worker.front(), SIGKILL);
    EXPECT_TRUE(eventually([] { return childrenOf(getpid()).empty(); }));
}

TEST_F(LaunchFailures, ACaptureWithoutAProcessIsAnsweredWithTheProgram) {
    const std::string reason = "Error: Could not launch process /bin/true -x.";
    const pid_t pid = fork();
    if (pid == 0) {
        if (!allowOneFurther())
            _exit(cannotForbid);
        EXPECT_EQ(capture(), "FALSE - " + reason);
        EXPECT_EQ(answer("JOB_RESULTS,cafe"), "TRUE - " + reason);
        EXPECT_EQ(answer("JOB_STATUS,cafe"), "TRUE - IN_PROGRESS");
        _exit(HasFailure() ? 1 : 0);
    }
    int status = -1;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    if (WEXITSTATUS(status) == cannotForbid)
        GTEST_SKIP() << whyCannotForbid;
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_THAT(log(), HasSubstr("[Manager:Error] " + reason + "\r\n"));
}

TEST_F(LaunchFailures, WithoutADeckProcessTheStartFailsBeforeThePortIsOpened) {
    const int status = statusWithoutFurtherProcesses([&] {
        EXPECT_EQ(manager->startWork(), 10036);
        EXPECT_EQ(CSocketManager::getInstance(), nullptr);
        EXPECT_TRUE(queueExists("/to_vtr_proc_q")) << "until the shutdown";
        EXPECT_EQ(CManagerLib::Shutdown(), 0);
        EXPECT_FALSE(queueExists("/to_vtr_proc_q"));
        EXPECT_FALSE(queueExists("/from_vtr_proc_q"));
        return HasFailure() ? 1 : 0;
    });
    if (status == cannotForbid)
        GTEST_SKIP() << whyCannotForbid;
    EXPECT_EQ(status, 0);
    EXPECT_THAT(log(), HasSubstr("[Manager:Error] Error: Could not launch process /bin/true.\r\n"));
}

} // namespace
