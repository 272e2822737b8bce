// The shape of a stream's groups of pictures.
#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace kestrel::flowscope {

// Fed with the frames in the order in which they are coded, each 'I', 'P' or 'B'. A group begins with a frame
// at which decoding can begin.
class GopStatistics {
public:
    // The next frame.
    void frame(char type, bool beginsGroup);
    // Frames may be missing behind those so far, or another stream begins. oneBegun: behind the next frame,
    // which is not told yet.
    void lose(bool oneBegun);

    // Frames of a whole group, the most frequent number. The first group may lack the B frames before its I,
    // and the last one may be cut: the longer of the two where there is no other. One in which frames may be
    // missing, or that begins right behind such a place, counts only where no other does.
    [[nodiscard]] int size() const;
    // "IBBP": an I, the B frames between two anchors, a P; "IP", "I". Losses as above.
    [[nodiscard]] std::string structure() const;
    // Whole groups differ in their frames.
    [[nodiscard]] bool adaptive() const noexcept { return m_differing; }
    // Groups that have ended.
    [[nodiscard]] std::uint64_t groups() const noexcept { return m_groups; }

private:
    void closeGroup();
    void closeRun();
    using Counts = std::map<int, std::uint64_t>;

    std::string m_current; // types of the open group
    std::uint64_t m_groups = 0;
    Counts m_sizes;      // of whole groups
    Counts m_lossySizes; // of the others
    Counts m_runs;       // of B frames behind an anchor
    Counts m_lossyRuns;
    std::string m_pattern; // of the first whole group but the first
    bool m_differing = false;
    bool m_predicted = false; // there are P frames
    int m_run = -1;           // B frames since the last anchor; -1: before the first
    std::size_t m_length = 0; // of the open group, also beyond what m_current keeps
    std::size_t m_first = 0;  // of the first group, once it has ended
    bool m_lossy = false;     // the open group
    bool m_lossyRun = false;
    unsigned m_lossAhead = 0; // frames from now on up to the one behind the latest loss
};

} // namespace kestrel::flowscope
