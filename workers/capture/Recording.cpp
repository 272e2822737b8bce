#include "Recording.h"

#include "OutputNames.h"

#include "foundation/ErrorCodes.h"
#include "foundation/FileUtil.h"
#include "foundation/Logger.h"
#include "mpeg/mpeg2.h"
#include "mpeg/packet_view.h"
#include "timecode/mpeg_timecode.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>

namespace kestrel::capture {
namespace {

constexpr const char* module = "Capture";

// Two digits each and nothing behind: hh:mm:ss:ff, with ';' or '.' for a ':' too.
bool parseDuration(const std::string& text, int (&fields)[4]) {
    if (text.size() != 11)
        return false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool separator = i % 3 == 2;
        const bool digit = text[i] >= '0' && text[i] <= '9';
        if (separator ? std::string(":;.,").find(text[i]) == std::string::npos : !digit)
            return false;
        if (!separator)
            fields[i / 3] = fields[i / 3] * 10 + (text[i] - '0');
    }
    return true;
}

std::string timecodeText(std::uint64_t frames, int rateCode) {
    const bool drop = mpeg_timecode::frameRateCodeToDropFrame(rateCode);
    const auto day = static_cast<std::uint64_t>(mpeg_timecode::rollover_frames_count(drop, rateCode));
    mpeg_timecode timecode = mpeg_timecode::from_frames(static_cast<int>(frames % day), drop, rateCode);
    return (frames >= day ? std::to_string(frames / day) + "d " : "") + timecode.windows_string();
}

} // namespace

Recording::Recording(RecordingPlan plan, const Timing& timing, Clock::time_point now)
    : m_plan(std::move(plan)), m_timing(timing), m_continuity(m_plan.name), m_now(now),
      m_armed(std::max(now, m_plan.begin)), m_lastPacket(now) {
    m_held.reserve(heldPackets);
}

MaybeFailure Recording::prepare() {
    if (m_plan.output.empty())
        return failure(error::outputFileNotSpecified);
    if (m_plan.output.back() == '/' || cFileUtil::IsDirectory(m_plan.output.c_str()))
        return detailed(failure(error::invalidFilename), m_plan.output);
    if (m_plan.mode == CaptureMode::rolling && m_plan.rollingMinutes < 1)
        return failure(error::invalidRollingDuration, m_plan.rollingMinutes);
    if (m_plan.mode == CaptureMode::timed && !parseDuration(m_plan.duration, m_durationFields))
        return failure(error::invalidDuration, m_plan.duration.c_str(), 0, 0);
    cFileUtil::CreateDir(m_plan.output.c_str());
    const std::size_t slash = m_plan.output.rfind('/');
    const std::string directory = slash == std::string::npos ? "." : m_plan.output.substr(0, slash + 1);
    if (!cFileUtil::IsDirectory(directory.c_str()))
        return detailed(failure(error::outputFileNotOpened, m_plan.output.c_str()), "no such directory");
    if (m_plan.mode != CaptureMode::rolling && !m_plan.overwrite &&
        cFileUtil::FileExists(m_plan.output.c_str()))
        return detailed(failure(error::fileAlreadyExists), m_plan.output);
    return std::nullopt;
}

// Whether all frames asked for have begun. A stream whose frame rate stays unknown is measured by its clock.
bool Recording::durationReached() {
    if (m_plan.mode != CaptureMode::timed || m_state != RecordingState::recording)
        return false;
    if (wantedFrames() > 0)
        return m_streamFrames >= static_cast<std::uint64_t>(m_wanted);
    constexpr std::uint64_t framesToLearnRate = 100;
    return m_frames >= framesToLearnRate &&
           m_analyzer.clock().elapsed() >= nominalDuration().count() * PTS::units_per_second;
}

std::chrono::seconds Recording::nominalDuration() const {
    const auto [h, m, s, f] = m_durationFields;
    return std::chrono::seconds(h * 3600 + m * 60 + s + (f > 0 ? 1 : 0));
}

