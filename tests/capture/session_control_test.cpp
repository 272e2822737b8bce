// The control loop with a session of the test's own: whatever that does, the service learns how it ended.
#include "capture/SessionControl.h"
#include "capture/worker_process.h"
#include "foundation/FixedText.h"

#include <csignal>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdexcept>

using namespace kestrel::capture;
using namespace std::chrono_literals;
using capture_test::Message;
using capture_test::ServiceQueues;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

struct Script {
    std::function<MaybeFailure()> start = [] { return MaybeFailure(); };
    std::function<void(const _VTRCmdData&)> deckAnswer = [](const _VTRCmdData&) {};
    std::function<void()> tick = [] {};
    std::function<Outcome()> end = [] { return Outcome{true, "Done"}; };
    std::optional<milliseconds> tickAfter;
    bool wakeAtStart = false;
    // What was called.
    std::vector<std::string> calls;
    bool over = false;
};

class ScriptedSession : public Session {
public:
    ScriptedSession(const SessionContext& context, Script& script) : m_context(context), m_script(script) {}

    MaybeFailure start() override {
        m_script.calls.push_back("start");
        m_began = Clock::now();
        if (m_script.wakeAtStart)
            m_context.wake.signal();
        return m_script.start();
    }
    bool over() const override { return m_script.over; }
    void cancel() override {
        m_script.calls.push_back("cancel");
        m_script.over = true;
    }
    void sendStatus() override { m_script.calls.push_back("status"); }
    Outcome end() override {
        m_script.calls.push_back("end");
        return m_script.end();
    }
    void woken() override {
        m_script.calls.push_back("woken");
        m_script.over = true;
    }
    void deckAnswer(const _VTRCmdData& answer) override {
        m_script.calls.push_back(std::string("answer ") + answer.serialPort);
        m_script.deckAnswer(answer);
    }
    Clock::time_point deadline() const override {
        return m_script.tickAfter ? m_began + *m_script.tickAfter : Clock::time_point::max();
    }
    void tick(Clock::time_point) override {
        m_script.calls.push_back("tick");
        m_script.tickAfter.reset();
        m_script.tick();
    }

private:
    const SessionContext m_context;
    Script& m_script;
    Clock::time_point m_began{};
};

class SessionControlTest : public testing::Test {
protected:
    // Runs the control loop in a thread of its own, since it blocks signals in the one it runs in.
    int run() {
        CSettings settings;
        EXPECT_TRUE(settings.SaveProfile(m_directory.path("settings.xml").c_str()));
        Options options;
        options.settingsFile = m_directory.path("settings.xml");
        options.writeQueue = m_queues.updateName();
        options.readQueue = m_queues.managerName();
        int result = -1;
        std::thread([&] {
            result = SessionControl(options, [this](const SessionContext& context, MaybeFailure&) {
                         return std::make_unique<ScriptedSession>(context, m_script);
                     }).run();
        }).join();
        while (m_queues.receive(0ms)) {
        }
        return result;
    }
    // What the service got, in order.
    std::vector<int> types() const {
        std::vector<int> result;
        for (const Message& message : m_queues.received())
            result.push_back(message.type);
        return result;
    }
    std::string results() const {
        for (const Message& message : m_queues.received())
            if (message.type == RESULTS_MSG)
                return message.text;
        return "";
    }

    capture_test::TemporaryDirectory m_directory;
    ServiceQueues m_queues;
    Script m_script;
};

TEST_F(SessionControlTest, HeartbeatResultsAndExitFrameAJob) {
    m_script.wakeAtStart = true;
    EXPECT_EQ(run(), exitSuccess);
    EXPECT_THAT(types(), ElementsAre(STATUS_MSG, RESULTS_MSG, EXIT_MSG));
    EXPECT_EQ(results(), "Done");
    EXPECT_THAT(m_script.calls, ElementsAre("start", "woken", "end", "status"));
}

TEST_F(SessionControlTest, AnOutcomeThatIsNoSuccessIsAnExitCode) {
    m_script.wakeAtStart = true;
    m_script.end = [] { return Outcome{false, "Not done"}; };
    EXPECT_EQ(run(), exitFailure);
    EXPECT_EQ(results(), "Not done");
}

TEST_F(SessionControlTest, ASessionThatDoesNotStartIsNotEnded) {
    m_script.start = [] { return MaybeFailure(Failure{20053, "No"}); };
    EXPECT_EQ(run(), exitFailure);
    EXPECT_THAT(types(), ElementsAre(STATUS_MSG, RESULTS_MSG, EXIT_MSG));
    EXPECT_EQ(results(), "No");
    EXPECT_THAT(m_script.calls, ElementsAre("start"));
}

TEST_F(SessionControlTest, TheCancelMessageCancelsOnceAndAnswersOfTheDeckAreHandedOn) {
    _VTRCmdData answer{};
    kestrel::copyText(answer.serialPort, "COM7");
    m_queues.send(VTR_CMD_RESPONSE_MSG, &answer, sizeof answer);
    m_queues.send(CANCEL_MSG);
    m_queues.send(CANCEL_MSG);
    EXPECT_EQ(run(), exitSuccess);
    EXPECT_THAT(m_script.calls, ElementsAre("start", "answer COM7", "cancel", "end", "status"));
}

TEST_F(SessionControlTest, TickComesAtTheDeadline) {
    m_script.tickAfter = 30ms;
    m_script.tick = [this] { m_script.over = true; };
    const auto begin = Clock::now();
    EXPECT_EQ(run(), exitSuccess);
    EXPECT_GE(Clock::now() - begin, 30ms);
    EXPECT_THAT(m_script.calls, ElementsAre("start", "tick", "end", "status"));
}

TEST_F(SessionControlTest, AnExceptionOfTheStartIsAResult) {
    m_script.start = []() -> MaybeFailure { throw std::runtime_error("no memory for it"); };
    EXPECT_EQ(run(), exitFailure);
    EXPECT_EQ(results(), "Error: Start Capture failed. (no memory for it)");
    EXPECT_EQ(types().back(), EXIT_MSG);
}

TEST_F(SessionControlTest, AnExceptionInTheMiddleStillEndsTheSession) {
    m_script.tickAfter = 1ms;
    m_script.tick = [] { throw std::runtime_error("broken"); };
    m_script.end = [] { return Outcome{true, "Recorded something"}; };
    EXPECT_EQ(run(), exitFailure);
    EXPECT_EQ(results(), "Error: Start Capture failed. (broken) Recorded something");
    EXPECT_THAT(m_script.calls, ElementsAre("start", "tick", "end", "status"));
    EXPECT_EQ(types().back(), EXIT_MSG);
}

TEST_F(SessionControlTest, AnExceptionOfTheEndIsAResultToo) {
    m_script.wakeAtStart = true;
    m_script.end = []() -> Outcome { throw std::runtime_error("broken at the end"); };
    EXPECT_EQ(run(), exitFailure);
    EXPECT_EQ(results(), "Error: Start Capture failed. (broken at the end)");
    EXPECT_EQ(types().back(), EXIT_MSG);
}

TEST_F(SessionControlTest, StatusIsAskedForOnceASecond) {
    m_script.tickAfter = 2500ms;
    m_script.tick = [this] { m_script.over = true; };
    EXPECT_EQ(run(), exitSuccess);
    EXPECT_THAT(m_script.calls, ElementsAre("start", "status", "status", "tick", "end", "status"));
}

} // namespace
