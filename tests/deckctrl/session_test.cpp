// The real program with real queues, and decks on real terminals.
#include "deckctrl/deck_bench.h"

#include "foundation/FixedText.h"
#include "foundation/ProcessTree.h"

#include <csignal>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>

using namespace deck_test;
using testing::HasSubstr;

namespace {

class Session : public testing::Test {
protected:
    Session() {
        process.name("A", a.simulator->device());
        process.name("B", b.simulator->device());
        process.options = {"-timeout", "500"};
    }

    SimulatedDeck a;
    SimulatedDeck b;
    DeckProcess process;
};

std::string timecodeOf(const _VTRCmdData& answer) {
    return std::string(kestrel::fieldText(answer.timecode));
}

TEST_F(Session, EveryCommandAndQueryIsCarriedOutAndAnswered) {
    process.start();
    EXPECT_EQ(timecodeOf(process.ask(request(kestrel::vtrCurrentTime, "A"))), "10:00:00:00");
    for (const int code :
         {kestrel::vtrPlayCode, kestrel::vtrPauseCode, kestrel::vtrStepForwardCode,
          kestrel::vtrStepReverseCode, kestrel::vtrFastForwardCode, kestrel::vtrRewindCode}) {
        const _VTRCmdData answer = process.ask(request(kestrel::vtrTransport, "A", code));
        EXPECT_EQ(answer.errorCode, 0) << code << textOf(answer);
        EXPECT_EQ(answer.transportCode, code);
    }
    EXPECT_EQ(process.ask(shuttle("A", -3)).errorCode, 0);
    EXPECT_EQ(process.ask(goTo("A", "10:00:20:10")).errorCode, 0);
    EXPECT_EQ(process.ask(request(kestrel::vtrIsSeeking, "A")).seeking, 1);
    EXPECT_TRUE(eventually([&] { return process.ask(request(kestrel::vtrIsSeeking, "A")).seeking == 0; }));
    EXPECT_EQ(timecodeOf(process.ask(request(kestrel::vtrCurrentTime, "A"))), "10:00:20:10");
    EXPECT_THAT(a.commands(), testing::IsSupersetOf({Code::timeSense, Code::play, Code::jogForward,
                                                     Code::stepForward, Code::stepReverse, Code::fastForward,
                                                     Code::rewind, Code::shuttleReverse, Code::cueUp}));
    for (const char* text : {"Play", "Pause", "Step forward", "Step reverse", "Fast forward", "Rewind",
                             "Shuttle at -3", "Cue up to 10:00:20:10", "Cue up to 10:00:20:10 complete"})
        EXPECT_THAT(process.log(), HasSubstr(std::string("[Deck:Info] A: ") + text + "\r\n"));
    EXPECT_THAT(process.log(), HasSubstr("[Deck:Debug] A: Play [20 01 21] -> ACK [10 01 11]"));
    EXPECT_THAT(process.log(),
                HasSubstr("[Deck:Info] A: connected, " + a.simulator->device() + ", device type 20 25"));
}

TEST_F(Session, TheReplyQueueComesBackAsItWas) {
    process.start();
    _VTRCmdData record = request(kestrel::vtrCurrentTime, "A");
    kestrel::copyText(record.replyQueueName, "/mgr_msg_q_12");
    EXPECT_EQ(kestrel::fieldText(process.ask(record).replyQueueName), "/mgr_msg_q_12");
    kestrel::copyText(record.serialPort, "nobody");
    const _VTRCmdData refused = process.ask(record);
    EXPECT_NE(refused.errorCode, 0);
    EXPECT_EQ(kestrel::fieldText(refused.replyQueueName), "/mgr_msg_q_12");
}

TEST_F(Session, TwoDecksAreDrivenAtOnce) {
    process.start();
    b.simulator->order("late 200");
    process.send(request(kestrel::vtrTransport, "A", kestrel::vtrPlayCode));
    process.send(request(kestrel::vtrTransport, "B", kestrel::vtrFastForwardCode));
    for (int i = 0; i < 2; ++i) {
        const auto answer = process.receive();
        ASSERT_TRUE(answer);
        EXPECT_EQ(answer->errorCode, 0) << textOf(*answer);
    }
    EXPECT_EQ(a.simulator->state(), Transport::State::play);
    EXPECT_EQ(b.simulator->state(), Transport::State::fastForward);
}

TEST_F(Session, ADeckThatDoesNotAnswerDoesNotDelayAnother) {
    process.options = {"-timeout", "3000"};
    process.start();
    EXPECT_EQ(process.ask(request(kestrel::vtrCurrentTime, "A")).errorCode, 0);
    EXPECT_EQ(process.ask(request(kestrel::vtrCurrentTime, "B")).errorCode, 0);
    b.simulator->order("silent");
    process.send(request(kestrel::vtrCurrentTime, "B"));
    ASSERT_TRUE(eventually([&] { return b.simulator->received().back().code() == Code::timeSense; }));
    // B keeps its thread for nine seconds.
    const auto begin = Clock::now();
    for (int i = 0; i < 20; ++i) {
        const _VTRCmdData answer = process.ask(request(kestrel::vtrCurrentTime, "A"));
        EXPECT_EQ(kestrel::fieldText(answer.serialPort), "A");
        EXPECT_EQ(answer.errorCode, 0) << textOf(answer);
    }
    EXPECT_LT(Clock::now() - begin, 3s);
    const auto late = process.receive();
    ASSERT_TRUE(late);
    EXPECT_EQ(kestrel::fieldText(late->serialPort), "B");
    EXPECT_EQ(late->errorCode, 20081);
}

TEST_F(Session, RequestsToOneDeckAreCarriedOutInTheirOrder) {
    process.start();
    for (int i = 0; i < 8; ++i)
        process.send(
            request(kestrel::vtrTransport, "A", i % 2 ? kestrel::vtrPauseCode : kestrel::vtrPlayCode));
    for (int i = 0; i < 8; ++i) {
        const auto answer = process.receive();
        ASSERT_TRUE(answer);
        EXPECT_EQ(answer->transportCode, i % 2 ? kestrel::vtrPauseCode : kestrel::vtrPlayCode);
    }
    EXPECT_EQ(a.simulator->state(), Transport::State::still);
}

TEST_F(Session, UnknownPortsKindsAndCodesAreAnswered) {
    process.start();
    EXPECT_EQ(textOf(process.ask(request(kestrel::vtrCurrentTime, "nobody"))),
              "Error: Could not connect to VTR at nobody. (no port has this name: neither COM1 to COM256, "
              "tty..., a "
              "path, nor in the port map)");
    EXPECT_EQ(textOf(process.ask(request(kestrel::vtrCurrentTime, ""))),
              "Error: Could not connect to VTR at . (the request names no port)");
    const _VTRCmdData missing = process.ask(request(kestrel::vtrCurrentTime, "ttyNONE1"));
    EXPECT_EQ(missing.errorCode, 20080);
    EXPECT_THAT(textOf(missing), HasSubstr("(/dev/ttyNONE1: No such file or directory"));
    EXPECT_EQ(process.ask(request(99, "A")).errorCode, 10020);
    EXPECT_EQ(process.ask(request(kestrel::vtrTransport, "A", 2)).errorCode, 10020);
    // A name that fills its field has no terminator.
    _VTRCmdData full = request(kestrel::vtrCurrentTime, "");
    std::fill(std::begin(full.serialPort), std::end(full.serialPort), 'x');
    EXPECT_THAT(textOf(process.ask(full)), HasSubstr("VTR at xxxxxxxxxxxx. "));
}

TEST_F(Session, ARecordOfAnyOtherSizeIsAnsweredWithAnError) {
    process.start();
    for (const std::size_t size : {0u, 1u, 4u, 16u, 487u, 489u, 996u}) {
        std::vector<unsigned char> bytes(size, 0);
        if (size > 8)
            bytes[4] = 'A';
        process.sendRaw(VTR_CMD_REQUEST_MSG, bytes);
        const auto answer = process.receive();
        ASSERT_TRUE(answer) << size;
        EXPECT_EQ(answer->errorCode, 10020);
        EXPECT_EQ(textOf(*answer), "Error: Unknown VTR request 0. (the request has " + std::to_string(size) +
                                       " bytes, 488 were expected)");
        EXPECT_EQ(kestrel::fieldText(answer->serialPort), size > 8 ? "A" : "");
    }
    EXPECT_TRUE(a.simulator->received().empty());
}

TEST_F(Session, OtherMessagesAreDroppedAndLogged) {
    process.start();
    process.sendRaw(CANCEL_MSG, {});
    process.sendRaw(12345, {1, 2, 3});
    EXPECT_EQ(process.ask(request(kestrel::vtrCurrentTime, "A")).errorCode, 0);
    EXPECT_THAT(process.log(), HasSubstr("A message of 4 bytes and type 5 is no request: dropped"));
    EXPECT_THAT(process.log(), HasSubstr("A message of 7 bytes and type 12345 is no request: dropped"));
}

TEST_F(Session, AFullOutQueueDoesNotKeepRequestsFromBeingRead) {
    process.start();
    // Ten answers fit.
    for (int i = 0; i < 30; ++i)
        process.send(request(kestrel::vtrTransport, "A", kestrel::vtrPlayCode));
    process.send(request(kestrel::vtrTransport, "B", kestrel::vtrPlayCode));
    EXPECT_TRUE(eventually([&] { return b.simulator->state() == Transport::State::play; }));
    const std::string warning = "The service does not read queue /deck_out_";
    EXPECT_TRUE(eventually([&] { return process.log().find(warning) != std::string::npos; }));
    for (int i = 0; i < 31; ++i)
        EXPECT_TRUE(process.receive()) << i;
}

TEST_F(Session, NamesWithoutADeviceTakeNoOthersPlace) {
    process.start();
    for (int i = 0; i < 70; ++i)
        EXPECT_THAT(textOf(process.ask(request(kestrel::vtrCurrentTime, "ttyNONE" + std::to_string(i)))),
                    HasSubstr("No such file"));
    EXPECT_EQ(process.ask(request(kestrel::vtrCurrentTime, "A")).errorCode, 0);
    // Among the threads of the ports is that of the process itself.
    EXPECT_LE(kestrel::test::threadsOf(process.pid()), kestrel::deck::mostDecks + 2);
}

TEST_F(Session, MorePortsThanItHasThreadsForAreRefused) {
    constexpr std::size_t busy = 4;
    process.options = {"-timeout", "5000"};
    std::vector<std::unique_ptr<SimulatedDeck>> decks;
    const auto name = [](std::size_t i) { return "deck" + std::to_string(i); };
    for (std::size_t i = 0; i < kestrel::deck::mostDecks; ++i) {
        decks.push_back(std::make_unique<SimulatedDeck>());
        process.name(name(i), decks.back()->simulator->device());
    }
    process.start();
    for (std::size_t i = busy; i < decks.size(); ++i)
        EXPECT_EQ(process.ask(request(kestrel::vtrCurrentTime, name(i))).errorCode, 0) << i;
    for (std::size_t i = 0; i < busy; ++i) {
        decks[i]->simulator->order("silent");
        process.send(request(kestrel::vtrCurrentTime, name(i)));
        ASSERT_TRUE(eventually([&] { return !decks[i]->simulator->received().empty(); }));
    }
    const _VTRCmdData refused = process.ask(request(kestrel::vtrCurrentTime, "A"));
    EXPECT_EQ(refused.errorCode, 20080);
    EXPECT_EQ(textOf(refused), "Error: Could not connect to VTR at A. (64 ports are in use already)");
    // One that goes makes room.
    decks.back()->simulator->order("unplug");
    EXPECT_TRUE(
        eventually([&] { return process.ask(request(kestrel::vtrCurrentTime, "A")).errorCode == 0; }, 4s));
}

TEST_F(Session, DescriptorsThatRunOutAreToldAndDoNotKeepItFromEnding) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the sanitizers need descriptors of their own to look at an exception";
#endif
    // From its own alone to those of both decks, with some to spare.
    constexpr unsigned least = 8;
    constexpr unsigned most = 20;
    bool eventsRanOut = false;
    for (unsigned files = least; files <= most; ++files) {
        DeckProcess few;
        few.name("A", a.simulator->device());
        few.name("B", b.simulator->device());
        few.options = process.options;
        few.mostFiles = files;
        few.start();
        for (const char* name : {"A", "B", "A"}) {
            few.send(request(kestrel::vtrCurrentTime, name));
            const auto answer = few.receive();
            ASSERT_TRUE(answer) << name << " with " << files << " descriptors, log:\n" << few.log();
            EXPECT_EQ(kestrel::fieldText(answer->serialPort), name);
            if (answer->errorCode != 0) {
                EXPECT_EQ(answer->errorCode, 20080);
                EXPECT_THAT(textOf(*answer), HasSubstr("Too many open files"));
                EXPECT_LT(files, most);
            }
            eventsRanOut |= textOf(*answer) == std::string("Error: Could not connect to VTR at ") + name +
                                                   ". (no thread for it: eventfd: Too many open files)";
        }
        few.sendRaw(EXIT_MSG, {});
        EXPECT_EQ(few.wait(), 0) << files;
    }
    EXPECT_TRUE(eventsRanOut);
}

