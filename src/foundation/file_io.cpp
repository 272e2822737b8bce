#include "foundation/file_io.h"

#include "foundation/FixedText.h"
#include "foundation/Logger.h"
#include "foundation/StringUtil.h"
#include "foundation/UniqueFd.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ext/stdio_filebuf.h>
#include <fcntl.h>
#include <memory>
#include <new>
#include <span>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr std::size_t copyBufferSize = 65536;
constexpr std::size_t longestFileName = 260;
constexpr mode_t newFileMode = 0666;

kestrel::UniqueFd openForWriting(const char* path) noexcept {
    return kestrel::UniqueFd(::open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, newFileMode));
}

bool readAll(int fd, std::span<unsigned char> bytes) noexcept {
    while (!bytes.empty()) {
        const ssize_t got = ::read(fd, bytes.data(), bytes.size());
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return false;
        bytes = bytes.subspan(static_cast<std::size_t>(got));
    }
    return true;
}

// Opening the copy truncates it, so a file must not be copied onto itself.
bool sameFile(int fd, const char* path) noexcept {
    struct stat a {};
    struct stat b {};
    return ::fstat(fd, &a) == 0 && ::stat(path, &b) == 0 && a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// Whether the length bytes from offset end beyond size. Neither number is trusted.
bool endsBeyond(std::int64_t size, std::int64_t offset, std::int64_t length) noexcept {
    std::int64_t end = 0;
    if (__builtin_add_overflow(offset, length, &end))
        return length > 0;
    return size < end;
}

int copyRange(int from, int to, std::int64_t amount) noexcept {
    const std::unique_ptr<unsigned char[]> buffer(new (std::nothrow) unsigned char[copyBufferSize]);
    if (!buffer)
        return -45;
    while (amount > 0) {
        const std::span chunk(buffer.get(), std::min(copyBufferSize, static_cast<std::size_t>(amount)));
        if (!readAll(from, chunk))
            return -50;
        if (!kestrel::writeAll(to, chunk))
            return -60;
        amount -= static_cast<std::int64_t>(chunk.size());
    }
    return 0;
}

} // namespace

bool kestrel::writeAll(int fd, std::span<const unsigned char> bytes) noexcept {
    while (!bytes.empty()) {
        const ssize_t put = ::write(fd, bytes.data(), bytes.size());
        if (put < 0 && errno == EINTR)
            continue;
        if (put <= 0)
            return false;
        bytes = bytes.subspan(static_cast<std::size_t>(put));
    }
    return true;
}

std::ofstream* FileIO::OpenFile(const char* path) {
    // A stream cannot be told to open its file close-on-exec, so it takes over the buffer of one that is.
    kestrel::UniqueFd fd = openForWriting(cStringUtil::cValue(path));
    if (fd.valid()) {
        __gnu_cxx::stdio_filebuf<char> buffer(fd.get(), std::ios::out | std::ios::binary);
        if (buffer.is_open()) {
            (void)fd.release();
            auto stream = std::make_unique<std::ofstream>();
            *stream->rdbuf() = std::move(static_cast<std::filebuf&>(buffer));
            return stream.release();
        }
    }
    LogUtil::Error("file_io", "Error creating file: %s", cStringUtil::cValue(path));
    return nullptr;
}

std::int64_t FileIO::GetFileLen(const char* path) noexcept {
    struct stat status {};
    if (path == nullptr || ::stat(path, &status) != 0)
        return -1;
    return status.st_size;
}

int FileIO::TruncateFile(const char* path, long length) noexcept {
    return path != nullptr && ::truncate(path, length) == 0 ? 0 : -10;
}

int FileIO::TruncSeek(FILE* file, long offset, int whence) noexcept {
    return file != nullptr ? ::fseeko(file, offset, whence) : -1;
}

int FileIO::ReadFileContentIntoBuffer(FILE* file, unsigned char* buf, unsigned long size) noexcept {
    if (file == nullptr || buf == nullptr)
        return 0;
    return static_cast<int>(std::fread(buf, size, 1, file));
}

void FileIO::AppendPrefix(const char* path, const char* prefix, char* out, int capacity) noexcept try {
    if (out == nullptr || capacity <= 0)
        return;
    const std::string whole = cStringUtil::cValue(path);
    // A bare name is not a directory part to be cut off, so a.ts with prefix X becomes a.ts/Xa.ts.
    std::string text = whole;
    cStringUtil::stripFileSpec(text.data());
    text.resize(std::strlen(text.c_str()));
    if (!text.empty())
        text += '/';
    text += cStringUtil::cValue(prefix);
    const std::string_view name = cStringUtil::getStrippedFilename(whole.c_str());
    text += name.substr(0, longestFileName);
    kestrel::copyText(std::span(out, static_cast<std::size_t>(capacity)), text);
} catch (const std::bad_alloc&) {
    out[0] = '\0';
}

void FileIO::ChangeFileNameExtension(const char* path, char* out) noexcept {
    if (out == nullptr)
        return;
    constexpr std::string_view extension = ".raw.mpg";
    const std::string_view text = cStringUtil::cValue(path);
    const std::size_t kept = std::min(text.rfind('.'), text.size());
    std::memmove(out, text.data(), kept);
    std::memcpy(out + kept, extension.data(), extension.size());
    out[kept + extension.size()] = '\0';
}

int FileIO::PartialFileCopy(const char* src, const char* dst, long offset, long length) noexcept {
    if (src == nullptr)
        return -5;
    if (dst == nullptr)
        return -6;
    const std::int64_t size = GetFileLen(src);
    if (size < 0)
        return -10;
    if (size <= offset)
        return -11;
    if (endsBeyond(size, offset, length))
        return -12;
    const kestrel::UniqueFd from(::open(src, O_RDONLY | O_CLOEXEC));
    if (!from.valid())
        return -20;
    if (sameFile(from.get(), dst))
        return -30;
    kestrel::UniqueFd to = openForWriting(dst);
    if (!to.valid())
        return -30;
    if (::lseek(from.get(), offset, SEEK_SET) < 0)
        return -40;
    const int result = copyRange(from.get(), to.get(), length == -1 ? size - offset : length);
    // Some file systems report a full disk only when the file is closed.
    if (::close(to.release()) != 0 && result == 0)
        return -60;
    return result;
}
