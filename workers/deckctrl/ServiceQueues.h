// The two message queues between the service and the deck process. Nothing here waits.
#pragma once

#include "Failure.h"
#include "foundation/QueueMessages.h"
#include "foundation/UniqueFd.h"

#include <optional>
#include <string>
#include <vector>

namespace kestrel::deck {

class ServiceQueues {
public:
    // Opens both queues. False, and logged, when one is not there.
    [[nodiscard]] bool open(const std::string& readQueue, const std::string& writeQueue);
    // Descriptors to poll: messages wait, or there is room for one.
    [[nodiscard]] int readFd() const noexcept { return m_read.get(); }
    [[nodiscard]] int writeFd() const noexcept { return m_write.get(); }

    // The next message, type included; nothing when none waits.
    [[nodiscard]] std::optional<std::vector<unsigned char>> receive();
    enum class Sent { yes, noRoom, failed };
    // Sends an answer.
    Sent send(const _VTRCmdData& answer);
    // A queue has been removed: its service is gone, or another deck process has taken this one's place.
    [[nodiscard]] bool removed() const;

private:
    // A queue's descriptor is one of a file here.
    UniqueFd m_read;
    UniqueFd m_write;
    std::string m_readName;
    std::string m_writeName;
    std::vector<unsigned char> m_buffer;
};

} // namespace kestrel::deck
