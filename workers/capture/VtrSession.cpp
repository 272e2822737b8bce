#include "VtrSession.h"

#include "foundation/ErrorCodes.h"
#include "foundation/Logger.h"

#include <algorithm>

namespace kestrel::capture {
namespace {

constexpr const char* module = "Capture";

CuePlan cuePlan(const CSettings& settings) {
    return {settings.vtr.port,
            settings.cmd.markInTime,
            settings.cmd.markOutTime,
            settings.vtr.prerollTimeSecs,
            settings.vtr.findStartTimecodeRetries,
            settings.vtr.useInternalCue};
}

} // namespace

VtrSession::VtrSession(const SessionContext& context)
    : m_context(context), m_encoders(context.wake, context.pause),
      m_link(context.link, context.settings.vtr.port), m_cue(cuePlan(context.settings)) {}

MaybeFailure VtrSession::start() {
    const CSettings& settings = m_context.settings;
    if (auto failed = m_cue.prepare())
        return failed;
    if (auto failed = m_link.prepare())
        return failed;
    RecordingPlan plan;
    plan.mode = CaptureMode::marks;
    plan.markIn = settings.cmd.markInTime;
    plan.markOut = settings.cmd.markOutTime;
    plan.useStreamLabels = settings.vtr.vitcSupport;
    plan.labelTolerance = settings.vtr.nonVitcPrerollMaxFrameDiff;
    plan.armed = false;
    if (auto failed = m_encoders.open(settings, m_context.map, plan))
        return failed;
    if (auto failed = m_encoders.start())
        return failed;
    LogUtil::Info(module, "Deck %s: from %s to %s, preroll %d s, %s", m_link.port().c_str(),
                  plan.markIn.c_str(), plan.markOut.c_str(), settings.vtr.prerollTimeSecs,
                  settings.vtr.useInternalCue ? "cued by the deck" : "cued by shuttle");
    m_cue.begin(Clock::now());
    advance(Clock::now());
    return std::nullopt;
}

void VtrSession::cancel() {
    m_stopped = true;
    m_encoders.cancel();
    m_cue.finish(Clock::now());
    advance(Clock::now());
}

void VtrSession::sendStatus() {
    const Clock::time_point now = Clock::now();
    m_encoders.sendStatus(m_context.link, now);
    // While the deck owes an answer, too, the tape is followed by what the stream shows.
    if (!m_ended)
        advance(now);
}

void VtrSession::woken() {
    m_encoders.joinEnded();
    advance(Clock::now());
}

void VtrSession::deckAnswer(const _VTRCmdData& record) {
    const Clock::time_point now = Clock::now();
    // What the recordings show first: a trouble of the deck may come too late to matter.
    followEncoders(now);
    if (const auto answer = m_link.take(record, now))
        m_cue.answered(*answer, now);
    advance(now);
}

Clock::time_point VtrSession::deadline() const {
    return std::min(m_link.deadline(), m_cue.deadline());
}

void VtrSession::tick(Clock::time_point now) {
    followEncoders(now);
    if (const auto answer = m_link.tick(now))
        m_cue.answered(*answer, now);
    m_cue.tick(now);
    advance(now);
}

void VtrSession::advance(Clock::time_point now) {
    followEncoders(now);
    followDeck(now);
    if (!m_link.busy() || m_cue.urgent())
        if (const auto request = m_cue.next(now))
            m_link.send(*request, now);
}

// What the recordings tell about the tape.
void VtrSession::followEncoders(Clock::time_point now) {
    bool began = false;
    bool missed = false;
    bool labelled = false;
    for (std::size_t i = 0; i < m_encoders.size(); ++i) {
        const RecordingStatus status = m_encoders.status(i);
        m_cue.setRateCode(status.frameRateCode);
        labelled = labelled || status.label;
        began = began || status.frames > 0;
        missed = missed || (status.state == RecordingState::waiting && status.passedMarkIn);
    }
    m_cue.setStreamLabelled(labelled);
    if (m_encoders.over())
        return m_cue.finish(now);
    if (began)
        m_cue.recordingBegan(now);
    if (!missed || !m_armed)
        return;
    if (!began)
        return m_cue.missed(now);
    // One encoder records already: the tape is not taken from it for the sake of the other.
    for (std::size_t i = 0; i < m_encoders.size(); ++i)
        if (m_encoders.status(i).passedMarkIn && m_encoders.status(i).state == RecordingState::waiting)
            m_encoders.giveUp(i, failure(error::startTimecodeNotFound, m_context.settings.cmd.markInTime));
}

// What the deck tells to the recordings.
void VtrSession::followDeck(Clock::time_point now) {
    if (m_cue.armed(now) != m_armed && !m_stopped) {
        m_armed = !m_armed;
        if (m_armed)
            m_encoders.arm();
        else
            m_encoders.disarm();
    }
    if (const auto sighting = m_cue.takeSighting())
        m_encoders.refer(sighting->text, sighting->at);
    if (m_cue.failed() && !m_stopped) {
        m_stopped = true;
        m_encoders.stop();
    }
}

Outcome VtrSession::end() {
    m_ended = true;
    m_encoders.stop();
    m_encoders.join();
    std::vector<ResultsPart> parts;
    bool any = false;
    for (std::size_t i = 0; i < m_encoders.size(); ++i)
        any = any || m_encoders.status(i).frames > 0;
    if (m_cue.failed())
        parts.push_back({m_cue.failed()->text, true});
    // What was recorded until then is told too.
    if (any || !m_cue.failed())
        for (ResultsPart& part : m_encoders.results())
            parts.push_back({(parts.size() == 1 && m_cue.failed() ? " " : "") + part.text, part.failure});
    const bool succeeded =
        std::none_of(parts.begin(), parts.end(), [](const ResultsPart& part) { return part.failure; });
    // No failure of the recording; but somebody has to look after the tape.
    if (!m_cue.leftRunning().empty())
        parts.push_back({"; the last pause was not confirmed: " + m_cue.leftRunning(), true});
    return {succeeded, resultsText(parts)};
}

} // namespace kestrel::capture
