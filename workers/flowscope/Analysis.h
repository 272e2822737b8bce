// One pass over a transport stream: what is in it, and what is wrong with it.
#pragma once

#include "AudioTrack.h"
#include "ClockCheck.h"
#include "Findings.h"
#include "PassLimit.h"
#include "PesReader.h"
#include "ProgramTables.h"
#include "RateProfile.h"
#include "VideoTimes.h"
#include "VideoTrack.h"
#include "mpeg/mpeg.h"

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

namespace kestrel::flowscope {

// Takes packets one by one in constant memory. The asset is the first program with video, in the order of the
// program association table.
class Analysis {
public:
    // Reads at most so many seconds by the stream's own clock, where given.
    explicit Analysis(std::optional<int> seconds) : m_limit(seconds) {}

    // The next packet; false when no more is wanted.
    bool take(const unsigned char* packet);
    // So many bytes before the next packet, from that one of the file on, are no packets.
    void skip(std::uint64_t position, std::uint64_t bytes);
    // The file ends within a packet, of which only these bytes are there.
    void endWithin(std::span<const unsigned char> rest);
    // No more packets come.
    void end();

    // All of the association table, those too whose map has not come.
    [[nodiscard]] const std::vector<Program>& programs() const noexcept { return m_tables.programs(); }
    // Null while no program with video is known.
    [[nodiscard]] const Program* asset() const noexcept;
    // The asset's video; null without one.
    [[nodiscard]] const VideoTrack* video() const noexcept { return m_video.get(); }
    [[nodiscard]] int videoPid() const noexcept { return m_videoPid; }

    // One sound of the asset, in the order of its map.
    struct Audio {
        // A time of a PES packet, and where the frames stood then.
        struct Time {
            PTS pts;
            unsigned long long packet;
            AudioTrack::Place place;
        };

        int pid;
        AudioTrack track;
        PesReader reader;
        bool newTimeBase = false; // its next time need not follow from the last
        unsigned long long lastPacket = 0;
        double elapsed = 0;        // seconds from the first time to the last, in one time base
        double departed = 0;       // of that: by the last step, from what the frames in it last
        double addedTooMuch = 0;   // and what it counts for beyond them
        double secondsAtLast = 0;  // that the frames before the last time took
        std::uint64_t changes = 0; // that have been told, as the next
        std::uint64_t breaks = 0;
        std::vector<Time> held{}; // leap; others tell what they are worth
        std::int64_t dropped = 0; // damaged times since the last one that counts
        std::uint64_t times = 0;  // that count
        unsigned long long firstTimePacket = 0;
        bool beganBase = false;     // the last time is the first one of a time base that was announced
        std::int64_t lastStep = 0;  // from one time to the next
        std::int64_t usualStep = 0; // the shorter one of the last two

        // From the first time to the end of the last frame.
        [[nodiscard]] double seconds() const { return elapsed + track.seconds() - secondsAtLast; }
    };
    // Whether the pass has ended before the file.
    [[nodiscard]] bool full() const noexcept { return m_full; }
    [[nodiscard]] const std::vector<Audio>& audios() const noexcept { return m_audios; }
    [[nodiscard]] const Findings& findings() const noexcept { return m_findings; }
    // The asset's clock references.
    [[nodiscard]] const ClockCheck& clock() const noexcept { return m_clock; }
    // Bytes of the whole file over the decoding times of the video.
    [[nodiscard]] const RateProfile& rates() const noexcept { return m_rates; }
    // Packets of the whole file, and those of them with PID 0x1FFF.
    [[nodiscard]] std::uint64_t packets() const noexcept { return m_packets; }
    [[nodiscard]] std::uint64_t nullPackets() const noexcept { return m_nullPackets; }
    // Packets that were sent twice, which the standard allows.
    [[nodiscard]] std::uint64_t duplicates() const noexcept { return m_duplicates; }

    // Seconds from the first picture shown to the end of the last; 0 when there is none.
    [[nodiscard]] double videoSeconds() const;
    // Of the same in whole frames.
    [[nodiscard]] std::int64_t videoFrames() const;
    // Seconds that any stream of the asset has something to show or to play.
    [[nodiscard]] double seconds() const;
    // Bits per second of the video's elementary stream: those of its headers where they say that it is
    // constant and its bytes are as many as that makes, but for what the decoder's buffer holds and what was
    // lost; else its bytes over its seconds. 0 without a duration.
    [[nodiscard]] double videoBitsPerSecond() const;
    // At most, of the video, in a stream of that constant rate.
    [[nodiscard]] double lostVideoBits(double bitsPerSecond) const;
    // Of the whole file: by the clock where null packets fill the multiplex up to a constant rate, or its
    // clock references keep to one as they must, and so many times as much as it takes longer to send the
    // video than to decode it where the multiplex is too small; else all of its bytes over its seconds. 0
    // without a duration.
    [[nodiscard]] double muxBitsPerSecond() const;
    // Of the video: as it says itself, else by its seconds.
    [[nodiscard]] bool constantBitRate() const;
    // Share of the packets in percent.
    [[nodiscard]] double nullPercent() const;
    // First audio time behind the first video time, in milliseconds.
    [[nodiscard]] std::optional<double> audioOffsetMs() const;
    // Of the clock references, where null packets fill the multiplex up to a constant rate.
    [[nodiscard]] std::optional<double> pcrJitterUs() const;

private:
    // The latest packet of a PID, which the next may repeat.
    struct Previous {
        std::array<unsigned char, ts::packet_size> packet;
        bool repeated;
    };

