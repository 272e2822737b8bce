// Deck requests all the way: client, service, deck-control process, serial line, deck. Only the decks are
// simulated.
#include "deck_simulator/DeckSimulator.h"
#include "foundation/ProcessTree.h"
#include "system/service_under_test.h"

#include <csignal>
#include <fstream>
#include <future>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

using namespace kestrel::test;
using kestrel::deck::Block;
using kestrel::deck::Code;
using kestrel::deck_simulator::DeckSimulator;
using kestrel::deck_simulator::SimulatorOptions;
using kestrel::deck_simulator::Transport;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

class Decks : public testing::Test {
protected:
    Decks() {
        one.emplace(options("one", "25", {10, 0, 0, 0, false}));
        two.emplace(options("two", "29.97df", {1, 0, 0, 0, true}));
    }

    // COM1 and "Studio B" are the two decks; COM9 is a port without one.
    void start() {
        ASSERT_EQ(one->start(), "");
        ASSERT_EQ(two->start(), "");
        const std::string map = service.root() / "ports.xml";
        std::ofstream(map) << "<DeckPorts>\n<Port NAME=\"COM1\" DEVICE=\"" << one->device()
                           << "\"/>\n<Port NAME=\"Studio B\" DEVICE=\"" << two->device()
                           << "\"/>\n<Port NAME=\"COM9\" DEVICE=\"" << (service.root() / "nothing").string()
                           << "\"/>\n</DeckPorts>\n";
        service.set("DeckCtrl", "EXE", KESTREL_DECK_PROGRAM " -timeout 1000 -ports " + map);
        service.set("DeckCtrl", "LOG_FILE", (service.root() / "deck.log").string());
        service.set("DeckCtrl", "LOG_LEVEL", "0");
        service.start();
    }

    [[nodiscard]] SimulatorOptions options(const std::string& name, const char* rate,
                                           const kestrel::deck::TapeTime& start) const {
        SimulatorOptions result;
        result.link = service.root() / name;
        result.rate = *kestrel::deck_simulator::findRate(rate);
        result.start = start;
        result.mechanics.spinUp = 10ms;
        result.mechanics.seek = 300ms;
        return result;
    }

    ServiceUnderTest service;
    std::optional<DeckSimulator> one;
    std::optional<DeckSimulator> two;
};

TEST_F(Decks, WhatTheDeckProcessWritesIsForOthersToReadOnly) {
    const mode_t before = umask(0);
    start();
    umask(before);
    // Of a service without a umask, as after "start". The digits are octal ones.
    EXPECT_TRUE(eventually([&] {
        const std::vector<pid_t> children = service.children();
        return children.size() == 1 &&
               statusNumber("/proc/" + std::to_string(children[0]) + "/status", "Umask") == 22;
    }));
}

TEST_F(Decks, EveryCommandWordMovesTheTape) {
    struct Row {
        const char* words;
        Block block;
        Transport::State state;
    };
    const Row rows[] = {
        {"GoTo,0,20:30:00:00", Block(Code::cueUp, {0x00, 0x00, 0x30, 0x20}), Transport::State::cueUp},
        {"Play", Block(Code::play), Transport::State::play},
        {"FastForward", Block(Code::fastForward), Transport::State::fastForward},
        {"Pause", Block(Code::jogForward, {0x00}), Transport::State::still},
        {"StepForward", Block(Code::stepForward), Transport::State::still},
        {"StepReverse", Block(Code::stepReverse), Transport::State::still},
        {"Shuttle,2", Block(Code::shuttleForward, {0x4A}), Transport::State::shuttle},
        {"Shuttle,-1", Block(Code::shuttleReverse, {0x40}), Transport::State::shuttle},
        {"Rewind", Block(Code::rewind), Transport::State::rewind},
    };
    // Every state lasts a minute at least, however late it is looked at.
    SimulatorOptions slow = options("one", "25", {10, 0, 0, 0, false});
    slow.seconds = 12 * 3600;
    slow.mechanics.seek = 60s;
    slow.mechanics.windSpeed = 5;
    one.emplace(slow);
    start();
    for (const Row& row : rows) {
        EXPECT_EQ(service.ask(std::string("VTR_CMD,COM1,0,") + row.words), "TRUE") << row.words;
        EXPECT_EQ(one->received().back(), row.block) << row.words;
        EXPECT_EQ(one->state(), row.state) << row.words;
        if (row.state == Transport::State::cueUp) {
            EXPECT_TRUE(eventually([&] { return one->time().secondsOfDay() >= (10 * 60 + 10) * 60; }))
                << "ten minutes from the tape's begin, which the rows below go back to";
        }
    }
    EXPECT_TRUE(two->received().empty());
}

