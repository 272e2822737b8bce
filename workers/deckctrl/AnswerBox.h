// Answers on their way from the decks' threads to the service's queue.
#pragma once

#include "capture/WakeEvent.h"
#include "foundation/Mutex.h"
#include "foundation/QueueMessages.h"

#include <deque>
#include <optional>

namespace kestrel::deck {

using capture::WakeEvent;

// Filled by any thread, emptied by one.
class AnswerBox {
public:
    // Never waits. When nobody has taken answers for long, the oldest is dropped and logged.
    void put(const _VTRCmdData& answer);
    // The oldest answer.
    [[nodiscard]] std::optional<_VTRCmdData> take();
    // Readable from put() until clear().
    [[nodiscard]] int fd() const noexcept { return m_event.fd(); }
    void clear() noexcept { m_event.clear(); }

private:
    WakeEvent m_event;
    Mutex m_mutex;
    std::deque<_VTRCmdData> m_answers GUARDED_BY(m_mutex);
};

} // namespace kestrel::deck
