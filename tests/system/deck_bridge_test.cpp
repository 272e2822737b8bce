// Deck requests over the protocol, with a deck-control process that does what the test says.
#include "foundation/ProcessTree.h"
#include "foundation/QueueMessages.h"
#include "system/service_under_test.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <fstream>
#include <future>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <mqueue.h>
#include <optional>

using namespace kestrel::test;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

// An existing message queue, used the way its other users do.
class JoinedQueue {
public:
    explicit JoinedQueue(const char* name) : m_queue(mq_open(name, O_RDWR | O_CLOEXEC)) {
        EXPECT_GE(m_queue, 0) << name;
    }
    ~JoinedQueue() { mq_close(m_queue); }
    JoinedQueue(const JoinedQueue&) = delete;
    JoinedQueue& operator=(const JoinedQueue&) = delete;

    // Messages that wait.
    [[nodiscard]] long waiting() const {
        mq_attr attributes{};
        return mq_getattr(m_queue, &attributes) == 0 ? attributes.mq_curmsgs : -1;
    }
    void send(int type, const _VTRCmdData& record) const {
        char bytes[4 + sizeof record];
        std::memcpy(bytes, &type, 4);
        std::memcpy(bytes + 4, &record, sizeof record);
        EXPECT_EQ(mq_send(m_queue, bytes, sizeof bytes, 0), 0);
    }
    // The record of the next message, which must be of that type and come within ten seconds.
    [[nodiscard]] _VTRCmdData receive(int wantedType) const {
        char bytes[1000] = {};
        timespec limit{};
        clock_gettime(CLOCK_REALTIME, &limit);
        limit.tv_sec += 10;
        _VTRCmdData record{};
        const ssize_t length = mq_timedreceive(m_queue, bytes, sizeof bytes, nullptr, &limit);
        EXPECT_EQ(length, static_cast<ssize_t>(4 + sizeof record)) << std::strerror(errno);
        int type = -1;
        std::memcpy(&type, bytes, 4);
        EXPECT_EQ(type, wantedType);
        std::memcpy(&record, bytes + 4, sizeof record);
        return record;
    }

private:
    mqd_t m_queue;
};

int timesIn(const std::string& text, const std::string& words) {
    int count = 0;
    for (std::size_t at = text.find(words); at != std::string::npos; at = text.find(words, at + 1))
        ++count;
    return count;
}

class DeckBridge : public testing::Test {
protected:
    // options go to the deck-control process.
    void start(const std::string& options = "") {
        service.set("DeckCtrl", "EXE", deckProgram + " --record " + record() + " " + options);
        service.set("DeckCtrl", "LOG_FILE", (service.root() / "deck.log").string());
        service.set("Logging", "LOG_LEVEL", "0");
        service.start();
    }
    [[nodiscard]] std::string record() const { return service.root() / "record"; }
    [[nodiscard]] std::string recorded() const { return contentOf(record()); }
    // The deck-control process that runs now: the one child of a service without jobs.
    [[nodiscard]] pid_t deck() const {
        const std::vector<pid_t> children = service.children();
        return children.size() == 1 ? children[0] : -1;
    }
    [[nodiscard]] std::string commandLine() const {
        return contentOf("/proc/" + std::to_string(deck()) + "/cmdline");
    }

    ServiceUnderTest service;
    std::string deckProgram = KESTREL_TEST_DECK;
};

// A tape job whose worker does nothing but wait, so that the test speaks on its queues in its place.
class DeckBridgeOfAWorker : public DeckBridge {
protected:
    // Options of the deck-control process, as for start().
    void startWithWorker(const std::string& options = "") {
        service.setWorker("--wait-file " + m_go);
        start(options);
    }
    void beginTapeJob() {
        ASSERT_EQ(
            service.ask("CAPTURE,JOB_BEGIN,1,CAPTURE_VTR_JOB,Filename=/media/tape.ts,EncoderIp=127.0.0.1,"
                        "MarkInTime=01:00:00:00,MarkOutTime=01:00:10:00,VTR_Com_Port=COM7"),
            "TRUE");
        m_fromWorker.emplace("/job_update_q_0");
        m_toWorker.emplace("/mgr_msg_q_0");
    }
    void letTheJobComplete() {
        std::ofstream(m_go) << "go";
        EXPECT_EQ(service.waitForState("1", "COMPLETE"), "TRUE - COMPLETE");
    }

