// The bridge to the deck-control process: requests of clients and of workers go out on one queue, answers
// come in on another. The response thread owns the process between start-up and shutdown.
#include "foundation/AppLaunchUtil.h"
#include "foundation/ErrorCodes.h"
#include "foundation/EventWrapper.h"
#include "foundation/FixedText.h"
#include "foundation/PosixWrappers.h"
#include "foundation/UniqueFd.h"
#include "jobs/JobLauncher.h"
#include "service/ManagerLib.h"
#include "service/RestartPause.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <mqueue.h>
#include <poll.h>
#include <string>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <vector>

namespace {

constexpr const char* MODULE = "Manager";
constexpr int RESPONSE_TIMEOUT_MS = 30'000;
// How long the process may take to end by itself, after it was terminated, and after it was killed.
constexpr int END_ASKED_MS = 10'000;
constexpr int END_TERMINATED_MS = 3'000;
constexpr int END_KILLED_MS = 3'000;
// How often a process is looked at for which the system gave no descriptor.
constexpr int LOOK_MS = 100;
// Requests of workers that may wait for their answers at once.
constexpr std::size_t MOST_RELAYED = 64;
// Behind the text of an error.
constexpr const char* NOT_CONFIGURED = " (no deck control is configured: DeckCtrl EXE of the profile)";

int asCode(long code) {
    return static_cast<int>(code);
}

void setError(_VTRCmdData& record, long code, const std::string& text) {
    record.errorCode = asCode(code);
    kestrel::copyText(record.errorText, text);
}

// Whether a service that lives has that queue: it holds a lock on it, which goes with its process.
bool anotherServiceHas(const char* queueName) {
    const kestrel::UniqueFd queue(mq_open(queueName, O_RDONLY | O_CLOEXEC));
    return queue.valid() && flock(queue.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
}

} // namespace

int CManagerLib::LaunchVTRProcess() {
    // Queues made anew would take those of a running service away from it, and with them its decks.
    if (anotherServiceHas(m_toVtrQueueName)) {
        LogUtil::Error(MODULE, "Error: Could not create queue %s. (a running service of this host has it)",
                       m_toVtrQueueName);
        return asCode(kestrel::error::queueNotCreated);
    }
    if (const int code = JobLauncher::createQueue(m_toVtrQueueName, m_toVtrQueue); code != 0)
        return code;
    if (const int code = JobLauncher::createQueue(m_fromVtrQueueName, m_fromVtrQueue); code != 0) {
        JobLauncher::flushAndDestroyQueue(m_toVtrQueueName, m_toVtrQueue);
        m_toVtrQueue = -1;
        return code;
    }
    (void)flock(m_toVtrQueue, LOCK_EX | LOCK_NB);
    // Neither a process that does not read nor one that takes its answers back may hold the service.
    long attributes[4] = {O_NONBLOCK, 0, 0, 0};
    setQueueAttr(m_toVtrQueue, attributes);
    setQueueAttr(m_fromVtrQueue, attributes);
    m_vtrWake.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!m_vtrWake.valid()) {
        LogUtil::Error(MODULE, "No descriptor left to wake the VTR response thread with, errno %d.", errno);
        return -1;
    }
    return startDeckProcess() ? 0 : asCode(kestrel::error::processNotLaunched);
}

// The profile may give options behind the program.
bool CManagerLib::startDeckProcess() {
    std::vector<std::string> arguments =
        kestrel::ArgumentVector(std::string_view(m_settings.deckCtrlExe)).arguments();
    for (const std::string& argument :
         {std::string("-log"), std::string(m_settings.deckCtrlLogFile), std::string("-loglvl"),
          std::to_string(m_settings.deckCtrlLogLevel), std::string("-i"), std::string(m_toVtrQueueName),
          std::string("-o"), std::string(m_fromVtrQueueName)})
        arguments.push_back(argument);
    const int failure = m_deckProcess.start(std::move(arguments));
    m_deckRunning = failure == 0;
    if (failure != 0)
        LogUtil::Error(MODULE, LOG_MSG(kestrel::error::processNotLaunched), m_settings.deckCtrlExe);
    else if (m_deckProcess.executed())
        LogUtil::Info(MODULE, "VTR process %d started: %s", static_cast<int>(m_deckProcess.pid()),
                      m_settings.deckCtrlExe);
    return failure == 0;
}

