#include "ReencodeSession.h"

#include "Ipv4.h"
#include "foundation/ErrorCodes.h"
#include "foundation/Logger.h"

#include <cinttypes>
#include <exception>
#include <system_error>

namespace kestrel::capture {
namespace {

constexpr const char* module = "Capture";

// From arming the recordings to the first datagram.
constexpr milliseconds armTime{100};

// How much is played around the marks, in seconds.
void logAppends(const CSettings::DecoderOptions& decoder) {
    const CSettings::DecoderOptions usual;
    if (decoder.startAppend != usual.startAppend)
        LogUtil::Warning(module, "%s",
                         failure(error::decoderStartAppendNotDefault, decoder.startAppend, usual.startAppend)
                             .text.c_str());
    if (decoder.endAppend != usual.endAppend)
        LogUtil::Warning(
            module, "%s",
            failure(error::decoderEndAppendNotDefault, decoder.endAppend, usual.endAppend).text.c_str());
}

} // namespace

ReencodeSession::ReencodeSession(const SessionContext& context)
    : m_context(context), m_encoders(context.wake) {}

ReencodeSession::~ReencodeSession() {
    m_cancelled = true;
    if (m_indexing.joinable())
        m_indexing.join();
}

bool ReencodeSession::mezzanine() const noexcept {
    return m_context.settings.cmd.jobType == CSettings::JOB_MEZZANINE;
}

MaybeFailure ReencodeSession::start() {
    const CSettings& settings = m_context.settings;
    SourceFile source;
    if (auto failed = source.open(settings.cmd.sourceFile))
        return failed;
    PlayOutPlan play;
    if (auto failed = planPlayOut(play))
        return failed;
    if (settings.numEncoders < 1)
        return failure(error::noEncoder);
    if (mezzanine())
        logAppends(settings.decoder);
    LogUtil::Info(module, "Reading %s (%" PRIu64 " bytes)", settings.cmd.sourceFile, source.bytes());
    try {
        m_indexing = std::thread([this] { index(); });
    } catch (const std::system_error&) {
        return failure(error::captureThreadNotLaunched);
    }
    return std::nullopt;
}

void ReencodeSession::index() noexcept {
    try {
        m_indexFailure = indexSource(m_context.settings.cmd.sourceFile, m_cancelled, m_index);
    } catch (const std::exception& problem) {
        m_indexFailure = detailed(failure(error::startReencodeFailed, 1), problem.what());
    }
    m_indexed.store(true, std::memory_order_release);
    m_context.wake.signal();
}

MaybeFailure ReencodeSession::planPlayOut(PlayOutPlan& plan) const {
    const CSettings::DecoderOptions& decoder = m_context.settings.decoder;
    plan.file = m_context.settings.cmd.sourceFile;
    plan.address = decoder.ipAddress != 0 ? decoder.ipAddress : decoder.controlAddress;
    plan.port = decoder.port > 0 && decoder.port < 65536 ? decoder.port : defaultStreamPort;
    plan.interfaceAddress = decoder.interfaceAddress;
    plan.held = true;
    plan.rtp = m_context.map.decoderTakesRtp(decoder.controlAddress);
    if (plan.address == 0)
        return failure(error::decoderMulticastUnknown, addressText(decoder.controlAddress).c_str());
    return std::nullopt;
}

MaybeFailure ReencodeSession::planRecording(RecordingPlan& plan, PlayOutPlan& play) {
    const CSettings& settings = m_context.settings;
    plan.armed = false;
    plan.source = settings.cmd.sourceFile;
    LogUtil::Info(module, "The source has %" PRIu64 " frames, %zu random access points, frame rate code %d",
                  m_index.frames, m_index.points.size(), m_index.frameRateCode);
    if (m_index.frames == 0)
        return detailed(failure(error::startReencodeFailed, 1),
                        std::string(settings.cmd.sourceFile) + " has no video");
    if (!mezzanine()) {
        plan.mode = CaptureMode::timed;
        plan.wantedFrames = m_index.frames;
        return std::nullopt;
    }
    plan.mode = CaptureMode::marks;
    plan.markIn = settings.cmd.markInTime;
    plan.markOut = settings.cmd.markOutTime;
    plan.marksCountPairs = false;
    // An encoder that is not given the source's timecode puts one of its own into the stream.
    plan.useStreamLabels = settings.vtr.vitcSupport;
    if (auto failed = findPart(m_index, plan.markIn, plan.markOut, settings.decoder.startAppend,
                               settings.decoder.endAppend, m_part))
        return failed;
    play.begin = m_part.begin;
    play.end = m_part.end;
    LogUtil::Info(module, "Playing from %s, bytes %" PRIu64 " to %" PRIu64 "%s", m_part.firstLabel.c_str(),
                  m_part.begin, m_part.end,
                  m_part.counted ? ", counted from the first frame of the source: it has no timecodes" : "");
    return std::nullopt;
}

// The source is known: the encoders are taken in, and it is played.
MaybeFailure ReencodeSession::begin() {
    PlayOutPlan play;
    RecordingPlan plan;
    if (auto failed = planPlayOut(play))
        return failed;
    if (auto failed = planRecording(plan, play))
        return failed;
    if (auto failed = m_encoders.open(m_context.settings, m_context.map, plan))
        return failed;
    if (auto failed = m_encoders.start())
        return failed;
    m_begun = true;
    return m_play.emplace(std::move(play), m_context.wake).start();
}

void ReencodeSession::woken() {
    if (m_indexing.joinable() && m_indexed.load(std::memory_order_acquire)) {
        m_indexing.join();
        if (m_indexFailure)
            giveUp(*m_indexFailure);
        else if (!m_cancelled)
            if (auto failed = begin())
                giveUp(*failed);
    }
    if (!m_begun)
        return;
    m_encoders.joinEnded();
    if (m_play)
        followPlayOut();
}

void ReencodeSession::followPlayOut() {
    const PlayOutStatus status = m_play->status();
    if (status.ready && !m_armed)
        arm();
    if (status.over && status.failed)
        giveUp(*status.failed);
    if (status.over && !m_told) {
        m_told = true;
        for (std::size_t i = 0; i < m_encoders.size(); ++i)
            m_encoders.channel(i).sourceEnded();
    }
    // Nobody records any more what is played.
    if (m_encoders.over())
        m_play->cancel();
}

// The recordings are armed by threads of their own; only then may the first picture be on its way.
void ReencodeSession::arm() {
    m_armed = true;
    m_encoders.arm();
    const Clock::time_point now = Clock::now();
    for (std::size_t i = 0; mezzanine() && i < m_encoders.size(); ++i)
        m_encoders.channel(i).refer(
            {m_part.firstLabel, now, true, m_encoders.reception(i).frameOffsetNoVitc});
    m_goAt = now + armTime;
}

void ReencodeSession::tick(Clock::time_point now) {
    if (now < m_goAt)
        return;
    m_goAt = Clock::time_point::max();
    m_play->go();
}

void ReencodeSession::giveUp(const Failure& why) {
    if (m_failure)
        return;
    m_failure = why;
    m_encoders.cancel();
}

bool ReencodeSession::over() const {
    if (m_indexing.joinable())
        return false;
    if (!m_begun)
        return true;
    return m_encoders.over() && (!m_play || m_failure || m_play->status().over);
}

void ReencodeSession::cancel() {
    m_cancelled = true;
    m_encoders.cancel();
    if (m_play)
        m_play->cancel();
}

void ReencodeSession::sendStatus() {
    m_encoders.sendStatus(m_context.link, Clock::now());
}

Outcome ReencodeSession::end() {
    m_cancelled = true;
    if (m_indexing.joinable())
        m_indexing.join();
    if (m_play) {
        m_play->cancel();
        m_play->join();
    }
    m_encoders.cancel();
    m_encoders.join();
    const bool recorded = m_encoders.size() > 0 && m_encoders.status(0).bytes > 0;
    if (m_failure)
        return {false, m_failure->text + (recorded ? " " + m_encoders.outcome().text : "")};
    if (!m_begun)
        return {true, "Cancelled before the recording began: nothing recorded"};
    Outcome outcome = m_encoders.outcome();
    if (mezzanine() && !m_context.settings.vtr.vitcSupport)
        outcome.text += ", marks counted from the first frame played";
    if (m_play && m_play->status().interruptions > 0)
        outcome.text +=
            format(", the play-out was interrupted %" PRIu64 " times", m_play->status().interruptions);
    return outcome;
}

} // namespace kestrel::capture
