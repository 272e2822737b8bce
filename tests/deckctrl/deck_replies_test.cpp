// Replies that come in pieces, damaged, of the wrong kind or with less in them than was asked for.
#include "deckctrl/scripted_deck.h"

#include "foundation/FixedText.h"
#include "foundation/Logger.h"

#include <algorithm>
#include <atomic>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sstream>

using namespace deck_test;
using kestrel::deck::Deck;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

using Bytes = std::vector<std::uint8_t>;

class Replies : public testing::Test {
protected:
    void begin(ScriptedDeck::Script script) {
        tape.emplace(std::move(script));
        Timing timing;
        timing.reply = 2s;
        timing.byteGap = byteGap;
        timing.settle = settle;
        timing.begin = mostToBegin;
        timing.seek = mostToSeek;
        deck.emplace(tape->device(), timing, -1);
    }
    // Other answers to one kind of block; the deck is well otherwise.
    void beginWith(Code code, std::function<ScriptedAnswer()> answer) {
        begin([code, answer = std::move(answer)](const Block& asked) {
            return asked.code() == code ? answer() : ScriptedAnswer{wellReply(asked).bytes()};
        });
    }
    _VTRCmdData carryOut(_VTRCmdData record) {
        deck->carryOut(record);
        return record;
    }
    _VTRCmdData time() { return carryOut(request(kestrel::vtrCurrentTime, "COM7")); }
    _VTRCmdData play() { return carryOut(request(kestrel::vtrTransport, "COM7", kestrel::vtrPlayCode)); }
    _VTRCmdData isSeeking() { return carryOut(request(kestrel::vtrIsSeeking, "COM7")); }
    long count(Code code) const { return std::ranges::count(tape->received(), code); }

