#include "capture/stream_builder.h"

#include "mpeg/CaptureEngUtils.h"
#include "mpeg/mpeg.h"
#include "mpeg/mpeg2.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>

namespace capture_test {
namespace {

using Bytes = std::vector<unsigned char>;

unsigned char low(std::int64_t value) {
    return static_cast<unsigned char>(value & 0xFF);
}

Bytes stamp(int prefix, std::int64_t ticks) {
    ticks &= 0x1FFFFFFFF;
    return {low(prefix << 4 | (ticks >> 30 & 7) << 1 | 1), low(ticks >> 22), low(ticks >> 14 | 1),
            low(ticks >> 7), low(ticks << 1 | 1)};
}

void append(Bytes& to, const Bytes& more) {
    to.insert(to.end(), more.begin(), more.end());
}

Bytes withCrc(Bytes section) {
    const std::uint32_t crc =
        crc32(reinterpret_cast<const char*>(section.data()), static_cast<int>(section.size()));
    append(section, {low(crc >> 24), low(crc >> 16), low(crc >> 8), low(crc)});
    return section;
}

struct BitWriter {
    Bytes bytes;
    int used = 0;
    void bit(unsigned value) {
        if (used++ % 8 == 0)
            bytes.push_back(0);
        bytes.back() = static_cast<unsigned char>(bytes.back() | (value & 1u) << (7 - (used - 1) % 8));
    }
    void bits(unsigned value, int count) {
        while (count-- > 0)
            bit(value >> count);
    }
    void ue(unsigned value) {
        int length = 0;
        while ((value + 1) >> (length + 1))
            ++length;
        bits(0, length);
        bits(value + 1, length + 1);
    }
};

// The shortest sequence parameter set that is valid: baseline (main with fields), 16x16, frame_num of 4 bits,
// and VUI timing of 25 frames/s.
Bytes sps(bool fields, bool timing) {
    BitWriter w;
    w.bits(fields ? 77 : 66, 8);
    w.bits(0, 8);
    w.bits(30, 8);
    for (unsigned value : {0u, 0u, 2u, 1u}) // id, log2_max_frame_num, poc type, refs
        w.ue(value);
    w.bit(0);
    w.ue(0);
    w.ue(0);
    w.bit(fields ? 0 : 1); // frame_mbs_only
    if (fields)
        w.bit(0); // mb_adaptive_frame_field
    w.bit(1);
    w.bit(0);
    w.bit(timing ? 1 : 0); // vui
    if (timing) {
        w.bits(0, 4);
        w.bit(1); // timing
        w.bits(0x0000, 16);
        w.bits(0x0301, 16); // units = 769 avoids emulation prevention
        w.bits(0x0000, 16);
        w.bits(0x9632, 16); // 769 * 50
        w.bits(0, 5);
    }
    w.bit(1); // stop bit
    Bytes nal{0, 0, 1, 0x67};
    // 00 00 03 and lower need the emulation prevention byte.
    int zeros = 0;
    for (unsigned char byte : w.bytes) {
        if (zeros >= 2 && byte <= 3) {
            nal.push_back(3);
            zeros = 0;
        }
        nal.push_back(byte);
        zeros = byte == 0 ? zeros + 1 : 0;
    }
    return nal;
}

} // namespace

void StreamBuilder::put(Packets& out, int pid, bool start, Bytes payload) {
    Packet packet{};
    auto& counter = m_counters[static_cast<std::size_t>(pid)];
    packet[0] = 0x47;
    packet[1] = static_cast<unsigned char>((start ? 0x40 : 0) | pid >> 8);
    packet[2] = low(pid);
    packet[3] = static_cast<unsigned char>(0x10 | counter);
    counter = (counter + 1) & 15;
    EXPECT_LE(payload.size(), 184u);
    payload.resize(184, pid == 0 || pid == pmtPid ? 0xFF : 0x55);
    std::copy(payload.begin(), payload.end(), packet.begin() + 4);
    out.push_back(packet);
}

void StreamBuilder::table(Packets& out, int pid, const Bytes& section) {
    Bytes payload{0};
    append(payload, section);
    put(out, pid, true, payload);
}

// One picture of H.264: structure 1 is a top field, 2 a bottom field, 3 a frame.
Bytes StreamBuilder::avcPicture(bool intra, int structure) const {
    Bytes bytes{0, 0, 1, 9, 0xF0};
    if (intra) {
        append(bytes, sps(m_shape.fieldPictures, m_shape.avcTiming));
        append(bytes, {0, 0, 1, 0x68, 0xCE});
    }
    append(bytes, {0, 0, 1, static_cast<unsigned char>(intra ? 0x65 : 0x41)});
    BitWriter slice;
    slice.ue(0);             // first_mb_in_slice
    slice.ue(intra ? 7 : 5); // slice_type
    slice.ue(0);             // parameter set
    slice.bits(static_cast<unsigned>(m_frame % m_shape.gop), 4);
    if (m_shape.fieldPictures) {
        slice.bit(structure != 3);
        if (structure != 3)
            slice.bit(structure == 2);
    }
    if (intra)
        slice.ue(0); // idr_pic_id
    slice.bits(1, 1);
    append(bytes, slice.bytes);
    return bytes;
}

Bytes StreamBuilder::picture(bool intra, int structure) const {
    if (m_shape.avc)
        return avcPicture(intra, structure);
    Bytes bytes;
    if (intra && structure != 2) {
        append(bytes, {0, 0, 1, 0xB3, 0x28, 0x01, 0x68, static_cast<unsigned char>(0x30 | m_shape.rateCode),
                       0xFF, 0xFF, 0xE0, 0x18});
        append(bytes, {0, 0, 1, 0xB5, 0x14, 0x82, 0x00, 0x01, 0x00, 0x00});
        append(bytes, {0, 0, 1, 0xB8, 0x28, 0x08, 0x00, 0x40}); // 10:00:00:00
    }
    append(bytes, {0, 0, 1, 0x00, 0, static_cast<unsigned char>((intra ? 1 : 2) << 3), 0xFF, 0xF8});
    append(bytes, {0, 0, 1, 0xB5, 0x8F, 0xFF, static_cast<unsigned char>(0xF0 | structure), 0x80, 0x80});
    append(bytes, {0, 0, 1, 0x01, 0x12});
    return bytes;
}

void StreamBuilder::unit(Packets& out, const Bytes& elementary, std::int64_t dts) {
    Bytes pes{0, 0, 1, 0xE0, 0, 0, 0x80, 0xC0, 10};
    append(pes, stamp(3, dts + 3600));
    append(pes, stamp(1, dts));
    append(pes, elementary);
    put(out, videoPid, true, pes);
    put(out, audioPid, false, {});
    for (int more = 1; more < m_shape.packetsPerFrame; ++more)
        put(out, videoPid, false, {});
}

Packets StreamBuilder::frames(int count) {
    static constexpr std::array<std::int64_t, 9> ticks{3600, 3754, 3750, 3600, 3003, 3000, 1800, 1502, 1500};
    Packets out;
    const auto inUnit = [this] { return m_frame % m_shape.framesPerUnit; };
    Bytes elementary;
    std::int64_t first = 0;
    for (; count > 0; --count, ++m_frame) {
        if (m_frame % m_shape.tablesEvery == 0) {
            table(out, 0, withCrc({0, 0xB0, 13, 0, 1, 0xC1, 0, 0, 0, 1, 0xE0 | pmtPid >> 8, pmtPid & 0xFF}));
            table(out, pmtPid, withCrc({2,
                                        0xB0,
                                        23,
                                        0,
                                        1,
                                        0xC1,
                                        0,
                                        0,
                                        0xE1,
                                        0,
                                        0xF0,
                                        0,
                                        static_cast<unsigned char>(m_shape.avc ? 0x1B : 2),
                                        0xE1,
                                        0,
                                        0xF0,
                                        0,
                                        3,
                                        0xE1,
                                        1,
                                        0xF0,
                                        0}));
        }
        const bool intra = m_frame % m_shape.gop == 0;
        if (m_shape.fieldPictures) {
            unit(out, picture(intra, 1), m_shape.dts);
            unit(out, picture(false, 2), m_shape.dts);
        } else {
            if (inUnit() == 0) {
                elementary.clear();
                first = m_shape.dts;
            }
            append(elementary, picture(intra, 3));
            if (inUnit() == m_shape.framesPerUnit - 1)
                unit(out, elementary, first);
        }
        m_shape.dts = (m_shape.dts + ticks[static_cast<std::size_t>(m_shape.rateCode)]) & 0x1FFFFFFFF;
    }
    return out;
}

Packet packetOf(int pid) {
    Packet packet;
    packet.fill(0xFF);
    packet[0] = 0x47;
    packet[1] = static_cast<unsigned char>(pid >> 8);
    packet[2] = static_cast<unsigned char>(pid);
    packet[3] = 0x10;
    return packet;
}

TemporaryDirectory::TemporaryDirectory() {
    char name[] = "/tmp/capture_test_XXXXXX";
    m_path = mkdtemp(name) ? name : "";
}

TemporaryDirectory::~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

void writePackets(const Packets& packets, const std::string& file) {
    std::ofstream out(file, std::ios::binary);
    for (const Packet& packet : packets)
        out.write(reinterpret_cast<const char*>(packet.data()), std::ssize(packet));
    EXPECT_TRUE(out.flush()) << file;
}

std::string readText(const std::string& file) {
    std::ifstream in(file, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

namespace {

Packets wholePackets(const std::string& text) {
    Packets packets(text.size() / 188);
    for (std::size_t i = 0; i < packets.size(); ++i)
        std::copy_n(text.begin() + static_cast<std::ptrdiff_t>(i * 188), 188, packets[i].begin());
    return packets;
}

} // namespace

Packets readPackets(const std::string& file) {
    const std::string text = readText(file);
    EXPECT_EQ(text.size() % 188, 0u) << file;
    return wholePackets(text);
}

Packets readPacketsOfKilled(const std::string& file) {
    return wholePackets(readText(file));
}

std::vector<std::string> filesIn(const std::string& directory) {
    std::vector<std::string> files;
    for (const auto& entry : std::filesystem::directory_iterator(directory))
        files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    return files;
}

int pid(const Packet& packet) {
    return kestrel::ts::pid(packet.data());
}

int pictures(const Packets& packets) {
    static constexpr unsigned char start[] = {0, 0, 1, 0};
    return static_cast<int>(std::count_if(packets.begin(), packets.end(), [](const Packet& packet) {
        return pid(packet) == videoPid && (packet[1] & 0x40) &&
               std::search(packet.begin() + 23, packet.end(), std::begin(start), std::end(start)) !=
                   packet.end();
    }));
}

int continuityErrors(const Packets& packets) {
    continuity_nazi checker;
    int errors = 0;
    for (const Packet& packet : packets)
        errors += checker.packetIsCool(packet.data(), false) ? 0 : 1;
    return errors;
}

int positionOf(const Packets& part, const Packets& stream) {
    const auto found = std::search(stream.begin(), stream.end(), part.begin(), part.end());
    return found == stream.end() ? -1 : static_cast<int>(found - stream.begin());
}

} // namespace capture_test
