#include "capture/normalize_streams.h"

#include "mpeg/CaptureEngUtils.h"

#include <algorithm>
#include <map>

namespace capture_test {
namespace {

unsigned char low(std::int64_t value) {
    return static_cast<unsigned char>(value & 0xFF);
}

void append(Bytes& to, const Bytes& more) {
    to.insert(to.end(), more.begin(), more.end());
}

// Fills in section_length and adds the CRC.
Bytes closed(Bytes section) {
    const std::size_t length = section.size() - 3 + 4;
    section[1] = static_cast<unsigned char>(0xB0 | length >> 8);
    section[2] = low(static_cast<std::int64_t>(length));
    const std::uint32_t crc =
        crc32(reinterpret_cast<const char*>(section.data()), static_cast<int>(section.size()));
    append(section, {low(crc >> 24), low(crc >> 16), low(crc >> 8), low(crc)});
    return section;
}

unsigned char versionByte(int version) {
    return static_cast<unsigned char>(0xC1 | version << 1);
}

std::int64_t pcrOf(const Packet& packet) {
    if (!(packet[3] & 0x20) || packet[4] < 7 || !(packet[5] & 0x10))
        return -1;
    std::int64_t base = 0;
    for (std::size_t i = 6; i < 10; ++i)
        base = base << 8 | packet[i];
    return (base << 1 | packet[10] >> 7) * 300 + ((packet[10] & 1) << 8 | packet[11]);
}

} // namespace

Bytes patSection(const std::vector<Program>& programs, int version) {
    Bytes section{0, 0, 0, 0, 1, versionByte(version), 0, 0};
    for (const Program& program : programs)
        append(section, {low(program.number >> 8), low(program.number), low(0xE0 | program.pmtPid >> 8),
                         low(program.pmtPid)});
    return closed(section);
}

Bytes pmtSection(const Program& program) {
    const auto descriptors = static_cast<std::int64_t>(program.descriptorBytes);
    Bytes section{2,
                  0,
                  0,
                  low(program.number >> 8),
                  low(program.number),
                  versionByte(program.version),
                  0,
                  0,
                  low(0xE0 | program.pcrPid >> 8),
                  low(program.pcrPid),
                  low(0xF0 | descriptors >> 8),
                  low(descriptors)};
    section.resize(section.size() + program.descriptorBytes, 0);
    append(section,
           {low(program.videoType), low(0xE0 | program.videoPid >> 8), low(program.videoPid), 0xF0, 0});
    return closed(section);
}

Packets sectionPackets(int pid, const Bytes& section, int firstCounter) {
    Packets packets;
    Bytes payload{0};
    append(payload, section);
    for (std::size_t done = 0; done < payload.size(); done += 184) {
        Bytes part(payload.begin() + static_cast<std::ptrdiff_t>(done),
                   payload.begin() + static_cast<std::ptrdiff_t>(std::min(done + 184, payload.size())));
        part.resize(184, 0xFF);
        packets.push_back(makePacket(
            {.pid = pid, .counter = firstCounter + static_cast<int>(packets.size()), .start = done == 0},
            part));
    }
    return packets;
}

Packet makePacket(const PacketShape& shape, const Bytes& payload) {
    Packet packet;
    packet.fill(0xFF);
    packet[0] = 0x47;
    packet[1] = low((shape.start ? 0x40 : 0) | shape.pid >> 8);
    packet[2] = low(shape.pid);
    const bool adaptation =
        !shape.payload || shape.pcr >= 0 || shape.discontinuity || (!payload.empty() && payload.size() < 184);
    packet[3] = low((adaptation ? 0x20 : 0) | (shape.payload ? 0x10 : 0) | (shape.counter & 15));
    if (adaptation) {
        const std::size_t fixed = shape.pcr >= 0 ? 7 : 1;
        const std::size_t field = !shape.payload    ? 183
                                  : payload.empty() ? fixed
                                                    : std::max<std::size_t>(183 - payload.size(), 0);
        packet[4] = static_cast<unsigned char>(field);
        if (field > 0)
            packet[5] = low((shape.discontinuity ? 0x80 : 0) | (shape.pcr >= 0 ? 0x10 : 0));
        if (shape.pcr >= 0) {
            const std::int64_t base = shape.pcr / 300;
            const std::int64_t extension = shape.pcr % 300;
            for (std::size_t i = 0; i < 4; ++i)
                packet[6 + i] = low(base >> (25 - 8 * static_cast<int>(i)));
            packet[10] = low((base & 1) << 7 | 0x7E | extension >> 8);
            packet[11] = low(extension);
        }
    }
    if (shape.payload && !payload.empty())
        std::copy(payload.begin(), payload.end(), packet.end() - static_cast<std::ptrdiff_t>(payload.size()));
    return packet;
}

Bytes pesWithGop(int hours, int minutes, int seconds, int frames, std::size_t stuffing) {
    Bytes pes{0, 0, 1, 0xE0, 0, 0, 0x80, 0x80, 5, 0x21, 0, 1, 0, 1};
    append(pes, {0, 0, 1, 0xB3, 0x28, 0x01, 0x68, 0x33, 0xFF, 0xFF, 0xE0, 0x18});
    append(pes, {0, 0, 1, 0xB2});
    pes.resize(pes.size() + stuffing, 0x20); // user data
    append(pes, {0, 0, 1, 0xB8, low(hours << 2 | minutes >> 4), low(minutes << 4 | 8 | seconds >> 3),
                 low(seconds << 5 | frames >> 1), low((frames & 1) << 7 | 0x40)});
    append(pes, {0, 0, 1, 0, 0, 0x08, 0xFF, 0xF8, 0, 0, 1, 1, 0x12, 0x34});
    return pes;
}

Bytes joined(const Packets& packets) {
    Bytes bytes;
    bytes.reserve(packets.size() * 188);
    for (const Packet& packet : packets)
        bytes.insert(bytes.end(), packet.begin(), packet.end());
    return bytes;
}

Normalized normalize(std::span<const unsigned char> source, bool keepNulls, std::size_t chunk) {
    Normalized result;
    kestrel::capture::Normalizer normalizer(
        keepNulls,
        [&](std::span<const unsigned char> packets) {
            result.bytes.insert(result.bytes.end(), packets.begin(), packets.end());
            return true;
        },
        [&](const std::string& line) { result.log.push_back(line); });
    bool going = true;
    while (going && !source.empty()) {
        const auto room = normalizer.room();
        const std::size_t part = std::min({source.size(), room.size(), chunk});
        std::copy_n(source.begin(), part, room.begin());
        source = source.subspan(part);
        going = normalizer.take(part);
    }
    result.finished = going && normalizer.finish();
    result.counts = normalizer.counts();
    result.shape = normalizer.shape();
    result.frames = normalizer.frames();
    result.packets.resize(result.bytes.size() / 188);
    for (std::size_t i = 0; i < result.packets.size(); ++i)
        std::copy_n(result.bytes.begin() + static_cast<std::ptrdiff_t>(i * 188), 188,
                    result.packets[i].begin());
    return result;
}

Normalized normalize(const Packets& source, bool keepNulls) {
    return normalize(joined(source), keepNulls);
}

double longestTableGap(const Packets& packets, int tablePid, int pcrPid) {
    constexpr std::int64_t range = (std::int64_t{1} << 33) * 300;
    double time = 0; // milliseconds at the packet `from`
    std::size_t from = 0;
    std::int64_t last = -1;
    double previous = -1;
    double longest = -1;
    for (std::size_t i = 0; i < packets.size(); ++i) {
        const std::int64_t pcr = pid(packets[i]) == pcrPid ? pcrOf(packets[i]) : -1;
        if (pcr < 0)
            continue;
        if (last >= 0) {
            const double step = static_cast<double>((pcr - last + range) % range) / 27'000;
            for (std::size_t at = from; at < i; ++at) {
                if (pid(packets[at]) != tablePid || !(packets[at][1] & 0x40))
                    continue;
                const double now =
                    time + step * static_cast<double>(at - from) / static_cast<double>(i - from);
                if (previous >= 0)
                    longest = std::max(longest, now - previous);
                previous = now;
            }
            time += step;
        }
        last = pcr;
        from = i;
    }
    return previous < 0 ? -1 : std::max(longest, time - previous);
}

int brokenCounters(const Packets& packets) {
    std::map<int, Packet> last;
    int broken = 0;
    for (const Packet& packet : packets) {
        const int number = pid(packet);
        if (number == 0x1FFF)
            continue;
        const auto [found, isNew] = last.try_emplace(number, packet);
        if (isNew)
            continue;
        const Packet& before = found->second;
        const int expected = (before[3] + ((packet[3] & 0x10) ? 1 : 0)) & 15;
        const bool same = (packet[3] & 0x10) && (packet[3] & 15) == (before[3] & 15) &&
                          std::equal(packet.begin() + 12, packet.end(), before.begin() + 12);
        if (!same && (packet[3] & 15) != expected)
            ++broken;
        found->second = packet;
    }
    return broken;
}

std::vector<std::int64_t> pcrs(const Packets& packets, int number) {
    std::vector<std::int64_t> found;
    for (const Packet& packet : packets)
        if (const std::int64_t pcr = pcrOf(packet); pid(packet) == number && pcr >= 0)
            found.push_back(pcr);
    return found;
}

} // namespace capture_test