    std::chrono::milliseconds byteGap{300}; // the machine may be busy
    std::chrono::milliseconds settle{50};
    std::chrono::milliseconds mostToBegin{200};
    std::chrono::milliseconds mostToSeek{60'000};
    std::optional<ScriptedDeck> tape;
    std::optional<Deck> deck;
};

// A real line takes 0.3 ms for a byte, a deck up to 10.
TEST_F(Replies, PiecesWithinTheGapAreOneReply) {
    for (const auto pace : {200us, 1000us, 3000us, 10'000us}) {
        begin([pace](const Block& asked) { return ScriptedAnswer{wellReply(asked).bytes(), pace}; });
        const _VTRCmdData answer = time();
        EXPECT_EQ(answer.errorCode, 0) << pace.count() << textOf(answer);
        EXPECT_EQ(kestrel::fieldText(answer.timecode), "10:20:30:12");
        EXPECT_EQ(play().errorCode, 0);
        EXPECT_THAT(tape->received(),
                    ElementsAre(Code::deviceType, Code::timeSense, Code::statusSense, Code::play));
        deck.reset();
    }
}

// A count that reads too small ends the block early: what is left of it must not meet the next reply.
TEST_F(Replies, OneWithADamagedCountCostsOneTry) {
    for (const auto pace : {200us, 1000us, 3000us})
        for (const std::uint8_t first : Bytes{0x70, 0x71, 0x72}) {
            int asked = 0;
            beginWith(Code::timeSense, [pace, first, asked]() mutable {
                Bytes bytes = wellReply(Block(Code::timeSense)).bytes();
                if (asked++ == 0)
                    bytes[0] = first;
                return ScriptedAnswer{bytes, pace};
            });
            const _VTRCmdData answer = time();
            EXPECT_EQ(answer.errorCode, 0) << textOf(answer);
            EXPECT_EQ(kestrel::fieldText(answer.timecode), "10:20:30:12");
            EXPECT_EQ(count(Code::timeSense), 2) << int{first} << " at " << pace.count();
            deck.reset();
        }
}

TEST_F(Replies, ADamagedOneIsShownToItsEnd) {
    beginWith(Code::timeSense, [] {
        return ScriptedAnswer{{0x70, 0x04, 0x12, 0x30, 0x20, 0x10, 0xEA}, 1000us};
    });
    EXPECT_EQ(textOf(time()),
              "Error: Command 6 to VTR at COM7 failed. (Current time sense: checksum error in "
              "reply 70 04 12 30 20 10 EA, 3 tries)");
}

TEST_F(Replies, ABurstOfAnyLengthCostsOneTry) {
    byteGap = 1s; // hundreds of pauses, each of which may last
    const std::pair<std::size_t, std::uint8_t> bursts[] = {
        {64, 0xFF}, {300, 0xFF}, {300, 0x75}}; // the last one can begin a reply
    for (const auto& [length, fill] : bursts) {
        beginWith(Code::timeSense, [burst = Bytes(length, fill), asked = 0]() mutable {
            if (asked++ == 0)
                return ScriptedAnswer{burst, 200us};
            return ScriptedAnswer{wellReply(Block(Code::timeSense)).bytes()};
        });
        const _VTRCmdData answer = time();
        EXPECT_EQ(answer.errorCode, 0) << length << " of " << int{fill} << ": " << textOf(answer);
        EXPECT_EQ(kestrel::fieldText(answer.timecode), "10:20:30:12");
        EXPECT_EQ(count(Code::timeSense), 2) << length << " of " << int{fill};
        EXPECT_EQ(play().errorCode, 0) << "in step";
        deck.reset();
    }
}

TEST_F(Replies, OneOfTheWrongKindIsNamed) {
    beginWith(Code::timeSense, [] { return ScriptedAnswer{Block(Code::ack).bytes()}; });
    const _VTRCmdData answer = time();
    EXPECT_EQ(answer.errorCode, 20081);
    EXPECT_EQ(textOf(answer),
              "Error: Command 6 to VTR at COM7 failed. (Current time sense: unexpected reply: "
              "ACK, 3 tries)");
    EXPECT_EQ(count(Code::timeSense), 3);
}

// As after a reply that came too late: the right one is under way.
TEST_F(Replies, WhatFollowsOneOfTheWrongKindIsNotTakenForTheNextReply) {
    beginWith(Code::timeSense, [asked = 0]() mutable {
        Bytes bytes = wellReply(Block(Code::timeSense)).bytes();
        if (asked++ == 0) {
            const Bytes ack = Block(Code::ack).bytes();
            bytes.insert(bytes.begin(), ack.begin(), ack.end());
        }
        return ScriptedAnswer{bytes, 3000us};
    });
    EXPECT_EQ(time().errorCode, 0);
    EXPECT_EQ(count(Code::timeSense), 2);
}

TEST_F(Replies, AStepIsNotSentAgainAfterOneOfTheWrongKind) {
    beginWith(Code::stepForward, [] { return ScriptedAnswer{Block(Code::status, {0x00}).bytes()}; });
    const _VTRCmdData answer = carryOut(request(kestrel::vtrTransport, "COM7", kestrel::vtrStepForwardCode));
    EXPECT_EQ(answer.errorCode, 20081);
    EXPECT_EQ(textOf(answer),
              "Error: Command 0 to VTR at COM7 failed. (Step forward: unexpected reply: Status)");
    EXPECT_EQ(count(Code::stepForward), 1);
}

TEST_F(Replies, ATimeThatIsNoneIsShown) {
    for (const auto& [data, shown] :
         std::vector<std::pair<Bytes, std::string>>{{{0x0A, 0x30, 0x20, 0x10}, "0A 30 20 10"}, // not decimal
                                                    {{0x12, 0x60, 0x20, 0x10}, "12 60 20 10"}, // second 60
                                                    {{0x12, 0x30, 0x20, 0x24}, "12 30 20 24"}, // hour 24
                                                    {{0x12, 0x30}, "12 30"}}) {
        beginWith(Code::timeSense,
                  [bytes = Block(Code::ltc, data).bytes()] { return ScriptedAnswer{bytes}; });
        const _VTRCmdData answer = time();
        EXPECT_EQ(answer.errorCode, 20081);
        EXPECT_EQ(textOf(answer), "Error: Command 6 to VTR at COM7 failed. (Current time sense: the deck "
                                  "answered with no time: " +
                                      shown + ")");
        EXPECT_EQ(kestrel::fieldText(answer.timecode), "");
        deck.reset();
    }
}

TEST_F(Replies, ADeckThatDoesNotTellItsTypeIsConnectedTo) {
    beginWith(Code::deviceType, [] { return ScriptedAnswer{Block(Code::nak, {0x01}).bytes()}; });
    std::stringstream log;
    LogUtil::GetInstance()->addStreamLogger(&log);
    EXPECT_EQ(play().errorCode, 0);
    LogUtil::Cleanup();
    EXPECT_THAT(log.str(), HasSubstr("COM7: connected, " + tape->device() + ", device type not told"));
    EXPECT_EQ(time().errorCode, 0);
    EXPECT_EQ(count(Code::deviceType), 1);
}

// The deck in the rack is exchanged for one that knows the time of a standing tape, too.
TEST_F(Replies, ADeckThatComesInPlaceOfAnOldOneIsAskedForWhatItReads) {
    enum class Connected { old, none, another };
    std::atomic<Connected> connected{Connected::old};
    std::vector<std::uint8_t> asked; // in the deck's thread, until that has ended
    begin([&](const Block& block) {
        if (connected == Connected::none)
            return ScriptedAnswer{};
        if (block.code() != Code::timeSense)
            return ScriptedAnswer{wellReply(block).bytes()};
        asked.push_back(block.data()[0]);
        if (connected == Connected::old && block.data()[0] == 0x03)
            return ScriptedAnswer{Block(Code::nak, {0x01}).bytes()};
        return ScriptedAnswer{wellReply(block).bytes()};
    });
    Timing quick;
    quick.reply = 300ms;
    deck.emplace(tape->device(), quick, -1);
    EXPECT_EQ(time().errorCode, 0);
    EXPECT_EQ(time().errorCode, 0);
    connected = Connected::none;
    EXPECT_NE(time().errorCode, 0);
    connected = Connected::another;
    EXPECT_EQ(time().errorCode, 0);
    EXPECT_EQ(time().errorCode, 0);
    deck.reset();
    tape.reset();
    EXPECT_THAT(asked, testing::ElementsAre(0x03, 0x01, 0x01, 0x01, 0x03, 0x03))
        << "asked first as the old one was, which is not the answer that counts";
}

TEST_F(Replies, CommandsDoWithAsManyStatusBytesAsTheDeckTells) {
    for (const std::size_t told : {0u, 1u, 2u, 3u, 9u}) {
        beginWith(Code::statusSense,
                  [bytes = Block(Code::status, Bytes(told, 0)).bytes()] { return ScriptedAnswer{bytes}; });
        const _VTRCmdData answer = play();
        EXPECT_EQ(answer.errorCode, 0) << told << textOf(answer);
        EXPECT_EQ(count(Code::play), 1);
        deck.reset();
    }
    beginWith(Code::statusSense, [] { return ScriptedAnswer{Block(Code::status, {0x01}).bytes()}; });
    EXPECT_THAT(textOf(play()), HasSubstr("the deck is set to LOCAL")) << "told in the first byte";
}

TEST_F(Replies, ADeckThatTellsTooFewStatusBytesCannotTellWhetherItSeeks) {
    for (const std::size_t told : {0u, 1u, 2u}) {
        beginWith(Code::statusSense,
                  [bytes = Block(Code::status, Bytes(told, 0)).bytes()] { return ScriptedAnswer{bytes}; });
        EXPECT_EQ(carryOut(goTo("COM7", "10:20:30:12")).errorCode, 0);
        const _VTRCmdData answer = isSeeking();
        EXPECT_EQ(answer.errorCode, 20081);
        EXPECT_EQ(textOf(answer), "Error: Command 7 to VTR at COM7 failed. (Status sense: the deck tells " +
                                      std::to_string(told) + " status bytes, too few to see what it does)");
        deck.reset();
    }
}

TEST_F(Replies, ThreeStatusBytesTellWhetherItSeeks) {
    // Shuttling, then cued up.
    const auto moves = std::make_shared<std::atomic<bool>>(true);
    beginWith(Code::statusSense, [moves] {
        return ScriptedAnswer{
            Block(Code::status, {0x00, 0x00, *moves ? std::uint8_t{0x20} : std::uint8_t{0x03}}).bytes()};
    });
    EXPECT_EQ(isSeeking().errorCode, 0);
    EXPECT_EQ(isSeeking().seeking, 0) << "a shuttle is no seek";
    EXPECT_EQ(carryOut(goTo("COM7", "10:20:30:12")).errorCode, 0);
    EXPECT_EQ(isSeeking().seeking, 1);
    *moves = false;
    const _VTRCmdData answer = isSeeking();
    EXPECT_EQ(answer.errorCode, 0) << textOf(answer);
    EXPECT_EQ(answer.seeking, 0);
}

// Not every deck has "cue up complete": this one only stops.
TEST_F(Replies, ADeckThatStandsAtItsTargetIsThereThoughItDoesNotSaySo) {
    begin([](const Block& asked) { return ScriptedAnswer{wellReply(asked).bytes()}; });
    std::stringstream log;
    LogUtil::GetInstance()->addStreamLogger(&log);
    EXPECT_EQ(carryOut(goTo("COM7", "10:20:30:12")).errorCode, 0);
    EXPECT_EQ(isSeeking().seeking, 1) << "it may not have begun";
    _VTRCmdData answer{};
    EXPECT_TRUE(eventually([&] { return (answer = isSeeking()).seeking == 0; }));
    LogUtil::Cleanup();
    EXPECT_EQ(answer.errorCode, 0) << textOf(answer);
    EXPECT_THAT(log.str(), HasSubstr("COM7: Cue up to 10:20:30:12 complete"));
    EXPECT_EQ(isSeeking().errorCode, 0);
}

// Nobody has asked before the cue-up would be given up, so nobody knows how long the tape has stood.
TEST_F(Replies, ADeckThatStandsAtItsTargetIsThereHoweverLateItIsAsked) {
    settle = 60s;
    mostToSeek = 0s;
    begin([](const Block& asked) { return ScriptedAnswer{wellReply(asked).bytes()}; });
    EXPECT_EQ(carryOut(goTo("COM7", "10:20:30:12")).errorCode, 0);
    const _VTRCmdData there = isSeeking();
    EXPECT_EQ(there.errorCode, 0) << textOf(there);
    EXPECT_EQ(there.seeking, 0);
    EXPECT_EQ(isSeeking().errorCode, 0);

    EXPECT_EQ(carryOut(goTo("COM7", "10:20:30:13")).errorCode, 0);
    const _VTRCmdData beside = isSeeking();
    EXPECT_EQ(beside.errorCode, 20082);
    EXPECT_EQ(textOf(beside), "Error: Preroll to 10:20:30:13 for VTR at COM7 failed. (the deck is not there "
                              "after 0 s)");
}

TEST_F(Replies, ATapeThatRunsOverItsTargetTooLateIsNotThere) {
    constexpr std::uint8_t shuttle = 0x20;
    mostToSeek = 0s;
    beginWith(Code::statusSense, [] {
        return ScriptedAnswer{Block(Code::status, {0x00, 0x00, shuttle}).bytes()};
    });
    EXPECT_EQ(carryOut(goTo("COM7", "10:20:30:12")).errorCode, 0);
    EXPECT_THAT(textOf(isSeeking()), HasSubstr("(the deck is not there after 0 s)"));
}

// It stops a frame beside the target, so that only what it tells can end the seek.
TEST_F(Replies, ACueUpThatIsToldCompleteIsOneOfThisGoTo) {
    constexpr std::uint8_t complete = 0x01, still = 0x02, shuttle = 0x20;
    const auto state = std::make_shared<std::atomic<std::uint8_t>>();
    mostToBegin = 60s;
    const auto goToFrom = [&](int before) {
        deck.reset();
        *state = static_cast<std::uint8_t>(before);
        beginWith(Code::statusSense, [state] {
            return ScriptedAnswer{Block(Code::status, {0x00, 0x00, *state}).bytes()};
        });
        EXPECT_EQ(carryOut(goTo("COM7", "10:20:30:13")).errorCode, 0);
    };
    const auto seeksIn = [&](int now) {
        *state = static_cast<std::uint8_t>(now);
        const _VTRCmdData answer = isSeeking();
        EXPECT_EQ(answer.errorCode, 0) << textOf(answer);
        return answer.seeking != 0;
    };
    goToFrom(complete | still);
    EXPECT_TRUE(seeksIn(complete | still)) << "that of the cue-up before";
    EXPECT_TRUE(seeksIn(complete | shuttle)) << "the tape moves";
    EXPECT_FALSE(seeksIn(complete | still)) << "it has moved";
    goToFrom(complete | still);
    EXPECT_TRUE(seeksIn(still)) << "not told any more";
    EXPECT_FALSE(seeksIn(complete | still)) << "told anew";
    goToFrom(still);
    EXPECT_FALSE(seeksIn(complete | still)) << "there was none before";
}

// It stops the tape before it begins, and stands longer than at the end of a cue-up.
TEST_F(Replies, ATapeThatMovedBeforeTheGoToHasNotYetMovedForIt) {
    constexpr std::uint8_t still = 0x02, shuttle = 0x20;
    const auto state = std::make_shared<std::atomic<std::uint8_t>>(shuttle);
    mostToBegin = 60s;
    beginWith(Code::statusSense, [state] {
        return ScriptedAnswer{Block(Code::status, {0x00, 0x00, *state}).bytes()};
    });
    EXPECT_EQ(carryOut(goTo("COM7", "10:20:30:13")).errorCode, 0);
    EXPECT_EQ(isSeeking().seeking, 1) << "it moves as before";
    *state = still;
    for (const auto stopped = Clock::now(); Clock::now() - stopped < 150ms;) {
        const _VTRCmdData answer = isSeeking();
        ASSERT_EQ(answer.seeking, 1) << textOf(answer);
    }
    *state = shuttle;
    EXPECT_EQ(isSeeking().seeking, 1) << "it has begun";
    *state = still;
    _VTRCmdData answer{};
    EXPECT_TRUE(eventually([&] { return (answer = isSeeking()).seeking == 0; }));
    EXPECT_EQ(answer.errorCode, 20082) << "it stands beside the target";
}

TEST_F(Replies, ADeckThatStandsOneFrameBesideItsTargetIsNotThere) {
    for (const char* target : {"10:20:30:11", "10:20:30:13"}) {
        begin([](const Block& asked) { return ScriptedAnswer{wellReply(asked).bytes()}; });
        EXPECT_EQ(carryOut(goTo("COM7", target)).errorCode, 0);
        _VTRCmdData answer{};
        EXPECT_TRUE(eventually([&] { return (answer = isSeeking()).seeking == 0; }));
        EXPECT_EQ(answer.errorCode, 20082);
        EXPECT_EQ(textOf(answer), std::string("Error: Preroll to ") + target +
                                      " for VTR at COM7 failed. (the deck stands at 10:20:30:12)");
        deck.reset();
    }
}

} // namespace