// The duration in frames, once the frame rate is known; fails the recording when there is no such duration.
std::int64_t Recording::wantedFrames() {
    const int rate = m_analyzer.frameRateCode();
    if (m_plan.mode != CaptureMode::timed || m_wanted != 0 || rate == 0)
        return m_wanted;
    auto [h, m, s, f] = m_durationFields;
    const bool drop = mpeg_timecode::frameRateCodeToDropFrame(rate);
    if (!mpeg_timecode::TimeCodeInbounds(h, m, s, f, mpeg_timecode::fps(rate))) {
        fail(failure(error::invalidDuration, m_plan.duration.c_str(), rate, drop ? 1 : 0));
        return 0;
    }
    // The constructor moves a label that drop-frame counting skips to the next existing one: one minute at
    // 29.97 is asked for as 00:01:00:00 and is 00:01:00;02.
    mpeg_timecode duration(h, m, s, f, drop, rate);
    const int frames = duration.frame_count();
    if (frames < minimumFrames) {
        fail(failure(error::durationTooShort));
        return 0;
    }
    m_wanted = frames;
    LogUtil::Info(module, "%s: duration %s is %d frames", m_plan.name.c_str(), duration.windows_string(),
                  frames);
    return m_wanted;
}

void Recording::take(std::span<const Packet> packets, Clock::time_point now) {
    m_now = now;
    if (m_state == RecordingState::ended || packets.empty())
        return;
    if (m_stopped) {
        m_stopped = false;
        LogUtil::Info(module, "%s: the stream is back after %.1f s", m_plan.name.c_str(),
                      std::chrono::duration<double>(now - m_lastPacket).count());
    }
    m_lastPacket = now;
    for (const Packet& packet : packets) {
        takePacket(packet);
        if (m_state == RecordingState::ended)
            return;
    }
    if (m_file.pending() && now - m_lastWrite >= writeDelay)
        tick(now);
}

void Recording::takePacket(const Packet& packet) {
    const bool opens = m_analyzer.take(packet.data());
    if (m_analyzer.programVersion() != m_loggedProgram)
        logProgram();
    if (opens) {
        if (m_holding)
            settleUnit(m_analyzer.closedUnit());
        else if (m_state == RecordingState::recording)
            countFrames(m_analyzer.closedUnit());
        if (m_state == RecordingState::ended)
            return;
        m_unitCounted = 0;
        const bool last = durationReached();
        m_holding = m_state == RecordingState::waiting || m_plan.mode == CaptureMode::rolling || last;
    }
    if (m_state == RecordingState::ended)
        return;
    if (m_holding) {
        m_held.push_back(packet);
        if (m_analyzer.unit().known || m_held.size() >= heldPackets)
            settleUnit(m_analyzer.unit());
    } else if (m_state == RecordingState::recording) {
        write(packet);
        countFrames(m_analyzer.unit());
    }
}

// Decides on the packets held back, now that the picture they begin is known (or will not be).
void Recording::settleUnit(const VideoUnit& unit) {
    m_holding = false;
    if (m_state == RecordingState::waiting) {
        if (unit.known && unit.randomAccess && m_analyzer.programKnown() && m_now >= m_plan.begin)
            startRecording(unit);
        m_held.clear();
        return;
    }
    if (m_plan.mode == CaptureMode::timed && (unit.newFrame || m_held.size() >= heldPackets)) {
        m_held.clear();
        finish(true, recorded());
        return;
    }
    countFrames(unit);
    if (m_plan.mode == CaptureMode::rolling && unit.randomAccess && segmentDone()) {
        m_segmentBegin = m_analyzer.clock().elapsed();
        if (auto failed = m_file.close(false))
            return fail(*failed);
        m_closedBytes += m_file.bytes();
        if (!openFile())
            return;
        writeTables(false);
    }
    writeHeld();
}

// Frames are counted when they begin; their timestamps move the stream's clock. A duration is one of that
// clock, so frames that were lost on the way count as well.
void Recording::countFrames(const VideoUnit& unit) {
    if (unit.frames <= m_unitCounted)
        return;
    const unsigned frames = unit.frames - m_unitCounted;
    const bool first = m_unitCounted == 0;
    m_analyzer.clock().advance(first ? unit.dts : PTS(), frames, m_analyzer.frameRateCode());
    if (first)
        m_unitStart = m_analyzer.clock().elapsed();
    m_unitCounted = unit.frames;
    m_frames += frames;
    const std::int64_t period = MPEG::SH::decode_PCRs_per_frame(m_analyzer.frameRateCode());
    m_streamFrames = period <= 0
                         ? m_frames
                         : static_cast<std::uint64_t>((m_unitStart + period / 2) / period) + m_unitCounted;
    m_lastFrame = m_now;
}

