#include "SegmentFile.h"

#include "foundation/ErrorCodes.h"
#include "foundation/Logger.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/vfs.h>

namespace kestrel::capture {
namespace {

constexpr std::size_t blockBytes = writePackets * packetSize;

constexpr const char* module = "Capture";

// A lock of SMB is one on the bytes: nobody could look at a recording while it runs.
bool keepsReadersOut(int fd) noexcept {
    struct statfs system {};
    if (::fstatfs(fd, &system) != 0)
        return false;
    const auto kind = static_cast<std::uint32_t>(system.f_type);
    return kind == 0xFF534D42U || kind == 0xFE534D42U;
}

bool noSpace(int error) noexcept {
    return error == ENOSPC || error == EDQUOT;
}

} // namespace

SegmentFile::SegmentFile() {
    m_buffer.reserve(blockBytes);
}

MaybeFailure SegmentFile::create(const std::string& path, bool overwrite) {
    // What is there stays until it is known that nobody else writes it.
    const int flags = O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_LARGEFILE | (overwrite ? 0 : O_EXCL);
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
    struct stat status {};
    // Any number of jobs may write to /dev/null.
    if (::fstat(m_fd.get(), &status) == 0 && !S_ISREG(status.st_mode))
        return std::nullopt;
    MaybeFailure failed = hold();
    if (!failed && overwrite && ::ftruncate(m_fd.get(), 0) != 0)
        failed = writeFailure(errno);
    if (failed)
        m_fd.reset();
    return failed;
}

// Gone with the descriptor, so with the process, however that ends.
MaybeFailure SegmentFile::hold() {
    if (keepsReadersOut(m_fd.get())) {
        LogUtil::Info(module, "%s lies on an SMB share: that it is being written is not shown to other jobs",
                      m_path.c_str());
        return std::nullopt;
    }
    int result = 0;
    do
        result = ::flock(m_fd.get(), LOCK_EX | LOCK_NB);
    while (result != 0 && errno == EINTR);
    if (result == 0)
        return std::nullopt;
    if (errno == EWOULDBLOCK)
        return detailed(failure(error::outputFileNotOpened, m_path.c_str()),
                        "it is being recorded by another job");
    LogUtil::Warning(module,
                     "%s cannot be locked, so another job that overwrites it would not be refused: %s",
                     m_path.c_str(), errnoText(errno).c_str());
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
