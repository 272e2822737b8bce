#include "NinePin.h"

#include "foundation/FixedText.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <numeric>

namespace kestrel::deck {
namespace {

struct Name {
    Code code;
    std::string_view text;
};

constexpr Name names[] = {
    {Code::deviceType, "Device type request"},
    {Code::ack, "ACK"},
    {Code::deviceTypeIs, "Device type"},
    {Code::nak, "NAK"},
    {Code::stop, "Stop"},
    {Code::play, "Play"},
    {Code::fastForward, "Fast forward"},
    {Code::jogForward, "Jog forward"},
    {Code::shuttleForward, "Shuttle forward"},
    {Code::stepForward, "Step forward"},
    {Code::rewind, "Rewind"},
    {Code::jogReverse, "Jog reverse"},
    {Code::shuttleReverse, "Shuttle reverse"},
    {Code::stepReverse, "Step reverse"},
    {Code::cueUp, "Cue up"},
    {Code::timeSense, "Current time sense"},
    {Code::statusSense, "Status sense"},
    {Code::status, "Status"},
};

constexpr Name sources[] = {
    {Code::timer1, "timer 1"},
    {Code::timer2, "timer 2"},
    {Code::ltc, "LTC"},
    {Code::vitc, "VITC"},
    {Code::ltcCorrected, "LTC counted by the control track"},
    {Code::vitcHeld, "VITC held"},
};

template <std::size_t Count>
std::string_view find(const Name (&table)[Count], Code code) noexcept {
    for (const Name& name : table)
        if (name.code == code)
            return name.text;
    return {};
}

struct NakName {
    std::uint8_t bit;
    const char* words;
};

constexpr NakName nakNames[] = {
    {nakUnknownCommand, "unknown command"},
    {0x02, "bit 1"},
    {nakChecksum, "checksum error"},
    {0x08, "bit 3"},
    {nakParity, "parity error"},
    {nakOverrun, "buffer overrun"},
    {nakFraming, "framing error"},
    {nakTimeout, "timeout"},
};
static_assert(std::size(nakNames) == 8);

struct StatusBit {
    bool Status::*member;
    std::size_t byte;
    std::uint8_t mask;
};

constexpr StatusBit statusBits[] = {
    {&Status::local, 0, 0x01},         {&Status::servoReferenceMissing, 0, 0x10},
    {&Status::cassetteOut, 0, 0x20},   {&Status::play, 1, 0x01},
    {&Status::record, 1, 0x02},        {&Status::fastForward, 1, 0x04},
    {&Status::rewind, 1, 0x08},        {&Status::eject, 1, 0x10},
    {&Status::stop, 1, 0x20},          {&Status::standby, 1, 0x80},
    {&Status::cueUpComplete, 2, 0x01}, {&Status::still, 2, 0x02},
    {&Status::reverse, 2, 0x04},       {&Status::variable, 2, 0x08},
    {&Status::jog, 2, 0x10},           {&Status::shuttle, 2, 0x20},
    {&Status::servoLock, 2, 0x80},     {&Status::preroll, 4, 0x01},
    {&Status::endOfTape, 8, 0x10},
};

constexpr std::uint8_t dropFrameFlag = 0x40;

// Two decimal digits under a mask that leaves flags out; -1 when they are none.
int decimal(std::uint8_t byte, std::uint8_t mask) noexcept {
    const int tens = (byte & mask) >> 4;
    const int units = byte & 0x0F;
    return tens > 9 || units > 9 ? -1 : tens * 10 + units;
}

std::uint8_t coded(int value) noexcept {
    return static_cast<std::uint8_t>(value / 10 << 4 | value % 10);
}

bool inRange(const TapeTime& time) noexcept {
    const auto within = [](int value, int end) { return value >= 0 && value < end; };
    return within(time.hours, 24) && within(time.minutes, 60) && within(time.seconds, 60) &&
           within(time.frames, 30);
}

} // namespace

std::string hexText(std::span<const std::uint8_t> bytes) {
    std::string text;
    for (const std::uint8_t byte : bytes) {
        std::array<char, 4> digits{};
        formatText(digits, "%02X", byte);
        text += text.empty() ? digits.data() : std::string(" ") + digits.data();
    }
    return text;
}

std::string codeName(Code code) {
    if (const std::string_view name = find(names, code); !name.empty())
        return std::string(name);
    if (const std::string_view source = sourceName(code); !source.empty())
        return "Time (" + std::string(source) + ")";
    std::array<char, 8> text{};
    const auto value = static_cast<unsigned>(code);
    std::snprintf(text.data(), text.size(), "%02X.%02X", value >> 8 & 0xFFu, value & 0xFFu);
    return text.data();
}

std::string_view sourceName(Code reply) noexcept {
    return find(sources, reply);
}

Block::Block(Code code, std::span<const std::uint8_t> data)
    : m_code(code), m_size(std::min(data.size(), maxData)) {
    std::copy_n(data.begin(), m_size, m_data.begin());
}

std::vector<std::uint8_t> Block::bytes() const {
    const auto code = static_cast<unsigned>(m_code);
    std::vector<std::uint8_t> result(m_size + 3);
    result[0] = static_cast<std::uint8_t>(code >> 8 | m_size);
    result[1] = static_cast<std::uint8_t>(code);
    std::copy_n(m_data.begin(), m_size, result.begin() + 2);
    result.back() = static_cast<std::uint8_t>(std::accumulate(result.begin(), result.end() - 1, 0u));
    return result;
}

bool Block::operator==(const Block& other) const noexcept {
    return m_code == other.m_code && std::ranges::equal(data(), other.data());
}

BlockParser::State BlockParser::feed(std::uint8_t byte) noexcept {
    m_bytes[m_count++] = byte;
    const std::size_t size = m_bytes[0] & 0x0Fu;
    if (m_count < size + 3)
        return State::incomplete;
    m_count = 0;
    const auto sum = static_cast<std::uint8_t>(
        std::accumulate(m_bytes.begin(), m_bytes.begin() + static_cast<long>(size) + 2, 0u));
    if (sum != byte)
        return State::badChecksum;
    m_block.m_code = static_cast<Code>((m_bytes[0] & 0xF0u) << 8 | m_bytes[1]);
    m_block.m_size = size;
    std::copy_n(m_bytes.begin() + 2, size, m_block.m_data.begin());
    return State::complete;
}

std::string nakWords(std::uint8_t bits) {
    std::string words;
    for (const NakName& name : nakNames)
        if (bits & name.bit)
            words += (words.empty() ? "" : ", ") + std::string(name.words);
    return words.empty() ? "no reason given" : words;
}

bool isLineError(std::uint8_t bits) noexcept {
    return (bits & nakUnknownCommand) == 0 &&
           (bits & (nakChecksum | nakParity | nakOverrun | nakFraming | nakTimeout)) != 0;
}

Status Status::parse(std::span<const std::uint8_t> data) noexcept {
    Status status;
    status.told = data.size();
    for (const StatusBit& bit : statusBits)
        status.*bit.member = bit.byte < data.size() && (data[bit.byte] & bit.mask) != 0;
    return status;
}

std::array<std::uint8_t, Status::size> Status::bytes() const noexcept {
    std::array<std::uint8_t, size> result{};
    for (const StatusBit& bit : statusBits)
        if (this->*bit.member)
            result[bit.byte] = static_cast<std::uint8_t>(result[bit.byte] | bit.mask);
    return result;
}

std::optional<TapeTime> TapeTime::decode(std::span<const std::uint8_t> data) noexcept {
    if (data.size() < 4)
        return std::nullopt;
    // The uppermost bits hold flags: color frame, drop frame and the field mark.
    const TapeTime time{decimal(data[3], 0x3F), decimal(data[2], 0x7F), decimal(data[1], 0x7F),
                        decimal(data[0], 0x3F), (data[0] & dropFrameFlag) != 0};
    return inRange(time) ? std::optional(time) : std::nullopt;
}

std::array<std::uint8_t, 4> TapeTime::encode() const noexcept {
    return {static_cast<std::uint8_t>(coded(frames) | (dropFrame ? dropFrameFlag : 0)), coded(seconds),
            coded(minutes), coded(hours)};
}

std::optional<TapeTime> TapeTime::parse(std::string_view text) noexcept {
    if (text.size() != 11)
        return std::nullopt;
    TapeTime time;
    int* const fields[] = {&time.hours, &time.minutes, &time.seconds, &time.frames};
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (i % 3 == 2) {
            if (c != ':' && c != ';')
                return std::nullopt;
            time.dropFrame = c == ';';
        } else if (c < '0' || c > '9') {
            return std::nullopt;
        } else {
            *fields[i / 3] = *fields[i / 3] * 10 + (c - '0');
        }
    }
    const bool dropped = time.dropFrame && time.frames < 2 && time.seconds == 0 && time.minutes % 10 != 0;
    return inRange(time) && !dropped ? std::optional(time) : std::nullopt;
}

std::string TapeTime::text() const {
    std::array<char, 48> text{};
    std::snprintf(text.data(), text.size(), "%02d:%02d:%02d%c%02d", hours, minutes, seconds,
                  dropFrame ? ';' : ':', frames);
    return text.data();
}

std::uint8_t speedByte(double timesPlaySpeed) noexcept {
    const double speed = std::abs(timesPlaySpeed);
    if (!(speed > 0))
        return 0;
    return static_cast<std::uint8_t>(std::lround(std::clamp(32 * (std::log10(speed) + 2), 1.0, 127.0)));
}

double speedOf(std::uint8_t byte) noexcept {
    return byte == 0 ? 0.0 : std::pow(10.0, byte / 32.0 - 2);
}

} // namespace kestrel::deck