// Measured where the picture begins, so a segment is never shorter than asked for.
bool Recording::segmentDone() const {
    const std::int64_t wanted = std::int64_t{m_plan.rollingMinutes} * 60 * PTS::units_per_second;
    return m_analyzer.clock().elapsed() - m_segmentBegin >= wanted;
}

void Recording::startRecording(const VideoUnit& unit) {
    wantedFrames();
    if (m_state == RecordingState::ended || !openFile())
        return;
    m_state = RecordingState::recording;
    m_started = m_lastFrame = m_now;
    std::string gop;
    if (unit.gopTimecode && m_analyzer.frameRateCode() != 0)
        gop = std::string(", GOP timecode ") +
              mpeg_timecode::parse_GOP(*unit.gopTimecode, m_analyzer.frameRateCode()).windows_string();
    LogUtil::Info(
        module, "%s: recording starts at PTS %" PRId64 ", DTS %" PRId64 " (90 kHz)%s, frame rate code %d",
        m_plan.name.c_str(), unit.pts.ticks(), unit.dts.ticks(), gop.c_str(), m_analyzer.frameRateCode());
    countFrames(unit);
    writeTables(true);
    writeHeld();
}

bool Recording::openFile() {
    MaybeFailure failed;
    if (m_plan.mode == CaptureMode::rolling) {
        constexpr int attempts = 100;
        const std::time_t now = std::time(nullptr);
        for (int attempt = 1; attempt <= attempts; ++attempt) {
            failed = m_file.create(segmentPath(m_plan.output, now, attempt), false);
            if (!failed || failed->code != error::fileAlreadyExists)
                break;
        }
    } else {
        failed = m_file.create(m_plan.output, m_plan.overwrite);
    }
    if (failed) {
        fail(*failed);
        return false;
    }
    ++m_segments;
    LogUtil::Info(module, "%s: recording into %s", m_plan.name.c_str(), m_file.path().c_str());
    return true;
}

void Recording::writeTables(bool first) {
    writeCopies(m_analyzer.patPackets(), 0, first);
    writeCopies(m_analyzer.pmtPackets(), m_analyzer.pmtPid(), first);
}

// Writes copies of the packets of a table, counted so that the next packet of their PID in the stream
// follows.
void Recording::writeCopies(std::span<const Packet> packets, int pid, bool first) {
    int counter = m_analyzer.lastCounter(pid);
    for (const Packet& held : m_held) {
        if (ts::pid(held.data()) != pid)
            continue;
        counter = ts::continuity_counter(held.data()) - (ts::has_payload(held.data()) ? 1 : 0);
        break;
    }
    counter -= static_cast<int>(packets.size()) - 1;
    for (Packet copy : packets) {
        copy[3] = static_cast<unsigned char>((copy[3] & 0xF0) | (static_cast<unsigned>(counter++) & 0x0F));
        // At a cut the stream goes on behind the copies, so only those of the first file are part of its
        // count.
        if (first)
            m_continuity.check(copy.data(), m_file.bytes() / packetSize, m_now);
        if (auto failed = m_file.append(copy))
            return fail(*failed);
    }
}

void Recording::writeHeld() {
    for (const Packet& packet : m_held) {
        if (m_state == RecordingState::ended)
            break;
        write(packet);
    }
    m_held.clear();
}

void Recording::write(const Packet& packet) {
    if (!m_file.pending())
        m_lastWrite = m_now;
    m_continuity.check(packet.data(), (m_file.bytes() + m_file.pendingBytes()) / packetSize, m_now);
    if (auto failed = m_file.append(packet))
        fail(*failed);
}

void Recording::logProgram() {
    if (m_loggedProgram == 0)
        m_programSeen = m_now;
    m_loggedProgram = m_analyzer.programVersion();
    LogUtil::Info(module, "%s: stream found: %s", m_plan.name.c_str(), m_analyzer.describeProgram().c_str());
    if (m_analyzer.videoPid() < 0)
        LogUtil::Warning(module, "%s: the program has no video that can be recorded", m_plan.name.c_str());
}

