#include "Recording.h"

#include "foundation/ErrorCodes.h"
#include "foundation/Logger.h"
#include "mpeg/packet_view.h"
#include "timecode/mpeg_timecode.h"

#include <algorithm>
#include <cinttypes>

namespace kestrel::capture {
namespace {

constexpr const char* module = "Capture";

} // namespace

Recording::Recording(RecordingPlan plan, const Timing& timing, Clock::time_point now)
    : m_plan(std::move(plan)), m_timing(timing), m_armed(m_plan.armed), m_file(m_plan.name),
      m_labels(m_plan.useStreamLabels, m_plan.marksCountPairs, m_plan.labelTolerance),
      m_range(m_plan.markIn, m_plan.markOut, m_plan.marksCountPairs, m_plan.labelsLacking,
              m_plan.lackingBefore, !m_plan.sourceLeaps.empty()),
      m_played(m_plan, timing), m_now(now), m_armedAt(std::max(now, m_plan.begin)), m_lastPacket(now) {
    m_held.reserve(heldPackets);
    if (m_plan.played && m_plan.mode == CaptureMode::marks)
        m_probe.emplace(m_plan.useStreamLabels, m_plan.sourceRateCode, m_timing.longestReturn);
}

MaybeFailure Recording::prepare() {
    if (auto failed = checkPlan(m_plan))
        return failed;
    m_duration.setFrames(m_plan.wantedFrames);
    return m_plan.mode == CaptureMode::timed && m_plan.wantedFrames == 0 ? m_duration.set(m_plan.duration)
                                                                         : std::nullopt;
}

void Recording::arm(Clock::time_point now) {
    if (m_state != RecordingState::waiting)
        return;
    m_now = now;
    m_armed = true;
    m_armedAt = m_lastRandomAccess = m_lastLabelled = std::max(now, m_plan.begin);
    m_passed = false;
    m_labels.forget();
    m_label.reset();
    m_groupLabel.reset();
}

void Recording::disarm() {
    if (m_state != RecordingState::waiting)
        return;
    m_armed = m_groupHeld = m_groupByClock = m_undecided = m_passed = false;
    m_held.clear();
    m_unitAt = 0;
    m_labels.forget();
    m_label.reset();
}

void Recording::refer(const LabelReference& reference) {
    if (m_state == RecordingState::waiting)
        m_labels.refer(reference);
}

void Recording::sourceEnded(Clock::time_point now) {
    m_now = now;
    m_sourceEnded = now;
    m_played.sourceEnded(now);
}

void Recording::take(std::span<const Packet> packets, Clock::time_point now) {
    m_now = now;
    if (m_state == RecordingState::ended || packets.empty())
        return;
    if (m_stopped) {
        m_stopped = false;
        m_videoFrom = now;
        LogUtil::Info(module, "%s: the stream is back after %.1f s, with PID %d", m_plan.name.c_str(),
                      std::chrono::duration<double>(now - m_lastPacket).count(),
                      ts::pid(packets.front().data()));
    }
    m_lastPacket = now;
    m_lastPid = ts::pid(packets.back().data());
    m_played.came(now);
    for (const Packet& packet : packets) {
        if (m_probe)
            probe(packet);
        else
            takePacket(packet);
        if (m_state == RecordingState::ended)
            return;
    }
    noteVideoStall();
    if (auto failed = m_file.tick(now))
        fail(*failed);
}

void Recording::heard(Clock::time_point now) {
    if (m_stopped || now <= m_lastPacket)
        return;
    m_videoFrom = std::max(m_videoFrom, m_lastFrame) + (now - m_lastPacket);
    m_lastPacket = now;
}

void Recording::takePacket(const Packet& packet) {
    const bool opens = m_analyzer.take(packet.data());
    if (m_analyzer.programVersion() != m_loggedProgram) {
        logProgram();
        followVideo();
    }
    if (opens)
        openUnit();
    if (m_state == RecordingState::ended)
        return;
    if (m_undecided || m_groupHeld)
        hold(packet);
    else if (m_state == RecordingState::recording)
        write(packet);
    if (m_state == RecordingState::ended || m_undecided)
        return;
    const unsigned begun = count(m_analyzer.unit());
    if (m_state == RecordingState::recording)
        noteRecorded(begun);
}

// A PES packet of the video begins: settles what the one before still left open.
void Recording::openUnit() {
    if (m_undecided) {
        settleUnit(m_analyzer.closedUnit());
    } else {
        const unsigned begun = count(m_analyzer.closedUnit());
        if (m_state == RecordingState::recording)
            noteRecorded(begun);
    }
    if (m_state == RecordingState::ended)
        return;
    noteLabels(m_analyzer.closedUnit());
    m_clock.openUnit();
    m_unitNoted = false;
    m_unitAt = m_held.size();
    const bool cuts =
        m_plan.mode == CaptureMode::rolling || m_plan.mode == CaptureMode::marks || m_played.whole();
    m_undecided = m_state == RecordingState::waiting ? m_armed : cuts || durationReached();
}

void Recording::hold(const Packet& packet) {
    m_held.push_back(packet);
    if (m_undecided && (m_analyzer.unit().known || m_held.size() - m_unitAt >= heldPackets))
        settleUnit(m_analyzer.unit());
    else if (m_groupHeld && m_held.size() >= heldGroupPackets && m_played.whole())
        beginByTime();
    else if (m_groupHeld && m_held.size() >= heldGroupPackets)
        startRecording(); // a group so long that it cannot be kept back: early, rather than too late
}

// Frames are counted when they begin, in every state: the rate and the labels are learnt from them.
unsigned Recording::count(const VideoUnit& unit) {
    const bool first = m_clock.unitFrames() == 0;
    const unsigned begun = m_clock.count(unit, m_analyzer.clock(), m_analyzer.frameRateCode());
    if (begun == 0)
        return 0;
    if (m_videoStopped) {
        m_videoStopped = false;
        LogUtil::Info(module, "%s: the video is back after %.1f s, with PID %d", m_plan.name.c_str(),
                      std::chrono::duration<double>(m_now - m_lastFrame).count(), m_analyzer.videoPid());
    }
    m_lastFrame = m_now;
    if (m_state == RecordingState::waiting && m_played.ranBefore(m_now))
        noteBefore();
    if (m_plan.mode == CaptureMode::marks && m_state == RecordingState::waiting && unlikeSource())
        m_label.reset();
    else if (first && (m_plan.mode == CaptureMode::marks || m_plan.labelledFrames != 0))
        m_label = m_labels.label(unit, m_analyzer.clock().elapsed(), m_analyzer.frameRateCode(),
                                 m_analyzer.codec(), m_now);
    if (first && m_label && !unit.gopTimecode && m_played.goesBack(frame()))
        m_label = m_labels.goBack();
    if (first && m_played.played())
        m_played.picture(unit, frame());
    return begun;
}

// The labels of a PES packet that is taken: first that of its first picture, and once it is closed those of
// all others in it.
void Recording::noteLabels(const VideoUnit& unit) {
    if (!unit.newFrame || (m_state != RecordingState::recording && !m_groupHeld))
        return;
    if (m_groupByClock && !labelCounts())
        return noteByClock(unit);
    if (!m_label)
        return;
    // An encoder that labels one picture of a GOP labels all that are the source's.
    if (m_analyzer.codec() == VideoCodec::avc && unit.gopTimecode && !unit.randomAccess && labelCounts())
        m_range.dropByClock();
    const std::int64_t first = m_unitNoted ? *m_label + 1 : *m_label;
    std::vector<OwnLabels::Range> taken{{first, m_labels.highest(unit)}};
    if (m_played.whole() || byStreamLabels())
        taken = m_played.note(taken.front().first, taken.front().second);
    // What comes back of a whole source has a range of its own; here are no marks then, and no rule for them.
    if (m_plan.mode == CaptureMode::marks)
        for (const auto& [from, to] : taken)
            m_range.note(from, to);
    m_unitNoted = true;
}

// Frames that were written.
void Recording::noteRecorded(unsigned frames) {
    m_file.countFrames(frames);
    if (frames == 0 || !m_played.recorded(frames, m_rate, frame()))
        return;
    m_rate = m_analyzer.frameRateCode();
    m_rule = m_labels.rule();
}

// Of what is recorded, not of what comes behind it.
int Recording::recordedRate() const noexcept {
    return m_rate != 0 ? m_rate : m_analyzer.frameRateCode();
}

// Whether what comes now has another frame rate than what was recorded last.
bool Recording::rateChanges() const noexcept {
    const int rate = m_analyzer.frameRateCode();
    return m_rate != 0 && rate != 0 && rate != m_rate;
}

// Decides on the packets held back, now that the picture they begin is known (or will not be).
void Recording::settleUnit(const VideoUnit& unit) {
    m_undecided = false;
    if (m_state == RecordingState::waiting)
        return settleWaiting(unit);
    // The label of the frame that begins decides, or when it is shown; a duration is decided on before it is
    // counted.
    const bool labelled = m_plan.mode == CaptureMode::marks || m_played.whole();
    unsigned begun = labelled ? count(unit) : 0;
    if (endsBefore(unit)) {
        m_held.clear();
        if (m_state != RecordingState::ended)
            finishComplete();
        return;
    }
    begun += count(unit);
    noteLabels(unit);
    if (m_plan.mode == CaptureMode::rolling && unit.randomAccess && m_analyzer.programKnown())
        startSegment();
    writeHeld();
    if (m_state == RecordingState::recording)
        noteRecorded(begun);
}

void Recording::settleWaiting(const VideoUnit& unit) {
    count(unit);
    if (m_plan.mode == CaptureMode::marks)
        return settleMarks(unit);
    if (m_played.whole())
        return settlePlayed(unit);
    if (unit.known && unit.randomAccess && m_analyzer.programKnown() && m_now >= m_plan.begin) {
        m_clock.begin();
        m_begin = unit;
        return startRecording();
    }
    m_held.clear();
}

// Whether the recording ends before the frame that begins here.
bool Recording::endsBefore(const VideoUnit& unit) {
    const bool begins = unit.newFrame || m_held.size() >= heldPackets;
    if (m_played.whole())
        return begins && m_played.endsBefore(frame(), recordedRate(), m_file.frames());
    if (m_plan.mode == CaptureMode::timed)
        return begins && durationReached();
    if (m_plan.mode != CaptureMode::marks)
        return false;
    if (!unit.newFrame)
        return false;
    if (m_rule.known() && m_labels.rule() != m_rule && endsWithRule())
        return true;
    if (m_labels.rule() == m_rule)
        noteTimecode(unit);
    // Over a leap a count may be far from mark-out when all that was played has come back.
    if (countLeavesOut() && m_played.late(m_now))
        return true;
    if (m_plan.played && !m_played.owns(frame())) {
        if (endsWithOthers())
            return true;
    } else if (m_label) {
        if (auto failed = m_range.settle(m_labels.rule())) {
            fail(*failed);
            return true;
        }
        // The label of this frame may be what shows that those before it are the source's.
        if (m_plan.played && byStreamLabels())
            for (const auto& [from, to] : m_played.note(1, 0))
                m_range.note(from, to);
        // What is still to come of the frames up to mark-out is shown, so decoded, no later than mark-out is.
        if (m_range.beyond(*m_label) &&
            (m_range.complete() || m_analyzer.clock().elapsed() >= m_labels.presentation(m_range.out())))
            return true;
    }
    const auto patience = m_timing.givenUp.count() * PTS::units_per_second / 1000;
    if (m_clock.elapsed() <= (m_leadIn + m_range.length()) * m_clock.period() + patience)
        return false;
    fail(detailed(failure(error::captureDiscontinuity),
                  "mark-out " + m_plan.markOut + " does not come, the timecode " +
                      (m_label ? "is at " + m_labels.rule().text(*m_label) : std::string("is lost"))));
    return true;
}

// Labels of another rule, or pictures of another rate, cannot tell where mark-out is.
bool Recording::endsWithRule() {
    if (m_range.complete())
        return true;
    if (!m_plan.played || !rateChanges())
        return false;
    const std::int64_t missing = m_range.length() - 1 - m_range.highest();
    if (static_cast<double>(missing) > lostSeconds * m_rule.framesPerSecond())
        fail(failure(error::sourceFrameRateMismatch, m_analyzer.frameRateCode(), m_rate));
    return true;
}

// Pictures that are known not to be the source's, or may not be, tell nothing of mark-out.
bool Recording::endsWithOthers() const {
    return m_range.complete() || m_played.late(m_now);
}

// Measured where the picture begins, so a segment is never shorter than asked for.
void Recording::startSegment() {
    const std::int64_t wanted = std::int64_t{m_plan.rollingMinutes} * 60 * PTS::units_per_second;
    if (m_clock.elapsed() - m_segmentBegin < wanted)
        return;
    m_segmentBegin = m_clock.elapsed();
    MaybeFailure failed = m_file.close(false);
    if (!failed)
        failed = m_file.open(m_plan);
    if (!failed)
        failed = m_file.writeTables(m_analyzer, m_held, m_now);
    if (failed)
        fail(*failed);
}

// The recording begins with what is held.
void Recording::startRecording() {
    measureDuration();
    if (m_state == RecordingState::ended)
        return;
    if (auto failed = m_file.open(m_plan))
        return fail(*failed);
    m_state = RecordingState::recording;
    m_groupHeld = m_groupByClock = m_passed = false;
    m_played.dropPoints();
    m_played.recordingBegins(frame());
    m_labels.keep();
    m_started = m_lastFrame = m_now;
    const int rate = m_rate = m_analyzer.frameRateCode();
    m_rule = m_labels.rule();
    std::string gop;
    if (m_plan.mode == CaptureMode::marks)
        gop = ", for mark-in " + m_plan.markIn;
    if (m_begin.gopTimecode && rate != 0) {
        const bool drop = (*m_begin.gopTimecode >> 24 & 1) != 0;
        const LabelRule rule{rate, drop && mpeg_timecode::frameRateCodeToDropFrame(rate)};
        gop += ", GOP timecode " + rule.text(rule.numberOf(*m_begin.gopTimecode));
    }
    LogUtil::Info(module,
                  "%s: recording starts at PTS %" PRId64 ", DTS %" PRId64 " (90 kHz)%s, frame rate code %d",
                  m_plan.name.c_str(), m_begin.pts.ticks(), m_begin.dts.ticks(), gop.c_str(), rate);
    if (auto failed = m_file.writeTables(m_analyzer, m_held, m_now))
        return fail(*failed);
    writeHeld();
    if (m_state == RecordingState::recording)
        m_file.countFrames(static_cast<unsigned>(m_clock.frames()));
}

void Recording::write(const Packet& packet) {
    if (auto failed = m_file.write(packet, m_analyzer.videoPid(), m_now))
        fail(*failed);
    if (ts::pid(packet.data()) == m_analyzer.videoPid())
        m_lastVideo = m_file.packets();
    if (m_wanted == 0)
        measureDuration();
}

void Recording::writeHeld() {
    for (const Packet& packet : m_held) {
        if (m_state != RecordingState::recording)
            break;
        write(packet);
    }
    m_held.clear();
    m_unitAt = 0;
}

void Recording::logProgram() {
    if (m_loggedProgram == 0)
        m_programSeen = m_now;
    m_loggedProgram = m_analyzer.programVersion();
    LogUtil::Info(module, "%s: stream found: %s", m_plan.name.c_str(), m_analyzer.describeProgram().c_str());
    if (m_analyzer.videoPid() < 0)
        LogUtil::Warning(module, "%s: the program has no video that can be recorded", m_plan.name.c_str());
}

} // namespace kestrel::capture
