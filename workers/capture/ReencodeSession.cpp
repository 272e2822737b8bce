#include "ReencodeSession.h"

#include "CountedNoun.h"
#include "FileLabels.h"
#include "Ipv4.h"
#include "OutputNames.h"
#include "ResultsText.h"
#include "foundation/ErrorCodes.h"
#include "foundation/Logger.h"

#include <algorithm>
#include <cinttypes>
#include <exception>
#include <limits>
#include <system_error>

namespace kestrel::capture {
namespace {

constexpr const char* module = "Capture";

// How long the encoders are listened to before the source is played: datagrams of little more than pauses
// come rarely.
constexpr milliseconds listenTime{1000};
// From saying when that will be to the first datagram.
constexpr milliseconds leadTime{100};
// How long it waits for a random access point of an encoder that sends already, and of one that has shown no
// picture: there may be none before something is played.
constexpr milliseconds pointTime{10000};
constexpr milliseconds pictureTime{2000};

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
    LogUtil::Info(module, "Reading %s (%s)", absolutePath(settings.cmd.sourceFile).c_str(),
                  counted(source.bytes(), "byte").c_str());
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
    plan.played = true;
    plan.marksCountPairs = false;
    plan.sourceRateCode = m_index.frameRateCode;
    plan.sourceUniform = m_index.uniform;
    plan.sourceTime = m_index.time;
    plan.sourceShown = longerPlaces(m_index);
    plan.sourceLeaps = m_index.leaps;
    // An encoder that is not given the source's timecode puts one of its own into the stream.
    plan.useStreamLabels = settings.vtr.vitcSupport;
    plan.source = settings.cmd.sourceFile;
    LogUtil::Info(module, "The source has %s, %s, frame rate code %d",
                  counted(m_index.frames, "frame").c_str(),
                  counted(m_index.points.size(), "random access point").c_str(), m_index.frameRateCode);
    if (m_index.frames == 0)
        return detailed(failure(error::startReencodeFailed, 1),
                        std::string(settings.cmd.sourceFile) + " has no video");
    if (!mezzanine()) {
        plan.mode = CaptureMode::timed;
        planWhole(plan);
        return std::nullopt;
    }
    plan.mode = CaptureMode::marks;
    plan.markIn = settings.cmd.markInTime;
    plan.markOut = settings.cmd.markOutTime;
    if (auto failed = findPart(m_index, plan.markIn, plan.markOut, settings.decoder.startAppend,
                               settings.decoder.endAppend, m_part))
        return failed;
    play.begin = m_part.begin;
    play.end = m_part.end;
    plan.labelsKnown = m_part.labelsKnown;
    plan.labelsLacking = m_part.lacking;
    plan.lackingBefore = m_part.lackingBefore;
    plan.sourceLeaps = m_part.leaps;
    plan.leapsBefore = m_part.leapsBefore;
    // What comes back cannot have the timecodes of a source that has none.
    plan.useStreamLabels = plan.useStreamLabels && !m_part.counted;
    const bool toEnd = m_part.end == std::numeric_limits<std::uint64_t>::max();
    LogUtil::Info(
        module, "Playing from %s, bytes %" PRIu64 " to %s%s", m_part.firstLabel.c_str(), m_part.begin,
        toEnd ? "the end" : std::to_string(m_part.end).c_str(),
        m_part.counted ? ", counted from the first frame of the source: it has no timecodes that run" : "");
    return std::nullopt;
}

// All frames that can be shown when the whole source is played.
void ReencodeSession::planWhole(RecordingPlan& plan) const {
    plan.wantedFrames = m_index.frames - (m_index.points.empty() ? 0 : m_index.points.front().frame);
    const LabelledFrames labelled = labelledFrames(m_index);
    plan.hiddenFrames = labelled.hidden;
    if (labelled.hidden > 0)
        LogUtil::Info(module, "The first %" PRIu64 " of them cannot be shown: their GOP refers to one before",
                      labelled.hidden);
    if (labelled.count == 0 || !plan.useStreamLabels)
        return;
    plan.markIn = labelled.first;
    plan.markOut = labelled.last;
    plan.labelledFrames = labelled.count;
    LogUtil::Info(module, "The source has timecodes from %s to %s", labelled.first.c_str(),
                  labelled.last.c_str());
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
    if (m_play) {
        followPlayOut();
        goWhenReady(Clock::now());
    }
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
    // Nobody records any more what is played. One that has all its frames lets the source come to its end.
    if (m_encoders.over() && !anyRecorded())
        m_play->cancel();
}

bool ReencodeSession::anyRecorded() const {
    for (std::size_t i = 0; i < m_encoders.size(); ++i)
        if (m_encoders.status(i).succeeded)
            return true;
    return false;
}

// The recordings are armed by threads of their own; only then may the first picture be on its way.
void ReencodeSession::arm() {
    m_armed = true;
    m_encoders.arm();
    m_goAt = m_listened = Clock::now() + listenTime;
}

// An encoder that sends already is recorded from a random access point before the first frame that is played;
// with a long GOP that takes a while to come.
void ReencodeSession::goWhenReady(Clock::time_point now) {
    if (m_goAt == Clock::time_point::max() || now < m_listened)
        return;
    milliseconds most{0};
    for (std::size_t i = 0; i < m_encoders.size(); ++i) {
        const RecordingStatus status = m_encoders.status(i);
        if (status.running && !status.pointHeld && status.state == RecordingState::waiting)
            most = std::max(most, status.pictures ? pointTime : pictureTime);
    }
    m_goAt = m_listened + most;
    if (now < m_goAt)
        return;
    m_goAt = Clock::time_point::max();
    const Clock::time_point begin = now + leadTime;
    for (std::size_t i = 0; i < m_encoders.size(); ++i)
        m_encoders.channel(i).sourceBegins(
            {m_part.firstLabel, begin, true, m_encoders.reception(i).frameOffsetNoVitc});
    m_play->go(begin);
}

void ReencodeSession::giveUp(const Failure& why) {
    if (m_failure)
        return;
    m_failure = why;
    m_encoders.stop();
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
    m_encoders.stop();
    m_encoders.join();
    if (!m_failure && !m_begun)
        return {!mezzanine(), "Cancelled before the recording began: nothing recorded"};
    bool recorded = false;
    for (std::size_t i = 0; i < m_encoders.size(); ++i)
        recorded = recorded || m_encoders.status(i).bytes > 0;
    std::vector<ResultsPart> parts;
    if (m_failure)
        parts.push_back({m_failure->text + (recorded ? " " : ""), true});
    if (!m_failure || recorded)
        for (ResultsPart& part : m_encoders.results())
            parts.push_back(std::move(part));
    if (const std::uint64_t times = m_play ? m_play->status().interruptions : 0; times > 0)
        parts.push_back({", the play-out was interrupted " + counted(times, "time")});
    if (const std::uint64_t lost = m_play && !m_failure ? m_play->status().refused : 0; lost > 0)
        parts.push_back({", " + counted(lost, "datagram") + (lost == 1 ? " was" : " were") +
                         " not taken by the decoder"});
    return {!m_failure && m_encoders.outcome().succeeded, resultsText(parts)};
}

} // namespace kestrel::capture
