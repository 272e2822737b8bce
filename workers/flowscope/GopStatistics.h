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

    // Frames of a whole group, the most frequent number. The first group may lack the B frames before its I,
    // and the last one may be cut: the longer of the two where there is no other.
    [[nodiscard]] int size() const;
    // "IBBP": an I, the B frames between two anchors, a P; "IP", "I".
    [[nodiscard]] std::string structure() const;
    // Whole groups differ in their frames.
    [[nodiscard]] bool adaptive() const noexcept { return m_differing; }
    // Groups that have ended.
    [[nodiscard]] std::uint64_t groups() const noexcept { return m_groups; }

private:
    void closeGroup();
    void closeRun();

    std::string m_current; // types of the open group
    std::uint64_t m_groups = 0;
    std::map<int, std::uint64_t> m_sizes;
    std::map<int, std::uint64_t> m_runs; // of B frames behind an anchor
    std::string m_pattern;               // of the first whole group but the first
    bool m_differing = false;
    bool m_predicted = false; // there are P frames
    int m_run = -1;           // B frames since the last anchor; -1: before the first
    std::size_t m_length = 0; // of the open group, also beyond what m_current keeps
    std::size_t m_first = 0;  // of the first group, once it has ended
};

} // namespace kestrel::flowscope
