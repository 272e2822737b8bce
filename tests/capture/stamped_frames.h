// Changes the times of prepared frames: their timestamps, and PCRs between them.
#pragma once

#include "capture/labelled_stream.h"

#include <algorithm>
#include <cstdint>
#include <vector>

namespace capture_test {

inline bool startsPicture(const Packet& packet) {
    return pid(packet) == videoPid && (packet[1] & 0x40) != 0;
}

// Of 5 bytes with 33 bits of a timestamp (ISO/IEC 13818-1, 2.4.3.7).
inline std::int64_t ticksAt(const Packet& packet, std::size_t at) {
    return static_cast<std::int64_t>(packet[at] >> 1 & 7) << 30 | packet[at + 1] << 22 |
           (packet[at + 2] >> 1) << 15 | packet[at + 3] << 7 | packet[at + 4] >> 1;
}
inline void putTicks(Packet& packet, std::size_t at, std::int64_t ticks) {
    const auto low = [](std::int64_t value) { return static_cast<unsigned char>(value & 0xFF); };
    packet[at] = low((packet[at] & 0xF0) | (ticks >> 30 & 7) << 1 | 1);
    packet[at + 1] = low(ticks >> 22);
    packet[at + 2] = low(ticks >> 14 | 1);
    packet[at + 3] = low(ticks >> 7);
    packet[at + 4] = low(ticks << 1 | 1);
}

// PTS and DTS of a frame, 90 kHz later.
inline void delay(CodedFrame& frame, std::int64_t ticks) {
    for (Packet& packet : frame.packets)
        if (startsPicture(packet))
            for (const std::size_t at : {std::size_t{13}, std::size_t{18}})
                putTicks(packet, at, ticksAt(packet, at) + ticks);
}

// Without timestamps.
inline void unstamp(CodedFrame& frame) {
    for (Packet& packet : frame.packets)
        if (startsPicture(packet) && packet[11] != 0) {
            packet[11] = 0;
            std::fill_n(packet.begin() + 13, 10, static_cast<unsigned char>(0xFF));
        }
}

// Puts a PCR before each frame, half a second before it is decoded.
inline void addPcr(CodedFrame& frame, bool announced = false, int onPid = videoPid) {
    std::int64_t base = 0;
    Packet pcr{};
    pcr.fill(0xFF);
    for (const Packet& packet : frame.packets)
        if (startsPicture(packet)) {
            base = ticksAt(packet, 18) - 45000;
            pcr[3] = static_cast<unsigned char>(0x20 | ((packet[3] - 1) & 15)); // it has no payload
        }
    pcr[0] = 0x47;
    pcr[1] = static_cast<unsigned char>(onPid >> 8);
    pcr[2] = static_cast<unsigned char>(onPid & 0xFF);
    pcr[4] = 183;
    pcr[5] = announced ? 0x90 : 0x10;
    for (int i = 0; i < 4; ++i)
        pcr[static_cast<std::size_t>(6 + i)] = static_cast<unsigned char>(base >> (25 - 8 * i) & 0xFF);
    pcr[10] = static_cast<unsigned char>((base & 1) << 7 | 0x7E);
    pcr[11] = 0;
    frame.packets.insert(frame.packets.begin(), pcr);
}

} // namespace capture_test
