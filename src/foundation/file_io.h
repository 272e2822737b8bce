// Operations on files by path and on C file streams.
#pragma once

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <span>

class FileIO {
public:
    // A new stream that writes path from its start, in binary; the caller owns it. Null, with a logged
    // error, when it cannot be opened.
    static std::ofstream* OpenFile(const char* path);

    // Size in bytes, -1 when the status of path cannot be read.
    static std::int64_t GetFileLen(const char* path) noexcept;

    // 0, or -10 when path cannot be cut to length bytes.
    static int TruncateFile(const char* path, long length) noexcept;

    // 64-bit seek: 0, or -1 with errno; -1 for a null stream.
    static int TruncSeek(FILE* file, long offset, int whence) noexcept;

    // Reads size bytes as one item: 1, or 0 on a short read or when file or buf is null.
    static int ReadFileContentIntoBuffer(FILE* file, unsigned char* buf, unsigned long size) noexcept;

    // Puts prefix before the file name (at most 260 characters of it) of path. out has capacity bytes; the
    // text is cut and terminated.
    static void AppendPrefix(const char* path, const char* prefix, char* out, int capacity) noexcept;

    // path with everything from its last "." replaced by ".raw.mpg" (appended when there is no "."). out
    // needs the length of path + 9 bytes.
    static void ChangeFileNameExtension(const char* path, char* out) noexcept;

    // Copies length bytes (-1: up to the end) from offset of src into the new file dst. 0, or: -5 src null,
    // -6 dst null, -10 size of src unknown, -11 nothing at offset, -12 fewer than length bytes there, -20
    // src not readable, -30 dst not writable, -40 seek failed, -45 no memory, -50 short read, -60 short
    // write.
    static int PartialFileCopy(const char* src, const char* dst, long offset, long length) noexcept;
};

namespace kestrel {

// Writes all of the bytes, going on after signals and short writes; false, with errno, when that fails.
bool writeAll(int fd, std::span<const unsigned char> bytes) noexcept;

} // namespace kestrel
