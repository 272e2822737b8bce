// What a simulated deck does wrong when it is told to.
#pragma once

#include <chrono>
#include <cstdint>

namespace kestrel::deck_simulator {

struct Fault {
    enum class Kind {
        none,
        nak,      // refuses every block, with these bits
        garbage,  // answers with bytes that are no block
        checksum, // answers with a checksum that is wrong
        partial,  // breaks its answer off after the first byte
        silent,   // does not answer
        late,     // answers after a delay
    };
    static constexpr int always = -1;

    Kind kind = Kind::none;
    std::uint8_t bits = 0;
    std::chrono::milliseconds delay{0};
    int blocks = always; // so many, then it is well again
    // Blocks that are answered well before it begins.
    int after = 0;
};

} // namespace kestrel::deck_simulator
