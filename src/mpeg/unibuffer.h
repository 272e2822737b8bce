// Look-ahead of one packet on one PID, so that a stage can see a PES header that two packets share.
//
// The stage keeps the latest packet of its PID here. Packets of other PIDs that arrive meanwhile are queued;
// when the next packet of the PID arrives, the kept one goes on first, then the queued ones in order, and the
// new one is kept. Output order is input order.
#pragma once

#include "mpeg/mpeg.h"
#include "mpeg/ts_file.h"

#include <array>
#include <cstddef>
#include <vector>

// One packet of one PID, and the packets of other PIDs behind it. Packets are copied in, so that the caller's
// may change. For one thread at a time.
class unibuffer {
public:
    // A copy of one packet.
    using packet_bytes = std::array<unsigned char, kestrel::ts::packet_size>;

    // Two arrays read as one sequence.
    class duo : public byte_sequence {
    public:
        // first, then second. Copies the two views but not their bytes, which must outlive this one.
        duo(const array_byte_sequence& first, const array_byte_sequence& second)
            : m_first(first), m_second(second) {}

        using byte_sequence::operator[];
        // Byte number position of the first array, or of the second from the first one's length on. A
        // negative position counts as past the first array: it leads before the second one's beginning.
        unsigned char& operator[](int position) override;
        // Bytes of both.
        [[nodiscard]] int get_length() const override { return m_first.get_length() + m_second.get_length(); }

    private:
        array_byte_sequence m_first;
        array_byte_sequence m_second;
    };

    // At most this many packets (9 MiB) wait behind the saved one: a PID that has gone silent must not
    // take all memory. At the limit everything held goes on, in order, and nothing is saved any more.
    static constexpr std::size_t max_intervening = 49'152;

    // Holds nothing. What is still held at the end of its life is dropped: flush_buffer passes it on.
    unibuffer() = default;
    unibuffer(const unibuffer&) = delete;
    unibuffer& operator=(const unibuffer&) = delete;

    // The beginning of the PES packet that starts in saved (ISO/IEC 13818-1, 2.4.3.6): its payload, joined
    // with that of next unless next starts a PES packet of its own (PUSI). An adaptation field that overruns
    // its packet leaves no payload. The caller deletes the view, and keeps both packets while it is used.
    static byte_sequence* pes_beginning(unsigned char* saved, unsigned char* next);

    // Logs that the limit was met.
    static void warn_of_silence();

    // Queues a copy while a packet is saved; otherwise passes the packet straight on.
    void queue_intervening(packet_mangler* next_stage, unsigned char* packet, long index);
    // Passes on the queued packets, oldest first, each with its own index.
    void flush_intervening(packet_mangler* next_stage);
    // Passes on the saved packet, if any, then the queued ones. The saved packet gets the index before that
    // of the first queued packet, or before index when none is queued: consistent with the order, though not
    // its own.
    void flush_buffer(packet_mangler* next_stage, long index);
    // Saves a copy of the packet.
    void preload_buffer(const unsigned char* packet);
    // flush_buffer, then preload_buffer.
    void process_buffer(packet_mangler* next_stage, long index, const unsigned char* packet);
    // Drops the queued packets.
    void discard_intervening() noexcept { m_intervening.clear(); }

    // Whether a packet is saved: from preload_buffer on, until it has been passed on.
    [[nodiscard]] bool has_saved() const noexcept { return m_has_saved; }
    // The saved packet, to be changed before it goes on; meaningful while has_saved().
    [[nodiscard]] unsigned char* saved_packet() noexcept { return m_saved.data(); }

private:
    struct record {
        packet_bytes packet;
        long index;
    };

    packet_bytes m_saved{};
    bool m_has_saved = false;
    std::vector<record> m_intervening; // keeps its memory, which is used again for every packet of the PID
};
