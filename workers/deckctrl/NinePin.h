// The 9-pin remote protocol of professional tape decks: command blocks and what their bytes mean.
//
// A block is CMD-1 (upper four bits: group, lower four: number of data bytes), CMD-2, the data, and a
// checksum, the sum of all bytes before it modulo 256. The controller sends one block and waits for the
// deck's one reply.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kestrel::deck {

// CMD-1 with its data count left out, and CMD-2.
enum class Code : std::uint16_t {
    deviceType = 0x0011, // answered with deviceTypeIs
    ack = 0x1001,
    deviceTypeIs = 0x1011,
    nak = 0x1012, // one data byte: NakBit
    stop = 0x2000,
    play = 0x2001,
    fastForward = 0x2010,
    jogForward = 0x2011,
    shuttleForward = 0x2013,
    stepForward = 0x2014,
    rewind = 0x2020,
    jogReverse = 0x2021,
    shuttleReverse = 0x2023,
    stepReverse = 0x2024,
    cueUp = 0x2031,       // four data bytes: TapeTime
    timeSense = 0x600C,   // one data byte: TimeSource
    statusSense = 0x6020, // one data byte: first status byte and how many
    timer1 = 0x7000,
    timer2 = 0x7001,
    ltc = 0x7004,
    vitc = 0x7006,
    ltcCorrected = 0x7014, // counted on by the tape's control track
    vitcHeld = 0x7016,     // the last that could be read
    status = 0x7020,
};

// What a time sense asks for.
enum class TimeSource : std::uint8_t { ltc = 0x01, vitc = 0x02, asDeckReads = 0x03, timer1 = 0x04 };

// How the log calls a block: "Play", "Current time sense"; the code in hexadecimal when it has no name.
[[nodiscard]] std::string codeName(Code code);
// Bytes for the log: "E7 3C 00".
[[nodiscard]] std::string hexText(std::span<const std::uint8_t> bytes);
// "LTC", "VITC", "timer 1", ... of a time reply; empty for any other block.
[[nodiscard]] std::string_view sourceName(Code reply) noexcept;

// One command block.
class Block {
public:
    static constexpr std::size_t maxData = 15;
    static constexpr std::size_t maxBytes = maxData + 3;

    Block() = default;
    // At most 15 data bytes; further ones are left out.
    explicit Block(Code code, std::initializer_list<std::uint8_t> data = {})
        : Block(code, std::span(data.begin(), data.size())) {}
    Block(Code code, std::span<const std::uint8_t> data);

    [[nodiscard]] Code code() const noexcept { return m_code; }
    [[nodiscard]] std::span<const std::uint8_t> data() const noexcept { return {m_data.data(), m_size}; }
    // As it goes over the line, checksum included.
    [[nodiscard]] std::vector<std::uint8_t> bytes() const;
    bool operator==(const Block& other) const noexcept;

private:
    friend class BlockParser;

    Code m_code = Code::stop;
    std::array<std::uint8_t, maxData> m_data{};
    std::size_t m_size = 0;
};

// Collects a block byte by byte.
class BlockParser {
public:
    enum class State { incomplete, complete, badChecksum };

    // Takes the next byte. After complete or badChecksum the next byte begins a new block.
    State feed(std::uint8_t byte) noexcept;
    void reset() noexcept { m_count = 0; }
    // Whether no byte of the next block has come.
    [[nodiscard]] bool idle() const noexcept { return m_count == 0; }
    // The block that was complete; until the next byte.
    [[nodiscard]] const Block& block() const noexcept { return m_block; }

private:
    std::array<std::uint8_t, Block::maxBytes> m_bytes{};
    std::size_t m_count = 0;
    Block m_block;
};

// Bits of a NAK's data byte.
enum NakBit : std::uint8_t {
    nakUnknownCommand = 0x01,
    nakChecksum = 0x04,
    nakParity = 0x10,
    nakOverrun = 0x20,
    nakFraming = 0x40,
    nakTimeout = 0x80,
};

// The bits in words: "checksum error, parity error".
[[nodiscard]] std::string nakWords(std::uint8_t bits);
// Whether the deck has not understood what came over the line, so that it did nothing and asking again may
// help.
[[nodiscard]] bool isLineError(std::uint8_t bits) noexcept;

// The bits of the status reply that are used here.
struct Status {
    static constexpr std::size_t size = 10; // status bytes that are asked for
    static constexpr std::size_t least = 3; // that tell what the tape does

    std::size_t told = 0; // status bytes that the deck sent

    // byte 0
    bool local = false; // the deck's own panel has control
    bool servoReferenceMissing = false;
    bool cassetteOut = false;
    // byte 1
    bool play = false;
    bool record = false;
    bool fastForward = false;
    bool rewind = false;
    bool eject = false;
    bool stop = false;
    bool standby = false;
    // byte 2
    bool cueUpComplete = false;
    bool still = false;
    bool reverse = false;
    bool variable = false;
    bool jog = false;
    bool shuttle = false;
    bool servoLock = false;
    // byte 4
    bool preroll = false; // a preroll or cue-up is going on
    // byte 8
    bool endOfTape = false;

    // Bytes that the deck did not send count as 0.
    [[nodiscard]] static Status parse(std::span<const std::uint8_t> data) noexcept;
    [[nodiscard]] std::array<std::uint8_t, size> bytes() const noexcept;
    // The tape moves.
    [[nodiscard]] bool moving() const noexcept {
        return !still && !stop && (play || fastForward || rewind || shuttle || jog || variable);
    }
};

// A time as decks tell it: four bytes of binary-coded decimal, frames first.
struct TapeTime {
    int hours = 0;
    int minutes = 0;
    int seconds = 0;
    int frames = 0;
    bool dropFrame = false;

    // Nothing unless all four are decimal and in range (a deck counts at most 30 frames a second).
    [[nodiscard]] static std::optional<TapeTime> decode(std::span<const std::uint8_t> data) noexcept;
    // The drop-frame flag goes with it.
    [[nodiscard]] std::array<std::uint8_t, 4> encode() const noexcept;
    // Reads "hh:mm:ss:ff"; a ';' before the frames makes it drop-frame. Nothing for any other text, a time
    // out of range or a label that drop-frame counting leaves out.
    [[nodiscard]] static std::optional<TapeTime> parse(std::string_view text) noexcept;
    // "hh:mm:ss:ff", with ';' before the frames when drop-frame.
    [[nodiscard]] std::string text() const;
    [[nodiscard]] int secondsOfDay() const noexcept { return (hours * 60 + minutes) * 60 + seconds; }
    bool operator==(const TapeTime&) const = default;
};

// The data byte of a shuttle or jog: the deck runs at 10^(byte/32 - 2) times play speed, and stands still at
// 0. Speeds beyond the byte's range are held at its ends.
[[nodiscard]] std::uint8_t speedByte(double timesPlaySpeed) noexcept;
[[nodiscard]] double speedOf(std::uint8_t byte) noexcept;

} // namespace kestrel::deck
