// Keeps errno across calls that may change it.
#pragma once

#include <cerrno>

namespace kestrel {

// Restores errno at the end of a scope: callers log a failure first and look at errno afterwards.
class ErrnoKeeper {
public:
    ErrnoKeeper() noexcept : m_errno(errno) {}
    ~ErrnoKeeper() { errno = m_errno; }
    ErrnoKeeper(const ErrnoKeeper&) = delete;
    ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;

    // Restores it now too, for a "%m" in a format.
    void restore() const noexcept { errno = m_errno; }

private:
    int m_errno;
};

} // namespace kestrel
