#include "capture/simulated_deck.h"

#include "foundation/FixedText.h"
#include "timecode/mpeg_timecode.h"

#include <algorithm>
#include <cmath>

namespace capture_test {

using namespace kestrel::capture;

SimulatedDeck::SimulatedDeck(const std::string& label, int rateCode, Clock::time_point now)
    : m_rateCode(rateCode), m_from(number(label)), m_since(now) {}

double SimulatedDeck::number(const std::string& label) const {
    const bool drop = mpeg_timecode::frameRateCodeToDropFrame(m_rateCode);
    return mpeg_timecode(label.c_str(), drop, m_rateCode).frame_count();
}

double SimulatedDeck::frame(Clock::time_point now) const {
    if (m_seekEnd)
        return now >= *m_seekEnd ? m_seekTarget : m_from;
    const auto wait = m_playing ? spinUp : std::chrono::milliseconds(0);
    const double seconds = std::max(0.0, std::chrono::duration<double>(now - m_since - wait).count());
    return m_from + seconds * m_speed * mpeg_timecode::fps(m_rateCode);
}

std::string SimulatedDeck::label(Clock::time_point now) const {
    const bool drop = mpeg_timecode::frameRateCodeToDropFrame(m_rateCode);
    return mpeg_timecode::from_frames(static_cast<int>(std::floor(frame(now) + 1e-6)), drop, m_rateCode)
        .windows_string();
}

void SimulatedDeck::run(double speed, Clock::time_point now) {
    m_from = std::floor(frame(now) + 1e-6);
    m_since = now;
    m_speed = speed;
    m_seekEnd.reset();
    m_playing = false;
}

void SimulatedDeck::place(const std::string& label, Clock::time_point now) {
    run(m_speed, now);
    m_from = number(label);
}

void SimulatedDeck::handle(_VTRCmdData& record, Clock::time_point now) {
    const DeckRequest request{static_cast<kestrel::VtrCommandKind>(record.commandKind), record.transportCode,
                              record.timecode, record.shuttleSpeed};
    if (m_heard.empty() || m_heard.back() != request.text())
        m_heard.push_back(request.text());
    if (refuse) {
        if (const auto why = refuse(record)) {
            record.errorCode = static_cast<std::int32_t>(why->code);
            kestrel::copyText(record.errorText, why->text);
            return;
        }
    }
    switch (record.commandKind) {
    case kestrel::vtrGoTo:
        run(0, now);
        m_seekTarget = number(record.timecode) + seekError;
        m_seekEnd = now + std::chrono::milliseconds(static_cast<int>(seekSeconds * 1000));
        return;
    case kestrel::vtrCurrentTime:
        kestrel::copyText(record.timecode, label(now));
        return;
    case kestrel::vtrIsSeeking:
        record.seeking = m_seekEnd && now < *m_seekEnd;
        return;
    case kestrel::vtrShuttle:
        return run(record.shuttleSpeed * shuttleSpeed, now);
    default:
        break;
    }
    switch (record.transportCode) {
    case kestrel::vtrPlayCode:
        run(playSpeed, now);
        m_playing = true;
        return;
    case kestrel::vtrPauseCode:
        return run(pauseSticks ? m_speed : 0, now);
    default:
        run(0, now);
        if (!stepsStick)
            m_from += record.transportCode == kestrel::vtrStepForwardCode ? 1 : -1;
    }
}

DeckAnswer SimulatedDeck::answer(const DeckRequest& request, Clock::time_point now) {
    _VTRCmdData record{};
    record.commandKind = request.kind;
    record.transportCode = request.code;
    record.shuttleSpeed = request.speed;
    kestrel::copyText(record.timecode, request.timecode);
    handle(record, now);
    DeckAnswer answer;
    answer.sent = answer.received = now;
    answer.answered = true;
    answer.seeking = record.seeking != 0;
    answer.timecode = record.timecode;
    if (record.errorCode != 0)
        answer.failed = Failure{record.errorCode, record.errorText};
    return answer;
}

int SimulatedDeck::count(const std::string& request) const {
    return static_cast<int>(std::count(m_heard.begin(), m_heard.end(), request));
}

} // namespace capture_test
