// Running real workers under the launcher, and waiting for what they do.
#pragma once

#include "capture_requests.h"
#include "jobs/JobLauncher.h"

#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mqueue.h>
#include <stdexcept>
#include <string>
#include <thread>
#include <unistd.h>

using namespace std::chrono_literals;

// Waits for something that another thread or process does. Most of these have no event of their own.
inline bool eventually(const std::function<bool()>& holds, std::chrono::milliseconds limit = 20s) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!holds()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

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
    JobLauncherTest() {
        std::string name = (std::filesystem::temp_directory_path() / "kestrel-jobs-XXXXXX").string();
        if (::mkdtemp(name.data()) == nullptr)
            throw std::runtime_error("mkdtemp failed");
        m_directory = name;
    }
    ~JobLauncherTest() override {
        JobLauncher::StopWatching();
        std::error_code ignored;
        std::filesystem::remove_all(m_directory, ignored);
        ResourceMgr::Cleanup();
    }

    [[nodiscard]] std::string file(const std::string& name) const { return m_directory + "/" + name; }

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

    JobLog log;

private:
    std::string m_directory;
};
