#include "RecordingFile.h"

#include "CountedNoun.h"
#include "OutputNames.h"
#include "foundation/ErrorCodes.h"
#include "foundation/Logger.h"
#include "mpeg/packet_view.h"

#include <algorithm>

namespace kestrel::capture {
namespace {

constexpr const char* module = "Capture";

} // namespace

MaybeFailure RecordingFile::open(const RecordingPlan& plan) {
    MaybeFailure failed;
    if (plan.mode == CaptureMode::rolling) {
        constexpr int attempts = 100;
        const std::time_t now = std::time(nullptr);
        for (int attempt = 1; attempt <= attempts; ++attempt) {
            failed = m_file.create(segmentPath(plan.output, now, attempt), false);
            if (!failed || failed->code != error::fileAlreadyExists)
                break;
        }
    } else {
        failed = m_file.create(plan.output, plan.overwrite);
    }
    if (failed)
        return failed;
    ++m_segments;
    LogUtil::Info(module, "%s: recording into %s", m_name.c_str(), absolutePath(m_file.path()).c_str());
    return std::nullopt;
}

MaybeFailure RecordingFile::writeTables(const StreamAnalyzer& stream, std::span<const Packet> following,
                                        Clock::time_point now) {
    const auto write = [&](std::span<const Packet> packets, int pid) -> MaybeFailure {
        int counter = stream.lastCounter(pid);
        for (const Packet& packet : following) {
            if (ts::pid(packet.data()) != pid)
                continue;
            counter = ts::continuity_counter(packet.data()) - (ts::has_payload(packet.data()) ? 1 : 0);
            break;
        }
        counter -= static_cast<int>(packets.size()) - 1;
        for (Packet copy : packets) {
            copy[3] =
                static_cast<unsigned char>((copy[3] & 0xF0) | (static_cast<unsigned>(counter++) & 0x0F));
            // At a cut the stream goes on behind the copies, so only those of the first file are part of its
            // count.
            if (m_segments == 1)
                m_continuity.check(copy.data(), this->packets(), now);
            if (auto failed = append(copy))
                return failed;
        }
        return std::nullopt;
    };
    if (auto failed = write(stream.patPackets(), 0))
        return failed;
    return write(stream.pmtPackets(), stream.pmtPid());
}

MaybeFailure RecordingFile::write(const Packet& packet, int videoPid, Clock::time_point now) {
    if (!m_file.pending())
        m_lastWrite = now;
    m_continuity.check(packet.data(), packets(), now);
    if (ts::pid(packet.data()) == videoPid && ts::has_payload(packet.data()))
        m_frameOpen = !endsPesPacket(packet.data());
    return append(packet);
}

MaybeFailure RecordingFile::append(const Packet& packet) {
    return settle(m_file.append(packet));
}

void RecordingFile::countFrames(unsigned frames) {
    if (frames == 0)
        return;
    m_frames += frames;
    m_unwritten.push_back({m_file.bytes() + m_file.pendingBytes(), frames});
}

// Drops what has reached the file from the frames that wait, and, of a failed write, all others from the
// count.
MaybeFailure RecordingFile::settle(MaybeFailure result) {
    while (!m_unwritten.empty() && m_unwritten.front().position <= m_file.bytes())
        m_unwritten.pop_front();
    if (result) {
        for (const Unwritten& lost : m_unwritten)
            m_frames -= lost.frames;
        m_unwritten.clear();
    }
    return result;
}

MaybeFailure RecordingFile::tick(Clock::time_point now) {
    m_continuity.tick(now);
    if (!m_file.pending() || now - m_lastWrite < writeDelay)
        return std::nullopt;
    return settle(m_file.flush());
}

Clock::time_point RecordingFile::deadline(Clock::time_point now) const {
    Clock::time_point next = Clock::time_point::max();
    if (m_file.pending())
        next = m_lastWrite + writeDelay;
    if (m_continuity.pending())
        next = std::min(next, now + std::chrono::seconds(1));
    return next;
}

MaybeFailure RecordingFile::close(bool last) {
    if (last)
        m_continuity.tick(Clock::time_point::max());
    if (!m_file.isOpen())
        return std::nullopt;
    MaybeFailure failed = settle(m_file.close(last));
    if (last)
        LogUtil::Info(module, "%s: %s closed, %s", m_name.c_str(), m_file.path().c_str(),
                      counted(m_file.bytes(), "byte").c_str());
    else
        m_closedBytes += m_file.bytes();
    m_unwritten.clear();
    return failed;
}

} // namespace kestrel::capture