TEST_F(Decks, TheTimeAndTheSeekingAreTheDecks) {
    SimulatorOptions slow = options("one", "25", {10, 0, 0, 0, false});
    slow.mechanics.seek = 3s; // a busy machine asks late
    one.emplace(slow);
    start();
    EXPECT_EQ(service.ask("VTR_CURRENT_TIME,COM1"), "TRUE - 10:00:00:00");
    EXPECT_EQ(service.ask("VTR_CURRENT_TIME,Studio B"), "TRUE - 01:00:00;00");
    EXPECT_EQ(service.ask("VTR_SEEKING,COM1"), "TRUE - FALSE");
    EXPECT_EQ(service.ask("VTR_CMD,COM1,0,GoTo,0,10:30:00:12"), "TRUE");
    EXPECT_EQ(service.ask("VTR_SEEKING,COM1"), "TRUE - TRUE");
    EXPECT_EQ(service.ask("VTR_SEEKING,Studio B"), "TRUE - FALSE");
    EXPECT_TRUE(eventually([&] { return service.ask("VTR_SEEKING,COM1") == "TRUE - FALSE"; }));
    EXPECT_EQ(service.ask("VTR_CURRENT_TIME,COM1"), "TRUE - 10:30:00:12");
}

TEST_F(Decks, DropFrameTimesGoBothWays) {
    start();
    EXPECT_EQ(service.ask("VTR_CMD,Studio B,0,GoTo,0,01:01:00;02"), "TRUE");
    EXPECT_TRUE(eventually([&] { return service.ask("VTR_SEEKING,Studio B") == "TRUE - FALSE"; }));
    EXPECT_EQ(service.ask("VTR_CURRENT_TIME,Studio B"), "TRUE - 01:01:00;02");
    EXPECT_EQ(service.ask("VTR_CMD,Studio B,0,StepReverse"), "TRUE");
    EXPECT_EQ(service.ask("VTR_CURRENT_TIME,Studio B"), "TRUE - 01:00:59;29");
    EXPECT_EQ(
        service.ask("VTR_CMD,Studio B,0,GoTo,0,01:01:00;01"),
        "FALSE - Error: Preroll to 01:01:00;01 for VTR at Studio B failed. (\"01:01:00;01\" is no timecode "
        "hh:mm:ss:ff that exists)");
}

TEST_F(Decks, TwoAreDrivenAtOnce) {
    start();
    auto other = std::async(std::launch::async, [&] { return service.ask("VTR_CMD,Studio B,0,Shuttle,3"); });
    EXPECT_EQ(service.ask("VTR_CMD,COM1,0,Play"), "TRUE");
    EXPECT_EQ(other.get(), "TRUE");
    EXPECT_EQ(one->state(), Transport::State::play);
    EXPECT_EQ(two->state(), Transport::State::shuttle);
    EXPECT_TRUE(eventually([&] { return service.ask("VTR_CURRENT_TIME,COM1") > "TRUE - 10:00:00:05"; }));
    EXPECT_TRUE(eventually([&] { return service.ask("VTR_CURRENT_TIME,Studio B") > "TRUE - 01:00:01"; }));
}

TEST_F(Decks, ADeckThatIsOffIsTold) {
    start();
    one->order("silent");
    EXPECT_EQ(service.ask("VTR_CMD,COM1,0,Play"),
              "FALSE - Error: Could not connect to VTR at COM1. (" + one->device() +
                  ", Device type request: no answer within 1000 ms, 3 tries)");
    EXPECT_EQ(service.ask("VTR_CURRENT_TIME,Studio B"), "TRUE - 01:00:00;00");
    one->order("well");
    EXPECT_EQ(service.ask("VTR_CMD,COM1,0,Play"), "TRUE");
}

