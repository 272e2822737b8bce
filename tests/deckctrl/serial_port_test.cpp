// The line itself, over a real terminal.
#include "deck_simulator/PseudoTerminal.h"
#include "deckctrl/SerialPort.h"
#include "deckctrl/deck_bench.h"

#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <future>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <thread>

using namespace deck_test;
using kestrel::deck::Exchange;
using kestrel::deck::SerialPort;
using kestrel::deck_simulator::PseudoTerminal;
using testing::HasSubstr;

namespace {

// The test is the deck.
class Line : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(terminal.open(directory.path("deck")), "");
        ASSERT_FALSE(port.open(terminal.path()));
        timing.reply = 2s;
        timing.byteGap = 100ms;
    }

    // Exchanges a play while the deck answers with these bytes.
    Exchange exchange(const std::vector<std::uint8_t>& answer) {
        auto deck = std::async(std::launch::async, [&] {
            pollfd entry{terminal.fd(), POLLIN, 0};
            poll(&entry, 1, 10'000);
            std::array<std::uint8_t, 64> bytes{};
            const auto count = terminal.read(bytes);
            terminal.write(answer);
            return std::vector<std::uint8_t>(bytes.begin(), bytes.begin() + std::max<long>(count, 0));
        });
        const Exchange result = port.exchange(Block(Code::play), timing, -1);
        sent = deck.get();
        return result;
    }

    // Whether the terminal refuses whoever else would open it, but for root.
    [[nodiscard]] bool reserved() const {
        int exclusive = 0;
        char name[64];
        EXPECT_EQ(ptsname_r(terminal.fd(), name, sizeof name), 0);
        const kestrel::UniqueFd other(::open(name, O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
        if (!other.valid())
            return errno == EBUSY;
        EXPECT_EQ(ioctl(other.get(), TIOCGEXCL, &exclusive), 0);
        return exclusive != 0;
    }

    ScratchDir directory;
    PseudoTerminal terminal;
    SerialPort port;
    Timing timing;
    std::vector<std::uint8_t> sent;
};

TEST_F(Line, IsSetTo38400Baud8BitsRawAndKeptFromChildProcesses) {
    const termios line = terminal.settings();
    EXPECT_EQ(cfgetospeed(&line), static_cast<speed_t>(B38400));
    EXPECT_EQ(cfgetispeed(&line), static_cast<speed_t>(B38400));
    EXPECT_EQ(line.c_cflag & CSIZE, static_cast<tcflag_t>(CS8));
    EXPECT_EQ(line.c_cflag & (CSTOPB | CRTSCTS), 0u);
    EXPECT_EQ(line.c_cflag & (CREAD | CLOCAL), static_cast<tcflag_t>(CREAD | CLOCAL));
    EXPECT_TRUE(line.c_cflag & PARODD);
    EXPECT_TRUE(line.c_iflag & INPCK);
    EXPECT_EQ(line.c_iflag & (IXON | IXOFF | ICRNL | ISTRIP), 0u);
    EXPECT_EQ(line.c_lflag & (ECHO | ICANON | ISIG), 0u);
    EXPECT_EQ(line.c_oflag & OPOST, 0u);
}

TEST_F(Line, IsOneControllersOnly) {
    SerialPort second;
    const auto problem = second.open(terminal.path());
    ASSERT_TRUE(problem);
    EXPECT_THAT(problem->text, HasSubstr("in use by another program"));
    EXPECT_TRUE(problem->inUse);
    EXPECT_TRUE(reserved()) << "the attempt changes nothing";
    port.close();
    EXPECT_FALSE(reserved());
    EXPECT_FALSE(second.open(terminal.path()));
}

TEST_F(Line, ABlockGoesOutAsItIsAndTheReplyComesBack) {
    const Exchange result = exchange({0x10, 0x01, 0x11});
    EXPECT_EQ(sent, (std::vector<std::uint8_t>{0x20, 0x01, 0x21}));
    EXPECT_EQ(result.result, Exchange::Result::answered);
    EXPECT_EQ(result.reply, Block(Code::ack));
}

TEST_F(Line, EveryByteValueGoesThrough) {
    std::vector<std::uint8_t> data{0x00, 0x03, 0x04, 0x0A, 0x0D, 0x11, 0x13, 0x1A, 0x7F, 0x80, 0xFE, 0xFF};
    const Block block(Code::status, data);
    EXPECT_EQ(exchange(block.bytes()).reply, block);
}

TEST_F(Line, NoByteIsSilence) {
    timing.reply = 30ms;
    const auto begin = Clock::now();
    EXPECT_EQ(port.exchange(Block(Code::play), timing, -1).result, Exchange::Result::silent);
    EXPECT_GE(Clock::now() - begin, 30ms);
}

TEST_F(Line, WhatIsNoReplyIsShown) {
    const Exchange garbage = exchange({0xE7, 0x3C, 0x00});
    EXPECT_EQ(garbage.result, Exchange::Result::garbled);
    EXPECT_EQ(garbage.detail, "no reply but E7 3C 00");
    const Exchange checksum = exchange({0x10, 0x01, 0x12});
    EXPECT_EQ(checksum.result, Exchange::Result::garbled);
    EXPECT_EQ(checksum.detail, "checksum error in reply 10 01 12");
}

TEST_F(Line, AReplyBrokenOffAtAnyByteIsShown) {
    const std::vector<std::uint8_t> whole{0x74, 0x04, 0x04, 0x03, 0x02, 0x01, 0x82};
    for (std::size_t length = 1; length < whole.size(); ++length) {
        const Exchange result = exchange({whole.begin(), whole.begin() + static_cast<long>(length)});
        EXPECT_EQ(result.result, Exchange::Result::garbled);
        EXPECT_THAT(result.detail, testing::StartsWith("broken off reply 74"));
    }
}

TEST_F(Line, WhatIsSwallowedIsNotWaitedForLongerThanItTakes) {
    timing.byteGap = 30ms;
    terminal.write(std::vector<std::uint8_t>{0x10, 0x01, 0x11});
    auto begin = Clock::now();
    port.swallow(timing, -1);
    EXPECT_GE(Clock::now() - begin, 30ms);
    // Nor without end.
    std::atomic<bool> enough{false};
    auto deck = std::async(std::launch::async, [&] {
        while (!enough) {
            terminal.write(std::vector<std::uint8_t>{0xFF});
            std::this_thread::sleep_for(1ms);
        }
    });
    begin = Clock::now();
    port.swallow(timing, -1);
    EXPECT_LT(Clock::now() - begin, 5s);
    enough = true;
    deck.get();
}

TEST_F(Line, ADeckThatSendsWithoutEndIsNotListenedToForLong) {
    timing.reply = 100ms;
    std::atomic<bool> enough{false};
    // As fast as it is read: bytes are ready at all times.
    auto deck = std::async(std::launch::async, [&] {
        const std::vector<std::uint8_t> flood(1000, 0xFF);
        while (!enough) {
            pollfd room{terminal.fd(), POLLOUT, 0};
            if (poll(&room, 1, 10) == 1)
                terminal.write(flood);
        }
    });
    const auto begin = Clock::now();
    const Exchange result = port.exchange(Block(Code::play), timing, -1);
    EXPECT_LT(Clock::now() - begin, 5s);
    enough = true;
    deck.get();
    EXPECT_EQ(result.result, Exchange::Result::garbled);
    EXPECT_LT(result.detail.size(), 100u);
}

TEST_F(Line, WhatIsNoReplyIsReadToItsEndHoweverLong) {
    const Exchange result = exchange(std::vector<std::uint8_t>(3000, 0xFF));
    EXPECT_EQ(result.result, Exchange::Result::garbled);
    EXPECT_EQ(result.detail, "no reply but FF FF FF FF FF FF FF FF FF FF FF FF FF FF FF FF ...");
    EXPECT_EQ(exchange({0x10, 0x01, 0x11}).reply, Block(Code::ack));
}

TEST_F(Line, WhatCameTooLateIsNotTakenForTheNextReply) {
    terminal.write(std::vector<std::uint8_t>{0x11, 0x12, 0x01, 0x24});
    EXPECT_EQ(exchange({0x10, 0x01, 0x11}).reply, Block(Code::ack));
}

TEST_F(Line, AHangUpIsALostLine) {
    auto result =
        std::async(std::launch::async, [&] { return port.exchange(Block(Code::play), timing, -1); });
    pollfd entry{terminal.fd(), POLLIN, 0};
    ASSERT_EQ(poll(&entry, 1, 10'000), 1);
    terminal.close();
    EXPECT_EQ(result.get().result, Exchange::Result::lost);
    EXPECT_EQ(port.exchange(Block(Code::play), timing, -1).result, Exchange::Result::lost);
}

TEST_F(Line, AWaitEndsWhenTheProcessIsToEnd) {
    timing.reply = 60s;
    const kestrel::UniqueFd stop(eventfd(1, EFD_CLOEXEC));
    EXPECT_EQ(port.exchange(Block(Code::play), timing, stop.get()).result, Exchange::Result::stopped);
}

TEST(SerialPort, WhatIsNoSerialPortIsRefused) {
    SerialPort port;
    EXPECT_EQ(port.open("/no/such/port")->text, "/no/such/port: No such file or directory (errno 2)");
    EXPECT_EQ(port.open("/tmp")->text, "/tmp is no serial port");
    EXPECT_EQ(port.open("/dev/null")->text, "/dev/null: is no serial port");
    EXPECT_FALSE(port.open("/dev/null")->inUse);
    EXPECT_FALSE(port.isOpen());
}

// What a program before has left behind, and a driver keeps.
TEST(SerialPort, NothingOfTheSettingsBeforeIsLeft) {
    const ScratchDir directory;
    PseudoTerminal terminal;
    ASSERT_EQ(terminal.open(directory.path("deck")), "");
    const kestrel::UniqueFd before(::open(terminal.path().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    ASSERT_TRUE(before.valid());
    constexpr tcflag_t input = IGNPAR | PARMRK | IXON | IXOFF | IXANY | ISTRIP | IUCLC | IGNCR;
    constexpr tcflag_t control = CMSPAR | CSTOPB | CRTSCTS;
    termios line{};
    ASSERT_EQ(tcgetattr(before.get(), &line), 0);
    line.c_iflag |= input;
    line.c_cflag |= control;
    line.c_lflag |= ICANON | ECHO | ISIG;
    cfsetispeed(&line, B9600);
    cfsetospeed(&line, B9600);
    ASSERT_EQ(tcsetattr(before.get(), TCSANOW, &line), 0);
    line = terminal.settings();
    ASSERT_EQ(line.c_iflag & input, input);
    ASSERT_EQ(line.c_cflag & control, control);

    SerialPort port;
    const auto problem = port.open(terminal.path());
    EXPECT_FALSE(problem) << problem->text;
    line = terminal.settings();
    EXPECT_EQ(line.c_iflag, static_cast<tcflag_t>(INPCK));
    EXPECT_EQ(line.c_cflag & control, 0u);
    EXPECT_EQ(line.c_cflag & (CSIZE | PARODD), static_cast<tcflag_t>(CS8 | PARODD));
    EXPECT_EQ(line.c_lflag & (ICANON | ECHO | ISIG), 0u);
    EXPECT_EQ(cfgetispeed(&line), static_cast<speed_t>(B38400));
    EXPECT_EQ(cfgetospeed(&line), static_cast<speed_t>(B38400));
}

TEST_F(Line, ADescriptorIsNotInherited) {
    // The only descriptor of this process that leads to the terminal's other end.
    char name[64];
    ASSERT_EQ(ptsname_r(terminal.fd(), name, sizeof name), 0);
    int found = 0;
    for (int fd = 0; fd < 256; ++fd) {
        char target[64] = {};
        const std::string path = "/proc/self/fd/" + std::to_string(fd);
        if (readlink(path.c_str(), target, sizeof target - 1) > 0 && std::string(target) == name) {
            ++found;
            EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC);
        }
    }
    EXPECT_EQ(found, 1);
}

} // namespace
