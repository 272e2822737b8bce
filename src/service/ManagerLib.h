// The manager: owns the settings, the job queue, the threads and the events that end the service.
#pragma once

#include "foundation/CallbackLib.h"
#include "foundation/Logger.h"
#include "foundation/Mutex.h"
#include "foundation/QueueMessages.h"
#include "foundation/UniqueFd.h"
#include "jobs/JobQueue.h"
#include "service/DeckProcess.h"
#include "service/ReportLocks.h"

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <pthread.h>
#include <semaphore.h>
#include <span>
#include <string>

class CaptureJob;
class CaptureRequest;
class ResourceMgr;
class VerifierJob;
class VerifierRequest;

// The directories of the profile and of the logs, with a trailing "/". Written before the first GetInstance.
extern char KESTREL_CONFIG_PARENT_DIR[260];
extern char KESTREL_LOG_PARENT_DIR[260];

class CManagerLib {
public:
    // The profile: every text is cut at its field and terminated; numbers are as the profile has them.
    struct KestrelManagerSettings {
        std::int32_t portNumber;
        std::int32_t numSimultaneousHandles;
        char captureExe[260];
        char captureLogDir[260];
        char verifierExe[260];
        char reportDir[260];
        std::int32_t quickPropertiesDurationSecs;
        std::int32_t numAudios;
        char audioPlaceholderValue[260];
        char deckCtrlExe[260];
        char deckCtrlLogFile[260];
        std::int32_t deckCtrlLogLevel;
        std::int32_t heartbeatTimeoutSecs;
        std::int32_t listenBacklog;
    };

    // The one instance, made on first call: reads the profile and sets up logging.
    static CManagerLib* GetInstance();
    // Destroys the instance.
    static void Cleanup();

    // Fills the record with defaults, then from the profile. loadLogging also sets up the loggers: on
    // defaultLogFile and at defaultLevel where the profile names none. 0, 10040 when the profile cannot be
    // read, 10041 when it has no root element. Works without a manager.
    static int GetSettings(KestrelManagerSettings& settings, bool loadLogging, const char* defaultLogFile,
                           BaseLogger::_LogLevel defaultLevel);
    // The port that a service with this profile listens on; 5112 when the profile cannot be read. Sets up no
    // log.
    static int ServicePort();
    // Reads the profile into this manager's record and sets up logging. A profile that cannot be read leaves
    // the defaults, with an error in the default log file.
    void loadSettings();

    // Starts the service and returns: 0, 10028 or 10036 when deck control cannot be set up, -1 when a
    // thread, a descriptor or the port cannot be had.
    int startWork();
    // The same.
    int runCmdLine();
    // The same for who does not want the result.
    void run();
    // The same on the instance; -1 when there is none, else 0.
    static int Run();
    // Starts the service and returns when it has ended: 1 after a signal, else Shutdown's or the start's
    // result; -1 when it could not start.
    static int RunCmdLine();
    // Why the last RunCmdLine could not start the service, in words; empty when it could.
    static std::string StartFailure();
    // Which log the last manager could not open and why, in words; empty when it could, or was to have none.
    static std::string LogFailure();
    // Ends the service for a signal. Runs on the thread that waits for signals, never in a handler.
    static void cmdLineExitHandler(int signal);
    // Ends the service and destroys the instance; -1 when there is none. Of several calls at once one does
    // the work, and all return its result when it is done.
    static int Shutdown();
    // Ends threads, socket server and deck control in that order, and signals that it is done. Always 0.
    int shutdown();
    // Makes RunCmdLine end the service.
    void setShutdownEvent();

    // The job of that GUID, or null.
    Job* GetJob(const char* guid);

    // The job commands. Each returns 0, or an error code whose text is in the request's errorText (or in
    // out, size bytes, cut and terminated).
    //
    // Checks the request's fields and, with add, queues the job and starts its worker. 10004 for a type that
    // is no capture, the field's error, 10028, 10035 or 10036.
    int AddCaptureJob(CaptureRequest* request, bool add);
    // The same without add.
    int ValidateCaptureJob(CaptureRequest* request);
    // Verifies a file: a single property, or one that is to be waited for, at once, with the answer in the
    // request's responseText; else as a queued job.
    int AddVerifierJob(VerifierRequest* request);
    // Cancels a job; a running worker is told. 10002 for an unknown GUID, 10029, 10033.
    int StopJob(const char* guid, char* out, int size);
    // The name of the job's state. 10002 for an unknown GUID.
    int GetJobStatus(const char* guid, char* out, int size);
    // What the job says about itself. 10002 for an unknown GUID.
    int GetJobResults(const char* guid, char* out, int size);
    // The path of a capture job's log. 10002 for any other GUID.
    int GetCaptureLogFilename(const char* guid, char* out, int size);
    // The tail of a capture job's log in one line. 10002, 10042 (empty), 10043 (not opened), 10044 (no seek).
    int GetCaptureLastLogEntries(const char* guid, char* out, int size);
    // Sends one message on the named queue, which is opened and closed for it. 0, 10029, 10030 or 10031.
    int SendQueueMessage(char* queueName, AppMsgType type, void* data, int size);

    // Body of the incoming-message thread: the socket server's accept loop.
    static void* incomingMessageThread(void* socketManager);