Clock::time_point Recording::deadline() const {
    if (m_state == RecordingState::ended)
        return Clock::time_point::max();
    if (m_state == RecordingState::waiting)
        return m_analyzer.programKnown() ? std::max(m_programSeen, m_armed) + m_timing.noRandomAccess
                                         : m_armed + m_timing.noStream;
    Clock::time_point next = Clock::time_point::max();
    if (!m_stopped)
        next = m_lastPacket + m_timing.stall;
    if (m_file.pending())
        next = std::min(next, m_lastWrite + writeDelay);
    if (m_continuity.pending())
        next = std::min(next, m_now + std::chrono::seconds(1));
    if (m_plan.mode == CaptureMode::timed) {
        next = std::min(next, std::max(m_started + nominalDuration(), m_lastFrame) + m_timing.givenUp);
    }
    return next;
}

void Recording::tick(Clock::time_point now) {
    m_now = now;
    if (m_state == RecordingState::waiting) {
        if (now < deadline())
            return;
        if (!m_analyzer.programKnown())
            return fail(failure(error::noTransportStream, m_plan.shownAddress.c_str(), m_plan.shownPort));
        return fail(detailed(failure(error::startCaptureTimeout), "no random access point in the video"));
    }
    if (m_state == RecordingState::ended)
        return;
    m_continuity.tick(now);
    if (m_file.pending() && now - m_lastWrite >= writeDelay)
        if (auto failed = m_file.flush())
            return fail(*failed);
    if (!m_stopped && now - m_lastPacket >= m_timing.stall) {
        m_stopped = true;
        ++m_stops;
        LogUtil::Warning(module, "%s: the stream has stopped", m_plan.name.c_str());
        // The last frame asked for has come; the one beyond, which would show it, may never.
        if (m_wanted > 0 && m_streamFrames >= static_cast<std::uint64_t>(m_wanted)) {
            m_held.clear();
            --m_stops;
            return finish(true, recorded());
        }
    }
    if (m_plan.mode == CaptureMode::timed) {
        if (now >= std::max(m_started + nominalDuration(), m_lastFrame) + m_timing.givenUp)
            fail(failure(error::captureDiscontinuity));
    }
}

void Recording::cancel(Clock::time_point now) {
    m_now = now;
    if (m_state == RecordingState::ended)
        return;
    if (m_state == RecordingState::waiting)
        return finish(m_plan.mode == CaptureMode::timed,
                      "Cancelled before the recording began: nothing recorded");
    writeHeld();
    if (m_state == RecordingState::ended)
        return;
    if (m_plan.mode != CaptureMode::timed ||
        (m_wanted > 0 && m_streamFrames >= static_cast<std::uint64_t>(m_wanted)))
        return finish(true, recorded());
    finish(true, "Cancelled after " + amount());
}

void Recording::fail(const Failure& why) {
    if (m_state == RecordingState::ended)
        return;
    finish(false, m_segments != 0 ? why.text + " " + recorded() : why.text);
}

void Recording::finish(bool succeeded, std::string text) {
    m_state = RecordingState::ended;
    m_holding = false;
    m_succeeded = succeeded;
    m_text = std::move(text);
    m_continuity.tick(Clock::time_point::max());
    if (m_file.isOpen()) {
        if (const auto failed = m_file.close(true); failed && succeeded) {
            m_succeeded = false;
            m_text = failed->text + " " + m_text;
        }
        LogUtil::Info(module, "%s: %s closed, %" PRIu64 " bytes", m_plan.name.c_str(), m_file.path().c_str(),
                      m_file.bytes());
    }
}

std::string Recording::recorded() const {
    return "Recorded " + amount();
}

std::string Recording::amount() const {
    const int rate = m_analyzer.frameRateCode();
    const double megabytes =
        static_cast<double>(m_closedBytes + m_file.bytes() + m_file.pendingBytes()) / 1e6;
    std::string text = (rate != 0 ? timecodeText(m_frames, rate) : std::string("an unknown time")) +
                       format(" (%" PRIu64 " frames, %.1f MB", m_frames, megabytes);
    if (m_segments > 1)
        text += format(", %u segments", m_segments);
    text += format("), %" PRIu64 " continuity errors", m_continuity.errors());
    if (m_stops != 0)
        text += format(", stream stopped %u times", m_stops);
    return text;
}

RecordingStatus Recording::status() const {
    RecordingStatus status;
    status.state = m_state;
    status.frames = m_frames;
    status.frameRateCode = m_analyzer.frameRateCode();
    status.bytes = m_closedBytes + m_file.bytes() + m_file.pendingBytes();
    status.continuityErrors = m_continuity.errors();
    status.stops = m_stops;
    status.succeeded = m_succeeded;
    status.text = m_text;
    return status;
}

} // namespace kestrel::capture