TEST_F(Session, MoreRequestsThanADeckCanHoldAreRefused) {
    process.options = {"-timeout", "5000"};
    process.start();
    a.simulator->order("silent");
    process.send(request(kestrel::vtrCurrentTime, "A"));
    ASSERT_TRUE(eventually([&] { return !a.simulator->received().empty(); }));
    for (std::size_t i = 0; i < kestrel::deck::waitingRequests; ++i)
        process.send(request(kestrel::vtrCurrentTime, "A"));
    const _VTRCmdData refused = process.ask(request(kestrel::vtrTransport, "A", kestrel::vtrPlayCode));
    EXPECT_EQ(refused.errorCode, 20081);
    EXPECT_EQ(textOf(refused),
              "Error: Command 0 to VTR at A failed. (64 requests wait for this deck already)");
    EXPECT_THAT(process.log(), HasSubstr("[Deck:Error] " + textOf(refused)));
}

TEST_F(Session, TwoNamesOfOneDeviceAreOneDeck) {
    process.name("C", a.simulator->device());
    process.start();
    EXPECT_EQ(process.ask(request(kestrel::vtrTransport, "A", kestrel::vtrPlayCode)).errorCode, 0);
    EXPECT_EQ(process.ask(request(kestrel::vtrTransport, "C", kestrel::vtrPauseCode)).errorCode, 0);
    EXPECT_EQ(a.simulator->state(), Transport::State::still);
}

