#include "Deck.h"

#include "foundation/FixedText.h"
#include "foundation/Logger.h"

#include <utility>

namespace kestrel::deck {
namespace {

constexpr const char* module = "Deck";

struct Command {
    std::int32_t code; // of the request
    const char* name;  // for the log
    Code command;
    int data; // one data byte, or -1 for none
};

// A deck has no command of its own for a pause: it shows a still picture when it jogs at speed 0.
constexpr Command commands[] = {
    {vtrPlayCode, "Play", Code::play, -1},
    {vtrRewindCode, "Rewind", Code::rewind, -1},
    {vtrFastForwardCode, "Fast forward", Code::fastForward, -1},
    {vtrStepForwardCode, "Step forward", Code::stepForward, -1},
    {vtrStepReverseCode, "Step reverse", Code::stepReverse, -1},
    {vtrPauseCode, "Pause", Code::jogForward, 0},
};

const Command* findCommand(std::int32_t code) noexcept {
    for (const Command& command : commands)
        if (command.code == code)
            return &command;
    return nullptr;
}

Block blockOf(const Command& command) {
    if (command.data < 0)
        return Block(command.command);
    return Block(command.command, {static_cast<std::uint8_t>(command.data)});
}

// The request's speed is in multiples of play speed, backwards when negative.
Block shuttleBlock(std::int32_t speed) {
    return Block(speed < 0 ? Code::shuttleReverse : Code::shuttleForward, {speedByte(speed)});
}

bool isShuttle(const _VTRCmdData& record) noexcept {
    return record.commandKind == vtrShuttle ||
           (record.commandKind == vtrTransport && record.transportCode == vtrShuttleCode);
}

bool refusesCommand(const Block& reply) noexcept {
    return reply.code() == Code::nak && !reply.data().empty() && (reply.data()[0] & nakUnknownCommand) != 0;
}

// Drop-frame or not: decks mark it in some replies only.
bool sameLabel(TapeTime a, TapeTime b) noexcept {
    a.dropFrame = b.dropFrame = false;
    return a == b;
}

} // namespace

MaybeFailure unknownIn(const _VTRCmdData& record) {
    const std::string port(fieldText(record.serialPort));
    switch (record.commandKind) {
    case vtrGoTo:
    case vtrCurrentTime:
    case vtrIsSeeking:
    case vtrShuttle:
        return std::nullopt;
    case vtrTransport:
        if (findCommand(record.transportCode) || record.transportCode == vtrShuttleCode)
            return std::nullopt;
        return unknownRequest(record.commandKind,
                              "transport code " + std::to_string(record.transportCode) + ", VTR at " + port);
    default:
        return unknownRequest(record.commandKind, "VTR at " + port);
    }
}

void setResult(_VTRCmdData& record, const MaybeFailure& failure) {
    record.errorCode = failure ? static_cast<std::int32_t>(failure->code) : 0;
    copyText(record.errorText, failure ? failure->text : std::string());
}

void Deck::carryOut(_VTRCmdData& record) {
    m_port = fieldText(record.serialPort);
    m_line.setPort(m_port);
    const MaybeFailure failure = perform(record);
    if (failure)
        LogUtil::Error(module, "%s", failure->text.c_str());
    setResult(record, failure);
}

MaybeFailure Deck::perform(_VTRCmdData& record) {
    if (auto unknown = unknownIn(record))
        return unknown;
    const std::string target(fieldText(record.timecode));
    // The target may be reached, or given up, by the query that asks for it.
    const std::string sought = m_seek ? m_seek->target : target;
    MaybeProblem problem;
    bool cueing = false;
    if (isShuttle(record)) {
        problem =
            transport(shuttleBlock(record.shuttleSpeed), "Shuttle at " + std::to_string(record.shuttleSpeed));
    } else if (record.commandKind == vtrTransport) {
        const Command& command = *findCommand(record.transportCode);
        problem = transport(blockOf(command), command.name);
    } else if (record.commandKind == vtrCurrentTime) {
        problem = currentTime(record);
    } else if (record.commandKind == vtrGoTo) {
        cueing = true;
        problem = goTo(target);
    } else {
        bool seeking = false;
        const bool began = m_seek.has_value();
        problem = isSeeking(seeking);
        cueing = began && !m_seek;
        record.seeking = seeking ? 1 : 0;
    }
    if (!problem)
        return std::nullopt;
    if (problem->noDeck)
        return notConnected(m_port, problem->detail);
    if (cueing)
        return prerollFailed(record.commandKind == vtrGoTo ? target : sought, m_port, problem->detail);
    return commandFailed(record.commandKind, m_port, problem->detail);
}

Deck::MaybeProblem Deck::transport(const Block& block, const std::string& name) {
    if (auto problem = ready()) {
        if (!problem->noDeck)
            problem->detail = name + ": " + problem->detail;
        return problem;
    }
    // Whatever the tape does now, it is on its way to the target no longer.
    m_seek.reset();
    const Reply reply = m_line.ask(block);
    if (const auto* problem = std::get_if<Problem>(&reply))
        return *problem;
    LogUtil::Info(module, "%s: %s", m_port.c_str(), name.c_str());
    return std::nullopt;
}

Deck::MaybeProblem Deck::goTo(const std::string& target) {
    const auto time = TapeTime::parse(target);
    if (!time)
        return Problem{false, "\"" + target + "\" is no timecode hh:mm:ss:ff that exists"};
    const MaybeStatus before = status();
    if (auto problem = ready(before))
        return problem;
    m_seek.reset();
    // The flag belongs to times that are read; some decks refuse it here.
    TapeTime label = *time;
    label.dropFrame = false;
    const Reply reply = m_line.ask(Block(Code::cueUp, label.encode()));
    if (const auto* problem = std::get_if<Problem>(&reply))
        return *problem;
    LogUtil::Info(module, "%s: Cue up to %s", m_port.c_str(), target.c_str());
    const auto& known = std::get<std::optional<Status>>(before);
    m_seek = Seek{target, *time, Clock::now(), known && !known->cueUpComplete, known && known->moving()};
    return std::nullopt;
}

Deck::MaybeProblem Deck::currentTime(_VTRCmdData& record) {
    const Time time = readTime();
    if (const auto* problem = std::get_if<Problem>(&time))
        return *problem;
    copyText(record.timecode, std::get<TapeTime>(time).text());
    return std::nullopt;
}

Deck::Time Deck::readTime() {
    const auto ask = [this] {
        return m_line.ask(Block(Code::timeSense, {static_cast<std::uint8_t>(m_source)}));
    };
    Reply reply = ask();
    if (std::exchange(m_connection, m_line.connections()) != m_line.connections() &&
        std::exchange(m_source, TimeSource::asDeckReads) != TimeSource::asDeckReads)
        // The question has connected anew, and another deck may be there than the one that knew LTC only.
        reply = ask();
    // Old decks want to be told which of the two they are to read.
    if (const auto* block = std::get_if<Block>(&reply);
        block && refusesCommand(*block) && m_source == TimeSource::asDeckReads) {
        m_source = TimeSource::ltc;
        reply = ask();
    }
    if (const auto* problem = std::get_if<Problem>(&reply))
        return *problem;
    const Block& block = std::get<Block>(reply);
    const std::string name = codeName(Code::timeSense);
    if (block.code() == Code::nak)
        return Problem{false, name + ": " + nakText(block)};
    if (block.code() == Code::timer1 || block.code() == Code::timer2)
        return Problem{false, name + ": no timecode can be read from the tape, the deck answered with " +
                                  std::string(sourceName(block.code()))};
    const auto time = TapeTime::decode(block.data());
    if (!time)
        return Problem{false, name + ": the deck answered with no time: " + hexText(block.data())};
    return *time;
}

Deck::MaybeStatus Deck::status() {
    const Reply reply = m_line.ask(Block(Code::statusSense, {Status::size}));
    if (const auto* problem = std::get_if<Problem>(&reply))
        return *problem;
    const Block& block = std::get<Block>(reply);
    if (refusesCommand(block))
        return std::nullopt;
    if (block.code() == Code::nak)
        return Problem{false, codeName(Code::statusSense) + ": " + nakText(block)};
    return Status::parse(block.data());
}

Deck::MaybeProblem Deck::ready(const MaybeStatus& state) {
    if (const auto* problem = std::get_if<Problem>(&state))
        return *problem;
    const auto& known = std::get<std::optional<Status>>(state);
    if (known && known->local)
        return Problem{false, "the deck is set to LOCAL, its own panel has control"};
    if (known && known->cassetteOut)
        return Problem{false, "there is no cassette in the deck"};
    return std::nullopt;
}

Deck::MaybeProblem Deck::isSeeking(bool& seeking) {
    const MaybeStatus state = status();
    if (const auto* problem = std::get_if<Problem>(&state))
        return *problem;
    const auto& known = std::get<std::optional<Status>>(state);
    if (!known)
        return Problem{false, codeName(Code::statusSense) + ": the deck does not know this command"};
    // Bits that are missing would read as a tape that stands.
    if (known->told < Status::least)
        return Problem{false, codeName(Code::statusSense) + ": the deck tells " +
                                  std::to_string(known->told) + " status bytes, too few to see what it does"};
    if (m_seek)
        return followSeek(*known, seeking);
    // A cue-up that its own panel or another controller began.
    seeking = known->preroll;
    return std::nullopt;
}

void Deck::arrived() {
    LogUtil::Info(module, "%s: Cue up to %s complete", m_port.c_str(), m_seek->target.c_str());
    m_seek.reset();
}

// Decks leave "cue up complete" of the cue-up before standing until the tape moves. Until it was seen to
// move, or the deck to tell no such thing, it counts only with the time that goes with it. A tape that moves
// on as it did before, until the deck stops it, does not move for the cue-up yet.
Deck::MaybeProblem Deck::followSeek(const Status& status, bool& seeking) {
    const Clock::time_point now = Clock::now();
    const bool moving = status.moving() || status.preroll;
    m_seek->before = m_seek->before && moving;
    const bool moves = status.preroll || (moving && !m_seek->before);
    m_seek->moved = m_seek->moved || moves;
    m_seek->fresh = m_seek->fresh || moves || !status.cueUpComplete;
    if (moving)
        m_seek->standing.reset();
    else if (!m_seek->standing)
        m_seek->standing = now;
    // Decks without "cue up complete" tell only by their time that they are there. Who asks so late that the
    // cue-up would be given up is told of its target all the same, though the tape was not seen to stand.
    const bool tooLate = now - m_seek->begun > m_timing.seek;
    const bool stands = m_seek->standing && (tooLate || now - *m_seek->standing >= m_timing.settle);
    bool there = status.cueUpComplete && m_seek->fresh && !moving;
    Time time = Problem{};
    if (!there && (status.cueUpComplete || stands)) {
        time = readTime();
        const auto* at = std::get_if<TapeTime>(&time);
        there = at && sameLabel(*at, m_seek->time);
    }
    if (there) {
        arrived();
        seeking = false;
        return std::nullopt;
    }
    std::string given;
    if (status.cassetteOut)
        given = "there is no cassette in the deck";
    else if (tooLate)
        given = "the deck is not there after " +
                std::to_string(std::chrono::duration_cast<std::chrono::seconds>(m_timing.seek).count()) +
                " s";
    else if (stands && (m_seek->moved || now - m_seek->begun >= m_timing.begin)) {
        const auto* at = std::get_if<TapeTime>(&time);
        given = at ? "the deck stands at " + at->text() : "the deck does not move";
        if (status.endOfTape)
            given += ", the end of the tape";
    }
    seeking = given.empty();
    if (seeking)
        return std::nullopt;
    m_seek.reset();
    return Problem{false, given};
}

} // namespace kestrel::deck
