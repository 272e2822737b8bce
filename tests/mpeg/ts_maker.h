// Transport streams made packet by packet, and bit strings made field by field.
#pragma once

#include "foundation/Bytes.h"
#include "foundation/ScratchDir.h"

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

// Bits, most significant first, as in the syntax tables of ITU-T H.264.
class BitString {
public:
    BitString& u(int count, std::uint64_t value) {
        for (int i = count - 1; i >= 0; --i)
            m_bits.push_back((value >> i & 1) != 0);
        return *this;
    }
    BitString& ue(std::uint64_t value) {
        int length = 0;
        while ((value + 1) >> (length + 1) != 0)
            ++length;
        return u(length, 0).u(length + 1, value + 1);
    }
    // Filled with a stop bit and zeros to whole bytes.
    [[nodiscard]] Bytes bytes() const {
        Bytes result((m_bits.size() + 8) / 8);
        for (std::size_t i = 0; i < m_bits.size(); ++i)
            if (m_bits[i])
                result[i / 8] = static_cast<unsigned char>(result[i / 8] | 0x80 >> i % 8);
        result[m_bits.size() / 8] =
            static_cast<unsigned char>(result[m_bits.size() / 8] | 0x80 >> m_bits.size() % 8);
        return result;
    }
    [[nodiscard]] int size() const { return static_cast<int>(m_bits.size()); }

private:
    std::vector<bool> m_bits;
};

// One elementary stream of a map table.
struct Stream {
    int type;
    int pid;
};

// Packets one behind the other, with counters that go on. Payloads that do not fill a packet are stuffed by
// an adaptation field.
class TsMaker {
public:
    static constexpr int PMT_PID = 0x1000;

    Bytes bytes;

    TsMaker& tables(const std::vector<Stream>& streams, int pmtPid = PMT_PID) {
        Bytes pat{0x00, 0xB0, 13, 0, 1, 0xC1, 0, 0, 0, 1};
        pat = pat + Bytes{static_cast<unsigned char>(0xE0 | pmtPid >> 8), static_cast<unsigned char>(pmtPid)};
        section(0, pat);
        return map(streams, pmtPid);
    }
    TsMaker& map(const std::vector<Stream>& streams, int pmtPid = PMT_PID) {
        const auto length = static_cast<unsigned char>(13 + 5 * streams.size());
        Bytes pmt{0x02, 0xB0, length, 0, 1, 0xC1, 0, 0, 0xE1, 0x00, 0xF0, 0};
        for (const Stream& stream : streams)
            pmt = pmt + Bytes{static_cast<unsigned char>(stream.type),
                              static_cast<unsigned char>(0xE0 | stream.pid >> 8),
                              static_cast<unsigned char>(stream.pid), 0xF0, 0};
        section(pmtPid, pmt);
        return *this;
    }
    // A packet with this payload (at most 184 bytes).
    TsMaker& packet(int pid, bool start, const Bytes& payload) {
        Bytes one{0x47, static_cast<unsigned char>((start ? 0x40 : 0) | pid >> 8),
                  static_cast<unsigned char>(pid)};
        const bool stuffed = payload.size() < 184;
        one.push_back(static_cast<unsigned char>((stuffed ? 0x30 : 0x10) | (m_counters[pid]++ & 0x0F)));
        if (stuffed) {
            const std::size_t field = 183 - payload.size();
            one.push_back(static_cast<unsigned char>(field));
            if (field > 0)
                one.push_back(0);
            one.resize(4 + 1 + field, 0xFF);
        }
        bytes.insert(bytes.end(), one.begin(), one.end());
        bytes.insert(bytes.end(), payload.begin(), payload.end());
        return *this;
    }
    // A PES packet: its first packet has at most that many bytes of payload, the rest follows.
    TsMaker& pes(int pid, const Bytes& header, const Bytes& payload, std::size_t first = 184) {
        const Bytes all = header + payload;
        std::size_t at = std::min(first, all.size());
        packet(pid, true, Bytes(all.begin(), all.begin() + static_cast<long>(at)));
        while (at < all.size()) {
            const std::size_t count = std::min<std::size_t>(184, all.size() - at);
            packet(pid, false,
                   Bytes(all.begin() + static_cast<long>(at), all.begin() + static_cast<long>(at + count)));
            at += count;
        }
        return *this;
    }
    TsMaker& skipCounter(int pid) {
        ++m_counters[pid];
        return *this;
    }

