// How a tape is brought to its preroll point.
#include "DeckCue.h"

#include "foundation/ErrorCodes.h"

#include <algorithm>
#include <cmath>

namespace kestrel::capture {
namespace {

// Shuttles, pauses and steps towards the preroll point before the attempt is given up.
constexpr int mostCorrections = 80;
constexpr int fastestShuttle = 32;
// Seconds that the tape runs on from a pause, at play speed.
constexpr double coasting = 0.25;

} // namespace

void DeckCue::sought(const DeckAnswer& answer, Clock::time_point now) {
    if (m_sent.kind == vtrGoTo || answer.seeking)
        return ask(seekingRequest(), now + m_timing.seekPoll);
    enter(Phase::verifying, now + m_timing.settle);
    ask(timeRequest(), now);
}

// Where the tape stands is known, but not whether it does.
void DeckCue::approach(Clock::time_point now) {
    const double distance = distanceTo(m_target);
    if (std::abs(distance) > 1.0)
        return shuttle(distance, now);
    enter(Phase::stopping, now + m_timing.stopping);
    ask(pauseRequest(), now);
}

void DeckCue::shuttle(double distance, Clock::time_point now) {
    const int speed = std::clamp(static_cast<int>(std::abs(distance) / 2), 1, fastestShuttle);
    m_speed = distance < 0 ? -speed : speed;
    m_best = std::abs(distance);
    m_moved = now;
    if (m_phase != Phase::shuttling)
        enter(Phase::shuttling, now + m_timing.cue);
    ask(shuttleRequest(m_speed), now);
}

void DeckCue::steer(Clock::time_point now) {
    const int direction = m_speed < 0 ? -1 : 1;
    const double left = distanceTo(m_target) * direction;
    if (left <= std::abs(m_speed) * coasting) {
        enter(Phase::stopping, now + m_timing.stopping);
        return ask(pauseRequest(), now);
    }
    if (left > m_best + wrongWay)
        return trouble(prerollFailure("the deck runs the wrong way" + place()), now);
    if (now - m_moved >= m_timing.spinUp)
        return trouble(prerollFailure("the deck does not move" + place()), now);
    m_best = std::min(m_best, left);
    if (left / 2 <= std::abs(m_speed) / 2 && std::abs(m_speed) > 1)
        return shuttle(left * direction, now);
    ask(timeRequest(), now + m_timing.shuttlePoll);
}

// The tape stands: there, near, or not.
void DeckCue::stilled(Clock::time_point now) {
    const double distance = distanceTo(m_target);
    const int labels = static_cast<int>(std::lround(std::abs(distance) * m_labels));
    if (labels <= 1)
        return play(now);
    if (++m_corrections > mostCorrections)
        return trouble(prerollFailure("the deck does not stop there" + place()), now);
    if (labels > m_labels)
        return shuttle(distance, now);
    enter(Phase::stepping);
    ask(stepRequest(distance > 0), now);
}

} // namespace kestrel::capture