    // Deck control. Makes the two queues and starts the process: 0, 10028, 10036 (the queues stay),
    // or -1 when there is no descriptor.
    int LaunchVTRProcess();
    // Asks the process to end, ends it after 10 s, and removes the queues. Always 0.
    int EndVTRProcess();
    // Body of the response thread: passes answers on and keeps the process running.
    static void* vtrResponseThread(void* manager);
    // A worker's request, as the registry brings it (the context is the manager).
    static void VTRCmdRequestCallbackFn(CallbackLib::_Data* data);
    // Sends a request to the process without waiting; a failure is logged.
    void handleVTRCmdRequest(_VTRCmdData record);
    // Sends a client's request and waits at most 30 s for the answer, which replaces the record, one at a
    // time. 0, the deck's error code, or 20063; the text is in the record.
    static int sendVTRCmdRequestBlocking(_VTRCmdData* record);

    // The profile as it was read.
    [[nodiscard]] const KestrelManagerSettings& settings() const noexcept { return m_settings; }
    // All jobs.
    [[nodiscard]] JobQueue& jobQueue() noexcept { return m_jobQueue; }

    static CManagerLib* m_instance;
    static Mutex m_mutex;                 // guards the instance's creation and destruction
    static Mutex m_vtrMsgMutex;           // held while a client's deck request waits for its answer
    static sem_t* m_hVtrMsgEvent;         // an answer has come
    static _VTRCmdData* m_vtrCmdResponse; // the request that waits, null: none; under m_vtrResponseMutex
    static char m_kestrelMgrSettingsFname[260]; // path of the profile; empty while there is no manager

private:
    CManagerLib();
    ~CManagerLib();
    CManagerLib(const CManagerLib&) = delete;
    CManagerLib& operator=(const CManagerLib&) = delete;

    std::unique_ptr<CaptureJob> makeCaptureJob(int type) const;
    CaptureJob* queueCaptureJob(CaptureJob& job);
    int launchCaptureJob(CaptureRequest& request, CaptureJob& job);
    int launchJob(Job& job, const char* program, const char* commandLine, bool wait, char (&errorText)[300]);
    void warnOfKnownGuid(const char* guid);
    int runVerification(VerifierRequest& request, VerifierJob& job);
    int queueVerification(VerifierRequest& request, VerifierJob& job);
    int answerAtOnce(VerifierRequest& request, VerifierJob& job);
    int answerFromOwnReport(VerifierRequest& request, VerifierJob& job);
    int answerWithReport(VerifierRequest& request, VerifierJob& job);
    void warnOfSharedReport(const VerifierJob& job);
    int launchVerification(VerifierRequest& request, VerifierJob& job, bool wait);
    int refuseVerification(VerifierRequest& request, VerifierJob& job, int reason);
    int answerVerification(VerifierRequest& request, VerifierJob& job);
    static int verificationResults(VerifierJob& job, std::span<char> out);
    CaptureJob* findCaptureJob(const char* guid);
    [[nodiscard]] std::string logStartFailure() const;
    int waitForEnd();
    void stopThreads();
    bool startDeckProcess();
    void watchDeckProcess();
    void takeDeckAnswers();
    void takeDeckAnswer(_VTRCmdData& record);
    void dropDeckRequests();
    void rememberRelayed(const _VTRCmdData& record) EXCLUDES(m_relayedMutex);
    bool forgetRelayed(const _VTRCmdData& answer) EXCLUDES(m_relayedMutex);
    void refuseWorkersRequest(_VTRCmdData& record);
    void logUnsentRequest();
    void logEndOfOutage();
    bool deckIsDown() const;
    bool askDeck(_VTRCmdData& record);
    static void failPendingVtrRequest(const std::string& why);
    static CManagerLib* existingInstance();
    static int endInstance(bool wasRunning);

    static Mutex m_vtrResponseMutex;

    char m_fromVtrQueueName[20] = "/from_vtr_proc_q";
    char m_toVtrQueueName[20] = "/to_vtr_proc_q";
    int m_toVtrQueue = -1;
    int m_fromVtrQueue = -1;
    KestrelManagerSettings m_settings{};
    std::string m_startFailure; // why the service could not start, in words; empty where nobody knows more
    std::atomic<bool> m_shutdown{false};
    sem_t* m_shutdownRequestEvent = nullptr;
    sem_t* m_shutdownCompleteEvent = nullptr;
    JobQueue m_jobQueue;
    kestrel::ReportLocks m_reportLocks;
    ResourceMgr* m_resourceMgr;
    CallbackLib* m_callbackLib = nullptr;
    kestrel::DeckProcess m_deckProcess; // the response thread's while that runs
    std::atomic<bool> m_deckRunning{false};
    std::atomic<unsigned> m_refusedInOutage{0}; // requests, until the deck process answers again
    kestrel::UniqueFd m_vtrWake; // an eventfd: the response thread is to look at the shutdown flag
    Mutex m_relayedMutex;
    std::deque<_VTRCmdData> m_relayed GUARDED_BY(m_relayedMutex); // requests of workers without an answer yet
    std::optional<pthread_t> m_incomingMessageThread;
    std::optional<pthread_t> m_vtrResponseThread;
    _VTRCmdData m_vtrCallbackBuffer{};
};
