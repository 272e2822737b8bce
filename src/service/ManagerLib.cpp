// The manager's life: start, wait, shutdown.
#include "service/ManagerLib.h"

#include "foundation/ErrorCodes.h"
#include "foundation/EventWrapper.h"
#include "foundation/FixedText.h"
#include "foundation/PosixWrappers.h"
#include "jobs/JobLauncher.h"
#include "resources/ResourceMgr.h"
#include "service/CSocketManager.h"
#include "service/ServiceLimits.h"
#include "service/SignalWatch.h"

#include <csignal>
#include <ctime>

namespace {

constexpr const char* MODULE = "Manager";
constexpr int FOREVER = -1;
// So that the connection thread can send the answer to the stop request.
constexpr time_t STOP_ANSWER_SECONDS = 2;
// So that the main thread, woken by the shutdown, reads the shutdown flag before the instance goes.
constexpr time_t CLEANUP_SECONDS = 1;

void sleepSeconds(time_t seconds) {
    timespec left{seconds, 0};
    while (nanosleep(&left, &left) != 0) {
    }
}

// One shutdown at a time; held while it runs, so that a second caller returns when the first is done.
Mutex& shutdownMutex() {
    static Mutex* const mutex = new Mutex;
    return *mutex;
}

} // namespace

CManagerLib* CManagerLib::m_instance = nullptr;
Mutex CManagerLib::m_mutex;
Mutex CManagerLib::m_vtrMsgMutex;
sem_t* CManagerLib::m_hVtrMsgEvent = nullptr;
char CManagerLib::m_kestrelMgrSettingsFname[260] = "";

CManagerLib* CManagerLib::GetInstance() {
    MutexLock lock(m_mutex);
    if (m_instance == nullptr)
        m_instance = new CManagerLib;
    return m_instance;
}

void CManagerLib::Cleanup() {
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
    JobLauncher::StopWatching();
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
    kestrel::raiseServiceLimits();

    m_callbackLib = CallbackLib::initCallBackLib();
    m_callbackLib->registerCallback(DATA_CALLBACK_VTR_CMD_REQUEST, VTRCmdRequestCallbackFn,
                                    &m_vtrCallbackBuffer, "CManagerLib", -1, this);
    if (m_settings.deckCtrlExe[0] != '\0')
        LogUtil::Error(MODULE, "Deck control is not available in this version: %s is not started.",
                       m_settings.deckCtrlExe);

    CSocketManager* const server =
        CSocketManager::SetupSocketServer(static_cast<unsigned short>(m_settings.portNumber),
                                          m_settings.numSimultaneousHandles, m_settings.listenBacklog);
    if (server == nullptr)
        return -1;
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
    LogUtil::Info(MODULE, "Run");
    CManagerLib* const instance = GetInstance();
    if (instance == nullptr)
        return -1;
    instance->run();
    return 0;
}

int CManagerLib::RunCmdLine() {
    CManagerLib* const instance = GetInstance();
    LogUtil::Info(MODULE, "RunCmdLine");
    if (instance == nullptr)
        return -1;
    // Ends after everything below, so that no shutdown runs on while the process exits.
    const kestrel::SignalWatch signals({SIGINT, SIGHUP, SIGTERM}, cmdLineExitHandler);
    const int result = instance->runCmdLine();
    if (result != 0) {
        Shutdown();
        return result;
    }
    return instance->waitForEnd();
}

int CManagerLib::waitForEnd() {
    sem_t* events[2] = {m_shutdownCompleteEvent, m_shutdownRequestEvent};
    EventWrapper::WaitForMultipleEventSignals(2, events, false, FOREVER, false, nullptr);
    // A signal's thread has run the shutdown; it destroys this object a second from now.
    if (m_shutdown)
        return 1;
    sleepSeconds(STOP_ANSWER_SECONDS);
    LogUtil::Info(MODULE, "Received Shutdown Request");
    return Shutdown();
}

void CManagerLib::cmdLineExitHandler(int /*signal*/) {
    Shutdown();
}

int CManagerLib::Shutdown() {
    MutexLock oneAtATime(shutdownMutex());
    LogUtil::Info(MODULE, "Shutdown");
    CManagerLib* instance = nullptr;
    {
        MutexLock lock(m_mutex);
        instance = m_instance;
    }
    if (instance == nullptr)
        return -1;
    const int result = instance->shutdown();
    sleepSeconds(CLEANUP_SECONDS);
    Cleanup();
    return result;
}

int CManagerLib::shutdown() {
    LogUtil::Info(MODULE, "Shutting down KestrelManager");
    m_shutdown = true;
    if (CSocketManager* const server = CSocketManager::getInstance(); server != nullptr) {
        LogUtil::Info(MODULE, "Stopping SocketServer");
        server->stop();
    }
    if (m_incomingMessageThread) {
        LogUtil::Debug(MODULE, "Waiting for thread %d.", 0);
        joinPosixThread(*m_incomingMessageThread, nullptr);
        LogUtil::Debug(MODULE, "Thread %d complete.", 0);
        m_incomingMessageThread.reset();
    }
    LogUtil::Info(MODULE, "All KestrelManager threads exited");
    CSocketManager::destroyInstance();
    LogUtil::Info(MODULE, "Signal Shutdown Complete");
    EventWrapper::SignalEvent(m_shutdownCompleteEvent);
    return 0;
}

void CManagerLib::setShutdownEvent() {
    LogUtil::Info(MODULE, "setShutdownEvent");
    EventWrapper::SignalEvent(m_shutdownRequestEvent);
}

void* CManagerLib::incomingMessageThread(void* socketManager) {
    static_cast<CSocketManager*>(socketManager)->StartSocketServer();
    return nullptr;
}
