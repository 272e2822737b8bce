// The transport packets of a file, also behind places where bytes are missing or too many.
#pragma once

#include "mpeg/packet_view.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <span>

namespace kestrel::flowscope {

// Hands out one packet behind the other. A packet whose sync byte alone is damaged is handed out as it is;
// where several in a row have none, the next place is sought from which they stand 188 bytes apart again. A
// sync byte alone is no packet: in what follows the others must stand behind it, too. A packet that is
// shorter because bytes of it are missing is not handed out.
class PacketReader {
public:
    // Reads from where the descriptor stands, which must outlive this object.
    explicit PacketReader(int fd);

    // The next packet, valid until the next call. Null at the end, and now and then while a place is sought.
    const unsigned char* next() {
        // Inline, since it runs for every packet of every file.
        const unsigned char* const packet = m_buffer.get() + m_begin;
        constexpr std::size_t size = ts::packet_size;
        if (m_end - m_begin <= size || m_seeking || *packet != ts::sync_byte || packet[size] != ts::sync_byte)
            return slowNext();
        m_inStep = true;
        m_begin += ts::packet_size;
        return packet;
    }
    // There are no more packets.
    [[nodiscard]] bool ended() const noexcept { return m_ended; }
    // errno of a read that failed and so ended it; 0 where none did.
    [[nodiscard]] int error() const noexcept { return m_error; }
    // Bytes that have been passed over or handed out.
    [[nodiscard]] std::uint64_t position() const noexcept { return m_offset + m_begin; }

    // Bytes of the file that are no packets.
    struct Stray {
        std::uint64_t position;
        std::uint64_t bytes;
    };
    // Those before the latest packet, or before the end; told once.
    std::optional<Stray> takeStray();

    // Of the last packet, where the file ends within it, its bytes; empty where it ends behind one. Valid
    // once ended.
    [[nodiscard]] std::span<const unsigned char> cutPacket() const noexcept { return m_cut; }

    // Packets in a row that tell a place from chance.
    static constexpr std::size_t run = 5;

private:
    const unsigned char* slowNext();
    void fill();
    [[nodiscard]] bool inStep() const;
    [[nodiscard]] bool isCutShort() const;
    void endWithin();
    bool seek();

    int m_fd;
    std::unique_ptr<unsigned char[]> m_buffer;
    std::size_t m_begin = 0;
    std::size_t m_end = 0;
    std::uint64_t m_offset = 0; // of the buffer in the file
    bool m_fileEnded = false;
    bool m_ended = false;
    int m_error = 0;
    bool m_inStep = false; // a packet has been handed out, and no place sought since
    bool m_seeking = false;
    std::span<const unsigned char> m_cut;
    Stray m_sought{0, 0};
    std::optional<Stray> m_stray;
};

// Where a run of packets of that size begins, at their sync bytes; nothing where none does. wanted: so many
// of them must be seen.
std::optional<std::size_t> findPackets(const unsigned char* bytes, std::size_t count, std::size_t size,
                                       std::size_t wanted = PacketReader::run);

} // namespace kestrel::flowscope
