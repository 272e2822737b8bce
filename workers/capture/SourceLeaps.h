// Where a file's timestamps go on later while what plays it does not wait.
#pragma once

#include "PcrClock.h"
#include "ProgramTables.h"
#include "SourceIndex.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace kestrel::capture {

// What plays the file does not wait for all the time by which its clock goes on, see PcrClock. The frames
// behind such a place have timestamps that are as much later; which step of theirs that is tells where both
// are in the file.
class SourceLeaps {
public:
    struct Leap {
        std::size_t frame = 0; // the first one behind it
        std::int64_t time = 0; // by the timestamps, when that begins
        SourceLeap size;
        bool clocked = true;    // the stream's clock takes the step for time, which it does of no long one
        std::int64_t later = 0; // than the frames of the PES packet before it, by that step
    };
    // Of each list; a damaged file may have one in every few packets. Those behind are taken for played.
    static constexpr std::size_t most = 200'000;

    // Takes the next packet, which is that many bytes into the file.
    void take(const unsigned char* packet, std::uint64_t offset);
    // A frame is later than those before take. It begins there, the PES packet before it began there. In the
    // order of the file.
    void late(const Leap& leap, std::uint64_t from, std::uint64_t to);
    // In the order of the file; nothing more comes. Each with the time by which the frame is later and that
    // is not played, if that is more than `least` (PTS units).
    [[nodiscard]] std::vector<Leap> found(std::int64_t least);

private:
    // Of the file, the bytes at the ends not among them.
    struct Unplayed {
        std::uint64_t from = 0;
        std::uint64_t to = 0;
        std::int64_t time = 0; // PTS units
    };
    struct Late {
        Leap leap;
        std::uint64_t from = 0;
        std::uint64_t to = 0;
    };

    ProgramTables m_tables;
    PcrClock m_clock;
    std::uint64_t m_pcrAt = 0;
    std::vector<Unplayed> m_unplayed;
    std::vector<Late> m_late;
};

} // namespace kestrel::capture
