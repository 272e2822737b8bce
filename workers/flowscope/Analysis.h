// One pass over a transport stream: what is in it, and what is wrong with it.
#pragma once

#include "AudioTrack.h"
#include "ClockCheck.h"
#include "Findings.h"
#include "RateProfile.h"
#include "VideoTrack.h"
#include "capture/SectionCollector.h"
#include "mpeg/mpeg.h"

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kestrel::flowscope {

// One elementary stream of a program.
struct StreamEntry {
    int pid = 0;
    int type = 0;            // stream_type, ISO/IEC 13818-1, table 2-34
    std::string description; // with "AC3" and "H.264" where the service looks for them
    std::string language;    // ISO 639 code, empty when not given
    std::optional<AudioCodec> audio;
    std::optional<VideoCodec> video;
};

struct Program {
    int number = 0;
    int pmtPid = 0;
    int pcrPid = 0;
    std::vector<StreamEntry> streams;
};

// Takes packets one by one in constant memory. The first program with video is the asset.
class Analysis {
public:
    // Reads at most so many seconds by the stream's own clock, where given.
    explicit Analysis(std::optional<int> seconds) : m_limit(seconds) {}

    // The next packet; false when no more is wanted.
    bool take(const unsigned char* packet);
    // No more packets come.
    void end();

    [[nodiscard]] const std::vector<Program>& programs() const noexcept { return m_programs; }
    // Null while no program with video is known.
    [[nodiscard]] const Program* asset() const noexcept;
    [[nodiscard]] const VideoTrack* video() const noexcept { return m_video.get(); }
    [[nodiscard]] int videoPid() const noexcept { return m_videoPid; }
    // A PES header that may go on in further packets.
    struct PesReader {
        enum class State { none, head, data };
        std::array<unsigned char, 9 + 255> head{};
        std::size_t length = 0;
        State state = State::none;
    };
    struct Audio {
        int pid;
        AudioTrack track;
        PesReader reader;
    };
    [[nodiscard]] const std::vector<Audio>& audios() const noexcept { return m_audios; }
    [[nodiscard]] const Findings& findings() const noexcept { return m_findings; }
    [[nodiscard]] const ClockCheck& clock() const noexcept { return m_clock; }
    [[nodiscard]] const RateProfile& rates() const noexcept { return m_rates; }
    [[nodiscard]] std::uint64_t packets() const noexcept { return m_packets; }
    [[nodiscard]] std::uint64_t nullPackets() const noexcept { return m_nullPackets; }

    // Seconds from the first picture shown to the end of the last; 0 when there is none.
    [[nodiscard]] double videoSeconds() const;
    // Of the same in whole frames.
    [[nodiscard]] std::int64_t videoFrames() const;
    // Seconds that any stream of the asset has something to show or to play.
    [[nodiscard]] double seconds() const;
    [[nodiscard]] double videoBitsPerSecond() const;
    [[nodiscard]] double muxBitsPerSecond() const;
    [[nodiscard]] bool constantBitRate() const;
    // First audio time behind the first video time, in milliseconds.
    [[nodiscard]] std::optional<double> audioOffsetMs() const;

private:
    struct Section {
        explicit Section(int tableId) : collector(tableId) {}
        capture::SectionCollector collector;
        int program = 0;
    };

    void takePat();
    void takePmt(int pid, std::span<const unsigned char> section);
    void chooseAsset();
    void takeClock(const unsigned char* packet);
    // audio is null for the video.
    void takeElementary(const unsigned char* packet, Audio* audio, bool lost);
    void takePesBytes(std::span<const unsigned char> bytes, Audio* audio);
    void takePesHead(PesReader& reader, Audio* audio);
    void noteTimes(PTS pts, PTS dts);
    [[nodiscard]] Audio* audio(int pid);

    std::optional<int> m_limit;
    std::uint64_t m_packets = 0;
    std::uint64_t m_nullPackets = 0;
    continuity_nazi m_continuity;
    Findings m_findings;
    Section m_pat{0};
    std::map<int, Section> m_pmts;
    std::vector<Program> m_programs;
    int m_videoPid = -1;
    int m_pcrPid = -1;
    std::size_t m_assetIndex = 0;
    std::unique_ptr<VideoTrack> m_video;
    std::vector<Audio> m_audios;
    PesReader m_videoReader;
    // What is on each PID, so that a packet's way is one look.
    enum class Role : unsigned char { none, pmt, video, audio };
    std::array<Role, ts::pid_count> m_roles{};
    ClockCheck m_clock;
    RateProfile m_rates;
    std::uint64_t m_ratedPackets = 0;
    // Video times, with the turns of the 33-bit clock taken out.
    PTS m_lastDts{-1};
    PTS m_lastRawDts{-1};
    PTS m_firstDts{-1};
    PTS m_lowestPts{-1};
    PTS m_highestPts{-1};
    std::int64_t m_lastStep = 0;
    bool m_full = false;
};

} // namespace kestrel::flowscope
