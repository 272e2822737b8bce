#include "DeckPort.h"

#include "foundation/FixedText.h"
#include "foundation/Logger.h"

#include <cerrno>
#include <poll.h>
#include <system_error>

namespace kestrel::deck {
namespace {

bool readable(int fd) noexcept {
    pollfd entry{fd, POLLIN, 0};
    return ::poll(&entry, 1, 0) > 0;
}

// Without one a thread could neither be told of its requests nor be ended.
WakeEvent wakeEvent() {
    WakeEvent event;
    if (!event.valid())
        throw std::system_error(errno, std::generic_category(), "eventfd");
    return event;
}

} // namespace

DeckPort::DeckPort(std::string device, const Timing& timing, AnswerBox& answers)
    : m_stop(wakeEvent()), m_work(wakeEvent()), m_answers(answers), m_stale(timing.stale),
      m_deck(std::move(device), timing, m_stop.fd()), m_thread([this] { run(); }) {}

DeckPort::~DeckPort() {
    stop();
    m_thread.join();
}

bool DeckPort::submit(const _VTRCmdData& request) {
    {
        MutexLock lock(m_mutex);
        if (m_waiting.size() >= waitingRequests)
            return false;
        m_waiting.push_back({request, Clock::now()});
    }
    m_work.signal();
    return true;
}

bool DeckPort::unused() const {
    MutexLock lock(m_mutex);
    return m_unused && m_waiting.empty();
}

std::optional<DeckPort::Waiting> DeckPort::next() {
    MutexLock lock(m_mutex);
    m_unused = m_waiting.empty() && m_deck.lineFd() < 0;
    if (m_waiting.empty())
        return std::nullopt;
    const Waiting first = m_waiting.front();
    m_waiting.pop_front();
    return first;
}

void DeckPort::run() {
    for (;;) {
        while (auto waiting = next())
            answer(*waiting);
        if (readable(m_stop.fd()))
            return;
        // A line that goes is let go at once: held, its device's name stays taken, and an adapter that comes
        // back gets another.
        pollfd entries[] = {{m_stop.fd(), POLLIN, 0}, {m_work.fd(), POLLIN, 0}, {m_deck.lineFd(), 0, 0}};
        ::poll(entries, std::size(entries), -1);
        m_work.clear();
        if (entries[2].revents != 0)
            m_deck.lineHungUp();
    }
}

void DeckPort::answer(Waiting waiting) {
    _VTRCmdData& record = waiting.request;
    const std::string port(fieldText(record.serialPort));
    const auto waited = Clock::now() - waiting.since;
    if (readable(m_stop.fd())) {
        setResult(record, commandFailed(record.commandKind, port, "the deck process ends"));
    } else if (waited >= m_stale) {
        // Whoever sent it has been told long ago that nothing came of it.
        const Failure late =
            tooLate("command " + std::to_string(record.commandKind) + " to VTR at " + port + " waited " +
                    std::to_string(std::chrono::duration_cast<std::chrono::seconds>(waited).count()) +
                    " s for its turn and was not sent");
        LogUtil::Error("Deck", "%s", late.text.c_str());
        setResult(record, late);
    } else {
        m_deck.carryOut(record);
    }
    m_answers.put(record);
}

} // namespace kestrel::deck
