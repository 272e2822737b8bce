#include "PseudoTerminal.h"

#include "deckctrl/Failure.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kestrel::deck_simulator {

namespace {

// Why a link cannot take that name; empty when it can. One that a killed simulator left behind is replaced, a
// file, which may be a tape, is not.
std::string notReplaceable(const std::string& name) {
    struct stat status {};
    if (::lstat(name.c_str(), &status) != 0)
        return {};
    return S_ISLNK(status.st_mode) ? std::string() : name + ": is there and no symbolic link";
}

} // namespace

std::string PseudoTerminal::open(const std::string& link) {
    close();
    m_master.reset(::open("/dev/ptmx", O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
    std::array<char, 64> name{};
    if (!m_master.valid() || ::grantpt(m_master.get()) != 0 || ::unlockpt(m_master.get()) != 0 ||
        ::ptsname_r(m_master.get(), name.data(), name.size()) != 0)
        return "no pseudo-terminal: " + kestrel::errnoText(errno);
    m_slave = name.data();
    termios line{};
    if (::tcgetattr(m_master.get(), &line) == 0) {
        ::cfmakeraw(&line);
        ::tcsetattr(m_master.get(), TCSANOW, &line);
    }
    if (link.empty())
        return {};
    // Beside it and renamed, so that the name never leads nowhere.
    const std::string fresh = link + ".new";
    for (const std::string& path : {link, fresh})
        if (std::string problem = notReplaceable(path); !problem.empty())
            return problem;
    ::unlink(fresh.c_str());
    if (::symlink(m_slave.c_str(), fresh.c_str()) != 0 || ::rename(fresh.c_str(), link.c_str()) != 0)
        return link + ": " + kestrel::errnoText(errno);
    m_link = link;
    return {};
}

void PseudoTerminal::close() {
    // A link that leads elsewhere by now is somebody else's.
    std::array<char, 256> target{};
    if (!m_link.empty() && ::readlink(m_link.c_str(), target.data(), target.size() - 1) > 0 &&
        m_slave == target.data())
        ::unlink(m_link.c_str());
    m_link.clear();
    m_slave.clear();
    m_master.reset();
}

termios PseudoTerminal::settings() const noexcept {
    termios line{};
    ::tcgetattr(m_master.get(), &line);
    return line;
}

ssize_t PseudoTerminal::read(std::span<std::uint8_t> bytes) noexcept {
    const ssize_t count = ::read(m_master.get(), bytes.data(), bytes.size());
    if (count >= 0)
        return count;
    return errno == EAGAIN || errno == EINTR ? 0 : -1;
}

void PseudoTerminal::write(std::span<const std::uint8_t> bytes) noexcept {
    // A line that nobody reads loses what is sent over it, as a real one does.
    [[maybe_unused]] const ssize_t written = ::write(m_master.get(), bytes.data(), bytes.size());
}

} // namespace kestrel::deck_simulator