TEST_F(Session, TheExitMessageEndsIt) {
    process.start();
    EXPECT_EQ(process.ask(request(kestrel::vtrTransport, "A", kestrel::vtrPlayCode)).errorCode, 0);
    process.sendRaw(EXIT_MSG, {});
    EXPECT_EQ(process.wait(), 0);
    EXPECT_THAT(process.log(), HasSubstr("The service asks for the end"));
    EXPECT_EQ(a.simulator->state(), Transport::State::play) << "the deck itself goes on";
}

TEST_F(Session, SignalsEndIt) {
    for (const int number : {SIGTERM, SIGINT}) {
        DeckProcess one;
        one.name("A", a.simulator->device());
        one.start();
        EXPECT_EQ(one.ask(request(kestrel::vtrCurrentTime, "A")).errorCode, 0);
        one.signal(number);
        EXPECT_EQ(one.wait(), 0);
        EXPECT_THAT(one.log(), HasSubstr("A signal asks for the end"));
    }
}

TEST_F(Session, TheEndDoesNotWaitForADeck) {
    process.options = {"-timeout", "5000"};
    process.start();
    a.simulator->order("silent");
    process.send(request(kestrel::vtrCurrentTime, "A"));
    process.send(request(kestrel::vtrTransport, "A", kestrel::vtrPlayCode));
    ASSERT_TRUE(eventually([&] { return !a.simulator->received().empty(); }));
    process.sendRaw(EXIT_MSG, {});
    EXPECT_EQ(process.wait(3s), 0);
    for (int i = 0; i < 2; ++i) {
        const auto answer = process.receive();
        ASSERT_TRUE(answer) << "both are told";
        EXPECT_THAT(textOf(*answer), HasSubstr("the deck process ends"));
    }
}