    // What the worker asks of its deck: its time (6) or whether it seeks (7).
    void request(int kind = 6) {
        _VTRCmdData record{};
        record.commandKind = kind;
        std::strcpy(record.serialPort, "COM7");
        m_fromWorker->send(VTR_CMD_REQUEST_MSG, record);
    }
    [[nodiscard]] _VTRCmdData answer() { return m_toWorker->receive(VTR_CMD_RESPONSE_MSG); }
    [[nodiscard]] long answersWaiting() const { return m_toWorker->waiting(); }

private:
    const std::string m_go = service.root() / "go";
    std::optional<JoinedQueue> m_fromWorker;
    std::optional<JoinedQueue> m_toWorker;
};

constexpr int CANNOT_SEND = 20061;

TEST_F(DeckBridge, QueriesAreAnsweredWithWhatTheDeckSays) {
    start();
    EXPECT_EQ(service.ask("VTR_CURRENT_TIME,COM1"), "TRUE - 01:02:03:04");
    EXPECT_EQ(service.ask("VTR_SEEKING,COM2"), "TRUE - TRUE");
    EXPECT_EQ(recorded(), "6 0 COM1 '' 0 0\n"
                          "7 0 COM2 '' 0 1\n");
}

TEST_F(DeckBridge, CommandsReachTheDeckWithTheirCodes) {
    start();
    for (const char* word : {"Play", "Rewind", "FastForward", "StepForward", "StepReverse", "Pause"})
        EXPECT_EQ(service.ask(std::string("VTR_CMD,COM1,0,") + word), "TRUE") << word;
    EXPECT_EQ(service.ask("VTR_CMD,COM1,0,Shuttle,-5"), "TRUE");
    EXPECT_EQ(service.ask("VTR_CMD,COM1,0,GoTo,0,10:20:30:12"), "TRUE");
    EXPECT_EQ(recorded(), "0 1 COM1 '' 0 0\n"
                          "0 3 COM1 '' 0 0\n"
                          "0 4 COM1 '' 0 0\n"
                          "0 5 COM1 '' 0 0\n"
                          "0 6 COM1 '' 0 0\n"
                          "0 10 COM1 '' 0 0\n"
                          "10 7 COM1 '' -5 0\n"
                          "3 0 COM1 '10:20:30:12' 0 0\n");
}

TEST_F(DeckBridge, TheProcessIsToldItsQueuesAndItsLog) {
    start();
    std::string words = commandLine();
    for (char& c : words)
        c = c == '\0' ? ' ' : c;
    EXPECT_THAT(words, testing::EndsWith("-log " + (service.root() / "deck.log").string() +
                                         " -loglvl 1 -i /to_vtr_proc_q -o /from_vtr_proc_q "));
}

TEST_F(DeckBridge, AnErrorOfTheDeckIsTheAnswer) {
    start("--error 5:tape-jammed");
    EXPECT_EQ(service.ask("VTR_CURRENT_TIME,COM1"), "FALSE - tape-jammed");
    EXPECT_EQ(service.ask("VTR_CMD,COM1,0,Play"), "FALSE - tape-jammed");
}

TEST_F(DeckBridge, AnAnswerOfAnotherDeckIsDropped) {
    start("--other-port --noise");
    EXPECT_EQ(service.ask("VTR_CURRENT_TIME,COM1"), "TRUE - 01:02:03:04");
    EXPECT_THAT(service.log(),
                HasSubstr("A late answer of the VTR process is dropped: command 6, port COM9"));
    EXPECT_THAT(service.log(), HasSubstr("An answer of the VTR process has 6 bytes, 488 were expected."));
}

TEST_F(DeckBridge, AnAnswerOfTheSameDeckToAnotherKindOfRequestIsDropped) {
    start("--other-kind");
    EXPECT_EQ(service.ask("VTR_CURRENT_TIME,COM1"), "TRUE - 01:02:03:04");
    EXPECT_EQ(service.ask("VTR_SEEKING,COM1"), "TRUE - TRUE");
    EXPECT_THAT(service.log(),
                HasSubstr("A late answer of the VTR process is dropped: command 7, port COM1"));
    EXPECT_THAT(service.log(),
                HasSubstr("A late answer of the VTR process is dropped: command 6, port COM1"));
}

