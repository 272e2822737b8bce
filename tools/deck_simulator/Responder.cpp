#include "Responder.h"

#include <algorithm>

namespace kestrel::deck_simulator {
namespace {

using deck::Block;
using deck::Code;

constexpr std::uint8_t deviceTypeBytes[] = {0x20, 0x25};
// Nothing that a reply could begin with.
const std::vector<std::uint8_t> garbageBytes{0xE7, 0x3C, 0x00, 0xFF, 0x81};

Block nak(std::uint8_t bits) {
    return Block(Code::nak, {bits});
}

std::uint8_t firstByte(const Block& block) {
    return block.data().empty() ? std::uint8_t{0} : block.data()[0];
}

} // namespace

Response Responder::checksumError() {
    return {nak(deck::nakChecksum).bytes(), milliseconds(0)};
}

Response Responder::respond(const Block& block, Clock::time_point now) {
    const bool waits = m_fault.after > 0;
    if (waits)
        --m_fault.after;
    else if (m_fault.blocks > 0)
        --m_fault.blocks;
    else if (m_fault.blocks == 0)
        m_fault = {};
    switch (waits ? Fault::Kind::none : m_fault.kind) {
    case Fault::Kind::nak:
        return {nak(m_fault.bits).bytes(), milliseconds(0)};
    case Fault::Kind::garbage:
        return {garbageBytes, milliseconds(0)};
    case Fault::Kind::silent:
        return {};
    default:
        break;
    }
    // The others do what they are told, and only tell it badly.
    Response response{answer(block, now).bytes(), milliseconds(0)};
    if (waits || m_fault.kind == Fault::Kind::none)
        return response;
    if (m_fault.kind == Fault::Kind::checksum)
        ++response.bytes.back();
    else if (m_fault.kind == Fault::Kind::partial)
        response.bytes.resize(1);
    else
        response.delay = m_fault.delay;
    return response;
}

Block Responder::answer(const Block& block, Clock::time_point now) {
    m_transport.advance(now);
    switch (block.code()) {
    case Code::deviceType:
        return Block(Code::deviceTypeIs, deviceTypeBytes);
    case Code::timeSense:
        return time(block, now);
    case Code::statusSense:
        return status(block, now);
    default:
        return transportCommand(block, now);
    }
}

Block Responder::transportCommand(const Block& block, Clock::time_point now) {
    // A deck in LOCAL takes commands and does not follow them.
    if (m_local)
        return Block(Code::ack);
    const double speed = deck::speedOf(firstByte(block));
    switch (block.code()) {
    case Code::stop:
        m_transport.stop(now);
        break;
    case Code::play:
        m_transport.play(now);
        break;
    case Code::fastForward:
    case Code::rewind:
        m_transport.wind(block.code() == Code::fastForward, now);
        break;
    case Code::jogForward:
    case Code::jogReverse:
        m_transport.jog(block.code() == Code::jogForward ? speed : -speed, now);
        break;
    case Code::shuttleForward:
    case Code::shuttleReverse:
        m_transport.shuttle(block.code() == Code::shuttleForward ? speed : -speed, now);
        break;
    case Code::stepForward:
    case Code::stepReverse:
        m_transport.step(block.code() == Code::stepForward ? 1 : -1, now);
        break;
    case Code::cueUp: {
        const auto target = TapeTime::decode(block.data());
        if (!target || !m_transport.cueUp(*target, now))
            return nak(deck::nakUnknownCommand);
        break;
    }
    default:
        return nak(deck::nakUnknownCommand);
    }
    return Block(Code::ack);
}

Block Responder::time(const Block& block, Clock::time_point now) {
    const TapeTime here = m_transport.time(now);
    if (m_vitc)
        m_lastVitc = here;
    const auto wanted = static_cast<deck::TimeSource>(firstByte(block));
    Code source = Code::ltc;
    TapeTime shown = here;
    switch (wanted) {
    case deck::TimeSource::ltc:
    case deck::TimeSource::asDeckReads:
        if (m_old && wanted == deck::TimeSource::asDeckReads)
            return nak(deck::nakUnknownCommand);
        // LTC is read from a moving tape only; VITC is in the picture.
        if (!m_transport.moving(now))
            source = m_vitc && wanted == deck::TimeSource::asDeckReads ? Code::vitc : Code::ltcCorrected;
        break;
    case deck::TimeSource::vitc:
        source = m_vitc ? Code::vitc : Code::vitcHeld;
        shown = m_lastVitc;
        break;
    case deck::TimeSource::timer1:
        source = Code::timer1;
        break;
    default:
        return nak(deck::nakUnknownCommand);
    }
    return Block(m_timecode ? source : Code::timer1, shown.encode());
}

Block Responder::status(const Block& block, Clock::time_point now) const {
    deck::Status bits = m_transport.status(now);
    bits.local = m_local;
    const auto all = bits.bytes();
    const std::size_t first = firstByte(block) >> 4;
    const std::size_t count = firstByte(block) & 0x0Fu;
    std::vector<std::uint8_t> wanted(count);
    for (std::size_t i = 0; i < count; ++i)
        wanted[i] = first + i < all.size() ? all[first + i] : std::uint8_t{0};
    return Block(Code::status, wanted);
}

} // namespace kestrel::deck_simulator
