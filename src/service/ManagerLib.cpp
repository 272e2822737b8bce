// The manager's life: start, wait, shutdown.
#include "service/ManagerLib.h"

#include "foundation/ErrorCodes.h"
#include "foundation/EventWrapper.h"
#include "foundation/FixedText.h"
#include "foundation/PosixWrappers.h"
#include "jobs/JobLauncher.h"
#include "jobs/WatchRegistry.h"
#include "resources/ResourceMgr.h"
#include "service/CSocketManager.h"
#include "service/ServiceLimits.h"
#include "service/SignalWatch.h"

#include <atomic>
#include <csignal>
#include <ctime>
#include <exception>
#include <optional>
#include <string>
#include <sys/eventfd.h>
#include <unistd.h>

namespace {

constexpr const char* MODULE = "Manager";
constexpr int FOREVER = -1;
// So that the connection thread can send the answer to the stop request.
constexpr time_t STOP_ANSWER_SECONDS = 2;
// Leaves those who were told of the end a moment before the instance goes.
constexpr time_t CLEANUP_SECONDS = 1;
constexpr const char* CALLBACK_NAME = "CManagerLib";

void sleepSeconds(time_t seconds) {
    timespec left{seconds, 0};
    while (nanosleep(&left, &left) != 0) {
    }
}

// One start or shutdown at a time: a signal that comes while the service starts ends it once it has started,
// and a second caller of Shutdown returns when the first is done.
Mutex& lifeMutex() {
    static Mutex* const mutex = new Mutex;
    return *mutex;
}
int lastShutdownResult = 0; // guarded by it

// By it, too.
std::string& lastStartFailure() {
    static std::string* const text = new std::string;
    return *text;
}

// Whether a thread waits inside the instance, which must outlive the wait.
std::atomic<bool> mainWaits{false};

void letMainGo() {
    mainWaits = false;
    mainWaits.notify_all();
}

} // namespace

CManagerLib* CManagerLib::m_instance = nullptr;
Mutex CManagerLib::m_mutex;
Mutex CManagerLib::m_vtrMsgMutex;
Mutex CManagerLib::m_vtrResponseMutex;
sem_t* CManagerLib::m_hVtrMsgEvent = nullptr;
_VTRCmdData* CManagerLib::m_vtrCmdResponse = nullptr;
char CManagerLib::m_kestrelMgrSettingsFname[260] = "";

CManagerLib* CManagerLib::GetInstance() {
    MutexLock lock(m_mutex);
    if (m_instance == nullptr)
        m_instance = new CManagerLib;
    return m_instance;
}

CManagerLib* CManagerLib::existingInstance() {
    MutexLock lock(m_mutex);
    return m_instance;
}

void CManagerLib::Cleanup() {
    // Connection threads are joined before the lock is taken, which they may be waiting for.
    if (CManagerLib* const instance = existingInstance(); instance != nullptr) {
        instance->m_shutdown = true;
        instance->stopThreads();
        CSocketManager::destroyInstance();
        instance->EndVTRProcess();
    }
    MutexLock lock(m_mutex);
    delete m_instance;
    m_instance = nullptr;
}

CManagerLib::CManagerLib() : m_resourceMgr(ResourceMgr::GetResourceMgrInst()) {
    EventWrapper::InitEvent(m_shutdownRequestEvent);
    EventWrapper::InitEvent(m_shutdownCompleteEvent);
    EventWrapper::InitEvent(m_hVtrMsgEvent);
    kestrel::formatText(m_kestrelMgrSettingsFname, "%sKestrelManagerProfile.xml", KESTREL_CONFIG_PARENT_DIR);
    loadSettings();
}

CManagerLib::~CManagerLib() {
    // Watching threads point at the queue's jobs.
    JobLauncher::StopWatching(false);
    if (m_callbackLib != nullptr) {
        std::string name = CALLBACK_NAME;
        m_callbackLib->unregisterCallback(DATA_CALLBACK_VTR_CMD_REQUEST, name.data());
    }
    ResourceMgr::Cleanup();
    EventWrapper::CleanupEvent(m_shutdownRequestEvent);
    EventWrapper::CleanupEvent(m_shutdownCompleteEvent);
    EventWrapper::CleanupEvent(m_hVtrMsgEvent);
    m_kestrelMgrSettingsFname[0] = '\0';
}

int CManagerLib::startWork() {
    EventWrapper::ResetEvent(m_shutdownRequestEvent);
    EventWrapper::ResetEvent(m_shutdownCompleteEvent);
    m_shutdown = false;
    JobLauncher::ResumeWatching();
    m_reportLocks.reopen();
    kestrel::raiseServiceLimits();

    m_callbackLib = CallbackLib::initCallBackLib();
    m_callbackLib->registerCallback(DATA_CALLBACK_VTR_CMD_REQUEST, VTRCmdRequestCallbackFn,
                                    &m_vtrCallbackBuffer, CALLBACK_NAME, -1, this);
    if (m_settings.deckCtrlExe[0] != '\0') {
        if (const int code = LaunchVTRProcess(); code != 0) {
            m_startFailure = "The deck control cannot be started. Where another service of this host has it, "
                             "that one keeps running.";
            return code;
        }
        pthread_t responses{};
        if (createPosixThread(&responses, vtrResponseThread, this) != 0)
            return -1;
        m_vtrResponseThread = responses;
    }

    CSocketManager* const server =
        CSocketManager::SetupSocketServer(static_cast<unsigned short>(m_settings.portNumber),
                                          m_settings.numSimultaneousHandles, m_settings.listenBacklog);
    if (server == nullptr) {
        m_startFailure = "Could not use port " + std::to_string(m_settings.portNumber) +
                         ". Where another service of this host has it, that one keeps running.";
        return -1;
    }
    pthread_t thread{};
    if (createPosixThread(&thread, incomingMessageThread, server) != 0)
        return -1;
    m_incomingMessageThread = thread;
    return 0;
}

