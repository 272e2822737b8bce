#include "ServiceLink.h"

#include "Failure.h"
#include "Limits.h"
#include "foundation/ErrorCodes.h"
#include "foundation/Logger.h"
#include "foundation/PosixWrappers.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <span>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace kestrel::capture {
namespace {

constexpr int readAccess = 0;
constexpr int writeAccess = 1;

} // namespace

int ServiceLink::connectOne(const std::string& name, int access) const {
    if (name.empty())
        return -1;
    const int queue = connectToMsgQueue(name.c_str(), access);
    if (queue < 0) {
        LogUtil::Error(m_module, "%s %s", failure(error::captureQueueNotConnected, name.c_str()).text.c_str(),
                       errnoText(errno).c_str());
        return -1;
    }
    long attributes[4] = {O_NONBLOCK, 0, 0, 0};
    setQueueAttr(queue, attributes);
    return queue;
}

ServiceLink::~ServiceLink() {
    for (const int queue : {m_write, m_read})
        if (queue >= 0)
            closeMsgQueue(queue);
}

void ServiceLink::connect(const std::string& writeQueue, const std::string& readQueue) {
    m_writeName = writeQueue;
    m_write = connectOne(writeQueue, writeAccess);
    m_read = connectOne(readQueue, readAccess);
}

ServiceLink::Received ServiceLink::receive() {
    Received result;
    std::array<char, 8192> buffer{};
    for (;;) {
        const ssize_t received = m_read < 0 ? -1 : mq_receive(m_read, buffer.data(), buffer.size(), nullptr);
        if (received < 0) {
            if (m_read >= 0 && errno == EINTR)
                continue;
            if (m_read >= 0 && errno != EAGAIN) {
                LogUtil::Error(m_module, "Cannot read the service's queue: %s", errnoText(errno).c_str());
                closeMsgQueue(m_read);
                m_read = -1;
            }
            return result;
        }
        take(GenericFlatMsg(reinterpret_cast<unsigned char*>(buffer.data()), static_cast<int>(received)),
             result);
    }
}

void ServiceLink::take(const GenericFlatMsg& message, Received& received) const {
    if (message.type == CANCEL_MSG)
        received.cancel = true;
    if (message.type != VTR_CMD_RESPONSE_MSG)
        return;
    _VTRCmdData answer{};
    if (!message.payload || message.payloadSize != static_cast<int>(sizeof answer)) {
        LogUtil::Warning(m_module, "A deck's answer of %d bytes is dropped: %zu belong to one",
                         message.payloadSize, sizeof answer);
        return;
    }
    std::memcpy(&answer, message.payload, sizeof answer);
    for (const std::span<char> text :
         {std::span<char>(answer.serialPort), std::span<char>(answer.timecode),
          std::span<char>(answer.replyQueueName), std::span<char>(answer.errorText)})
        text.back() = '\0';
    received.deckAnswers.push_back(answer);
}

bool ServiceLink::trySend(AppMsgType type, const void* payload, int size) {
    if (m_write < 0)
        return true;
    const GenericMsg message(type, const_cast<void*>(payload), size);
    return sendMsg(m_write, reinterpret_cast<const char*>(message.buffer), message.length) == 0;
}

void ServiceLink::sendHeartbeat() {
    noticeRemoval();
    tellOfRemoval("this process goes on; to end it: kill -TERM " + std::to_string(getpid()));
    const bool sent = trySend(STATUS_MSG, nullptr, 0);
    if (!sent && !m_fullLogged)
        LogUtil::Warning(m_module, "The service does not read queue %s: status is dropped",
                         m_writeName.c_str());
    m_fullLogged = !sent;
}

void ServiceLink::sendStatus(_CaptureJobStatusData status) {
    trySend(CAPTURE_STATUS_MSG, &status, sizeof status);
}

bool ServiceLink::sendDeckCommand(const _VTRCmdData& command) {
    if (m_write < 0) {
        errno = EBADF;
        return false;
    }
    return trySend(VTR_CMD_REQUEST_MSG, &command, sizeof command);
}

// An unlinked queue goes on taking messages that nobody reads.
void ServiceLink::noticeRemoval() {
    struct stat status {};
    if (m_write < 0 || ::fstat(m_write, &status) != 0 || status.st_nlink != 0)
        return;
    closeMsgQueue(m_write);
    m_write = -1;
    m_removalUntold = true;
}

void ServiceLink::tellOfRemoval(const std::string& consequence) {
    if (std::exchange(m_removalUntold, false))
        LogUtil::Warning(m_module, "Queue %s has been removed: %s", m_writeName.c_str(), consequence.c_str());
}

void ServiceLink::sendSurely(AppMsgType type, const void* payload, int size) {
    noticeRemoval();
    const Clock::time_point deadline = Clock::now() + finalSendTime;
    while (!trySend(type, payload, size)) {
        const auto left = std::chrono::duration_cast<milliseconds>(deadline - Clock::now());
        if ((errno != EAGAIN && errno != EINTR) || left.count() <= 0) {
            LogUtil::Error(m_module, "%s",
                           failure(error::captureQueueSendFailed, static_cast<int>(type), m_writeName.c_str())
                               .text.c_str());
            return;
        }
        pollfd room{m_write, POLLOUT, 0};
        ::poll(&room, 1, static_cast<int>(left.count()));
    }
}

void ServiceLink::sendResults(std::string_view text) {
    // The terminator travels too.
    const std::string cut(text.substr(0, resultsBytes));
    sendSurely(RESULTS_MSG, cut.c_str(), static_cast<int>(cut.size()) + 1);
}

void ServiceLink::sendExit() {
    sendSurely(EXIT_MSG, nullptr, 0);
    tellOfRemoval("the service does not hear of the end");
}

} // namespace kestrel::capture