TEST_F(Session, ItEndsWhenItsQueuesAreRemoved) {
    process.start();
    EXPECT_EQ(process.ask(request(kestrel::vtrCurrentTime, "A")).errorCode, 0);
    process.removeQueues();
    EXPECT_EQ(process.wait(), 1);
    EXPECT_THAT(process.log(), HasSubstr("The message queues have been removed"));
}

// As when the service was killed and started again: the older process sees within a second that its queues
// are gone.
TEST_F(Session, ADeckThatTheProcessBeforeStillHoldsIsWaitedFor) {
    process.start();
    EXPECT_EQ(process.ask(request(kestrel::vtrCurrentTime, "A")).errorCode, 0);
    DeckProcess next;
    next.name("A", a.simulator->device());
    next.options = process.options;
    next.start();
    process.removeQueues();
    const _VTRCmdData answer = next.ask(request(kestrel::vtrTransport, "A", kestrel::vtrPlayCode));
    EXPECT_EQ(answer.errorCode, 0) << textOf(answer);
    EXPECT_THAT(next.log(), HasSubstr("[Deck:Info] A: " + a.simulator->device() +
                                      ": in use by another program, tried again for 1500 ms"));
    EXPECT_EQ(a.simulator->state(), Transport::State::play);
    EXPECT_EQ(process.wait(), 1);
}

