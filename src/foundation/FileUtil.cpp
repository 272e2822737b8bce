#include "foundation/FileUtil.h"

#include "foundation/StringUtil.h"

#include <cstring>
#include <limits>
#include <new>
#include <string>
#include <sys/stat.h>
#include <sys/statvfs.h>

namespace {

bool examine(const char* path, struct stat& status) noexcept {
    return path != nullptr && ::stat(path, &status) == 0;
}

} // namespace

void cFileUtil::CreateDir(const char* path) noexcept try {
    if (path == nullptr)
        return;
    std::string prefix = path;
    // A "/" where the search resumes ends an empty name: the leading one, and the second of a doubled one.
    std::size_t resume = 0;
    while (true) {
        if (resume < prefix.size() && prefix[resume] == '/') {
            ++resume;
            continue;
        }
        const std::size_t slash = prefix.find('/', resume);
        if (slash == std::string::npos)
            return;
        prefix[slash] = '\0';
        const bool there = FileExists(prefix.c_str()) || ::mkdir(prefix.c_str(), 0777) == 0 ||
                           // Somebody else may have made it meanwhile.
                           IsDirectory(prefix.c_str());
        if (!there)
            return;
        prefix[slash] = '/';
        resume = slash + 1;
    }
} catch (const std::bad_alloc&) {
}

bool cFileUtil::IsStrippedFilename(const char* name) noexcept {
    return name == nullptr || std::strchr(name, '/') == nullptr;
}

bool cFileUtil::FileExists(const char* path) noexcept {
    struct stat status {};
    return examine(path, status);
}

bool cFileUtil::IsDirectory(const char* path) noexcept {
    struct stat status {};
    return examine(path, status) && S_ISDIR(status.st_mode);
}

std::int64_t cFileUtil::GetFilesizeBytes(const char* path, bool /*flag*/) noexcept {
    struct stat status {};
    return examine(path, status) ? status.st_size : 0;
}

std::uint64_t cFileUtil::GetAvailSpace(const char* path) noexcept try {
    constexpr std::uint64_t unknown = std::numeric_limits<std::uint64_t>::max();
    if (path == nullptr)
        return unknown;
    std::string directory = path;
    cStringUtil::stripFileSpec(directory.data());
    // A file right below the root leaves no text before its separator.
    const bool belowRoot = directory.c_str()[0] == '\0' && path[0] == '/';
    struct statvfs status {};
    if (::statvfs(belowRoot ? "/" : directory.c_str(), &status) != 0)
        return unknown;
    // The counts of statvfs are in units of f_frsize; f_bsize is only the preferred transfer size.
    return std::uint64_t{status.f_bfree} * status.f_frsize;
} catch (const std::bad_alloc&) {
    return std::numeric_limits<std::uint64_t>::max();
}

bool cFileUtil::CheckAvailSpace(unsigned long bytes, const char* path) noexcept {
    return GetAvailSpace(path) >= bytes;
}
