// What goes wrong with a deck, what is tried again, and how it is told.
#include "DeckCue.h"

#include "foundation/ErrorCodes.h"
#include "foundation/Logger.h"

#include <algorithm>

namespace kestrel::capture {
namespace {

constexpr const char* module = "Deck";

} // namespace

// What to make of an answer that is an error, or of none.
void DeckCue::refused(const Failure& why, bool answered, Clock::time_point now) {
    if (m_phase == Phase::finished)
        return;
    // The service answers so for a deck process that has ended, of which it starts another one, soon at
    // first, and for one that reads no more.
    const bool processEnded = answered && why.code == error::vtrSendQueueMissing;
    if (m_phase == Phase::pausing) {
        if (processEnded && now + m_timing.retry < m_limit)
            return ask(pauseRequest(), now + m_timing.retry);
        return notPaused(why.text);
    }
    const bool timeQuery = m_sent.kind == vtrCurrentTime;
    const bool playing = m_phase == Phase::rolling || m_phase == Phase::recording;
    // Nobody answers: another attempt would not reach the deck either.
    const bool unreachable =
        !processEnded && (why.code == error::vtrResponseTimeout || why.code == error::vtrSendQueueMissing ||
                          why.code == error::vtrCommandNotSent || why.code == error::vtrNotConnected);
    if (timeQuery && deafFor(now, unreachable || processEnded)) {
        if (!m_deaf)
            LogUtil::Warning(module, "%s: does not show its time: %s", m_plan.port.c_str(), why.text.c_str());
        m_deaf = true;
        m_moved = now;
        return ask(timeRequest(), now + (processEnded ? m_timing.retry : m_timing.rollPoll));
    }
    if (unreachable)
        return fail(why, now);
    if (processEnded)
        return trouble(detailed(why, m_plan.port + ": the deck control takes no requests"), now,
                       m_timing.restart);
    if (m_phase == Phase::recueing) {
        enter(Phase::locating);
        return ask(timeRequest(), now + m_timing.retry);
    }
    const std::string detail = why.text + place();
    if (m_phase == Phase::locating || (playing && timeQuery))
        return trouble(why.code == error::vtrStartTimeUnknown
                           ? why
                           : detailed(failure(error::vtrStartTimeUnknown), m_plan.port + ": " + detail),
                       now);
    if (m_phase == Phase::seeking || m_phase == Phase::verifying || timeQuery)
        return trouble(why.code == error::vtrPrerollFailed ? why : prerollFailure(detail), now);
    trouble(why.code == error::vtrCommandFailed
                ? why
                : detailed(failure(error::vtrCommandFailed, m_sent.kind, m_plan.port.c_str()),
                           m_sent.text() + ": " + detail),
            now);
}

// Whether a time query may fail at present. Few decks read timecode at every speed; and while the tape plays,
// its time is a help, but what counts is in the stream.
bool DeckCue::deafFor(Clock::time_point now, bool unreachable) const noexcept {
    switch (m_phase) {
    case Phase::recording:
        return true;
    case Phase::rolling: {
        const milliseconds toMarkIn = std::chrono::seconds(m_plan.prerollSeconds) + m_timing.lag;
        return now - m_answered < (m_streamLabelled ? std::max(toMarkIn, m_timing.spinUp) : m_timing.spinUp);
    }
    case Phase::shuttling:
    case Phase::stopping:
    case Phase::verifying:
        return !unreachable && now - m_answered < m_timing.standStill;
    default:
        return false;
    }
}

// wait: until the deck can be told anything again.
void DeckCue::trouble(Failure what, Clock::time_point now, milliseconds wait) {
    if (m_attempts > m_plan.retries) {
        if (m_attempts > 1)
            what = detailed(what, std::to_string(m_attempts) + " attempts");
        return fail(std::move(what), now);
    }
    LogUtil::Warning(module, "%s: attempt %d of %d: %s", m_plan.port.c_str(), m_attempts, m_plan.retries + 1,
                     what.text.c_str());
    ++m_attempts;
    m_corrections = 0;
    m_sighting.reset();
    m_trouble = std::move(what);
    enter(Phase::recueing);
    ask(pauseRequest(), now + wait);
}

void DeckCue::fail(Failure what, Clock::time_point now) {
    LogUtil::Error(module, "%s: %s", m_plan.port.c_str(), what.text.c_str());
    m_failed = std::move(what);
    finish(now);
}

void DeckCue::notPaused(const std::string& why) {
    LogUtil::Warning(module, "%s: not paused: %s", m_plan.port.c_str(), why.c_str());
    m_leftRunning = why;
    m_next.reset();
    enter(Phase::finished);
}

Failure DeckCue::prerollFailure(const std::string& detail) const {
    return detailed(failure(error::vtrPrerollFailed, m_target.text().c_str(), m_plan.port.c_str()), detail);
}

Failure DeckCue::playFailure(const std::string& detail) const {
    return detailed(failure(error::vtrCommandFailed, playRequest().kind, m_plan.port.c_str()),
                    "play: " + detail);
}

} // namespace kestrel::capture
