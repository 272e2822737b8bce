#include "Transport.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace kestrel::deck_simulator {
namespace {

constexpr std::array<const char*, 9> stateNames{"stop",    "still", "play",   "fast forward", "rewind",
                                                "shuttle", "jog",   "cue up", "no cassette"};
static_assert(stateNames.size() == static_cast<std::size_t>(Transport::State::cassetteOut) + 1);

double secondsBetween(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration<double>(to - from).count();
}

Clock::duration asDuration(double seconds) {
    return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

} // namespace

double Transport::position(Clock::time_point now) const {
    const double gone = std::max(0.0, secondsBetween(m_begin, now));
    const double at = m_from + m_speed * gone;
    if (m_speed > 0)
        return std::min(at, m_limit);
    return m_speed < 0 ? std::max(at, m_limit) : m_from;
}

std::optional<Clock::time_point> Transport::nextChange() const {
    if (m_speed == 0)
        return std::nullopt;
    return m_begin + asDuration((m_limit - m_from) / m_speed);
}

void Transport::advance(Clock::time_point now) {
    const auto change = nextChange();
    if (!change || now < *change)
        return;
    const bool arrived = m_state == State::cueUp && m_targetOnTape;
    standAt(arrived ? State::still : State::stop, m_limit, now);
    m_cued = arrived;
}

void Transport::standAt(State state, double position, Clock::time_point now) {
    m_state = state;
    m_from = position;
    m_begin = now;
    m_speed = 0;
    m_cued = false;
}

void Transport::move(State state, double speed, Clock::time_point now) {
    advance(now);
    if (m_state == State::cassetteOut)
        return;
    const bool moves = moving(now);
    const double from = position(now);
    standAt(state, from, now);
    m_speed = speed * m_tape.rate().labelsPerSecond;
    m_limit = speed > 0 ? m_tape.last() : 0.0;
    if (!moves)
        m_begin = now + m_mechanics.spinUp;
}

void Transport::stop(Clock::time_point now) {
    advance(now);
    if (m_state != State::cassetteOut)
        standAt(State::stop, std::floor(position(now) + 1e-6), now);
}

void Transport::still(Clock::time_point now) {
    advance(now);
    if (m_state != State::cassetteOut)
        standAt(State::still, std::floor(position(now) + 1e-6), now);
}

void Transport::play(Clock::time_point now) {
    advance(now);
    if (m_state != State::play)
        move(State::play, 1, now);
}

void Transport::wind(bool forward, Clock::time_point now) {
    move(forward ? State::fastForward : State::rewind,
         forward ? m_mechanics.windSpeed : -m_mechanics.windSpeed, now);
}

void Transport::shuttle(double speed, Clock::time_point now) {
    if (speed == 0)
        still(now);
    else
        move(State::shuttle, std::clamp(speed, -m_mechanics.windSpeed, m_mechanics.windSpeed), now);
}

void Transport::jog(double speed, Clock::time_point now) {
    if (speed == 0)
        still(now);
    else
        move(State::jog, speed, now);
}

void Transport::step(int labels, Clock::time_point now) {
    still(now);
    if (m_state == State::still)
        standAt(State::still, std::clamp(m_from + labels, 0.0, m_tape.last()), now);
}

bool Transport::cueUp(const TapeTime& target, Clock::time_point now) {
    const auto wanted = m_tape.position(target);
    if (!wanted)
        return false;
    advance(now);
    if (m_state == State::cassetteOut)
        return true;
    const double from = position(now);
    m_targetOnTape = *wanted >= 0 && *wanted <= m_tape.last();
    const double limit = std::clamp(*wanted, 0.0, m_tape.last());
    const double distance = std::abs(limit - from);
    const double wound = distance / (m_mechanics.windSpeed * m_tape.rate().labelsPerSecond);
    const double seconds = m_mechanics.seek
                               ? std::chrono::duration<double>(*m_mechanics.seek).count()
                               : wound + std::chrono::duration<double>(m_mechanics.spinUp).count();
    const bool cuedBefore = m_cued;
    standAt(State::cueUp, from, now);
    m_begin += m_lag;
    m_cued = cuedBefore && m_lag.count() > 0;
    // A deck that is there already still takes its time, at a movement that is none.
    constexpr double least = 1e-7;
    m_limit = distance < least ? from + least : limit;
    m_speed = (m_limit - from) / std::max(seconds, 1e-3);
    return true;
}

void Transport::eject(Clock::time_point now) {
    standAt(State::cassetteOut, position(now), now);
}

void Transport::insert(Clock::time_point now) {
    if (m_state == State::cassetteOut)
        standAt(State::stop, 0, now);
}

deck::Status Transport::status(Clock::time_point now) const {
    deck::Status status;
    status.cassetteOut = m_state == State::cassetteOut;
    status.play = m_state == State::play;
    status.fastForward = m_state == State::fastForward;
    status.rewind = m_state == State::rewind;
    status.stop = m_state == State::stop;
    const bool late = lagging(now);
    const bool cueing = m_state == State::cueUp && !late;
    status.still = m_state == State::still || late;
    status.jog = m_state == State::jog;
    status.shuttle = m_state == State::shuttle || cueing;
    status.preroll = cueing;
    status.standby = m_state != State::cassetteOut;
    status.reverse = m_speed < 0 && !late;
    status.cueUpComplete = m_cued && !cueing;
    status.servoLock = m_state == State::play && moving(now);
    status.endOfTape = m_state != State::cassetteOut && position(now) >= m_tape.last();
    return status;
}

std::string Transport::describe(Clock::time_point now) const {
    const std::string name =
        m_cued && m_state != State::cueUp ? "cue up complete" : stateNames[static_cast<std::size_t>(m_state)];
    return m_state == State::cassetteOut ? name : name + " " + time(now).text();
}

std::optional<Transport::Play> Transport::playing() const {
    if (m_state != State::play)
        return std::nullopt;
    return Play{m_from, m_begin};
}

} // namespace kestrel::deck_simulator
