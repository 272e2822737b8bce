#include "ServiceQueues.h"

#include "foundation/Logger.h"
#include "foundation/PosixWrappers.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>

namespace kestrel::deck {
namespace {

constexpr const char* module = "Deck";
constexpr int readAccess = 0;
constexpr int writeAccess = 1;

UniqueFd connectTo(const std::string& name, int access) {
    UniqueFd queue(connectToMsgQueue(name.c_str(), access));
    if (!queue.valid()) {
        LogUtil::Error(module, "Cannot open message queue %s: %s", name.c_str(), errnoText(errno).c_str());
        return queue;
    }
    long attributes[4] = {O_NONBLOCK, 0, 0, 0};
    setQueueAttr(queue.get(), attributes);
    return queue;
}

bool nameless(int fd) noexcept {
    struct stat status {};
    return ::fstat(fd, &status) == 0 && status.st_nlink == 0;
}

} // namespace

bool ServiceQueues::open(const std::string& readQueue, const std::string& writeQueue) {
    m_readName = readQueue;
    m_writeName = writeQueue;
    m_read = connectTo(readQueue, readAccess);
    m_write = connectTo(writeQueue, writeAccess);
    long attributes[4] = {};
    if (!m_read.valid() || !m_write.valid() || getQueueAttr(m_read.get(), attributes) != 0)
        return false;
    // A queue of somebody else's making may take longer messages.
    m_buffer.resize(static_cast<std::size_t>(std::max<long>(attributes[2], maxQueueMessage)));
    return true;
}

std::optional<std::vector<unsigned char>> ServiceQueues::receive() {
    for (;;) {
        const ssize_t size =
            mq_receive(m_read.get(), reinterpret_cast<char*>(m_buffer.data()), m_buffer.size(), nullptr);
        if (size >= 0)
            return std::vector(m_buffer.begin(), m_buffer.begin() + size);
        if (errno == EINTR)
            continue;
        if (errno != EAGAIN)
            LogUtil::Error(module, "Cannot read message queue %s: %s", m_readName.c_str(),
                           errnoText(errno).c_str());
        return std::nullopt;
    }
}

ServiceQueues::Sent ServiceQueues::send(const _VTRCmdData& answer) {
    _VTRCmdData record = answer;
    const GenericMsg message(VTR_CMD_RESPONSE_MSG, &record, sizeof record);
    if (sendPriorityMsg(m_write.get(), reinterpret_cast<const char*>(message.buffer), message.length, 0) == 0)
        return Sent::yes;
    if (errno == EAGAIN || errno == EINTR)
        return Sent::noRoom;
    LogUtil::Error(module, "Cannot send on message queue %s: %s", m_writeName.c_str(),
                   errnoText(errno).c_str());
    return Sent::failed;
}

bool ServiceQueues::removed() const {
    return nameless(m_read.get()) || nameless(m_write.get());
}

} // namespace kestrel::deck
