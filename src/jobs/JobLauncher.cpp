#include "jobs/JobLauncher.h"

#include "foundation/AppLaunchUtil.h"
#include "foundation/ErrorCodes.h"
#include "foundation/FixedText.h"
#include "foundation/Logger.h"
#include "foundation/PosixWrappers.h"
#include "foundation/StringUtil.h"
#include "jobs/JobQueues.h"
#include "jobs/WatchRegistry.h"
#include "jobs/WorkerWatch.h"

#include <cerrno>
#include <cstring>
#include <exception>
#include <future>
#include <utility>

using namespace kestrel;

namespace {

constexpr const char* category = "JobLauncher";

} // namespace

namespace kestrel {

// A launch on its way from Launch to the watching thread.
struct PendingWatch {
    explicit PendingWatch(WatchRegistry::Membership&& joined) : membership(std::move(joined)) {}

    WatchRegistry::Membership membership;
    std::promise<bool> started; // whether there is a worker process
};

namespace {

// Tells the launching thread how the start went, on every way out.
class StartReport {
public:
    explicit StartReport(PendingWatch* pending) : m_pending(pending) {}
    ~StartReport() { tell(false); }
    StartReport(const StartReport&) = delete;
    StartReport& operator=(const StartReport&) = delete;

    void tell(bool running) {
        if (m_pending)
            std::exchange(m_pending, nullptr)->started.set_value(running);
    }

private:
    PendingWatch* m_pending;
};

// The results of a job whose queue could not be made: the text of the code, and what to do about it.
void reportQueueFailure(Job& job, const char* queueName, int failure) {
    char text[sizeof job.results];
    formatText(text, LOG_MSG(error::queueNotCreated), queueName);
    appendText(text, describeQueueFailure(failure));
    job.setResults(text);
}

// Why there is no program to watch: the exit code alone, 255, says nothing of it. The worker has not sent
// results and will not.
void reportExecFailure(Job& job, const char* program, int reason) {
    char text[sizeof job.results];
    formatText(text, "Error: Could not run %s: errno %d (%s).", program, reason, std::strerror(reason));
    LogUtil::Error(category, "%s", text);
    job.setResults(text);
}

// Steps of the watching once the worker runs, and after it.
void watch(const JobLauncher::ThreadData& data, pid_t pid, const WatchRegistry::Membership& membership) {
    bool remains = true;
    data.job->setWorkerPid(pid);
    try {
        WorkerWatch worker(data, pid, membership);
        worker.run();
        remains = worker.workerRemains();
    } catch (const std::exception& failure) {
        LogUtil::Error(category, "Watching of process %d has failed: %s", static_cast<int>(pid),
                       failure.what());
    }
    data.job->setWorkerPid(0);
    if (remains)
        reapInBackground(pid);
    JobLauncher::flushAndDestroyQueue(data.job->mgrQueueName, data.mgrQueue);
    JobLauncher::flushAndDestroyQueue(data.job->jobUpdateQueueName, data.updateQueue);
}

} // namespace

} // namespace kestrel

JobLauncher::ThreadData::ThreadData(const char* commandLine) {
    const char* const text = commandLine ? commandLine : "";
    const std::size_t size = std::strlen(text) + 1;
    cmdLine = new char[size];
    std::memcpy(cmdLine, text, size);
}

JobLauncher::ThreadData::~ThreadData() {
    delete[] cmdLine;
}

int JobLauncher::Launch(Job* job, const char* cmdLine, int statusTimeout, bool wait) {
    auto data = std::make_unique<ThreadData>(cmdLine);
    LogUtil::Info(category, LOG_MSG(error::launchingJob), data->cmdLine);

    if (const int code = createQueue(job->jobUpdateQueueName, data->updateQueue)) {
        reportQueueFailure(*job, job->jobUpdateQueueName, errno);
        return code;
    }
    if (const int code = createQueue(job->mgrQueueName, data->mgrQueue)) {
        // Described before the other queue goes: its descriptor would hide that there was none left.
        reportQueueFailure(*job, job->mgrQueueName, errno);
        flushAndDestroyQueue(job->jobUpdateQueueName, data->updateQueue);
        return code;
    }
    data->job = job;
    data->statusTimeout = statusTimeout;
    data->pending = std::make_unique<PendingWatch>(WatchRegistry::instance().join());
    std::future<bool> started = data->pending->started.get_future();

    if (wait) {
        doWork(data.release());
    } else {
        pthread_t thread{};
        if (createPosixThread(&thread, &JobLauncher::doWork, data.get()) != 0) {
            flushAndDestroyQueue(job->mgrQueueName, data->mgrQueue);
            flushAndDestroyQueue(job->jobUpdateQueueName, data->updateQueue);
            LogUtil::Error(category, "%s", LOG_MSG(error::threadNotLaunched));
            return static_cast<int>(error::threadNotLaunched);
        }
        (void)data.release(); // the thread's from here on
        pthread_detach(thread);
    }
    return started.get() ? 0 : static_cast<int>(error::processNotLaunched);
}

void* JobLauncher::doWork(void* threadData) {
    std::unique_ptr<ThreadData> data(static_cast<ThreadData*>(threadData));
    // Declared before all that uses the job: when the membership ends, the job may be deleted.
    const WatchRegistry::Membership membership =
        data->pending ? std::move(data->pending->membership) : WatchRegistry::instance().join();
    const std::unique_ptr<ThreadData> owned = std::move(data);
    owned->thread = pthread_self();
    StartReport report(owned->pending.get());

    ArgumentVector arguments{std::string_view(owned->cmdLine)};
    if (!arguments.complete())
        LogUtil::Warning(category,
                         "More than %zu words, or one of more than %zu characters, were cut from %s",
                         maxArguments, argumentCapacity - 1, owned->cmdLine);
    int failure = 0;
    int execFailure = 0;
    const int pid = AppLaunchUtil::runCmd(arguments, failure, execFailure);
    if (pid < 1) {
        LogUtil::Error(category, LOG_MSG(error::processNotLaunched), owned->cmdLine);
        // The job keeps its state and its queues stay, for whoever looks into the failure; the next job of
        // this id replaces them.
        return nullptr;
    }
    if (execFailure != 0)
        reportExecFailure(*owned->job, cStringUtil::cValue(arguments.file()), execFailure);
    else
        LogUtil::Info(category, "Job %d %s: its worker is process %d.", static_cast<int>(owned->job->id),
                      owned->job->guidStr, pid);
    report.tell(true);
    watch(*owned, pid, membership);
    return nullptr;
}

void JobLauncher::StopWatching(bool forGood) {
    WatchRegistry::instance().stopAll(forGood);
}

void JobLauncher::ResumeWatching() {
    WatchRegistry::instance().reopen();
}

int JobLauncher::WatchingCount() {
    return WatchRegistry::instance().count();
}
