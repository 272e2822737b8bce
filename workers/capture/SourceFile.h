// A transport stream file that is read from its beginning to its end.
#pragma once

#include "Failure.h"
#include "PacketSync.h"
#include "foundation/UniqueFd.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <sys/types.h>

namespace kestrel::capture {

// Read as far as it reached when it was opened, so that one that still grows has an end.
class SourceFile {
public:
    // Opens it. One that cannot be opened, is empty or anything but a regular file is a failure.
    [[nodiscard]] MaybeFailure open(const std::string& path);
    // Goes on at a byte of it, and no further than to another.
    void part(std::uint64_t begin, std::uint64_t end) noexcept;
    // Reads what comes next; how many bytes, 0 at the end.
    [[nodiscard]] MaybeFailure read(std::span<unsigned char> room, std::size_t& got);

    [[nodiscard]] const std::string& path() const noexcept { return m_path; }
    [[nodiscard]] std::uint64_t bytes() const noexcept { return m_bytes; }
    // Why a file of that shape is none that can be worked on.
    [[nodiscard]] Failure shapeFailure(SourceShape shape) const;

private:
    std::string m_path;
    UniqueFd m_fd;
    std::uint64_t m_bytes = 0;
    std::uint64_t m_at = 0;
    std::uint64_t m_end = 0;
};

} // namespace kestrel::capture
