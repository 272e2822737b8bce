// The deck's side of the protocol: takes a block, moves the tape, says what to answer.
#pragma once

#include "Fault.h"
#include "Transport.h"

#include <cstdint>
#include <vector>

namespace kestrel::deck_simulator {

// What goes back over the line, and when.
struct Response {
    std::vector<std::uint8_t> bytes; // empty: nothing
    milliseconds delay{0};
};

class Responder {
public:
    explicit Responder(const Transport& transport) : m_transport(transport) {}

    Transport& transport() noexcept { return m_transport; }
    [[nodiscard]] const Transport& transport() const noexcept { return m_transport; }
    void setFault(const Fault& fault) noexcept { m_fault = fault; }
    void setLocal(bool local) noexcept { m_local = local; }
    void setVitc(bool vitc) noexcept { m_vitc = vitc; }
    // Without timecode on the tape the deck knows its counter only.
    void setTimecode(bool recorded) noexcept { m_timecode = recorded; }
    // An old deck: it reads LTC or VITC, but does not choose between them.
    void setOld(bool old) noexcept { m_old = old; }

    [[nodiscard]] Response respond(const deck::Block& block, Clock::time_point now);
    // To a block whose checksum is wrong.
    [[nodiscard]] static Response checksumError();

private:
    [[nodiscard]] deck::Block answer(const deck::Block& block, Clock::time_point now);
    [[nodiscard]] deck::Block transportCommand(const deck::Block& block, Clock::time_point now);
    [[nodiscard]] deck::Block time(const deck::Block& block, Clock::time_point now);
    [[nodiscard]] deck::Block status(const deck::Block& block, Clock::time_point now) const;

    Transport m_transport;
    Fault m_fault;
    bool m_local = false;
    bool m_vitc = true;
    bool m_timecode = true;
    bool m_old = false;
    TapeTime m_lastVitc;
};

} // namespace kestrel::deck_simulator
