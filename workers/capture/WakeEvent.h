// A descriptor on which one thread wakes another.
#pragma once

#include "foundation/UniqueFd.h"

#include <cstdint>
#include <sys/eventfd.h>

namespace kestrel::capture {

// An eventfd(2): readable from signal() until clear().
class WakeEvent {
public:
    WakeEvent() noexcept : m_fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

    [[nodiscard]] bool valid() const noexcept { return m_fd.valid(); }
    [[nodiscard]] int fd() const noexcept { return m_fd.get(); }
    void signal() noexcept {
        const std::uint64_t one = 1;
        [[maybe_unused]] const auto written = ::write(m_fd.get(), &one, sizeof one);
    }
    void clear() noexcept {
        std::uint64_t count = 0;
        [[maybe_unused]] const auto taken = ::read(m_fd.get(), &count, sizeof count);
    }

private:
    UniqueFd m_fd;
};

} // namespace kestrel::capture
