#include "DeckCue.h"

#include "foundation/ErrorCodes.h"
#include "foundation/Logger.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace kestrel::capture {
namespace {

constexpr const char* module = "Deck";

// Seconds from the preroll point at which an internal cue counts as done.
constexpr double cuedWithin = 2.0;

} // namespace

DeckCue::DeckCue(CuePlan plan, const CueTiming& timing) : m_plan(std::move(plan)), m_timing(timing) {}

MaybeFailure DeckCue::prepare() {
    const auto in = DeckTime::parse(m_plan.markIn);
    if (!in)
        return detailed(failure(error::invalidMarkIn), "\"" + m_plan.markIn + "\"");
    const auto out = DeckTime::parse(m_plan.markOut);
    if (!out)
        return detailed(failure(error::invalidMarkOut), "\"" + m_plan.markOut + "\"");
    m_markIn = *in;
    m_markOut = *out;
    m_markIn.drop = m_markOut.drop = m_markIn.drop || m_markOut.drop;
    if (m_markIn.drop || std::max(m_markIn.frames, m_markOut.frames) >= m_labels)
        m_labels = 30;
    aim();
    return std::nullopt;
}

void DeckCue::aim() {
    m_target = m_markIn.before(m_plan.prerollSeconds);
}

void DeckCue::setRateCode(int frameRateCode) noexcept {
    constexpr int labels[] = {0, 24, 24, 25, 30, 30, 25, 30, 30};
    if (frameRateCode > 0 && frameRateCode < static_cast<int>(std::size(labels)))
        m_labels = labels[frameRateCode];
}

void DeckCue::ask(DeckRequest request, Clock::time_point due) {
    m_next = std::move(request);
    m_due = due;
}

void DeckCue::enter(Phase phase, Clock::time_point limit) {
    m_phase = phase;
    m_limit = limit;
}

Clock::time_point DeckCue::deadline() const noexcept {
    return m_next ? std::min(m_due, m_limit) : m_limit;
}

std::optional<DeckRequest> DeckCue::next(Clock::time_point now) {
    if (!m_next || now < m_due)
        return std::nullopt;
    m_sent = *m_next;
    m_next.reset();
    if (m_sent.kind != vtrCurrentTime && m_sent.kind != vtrIsSeeking && m_sent != pauseRequest())
        m_started = true;
    return m_sent;
}

bool DeckCue::armed(Clock::time_point now) const noexcept {
    return (m_phase == Phase::rolling || m_phase == Phase::recording) && now >= m_played + m_timing.arming;
}

std::optional<Sighting> DeckCue::takeSighting() {
    return std::exchange(m_sighting, std::nullopt);
}

void DeckCue::begin(Clock::time_point now) {
    m_attempts = 1;
    enter(Phase::locating);
    ask(timeRequest(), now);
}

void DeckCue::answered(const DeckAnswer& answer, Clock::time_point now) {
    // Asked before the recording was over, or before a trouble was found: it is no answer to what is to be
    // asked for that.
    if (m_next)
        return;
    if (answer.failed)
        return refused(*answer.failed, answer.answered, now);
    const auto before = m_position;
    const bool isTime = m_sent.kind == vtrCurrentTime;
    if (isTime && !readTime(answer, now))
        return;
    const bool moved = isTime && m_position != before;
    switch (m_phase) {
    case Phase::locating:
        if (m_plan.internalCue) {
            m_cueEnd = now + m_timing.cue;
            enter(Phase::seeking, m_cueEnd);
            return ask(goToRequest(m_target.text()), now);
        }
        return approach(now);
    case Phase::seeking:
        return sought(answer, now);
    case Phase::verifying:
        if (std::abs(distanceTo(m_target)) <= cuedWithin)
            return play(now);
        // Some decks say too early that they do not seek any more.
        if (moved)
            m_limit = std::min(now + m_timing.settle, m_cueEnd);
        return ask(timeRequest(), now + m_timing.seekPoll);
    case Phase::shuttling:
        return isTime ? steer(now) : ask(timeRequest(), now + m_timing.shuttlePoll);
    case Phase::stopping:
        if (isTime && !moved)
            return stilled(now);
        return ask(timeRequest(), now + m_timing.stillPoll);
    case Phase::stepping:
        return isTime ? stilled(now) : ask(timeRequest(), now + m_timing.stepPoll);
    case Phase::starting:
        m_played = m_moved = m_answered = now;
        m_hasMoved = m_deaf = false;
        m_playedFrom = *m_position;
        enter(Phase::rolling, now + m_timing.arming);
        return ask(timeRequest(), now + m_timing.rollPoll);
    case Phase::rolling:
    case Phase::recording:
        return watch(moved, now);
    case Phase::recueing:
        enter(Phase::locating);
        return ask(timeRequest(), now + m_timing.retry);
    case Phase::pausing:
        return enter(Phase::finished);
    case Phase::finished:
        return;
    }
}

