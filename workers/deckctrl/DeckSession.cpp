#include "DeckSession.h"

#include "foundation/FixedText.h"
#include "foundation/Logger.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <poll.h>
#include <sys/signalfd.h>
#include <system_error>

namespace kestrel::deck {
namespace {

constexpr const char* module = "Deck";

int blockedSignals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
    return ::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
}

} // namespace

DeckSession::DeckSession(Options options) : m_options(std::move(options)) {}

int DeckSession::run() {
    // Before any thread, so that all inherit the mask and the signals arrive here only.
    const UniqueFd signals(blockedSignals());
    LogUtil::Info(module, "Deck process starts: requests from %s, answers to %s", m_options.readQueue.c_str(),
                  m_options.writeQueue.c_str());
    if (!prepare()) {
        LogUtil::Error(module, "Deck process ends, exit code %d", exitFailure);
        return exitFailure;
    }
    const End end = loop(signals.get());
    LogUtil::Info(module, "%s",
                  end == End::asked       ? "The service asks for the end"
                  : end == End::signalled ? "A signal asks for the end"
                                          : "The message queues have been removed");
    finish();
    const int code = end == End::queuesGone ? exitFailure : exitSuccess;
    LogUtil::Info(module, "Deck process ends, exit code %d", code);
    return code;
}

bool DeckSession::prepare() {
    std::error_code ignored;
    // A map that was named and cannot be read costs its names, not the other decks.
    if (!m_options.portMap.empty())
        m_names.load(m_options.portMap);
    else if (std::filesystem::exists(installedPortMap(), ignored))
        m_names.load(installedPortMap());
    return m_queues.open(m_options.readQueue, m_options.writeQueue);
}

DeckSession::End DeckSession::loop(int signals) {
    for (;;) {
        const bool allSent = sendAnswers();
        pollfd entries[] = {{signals, POLLIN, 0},
                            {m_queues.readFd(), POLLIN, 0},
                            {m_answers.fd(), POLLIN, 0},
                            {allSent ? -1 : m_queues.writeFd(), POLLOUT, 0}};
        const int ready = ::poll(entries, std::size(entries), static_cast<int>(queueCheck.count()));
        if (ready < 0)
            continue;
        if (ready == 0 && m_queues.removed())
            return End::queuesGone;
        if (entries[0].revents != 0)
            return End::signalled;
        if (entries[2].revents != 0)
            m_answers.clear();
        if (entries[1].revents != 0)
            while (const auto message = m_queues.receive())
                if (!take(*message))
                    return End::asked;
    }
}

bool DeckSession::take(std::span<const unsigned char> message) {
    std::int32_t type = malformedMessage;
    if (message.size() >= sizeof type)
        std::memcpy(&type, message.data(), sizeof type);
    if (type == EXIT_MSG)
        return false;
    if (type == VTR_CMD_REQUEST_MSG)
        takeRequest(message.subspan(sizeof type));
    else
        LogUtil::Warning(module, "A message of %zu bytes and type %d is no request: dropped", message.size(),
                         type);
    return true;
}

void DeckSession::takeRequest(std::span<const unsigned char> payload) {
    _VTRCmdData record{};
    std::memcpy(&record, payload.data(), std::min(payload.size(), sizeof record));
    const MaybeFailure failure =
        payload.size() == sizeof record
            ? dispatch(record)
            : MaybeFailure(unknownRequest(record.commandKind,
                                          "the request has " + std::to_string(payload.size()) + " bytes, " +
                                              std::to_string(sizeof record) + " were expected"));
    if (!failure)
        return;
    LogUtil::Error(module, "%s", failure->text.c_str());
    setResult(record, failure);
    m_answers.put(record);
}

MaybeFailure DeckSession::dispatch(const _VTRCmdData& record) {
    if (auto unknown = unknownIn(record))
        return unknown;
    const std::string name(fieldText(record.serialPort));
    const std::string device = m_names.device(name);
    if (device.empty())
        return notConnected(name, name.empty()
                                      ? "the request names no port"
                                      : "no port has this name: neither COM1 to COM256, tty..., a path, "
                                        "nor in the port map");
    try {
        DeckPort* const port = portOf(device);
        if (!port)
            return notConnected(name, std::to_string(mostDecks) + " ports are in use already");
        if (!port->submit(record))
            return commandFailed(record.commandKind, name,
                                 std::to_string(waitingRequests) + " requests wait for this deck already");
    } catch (const std::system_error& problem) {
        return notConnected(name, std::string("no thread for it: ") + problem.what());
    }
    return std::nullopt;
}

DeckPort* DeckSession::portOf(const std::string& device) {
    if (const auto found = m_ports.find(device); found != m_ports.end())
        return found->second.get();
    if (m_ports.size() >= mostDecks) {
        // Also names that lead nowhere have been given a port.
        const auto unused =
            std::ranges::find_if(m_ports, [](const auto& entry) { return entry.second->unused(); });
        if (unused == m_ports.end())
            return nullptr;
        m_ports.erase(unused);
    }
    return m_ports.emplace(device, std::make_unique<DeckPort>(device, m_options.timing, m_answers))
        .first->second.get();
}

bool DeckSession::sendAnswers() {
    for (;;) {
        if (!m_unsent)
            m_unsent = m_answers.take();
        if (!m_unsent) {
            m_fullLogged = false;
            return true;
        }
        if (m_queues.send(*m_unsent) == ServiceQueues::Sent::noRoom) {
            if (!m_fullLogged)
                LogUtil::Warning(module, "The service does not read queue %s: answers wait",
                                 m_options.writeQueue.c_str());
            m_fullLogged = true;
            return false;
        }
        m_unsent.reset();
    }
}

void DeckSession::finish() {
    for (auto& [device, port] : m_ports)
        port->stop();
    m_ports.clear();
    const Clock::time_point deadline = Clock::now() + finalSendTime;
    while (!sendAnswers()) {
        const auto left = std::chrono::ceil<milliseconds>(deadline - Clock::now()).count();
        pollfd room{m_queues.writeFd(), POLLOUT, 0};
        if (left <= 0 || ::poll(&room, 1, static_cast<int>(left)) == 0) {
            LogUtil::Warning(module, "Answers are left that nobody has read");
            return;
        }
    }
}

} // namespace kestrel::deck
