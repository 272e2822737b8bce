#include "Analysis.h"

#include "StreamTypes.h"
#include "capture/Failure.h"
#include "mpeg/packet_view.h"

#include <cstring>

namespace kestrel::flowscope {

namespace {

using capture::format;

// Adaptation field flags (2.4.3.4).
constexpr int DISCONTINUITY = 0x80;
constexpr int PCR = 0x10;

std::size_t indexOf(int pid) {
    return static_cast<std::size_t>(pid);
}

// Whether two packets are one sent twice: the same in every byte but those of the clock reference, which
// tells when it is sent itself (2.4.3.3).
bool same(const unsigned char* packet, const unsigned char* previous) {
    constexpr std::size_t REFERENCE = 6; // after header, length and flags
    constexpr std::size_t REFERENCE_END = 12;
    const auto size = static_cast<std::size_t>(ts::packet_size);
    const ts::bytes field = ts::adaptation_field(packet);
    if (field.size() < 7 || (field[0] & PCR) == 0)
        return std::memcmp(packet, previous, size) == 0;
    return std::memcmp(packet, previous, REFERENCE) == 0 &&
           std::memcmp(packet + REFERENCE_END, previous + REFERENCE_END, size - REFERENCE_END) == 0;
}

} // namespace

bool Analysis::take(const unsigned char* packet) {
    const auto number = static_cast<unsigned long long>(m_packets++);
    const int pid = ts::pid(packet);
    if (packet[0] != ts::sync_byte) {
        m_findings.add("sync", format("packet %llu, PID %d: it does not begin with 0x47", number, pid));
        return !m_full;
    }
    if (pid == ts::null_pid) {
        ++m_nullPackets;
        return !m_full;
    }
    if ((packet[1] & 0x80) != 0)
        m_findings.add("transport error",
                       format("packet %llu, PID %d: transport_error_indicator", number, pid));
    if (isDuplicate(packet, pid)) {
        ++m_duplicates;
        return !m_full;
    }
    // A discontinuity that is announced is no error (2.4.3.5).
    const ts::bytes adaptation = ts::has_adaptation(packet) ? ts::adaptation_field(packet) : ts::bytes();
    const bool announced = !adaptation.empty() && (adaptation[0] & DISCONTINUITY) != 0;
    const bool cool = m_continuity.packetIsCool(packet, false);
    if (!cool && !announced)
        noteLoss(packet, pid);
    if (adaptation.size() >= 7 && (adaptation[0] & PCR) != 0)
        takeClock(packet, pid);
    switch (m_roles[indexOf(pid)]) {
    case Role::table:
        takeTables(packet);
        break;
    case Role::video:
        if (announced)
            m_video->realign();
        takeElementary(packet, nullptr, !cool);
        break;
    case Role::audio:
        takeElementary(packet, audio(pid), !cool);
        break;
    case Role::undecided:
        decide(packet, pid, !cool);
        break;
    default:
        break;
    }
    return !m_full;
}

void Analysis::noteLoss(const unsigned char* packet, int pid) {
    m_findings.add("continuity", format("packet %llu: %s", static_cast<unsigned long long>(m_packets - 1),
                                        m_continuity.message()));
    ++m_losses;
    m_clock.lose();
    if (pid != m_videoPid)
        return;
    constexpr unsigned TURN = 16;
    const unsigned step = ts::has_payload(packet) ? 1 : 0;
    const auto counter = static_cast<unsigned>(ts::continuity_counter(packet));
    m_lostVideoPackets += (counter - static_cast<unsigned>(m_videoCounter) - step) % TURN;
}

void Analysis::skip(std::uint64_t position, std::uint64_t bytes) {
    ++m_losses;
    m_clock.lose();
    m_findings.add("sync",
                   format("packet %llu: %llu bytes before it, from byte %llu of the file on, are no packets",
                          static_cast<unsigned long long>(m_packets), static_cast<unsigned long long>(bytes),
                          static_cast<unsigned long long>(position)));
}

void Analysis::endWithin(std::span<const unsigned char> rest) {
    constexpr std::size_t PID_END = 3;
    const std::string pid = rest.size() < PID_END ? "" : format(", PID %d", ts::pid(rest.data()));
    m_findings.add("cut packet", format("packet %llu%s: the file ends within it, behind %zu of its %d bytes",
                                        static_cast<unsigned long long>(m_packets), pid.c_str(), rest.size(),
                                        ts::packet_size));
}

bool Analysis::isDuplicate(const unsigned char* packet, int pid) {
    std::unique_ptr<Previous>& previous = m_previous[indexOf(pid)];
    if (previous == nullptr) {
        previous = std::make_unique<Previous>();
    } else if (ts::has_payload(packet) && !previous->repeated &&
               ts::continuity_counter(packet) == ts::continuity_counter(previous->packet.data()) &&
               same(packet, previous->packet.data())) {
        previous->repeated = true; // a third one is an error
        return true;
    }
    std::memcpy(previous->packet.data(), packet, previous->packet.size());
    previous->repeated = false;
    return false;
}

void Analysis::takeTables(const unsigned char* packet) {
    if (!m_tables.take(packet, m_packets - 1, m_findings))
        return;
    for (const Program& program : m_tables.programs())
        if (Role& role = m_roles[indexOf(program.pmtPid)]; role == Role::none)
            role = Role::table;
    chooseAsset();
    if (const Program* const program = asset(); program != nullptr)
        m_pcrPid = program->clockPid;
    // Nothing will be analysed of a stream without video, however long it is.
    m_full = m_full || (m_video == nullptr && m_tables.complete());
}

void Analysis::chooseAsset() {
    // A map that comes late does not take the asset away from a program that has been read for a while.
    constexpr double SETTLED = 1;
    if (m_video != nullptr && m_times.decodingSeconds(m_times.latestDts()) >= SETTLED)
        return;
    for (const Program& program : m_tables.programs()) {
        const StreamEntry* const video = program.video();
        if (video == nullptr)
            continue;
        if (m_video == nullptr || program.number != m_assetNumber)
            adopt(program, *video);
        return;
    }
}

void Analysis::adopt(const Program& program, const StreamEntry& video) {
    for (Role& role : m_roles)
        if (role != Role::table)
            role = Role::none;
    m_assetNumber = program.number;
    m_videoPid = video.pid;
    m_pcrPid = program.pcrPid;
    m_video = std::make_unique<VideoTrack>(*video.video);
    m_videoReader = {};
    m_lastVideoPacket = 0;
    m_timecodeJumps = 0;
    m_lostVideoPackets = 0;
    m_lostSinceTime = false;
    m_positionAtTime = {0, 0};
    m_fieldsBeforeTimes = 0;
    m_atLeaps.clear();
    m_audios.clear();
    m_clock = {};
    m_lastClock = -1;
    m_clockAtTime = 0;
    m_leastDelay.reset();
    m_times = {};
    m_rates = {};
    m_packetsBefore = m_ratedPackets = onlyTables() ? 0 : m_packets - 1;
    m_videoRates = {};
    m_ratedVideoBytes = 0;
    m_lead = {};
    m_roles[indexOf(m_videoPid)] = Role::video;
    addSounds(program);
}

// Whether the file begins with tables, and not within its streams.
bool Analysis::onlyTables() const {
    constexpr std::size_t RESERVED = 0x20; // up to here PIDs are those of tables (table 2-3)
    for (std::size_t pid = RESERVED; pid < m_previous.size(); ++pid)
        if (m_previous[pid] != nullptr && m_roles[pid] != Role::table)
            return false;
    return m_nullPackets == 0;
}

void Analysis::addSounds(const Program& program) {
    auto place = m_audios.begin();
    for (const StreamEntry& stream : program.streams) {
        if (stream.pid == m_videoPid)
            continue;
        Role& role = m_roles[indexOf(stream.pid)];
        if (stream.audio && audio(stream.pid) == nullptr) {
            place = m_audios.insert(place, Audio{stream.pid, AudioTrack(*stream.audio), {}});
            role = Role::audio;
        } else if (undecided(stream) && role == Role::none) {
            role = Role::undecided;
        }
        if (place != m_audios.end() && place->pid == stream.pid)
            ++place;
    }
}

void Analysis::decide(const unsigned char* packet, int pid, bool lost) {
    if (!ts::payload_unit_start(packet) || !ts::has_payload(packet))
        return;
    m_roles[indexOf(pid)] = Role::none;
    m_tables.decide(m_assetNumber, pid, ts::payload(packet));
    addSounds(*asset());
    if (Audio* const sound = audio(pid); sound != nullptr)
        takeElementary(packet, sound, lost);
    else
        m_roles[indexOf(pid)] = Role::none; // it is decided, too
}

void Analysis::takeClock(const unsigned char* packet, int pid) {
    const ts::bytes field = ts::adaptation_field(packet);
    const std::int64_t base =
        std::int64_t{field[1]} << 25 | field[2] << 17 | field[3] << 9 | field[4] << 1 | field[5] >> 7;
    const std::int64_t extension = (field[5] & 1) << 8 | field[6];
    const std::int64_t pcr = base * 300 + extension;
    const bool announced = (field[0] & DISCONTINUITY) != 0;
    if (m_limit.asked()) {
        m_limit.reference(pid, pcr, announced);
        m_full = m_full || m_limit.passed();
    }
    if (pid != m_pcrPid)
        return;
    const auto number = static_cast<unsigned long long>(m_packets - 1);
    const std::uint64_t tooLong = m_clock.tooLong();
    const std::uint64_t jumps = m_clock.jumps();
    m_clock.reference(pcr, static_cast<std::int64_t>(number), announced, now());
    m_lastClockPacket = number;
    m_lastClockPid = pid;
    m_lastClock = pcr;
    noteDelay();
    if (m_clock.tooLong() != tooLong)
        m_findings.add("PCR interval",
                       format("packet %llu, PID %d: more than 100 ms since the last PCR", number, pid));
    if (m_video != nullptr && (announced || m_clock.jumps() != jumps))
        m_video->realign();
    if (m_clock.jumps() != jumps)
        m_findings.add("PCR jump", format("packet %llu, PID %d: the PCR jumps", number, pid));
    if (!announced)
        return;
    m_times.expectNewTimeBase();
    for (Audio& each : m_audios)
        each.newTimeBase = true;
}

Analysis::Audio* Analysis::audio(int pid) {
    for (Audio& each : m_audios)
        if (each.pid == pid)
            return &each;
    return nullptr;
}

void Analysis::takeElementary(const unsigned char* packet, Audio* audio, bool lost) {
    PesReader& reader = audio == nullptr ? m_videoReader : audio->reader;
    if (audio == nullptr) {
        m_videoCounter = ts::continuity_counter(packet);
        m_lostSinceTime = m_lostSinceTime || lost;
    }
    if (lost) {
        reader.lose();
        if (audio != nullptr)
            audio->track.skip();
        else
            m_video->skip();
    }
    if (!ts::has_payload(packet))
        return;
    if (ts::payload_unit_start(packet))
        reader.begin();
    std::span<const unsigned char> bytes = ts::payload(packet);
    if (reader.takeHeader(bytes)) {
        if (audio != nullptr)
            takeAudioTimes(*audio);
        else
            takeVideoTimes();
    }
    (audio == nullptr ? m_lastVideoPacket : audio->lastPacket) = m_packets - 1;
    if (!reader.inData()) {
        if (audio == nullptr && reader.behindLoss()) {
            // A damaged header does not tell how long it is.
            m_lostSinceTime = true;
            m_video->realign();
            m_video->count(bytes.size());
        }
        return;
    }
    if (audio != nullptr) {
        // Of a coding that is not looked into the times alone count.
        if (audio->track.codec() == AudioCodec::unknown)
            return;
        audio->track.feed(bytes);
        tellFormat(*audio);
    } else {
        m_video->feed(bytes);
        tellTimecodes();
    }
}

void Analysis::tellTimecodes() {
    for (; m_timecodeJumps < m_video->timecodes().jumps(); ++m_timecodeJumps)
        m_findings.add("time code", format("packet %llu, PID %d: ", m_lastVideoPacket, m_videoPid) +
                                        m_video->timecodes().latest());
}

void Analysis::tellFormat(Audio& audio) {
    for (; audio.changes < audio.track.formatChanges(); ++audio.changes)
        m_findings.add("audio format", format("packet %llu, PID %d: a frame of another format than the first",
                                              audio.lastPacket, audio.pid));
    for (; audio.breaks < audio.track.breaks(); ++audio.breaks)
        m_findings.add("audio format", format("packet %llu, PID %d: no frame follows the one before",
                                              audio.lastPacket, audio.pid));
}

} // namespace kestrel::flowscope