int CManagerLib::EndVTRProcess() {
    const GenericMsg message(EXIT_MSG, nullptr, 0);
    if (m_toVtrQueue >= 0)
        sendPriorityMsg(m_toVtrQueue, reinterpret_cast<const char*>(message.buffer), message.length, 0);
    if (m_deckProcess.running()) {
        const pid_t pid = m_deckProcess.pid();
        if (const auto end = m_deckProcess.waitForEnd(END_ASKED_MS, END_TERMINATED_MS, END_KILLED_MS))
            LogUtil::Info(MODULE, "VTR process ended %s", end->c_str());
        else
            LogUtil::Error(MODULE, "VTR process %d was killed and has not ended: it is left behind.",
                           static_cast<int>(pid));
    }
    m_deckRunning = false;
    if (m_toVtrQueue >= 0)
        JobLauncher::flushAndDestroyQueue(m_toVtrQueueName, m_toVtrQueue);
    if (m_fromVtrQueue >= 0)
        JobLauncher::flushAndDestroyQueue(m_fromVtrQueueName, m_fromVtrQueue);
    m_toVtrQueue = m_fromVtrQueue = -1;
    return 0;
}

void* CManagerLib::vtrResponseThread(void* manager) {
    static_cast<CManagerLib*>(manager)->watchDeckProcess();
    return nullptr;
}

void CManagerLib::watchDeckProcess() {
    using Clock = std::chrono::steady_clock;
    Clock::time_point started = Clock::now();
    Clock::time_point nextStart{};
    kestrel::RestartPause restart;
    while (!m_shutdown) {
        int waitMs = -1;
        if (!m_deckProcess.running()) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(nextStart - Clock::now()).count();
            waitMs = static_cast<int>(std::max<long>(left, 0));
        } else if (m_deckProcess.descriptor() < 0)
            waitMs = LOOK_MS;
        // Negative descriptors are skipped by poll.
        std::array<pollfd, 3> events{{{m_fromVtrQueue, POLLIN, 0},
                                      {m_vtrWake.get(), POLLIN, 0},
                                      {m_deckProcess.descriptor(), POLLIN, 0}}};
        poll(events.data(), events.size(), waitMs);
        takeDeckAnswers();
        if (m_shutdown)
            break;
        if (const auto end = m_deckProcess.takeEnd()) {
            // One outage ends where the next begins, answered or not.
            m_refusedInOutage = 0;
            m_deckRunning = false;
            const std::chrono::seconds pause = restart.after(Clock::now() - started);
            LogUtil::Error(MODULE, "VTR process ended %s. It is started again in %d seconds.", end->c_str(),
                           static_cast<int>(pause.count()));
            takeDeckAnswers(); // what it sent last still counts
            failPendingVtrRequest("Error: The VTR process ended " + *end + " before it answered.");
            // What it has not read must not be carried out by the next one, who knows how much later.
            dropDeckRequests();
            nextStart = Clock::now() + pause;
        } else if (!m_deckProcess.running() && Clock::now() >= nextStart) {
            started = Clock::now();
            dropDeckRequests(); // of a sender that had not seen the end yet
            if (!startDeckProcess())
                nextStart = started + restart.after(Clock::duration::zero());
        }
    }
    failPendingVtrRequest("Error: The service is shutting down.");
}

// Nothing that waits is carried out by the next process, and its workers are told so.
void CManagerLib::dropDeckRequests() {
    std::array<char, kestrel::maxQueueMessage> buffer;
    int length = 0;
    while (receiveMsg(m_toVtrQueue, buffer.data(), static_cast<int>(buffer.size()), &length) == 0) {
    }
    std::deque<_VTRCmdData> unanswered;
    {
        MutexLock lock(m_relayedMutex);
        unanswered.swap(m_relayed);
    }
    for (_VTRCmdData& record : unanswered)
        refuseWorkersRequest(record);
}