    bool isDuplicate(const unsigned char* packet, int pid);
    // Its counter does not follow, although nothing announces that.
    void noteLoss(const unsigned char* packet, int pid);
    void takeTables(const unsigned char* packet);
    void chooseAsset();
    void adopt(const Program& program, const StreamEntry& video);
    // Of a stream whose first payload tells whether it is sound.
    void decide(const unsigned char* packet, int pid, bool lost);
    [[nodiscard]] bool onlyTables() const;
    void addSounds(const Program& program);
    void takeClock(const unsigned char* packet, int pid);
    // audio is null for the video.
    void takeElementary(const unsigned char* packet, Audio* audio, bool lost);
    void takeVideoTimes();
    void endVideoTimes();
    // How far that DTS lies ahead of the latest clock reference.
    [[nodiscard]] std::optional<std::int64_t> aheadOfClock(PTS rawDts) const;
    // Whether the video still keeps up with the clock.
    void noteLead(PTS rawDts);
    // How many times the clock's rate the multiplex needs for what it carries: 1 where that is enough.
    [[nodiscard]] double neededShare() const;
    // Seconds from the first decoding time to now, as far as decoding times tell, and the clock since.
    [[nodiscard]] double now() const;
    void takeAudioTimes(Audio& audio);
    void keepAudioTime(Audio& audio, const Audio::Time& time);
    // The next time of a PES packet tells what those that are held are worth.
    void settleAudioTimes(Audio& audio, const Audio::Time& next);
    void tellWrongFirst(const Audio& audio, const Audio::Time& second);
    void dropHeld(Audio& audio, const char* around);
    void endAudioTimes(Audio& audio);
    void tellTimecodes();
    void tellFormat(Audio& audio);
    // How far the decoding times lie ahead of the clock.
    void noteDelay();
    [[nodiscard]] double delay() const;
    void judgeClock();
    void judgePresence();
    void judgeEnds();
    [[nodiscard]] Audio* audio(int pid);
    [[nodiscard]] PTS firstSound(const Audio& audio) const;
    // Seconds of the stream's clock at which the first picture is shown, which need not have a time.
    [[nodiscard]] double firstShown() const;

    PassLimit m_limit;
    std::uint64_t m_packets = 0;
    std::uint64_t m_nullPackets = 0;
    std::uint64_t m_duplicates = 0;
    continuity_nazi m_continuity;
    std::array<std::unique_ptr<Previous>, ts::pid_count> m_previous{};
    Findings m_findings;
    ProgramTables m_tables;
    int m_assetNumber = -1; // of the program, while there is a video
    int m_videoPid = -1;
    int m_pcrPid = -1;
    std::unique_ptr<VideoTrack> m_video;
    std::vector<Audio> m_audios;
    // In a bounded pass: what there was before each time of the video that is held.
    struct AtLeap {
        VideoTrack video;
        VideoTrack::Position position;
    };
    std::vector<AtLeap> m_atLeaps;
    PesReader m_videoReader;
    unsigned long long m_lastVideoPacket = 0;
    std::uint64_t m_timecodeJumps = 0;           // that have been told
    int m_videoCounter = 0;                      // continuity_counter of the latest packet
    std::uint64_t m_losses = 0;                  // of any PID, that are told
    std::uint64_t m_lostVideoPackets = 0;        // as the counters tell
    bool m_lostSinceTime = false;                // bytes of video, since the latest time
    VideoTrack::Position m_positionAtTime{0, 0}; // when the latest time came
    std::uint64_t m_fieldsBeforeTimes = 0;       // of the pictures before the first time
    // What is on each PID, so that a packet's way is one look.
    enum class Role : unsigned char { none, table, video, audio, undecided };
    std::array<Role, ts::pid_count> m_roles{Role::table};
    ClockCheck m_clock;
    unsigned long long m_lastClockPacket = 0;
    int m_lastClockPid = -1;
    std::int64_t m_lastClock = -1; // that reference
    double m_clockAtTime = 0;      // its seconds when the latest decoding time came
    std::optional<double> m_leastDelay;
    double m_mostDelay = 0;
    VideoTimes m_times;
    RateProfile m_rates;
    std::uint64_t m_packetsBefore = 0; // the asset's map, of which no time tells
    std::uint64_t m_ratedPackets = 0;
    RateProfile m_videoRates;
    std::uint64_t m_ratedVideoBytes = 0;
    // Of the decoding times that were compared with the clock.
    struct Lead {
        // What there was at the last one that was not left out.
        PTS dts{};
        PTS clock{};
        std::uint64_t references = 0;
        std::uint64_t jumps = 0;
        std::uint64_t losses = 0;
        std::uint64_t nullPackets = 0;
        std::uint64_t packets = 0;
        int lateInARow = 0;
        bool late = false;    // at some time that many of them were
        bool bridged = false; // the last step led over a loss, or took the two far apart behind one
        bool apart = false;   // the one behind it did, and was left out
        // How far those that count lay ahead of the clock.
        std::int64_t least = 0;
        std::int64_t most = 0;
        // Sums of the steps between them, leaps left out, in units of PTS.
        std::int64_t decoded = 0;
        std::int64_t sent = 0; // by the clock
    };
    Lead m_lead;
    bool m_full = false;
};

} // namespace kestrel::flowscope