    [[nodiscard]] std::string write(const ScratchDir& directory, const char* name = "in.ts") const {
        return directory.file(name, asText(bytes));
    }
    [[nodiscard]] std::size_t packets() const { return bytes.size() / 188; }

private:
    // CRC_32 of a section (ISO/IEC 13818-1, annex A).
    static Bytes checksum(const Bytes& body) {
        std::uint32_t crc = 0xFFFFFFFF;
        for (const unsigned char byte : body)
            for (int bit = 7; bit >= 0; --bit)
                crc = crc << 1 ^ ((crc >> 31 ^ (byte >> bit & 1U)) != 0 ? 0x04C11DB7U : 0U);
        return {static_cast<unsigned char>(crc >> 24), static_cast<unsigned char>(crc >> 16),
                static_cast<unsigned char>(crc >> 8), static_cast<unsigned char>(crc)};
    }
    void section(int pid, const Bytes& body) {
        Bytes payload{0};
        payload = payload + body + checksum(body);
        payload.resize(184, 0xFF);
        packet(pid, true, payload);
    }

    std::map<int, int> m_counters;
};

// Timestamps in ticks of 90 kHz; -1: absent.
inline Bytes pesHeader(std::int64_t pts = -1, std::int64_t dts = -1, int streamId = 0xE0) {
    const auto field = [](int prefix, std::int64_t value) {
        return Bytes{static_cast<unsigned char>(prefix << 4 | (value >> 30 & 7) << 1 | 1),
                     static_cast<unsigned char>(value >> 22),
                     static_cast<unsigned char>((value >> 15 & 0x7F) << 1 | 1),
                     static_cast<unsigned char>(value >> 7),
                     static_cast<unsigned char>((value & 0x7F) << 1 | 1)};
    };
    Bytes times;
    int flags = 0;
    if (pts >= 0 && dts >= 0) {
        flags = 0xC0;
        times = field(3, pts) + field(1, dts);
    } else if (pts >= 0) {
        flags = 0x80;
        times = field(2, pts);
    }
    return Bytes{0,
                 0,
                 1,
                 static_cast<unsigned char>(streamId),
                 0,
                 0,
                 0x80,
                 static_cast<unsigned char>(flags),
                 static_cast<unsigned char>(times.size())} +
           times;
}

// MPEG-2 video headers (ISO/IEC 13818-2, 6.2.2).
inline Bytes sequenceHeader(int width, int height, int rateCode) {
    return {0,
            0,
            1,
            0xB3,
            static_cast<unsigned char>(width >> 4),
            static_cast<unsigned char>((width & 0xF) << 4 | (height >> 8 & 0xF)),
            static_cast<unsigned char>(height),
            static_cast<unsigned char>(0x20 | rateCode),
            0xFF,
            0xFF,
            0xE0,
            0x18};
}
inline Bytes sequenceExtension(int profileAndLevel, bool progressive = false, int widthHigh = 0,
                               int heightHigh = 0) {
    return {
        0,
        0,
        1,
        0xB5,
        static_cast<unsigned char>(0x10 | profileAndLevel >> 4),
        static_cast<unsigned char>((profileAndLevel & 0xF) << 4 | (progressive ? 8 : 0) | 2 | widthHigh >> 1),
        static_cast<unsigned char>((widthHigh & 1) << 7 | heightHigh << 5),
        0x01,
        0x00,
        0x00};
}
inline Bytes gopHeader(int h, int m, int s, int f, bool drop = false, bool closed = true) {
    const unsigned code =
        static_cast<unsigned>((drop ? 1 : 0) << 24 | h << 19 | m << 13 | 1 << 12 | s << 6 | f);
    return {0,
            0,
            1,
            0xB8,
            static_cast<unsigned char>(code >> 17),
            static_cast<unsigned char>(code >> 9),
            static_cast<unsigned char>(code >> 1),
            static_cast<unsigned char>((code & 1) << 7 | (closed ? 0x40 : 0))};
}
inline Bytes pictureHeader(int type = 1, int temporalReference = 0) {
    return {0,
            0,
            1,
            0x00,
            static_cast<unsigned char>(temporalReference >> 2),
            static_cast<unsigned char>((temporalReference & 3) << 6 | type << 3 | 7),
            0xFF,
            0xF8};
}
inline Bytes pictureCodingExtension(int structure, bool topFirst, bool repeatFirst) {
    return {0,
            0,
            1,
            0xB5,
            0x8F,
            0xFF,
            static_cast<unsigned char>(0xF0 | structure),
            static_cast<unsigned char>((topFirst ? 0x80 : 0) | (repeatFirst ? 0x02 : 0)),
            0x80};
}
// A payload with emulation prevention bytes (ITU-T H.264, 7.4.1).
inline Bytes escaped(const Bytes& rbsp) {
    Bytes result;
    int zeros = 0;
    for (const unsigned char byte : rbsp) {
        if (zeros == 2 && byte <= 3) {
            result.push_back(3);
            zeros = 0;
        }
        zeros = byte == 0 ? zeros + 1 : 0;
        result.push_back(byte);
    }
    return result;
}
// Bytes in which no start code begins.
inline Bytes filler(std::size_t count) {
    return Bytes(count, 0x55);
}