TEST_F(Session, AnswersThatNobodyReadsDoNotKeepItFromEnding) {
    process.start();
    // Ten answers fit.
    for (int i = 0; i < 12; ++i)
        process.send(request(kestrel::vtrTransport, "A", kestrel::vtrPlayCode));
    EXPECT_TRUE(eventually([&] { return process.log().find("answers wait") != std::string::npos; }));
    const auto begin = Clock::now();
    process.sendRaw(EXIT_MSG, {});
    EXPECT_EQ(process.wait(), 0);
    EXPECT_GE(Clock::now() - begin, 900ms) << "they have a second";
    EXPECT_LT(Clock::now() - begin, 3s);
    EXPECT_THAT(process.log(), HasSubstr("[Deck:Warning] Answers are left that nobody has read"));
}

TEST_F(Session, APortMapOfAnyDepthIsLeftOut) {
    const ScratchDir directory;
    {
        std::ofstream map(directory.path("deep.xml"));
        for (int i = 0; i < 300'000; ++i)
            map << "<a>";
    }
    process.options = {"-ports", directory.path("deep.xml")};
    process.start();
    EXPECT_THAT(textOf(process.ask(request(kestrel::vtrCurrentTime, "A"))),
                HasSubstr("no port has this name"));
    EXPECT_THAT(process.log(), HasSubstr("deep.xml cannot be read: it has more than 4096 tags"));
    process.sendRaw(EXIT_MSG, {});
    EXPECT_EQ(process.wait(), 0);
}

TEST_F(Session, ItEndsWhenThereAreNoQueues) {
    process.removeQueues();
    process.start();
    EXPECT_EQ(process.wait(), 1);
    EXPECT_THAT(process.log(), HasSubstr("Cannot open message queue /deck_in_"));
}

TEST_F(Session, AWrongCommandLineIsToldApart) {
    process.options = {"-nonsense"};
    process.start();
    EXPECT_EQ(process.wait(), 2);
}

TEST_F(Session, ADeckUnpluggedInTheMiddleComesBack) {
    process.start();
    EXPECT_EQ(process.ask(request(kestrel::vtrTransport, "A", kestrel::vtrPlayCode)).errorCode, 0);
    a.simulator->order("unplug");
    EXPECT_EQ(process.ask(request(kestrel::vtrCurrentTime, "A")).errorCode, 20080);
    EXPECT_EQ(process.ask(request(kestrel::vtrCurrentTime, "B")).errorCode, 0);
    a.simulator->order("plug");
    EXPECT_EQ(process.ask(request(kestrel::vtrCurrentTime, "A")).errorCode, 0);
    EXPECT_THAT(process.log(), HasSubstr("[Deck:Warning] A: the line was lost ("));
}

// Held on to, the device would keep its name, and the adapter get another when it is back.
TEST_F(Session, ALineThatGoesWhileNothingIsAskedIsLetGo) {
    process.start();
    EXPECT_EQ(process.ask(request(kestrel::vtrCurrentTime, "A")).errorCode, 0);
    const std::string terminal = std::filesystem::read_symlink(a.simulator->device());
    const auto held = [&] {
        for (const auto& entry :
             std::filesystem::directory_iterator("/proc/" + std::to_string(process.pid()) + "/fd")) {
            std::error_code gone;
            const std::string target = std::filesystem::read_symlink(entry.path(), gone);
            if (target == terminal || target == terminal + " (deleted)")
                return true;
        }
        return false;
    };
    EXPECT_TRUE(held());
    a.simulator->order("unplug");
    EXPECT_TRUE(eventually([&] { return !held(); }, 5s));
    EXPECT_TRUE(eventually([&] {
        return process.log().find("[Deck:Warning] A: the line was lost (the line hung up)") !=
               std::string::npos;
    }));
    a.simulator->order("plug");
    EXPECT_EQ(process.ask(request(kestrel::vtrCurrentTime, "A")).errorCode, 0);
}

TEST_F(Session, AnIdleProcessIsNotWokenUp) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer's own thread wakes ten times a second";
#endif
    process.start();
    EXPECT_EQ(process.ask(request(kestrel::vtrCurrentTime, "A")).errorCode, 0);
    // The answer is there a moment before the threads that gave it sleep: counted from when they do.
    long before = kestrel::test::timesAsleep(process.pid());
    const auto rest = [](long milliseconds) {
        const timespec pause{milliseconds / 1000, milliseconds % 1000 * 1'000'000};
        nanosleep(&pause, nullptr);
    };
    for (int i = 0; i < 20; ++i) {
        rest(100);
        const long now = kestrel::test::timesAsleep(process.pid());
        if (now == before)
            break;
        before = now;
    }
    rest(1500);
    EXPECT_LE(kestrel::test::timesAsleep(process.pid()) - before, 3) << "wake-ups in 1.5 s";
}

} // namespace
