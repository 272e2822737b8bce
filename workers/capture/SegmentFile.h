// One file of a recording.
#pragma once

#include "Failure.h"
#include "PacketRing.h"
#include "foundation/UniqueFd.h"

#include <cstdint>
#include <string>
#include <vector>

namespace kestrel::capture {

// Whole packets are appended, never anything else, so the file is a transport stream at any moment. What is
// appended reaches the file in blocks, at the latest with flush(). The kernel ends the write of a process
// that is killed at a page: only then may the last packet of a file be cut, which readers leave out.
class SegmentFile {
public:
    SegmentFile();

    // Creates the file, and holds it as one that is being written until it is closed. One that exists already
    // is a failure (fileAlreadyExists) unless overwrite is set, and so is one that another job is writing
    // (outputFileNotOpened), which is left as it is. Where files cannot be held that is not known, and the
    // log tells.
    [[nodiscard]] MaybeFailure create(const std::string& path, bool overwrite);
    [[nodiscard]] MaybeFailure append(const Packet& packet);
    [[nodiscard]] MaybeFailure flush();
    // Flushes and closes; with sync only when the disk has it all.
    [[nodiscard]] MaybeFailure close(bool sync);

    [[nodiscard]] bool isOpen() const noexcept { return m_fd.valid(); }
    [[nodiscard]] const std::string& path() const noexcept { return m_path; }
    // Bytes that did reach the file, and whether more wait in memory.
    [[nodiscard]] std::uint64_t bytes() const noexcept { return m_written; }
    [[nodiscard]] bool pending() const noexcept { return !m_buffer.empty(); }
    [[nodiscard]] std::size_t pendingBytes() const noexcept { return m_buffer.size(); }

private:
    [[nodiscard]] MaybeFailure hold();
    MaybeFailure writeFailure(int error);

    UniqueFd m_fd;
    std::string m_path;
    std::vector<unsigned char> m_buffer;
    std::uint64_t m_written = 0;
    std::uint64_t m_writtenBack = 0;
};

} // namespace kestrel::capture
