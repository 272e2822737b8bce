#include "Analysis.h"

#include "StreamTypes.h"
#include "capture/Failure.h"
#include "mpeg/mpeg2.h"
#include "mpeg/packet_view.h"

#include <algorithm>
#include <cmath>

namespace kestrel::flowscope {

namespace {

using capture::format;

constexpr std::int64_t TURN = (std::int64_t{1} << 33) * 4; // of the 33-bit clock, in PTS units
constexpr std::size_t MOST_PROGRAMS = 64;

// The time nearest to `near` that the 33-bit clock shows as `raw`.
PTS unwrapped(PTS raw, PTS near) {
    if (near.is_absent() || raw.is_absent())
        return raw;
    const std::int64_t turns = std::llround(static_cast<double>(near - raw) / static_cast<double>(TURN));
    return PTS(raw + turns * TURN);
}

} // namespace

bool Analysis::take(const unsigned char* packet) {
    const auto number = static_cast<unsigned long long>(m_packets++);
    const int pid = ts::pid(packet);
    if (packet[0] != ts::sync_byte) {
        m_findings.add("sync", format("packet %llu does not begin with 0x47", number));
        return !m_full;
    }
    if (pid == ts::null_pid) {
        ++m_nullPackets;
        return !m_full;
    }
    if ((packet[1] & 0x80) != 0)
        m_findings.add("transport error",
                       format("packet %llu, PID %d: transport_error_indicator", number, pid));
    // A discontinuity that is announced, and a duplicate, are no errors (2.4.3.3, 2.4.3.5).
    const ts::bytes adaptation = ts::adaptation_field(packet);
    const bool announced = !adaptation.empty() && (adaptation[0] & 0x80) != 0;
    const bool cool = m_continuity.packetIsCool(packet, false);
    if (!cool && !announced)
        m_findings.add("continuity", format("packet %llu: %s", number, m_continuity.message()));
    if (pid == 0) {
        if (m_pat.collector.take(packet))
            takePat();
        return true;
    }
    if (pid == m_pcrPid)
        takeClock(packet);
    switch (m_roles[static_cast<std::size_t>(pid)]) {
    case Role::pmt: {
        auto& collector = m_pmts.at(pid).collector;
        if (collector.take(packet))
            takePmt(pid, collector.section());
        break;
    }
    case Role::video:
        takeElementary(packet, nullptr, !cool);
        break;
    case Role::audio:
        takeElementary(packet, audio(pid), !cool);
        break;
    default:
        break;
    }
    return !m_full;
}

void Analysis::takePat() {
    const auto section = m_pat.collector.section();
    // 2.4.4.3: entries of four bytes between the head and the CRC.
    for (std::size_t at = 8; at + 8 <= section.size(); at += 4) {
        const int number = section[at] << 8 | section[at + 1];
        const int pid = (section[at + 2] & 0x1F) << 8 | section[at + 3];
        if (number == 0 || pid == 0 || m_pmts.contains(pid) || m_pmts.size() >= MOST_PROGRAMS)
            continue;
        Section pmt(2);
        pmt.program = number;
        m_pmts.emplace(pid, pmt);
        m_roles[static_cast<std::size_t>(pid)] = Role::pmt;
    }
}

void Analysis::takePmt(int pid, std::span<const unsigned char> section) {
    constexpr std::size_t HEAD = 12;
    constexpr std::size_t CRC = 4;
    if (section.size() < HEAD + CRC)
        return;
    Program program;
    program.number = section[3] << 8 | section[4];
    program.pmtPid = pid;
    program.pcrPid = (section[8] & 0x1F) << 8 | section[9];
    std::size_t at = HEAD + ((section[10] & 0x0FU) << 8 | section[11]);
    while (at + 5 + CRC <= section.size()) {
        const std::size_t length = (section[at + 3] & 0x0FU) << 8 | section[at + 4];
        if (at + 5 + length + CRC > section.size())
            break;
        program.streams.push_back(describeStream(section.subspan(at, 5 + length)));
        at += 5 + length;
    }
    const auto known = std::find_if(m_programs.begin(), m_programs.end(),
                                    [&](const Program& each) { return each.pmtPid == pid; });
    if (known == m_programs.end()) {
        m_programs.push_back(std::move(program));
        chooseAsset();
    } else if (known->streams.size() != program.streams.size() ||
               !std::equal(known->streams.begin(), known->streams.end(), program.streams.begin(),
                           [](const StreamEntry& a, const StreamEntry& b) {
                               return a.pid == b.pid && a.type == b.type;
                           })) {
        m_findings.add("program", format("packet %llu: the streams of program %d change",
                                         static_cast<unsigned long long>(m_packets - 1), program.number));
    }
}

void Analysis::chooseAsset() {
    if (m_video != nullptr)
        return;
    for (std::size_t i = 0; i < m_programs.size(); ++i)
        for (const StreamEntry& stream : m_programs[i].streams)
            if (stream.video && m_video == nullptr) {
                m_video = std::make_unique<VideoTrack>(*stream.video);
                m_videoPid = stream.pid;
                m_pcrPid = m_programs[i].pcrPid;
                m_assetIndex = i;
            }
    if (m_video == nullptr)
        return;
    m_roles[static_cast<std::size_t>(m_videoPid)] = Role::video;
    for (const StreamEntry& stream : m_programs[m_assetIndex].streams)
        if (stream.audio && audio(stream.pid) == nullptr && stream.pid != m_videoPid) {
            m_audios.push_back({stream.pid, AudioTrack(*stream.audio), {}});
            m_roles[static_cast<std::size_t>(stream.pid)] = Role::audio;
        }
}

const Program* Analysis::asset() const noexcept {
    return m_video == nullptr ? nullptr : &m_programs[m_assetIndex];
}

void Analysis::takeClock(const unsigned char* packet) {
    const ts::bytes field = ts::adaptation_field(packet);
    if (field.size() < 7 || (field[0] & 0x10) == 0) // PCR_flag
        return;
    const std::int64_t base =
        std::int64_t{field[1]} << 25 | field[2] << 17 | field[3] << 9 | field[4] << 1 | field[5] >> 7;
    const std::int64_t extension = (field[5] & 1) << 8 | field[6];
    const std::uint64_t tooLong = m_clock.tooLong();
    const std::uint64_t jumps = m_clock.jumps();
    m_clock.reference(base * 300 + extension, static_cast<std::int64_t>(m_packets));
    if (m_clock.tooLong() != tooLong)
        m_findings.add("PCR interval", format("packet %llu: more than 100 ms since the last PCR",
                                              static_cast<unsigned long long>(m_packets - 1)));
    if (m_clock.jumps() != jumps)
        m_findings.add("PCR jump",
                       format("packet %llu: the PCR jumps%s", static_cast<unsigned long long>(m_packets - 1),
                              (field[0] & 0x80) != 0 ? ", as announced" : ""));
}

Analysis::Audio* Analysis::audio(int pid) {
    for (Audio& each : m_audios)
        if (each.pid == pid)
            return &each;
    return nullptr;
}

void Analysis::takeElementary(const unsigned char* packet, Audio* audio, bool lost) {
    PesReader& reader = audio == nullptr ? m_videoReader : audio->reader;
    if (lost) {
        reader.state = PesReader::State::none;
        if (audio != nullptr)
            audio->track.skip();
        else
            m_video->skip();
    }
    if (!ts::has_payload(packet))
        return;
    if (ts::payload_unit_start(packet)) {
        reader.length = 0;
        reader.state = PesReader::State::head;
    }
    takePesBytes(ts::payload(packet), audio);
}

void Analysis::takePesBytes(std::span<const unsigned char> bytes, Audio* audio) {
    PesReader& reader = audio == nullptr ? m_videoReader : audio->reader;
    while (reader.state == PesReader::State::head && !bytes.empty()) {
        const std::size_t wanted = reader.length < 9 ? 9 : 9U + reader.head[8];
        const std::size_t count = std::min(wanted - reader.length, bytes.size());
        std::copy_n(bytes.begin(), count, reader.head.begin() + static_cast<std::ptrdiff_t>(reader.length));
        reader.length += count;
        bytes = bytes.subspan(count);
        if (reader.length >= 9 && reader.length == 9U + reader.head[8])
            takePesHead(reader, audio);
    }
    if (reader.state != PesReader::State::data)
        return;
    if (audio != nullptr)
        audio->track.feed(bytes);
    else
        m_video->feed(bytes);
}

void Analysis::takePesHead(PesReader& reader, Audio* audio) {
    const unsigned char* const head = reader.head.data();
    reader.state =
        head[0] == 0 && head[1] == 0 && head[2] == 1 ? PesReader::State::data : PesReader::State::none;
    const int flags = head[7] >> 6;
    if (reader.state == PesReader::State::none || flags < 2 || reader.length < (flags == 3 ? 19U : 14U))
        return;
    const PTS pts = MPEG::PES::get_PTS(head);
    if (audio != nullptr) {
        audio->track.stamp(unwrapped(pts, m_lastDts));
        return;
    }
    const PTS dts = flags == 3 ? MPEG::PES::get_DTS(head) : pts;
    noteTimes(pts, dts);
    if (m_full) {
        reader.state = PesReader::State::none; // the picture that begins here is one too many
        return;
    }
    m_video->stamp(unwrapped(pts, m_lastDts), unwrapped(dts, m_lastDts));
}

void Analysis::noteTimes(PTS rawPts, PTS rawDts) {
    const auto number = static_cast<unsigned long long>(m_packets - 1);
    const PTS dts = unwrapped(rawDts, m_lastDts);
    const PTS pts = unwrapped(rawPts, dts);
    if (pts < dts)
        m_findings.add("timestamps",
                       format("packet %llu: PTS %lld lies before DTS %lld", number,
                              static_cast<long long>(pts.ticks()), static_cast<long long>(dts.ticks())));
    if (m_firstDts.is_absent())
        m_firstDts = dts;
    if (m_limit && dts - m_firstDts >= std::int64_t{*m_limit} * PTS::units_per_second) {
        m_full = true;
        return;
    }
    if (!m_lastDts.is_absent()) {
        const std::int64_t step = dts - m_lastDts;
        const double rate = m_video->format().rate();
        const double frame = rate > 0 ? static_cast<double>(PTS::units_per_second) / rate : 0;
        if (step <= 0)
            m_findings.add("timestamps", format("packet %llu: DTS %lld does not follow %lld", number,
                                                static_cast<long long>(dts.ticks()),
                                                static_cast<long long>(m_lastDts.ticks())));
        else if (frame > 0 && static_cast<double>(step) > 1.5 * frame && m_lastStep > 0 &&
                 static_cast<double>(step) > 1.5 * static_cast<double>(m_lastStep))
            m_findings.add("timestamps",
                           format("packet %llu: a gap of %.1f frames before DTS %lld", number,
                                  static_cast<double>(step) / frame, static_cast<long long>(dts.ticks())));
        m_lastStep = step;
    }
    m_lastDts = dts;
    m_lowestPts = m_lowestPts.is_absent() ? pts : PTS(std::min<std::int64_t>(m_lowestPts, pts));
    m_highestPts = m_highestPts.is_absent() ? pts : PTS(std::max<std::int64_t>(m_highestPts, pts));
    m_rates.add(static_cast<double>(dts - m_firstDts) / PTS::units_per_second,
                (m_packets - m_ratedPackets) * ts::packet_size);
    m_ratedPackets = m_packets;
}

void Analysis::end() {
    if (m_video == nullptr)
        return;
    m_video->end();
    if (m_video->timecodeJumps() != 0)
        m_findings.add("time code", format("%llu GOP time codes do not follow from the one before",
                                           static_cast<unsigned long long>(m_video->timecodeJumps())));
    for (const Audio& each : m_audios)
        if (each.track.formatChanges() != 0)
            m_findings.add("audio format",
                           format("PID %d: %llu frames of another format than the first", each.pid,
                                  static_cast<unsigned long long>(each.track.formatChanges())));
}

double Analysis::videoSeconds() const {
    if (m_video == nullptr)
        return 0;
    const double rate = m_video->format().rate();
    if (rate <= 0)
        return m_highestPts.is_absent()
                   ? 0
                   : static_cast<double>(m_highestPts - m_lowestPts) / PTS::units_per_second;
    // A PES packet may hold several pictures, of which only the first has a time: the frames are counted too.
    const double counted = static_cast<double>(m_video->frames()) / rate;
    if (m_highestPts.is_absent())
        return counted;
    const double shown = static_cast<double>(m_highestPts - m_lowestPts) / PTS::units_per_second + 1 / rate;
    return std::abs(shown - counted) * rate < 1.5 ? counted : shown;
}

std::int64_t Analysis::videoFrames() const {
    const double rate = m_video == nullptr ? 0 : m_video->format().rate();
    return rate <= 0 ? 0 : std::llround(videoSeconds() * rate);
}

double Analysis::seconds() const {
    if (m_video == nullptr || m_lowestPts.is_absent())
        return videoSeconds();
    double begin = static_cast<double>(m_lowestPts) / PTS::units_per_second;
    double end = begin + videoSeconds();
    for (const Audio& each : m_audios) {
        const AudioFormat& sound = each.track.format();
        if (each.track.firstPts().is_absent() || sound.samplingRate == 0)
            continue;
        const double first = static_cast<double>(each.track.firstPts()) / PTS::units_per_second;
        begin = std::min(begin, first);
        end = std::max(end,
                       first + static_cast<double>(each.track.frames()) * sound.samples / sound.samplingRate);
    }
    return end - begin;
}

double Analysis::videoBitsPerSecond() const {
    const double duration = videoSeconds();
    return duration <= 0 ? 0 : static_cast<double>(m_video->bytes()) * 8 / duration;
}

double Analysis::muxBitsPerSecond() const {
    const double duration = seconds();
    return duration <= 0 ? 0 : static_cast<double>(m_packets) * ts::packet_size * 8 / duration;
}

bool Analysis::constantBitRate() const {
    if (m_video != nullptr && m_video->constantBitRate())
        return *m_video->constantBitRate();
    // A stream that does not say: the same rate in every step, within a twentieth.
    const std::vector<double> rates = m_rates.bitsPerSecond();
    if (rates.size() < 2)
        return false;
    const auto [least, most] = std::minmax_element(rates.begin(), rates.end());
    return *most - *least <= 0.05 * *most;
}

std::optional<double> Analysis::audioOffsetMs() const {
    if (m_audios.empty() || m_lowestPts.is_absent() || m_audios.front().track.firstPts().is_absent())
        return std::nullopt;
    return static_cast<double>(m_audios.front().track.firstPts() - m_lowestPts) * 1000 /
           PTS::units_per_second;
}

} // namespace kestrel::flowscope
