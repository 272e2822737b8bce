#include "capture/stream_variants.h"

#include "mpeg/CaptureEngUtils.h"
#include "mpeg/packet_view.h"

#include <algorithm>
#include <iterator>

namespace capture_test {
namespace {

using Bytes = std::vector<unsigned char>;

unsigned char high(int value) {
    return static_cast<unsigned char>(value >> 8);
}

unsigned char low(std::int64_t value) {
    return static_cast<unsigned char>(value & 0xFF);
}

void append(Bytes& to, const Bytes& more) {
    to.insert(to.end(), more.begin(), more.end());
}

// Fills section_length in and appends the CRC.
Bytes finished(Bytes section) {
    const auto length = static_cast<int>(section.size()) - 3 + 4;
    section[1] = static_cast<unsigned char>(0xB0 | high(length));
    section[2] = low(length);
    const std::uint32_t crc =
        crc32(reinterpret_cast<const char*>(section.data()), static_cast<int>(section.size()));
    append(section, {low(crc >> 24), low(crc >> 16), low(crc >> 8), low(crc)});
    return section;
}

Bytes pat(int pmtPid) {
    return finished(
        {0, 0, 0, 0, 1, 0xC1, 0, 0, 0, 1, static_cast<unsigned char>(0xE0 | high(pmtPid)), low(pmtPid)});
}

Bytes pmt(const ProgramShape& shape) {
    Bytes section{2, 0, 0, 0, 1, 0xC1, 0, 0};
    append(section, {static_cast<unsigned char>(0xE0 | high(shape.videoPid)), low(shape.videoPid)});
    const auto info = static_cast<int>(shape.programInfo);
    append(section, {static_cast<unsigned char>(0xF0 | high(info)), low(info)});
    section.resize(section.size() + shape.programInfo, 0x80);
    for (const auto& [type, pid] :
         {std::pair{shape.videoType, shape.videoPid}, {shape.audioType, shape.audioPid}})
        append(section, {low(type), static_cast<unsigned char>(0xE0 | high(pid)), low(pid), 0xF0, 0});
    return finished(section);
}

} // namespace

Packet Reprogrammer::counted(Packet packet, int pid) {
    int& counter = m_counters[static_cast<std::size_t>(pid)];
    packet[1] = static_cast<unsigned char>((packet[1] & 0xE0) | high(pid));
    packet[2] = low(pid);
    packet[3] = static_cast<unsigned char>((packet[3] & 0xF0) | counter);
    counter = (counter + 1) & 15;
    return packet;
}

void Reprogrammer::section(Packets& out, int pid, Bytes bytes) {
    bytes.insert(bytes.begin(), 0); // pointer_field
    for (std::size_t at = 0; at < bytes.size(); at += 184) {
        Packet packet;
        packet.fill(0xFF);
        packet[0] = 0x47;
        packet[1] = at == 0 ? 0x40 : 0;
        packet[3] = 0x10;
        std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(at),
                    std::min<std::size_t>(184, bytes.size() - at), packet.begin() + 4);
        out.push_back(counted(packet, pid));
    }
}

Packets Reprogrammer::operator()(const Packets& packets, const ProgramShape& shape) {
    Packets out;
    for (const Packet& packet : packets) {
        switch (pid(packet)) {
        case 0:
            section(out, 0, pat(shape.pmtPid));
            break;
        case pmtPid:
            section(out, shape.pmtPid, pmt(shape));
            break;
        case videoPid:
            out.push_back(counted(packet, shape.videoPid));
            break;
        case audioPid:
            out.push_back(counted(packet, shape.audioPid));
            break;
        default:
            out.push_back(packet);
        }
    }
    return out;
}

Packets withDuplicates(const Packets& packets) {
    Packets out;
    for (const Packet& packet : packets) {
        out.push_back(packet);
        if (pid(packet) != audioPid && (packet[1] & 0x40))
            out.push_back(packet);
    }
    return out;
}

int pictureHeaders(const Packets& packets, int video) {
    static constexpr unsigned char start[] = {0, 0, 1, 0};
    int count = 0;
    for (const Packet& packet : packets) {
        if (pid(packet) != video)
            continue;
        for (auto at = packet.begin() + 4;; at += 4, ++count) {
            at = std::search(at, packet.end(), std::begin(start), std::end(start));
            if (at == packet.end())
                break;
        }
    }
    return count;
}

} // namespace capture_test
