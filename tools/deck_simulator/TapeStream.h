// What is recorded on a tape: a transport stream whose GOP timecodes are the tape's.
#pragma once

#include "Tape.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace kestrel::deck_simulator {

class TapeStream {
public:
    // Reads a file whole. What stands against it in words, or empty.
    [[nodiscard]] std::string load(const std::string& path, const Tape& tape);

    [[nodiscard]] std::size_t packets() const noexcept { return m_seconds.size(); }
    // Bytes of count packets from first on, fewer at the end.
    [[nodiscard]] std::span<const unsigned char> bytes(std::size_t first, std::size_t count) const;
    // When a packet leaves the encoder, in seconds of the stream's clock (PCR, ISO/IEC 13818-1, 2.4.2.2).
    [[nodiscard]] double seconds(std::size_t packet) const { return m_seconds[packet]; }

    // A place from which the stream can be decoded, and where on the tape it is.
    struct Entry {
        std::size_t packet;
        double position;
    };
    [[nodiscard]] std::span<const Entry> entries() const noexcept { return m_entries; }
    // The first entry at or after a position.
    [[nodiscard]] std::optional<Entry> entryFrom(double position) const;

private:
    void readClock();
    void readEntries(const Tape& tape, int videoPid);

    std::vector<unsigned char> m_bytes;
    std::vector<double> m_seconds; // of each packet
    std::vector<Entry> m_entries;
};

} // namespace kestrel::deck_simulator
