// Running real workers under the launcher, and waiting for what they do.
#pragma once

#include "capture_requests.h"
#include "foundation/CapturedLog.h"
#include "foundation/Eventually.h"
#include "foundation/ScratchDir.h"
#include "jobs/JobLauncher.h"

#include <chrono>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <mqueue.h>
#include <string>
#include <unistd.h>

using namespace std::chrono_literals;
using kestrel::test::eventually;

inline bool queueExists(const char* name) {
    const mqd_t queue = mq_open(name, O_RDONLY | O_CLOEXEC);
    if (queue >= 0)
        mq_close(queue);
    return queue >= 0;
}

inline std::size_t entriesOf(const char* directory) {
    std::size_t count = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(directory))
        ++count;
    return count;
}

// State letter of a process ("S", "Z", "T", ...), 0 when it is gone.
inline char processState(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    std::getline(in, line);
    const std::size_t at = line.rfind(") ");
    return at == std::string::npos ? '\0' : line[at + 2];
}

class JobLauncherTest : public ::testing::Test {
protected:
    ~JobLauncherTest() override {
        JobLauncher::StopWatching();
        ResourceMgr::Cleanup();
    }

    [[nodiscard]] std::string file(const std::string& name) const { return m_directory.path(name); }

    // The test worker's command line for a job, with what it is to do.
    static std::string line(const Job& job, const std::string& script) {
        return std::string("\"" KESTREL_TEST_WORKER "\" -wq ") + job.jobUpdateQueueName + " -rq " +
               job.mgrQueueName + " " + script;
    }

    static int launch(Job& job, const std::string& script, int timeout = 0, bool wait = false) {
        return JobLauncher::Launch(&job, line(job, script).c_str(), timeout, wait);
    }

    // Runs the worker to its end and gives the job's state.
    static Job::JobState run(Job& job, const std::string& script, int timeout = 0) {
        EXPECT_EQ(launch(job, script, timeout, true), 0);
        return job.state();
    }

    static bool allEnded() {
        return eventually([] { return JobLauncher::WatchingCount() == 0; });
    }

    CapturedLog log;

private:
    ScratchDir m_directory;
};
