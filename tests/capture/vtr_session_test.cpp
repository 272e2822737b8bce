// What the deck says and what its stream shows come by different ways: here the test decides which is first.
#include "capture/VtrSession.h"

#include "capture/labelled_stream.h"
#include "capture/simulated_deck.h"
#include "capture/worker_process.h"

#include <cstring>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>

using namespace kestrel::capture;
using namespace capture_test;
using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

class VtrSessionTest : public testing::Test {
protected:
    VtrSessionTest() : m_deck("10:00:00:00", 3, Clock::now()) {
        auto& reception = m_settings.encoders[0];
        m_settings.numEncoders = 1;
        reception.ipAddress = 0x7F000001;
        reception.port = freePort();
        m_sender.emplace("127.0.0.1", reception.port);
        copy(m_settings.cmd.markInTime, "10:00:08:00");
        copy(m_settings.cmd.markOutTime, "10:00:10:24");
        copy(m_settings.cmd.outputFile, m_directory.path("news.ts").c_str());
        copy(m_settings.vtr.port, "COM1");
        m_settings.vtr.useInternalCue = true;
        m_deck.seekSeconds = 0.1;
        m_link.connect(m_queues.updateName(), m_queues.managerName());
        m_session.emplace(SessionContext{m_options, m_settings, m_map, m_link, m_wake});
    }
    template <std::size_t Size>
    static void copy(char (&field)[Size], const char* text) {
        std::snprintf(field, Size, "%s", text);
    }
    // The next command for the deck, if one comes in time; the session's deadlines are kept meanwhile.
    std::optional<_VTRCmdData> command() {
        const auto now = Clock::now();
        if (now >= m_session->deadline())
            m_session->tick(now);
        if (!m_queues.receive(5ms) || m_queues.received().back().type != VTR_CMD_REQUEST_MSG)
            return std::nullopt;
        _VTRCmdData record{};
        std::memcpy(&record, m_queues.received().back().payload.data(), sizeof record);
        return record;
    }
    // Answers commands as the deck does until something is reached.
    void serveUntil(const std::function<bool()>& reached) {
        for (const auto end = Clock::now() + 20s; !reached() && Clock::now() < end;)
            if (auto record = command()) {
                m_deck.handle(*record, Clock::now());
                m_session->deckAnswer(*record);
            }
        ASSERT_TRUE(reached());
    }
    // Until the recordings have something to say. The session is not told yet.
    [[nodiscard]] bool recordingsTurn() const {
        pollfd wait{m_wake.fd(), POLLIN, 0};
        return ::poll(&wait, 1, 10000) == 1;
    }

    TemporaryDirectory m_directory;
    Options m_options;
    CSettings m_settings;
    EncoderMap m_map;
    WakeEvent m_wake;
    ServiceQueues m_queues;
    ServiceLink m_link;
    SimulatedDeck m_deck;
    std::optional<Sender> m_sender;
    std::optional<VtrSession> m_session;
};

TEST_F(VtrSessionTest, ARecordingThatHasBegunIsNotUndoneByATroubleThatIsFoundLater) {
    ASSERT_FALSE(m_session->start());
    serveUntil([&] { return m_deck.count("play") == 1; });
    // Armed two seconds later.
    serveUntil([&, armed = Clock::now() + 2200ms] { return Clock::now() >= armed; });
    std::optional<_VTRCmdData> query;
    while (!query)
        query = command();
    LabelledStream stream({.timecode = "10:00:06:00"});
    m_sender->send(join(stream.frames(75)));
    ASSERT_TRUE(recordingsTurn());
    // Before mark-in this would end the attempt: the deck runs backwards.
    copy(query->timecode, "09:59:20:00");
    m_session->deckAnswer(*query);
    EXPECT_FALSE(m_session->over());
    m_sender->send(join(stream.frames(75)));
    m_deck.place("10:00:09:00", Clock::now());
    serveUntil([&] {
        m_session->woken();
        return m_session->over();
    });
    const Outcome outcome = m_session->end();
    EXPECT_TRUE(outcome.succeeded) << outcome.text;
    EXPECT_THAT(outcome.text, AllOf(StartsWith("Recorded 00:00:0"), HasSubstr("to 10:00:10:24")));
    EXPECT_EQ(m_deck.count("play"), 1);
    EXPECT_EQ(m_deck.heard().back(), "pause");
}

// The deck's answer is read before anybody has looked at the recording, which has ended meanwhile.
class AnswerAtTheEnd : public VtrSessionTest, public testing::WithParamInterface<bool> {};

TEST_P(AnswerAtTheEnd, DoesNotKeepTheDeckFromBeingPaused) {
    ASSERT_FALSE(m_session->start());
    serveUntil([&] { return m_deck.count("play") == 1; });
    serveUntil([&, armed = Clock::now() + 2200ms] { return Clock::now() >= armed; });
    LabelledStream stream({.timecode = "10:00:06:00"});
    m_deck.place("10:00:06:00", Clock::now());
    m_sender->send(join(stream.frames(75)));
    ASSERT_TRUE(recordingsTurn());
    m_wake.clear();
    m_session->woken();
    std::optional<_VTRCmdData> query;
    while (!query)
        query = command();
    ASSERT_EQ(query->commandKind, kestrel::vtrCurrentTime);
    m_deck.place("10:00:09:00", Clock::now());
    m_sender->send(join(stream.frames(75)));
    ASSERT_TRUE(recordingsTurn()) << "it has ended";
    m_deck.handle(*query, Clock::now());
    if (GetParam()) {
        query->errorCode = 20081;
        copy(query->errorText, "Error: no timecode can be read");
    }
    m_session->deckAnswer(*query);
    EXPECT_FALSE(m_session->over()) << "the deck plays";
    serveUntil([&] {
        m_session->woken();
        return m_session->over();
    });
    EXPECT_EQ(m_deck.heard().back(), "pause");
    EXPECT_FALSE(m_deck.playing());
    const Outcome outcome = m_session->end();
    EXPECT_TRUE(outcome.succeeded) << outcome.text;
    EXPECT_THAT(outcome.text, Not(HasSubstr("not stopped")));
}

INSTANTIATE_TEST_SUITE_P(VtrSession, AnswerAtTheEnd, testing::Bool(),
                         [](const auto& failed) { return failed.param ? "AnError" : "ATime"; });

TEST_F(VtrSessionTest, AnEndThatNobodyAskedForIsNotCalledCancelled) {
    ASSERT_FALSE(m_session->start());
    serveUntil([&] { return m_deck.count("play") == 1; });
    const Outcome outcome = m_session->end();
    EXPECT_FALSE(outcome.succeeded);
    EXPECT_EQ(outcome.text, "Nothing recorded");
}

} // namespace
