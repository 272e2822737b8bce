// Ownership of a file descriptor.
#pragma once

#include <unistd.h>
#include <utility>

namespace kestrel {

// Closes the descriptor it owns. Adopting a raw descriptor is explicit; -1 means none.
class UniqueFd {
public:
    UniqueFd() noexcept = default;
    explicit UniqueFd(int fd) noexcept : m_fd(fd) {}
    ~UniqueFd() { reset(); }
    UniqueFd(UniqueFd&& other) noexcept : m_fd(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        if (this != &other)
            reset(other.release());
        return *this;
    }

    // The descriptor, still owned here; -1 when there is none.
    [[nodiscard]] int get() const noexcept { return m_fd; }
    // Whether there is a descriptor.
    [[nodiscard]] bool valid() const noexcept { return m_fd >= 0; }
    // Hands the descriptor over to the caller, who closes it; -1 when there is none.
    [[nodiscard]] int release() noexcept { return std::exchange(m_fd, -1); }
    // Closes the descriptor owned so far and owns fd from here on.
    void reset(int fd = -1) noexcept {
        if (m_fd >= 0)
            ::close(m_fd);
        m_fd = fd;
    }

private:
    int m_fd = -1;
};

} // namespace kestrel