TEST_F(DeckBridge, ASuccessOfAnEarlierCommandIsNotThatOfTheNext) {
    start("--other-command --error 5:tape-jammed");
    EXPECT_EQ(service.ask("VTR_CMD,COM1,0,Pause"), "FALSE - tape-jammed");
    EXPECT_THAT(service.log(),
                HasSubstr("A late answer of the VTR process is dropped: command 0, port COM1"));
}

TEST_F(DeckBridge, AnAnswerWithoutATransportCodeIsThatToTheCommandThatWaits) {
    start("--no-code");
    EXPECT_EQ(service.ask("VTR_CMD,COM1,0,Pause"), "TRUE");
}

TEST_F(DeckBridge, AnAnswerThatNobodyWaitsForIsDropped) {
    start();
    _VTRCmdData record{};
    record.commandKind = 6;
    std::strcpy(record.serialPort, "COM1");
    std::strcpy(record.timecode, "09:09:09:09");
    JoinedQueue("/from_vtr_proc_q").send(VTR_CMD_RESPONSE_MSG, record);
    EXPECT_TRUE(service.waitForLog("A late answer of the VTR process is dropped: command 6, port COM1"));
    EXPECT_EQ(service.ask("VTR_CURRENT_TIME,COM1"), "TRUE - 01:02:03:04");
}

TEST_F(DeckBridge, ADeckThatDoesNotAnswerIsATimeoutAndItsLateAnswerIsDropped) {
    start("--ignore 1 --late");
    // The second waits for the first, and is then answered, not with what was meant for the first.
    auto second = std::async(std::launch::async, [&] {
        eventually([&] { return !recorded().empty(); }, 20s);
        return service.ask("VTR_CURRENT_TIME,COM2");
    });
    EXPECT_EQ(service.ask("VTR_CURRENT_TIME,COM1"), "FALSE - Error: Timeout waiting for response from VTR.");
    EXPECT_EQ(second.get(), "TRUE - 01:02:03:04");
    EXPECT_EQ(recorded(), "6 0 COM1 '' 0 0\n6 0 COM2 '' 0 0\n");
    EXPECT_THAT(service.log(),
                HasSubstr("A late answer of the VTR process is dropped: command 6, port COM1"));
}

TEST_F(DeckBridge, AProcessThatDiesIsNoticedAtOnceAndStartedAgain) {
    const std::string count = (service.root() / "count").string();
    start("--exit-on 2:3 --count " + count);
    const pid_t first = deck();
    EXPECT_EQ(service.ask("VTR_CURRENT_TIME,COM1"), "TRUE - 01:02:03:04");
    EXPECT_EQ(service.ask("VTR_CURRENT_TIME,COM1"),
              "FALSE - Error: The VTR process ended with exit status 3 before it answered.");
    EXPECT_THAT(service.log(),
                HasSubstr("VTR process ended with exit status 3. It is started again in 1 seconds."));
    EXPECT_TRUE(
        eventually([&] { return service.ask("VTR_CURRENT_TIME,COM1") == "TRUE - 01:02:03:04"; }, 20s));
    EXPECT_NE(deck(), first);
}

TEST_F(DeckBridge, WhileItIsDownRequestsAreRefusedAtOnceAndNeverCarriedOutLater) {
    const std::string count = (service.root() / "count").string();
    start("--exit-on 1:0 --count " + count);
    service.ask("VTR_CMD,COM1,0,Play");
    EXPECT_EQ(service.ask("VTR_CMD,COM1,0,Rewind"),
              "FALSE - Error: The VTR process has ended and is about to be started again.");
    EXPECT_TRUE(eventually([&] { return service.ask("VTR_CMD,COM1,0,Pause") == "TRUE"; }, 20s));
    EXPECT_THAT(recorded(), Not(HasSubstr("0 3 COM1")));
}

TEST_F(DeckBridge, AProcessThatIsKilledWhileAClientWaitsIsNamedWithItsSignal) {
    start("--deaf");
    const pid_t process = deck();
    ASSERT_GT(process, 0);
    const JoinedQueue toDeck("/to_vtr_proc_q");
    auto waiting = std::async(std::launch::async, [&] { return service.ask("VTR_CURRENT_TIME,COM1"); });
    ASSERT_TRUE(eventually([&] { return toDeck.waiting() == 1; }));
    ASSERT_EQ(signalTo(process, SIGKILL), 0);
    EXPECT_EQ(waiting.get(), "FALSE - Error: The VTR process ended by signal 9 before it answered.");
    EXPECT_TRUE(eventually([&] { return toDeck.waiting() == 0; })) << "the next one does not carry it out";
    EXPECT_THAT(service.log(), HasSubstr("VTR process ended by signal 9. It is started again in 1 seconds."));
}

