// Follows one transport stream packet by packet: its program tables and the frames of its video.
#pragma once

#include "SectionCollector.h"
#include "VideoScanner.h"

#include <array>
#include <cstdint>
#include <string>

namespace kestrel::capture {

// Frame rate and elapsed time by the timestamps of the frames; indifferent to the wrap of the 33-bit clock
// and to its jumps.
class StreamClock {
public:
    // A step of that much or more is no time: the frames take theirs (PTS units).
    static constexpr std::int64_t largestStep = 10 * PTS::units_per_second;

    // The next frame begins, with this timestamp (or none), after `frames` frames since the last call.
    void advance(PTS stamp, unsigned frames, int frameRateCode) noexcept;
    // Time by the stream since the first frame, in PTS units.
    [[nodiscard]] std::int64_t elapsed() const noexcept { return m_elapsed; }
    // frame_rate_code by the spacing of the timestamps; 0 until they were regular for some frames.
    [[nodiscard]] int frameRateCode() const noexcept { return m_rateCode; }

private:
    static constexpr unsigned spacings = 4;

    PTS m_last;
    bool m_started = false;
    std::int64_t m_elapsed = 0;
    std::int64_t m_sum = 0; // of regular spacings
    std::int64_t m_spacing = 0;
    unsigned m_count = 0;
    int m_rateCode = 0;
};

// Whether a PES packet ends with this transport packet, as far as it shows: only there is its payload cut
// short by stuffing (ISO/IEC 13818-1, 2.4.3.5). Where the end of a PES packet fills it, nothing tells.
[[nodiscard]] bool endsPesPacket(const unsigned char* packet) noexcept;

class StreamAnalyzer {
public:
    // Takes the next packet. True when it begins a PES packet of the video: closedUnit() is then the one
    // before, and unit() this one. A duplicate packet (ISO/IEC 13818-1, 2.4.3.3) is not taken again.
    bool take(const unsigned char* packet) noexcept;

    // Nothing comes any more, as at the end of a file.
    void endOfStream() noexcept { m_scanner.settle(); }

    [[nodiscard]] const VideoUnit& unit() const noexcept { return m_scanner.unit(); }
    // Frames that begin in unit() if nothing comes any more.
    [[nodiscard]] unsigned framesAtEnd() const noexcept;
    [[nodiscard]] const VideoUnit& closedUnit() const noexcept { return m_scanner.closed(); }

    // Both tables have been seen.
    [[nodiscard]] bool programKnown() const noexcept { return m_pmtPid > 0 && !m_pmt.section().empty(); }
    [[nodiscard]] int pmtPid() const noexcept { return m_pmtPid; }
    [[nodiscard]] int videoPid() const noexcept { return m_videoPid; }
    [[nodiscard]] std::span<const Packet> patPackets() const noexcept { return m_pat.packets(); }
    [[nodiscard]] std::span<const Packet> pmtPackets() const noexcept { return m_pmt.packets(); }
    // Counts the programs seen: 1 with the first, and one more with each change of any PID (PMT, PCR or
    // stream) or stream type.
    [[nodiscard]] unsigned programVersion() const noexcept { return m_programVersion; }
    // "PMT PID 4096, PCR PID 256, PID 256 MPEG-2 video (type 0x02), PID 257 AC-3 audio (type 0x81)"
    [[nodiscard]] std::string describeProgram() const;
    // Last continuity counter of a PID; -1 before its first packet.
    [[nodiscard]] int lastCounter(int pid) const noexcept;

    // frame_rate_code of the headers, else by the timestamps; 0 while unknown.
    [[nodiscard]] int frameRateCode() const noexcept;
    [[nodiscard]] VideoCodec codec() const noexcept { return m_scanner.codec(); }
    [[nodiscard]] StreamClock& clock() noexcept { return m_clock; }
    [[nodiscard]] const StreamClock& clock() const noexcept { return m_clock; }

private:
    // PMT PID, PCR PID, and the PIDs and types of the streams in their order.
    class Program {
    public:
        void add(int pid, int type) noexcept {
            if (m_count < m_entries.size())
                m_entries[m_count++] = pid << 8 | type;
        }
        bool operator==(const Program&) const = default;

    private:
        // As many streams as a section of 1024 bytes has room for, and the two PIDs.
        std::array<int, 204> m_entries{};
        std::size_t m_count = 0;
    };

    // The last packet of a PID that had a payload.
    class LastPacket {
    public:
        // Whether packet is that packet once more; its PCR may differ, nothing else may. Otherwise it is the
        // last packet from now on.
        bool repeatedBy(const unsigned char* packet) noexcept;
        void forget() noexcept { m_known = false; }

    private:
        bool m_known = false;
        Packet m_packet{};
    };

    void takePat() noexcept;
    void takePmt() noexcept;
    bool takeVideo(const unsigned char* packet, bool lost) noexcept;
    void takePes(std::span<const unsigned char> bytes) noexcept;
    bool noteCounter(const unsigned char* packet, int pid) noexcept;

    SectionCollector m_pat{0};
    SectionCollector m_pmt{2};
    int m_pmtPid = 0;
    int m_videoPid = -1;
    int m_videoType = 0;
    unsigned m_programVersion = 0;
    Program m_program;
    LastPacket m_lastOfPat;
    LastPacket m_lastOfPmt;
    LastPacket m_lastOfVideo;
    std::array<signed char, 8192> m_counters = [] {
        std::array<signed char, 8192> unseen{};
        unseen.fill(-1);
        return unseen;
    }();

    VideoScanner m_scanner;
    StreamClock m_clock;
    // The head of a PES packet that may go on in further packets.
    std::array<unsigned char, 9 + 255> m_pesHead{};
    std::size_t m_pesHeadLength = 0;
    enum class PesState { none, head, data } m_pesState = PesState::none;
};

} // namespace kestrel::capture
