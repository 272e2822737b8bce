#include "DeckLink.h"

#include "foundation/ErrorCodes.h"
#include "foundation/FixedText.h"
#include "foundation/Logger.h"

#include <algorithm>
#include <cerrno>

namespace kestrel::capture {
namespace {

constexpr const char* module = "Deck";

const char* transportWord(std::int32_t code) {
    switch (code) {
    case vtrPlayCode:
        return "play";
    case vtrRewindCode:
        return "rewind";
    case vtrFastForwardCode:
        return "fast forward";
    case vtrStepForwardCode:
        return "step forward";
    case vtrStepReverseCode:
        return "step reverse";
    case vtrPauseCode:
        return "pause";
    default:
        return "transport command";
    }
}

} // namespace

std::string DeckRequest::text() const {
    switch (kind) {
    case vtrGoTo:
        return "go to " + timecode;
    case vtrCurrentTime:
        return "current time";
    case vtrIsSeeking:
        return "seeking";
    case vtrShuttle:
        return "shuttle " + std::to_string(speed);
    default:
        return transportWord(code);
    }
}

DeckRequest playRequest() {
    return {vtrTransport, vtrPlayCode};
}

DeckRequest pauseRequest() {
    return {vtrTransport, vtrPauseCode};
}

DeckRequest stepRequest(bool forward) {
    return {vtrTransport, forward ? vtrStepForwardCode : vtrStepReverseCode};
}

DeckRequest shuttleRequest(int speed) {
    return {vtrShuttle, vtrShuttleCode, "", speed};
}

DeckRequest goToRequest(const std::string& timecode) {
    return {vtrGoTo, 0, timecode};
}

DeckRequest timeRequest() {
    return {vtrCurrentTime};
}

DeckRequest seekingRequest() {
    return {vtrIsSeeking};
}

MaybeFailure DeckLink::prepare() const {
    if (m_port.empty())
        return detailed(failure(error::vtrNotConnected, ""), "no port");
    if (m_port.size() >= sizeof _VTRCmdData::serialPort)
        return detailed(
            failure(error::vtrNotConnected, m_port.c_str()),
            format("a port's name has at most %zu characters", sizeof _VTRCmdData::serialPort - 1));
    if (!m_link.connected())
        return detailed(failure(error::vtrSendQueueMissing), "the deck is reached through the service only");
    return std::nullopt;
}

void DeckLink::send(const DeckRequest& request, Clock::time_point now) {
    m_request = request;
    m_record = {};
    m_record.commandKind = request.kind;
    copyText(m_record.serialPort, m_port);
    m_record.transportCode = request.code;
    m_record.queryFlag = request.kind == vtrIsSeeking ? 1 : 0;
    copyText(m_record.timecode, request.timecode);
    m_record.shuttleSpeed = request.speed;
    m_busy = true;
    m_asked = m_now = now;
    if (request.kind != vtrCurrentTime && request.kind != vtrIsSeeking)
        LogUtil::Info(module, "%s: %s", m_port.c_str(), request.text().c_str());
    trySend();
}

void DeckLink::trySend() {
    m_notSent.reset();
    m_unsent = !m_link.sendDeckCommand(m_record);
    if (!m_unsent)
        return;
    if (errno == EBADF)
        m_notSent = failure(error::vtrSendQueueMissing);
    else if (errno != EAGAIN && errno != EINTR)
        m_notSent = detailed(failure(error::vtrCommandNotSent), errnoText(errno));
}

DeckAnswer DeckLink::ended(MaybeFailure failed, Clock::time_point now) {
    m_busy = m_unsent = false;
    m_notSent.reset();
    return {std::move(failed), false, "", m_asked, now, false};
}

std::optional<DeckAnswer> DeckLink::take(const _VTRCmdData& record, Clock::time_point now) {
    if (!m_busy || m_unsent || !answersRequest(record, m_record))
        return std::nullopt;
    if (record.errorCode != 0) {
        const std::string text(fieldText(record.errorText));
        Failure failed = failure(error::vtrCommandFailed, m_request.kind, m_port.c_str());
        failed.code = record.errorCode;
        if (!text.empty())
            failed.text = text;
        // The time is asked for several times a second; of one that cannot be read the cue tells once.
        const std::string line = m_port + ": " + m_request.text() + ": " + failed.text;
        if (m_request.kind == vtrCurrentTime)
            LogUtil::Debug(module, "%s", line.c_str());
        else
            LogUtil::Error(module, "%s", line.c_str());
        DeckAnswer refusal = ended(std::move(failed), now);
        refusal.answered = true;
        return refusal;
    }
    DeckAnswer answer = ended(std::nullopt, now);
    answer.answered = true;
    answer.seeking = record.seeking != 0;
    answer.timecode = fieldText(record.timecode);
    return answer;
}

std::optional<DeckAnswer> DeckLink::tick(Clock::time_point now) {
    if (!m_busy || now < deadline())
        return std::nullopt;
    m_now = now;
    if (m_unsent && !m_notSent) {
        trySend();
        if (m_unsent && !m_notSent && now >= m_asked + m_timing.room)
            m_notSent = detailed(failure(error::vtrCommandNotSent), "the service does not read its queue");
        if (!m_unsent)
            return std::nullopt;
    }
    if (m_notSent)
        return ended(m_notSent, now);
    if (now < m_asked + m_timing.answer)
        return std::nullopt;
    return ended(detailed(failure(error::vtrResponseTimeout), m_port + ": " + m_request.text()), now);
}

Clock::time_point DeckLink::deadline() const noexcept {
    if (!m_busy)
        return Clock::time_point::max();
    if (m_notSent)
        return m_now;
    return m_unsent ? m_now + m_timing.roomCheck : m_asked + m_timing.answer;
}

} // namespace kestrel::capture