TEST_F(DeckBridgeOfAWorker, ARequestThatTheProcessHadNotReadIsAnsweredOnTheWorkersQueue) {
    startWithWorker("--deaf");
    const pid_t process = deck();
    ASSERT_GT(process, 0);
    ASSERT_NO_FATAL_FAILURE(beginTapeJob());
    const JoinedQueue toDeck("/to_vtr_proc_q");
    for (const int kind : {6, 7})
        request(kind);
    ASSERT_TRUE(eventually([&] { return toDeck.waiting() == 2; }));
    EXPECT_EQ(answersWaiting(), 0) << "not answered before";
    ASSERT_EQ(signalTo(process, SIGKILL), 0);

    for (const int kind : {6, 7}) {
        const _VTRCmdData refusal = answer();
        EXPECT_EQ(refusal.commandKind, kind) << "in their order";
        EXPECT_STREQ(refusal.serialPort, "COM7");
        EXPECT_STREQ(refusal.replyQueueName, "/mgr_msg_q_0");
        EXPECT_EQ(refusal.errorCode, CANNOT_SEND);
        EXPECT_STREQ(refusal.errorText, "Error: Cannot send VTR command.  Send queue not available.");
    }
    EXPECT_EQ(toDeck.waiting(), 0) << "the next one does not carry them out";
    EXPECT_EQ(answersWaiting(), 0) << "each is answered once";
    letTheJobComplete();
}

TEST_F(DeckBridgeOfAWorker, ARequestThatTheProcessTookWithItIsAnsweredToo) {
    startWithWorker("--exit-on 1:3 --count " + (service.root() / "count").string());
    ASSERT_NO_FATAL_FAILURE(beginTapeJob());
    request();
    EXPECT_EQ(answer().errorCode, CANNOT_SEND);
    ASSERT_TRUE(service.waitForLog("VTR process ended with exit status 3"));

    // The next process answers, and nobody is answered twice.
    request();
    for (_VTRCmdData last = answer(); last.errorCode != 0; last = answer()) {
        EXPECT_EQ(last.errorCode, CANNOT_SEND) << "while it is down";
        request();
    }
    EXPECT_EQ(answersWaiting(), 0);
    letTheJobComplete();
}

TEST_F(DeckBridge, WithoutADeckProcessAClientsRequestIsATimeoutAndTheLogSaysWhy) {
    service.start();
    EXPECT_EQ(service.ask("VTR_CURRENT_TIME,COM1"), "FALSE - Error: Timeout waiting for response from VTR.");
    EXPECT_THAT(service.log(),
                HasSubstr("[Manager:Error] Error: Failed to send message on queue /to_vtr_proc_q. (no "
                          "deck control is configured: DeckCtrl EXE of the profile)\r\n"));
}

TEST_F(DeckBridge, ARequestThatFindsNoRoomIsATimeout) {
    start("--deaf");
    const JoinedQueue toDeck("/to_vtr_proc_q");
    while (toDeck.waiting() < 10)
        toDeck.send(VTR_CMD_REQUEST_MSG, _VTRCmdData{});
    EXPECT_EQ(service.ask("VTR_CURRENT_TIME,COM1"), "FALSE - Error: Timeout waiting for response from VTR.");
    EXPECT_THAT(service.log(),
                HasSubstr("[Manager:Error] Error: Failed to send message on queue /to_vtr_proc_q.\r\n"));
}

TEST_F(DeckBridgeOfAWorker, ARequestWhileTheProcessIsDownIsAnsweredAtOnce) {
    deckProgram = "/no/such/deck";
    startWithWorker();
    ASSERT_NO_FATAL_FAILURE(beginTapeJob());
    // The second pause is two seconds long.
    ASSERT_TRUE(service.waitForLog("It is started again in 2 seconds.", 20s));
    request();
    EXPECT_EQ(answer().errorCode, CANNOT_SEND);
    EXPECT_TRUE(service.waitForLog("[Manager:Error] Error: Failed to send message on queue /to_vtr_proc_q."));
    letTheJobComplete();
}

