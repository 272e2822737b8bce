// Finds the headers of an MPEG-2 video stream in its transport packets.
#pragma once

#include "mpeg/packet_view.h"
#include "mpeg/pts.h"
#include "mpeg/ts_file.h"

#include <array>
#include <cstddef>

// A stage that looks into the first three packets of each PES packet of the video PID, together. Its callers
// wait until it has seen more than one GOP header, so the headers it then keeps are those of the second GOP
// or of a later one.
class grab_video_header : public packet_mangler {
public:
    // pid: of the video; level: see packet_mangler. Nothing has been seen: no headers, no PTS.
    grab_video_header(int pid, int level) : packet_mangler(level), m_pid(pid) {}

    // Looks at one packet of 188 bytes and changes nothing in it; the index is not used. Packets of other
    // PIDs and without payload are passed over.
    void process(unsigned char* packet, long index) override;
    // Nothing is held back.
    void flush(long) override {}

    // Reads a transport-stream file, at most its first 106,383 packets, until the second GOP of the first
    // MPEG-1 or MPEG-2 video stream. Width and height in pixels, -1 when there is none. level:
    // see packet_mangler. Always 0.
    static int getDimensions(char* file, int& width, int& height, int level);

    // The headers in the last PES packet that had one of them, each from its start code 00 00 01 xx on and
    // readable to the end of its fixed part as far as it is used here; null when that PES packet had none.
    // ISO/IEC 13818-2, 6.2.2.1 (8 bytes), 6.2.2.3 (7 bytes), 6.2.2.6 (8 bytes).
    [[nodiscard]] const unsigned char* sequence_header() const noexcept { return at(m_kept.sequence); }
    [[nodiscard]] const unsigned char* sequence_extension() const noexcept { return at(m_kept.extension); }
    [[nodiscard]] const unsigned char* gop_header() const noexcept { return at(m_kept.gop); }
    // Presentation time of the last PES packet looked into; absent (-1) when it has none.
    [[nodiscard]] PTS pts() const noexcept { return m_pts; }
    // Two for each picture of the first GOP whose header was seen, and what the picture coding extensions of
    // any group add or take: one field less for a field picture, one to four more for what is repeated.
    [[nodiscard]] int field_counter() const noexcept { return m_field_counter; }
    // GOP headers seen so far, cut ones included.
    [[nodiscard]] int gop_count() const noexcept { return m_gop_count; }

private:
    static constexpr std::size_t buffer_size = std::size_t{3} * kestrel::ts::packet_size;
    using Packet = std::array<unsigned char, kestrel::ts::packet_size>;

    // Three joined payloads, and where the headers are; -1: nowhere.
    struct Headers {
        std::array<unsigned char, buffer_size> bytes{};
        int length = 0;
        int sequence = -1;
        int extension = -1;
        int gop = -1;
    };

    [[nodiscard]] const unsigned char* at(int offset) const noexcept {
        return offset < 0 ? nullptr : m_kept.bytes.data() + offset;
    }
    static void append(Headers& headers, const unsigned char* packet);
    void scan(Headers& headers);
    void take_code(Headers& headers, int start);
    void take_extension(Headers& headers, int start);

    Packet m_first{};
    Packet m_second{};
    int m_state = 0; // packets saved
    Headers m_kept;
    PTS m_pts{-1};
    int m_field_counter = 0;
    int m_gop_count = 0;
    int m_pid;
};
