// Questions to the file system.
#pragma once

#include <cstdint>

// Nothing here logs or throws. A null path counts as one that cannot be examined.
class cFileUtil {
public:
    // Makes every missing directory of path that ends before a "/" (so a/b/c makes a and a/b, a/b/c/ makes c
    // too), with mode 0777 less the umask. Stops silently at the first that cannot be made.
    static void CreateDir(const char* path) noexcept;

    // Whether name holds no "/".
    static bool IsStrippedFilename(const char* name) noexcept;

    // Whether path can be examined; a directory counts.
    static bool FileExists(const char* path) noexcept;

    // Whether path can be examined and is a directory.
    static bool IsDirectory(const char* path) noexcept;

    // Size in bytes, 0 when path cannot be examined. The flag has no effect.
    static std::int64_t GetFilesizeBytes(const char* path, bool flag = false) noexcept;

    // Free bytes, the superuser's reserve included, on the file system that holds the directory part of
    // path; all bits set when it cannot be queried.
    static std::uint64_t GetAvailSpace(const char* path) noexcept;

    // Whether that many bytes are free there; a failed query passes.
    static bool CheckAvailSpace(unsigned long bytes, const char* path) noexcept;
};
