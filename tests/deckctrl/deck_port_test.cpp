// Requests that wait for their turn at one deck.
#include "deckctrl/DeckPort.h"
#include "deckctrl/deck_bench.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <system_error>

using namespace deck_test;
using kestrel::deck::AnswerBox;
using kestrel::deck::DeckPort;
using testing::HasSubstr;

namespace {

class Port : public testing::Test {
protected:
    void begin() { port.emplace(tape.simulator->device(), timing, answers); }
    // The first one has reached the deck, which does not answer it.
    void occupy() {
        tape.simulator->order("silent");
        ASSERT_TRUE(port->submit(request(kestrel::vtrCurrentTime, "COM1")));
        ASSERT_TRUE(eventually([&] { return !tape.simulator->received().empty(); }));
    }
    std::optional<_VTRCmdData> next() {
        for (;;) {
            if (auto answer = answers.take())
                return answer;
            pollfd entry{answers.fd(), POLLIN, 0};
            if (poll(&entry, 1, 20'000) != 1)
                return std::nullopt;
            answers.clear();
        }
    }

    Timing timing;
    SimulatedDeck tape;
    AnswerBox answers;
    std::optional<DeckPort> port;
};

TEST_F(Port, OneThatWaitedTooLongIsNotSent) {
    timing.reply = 100ms;
    timing.stale = 200ms;
    begin();
    occupy();
    ASSERT_TRUE(port->submit(request(kestrel::vtrTransport, "COM1", kestrel::vtrPlayCode)));
    EXPECT_EQ(next()->errorCode, 20080);
    const auto late = next();
    ASSERT_TRUE(late);
    EXPECT_EQ(late->errorCode, 20063);
    EXPECT_EQ(textOf(*late),
              "Error: Timeout waiting for response from VTR. (command 0 to VTR at COM1 waited 0 s for "
              "its turn and was not sent)");
    tape.simulator->order("well");
    ASSERT_TRUE(port->submit(request(kestrel::vtrCurrentTime, "COM1")));
    EXPECT_EQ(next()->errorCode, 0);
    EXPECT_THAT(tape.commands(), testing::Not(testing::Contains(Code::play)));
}

TEST_F(Port, MoreThanItCanHoldAreRefused) {
    timing.reply = 10s;
    begin();
    occupy();
    for (std::size_t i = 0; i < kestrel::deck::waitingRequests; ++i)
        EXPECT_TRUE(port->submit(request(kestrel::vtrCurrentTime, "COM1")));
    EXPECT_FALSE(port->submit(request(kestrel::vtrCurrentTime, "COM1")));
    // All are answered when it ends.
    port.reset();
    for (std::size_t i = 0; i <= kestrel::deck::waitingRequests; ++i)
        EXPECT_THAT(textOf(*next()), HasSubstr("the deck process ends"));
}

TEST_F(Port, IsUnusedWhenItsLineIsClosedAndNothingWaits) {
    timing.reply = 2s;
    begin();
    ASSERT_TRUE(port->submit(request(kestrel::vtrCurrentTime, "COM1")));
    EXPECT_EQ(next()->errorCode, 0);
    EXPECT_FALSE(port->unused()) << "its line is open";
    tape.simulator->order("unplug");
    EXPECT_TRUE(eventually([&] { return port->unused(); }));
    ASSERT_TRUE(port->submit(request(kestrel::vtrCurrentTime, "COM1")));
    EXPECT_EQ(next()->errorCode, 20080);
    EXPECT_TRUE(eventually([&] { return port->unused(); }));
    tape.simulator->order("plug");
    ASSERT_TRUE(port->submit(request(kestrel::vtrCurrentTime, "COM1")));
    EXPECT_EQ(next()->errorCode, 0);
}

TEST_F(Port, IsUsedWhileTheDeckIsAsked) {
    timing.reply = 10s;
    begin();
    occupy();
    EXPECT_FALSE(port->unused());
}

// Lowers the limit of this process's descriptors while it lives.
class LowerFileLimit {
public:
    explicit LowerFileLimit(rlim_t value) {
        getrlimit(RLIMIT_NOFILE, &m_former);
        const rlimit lower{value, m_former.rlim_max};
        setrlimit(RLIMIT_NOFILE, &lower);
    }
    ~LowerFileLimit() { setrlimit(RLIMIT_NOFILE, &m_former); }
    LowerFileLimit(const LowerFileLimit&) = delete;
    LowerFileLimit& operator=(const LowerFileLimit&) = delete;

private:
    rlimit m_former{};
};

// A thread that could not be woken would leave its requests without an answer, and the process without an
// end.
TEST(PortWithoutDescriptors, IsNotMade) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the sanitizers need descriptors of their own to look at an exception";
#endif
    AnswerBox answers;
    for (const int free : {0, 1}) {
        const kestrel::UniqueFd last(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0));
        ASSERT_TRUE(last.valid());
        int error = 0;
        try {
            const LowerFileLimit limit(static_cast<rlim_t>(last.get() + 1 + free));
            DeckPort port("/no/such/port", {}, answers);
        } catch (const std::system_error& problem) {
            error = problem.code().value();
        }
        EXPECT_EQ(error, EMFILE) << free;
    }
}

TEST_F(Port, ItEndsWhileItWaits) {
    begin();
    port->stop();
    port.reset();
    EXPECT_FALSE(answers.take());
}

} // namespace
