// Packets with a program association or map section (ISO/IEC 13818-1, 2.4.4), made entry by entry.
#pragma once

#include "foundation/Bytes.h"
#include "mpeg/mpeg2.h"

#include <utility>
#include <vector>

// A packet that carries this section, with its CRC still to come.
inline Bytes packetOf(int pid, Bytes section, int pointer = 0) {
    const std::size_t length = section.size() - 3 + 4;
    section[1] = static_cast<unsigned char>(0xB0 | length >> 8);
    section[2] = static_cast<unsigned char>(length);
    section.resize(section.size() + 4);
    MPEG::PMT::recalc_CRC(section.data());
    Bytes packet{0x47, static_cast<unsigned char>(0x40 | pid >> 8), static_cast<unsigned char>(pid), 0x10,
                 static_cast<unsigned char>(pointer)};
    packet.resize(packet.size() + static_cast<std::size_t>(pointer), 0xFF);
    packet.insert(packet.end(), section.begin(), section.end());
    packet.resize(188, 0xFF);
    return packet;
}

inline Bytes pat(const std::vector<std::pair<int, int>>& programs, int pointer = 0) {
    Bytes section{0x00, 0, 0, 0, 1, 0xC1, 0, 0};
    for (const auto& [number, pid] : programs)
        section.insert(section.end(),
                       {static_cast<unsigned char>(number >> 8), static_cast<unsigned char>(number),
                        static_cast<unsigned char>(0xE0 | pid >> 8), static_cast<unsigned char>(pid)});
    return packetOf(0, section, pointer);
}

inline Bytes entry(int type, int pid, const Bytes& descriptors = {}) {
    Bytes bytes{static_cast<unsigned char>(type), static_cast<unsigned char>(0xE0 | pid >> 8),
                static_cast<unsigned char>(pid), static_cast<unsigned char>(0xF0 | descriptors.size() >> 8),
                static_cast<unsigned char>(descriptors.size())};
    bytes.insert(bytes.end(), descriptors.begin(), descriptors.end());
    return bytes;
}

inline Bytes pmt(const std::vector<Bytes>& entries, const Bytes& programInfo = {}) {
    Bytes section{0x02, 0, 0,    0,    1,    0xC1,
                  0,    0, 0xE1, 0x00, 0xF0, static_cast<unsigned char>(programInfo.size())};
    section.insert(section.end(), programInfo.begin(), programInfo.end());
    for (const Bytes& each : entries)
        section.insert(section.end(), each.begin(), each.end());
    return packetOf(0x1000, section);
}

inline std::vector<int> pidsOf(const Bytes& packet) {
    std::vector<int> pids;
    for (const unsigned char* each : PMT_PIDInfo_iterable(packet.data()))
        pids.push_back(MPEG::PMT::PIDInfo::elementary_PID(each));
    return pids;
}

inline const Bytes AC3_REGISTRATION{0x05, 4, 'A', 'C', '-', '3'};