bool DeckCue::readTime(const DeckAnswer& answer, Clock::time_point now) {
    const auto time = DeckTime::parse(answer.timecode);
    if (!time) {
        refused(detailed(failure(error::vtrStartTimeUnknown), "the deck shows \"" + answer.timecode + "\""),
                true, now);
        return false;
    }
    if (m_position != time)
        m_moved = now;
    m_position = time;
    m_answered = now;
    if (m_deaf)
        LogUtil::Info(module, "%s: shows its time again: %s", m_plan.port.c_str(), time->text().c_str());
    m_deaf = false;
    if (time->frames >= m_labels)
        m_labels = 30;
    // The marks are counted as the tape is.
    if (time->drop && !m_markIn.drop) {
        m_markIn.drop = m_markOut.drop = true;
        m_labels = 30;
        aim();
    }
    if (m_phase == Phase::rolling || m_phase == Phase::recording)
        m_sighting = Sighting{answer.timecode, answer.sent + (answer.received - answer.sent) / 2};
    return true;
}

void DeckCue::play(Clock::time_point now) {
    LogUtil::Info(module, "%s: cued at %s, mark-in %s", m_plan.port.c_str(), m_position->text().c_str(),
                  m_markIn.text().c_str());
    enter(Phase::starting);
    ask(playRequest(), now);
}

void DeckCue::watch(bool moved, Clock::time_point now) {
    m_hasMoved = m_hasMoved || moved;
    const milliseconds patience = m_hasMoved ? m_timing.standStill : m_timing.spinUp;
    const double lag = std::chrono::duration<double>(m_timing.lag).count();
    if (m_phase == Phase::rolling) {
        if (now - m_moved >= patience)
            return trouble(playFailure("the deck does not move" + place()), now);
        if (secondsBetween(m_playedFrom.secondsOfDay(m_labels), m_position->secondsOfDay(m_labels)) <
            -wrongWay)
            return trouble(playFailure("the deck runs the wrong way" + place()), now);
        if (-distanceTo(m_markIn) > lag)
            return trouble(
                detailed(failure(error::startTimecodeNotFound, m_plan.markIn.c_str()), m_plan.port + place()),
                now);
    } else {
        // Longer than before the recording: a worn place of the tape may hide its time for a moment.
        if (now - m_moved >= m_timing.spinUp)
            return fail(playFailure("the deck stopped before mark-out " + m_plan.markOut + place()), now);
        if (-distanceTo(m_markOut) > 3 * lag)
            return fail(detailed(failure(error::captureDiscontinuity), m_plan.port + " is past mark-out " +
                                                                           m_plan.markOut +
                                                                           ", the stream is not" + place()),
                        now);
    }
    ask(timeRequest(), now + m_timing.rollPoll);
}

void DeckCue::recordingBegan(Clock::time_point now) {
    switch (m_phase) {
    case Phase::rolling:
        m_phase = Phase::recording;
        return;
    case Phase::recording:
    case Phase::pausing:
    case Phase::finished:
        return;
    default:
        // It began while the trouble was found out: the tape is not, or not long, on its way past mark-in.
        fail(detailed(m_trouble.value_or(failure(error::startTimecodeNotFound, m_plan.markIn.c_str())),
                      "recording had just begun"),
             now);
    }
}

// The encoder lags behind the deck. As long as the deck itself is before mark-in, what the stream shows is
// from before the cue.
void DeckCue::missed(Clock::time_point now) {
    if (m_phase == Phase::rolling && m_position && distanceTo(m_markIn) < 0)
        trouble(detailed(failure(error::startTimecodeNotFound, m_plan.markIn.c_str()),
                         "the stream passed it; " + m_plan.port + place()),
                now);
}

void DeckCue::finish(Clock::time_point now) {
    if (m_phase == Phase::finished || m_phase == Phase::pausing)
        return;
    m_next.reset();
    if (!m_started)
        return enter(Phase::finished);
    enter(Phase::pausing, now + m_timing.lastPause);
    ask(pauseRequest(), now);
}

void DeckCue::tick(Clock::time_point now) {
    if (now < m_limit)
        return;
    switch (m_phase) {
    case Phase::seeking:
        return trouble(prerollFailure("the deck is seeking for too long"), now);
    case Phase::verifying:
        return trouble(prerollFailure("the deck cued up elsewhere" + place()), now);
    case Phase::shuttling:
        return trouble(prerollFailure("the deck shuttles for too long" + place()), now);
    case Phase::stopping:
        return trouble(prerollFailure("the deck does not stop" + place()), now);
    case Phase::pausing:
        return notPaused("no answer to the last pause");
    default: // rolling: armed from now on
        m_limit = Clock::time_point::max();
    }
}

std::string DeckCue::place() const {
    return m_position ? ", at " + m_position->text() : std::string();
}

double DeckCue::distanceTo(const DeckTime& place) const {
    return m_position ? secondsBetween(m_position->secondsOfDay(m_labels), place.secondsOfDay(m_labels)) : 0;
}

} // namespace kestrel::capture
