#include "SerialPort.h"

#include "Failure.h"
#include "NinePin.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <poll.h>
#include <span>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <termios.h>
#include <vector>

namespace kestrel::deck {
namespace {

// Major numbers of the slaves of pseudo-terminals, which have no parity to set.
constexpr unsigned firstPtyMajor = 136;
constexpr unsigned lastPtyMajor = 143;

constexpr std::size_t shownBytes = 16;
static_assert(garbageBytes > shownBytes && garbageBytes > Block::maxBytes,
              "what is kept shows that there was more, and is more than a reply can be");

// What makes a byte 8 bits, odd parity, one stop bit, and how.
constexpr tcflag_t frameFlags = CSIZE | PARENB | PARODD | CMSPAR | CSTOPB;
constexpr tcflag_t frame = CS8 | PARENB | PARODD;

OpenProblem inUse() {
    return {"in use by another program", true};
}

std::string shownText(const std::vector<std::uint8_t>& bytes) {
    return hexText(std::span(bytes).first(std::min(bytes.size(), shownBytes))) +
           (bytes.size() > shownBytes ? " ..." : "");
}

// Decks answer with blocks of two groups only.
bool canBeginReply(std::uint8_t byte) noexcept {
    return byte >> 4 == 1 || byte >> 4 == 7;
}

Exchange failed(Exchange::Result result, std::string detail) {
    return {result, {}, std::move(detail)};
}

} // namespace

std::optional<OpenProblem> SerialPort::open(const std::string& device) {
    struct stat status {};
    if (::stat(device.c_str(), &status) != 0)
        return OpenProblem{device + ": " + errnoText(errno)};
    if (!S_ISCHR(status.st_mode))
        return OpenProblem{device + " is no serial port"};
    // Without O_NONBLOCK the open would wait for a carrier that no deck gives.
    m_fd.reset(::open(device.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
    auto problem = m_fd.valid()     ? configure()
                   : errno == EBUSY ? inUse()
                                    : std::optional(OpenProblem{errnoText(errno)});
    if (problem) {
        close();
        problem->text.insert(0, device + ": ");
    }
    return problem;
}

void SerialPort::close() noexcept {
    // The reservation belongs to the terminal, and outlives the descriptor where the terminal does. That of
    // another program stays.
    if (m_reserved)
        ::ioctl(m_fd.get(), TIOCNXCL);
    m_reserved = false;
    m_fd.reset();
}

std::optional<OpenProblem> SerialPort::configure() {
    termios line{};
    if (::tcgetattr(m_fd.get(), &line) != 0)
        return OpenProblem{"is no serial port"};
    // A second lock, which also keeps privileged programs apart.
    if (::flock(m_fd.get(), LOCK_EX | LOCK_NB) != 0)
        return inUse();
    if (::ioctl(m_fd.get(), TIOCEXCL) != 0)
        return OpenProblem{"cannot be reserved: " + errnoText(errno)};
    m_reserved = true;
    ::cfmakeraw(&line);
    line.c_cflag &= ~static_cast<tcflag_t>(frameFlags | CRTSCTS);
    line.c_cflag |= frame | CREAD | CLOCAL;
    // Nothing else that cfmakeraw leaves as it was: a byte with wrong parity reads as 0, which the checksum
    // then finds, and no byte stops the line.
    line.c_iflag = INPCK;
    line.c_cc[VMIN] = 1;
    line.c_cc[VTIME] = 0;
    ::cfsetispeed(&line, B38400);
    ::cfsetospeed(&line, B38400);
    struct stat status {};
    ::fstat(m_fd.get(), &status);
    const unsigned number = major(status.st_rdev);
    const bool pty = number >= firstPtyMajor && number <= lastPtyMajor;
    // A pseudo-terminal takes all but the parity, which may count as an error or not.
    if (::tcsetattr(m_fd.get(), TCSANOW, &line) != 0 && !(pty && errno == EINVAL))
        return OpenProblem{"cannot be set to 38,400 baud 8O1: " + errnoText(errno)};
    // tcsetattr is content when any one of the settings was taken.
    termios taken{};
    ::tcgetattr(m_fd.get(), &taken);
    const tcflag_t looked = pty ? frameFlags & ~static_cast<tcflag_t>(PARENB) : frameFlags;
    if (::cfgetispeed(&taken) != B38400 || ::cfgetospeed(&taken) != B38400 ||
        (taken.c_cflag & looked) != (frame & looked))
        return OpenProblem{"does not take 38,400 baud 8O1"};
    ::tcflush(m_fd.get(), TCIOFLUSH);
    return std::nullopt;
}

SerialPort::Wait SerialPort::wait(short events, Clock::time_point until, int stopFd) const {
    for (;;) {
        const auto left = std::chrono::ceil<milliseconds>(until - Clock::now()).count();
        pollfd entries[] = {{m_fd.get(), events, 0}, {stopFd, POLLIN, 0}};
        const int ready = ::poll(entries, std::size(entries), static_cast<int>(std::max<long>(left, 0)));
        if (ready < 0 && errno == EINTR)
            continue;
        if (entries[1].revents != 0)
            return Wait::stopped;
        if (entries[0].revents & events)
            return Wait::ready;
        if (ready < 0 || (entries[0].revents & (POLLHUP | POLLERR | POLLNVAL)))
            return Wait::hangup;
        if (left <= 0)
            return Wait::timeout;
    }
}

Exchange SerialPort::exchange(const Block& block, const Timing& timing, int stopFd) {
    ::tcflush(m_fd.get(), TCIFLUSH);
    if (auto problem = send(block, timing, stopFd))
        return *problem;
    return receive(timing, stopFd);
}

std::optional<Exchange> SerialPort::send(const Block& block, const Timing& timing, int stopFd) {
    const std::vector<std::uint8_t> bytes = block.bytes();
    const Clock::time_point until = Clock::now() + timing.reply;
    for (std::size_t sent = 0; sent < bytes.size();) {
        const ssize_t count = ::write(m_fd.get(), bytes.data() + sent, bytes.size() - sent);
        if (count >= 0) {
            sent += static_cast<std::size_t>(count);
            continue;
        }
        if (errno == EINTR)
            continue;
        if (errno != EAGAIN)
            return failed(Exchange::Result::lost, errnoText(errno));
        switch (wait(POLLOUT, until, stopFd)) {
        case Wait::ready:
            break;
        case Wait::stopped:
            return failed(Exchange::Result::stopped, "");
        case Wait::hangup:
            return failed(Exchange::Result::lost, "the line hung up");
        case Wait::timeout:
            return failed(Exchange::Result::lost, "the port takes no bytes");
        }
    }
    return std::nullopt;
}

void SerialPort::swallow(const Timing& timing, int stopFd) {
    const Clock::time_point end = Clock::now() + garbageTime;
    std::uint8_t bytes[Block::maxBytes];
    while (wait(POLLIN, std::min(Clock::now() + timing.byteGap, end), stopFd) == Wait::ready)
        if (::read(m_fd.get(), bytes, sizeof bytes) == 0 || Clock::now() >= end)
            return;
}

// What cannot be a reply is read to its end, though the first bytes tell: what is left of it would be taken
// for the beginning of the next reply. Its end is a gap, or comes when it has lasted too long.
Exchange SerialPort::receive(const Timing& timing, int stopFd) {
    BlockParser parser;
    std::vector<std::uint8_t> seen;
    const char* trouble = nullptr;
    Clock::time_point until = Clock::now() + timing.reply;
    const Clock::time_point end = until + garbageTime;
    for (;;) {
        const Wait event = wait(POLLIN, std::min(until, end), stopFd);
        if (event == Wait::stopped)
            return failed(Exchange::Result::stopped, "");
        if (event == Wait::hangup)
            return failed(Exchange::Result::lost, "the line hung up");
        // Asked for by itself: bytes that are ready count before the time in a wait.
        if (event == Wait::timeout || (trouble && Clock::now() >= end)) {
            if (seen.empty())
                return failed(Exchange::Result::silent, "");
            return failed(Exchange::Result::garbled,
                          (trouble ? trouble : "broken off reply ") + shownText(seen));
        }
        std::uint8_t bytes[Block::maxBytes];
        const ssize_t count = ::read(m_fd.get(), bytes, sizeof bytes);
        if (count < 0 && (errno == EAGAIN || errno == EINTR))
            continue;
        if (count <= 0)
            return failed(Exchange::Result::lost, count == 0 ? "the line hung up" : errnoText(errno));
        for (const std::uint8_t byte : std::span(bytes, static_cast<std::size_t>(count))) {
            if (seen.empty() && !canBeginReply(byte))
                trouble = "no reply but ";
            if (seen.size() < garbageBytes)
                seen.push_back(byte);
            if (trouble)
                continue;
            switch (parser.feed(byte)) {
            case BlockParser::State::complete:
                return {Exchange::Result::answered, parser.block(), ""};
            case BlockParser::State::badChecksum:
                trouble = "checksum error in reply ";
                break;
            case BlockParser::State::incomplete:
                break;
            }
        }
        until = Clock::now() + timing.byteGap;
    }
}

} // namespace kestrel::deck