TEST_F(Decks, APortWithoutADeckIsTold) {
    start();
    EXPECT_EQ(service.ask("VTR_CURRENT_TIME,COM9"), "FALSE - Error: Could not connect to VTR at COM9. (" +
                                                        (service.root() / "nothing").string() +
                                                        ": No such file or directory (errno 2))");
    EXPECT_THAT(service.ask("VTR_CURRENT_TIME,deck"),
                StartsWith("FALSE - Error: Could not connect to VTR at deck. (no port has this name"));
}

TEST_F(Decks, ARefusalIsToldWithItsReason) {
    start();
    EXPECT_EQ(service.ask("VTR_SEEKING,COM1"), "TRUE - FALSE");
    one->order("nak 01 1 1");
    EXPECT_EQ(service.ask("VTR_CMD,COM1,0,Play"),
              "FALSE - Error: Command 0 to VTR at COM1 failed. (Play: the deck "
              "answered NAK 01, unknown command)");
    one->order("local");
    EXPECT_EQ(service.ask("VTR_CMD,COM1,0,Shuttle,5"),
              "FALSE - Error: Command 10 to VTR at COM1 failed. (Shuttle at 5: the deck is "
              "set to LOCAL, its own panel has control)");
}

TEST_F(Decks, GarbageIsTold) {
    start();
    EXPECT_EQ(service.ask("VTR_SEEKING,COM1"), "TRUE - FALSE");
    one->order("garbage");
    EXPECT_EQ(service.ask("VTR_CURRENT_TIME,COM1"),
              "FALSE - Error: Command 6 to VTR at COM1 failed. (Current time "
              "sense: no reply but E7 3C 00 FF 81, 3 tries)");
    one->order("well");
    EXPECT_EQ(service.ask("VTR_CURRENT_TIME,COM1"), "TRUE - 10:00:00:00");
}

TEST_F(Decks, OneThatIsUnpluggedInTheMiddleIsToldAndComesBack) {
    start();
    EXPECT_EQ(service.ask("VTR_CMD,COM1,0,Play"), "TRUE");
    one->order("unplug");
    EXPECT_THAT(service.ask("VTR_CURRENT_TIME,COM1"),
                StartsWith("FALSE - Error: Could not connect to VTR at COM1. ("));
    EXPECT_EQ(service.ask("VTR_SEEKING,Studio B"), "TRUE - FALSE");
    one->order("plug");
    EXPECT_THAT(service.ask("VTR_CURRENT_TIME,COM1"), StartsWith("TRUE - 10:00:"));
}

TEST_F(Decks, AGoToThatTheTapeDoesNotReachIsToldByTheQuery) {
    start();
    EXPECT_EQ(service.ask("VTR_CMD,COM1,0,GoTo,0,23:00:00:00"), "TRUE");
    std::string answer;
    EXPECT_TRUE(eventually([&] { return (answer = service.ask("VTR_SEEKING,COM1")) != "TRUE - TRUE"; }, 20s));
    EXPECT_THAT(answer,
                StartsWith("FALSE - Error: Preroll to 23:00:00:00 for VTR at COM1 failed. (the deck stands"));
}

TEST_F(Decks, TheServicesEndEndsTheProcessAndLeavesTheDecksAlone) {
    start();
    EXPECT_EQ(service.ask("VTR_CMD,COM1,0,Play"), "TRUE");
    EXPECT_EQ(service.stop().code, 0);
    EXPECT_THAT(service.log(), HasSubstr("[Manager:Info] VTR process ended with exit status 0\r\n"));
    EXPECT_EQ(one->state(), Transport::State::play);
}

TEST_F(Decks, AProcessThatWasKilledFindsItsDecksAgain) {
    start();
    EXPECT_EQ(service.ask("VTR_CMD,COM1,0,Play"), "TRUE");
    const std::vector<pid_t> children = service.children();
    ASSERT_EQ(children.size(), 1u);
    kestrel::test::signalTo(children[0], SIGKILL);
    EXPECT_TRUE(
        eventually([&] { return service.ask("VTR_CURRENT_TIME,COM1").starts_with("TRUE - 10:00:"); }, 20s));
}

} // namespace
