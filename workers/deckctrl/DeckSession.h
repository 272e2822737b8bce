// The deck process from its queues to its exit code: the main thread, which reads requests, hands each to its
// deck's thread and sends the answers back.
#pragma once

#include "AnswerBox.h"
#include "DeckPort.h"
#include "Options.h"
#include "PortNames.h"
#include "ServiceQueues.h"

#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>

namespace kestrel::deck {

inline constexpr int exitSuccess = 0;
inline constexpr int exitFailure = 1;
inline constexpr int exitUsage = 2;

class DeckSession {
public:
    explicit DeckSession(Options options);

    // Runs until the exit message, SIGTERM or SIGINT (both of which it blocks), or until its queues are
    // removed. Returns the exit code.
    [[nodiscard]] int run();

private:
    enum class End { asked, signalled, queuesGone };

    [[nodiscard]] bool prepare();
    [[nodiscard]] End loop(int signals);
    // False when the message asks for the end.
    [[nodiscard]] bool take(std::span<const unsigned char> message);
    void takeRequest(std::span<const unsigned char> payload);
    [[nodiscard]] MaybeFailure dispatch(const _VTRCmdData& record);
    // The deck at a device, made when there is none yet, in the place of an unused one when there are many;
    // null when all are in use.
    [[nodiscard]] DeckPort* portOf(const std::string& device);
    // Sends what there is room for; true when nothing is left.
    bool sendAnswers();
    void finish();

    const Options m_options;
    PortNames m_names;
    ServiceQueues m_queues;
    AnswerBox m_answers;
    std::optional<_VTRCmdData> m_unsent;
    bool m_fullLogged = false;
    std::map<std::string, std::unique_ptr<DeckPort>> m_ports; // by device
};

} // namespace kestrel::deck
