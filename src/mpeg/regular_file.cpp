#include "mpeg/regular_file.h"

#include "foundation/UniqueFd.h"

#include <fcntl.h>
#include <sys/stat.h>

kestrel::RegularFile::RegularFile(const char* path) {
    UniqueFd descriptor(open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat status {};
    if (!descriptor.valid() || fstat(descriptor.get(), &status) != 0 || !S_ISREG(status.st_mode))
        return;
    m_file.reset(fdopen(descriptor.get(), "rb"));
    if (m_file == nullptr)
        return;
    static_cast<void>(descriptor.release());
    m_length = status.st_size;
}
