#include "SourceFile.h"

#include "foundation/ErrorCodes.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kestrel::capture {

MaybeFailure SourceFile::open(const std::string& path) {
    m_path = path;
    if (path.empty())
        return failure(error::sourceFileNotSpecified);
    // Not waiting for whoever may write to a FIFO one day.
    m_fd.reset(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status {};
    if (!m_fd.valid() || ::fstat(m_fd.get(), &status) != 0)
        return detailed(failure(error::inputFileNotOpened, path.c_str()), errnoText(errno));
    if (!S_ISREG(status.st_mode))
        return detailed(failure(error::inputFileNotOpened, path.c_str()), "not a regular file");
    m_bytes = static_cast<std::uint64_t>(status.st_size);
    if (m_bytes == 0)
        return detailed(failure(error::sourceLengthNotPackets, 0), path + " is empty");
    ::posix_fadvise(m_fd.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
    part(0, m_bytes);
    return std::nullopt;
}

void SourceFile::part(std::uint64_t begin, std::uint64_t end) noexcept {
    m_end = std::min(end, m_bytes);
    m_at = std::min(begin, m_end);
}

MaybeFailure SourceFile::read(std::span<unsigned char> room, std::size_t& got) {
    const auto wanted = static_cast<std::size_t>(std::min<std::uint64_t>(room.size(), m_end - m_at));
    ssize_t result = 0;
    do
        result = wanted == 0 ? 0 : ::pread(m_fd.get(), room.data(), wanted, static_cast<off_t>(m_at));
    while (result < 0 && errno == EINTR);
    if (result < 0)
        return Failure{error::inputFileNotOpened,
                       "Error: Could not read " + m_path + ": " + errnoText(errno)};
    got = static_cast<std::size_t>(result);
    m_at += got;
    return std::nullopt;
}

Failure SourceFile::shapeFailure(SourceShape shape) const {
    const auto found = [this](int number, const std::string& detail) {
        return detailed(failure(error::sourceLengthNotPackets, number), m_path + ": " + detail);
    };
    switch (shape) {
    case SourceShape::packets192:
        return found(192, "its packets have 192 bytes");
    case SourceShape::packets204:
        return found(204, "its packets have 204 bytes");
    default:
        return found(static_cast<int>(m_bytes % packetSize), "no transport packets");
    }
}

} // namespace kestrel::capture