// Keeps a worker's request until it is answered. The reply queue's name is terminated.
void CManagerLib::rememberRelayed(const _VTRCmdData& record) {
    MutexLock lock(m_relayedMutex);
    if (m_relayed.size() >= MOST_RELAYED)
        m_relayed.pop_front(); // a deck that answers nothing
    m_relayed.push_back(record);
}

bool CManagerLib::forgetRelayed(const _VTRCmdData& answer) {
    MutexLock lock(m_relayedMutex);
    const auto found = std::find_if(m_relayed.begin(), m_relayed.end(), [&](const _VTRCmdData& record) {
        return kestrel::answersRequest(answer, record) &&
               kestrel::fieldText(record.replyQueueName) == kestrel::fieldText(answer.replyQueueName);
    });
    if (found == m_relayed.end())
        return false;
    m_relayed.erase(found);
    return true;
}

// A worker need not wait for an answer that nobody will give. A deck process that has ended is started again;
// where none is configured, the worker need not ask a second time either.
void CManagerLib::refuseWorkersRequest(_VTRCmdData& record) {
    if (m_settings.deckCtrlExe[0] == '\0') {
        const std::string port(kestrel::fieldText(record.serialPort));
        record.errorCode = asCode(kestrel::error::vtrNotConnected);
        kestrel::formatText(record.errorText, LOG_MSG(kestrel::error::vtrNotConnected), port.c_str());
        kestrel::appendText(record.errorText, NOT_CONFIGURED);
    } else
        setError(record, kestrel::error::vtrSendQueueMissing, LOG_MSG(kestrel::error::vtrSendQueueMissing));
    SendQueueMessage(record.replyQueueName, VTR_CMD_RESPONSE_MSG, &record, sizeof record);
}

void CManagerLib::takeDeckAnswers() {
    long attributes[4] = {};
    if (getQueueAttr(m_fromVtrQueue, attributes) != 0)
        return;
    std::array<char, kestrel::maxQueueMessage> buffer;
    for (long i = 0; i < attributes[3]; ++i) {
        int length = 0;
        if (receiveMsg(m_fromVtrQueue, buffer.data(), static_cast<int>(buffer.size()), &length) != 0)
            continue;
        const GenericFlatMsg message(reinterpret_cast<unsigned char*>(buffer.data()), length);
        if (message.type != VTR_CMD_RESPONSE_MSG)
            continue;
        if (message.payloadSize != sizeof(_VTRCmdData)) {
            LogUtil::Error(MODULE, "An answer of the VTR process has %d bytes, %zu were expected.",
                           message.payloadSize, sizeof(_VTRCmdData));
            continue;
        }
        _VTRCmdData record;
        std::memcpy(&record, message.payload, sizeof record);
        if (m_deckRunning)
            logEndOfOutage();
        takeDeckAnswer(record);
    }
}

// A worker's answer goes to its own queue; the manager's own to the request that waits for it. One that
// belongs to an earlier request, which has timed out, is dropped: nobody is to be told another deck's time.
void CManagerLib::takeDeckAnswer(_VTRCmdData& record) {
    record.replyQueueName[sizeof record.replyQueueName - 1] = '\0';
    if (record.replyQueueName[0] != '\0') {
        forgetRelayed(record);
        SendQueueMessage(record.replyQueueName, VTR_CMD_RESPONSE_MSG, &record, sizeof record);
        return;
    }
    MutexLock lock(m_vtrResponseMutex);
    if (m_vtrCmdResponse == nullptr || !kestrel::answersRequest(record, *m_vtrCmdResponse)) {
        LogUtil::Info(MODULE, "A late answer of the VTR process is dropped: command %d, port %.12s",
                      record.commandKind, record.serialPort);
        return;
    }
    *m_vtrCmdResponse = record;
    m_vtrCmdResponse = nullptr;
    EventWrapper::SignalEvent(m_hVtrMsgEvent);
}

void CManagerLib::failPendingVtrRequest(const std::string& why) {
    MutexLock lock(m_vtrResponseMutex);
    if (m_vtrCmdResponse == nullptr)
        return;
    setError(*m_vtrCmdResponse, kestrel::error::vtrSendQueueMissing, why);
    m_vtrCmdResponse = nullptr;
    EventWrapper::SignalEvent(m_hVtrMsgEvent);
}

