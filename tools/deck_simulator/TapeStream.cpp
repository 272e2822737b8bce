#include "TapeStream.h"

#include "mpeg/gop_rebase.h"
#include "mpeg/packet_view.h"
#include "mpeg/ts_file.h"
#include "timecode/mpeg_timecode.h"

#include <algorithm>
#include <array>
#include <limits>

namespace kestrel::deck_simulator {
namespace {

constexpr std::size_t packetSize = ts::packet_size;
constexpr double pcrTicks = 27e6; // a second
// A step of the clock that is none of its running on.
constexpr double longestStep = 1.0;
constexpr long long videoPidBytes = std::numeric_limits<int>::max();
// A GOP header follows the sequence header and its extensions.
constexpr std::size_t headBytes = 1024;

std::optional<std::uint64_t> pcrOf(const unsigned char* packet) {
    const ts::bytes field = ts::adaptation_field(packet);
    if (field.size() < 7 || (field[0] & 0x10) == 0)
        return std::nullopt;
    const std::uint64_t base = std::uint64_t{field[1]} << 25 | std::uint64_t{field[2]} << 17 |
                               std::uint64_t{field[3]} << 9 | std::uint64_t{field[4]} << 1 | field[5] >> 7;
    return base * 300 + (std::uint64_t{field[5]} & 1) * 256 + field[6];
}

// The time_code of the GOP header in the beginning of a PES packet.
std::optional<int> gopTimeCode(std::span<const unsigned char> head) {
    constexpr std::array<unsigned char, 4> startCode{0, 0, 1, 0xB8};
    const auto found = std::search(head.begin(), head.end(), startCode.begin(), startCode.end());
    constexpr std::size_t size = startCode.size() + 4;
    const auto at = static_cast<std::size_t>(found - head.begin());
    if (at + size > head.size())
        return std::nullopt;
    const auto p = head.subspan(at + startCode.size());
    return p[0] << 17 | p[1] << 9 | p[2] << 1 | p[3] >> 7;
}

} // namespace

std::string TapeStream::load(const std::string& path, const Tape& tape) {
    const int videoPid = find_video_pid(path.c_str(), videoPidBytes);
    if (videoPid <= 0)
        return path + " is no transport stream with video";
    ts_file file(path.c_str());
    while (const unsigned char* packet = file.get_ts())
        m_bytes.insert(m_bytes.end(), packet, packet + packetSize);
    m_seconds.resize(m_bytes.size() / packetSize);
    readClock();
    readEntries(tape, videoPid);
    if (m_seconds.empty() || m_seconds.back() <= 0)
        return path + " has no clock (PCR)";
    if (m_entries.empty())
        return path + " has no GOP whose timecode is on the tape";
    return {};
}

// Packets between two PCRs are spread evenly; where the clock jumps, the rate before goes on.
void TapeStream::readClock() {
    std::optional<std::uint64_t> last;
    std::size_t lastPacket = 0;
    int clockPid = -1;
    double perPacket = 0;
    for (std::size_t i = 0; i < m_seconds.size(); ++i) {
        const unsigned char* const packet = &m_bytes[i * packetSize];
        const auto pcr = pcrOf(packet);
        if (pcr && clockPid < 0)
            clockPid = ts::pid(packet);
        if (!pcr || ts::pid(packet) != clockPid)
            continue;
        if (last) {
            constexpr std::uint64_t wrap = (std::uint64_t{1} << 33) * 300;
            const double step = static_cast<double>((*pcr + wrap - *last) % wrap) / pcrTicks;
            if (step <= longestStep)
                perPacket = step / static_cast<double>(i - lastPacket);
        }
        for (std::size_t k = lastPacket + 1; k <= i; ++k)
            m_seconds[k] = last ? m_seconds[k - 1] + perPacket : 0;
        last = pcr;
        lastPacket = i;
    }
    for (std::size_t k = lastPacket + 1; k < m_seconds.size(); ++k)
        m_seconds[k] = m_seconds[k - 1] + perPacket;
}

void TapeStream::readEntries(const Tape& tape, int videoPid) {
    std::vector<unsigned char> head;
    std::size_t begin = 0;
    const auto finish = [&] {
        const auto code = gopTimeCode(head);
        head.clear();
        if (!code)
            return;
        const TapeRate& rate = tape.rate();
        const mpeg_timecode gop = mpeg_timecode::parse_GOP(*code, 8);
        const TapeTime label{gop.hours, gop.minutes, gop.seconds, gop.frames / rate.framesPerLabel,
                             rate.dropFrame};
        const auto position = tape.position(label);
        if (position && *position >= 0 && *position <= tape.last())
            m_entries.push_back({begin, *position});
    };
    bool collecting = false;
    for (std::size_t i = 0; i < m_seconds.size(); ++i) {
        const unsigned char* const packet = &m_bytes[i * packetSize];
        if (ts::pid(packet) != videoPid || !ts::has_payload(packet))
            continue;
        if (ts::payload_unit_start(packet)) {
            finish();
            begin = i;
            collecting = true;
        }
        const ts::bytes payload = ts::payload(packet);
        if (collecting)
            head.insert(head.end(), payload.begin(), payload.end());
        collecting = collecting && head.size() < headBytes;
    }
    finish();
}

std::span<const unsigned char> TapeStream::bytes(std::size_t first, std::size_t count) const {
    const std::size_t last = std::min(first + count, packets());
    return std::span(m_bytes).subspan(first * packetSize, (last - first) * packetSize);
}

std::optional<TapeStream::Entry> TapeStream::entryFrom(double position) const {
    constexpr double hair = 1e-6;
    const auto found = std::ranges::find_if(
        m_entries, [&](const Entry& entry) { return entry.position >= position - hair; });
    return found == m_entries.end() ? std::nullopt : std::optional(*found);
}

} // namespace kestrel::deck_simulator
