// The bytes of a file between its reading and its writing, with the packets that were found in them.
#pragma once

#include "Limits.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace kestrel::capture {

// Packets that were accepted lie one behind the other at the front, bytes that are still to be judged behind
// them. Nothing is copied unless something between two packets was dropped.
class PacketWindow {
public:
    using Ticks = std::int64_t; // of the stream's clock, 27 MHz

    // What is known of a packet beside its bytes.
    struct Note {
        Ticks time = 0;         // when it is in the stream, once that is known
        bool duplicate = false; // of the packet of its PID before
        bool rewritten = false; // its payload was changed
    };

    // Room for the next bytes of the file, and how many were put there.
    [[nodiscard]] std::span<unsigned char> room();
    void added(std::size_t bytes) noexcept { m_end += bytes; }

    // All bytes that are there, and where those begin that are still to be judged.
    [[nodiscard]] std::span<const unsigned char> bytes() const noexcept { return {m_bytes.data(), m_end}; }
    [[nodiscard]] std::size_t unread() const noexcept { return m_raw; }
    [[nodiscard]] unsigned char* unreadBytes() noexcept { return m_bytes.data() + m_raw; }
    // The next bytes are not wanted.
    void skip(std::size_t bytes) noexcept { m_raw += bytes; }
    // The next 188 bytes are a packet; its index.
    std::size_t accept();

    [[nodiscard]] std::size_t count() const noexcept { return m_notes.size(); }
    [[nodiscard]] unsigned char* packet(std::size_t index) noexcept {
        return m_bytes.data() + index * packetSize;
    }
    [[nodiscard]] Note& note(std::size_t index) noexcept { return m_notes[index]; }
    [[nodiscard]] std::span<const unsigned char> packets(std::size_t begin, std::size_t end) const noexcept {
        return {m_bytes.data() + begin * packetSize, (end - begin) * packetSize};
    }
    // Forgets the first packets; the indexes of the others go down by as many.
    void release(std::size_t count) noexcept;

private:
    static constexpr std::size_t readBytes = 256 * 1024;

    std::vector<unsigned char> m_bytes;
    std::vector<Note> m_notes;
    std::size_t m_raw = 0;
    std::size_t m_end = 0;
};

} // namespace kestrel::capture
