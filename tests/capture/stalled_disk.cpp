#include "capture/stalled_disk.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

namespace capture_test {

StalledDisk::StalledDisk(const std::string& path) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    EXPECT_EQ(::mkfifo(path.c_str(), 0666), 0);
    m_read.reset(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    EXPECT_TRUE(m_read.valid());
    ::fcntl(m_read.get(), F_SETPIPE_SZ, 4096);
}

bool StalledDisk::takeUpTo(std::size_t bytes) {
    while (m_bytes.size() < bytes) {
        unsigned char room[65536];
        pollfd wait{m_read.get(), POLLIN, 0};
        if (::poll(&wait, 1, 20'000) <= 0)
            return false;
        const ssize_t got = ::read(m_read.get(), room, std::min(sizeof room, bytes - m_bytes.size()));
        if (got == 0)
            return bytes == SIZE_MAX;
        if (got > 0)
            m_bytes.insert(m_bytes.end(), room, room + got);
        else if (errno != EAGAIN && errno != EINTR)
            return false;
    }
    return true;
}

Packets StalledDisk::packets() const {
    Packets result(m_bytes.size() / 188);
    EXPECT_EQ(m_bytes.size() % 188, 0U);
    for (std::size_t i = 0; i < result.size(); ++i)
        std::copy_n(m_bytes.begin() + static_cast<std::ptrdiff_t>(i * 188), 188, result[i].begin());
    return result;
}

} // namespace capture_test
