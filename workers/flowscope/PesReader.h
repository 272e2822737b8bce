// The PES packets of one PID, their bytes coming in whatever pieces the transport packets make.
#pragma once

#include "mpeg/pts.h"

#include <array>
#include <cstddef>
#include <span>

namespace kestrel::flowscope {

class PesReader {
public:
    // A PES packet begins with the next byte.
    void begin();
    // The rest of the packet is of no use.
    void drop() { m_state = State::none; }
    // Bytes are missing: the rest of the packet is not looked into. Before the first packet nothing changes.
    void lose() { m_state = m_state == State::none ? State::none : State::behindLoss; }
    // Takes what belongs to the header from the front of bytes; true when it is complete with these.
    bool takeHeader(std::span<const unsigned char>& bytes);
    // Whether the bytes behind are those of the elementary stream.
    [[nodiscard]] bool inData() const noexcept { return m_state == State::data; }
    // Whether they are, but behind bytes that are missing, or a header that is damaged.
    [[nodiscard]] bool behindLoss() const noexcept { return m_state == State::behindLoss; }
    // Of the header (ISO/IEC 13818-1, 2.4.3.6); absent where none is sent. dts is the pts where only that is.
    [[nodiscard]] PTS pts() const;
    [[nodiscard]] PTS dts() const;

private:
    enum class State { none, header, data, behindLoss };
    // PTS_DTS_flags, 0 where the fields that they promise are not there.
    [[nodiscard]] int timeFlags() const;

    std::array<unsigned char, 9 + 255> m_header{};
    std::size_t m_length = 0;
    State m_state = State::none;
};

} // namespace kestrel::flowscope
