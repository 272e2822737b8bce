#include "capture/labelled_stream.h"

#include "mpeg/CaptureEngUtils.h"
#include "mpeg/mpeg.h"
#include "timecode/mpeg_timecode.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <map>

namespace capture_test {
namespace {

using Bytes = std::vector<unsigned char>;

constexpr std::array<std::int64_t, 9> quarterTicks{14400, 15015, 15000, 14400, 12012,
                                                   12000, 7200,  6006,  6000};

unsigned char low(std::int64_t value) {
    return static_cast<unsigned char>(value & 0xFF);
}

void append(Bytes& to, const Bytes& more) {
    to.insert(to.end(), more.begin(), more.end());
}

Bytes stamp(int prefix, std::int64_t ticks) {
    ticks &= 0x1FFFFFFFF;
    return {low(prefix << 4 | (ticks >> 30 & 7) << 1 | 1), low(ticks >> 22), low(ticks >> 14 | 1),
            low(ticks >> 7), low(ticks << 1 | 1)};
}

struct Bits {
    Bytes bytes;
    unsigned used = 0;
    void put(std::uint64_t value, int count) {
        while (count-- > 0) {
            if (used++ % 8 == 0)
                bytes.push_back(0);
            bytes.back() = low(bytes.back() | static_cast<int>(value >> count & 1) << (7 - (used - 1) % 8));
        }
    }
    void ue(unsigned value) {
        int length = 0;
        while ((value + 1) >> (length + 1))
            ++length;
        put(0, length);
        put(value + 1, length + 1);
    }
};

// A NAL unit with its start code and emulation prevention (ITU-T H.264, 7.4.1).
Bytes nal(unsigned char head, const Bytes& payload) {
    Bytes out{0, 0, 1, head};
    int zeros = 0;
    for (unsigned char byte : payload) {
        if (zeros >= 2 && byte <= 3) {
            out.push_back(3);
            zeros = 0;
        }
        out.push_back(byte);
        zeros = byte == 0 ? zeros + 1 : 0;
    }
    return out;
}

mpeg_timecode parse(const std::string& text, int rateCode) {
    const bool drop = text.size() > 8 && text[8] == ';';
    const bool drops = mpeg_timecode::frameRateCodeToDropFrame(rateCode);
    return {text.c_str(), drop, drops && !drop ? rateCode + 1 : rateCode};
}

std::string advance(const std::string& text, int frames, int rateCode) {
    return (parse(text, rateCode) + frames).windows_string();
}

// The 25 bits of a GOP header.
unsigned packed(const std::string& text, int rateCode) {
    return static_cast<unsigned>(parse(text, rateCode).pack_int());
}

Bytes section(Bytes body) {
    const std::uint32_t crc =
        crc32(reinterpret_cast<const char*>(body.data()), static_cast<int>(body.size()));
    append(body, {low(crc >> 24), low(crc >> 16), low(crc >> 8), low(crc)});
    Bytes payload{0};
    append(payload, body);
    payload.resize(184, 0xFF);
    return payload;
}

} // namespace

LabelledStream::LabelledStream(LabelledShape shape) : m_shape(std::move(shape)) {}

void LabelledStream::jumpTo(const std::string& timecode) {
    m_jump = timecode;
}

void LabelledStream::switchAt(int shown, const std::string& timecode, bool runs) {
    m_switches.push_back({shown, timecode, runs});
}

void LabelledStream::planGop() {
    const int step = m_shape.bFrames + 1;
    int before = -1;
    const auto add = [&](int reference, char type) {
        m_order.push_back(m_group + reference);
        m_types.push_back(type);
        for (int b = before + 1; b < reference; ++b) {
            m_order.push_back(m_group + b);
            m_types.push_back('B');
        }
        before = reference;
    };
    add(m_shape.open ? m_shape.bFrames : 0, 'I');
    while (before < m_shape.gop - 1)
        add(std::min(before + step, m_shape.gop - 1), 'P');
    if (!m_jump.empty()) {
        m_shape.timecode = m_jump;
        m_base = m_group;
        m_jump.clear();
    }
}

std::string LabelledStream::label(int shown) const {
    for (auto at = m_switches.rbegin(); at != m_switches.rend(); ++at)
        if (shown >= at->shown && at->shown >= m_base)
            return advance(at->timecode, at->runs ? shown - at->shown : 0, m_shape.rateCode);
    return advance(m_shape.timecode, shown - m_base, m_shape.rateCode);
}

std::vector<CodedFrame> LabelledStream::frames(int count) {
    std::vector<CodedFrame> out;
    const std::int64_t period = quarterTicks[static_cast<std::size_t>(m_shape.rateCode)];
    for (; count > 0; --count) {
        if (m_order.empty())
            planGop();
        const int shown = m_order.front();
        CodedFrame frame{{}, label(shown), m_types.front()};
        if (frame.type == 'I' || m_shape.tables) {
            const auto table = [&](int pid, const Bytes& body) {
                Packet packet{0x47, low(0x40 | pid >> 8), low(pid),
                              low(0x10 | (m_counters[static_cast<std::size_t>(pid)]++ & 15))};
                const Bytes payload = section(body);
                std::copy(payload.begin(), payload.end(), packet.begin() + 4);
                frame.packets.push_back(packet);
            };
            table(0, {0, 0xB0, 13, 0, 1, 0xC1, 0, 0, 0, 1, low(0xE0 | pmtPid >> 8), low(pmtPid)});
            table(pmtPid, {2, 0xB0, 18, 0, 1, 0xC1, 0, 0, 0xE1, 0, 0xF0, 0, low(m_shape.avc ? 0x1B : 2), 0xE1,
                           0, 0xF0, 0});
        }
        const std::int64_t dts = 900000 + m_coded * period / 4;
        const std::int64_t pts =
            900000 + (shown + m_shape.delay + (m_shape.bFrames > 0 ? 1 : 0)) * period / 4;
        const auto unit = [&](const Bytes& picture, bool stamped) {
            Bytes pes{0, 0, 1, 0xE0, 0, 0, 0x80, low(stamped ? 0xC0 : 0), low(stamped ? 10 : 0)};
            if (stamped) {
                append(pes, stamp(3, pts));
                append(pes, stamp(1, dts));
            }
            append(pes, picture);
            const Packets packets = packetsOf(pes);
            frame.packets.insert(frame.packets.end(), packets.begin(), packets.end());
        };
        if (m_shape.avc) {
            unit(avcPicture(shown, frame.type), true);
        } else if (m_shape.fields) {
            unit(mpeg2Picture(shown, frame.type, 1), true);
            unit(mpeg2Picture(shown, frame.type == 'I' ? 'i' : frame.type, 2), false);
        } else {
            unit(mpeg2Picture(shown, frame.type, 3), true);
        }
        out.push_back(std::move(frame));
        m_order.erase(m_order.begin());
        m_types.erase(m_types.begin());
        ++m_coded;
        if (m_order.empty())
            m_group += m_shape.gop;
    }
    return out;
}

Packets LabelledStream::packetsOf(const Bytes& pes) {
    Packets out;
    EXPECT_LE(pes.size(), 180u);
    for (int i = 0; i < m_shape.packetsPerFrame; ++i) {
        const bool last = i + 1 == m_shape.packetsPerFrame;
        Packet packet{};
        packet.fill(0x55);
        packet[0] = 0x47;
        packet[1] = low((i == 0 ? 0x40 : 0) | videoPid >> 8);
        packet[2] = low(videoPid);
        const bool stuffing = last && m_shape.stuffed;
        packet[3] = low((stuffing ? 0x30 : 0x10) | (m_counters[videoPid]++ & 15));
        std::size_t at = 4;
        if (stuffing) {
            packet[at++] = 3;
            packet[at++] = 0;
            packet[at++] = 0xFF;
            packet[at++] = 0xFF;
        }
        if (i == 0)
            std::copy(pes.begin(), pes.end(), packet.begin() + static_cast<std::ptrdiff_t>(at));
        out.push_back(packet);
    }
    return out;
}

// structure: 1 top field, 2 bottom field, 3 frame; 'i' is the second field of an I frame.
Bytes LabelledStream::mpeg2Picture(int shown, char type, int structure) const {
    Bytes bytes;
    if (type == 'I') {
        append(bytes,
               {0, 0, 1, 0xB3, 0x28, 0x01, 0x68, low(0x30 | m_shape.rateCode), 0xFF, 0xFF, 0xE0, 0x18});
        append(bytes, {0, 0, 1, 0xB5, 0x14, 0x82, 0x00, 0x01, 0x00, 0x00});
        if (m_shape.gopHeaders) {
            const unsigned code = hasTimecode(m_group) ? packed(label(m_group), m_shape.rateCode) : 0x1000;
            Bits head;
            head.put(code, 25);
            head.put(m_shape.open && m_shape.bFrames > 0 ? 0 : 1, 1);
            head.put(0, 6);
            append(bytes, {0, 0, 1, 0xB8});
            append(bytes, head.bytes);
        }
    }
    const unsigned coding = type == 'I' || type == 'i' ? 1 : type == 'P' ? 2 : 3;
    Bits head;
    head.put(static_cast<unsigned>((m_shape.gopHeaders ? shown - m_group : shown) & 1023), 10);
    head.put(coding, 3);
    head.put(0xFFFF, 16);
    head.put(0, 3);
    append(bytes, {0, 0, 1, 0x00});
    append(bytes, head.bytes);
    append(bytes, {0, 0, 1, 0xB5, 0x8F, 0xFF, low(0xF0 | structure), 0x80, 0x80});
    append(bytes, {0, 0, 1, 0x01, 0x12});
    return bytes;
}

Bytes LabelledStream::avcPicture(int shown, char type) const {
    Bytes bytes{0, 0, 1, 9, 0xF0};
    if (type == 'I') {
        Bits sps;
        sps.put(77, 8);
        sps.put(0, 8);
        sps.put(30, 8);
        for (unsigned value : {0u, 0u, 2u, 1u})
            sps.ue(value);
        sps.put(0, 1);
        sps.ue(0);
        sps.ue(0);
        sps.put(0b110, 3); // frame_mbs_only, direct_8x8, no cropping
        sps.put(1, 1);     // VUI
        sps.put(0, 4);
        sps.put(1, 1); // timing
        const auto period = quarterTicks[static_cast<std::size_t>(m_shape.rateCode)];
        sps.put(static_cast<std::uint64_t>(period), 32);
        sps.put(720000, 32);
        sps.put(1, 1);
        sps.put(m_shape.avcHrd ? 1 : 0, 1);
        if (m_shape.avcHrd) {
            sps.ue(0);
            sps.put(0, 8);
            sps.ue(1000);
            sps.ue(1000);
            sps.put(0, 1);
            sps.put(23, 5);
            sps.put(17, 5); // 18 bits of removal delay
            sps.put(5, 5);  // 6 of output delay
            sps.put(0, 5);
        }
        sps.put(0, 1);
        if (m_shape.avcHrd)
            sps.put(0, 1);
        sps.put(1, 1); // pic_struct_present
        sps.put(0b01, 2);
        append(bytes, nal(0x67, sps.bytes));
        append(bytes, {0, 0, 1, 0x68, 0xCE});
    }
    if (hasTimecode(shown) && (type == 'I' || !m_shape.keysOnly)) {
        const mpeg_timecode time = parse(label(shown), m_shape.rateCode);
        Bits timing;
        if (m_shape.avcHrd) {
            timing.put(5, 18);
            timing.put(2, 6);
        }
        timing.put(0, 4); // a frame
        timing.put(1, 1);
        timing.put(0, 3);
        timing.put(time.dropFrame ? 4 : 0, 5);
        timing.put(0b100, 3);
        timing.put(static_cast<std::uint64_t>(time.frames), 8);
        timing.put(static_cast<std::uint64_t>(time.seconds), 6);
        timing.put(static_cast<std::uint64_t>(time.minutes), 6);
        timing.put(static_cast<std::uint64_t>(time.hours), 5);
        if (!m_shape.avcHrd)
            timing.put(0, 24);
        Bytes message{1, low(static_cast<std::int64_t>(timing.bytes.size()))};
        append(message, timing.bytes);
        message.push_back(0x80);
        append(bytes, nal(6, message));
    }
    Bits slice;
    slice.ue(0);
    slice.ue(type == 'I' ? 7 : type == 'P' ? 5 : 6);
    slice.ue(0);
    slice.put(0, 4);
    slice.put(1, 4);
    append(bytes, nal(type == 'I' ? 0x65 : 0x41, slice.bytes));
    return bytes;
}

Packets join(const std::vector<CodedFrame>& frames) {
    Packets out;
    for (const CodedFrame& frame : frames)
        out.insert(out.end(), frame.packets.begin(), frame.packets.end());
    return out;
}

std::vector<std::string> labelsOf(const Packets& packets, int rateCode) {
    std::string group;
    int groups = 0;
    std::map<std::pair<int, int>, std::string> shown; // by group and temporal_reference
    for (const Packet& packet : packets) {
        if (pid(packet) != videoPid || (packet[1] & 0x40) == 0)
            continue;
        for (std::size_t at = 4; at + 8 <= packet.size(); ++at) {
            const unsigned char* p = packet.data() + at;
            if (p[0] != 0 || p[1] != 0 || p[2] != 1)
                continue;
            if (p[3] == 0xB8) {
                const int bits = p[4] << 17 | p[5] << 9 | p[6] << 1 | p[7] >> 7;
                char text[32];
                std::snprintf(text, sizeof text, "%02d:%02d:%02d%c%02d", bits >> 19 & 31, bits >> 13 & 63,
                              bits >> 6 & 63, bits >> 24 & 1 ? ';' : ':', bits & 63);
                group = text;
                ++groups;
            } else if (p[3] == 0) {
                const int reference = p[4] << 2 | p[5] >> 6;
                shown[{groups, reference}] = group.empty() ? "" : advance(group, reference, rateCode);
            }
        }
    }
    std::vector<std::string> labels;
    for (const auto& [at, text] : shown)
        labels.push_back(text);
    return labels;
}

} // namespace capture_test