TEST_F(DeckBridgeOfAWorker, AnOutageIsLoggedOnceHoweverManyRequestsItRefuses) {
    startWithWorker("--exit-on 1:0 --count " + (service.root() / "count").string());
    ASSERT_NO_FATAL_FAILURE(beginTapeJob());
    service.ask("VTR_CMD,COM1,0,Play");
    ASSERT_TRUE(
        service.waitForLog("VTR process ended with exit status 0. It is started again in 1 seconds."));
    constexpr int requests = 5;
    for (int i = 0; i < requests; ++i) {
        request();
        EXPECT_EQ(answer().errorCode, CANNOT_SEND);
    }
    ASSERT_TRUE(
        eventually([&] { return service.ask("VTR_CURRENT_TIME,COM1") == "TRUE - 01:02:03:04"; }, 20s));
    EXPECT_TRUE(
        service.waitForLog("[Manager:Info] The VTR process answers again. Requests of workers refused while "
                           "it was down: 5."));
    EXPECT_EQ(timesIn(service.log(), "Failed to send message on queue /to_vtr_proc_q."), 1);
    letTheJobComplete();
}

TEST_F(DeckBridgeOfAWorker, EachOutageIsToldAlsoWhereNobodyAskedBetweenTwo) {
    startWithWorker();
    pid_t process = deck();
    ASSERT_GT(process, 0);
    ASSERT_NO_FATAL_FAILURE(beginTapeJob());
    const std::vector<pid_t> withWorker = service.children();
    for (int outage = 1; outage <= 2; ++outage) {
        ASSERT_EQ(signalTo(process, SIGKILL), 0);
        ASSERT_TRUE(
            eventually([&] { return timesIn(service.log(), "VTR process ended by signal 9.") == outage; }));
        request();
        EXPECT_EQ(answer().errorCode, CANNOT_SEND);
        EXPECT_EQ(timesIn(service.log(), "Failed to send message on queue /to_vtr_proc_q."), outage);
        const auto next = [&] {
            for (const pid_t child : service.children())
                if (child != process &&
                    std::find(withWorker.begin(), withWorker.end(), child) == withWorker.end())
                    return child;
            return pid_t{-1};
        };
        ASSERT_TRUE(eventually([&] { return next() > 0; }, 20s));
        process = next();
    }
    letTheJobComplete();
}

TEST_F(DeckBridgeOfAWorker, AFullQueueRefusesRequestsAndIsToldEachTime) {
    constexpr int ROOM = 10;
    constexpr int TOO_MANY = 2;
    startWithWorker("--deaf");
    ASSERT_NO_FATAL_FAILURE(beginTapeJob());
    const JoinedQueue toDeck("/to_vtr_proc_q");
    for (int i = 0; i < ROOM + TOO_MANY; ++i)
        request();
    for (int i = 0; i < TOO_MANY; ++i)
        EXPECT_EQ(answer().errorCode, CANNOT_SEND);
    EXPECT_EQ(toDeck.waiting(), ROOM);
    EXPECT_EQ(answersWaiting(), 0) << "those that wait are not answered";
    EXPECT_EQ(timesIn(service.log(), "Failed to send message on queue /to_vtr_proc_q."), TOO_MANY);
    letTheJobComplete();
    EXPECT_EQ(service.stop().code, 0) << "though its exit message finds no room";
}

TEST_F(DeckBridge, ThePausesGrow) {
    service.set("DeckCtrl", "EXE", "/no/such/deck");
    service.start();
    EXPECT_TRUE(service.waitForLog("It is started again in 1 seconds."));
    EXPECT_TRUE(service.waitForLog("It is started again in 2 seconds.", 20s));
    EXPECT_TRUE(service.waitForLog("It is started again in 4 seconds.", 20s));
    EXPECT_THAT(service.log(), HasSubstr("VTR process ended with exit status 255."));
    EXPECT_THAT(service.log(), Not(HasSubstr(" started: /no/such/deck"))) << "nothing was";
    EXPECT_THAT(service.log(),
                HasSubstr("[Manager:Error] Error: Could not run /no/such/deck: errno 2 (No such "
                          "file or directory)."));
}

