#include "StreamAnalyzer.h"

#include "ClockTurn.h"
#include "Failure.h"
#include "mpeg/mpeg2.h"
#include "mpeg/packet_view.h"
#include "timecode/mpeg_timecode.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

namespace kestrel::capture {
namespace {

constexpr std::int64_t jitter = 8; // two ticks of the 90 kHz clock

constexpr std::size_t pesFixedHead = 9;
constexpr std::size_t pmtFixedHead = 12;
constexpr std::size_t crcBytes = 4;

// Calls take(stream type, PID) for the streams of a PMT section.
template <typename Take>
void forEachStream(std::span<const unsigned char> section, Take take) {
    if (section.size() < pmtFixedHead + crcBytes)
        return;
    const std::size_t end = section.size() - crcBytes;
    std::size_t at = pmtFixedHead + (static_cast<std::size_t>(section[10] & 0x0F) << 8 | section[11]);
    while (at + 5 <= end) {
        const unsigned char* entry = section.data() + at;
        take(MPEG::PMT::PIDInfo::stream_type(entry), MPEG::PMT::PIDInfo::elementary_PID(entry));
        at += 5 + static_cast<std::size_t>(MPEG::PMT::PIDInfo::ES_info_length(entry));
    }
}

// discontinuity_indicator (2.4.3.4).
bool announcesDiscontinuity(const unsigned char* packet) noexcept {
    const ts::bytes adaptation = ts::adaptation_field(packet);
    return !adaptation.empty() && (adaptation[0] & 0x80);
}

} // namespace

void StreamClock::advance(PTS stamp, unsigned frames, int frameRateCode) noexcept {
    const int rate = frameRateCode != 0 ? frameRateCode : m_rateCode;
    const std::int64_t period = std::max(MPEG::SH::decode_PCRs_per_frame(rate), 0);
    const std::int64_t step = stampedStep(stamp, m_last).value_or(0);
    const bool plausible = step > 0 && step < largestStep;
    if (m_started)
        m_elapsed += plausible ? step : period * frames;
    m_started = true;
    m_last = stamp;

    if (!plausible || frames != 1 || std::llabs(step - m_spacing) > jitter) {
        m_sum = 0;
        m_count = 0;
        m_spacing = plausible && frames == 1 ? step : 0;
        return;
    }
    m_sum += step;
    if (++m_count < spacings)
        return;
    const double fps = static_cast<double>(PTS::units_per_second) * m_count / static_cast<double>(m_sum);
    m_count = 0;
    m_sum = 0;
    for (int code = 1; code <= 8; ++code)
        if (std::fabs(mpeg_timecode::fps(code) / fps - 1) < 0.0005)
            m_rateCode = code;
}

bool endsPesPacket(const unsigned char* packet) noexcept {
    if (!ts::has_adaptation(packet))
        return false;
    const ts::bytes field = ts::adaptation_field(packet);
    if (field.empty()) // a length of 0: one byte of stuffing
        return true;
    std::size_t used = 1;
    const unsigned flags = field[0];
    used += (flags & 0x10) ? 6 : 0;            // PCR
    used += (flags & 0x08) ? 6 : 0;            // OPCR
    used += (flags & 0x04) ? 1 : 0;            // splice_countdown
    for (const unsigned part : {0x02u, 0x01u}) // private data, extension: each with its length in front
        if ((flags & part) && used < field.size())
            used += 1u + field[used];
    return field.size() > used;
}

unsigned StreamAnalyzer::framesAtEnd() const noexcept {
    VideoScanner ended = m_scanner;
    ended.settle();
    return ended.unit().frames;
}

bool StreamAnalyzer::take(const unsigned char* packet) noexcept {
    const int pid = ts::pid(packet);
    const bool lost = noteCounter(packet, pid);
    // transport_error_indicator or scrambled: nothing inside is to be trusted.
    if ((packet[1] & 0x80) || (packet[3] & 0xC0))
        return false;
    if (pid == 0) {
        if (!m_lastOfPat.repeatedBy(packet) && m_pat.take(packet))
            takePat();
    } else if (pid == m_pmtPid) {
        if (!m_lastOfPmt.repeatedBy(packet) && m_pmt.take(packet))
            takePmt();
    } else if (pid == m_videoPid) {
        return !m_lastOfVideo.repeatedBy(packet) && takeVideo(packet, lost);
    }
    return false;
}

bool StreamAnalyzer::LastPacket::repeatedBy(const unsigned char* packet) noexcept {
    if (!ts::has_payload(packet))
        return false;
    const bool sameHead = m_known && std::equal(packet, packet + ts::header_size, m_packet.begin());
    const ts::bytes payload = ts::payload(packet);
    if (sameHead && !announcesDiscontinuity(packet) &&
        std::ranges::equal(payload, ts::payload(m_packet.data())))
        return true;
    m_known = true;
    std::copy_n(packet, packetSize, m_packet.begin());
    return false;
}

int StreamAnalyzer::lastCounter(int pid) const noexcept {
    return m_counters[static_cast<std::size_t>(pid) % m_counters.size()];
}

// Returns whether packets of this PID are missing before this one.
bool StreamAnalyzer::noteCounter(const unsigned char* packet, int pid) noexcept {
    signed char& last = m_counters[static_cast<std::size_t>(pid) % m_counters.size()];
    const int counter = ts::continuity_counter(packet);
    const bool lost = last >= 0 && counter != last && counter != ((last + 1) & 0x0F);
    last = static_cast<signed char>(counter);
    return lost;
}

void StreamAnalyzer::takePat() noexcept {
    const auto section = m_pat.section();
    for (std::size_t at = 8; at + 4 <= section.size() - crcBytes; at += 4) {
        const int program = section[at] << 8 | section[at + 1];
        const int pid = (section[at + 2] & 0x1F) << 8 | section[at + 3];
        if (program == 0 || pid == 0)
            continue;
        if (pid != m_pmtPid) {
            m_pmtPid = pid;
            m_pmt.reset();
            m_lastOfPmt.forget();
        }
        return;
    }
}

void StreamAnalyzer::takePmt() noexcept {
    const auto section = m_pmt.section();
    Program program;
    program.add(m_pmtPid, 0);
    program.add((section[8] & 0x1F) << 8 | section[9], 0);
    int videoPid = -1;
    int videoType = 0;
    forEachStream(section, [&](int type, int pid) {
        program.add(pid, type);
        if (videoPid < 0 && videoCodec(type) != VideoCodec::none) {
            videoPid = pid;
            videoType = type;
        }
    });
    if (m_programVersion != 0 && program == m_program)
        return;
    ++m_programVersion;
    m_program = program;
    // A change of the audio alone must not disturb the frames.
    if (videoPid == m_videoPid && videoType == m_videoType)
        return;
    m_videoPid = videoPid;
    m_videoType = videoType;
    m_lastOfVideo.forget();
    m_pesState = PesState::none;
    m_scanner.reset(videoCodec(videoType));
}

std::string StreamAnalyzer::describeProgram() const {
    const auto section = m_pmt.section();
    if (section.size() < pmtFixedHead)
        return "no program";
    std::string text = format("PMT PID %d, PCR PID %d", m_pmtPid, (section[8] & 0x1F) << 8 | section[9]);
    forEachStream(section, [&](int type, int pid) {
        text += format(", PID %d %s (type 0x%02X)", pid, codecName(type), static_cast<unsigned>(type));
    });
    return text;
}

int StreamAnalyzer::frameRateCode() const noexcept {
    return m_scanner.frameRateCode() != 0 ? m_scanner.frameRateCode() : m_clock.frameRateCode();
}

bool StreamAnalyzer::takeVideo(const unsigned char* packet, bool lost) noexcept {
    if (lost)
        m_scanner.skip();
    if (!ts::has_payload(packet))
        return false;
    const bool opens = ts::payload_unit_start(packet);
    if (opens) {
        const ts::bytes adaptation = ts::adaptation_field(packet);
        m_scanner.beginUnit(!adaptation.empty() && (adaptation[0] & 0x40));
        m_pesState = PesState::head;
        m_pesHeadLength = 0;
    } else if (lost && m_pesState == PesState::head) {
        m_pesState = PesState::none;
    }
    takePes(ts::payload(packet));
    if (endsPesPacket(packet))
        m_scanner.settle();
    return opens;
}

void StreamAnalyzer::takePes(std::span<const unsigned char> bytes) noexcept {
    if (m_pesState == PesState::head) {
        const auto wanted = [this] {
            return m_pesHeadLength < pesFixedHead ? pesFixedHead : pesFixedHead + m_pesHead[8];
        };
        while (m_pesHeadLength < wanted() && !bytes.empty()) {
            m_pesHead[m_pesHeadLength++] = bytes[0];
            bytes = bytes.subspan(1);
        }
        if (m_pesHeadLength < wanted())
            return;
        if (m_pesHead[0] != 0 || m_pesHead[1] != 0 || m_pesHead[2] != 1) {
            m_pesState = PesState::none;
            return;
        }
        m_pesState = PesState::data;
        // PTS_DTS_flags count only where the header is long enough for what they announce.
        const unsigned length = m_pesHead[8];
        const PTS pts = length >= 5 ? MPEG::PES::get_PTS(m_pesHead.data()) : PTS();
        const PTS dts = length >= 10 ? MPEG::PES::get_DTS(m_pesHead.data()) : PTS();
        m_scanner.stamp(pts, dts);
    }
    if (m_pesState == PesState::data)
        m_scanner.feed(bytes);
}

} // namespace kestrel::capture
