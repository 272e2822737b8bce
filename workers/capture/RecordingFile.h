// The files of one recording, and the count of what is in them.
#pragma once

#include "ContinuityLog.h"
#include "RecordingPlan.h"
#include "SegmentFile.h"
#include "StreamAnalyzer.h"

#include <cstdint>
#include <deque>
#include <span>
#include <string>

namespace kestrel::capture {

class RecordingFile {
public:
    explicit RecordingFile(std::string name) : m_name(std::move(name)), m_continuity(m_name) {}

    // Makes the file of a plan, or its next segment.
    [[nodiscard]] MaybeFailure open(const RecordingPlan& plan);
    // Writes copies of PAT and PMT, counted so that the next packet of their PID in what follows, or else in
    // the stream, continues them.
    [[nodiscard]] MaybeFailure writeTables(const StreamAnalyzer& stream, std::span<const Packet> following,
                                           Clock::time_point now);
    [[nodiscard]] MaybeFailure write(const Packet& packet, int videoPid, Clock::time_point now);
    // So many frames begin in what has been written until now.
    void countFrames(unsigned frames);
    // Writes what has waited long enough, logs what is due.
    [[nodiscard]] MaybeFailure tick(Clock::time_point now);
    // Closes the file; with last for good, when the disk has it all.
    [[nodiscard]] MaybeFailure close(bool last);

    [[nodiscard]] bool isOpen() const noexcept { return m_file.isOpen(); }
    [[nodiscard]] unsigned segments() const noexcept { return m_segments; }
    // Of all files. Frames that a failed write kept from the file do not count.
    [[nodiscard]] std::uint64_t frames() const noexcept { return m_frames; }
    [[nodiscard]] std::uint64_t bytes() const noexcept {
        return m_closedBytes + m_file.bytes() + m_file.pendingBytes();
    }
    [[nodiscard]] std::uint64_t continuityErrors() const noexcept { return m_continuity.errors(); }
    // The same without what waits to be written, which a failing disk may never take.
    [[nodiscard]] std::uint64_t bytesWritten() const noexcept { return m_closedBytes + m_file.bytes(); }
    // Packets in the current file.
    [[nodiscard]] std::uint64_t packets() const noexcept {
        return (m_file.bytes() + m_file.pendingBytes()) / packetSize;
    }
    // More of the frame that was written last may be missing: no packet has ended its PES packet.
    [[nodiscard]] bool frameOpen() const noexcept { return m_frameOpen; }
    // When tick() is to be called, at the latest.
    [[nodiscard]] Clock::time_point deadline(Clock::time_point now) const;

private:
    // Frames that begin before this position of the file and are not yet known to be in it.
    struct Unwritten {
        std::uint64_t position;
        unsigned frames;
    };

    [[nodiscard]] MaybeFailure append(const Packet& packet);
    [[nodiscard]] MaybeFailure settle(MaybeFailure result);

    std::string m_name;
    ContinuityLog m_continuity;
    SegmentFile m_file;
    std::uint64_t m_closedBytes = 0; // of the segments before
    unsigned m_segments = 0;
    std::uint64_t m_frames = 0;
    std::deque<Unwritten> m_unwritten;
    Clock::time_point m_lastWrite;
    bool m_frameOpen = false;
};

} // namespace kestrel::capture