TEST_F(DeckBridge, ASecondServiceLeavesTheDecksOfTheFirstAlone) {
    start();
    ServiceUnderTest second;
    second.set("DeckCtrl", "EXE", KESTREL_TEST_DECK);
    const auto process = second.run("debug");
    EXPECT_TRUE(process->wait(20s).has_value());
    EXPECT_THAT(second.log(),
                HasSubstr("[Manager:Error] Error: Could not create queue /to_vtr_proc_q. (a running "
                          "service of this host has it)"));
    EXPECT_THAT(second.log(), Not(HasSubstr("VTR process")));
    EXPECT_EQ(service.ask("VTR_CURRENT_TIME,COM1"), "TRUE - 01:02:03:04");
    EXPECT_THAT(service.log(), Not(HasSubstr("VTR process ended")));
}

TEST_F(DeckBridge, TheQueuesOfAServiceThatWasKilledAreTakenOver) {
    start();
    const pid_t left = deck();
    ASSERT_GT(left, 0);
    service.process().signal(SIGKILL);
    ASSERT_TRUE(service.process().wait(20s).has_value());
    service.start();
    EXPECT_EQ(service.ask("VTR_CURRENT_TIME,COM1"), "TRUE - 01:02:03:04");
    EXPECT_EQ(signalTo(left, SIGKILL), 0) << "the first one's, which nothing else ends";
}

TEST_F(DeckBridge, TheServicesEndEndsTheProcessAndItsQueues) {
    start();
    const pid_t process = deck();
    ASSERT_GT(process, 0);
    EXPECT_EQ(service.stop().code, 0);
    EXPECT_THAT(service.log(), HasSubstr("[Manager:Info] Ending VTR Process\r\n"));
    EXPECT_THAT(service.log(), HasSubstr("[Manager:Info] VTR process ended with exit status 0\r\n"));
    EXPECT_THAT(service.log(), HasSubstr("[Manager:Debug] Thread 1 complete.\r\n"));
    EXPECT_EQ(signalTo(process, 0), -1);
    EXPECT_EQ(mq_open("/to_vtr_proc_q", O_RDONLY), -1);
    EXPECT_EQ(mq_open("/from_vtr_proc_q", O_RDONLY), -1);
}

TEST_F(DeckBridge, AProcessThatDoesNotEndIsTerminated) {
    start("--deaf");
    EXPECT_EQ(service.stop().code, 0);
    EXPECT_THAT(service.log(), HasSubstr("[Manager:Info] VTR process ended by signal 15\r\n"));
}

TEST_F(DeckBridge, AStubbornOneIsKilled) {
    start("--stubborn");
    EXPECT_EQ(service.stop().code, 0);
    EXPECT_THAT(service.log(), HasSubstr("[Manager:Info] VTR process ended by signal 9\r\n"));
}

TEST_F(DeckBridge, AShutdownLetsAWaitingClientGo) {
    start("--ignore 1");
    auto waiting = std::async(std::launch::async, [&] { return service.ask("VTR_CURRENT_TIME,COM1"); });
    ASSERT_TRUE(eventually([&] { return !recorded().empty(); }));
    EXPECT_EQ(service.stop().code, 0);
    EXPECT_EQ(waiting.get(), "FALSE - Error: The service is shutting down.");
}

TEST_F(DeckBridge, AProcessThatReadsNothingDoesNotHoldTheService) {
    start("--deaf");
    auto waiting = std::async(std::launch::async, [&] { return service.ask("VTR_CURRENT_TIME,COM1"); });
    EXPECT_EQ(service.ask("PING_SERVICE"), "TRUE - ALIVE");
    service.stop();
    EXPECT_EQ(waiting.get(), "FALSE - Error: The service is shutting down.");
}

TEST_F(DeckBridge, LongProfilePathsReachTheProcessWhole) {
    const std::string log = (service.root() / (std::string(180, 'l') + ".log")).string();
    service.set("DeckCtrl", "EXE", KESTREL_TEST_DECK);
    service.set("DeckCtrl", "LOG_FILE", log);
    service.start();
    EXPECT_THAT(commandLine(), HasSubstr(log));
}

TEST_F(DeckBridge, AWaitingBridgeMakesNoWakeUps) {
    start();
    service.ask("VTR_CURRENT_TIME,COM1");
    ASSERT_TRUE(service.waitForLog("Number of handles: 0"));
    const auto switches = [&] { return timesAsleep(service.process().pid()); };
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer's own thread wakes ten times a second";
#endif
    const long before = switches();
    timespec interval{2, 0};
    nanosleep(&interval, nullptr);
    EXPECT_LE(switches() - before, 6);
}

} // namespace
