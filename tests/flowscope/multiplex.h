// Transport streams of several programs, made packet by packet.
#pragma once

#include "mpeg/ts_maker.h"

#include <cstdint>
#include <map>
#include <utility>
#include <vector>

// One packet behind the other; counters go on, sections may take several packets.
class Multiplex {
public:
    Bytes bytes;

    // The program association table: numbers and PIDs of the maps.
    Multiplex& association(const std::vector<std::pair<int, int>>& programs) {
        Bytes body{0, 1, 0xC1, 0, 0};
        for (const auto& [number, pid] : programs)
            body = body + Bytes{byte(number >> 8), byte(number), byte(0xE0 | pid >> 8), byte(pid)};
        return section(0, 0x00, body);
    }
    // The map of one program.
    Multiplex& map(int pid, int number, int pcrPid, const std::vector<Stream>& streams) {
        return section(pid, 0x02, mapBody(number, pcrPid, streams));
    }
    static Bytes mapBody(int number, int pcrPid, const std::vector<Stream>& streams) {
        Bytes body{byte(number >> 8),        byte(number), 0xC1, 0, 0,
                   byte(0xE0 | pcrPid >> 8), byte(pcrPid), 0xF0, 0};
        for (const Stream& stream : streams)
            body = body + Bytes{byte(stream.type), byte(0xE0 | stream.pid >> 8), byte(stream.pid), 0xF0, 0};
        return body;
    }
    Multiplex& section(int pid, int tableId, const Bytes& body) {
        return sections(pid, wholeSection(tableId, body));
    }
    // Sections one behind the other in the same packets.
    Multiplex& sections(int pid, const Bytes& whole) {
        Bytes rest = Bytes{0} + whole;
        for (bool start = true; !rest.empty(); start = false) {
            Bytes payload(rest.begin(),
                          rest.begin() + static_cast<long>(std::min<std::size_t>(rest.size(), 184)));
            rest.erase(rest.begin(), rest.begin() + static_cast<long>(payload.size()));
            payload.resize(184, 0xFF);
            packet(pid, start, payload);
        }
        return *this;
    }
    static Bytes wholeSection(int tableId, const Bytes& body) {
        const std::size_t length = body.size() + 4;
        Bytes all =
            Bytes{byte(tableId), byte(0xB0 | static_cast<int>(length >> 8)), byte(static_cast<int>(length))} +
            body;
        std::uint32_t crc = 0xFFFFFFFF; // ISO/IEC 13818-1, annex A
        for (const unsigned char each : all)
            for (int bit = 7; bit >= 0; --bit)
                crc = crc << 1 ^ ((crc >> 31 ^ (each >> bit & 1U)) != 0 ? 0x04C11DB7U : 0U);
        return all + Bytes{byte(static_cast<int>(crc >> 24)), byte(static_cast<int>(crc >> 16 & 0xFF)),
                           byte(static_cast<int>(crc >> 8 & 0xFF)), byte(static_cast<int>(crc & 0xFF))};
    }
    // A packet with this payload (at most 184 bytes).
    Multiplex& packet(int pid, bool start, const Bytes& payload) {
        Bytes one{0x47, byte((start ? 0x40 : 0) | pid >> 8), byte(pid)};
        const bool stuffed = payload.size() < 184;
        one.push_back(byte((stuffed ? 0x30 : 0x10) | (m_counters[pid]++ & 0x0F)));
        if (stuffed) {
            const std::size_t field = 183 - payload.size();
            one.push_back(byte(static_cast<int>(field)));
            if (field > 0)
                one.push_back(0);
            one.resize(4 + 1 + field, 0xFF);
        }
        append(one);
        append(payload);
        return *this;
    }
    // A PES packet in as many packets as it takes.
    Multiplex& pes(int pid, const Bytes& header, const Bytes& payload) {
        const Bytes all = header + payload;
        for (std::size_t at = 0; at < all.size(); at += 184)
            packet(pid, at == 0,
                   Bytes(all.begin() + static_cast<long>(at),
                         all.begin() + static_cast<long>(std::min(at + 184, all.size()))));
        return *this;
    }
    // A packet of nothing but a clock reference in ticks of 27 MHz.
    Multiplex& clock(int pid, std::int64_t pcr, bool announced = false) {
        const std::int64_t base = pcr / 300;
        const auto extension = static_cast<int>(pcr % 300);
        Bytes one{0x47,
                  byte(pid >> 8),
                  byte(pid),
                  byte(0x20 | ((m_counters[pid] + 15) & 0x0F)),
                  183,
                  byte(announced ? 0x90 : 0x10),
                  byte(static_cast<int>(base >> 25 & 0xFF)),
                  byte(static_cast<int>(base >> 17 & 0xFF)),
                  byte(static_cast<int>(base >> 9 & 0xFF)),
                  byte(static_cast<int>(base >> 1 & 0xFF)),
                  byte(static_cast<int>(base & 1) << 7 | 0x7E | extension >> 8),
                  byte(extension)};
        one.resize(188, 0xFF);
        append(one);
        return *this;
    }
    Multiplex& null() {
        Bytes one{0x47, 0x1F, 0xFF, 0x10};
        one.resize(188, 0xFF);
        append(one);
        return *this;
    }
    // The latest packet once more.
    Multiplex& again() {
        append(Bytes(bytes.end() - 188, bytes.end()));
        return *this;
    }
    [[nodiscard]] std::size_t packets() const { return bytes.size() / 188; }

private:
    static unsigned char byte(int value) { return static_cast<unsigned char>(value); }
    // In place: a multiplex of minutes grows by some hundred thousand packets.
    void append(const Bytes& more) { bytes.insert(bytes.end(), more.begin(), more.end()); }

    std::map<int, int> m_counters;
};

// An MPEG-2 picture of 25 a second, of that many bytes, whose headers name 2 Mb/s and a buffer of 163,840
// bits; a vbv_delay of 0xFFFF says that the rate is variable (ISO/IEC 13818-2, 6.3.9).
inline Bytes pictureOf2Mbs(std::size_t bytes, int vbvDelay = 1234) {
    constexpr int RATE = 5000; // units of 400 bit/s
    constexpr int BUFFER = 10; // units of 16,384 bits
    Bytes sequence = sequenceHeader(720, 576, 3) + sequenceExtension(0x48);
    sequence[8] = RATE >> 10;
    sequence[9] = RATE >> 2 & 0xFF;
    sequence[10] = 0x20;
    sequence[11] = BUFFER << 3;
    Bytes header = pictureHeader(1);
    header[5] = static_cast<unsigned char>((header[5] & 0xF8) | vbvDelay >> 13);
    header[6] = static_cast<unsigned char>(vbvDelay >> 5);
    header[7] = static_cast<unsigned char>(vbvDelay << 3);
    const Bytes headers = sequence + header + pictureCodingExtension(3, true, false);
    return headers + filler(bytes - headers.size());
}

// One MPEG-2 picture of 25 a second with all of its headers.
inline Bytes mpeg2Picture(int type = 1, std::size_t size = 40) {
    const Bytes headers = type == 1 ? sequenceHeader(720, 576, 3) + sequenceExtension(0x48) : Bytes{};
    return headers + pictureHeader(type) + pictureCodingExtension(3, true, false) + filler(size);
}
