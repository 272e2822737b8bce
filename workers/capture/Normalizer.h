// Makes a clean transport stream of one that is not: packets in, packets out, with neither files nor a clock
// of its own.
//
// In the order in which they stand in the source, packets
//   are found again after bytes that are none of them;
//   are dropped when they are null packets (unless these are to be kept), bear the transport_error_indicator
//   or the reserved adaptation_field_control; get the timecodes of their GOP headers rebased, so that the
//   first of a video PID is 00:00:00:00; are joined by copies of PAT and PMTs in front of the first, where
//   one of a program comes before the last of these, and where they are missing for tablePeriod of the
//   stream's time; get continuity counters that go on without a gap (ISO/IEC 13818-1, 2.4.3.3).
// All else, timestamps and PCRs among it, stays as it is.
#pragma once

#include "FrameCount.h"
#include "PacketSync.h"
#include "PacketWindow.h"
#include "PcrTimeline.h"
#include "ProgramTables.h"
#include "mpeg/gop_rebase.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace kestrel::capture {

// What was met and what was done. Packets where nothing else is said.
struct NormalizerCounts {
    std::uint64_t taken = 0; // whole packets of the source
    std::uint64_t written = 0;
    std::uint64_t nulls = 0;            // dropped
    std::uint64_t transportErrors = 0;  // dropped
    std::uint64_t reserved = 0;         // dropped: adaptation_field_control 0
    std::uint64_t strayBytes = 0;       // bytes that are in no packet
    std::uint64_t strayPlaces = 0;      // where such bytes are
    std::uint64_t continuityErrors = 0; // places of the source
    std::uint64_t duplicates = 0;       // kept, with the counter of the packet they repeat
    std::uint64_t renumbered = 0;       // whose continuity counter changed
    std::uint64_t tables = 0;           // that were put in
    std::uint64_t tablesLeftOut = 0;    // times at which too many were put in already
};

class Normalizer {
public:
    // Takes whole packets; false: no more are wanted.
    using Sink = std::function<bool(std::span<const unsigned char> packets)>;
    // Takes a line for the log.
    using Log = std::function<void(const std::string& line)>;

    Normalizer(bool keepNulls, Sink sink, Log log = {});

    // Where the next bytes of the source are to be put. take() says how many they were; false when the source
    // is no transport stream (shape() tells) or the sink wants no more, and so does finish(), after the last.
    [[nodiscard]] std::span<unsigned char> room() { return m_window.room(); }
    [[nodiscard]] bool take(std::size_t bytes);
    [[nodiscard]] bool finish();

    [[nodiscard]] SourceShape shape() const noexcept { return m_shape; }
    [[nodiscard]] const NormalizerCounts& counts() const noexcept { return m_counts; }
    // Frames of the first program's video, and its frame_rate_code, 0 while unknown.
    [[nodiscard]] std::uint64_t frames() const noexcept { return m_frames.frames(); }
    [[nodiscard]] int frameRateCode() const noexcept { return m_frames.frameRateCode(); }

private:
    using Ticks = PacketWindow::Ticks;
    static constexpr std::size_t none = SIZE_MAX;
    static constexpr Ticks ticksPerMillisecond = 27'000;
    // So that tables are at most 100 ms apart. Where nulls were dropped the clocks of two programs disagree
    // about the place of a packet, and where packets are sparse those put in between two PCRs move all others
    // along the clock.
    static constexpr Ticks tablePeriod = 75 * ticksPerMillisecond;
    static constexpr Ticks sparseTablePeriod = 40 * ticksPerMillisecond;
    static constexpr Ticks sparse = 5 * ticksPerMillisecond; // from packet to packet
    // What is due for longer was held up.
    static constexpr Ticks longestStep = 1000 * ticksPerMillisecond;
    // As many packets wait at most for the next PCR, or for the next packet of a video PID.
    static constexpr std::size_t mostHeld = 49'152;
    // Bytes of the source's beginning that are searched for its tables.
    static constexpr std::size_t mostAhead = 8 * 1024 * 1024;
    // PIDs below are those of tables in all multiplexes.
    static constexpr int firstProgramPid = 0x20;
    // Packets of tables put in, beside twice the others: no stream needs more.
    static constexpr std::uint64_t tableAllowance = 4096;
    // Video PIDs whose timecodes are rebased.
    static constexpr std::size_t mostRebased = 64;
    static constexpr std::uint64_t loggedContinuityErrors = 100;

    // A PID of MPEG-2 video.
    struct Rebase {
        explicit Rebase(int pid) : stage(pid, nullptr, 0, gop_rebase::rebase_to_zero) {}
        gop_rebase stage;           // only its mangle is used
        bool active = true;         // the program says that it is one
        std::size_t waiting = none; // the beginning of a PES packet that waits for the next packet
        Packet sent{};              // the last packet, if that was rewritten
        bool sentValid = false;
    };

    struct Pid {
        Packet last{}; // as the source has it
        bool seen = false;
        bool wasDuplicate = false;
        int counter = -1;      // last written
        int first = -1;        // of the source's that are to come, on a PID of tables
        bool inserted = false; // what was written last was put in
        Rebase* rebase = nullptr;
    };

    [[nodiscard]] bool work(bool last);
    [[nodiscard]] bool begin(bool whole);
    void countWithTables();
    void readAhead(bool last);
    void lookAt(const unsigned char* packet);
    void takePacket();
    [[nodiscard]] bool dropped(const unsigned char* packet);
    [[nodiscard]] bool isDuplicate(const unsigned char* packet, const Pid& pid) const noexcept;
    void checkCounter(const unsigned char* packet, const Pid& pid);
    void followPrograms();
    void rebase(std::size_t index, Pid& pid);
    void rewrite(Rebase& rebase, std::size_t next);
    [[nodiscard]] std::size_t settled() const noexcept;
    [[nodiscard]] bool emit(std::size_t end);
    [[nodiscard]] bool beginWithTables();
    [[nodiscard]] bool insertTables(Ticks now, Ticks period);
    [[nodiscard]] bool writeCopies();
    void number(unsigned char* packet, Pid& pid, const PacketWindow::Note& note);
    void releaseEmitted() noexcept;
    [[nodiscard]] Pid& pidOf(const unsigned char* packet);
    void log(const std::string& line) const;

    const bool m_keepNulls;
    const Sink m_sink;
    const Log m_log;
    NormalizerCounts m_counts;

    SourceShape m_shape = SourceShape::unknown;
    bool m_inSync = false;
    std::size_t m_ahead = 0;   // bytes that were searched for tables before the first packet was taken
    bool m_anyEarly = false;   // a packet of a program comes before all of them are known
    bool m_tablesLate = false; // such a packet wants them in front, and nothing is written yet
    PacketWindow m_window;
    std::vector<Pid> m_pids;
    std::vector<std::unique_ptr<Rebase>> m_rebases;

    // What the tables say where packets are read, and where they are written.
    ProgramTables m_read;
    ProgramTables m_written;
    FrameCount m_frames;

    PcrTimeline m_timeline;
    std::size_t m_emitted = 0;
    Ticks m_emittedTime = 0; // of the last packet before
    std::vector<Packet> m_copies;
};

} // namespace kestrel::capture