void CManagerLib::VTRCmdRequestCallbackFn(CallbackLib::_Data* data) {
    _VTRCmdData record;
    std::memcpy(&record, data->data, sizeof record);
    static_cast<CManagerLib*>(data->context)->handleVTRCmdRequest(record);
}

void CManagerLib::handleVTRCmdRequest(_VTRCmdData record) {
    record.replyQueueName[sizeof record.replyQueueName - 1] = '\0';
    const bool relayed = record.replyQueueName[0] != '\0';
    // Before it is sent: its answer may be there before send returns.
    if (relayed)
        rememberRelayed(record);
    const GenericMsg message(VTR_CMD_REQUEST_MSG, &record, sizeof record);
    if (m_deckRunning &&
        sendPriorityMsg(m_toVtrQueue, reinterpret_cast<const char*>(message.buffer), message.length, 0) == 0)
        return;
    logUnsentRequest();
    // Where it is forgotten already, it was refused with the others that waited.
    if (relayed && forgetRelayed(record))
        refuseWorkersRequest(record);
}

// While the process is down every request fails for the same reason, and a recorder asks several times a
// second: the first one tells it, the others are counted. A send that fails with the process there is told
// each time.
void CManagerLib::logUnsentRequest() {
    const bool configured = m_settings.deckCtrlExe[0] != '\0';
    const bool outage = configured && !m_deckRunning;
    if (outage && m_refusedInOutage++ > 0)
        return;
    char text[300];
    kestrel::formatText(text, LOG_MSG(kestrel::error::queueSendFailed), m_toVtrQueueName);
    LogUtil::Error(MODULE, "%s%s", text, configured ? "" : NOT_CONFIGURED);
}

// An answer ends an outage, and not the start of a process: one that cannot do its work ends at once again.
void CManagerLib::logEndOfOutage() {
    if (const unsigned refused = m_refusedInOutage.exchange(0); refused > 0)
        LogUtil::Info(MODULE,
                      "The VTR process answers again. Requests of workers refused while it was down: %u.",
                      refused);
}

int CManagerLib::sendVTRCmdRequestBlocking(_VTRCmdData* record) {
    CManagerLib* const manager = GetInstance();
    MutexLock oneAtATime(m_vtrMsgMutex);
    record->replyQueueName[0] = '\0';
    if (!manager->askDeck(*record))
        setError(*record, kestrel::error::vtrResponseTimeout, LOG_MSG(kestrel::error::vtrResponseTimeout));
    if (record->errorCode != 0)
        LogUtil::Error(MODULE, "%.304s", record->errorText);
    return record->errorCode;
}

// Whether nobody can answer. Where no deck control is configured at all, requests time out, as ever.
bool CManagerLib::deckIsDown() const {
    return m_shutdown || (m_settings.deckCtrlExe[0] != '\0' && !m_deckRunning);
}

// False when no answer came in time; record has the answer otherwise.
bool CManagerLib::askDeck(_VTRCmdData& record) {
    EventWrapper::ResetEvent(m_hVtrMsgEvent);
    // What is sent is a copy: from when it is published on, the record may be answered at any time.
    const _VTRCmdData request = record;
    {
        // Under the lock of those who let waiting requests go, so that none begins to wait behind them.
        MutexLock lock(m_vtrResponseMutex);
        if (deckIsDown()) {
            setError(record, kestrel::error::vtrSendQueueMissing,
                     m_shutdown ? "Error: The service is shutting down."
                                : "Error: The VTR process has ended and is about to be started again.");
            return true;
        }
        m_vtrCmdResponse = &record;
    }
    handleVTRCmdRequest(request);
    const int result = EventWrapper::WaitForEventSignal(m_hVtrMsgEvent, RESPONSE_TIMEOUT_MS, false);
    MutexLock lock(m_vtrResponseMutex);
    // An answer may come between the end of the wait and here; it counts.
    const bool answered = result == EventWrapper::Signalled || m_vtrCmdResponse == nullptr;
    m_vtrCmdResponse = nullptr;
    return answered;
}
