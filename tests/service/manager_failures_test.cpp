// The manager where the system refuses threads, queues and files.
#include "foundation/PosixWrappers.h"
#include "jobs/CaptureJob.h"
#include "loopback.h"
#include "service/CSocketManager.h"
#include "service/DeckProcess.h"
#include "service/SignalWatch.h"
#include "service_directories.h"
#include "system_refusals.h"

#include <cerrno>
#include <csignal>
#include <gmock/gmock.h>
#include <mqueue.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

using testing::HasSubstr;
using testing::Not;

namespace {

bool queueExists(const char* name) {
    const mqd_t queue = mq_open(name, O_RDONLY);
    if (queue >= 0)
        mq_close(queue);
    return queue >= 0;
}

class ManagerFailures : public ServiceDirectories {
protected:
    void profile(const std::string& deckProgram) {
        port = freePort();
        writeProfile("<P><Logging/><WebServicesComm PORT_NUMBER='" + std::to_string(port) +
                     "' NUMBER_OF_SIMULTANEOUS_HANDLES='3'/><DeckCtrl EXE='" + deckProgram + "'/></P>");
    }

    unsigned short port = 0;
};

TEST_F(ManagerFailures, WithoutAThreadForClientsTheStartFails) {
    profile("");
    CManagerLib* const manager = CManagerLib::GetInstance();
    {
        const Refusal refusal(systemRefusals().thread, EAGAIN);
        EXPECT_EQ(manager->startWork(), -1);
    }
    EXPECT_EQ(CManagerLib::Shutdown(), 0);
    EXPECT_EQ(CSocketManager::getInstance(), nullptr);
    EXPECT_THAT(log(), Not(HasSubstr("Waiting for thread")));
}

TEST_F(ManagerFailures, WithoutAThreadForTheDeckTheStartFailsBeforeThePortIsOpened) {
    profile("/bin/true");
    CManagerLib* const manager = CManagerLib::GetInstance();
    {
        const Refusal refusal(systemRefusals().thread, EAGAIN, 1);
        EXPECT_EQ(manager->startWork(), -1);
    }
    EXPECT_EQ(CSocketManager::getInstance(), nullptr);
    EXPECT_TRUE(queueExists("/to_vtr_proc_q")) << "until the shutdown";
    EXPECT_EQ(CManagerLib::Shutdown(), 0);
    EXPECT_FALSE(queueExists("/to_vtr_proc_q"));
    EXPECT_FALSE(queueExists("/from_vtr_proc_q"));
}

TEST_F(ManagerFailures, WithoutAThreadForClientsTheDeckIsEndedToo) {
    profile("/bin/true");
    CManagerLib* const manager = CManagerLib::GetInstance();
    {
        const Refusal refusal(systemRefusals().thread, EAGAIN, 1, 1);
        EXPECT_EQ(manager->startWork(), -1);
    }
    EXPECT_EQ(CManagerLib::Shutdown(), 0);
    EXPECT_THAT(log(), Not(HasSubstr("Waiting for thread 0.")));
    EXPECT_THAT(log(), HasSubstr("[Manager:Info] Ending VTR Process\r\n"));
    EXPECT_EQ(CSocketManager::getInstance(), nullptr);
    EXPECT_FALSE(queueExists("/to_vtr_proc_q"));
    EXPECT_FALSE(queueExists("/from_vtr_proc_q"));
}

// A process that waits for a driver cannot be killed either: the service's end must not wait for it.
TEST_F(ManagerFailures, ADeckProcessThatNobodySeesEndIsGivenUp) {
    kestrel::DeckProcess process;
    ASSERT_EQ(process.start({"/bin/sleep", "600"}), 0);
    const pid_t pid = process.pid();
    {
        const Refusal refusal(systemRefusals().waitpid, EINTR);
        EXPECT_EQ(process.waitForEnd(1, 1, 1), std::nullopt);
        EXPECT_FALSE(process.running()) << "nobody waits for it a second time";
        EXPECT_EQ(process.waitForEnd(60'000, 60'000, 60'000), "before");
    }
    int status = 0;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFSIGNALED(status));
}

TEST_F(ManagerFailures, WithoutAnyQueueThereIsNoDeckProcess) {
    profile("/bin/true");
    CManagerLib* const manager = CManagerLib::GetInstance();
    {
        const Refusal refusal(systemRefusals().openQueue, EMFILE);
        EXPECT_EQ(manager->startWork(), 10028);
    }
    EXPECT_FALSE(queueExists("/to_vtr_proc_q"));
    EXPECT_FALSE(queueExists("/from_vtr_proc_q"));
    EXPECT_THAT(log(), HasSubstr("Error: Could not create queue /to_vtr_proc_q."));
    EXPECT_THAT(log(), Not(HasSubstr("VTR process")));
    EXPECT_EQ(CSocketManager::getInstance(), nullptr) << "nor a server";
}

TEST_F(ManagerFailures, WithOneQueueOnlyItIsRemovedAgain) {
    profile("/bin/true");
    CManagerLib* const manager = CManagerLib::GetInstance();
    {
        const Refusal refusal(systemRefusals().openQueue, EMFILE, 1, 1);
        EXPECT_EQ(manager->LaunchVTRProcess(), 10028);
    }
    EXPECT_FALSE(queueExists("/to_vtr_proc_q"));
    EXPECT_FALSE(queueExists("/from_vtr_proc_q"));
    EXPECT_THAT(log(), HasSubstr("Error: Could not create queue /from_vtr_proc_q."));
    EXPECT_THAT(log(), Not(HasSubstr("Error: Could not create queue /to_vtr_proc_q.")));
    EXPECT_THAT(log(), Not(HasSubstr("VTR process")));
    EXPECT_EQ(manager->LaunchVTRProcess(), 0) << "both can be had later";
}

TEST_F(ManagerFailures, WithoutADescriptorToWakeTheDecksThreadThereIsNoDeckProcess) {
    profile("/bin/true");
    CManagerLib* const manager = CManagerLib::GetInstance();
    {
        const Refusal refusal(systemRefusals().eventfd, EMFILE);
        EXPECT_EQ(manager->LaunchVTRProcess(), -1);
    }
    EXPECT_THAT(log(), HasSubstr("[Manager:Error] No descriptor left to wake the VTR response thread with, "
                                 "errno 24.\r\n"));
    EXPECT_THAT(log(), Not(HasSubstr("VTR process")));
    manager->EndVTRProcess();
    EXPECT_FALSE(queueExists("/to_vtr_proc_q"));
    EXPECT_FALSE(queueExists("/from_vtr_proc_q"));
}

// In a process of its own: the descriptor is made once.
TEST_F(ManagerFailures, SignalsCanBeWatchedOnceThereIsADescriptorForThem) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto tried = [] {
        {
            const Refusal refusal(systemRefusals().eventfd, EMFILE);
            try {
                const kestrel::SignalWatch watch({SIGUSR1}, [](int) {});
                _exit(1);
            } catch (const std::system_error&) {
            }
        }
        {
            const kestrel::SignalWatch watch({SIGUSR1}, [](int) { _exit(7); });
            kill(getpid(), SIGUSR1);
        }
        _exit(2);
    };
    EXPECT_EXIT(tried(), testing::ExitedWithCode(7), "");
}

TEST_F(ManagerFailures, AQueueThatCannotBeClosedIsAnErrorThoughTheMessageHasGone) {
    CManagerLib* const manager = CManagerLib::GetInstance();
    std::string name = "/kestrel_test_" + std::to_string(getpid());
    long attributes[4] = {0, 10, 100, 0};
    const mqd_t queue = createMsgQueue(name.c_str(), 0600, attributes);
    ASSERT_GE(queue, 0);
    char data[] = "payload";
    {
        const Refusal refusal(systemRefusals().closeQueue, EBADF);
        EXPECT_EQ(manager->SendQueueMessage(name.data(), RESULTS_MSG, data, sizeof data), 10031);
    }
    EXPECT_THAT(log(), HasSubstr("[Manager:Error] Error: Could not close queue " + name + ".\r\n"));
    mq_attr state{};
    EXPECT_EQ(mq_getattr(queue, &state), 0);
    EXPECT_EQ(state.mq_curmsgs, 1);
    closeMsgQueue(queue);
    unlinkMsgQueue(name.c_str());
}

TEST_F(ManagerFailures, ALogThatCannotBeSoughtInIsNamedWithTheError) {
    CManagerLib* const manager = CManagerLib::GetInstance();
    CaptureJob* const job = manager->jobQueue().AddCaptureManualJob(CaptureManualJob());
    job->setGuid("cafe");
    job->setLogDir(root + "jobs-");
    const std::string path = job->getLogFilename();
    std::ofstream(path) << "one\n";
    char out[2001] = "";
    {
        const Refusal refusal(systemRefusals().fseek, EINVAL);
        EXPECT_EQ(manager->GetCaptureLastLogEntries("cafe", out, sizeof out), 10044);
    }
    EXPECT_EQ(out, "Fseek error 22 on file " + path + ".");
    EXPECT_EQ(manager->GetCaptureLastLogEntries("cafe", out, sizeof out), 0);
    EXPECT_STREQ(out, "one\t");
}

} // namespace