int CManagerLib::runCmdLine() {
    return startWork();
}

void CManagerLib::run() {
    startWork();
}

int CManagerLib::Run() {
    // The first call sets up the log that the line goes to.
    CManagerLib* const instance = GetInstance();
    LogUtil::Info(MODULE, "Run");
    if (instance == nullptr)
        return -1;
    MutexLock oneAtATime(lifeMutex());
    instance->run();
    return 0;
}

int CManagerLib::RunCmdLine() {
    CManagerLib* const instance = GetInstance();
    // Two services that are started with one profile write into one log.
    LogUtil::Info(MODULE, "Process %d", static_cast<int>(getpid()));
    LogUtil::Info(MODULE, "RunCmdLine");
    if (instance == nullptr)
        return -1;
    // Ends after everything below, so that no shutdown runs on while the process exits.
    std::optional<kestrel::SignalWatch> signals;
    std::optional<kestrel::WatchRegistry::ChildReports> reported; // only while signals are watched
    int result = -1;
    {
        MutexLock oneAtATime(lifeMutex());
        lastStartFailure().clear();
        try {
            signals.emplace(std::initializer_list<int>{SIGINT, SIGHUP, SIGTERM, SIGCHLD}, [](int signal) {
                if (signal == SIGCHLD)
                    kestrel::WatchRegistry::ChildReports::childChanged();
                else
                    cmdLineExitHandler(signal);
            });
            reported.emplace();
            result = instance->runCmdLine();
        } catch (const std::exception& failure) {
            LogUtil::Error(MODULE, "The service cannot start: %s", failure.what());
            instance->m_startFailure = failure.what();
        }
        mainWaits = result == 0;
        // Now, while no signal can take the instance away.
        if (result != 0)
            lastStartFailure() = instance->logStartFailure();
    }
    if (result != 0) {
        Shutdown();
        return result;
    }
    return instance->waitForEnd();
}

std::string CManagerLib::logStartFailure() const {
    const std::string reason = m_startFailure.empty() ? "the service's log says why." : m_startFailure;
    LogUtil::Error(MODULE, "Process %d ends, it could not start: %s", static_cast<int>(getpid()),
                   reason.c_str());
    return reason;
}

std::string CManagerLib::StartFailure() {
    MutexLock oneAtATime(lifeMutex());
    return lastStartFailure();
}

int CManagerLib::waitForEnd() {
    sem_t* events[2] = {m_shutdownCompleteEvent, m_shutdownRequestEvent};
    EventWrapper::WaitForMultipleEventSignals(2, events, false, FOREVER, false, nullptr);
    const bool shutDownBySignal = m_shutdown;
    // From here on this object may be gone.
    letMainGo();
    if (shutDownBySignal)
        return 1;
    sleepSeconds(STOP_ANSWER_SECONDS);
    LogUtil::Info(MODULE, "Received Shutdown Request");
    // A signal may have ended the service during the sleep; its result is this one's too.
    return endInstance(true);
}

void CManagerLib::cmdLineExitHandler(int /*signal*/) {
    Shutdown();
}

int CManagerLib::Shutdown() {
    return endInstance(existingInstance() != nullptr);
}

int CManagerLib::endInstance(bool wasRunning) {
    MutexLock oneAtATime(lifeMutex());
    LogUtil::Info(MODULE, "Shutdown");
    CManagerLib* const instance = existingInstance();
    if (instance == nullptr)
        return wasRunning ? lastShutdownResult : -1;
    lastShutdownResult = instance->shutdown();
    sleepSeconds(CLEANUP_SECONDS);
    mainWaits.wait(true);
    Cleanup();
    return lastShutdownResult;
}

int CManagerLib::shutdown() {
    LogUtil::Info(MODULE, "Shutting down KestrelManager");
    m_shutdown = true;
    stopThreads();
    LogUtil::Info(MODULE, "All KestrelManager threads exited");
    CSocketManager::destroyInstance();
    if (m_settings.deckCtrlExe[0] != '\0') {
        LogUtil::Info(MODULE, "Ending VTR Process");
        EndVTRProcess();
    }
    LogUtil::Info(MODULE, "Signal Shutdown Complete");
    EventWrapper::SignalEvent(m_shutdownCompleteEvent);
    return 0;
}

// Does nothing when nothing is being served.
void CManagerLib::stopThreads() {
    if (CSocketManager* const server = CSocketManager::getInstance(); server != nullptr) {
        LogUtil::Info(MODULE, "Stopping SocketServer");
        server->stop();
    }
    if (m_vtrWake.valid())
        eventfd_write(m_vtrWake.get(), 1);
    int index = 0;
    for (std::optional<pthread_t>* thread : {&m_incomingMessageThread, &m_vtrResponseThread}) {
        if (*thread) {
            LogUtil::Debug(MODULE, "Waiting for thread %d.", index);
            joinPosixThread(**thread, nullptr);
            LogUtil::Debug(MODULE, "Thread %d complete.", index);
            thread->reset();
        }
        ++index;
    }
    // Connections that wait for a deck or for a verification must not hold the end.
    failPendingVtrRequest("Error: The service is shutting down.");
    m_reportLocks.close();
    JobLauncher::StopWatching(true);
}

void CManagerLib::setShutdownEvent() {
    LogUtil::Info(MODULE, "setShutdownEvent");
    EventWrapper::SignalEvent(m_shutdownRequestEvent);
}

void* CManagerLib::incomingMessageThread(void* socketManager) {
    static_cast<CSocketManager*>(socketManager)->StartSocketServer();
    return nullptr;
}
