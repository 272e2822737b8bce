#include "SegmentFile.h"

#include "foundation/ErrorCodes.h"

#include <cerrno>
#include <fcntl.h>

namespace kestrel::capture {
namespace {

constexpr std::size_t blockBytes = writePackets * packetSize;

bool noSpace(int error) noexcept {
    return error == ENOSPC || error == EDQUOT;
}

} // namespace

SegmentFile::SegmentFile() {
    m_buffer.reserve(blockBytes);
}

MaybeFailure SegmentFile::create(const std::string& path, bool overwrite) {
    const int flags =
        O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_LARGEFILE | (overwrite ? O_TRUNC : O_EXCL);
    m_buffer.clear();
    m_written = 0;
    m_writtenBack = 0;
    m_fd.reset(::open(path.c_str(), flags, 0666));
    if (!m_fd.valid()) {
        if (errno == EEXIST)
            return detailed(failure(error::fileAlreadyExists), path);
        if (noSpace(errno))
            return failure(error::diskFull);
        return detailed(failure(error::outputFileNotOpened, path.c_str()), errnoText(errno));
    }
    m_path = path;
    return std::nullopt;
}

MaybeFailure SegmentFile::append(const Packet& packet) {
    m_buffer.insert(m_buffer.end(), packet.begin(), packet.end());
    return m_buffer.size() < blockBytes ? std::nullopt : flush();
}

MaybeFailure SegmentFile::flush() {
    std::size_t done = 0;
    while (done < m_buffer.size()) {
        const ssize_t written = ::write(m_fd.get(), m_buffer.data() + done, m_buffer.size() - done);
        if (written > 0) {
            done += static_cast<std::size_t>(written);
            continue;
        }
        if (written < 0 && errno == EINTR)
            continue;
        const int error = written == 0 ? ENOSPC : errno;
        // A write may have been taken in part: the file ends with its last whole packet.
        m_written += done - done % packetSize;
        m_buffer.clear();
        if (done % packetSize != 0) [[maybe_unused]]
            const int cut = ::ftruncate(m_fd.get(), static_cast<off_t>(m_written));
        return writeFailure(error);
    }
    m_written += m_buffer.size();
    m_buffer.clear();
    if (m_written - m_writtenBack >= writebackBytes) {
        ::sync_file_range(m_fd.get(), static_cast<off_t>(m_writtenBack),
                          static_cast<off_t>(m_written - m_writtenBack), SYNC_FILE_RANGE_WRITE);
        m_writtenBack = m_written;
    }
    return std::nullopt;
}

MaybeFailure SegmentFile::close(bool sync) {
    if (!isOpen())
        return std::nullopt;
    MaybeFailure failed = flush();
    // Not every kind of file can be synchronised, which EINVAL says.
    if (!failed && sync && ::fdatasync(m_fd.get()) != 0 && errno != EINVAL && errno != EROFS)
        failed = writeFailure(errno);
    if (::close(m_fd.release()) != 0 && !failed && errno != EINTR)
        failed = writeFailure(errno);
    return failed;
}

MaybeFailure SegmentFile::writeFailure(int error) {
    if (noSpace(error))
        return failure(error::diskFull);
    return Failure{error::startCaptureFailed, "Error: Could not write " + m_path + ": " + errnoText(error)};
}

} // namespace kestrel::capture
