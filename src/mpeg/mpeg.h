// Byte views that every header accessor, bit reader and rewriting stage works on, and the continuity checker
// of transport streams.
//
// A header may lie in one packet, straddle two, or have to be unescaped first; an accessor written against
// byte_sequence reads it in all three cases. Positions count from 0 and are not compared with the length:
// reading past the end is the caller's error, except where a class says otherwise. A view is valid while the
// bytes it refers to live, and is used by one thread at a time.
#pragma once

#include "mpeg/packet_view.h"

#include <array>
#include <cstdint>
#include <list>
#include <map>
#include <memory>

// An indexable sequence of bytes.
class byte_sequence {
public:
    // Owns no bytes at this level.
    virtual ~byte_sequence() = default;
    // The byte at a position, writable.
    virtual unsigned char& operator[](int position) = 0;
    // The value of the byte at a position. Unless a class says otherwise it comes through the writable
    // access.
    virtual unsigned char operator[](int position) const;
    // Number of bytes, 0 when empty.
    [[nodiscard]] virtual int get_length() const = 0;

    // Self-test of array and composite views: 0, or the number of the first check that failed. Logs under
    // "CaptureTests".
    static int testHarness();

protected:
    // For derived views only, so that none is cut down to this class by a copy.
    byte_sequence() = default;
    byte_sequence(const byte_sequence&) = default;
    byte_sequence& operator=(const byte_sequence&) = default;
};

// Bytes of one array, which belongs to whoever made the view.
class array_byte_sequence : public byte_sequence {
public:
    // The length bytes from first on. The array must outlive the view.
    array_byte_sequence(unsigned char* first, int length) : m_first(first), m_length(length) {}

    using byte_sequence::operator[];
    // Byte number position of the array; not compared with the length.
    unsigned char& operator[](int position) override { return m_first[position]; }
    // The length that was given.
    [[nodiscard]] int get_length() const override { return m_length; }

private:
    unsigned char* m_first;
    int m_length;
};

// A window of another sequence.
class subsequence : public byte_sequence {
public:
    // length bytes of parent from position offset on; the length is taken as given, also past the parent's
    // end. The parent must outlive the window.
    subsequence(byte_sequence& parent, int offset, int length)
        : m_parent(parent), m_offset(offset), m_length(length) {}
    // From offset to the parent's end.
    subsequence(byte_sequence& parent, int offset)
        : subsequence(parent, offset, parent.get_length() - offset) {}

    using byte_sequence::operator[];
    // The parent's byte at offset + position.
    unsigned char& operator[](int position) override { return m_parent[m_offset + position]; }
    // Of the window, as it was when it was made.
    [[nodiscard]] int get_length() const override { return m_length; }

private:
    byte_sequence& m_parent;
    int m_offset;
    int m_length;
};

// A read-only window of another sequence.
class constsubsequence : public byte_sequence {
public:
    // length bytes of parent from position offset on, as for subsequence.
    constsubsequence(const byte_sequence& parent, int offset, int length)
        : m_parent(parent), m_offset(offset), m_length(length) {}
    // From offset to the parent's end.
    constsubsequence(const byte_sequence& parent, int offset)
        : constsubsequence(parent, offset, parent.get_length() - offset) {}

    // Ends the process with abort(): a const window is never written through.
    unsigned char& operator[](int position) override;
    // The parent's byte at offset + position, through its own read access.
    unsigned char operator[](int position) const override { return m_parent[m_offset + position]; }
    // Of the window, as it was when it was made.
    [[nodiscard]] int get_length() const override { return m_length; }

private:
    const byte_sequence& m_parent;
    int m_offset;
    int m_length;
};

// Several sequences one behind the other. Refers to the pieces, does not own them.
class frankenstein_byte_sequence : public byte_sequence {
public:
    // Without pieces: length 0.
    frankenstein_byte_sequence() = default;

    // Adds a piece at the end. The piece must outlive this view and keep its length: the total is not
    // computed again.
    void append(byte_sequence& piece);

    using byte_sequence::operator[];
    // Ends the process with abort() when the pieces end before the position, and when there are none: an
    // index past a composite is an error in the program, not in the data.
    unsigned char& operator[](int position) override;
    // Sum of the lengths that the pieces had when they were added.
    [[nodiscard]] int get_length() const override { return static_cast<int>(m_length); }

private:
    std::list<byte_sequence*> m_pieces;
    std::int64_t m_length = 0;
};

// The payload of one NAL unit without its emulation prevention bytes (ITU-T H.264, 7.3.1), in a buffer of
// its own. It ends before the next start code prefix or with the source.
class rbsp_byte_sequence : public byte_sequence {
public:
    // Reads source from position start, the first byte behind the NAL unit header as a rule; a start at or
    // past the source's end gives an empty payload. Throws std::bad_alloc when there is no memory for as many
    // bytes as source has.
    rbsp_byte_sequence(const byte_sequence& source, int start);
    rbsp_byte_sequence(const rbsp_byte_sequence&) = delete;
    rbsp_byte_sequence& operator=(const rbsp_byte_sequence&) = delete;

    using byte_sequence::operator[];
    // Byte number position of the unescaped payload. Writing changes the copy, not the source.
    unsigned char& operator[](int position) override { return m_buffer[static_cast<std::size_t>(position)]; }
    // Bytes of the payload.
    [[nodiscard]] int get_length() const override { return m_length; }
    // Source bytes that the payload came from, emulation prevention bytes included.
    [[nodiscard]] int get_consumed() const noexcept { return m_consumed; }

    // Copies the payload back to destination from position start on, at most get_consumed() bytes, without
    // putting emulation prevention bytes back: for edits in place that keep the size. True only when the
    // result is exact, that is when none had been taken out.
    bool rbsp_write(byte_sequence* destination, int start);

private:
    std::unique_ptr<unsigned char[]> m_buffer;
    int m_length = 0;
    int m_consumed = 0;
};

// Checks the continuity counters of one pass over one stream, PID by PID (ISO/IEC 13818-1, 2.4.3.3).
class continuity_nazi {
public:
    // Before the first packet: no PID has been seen.
    continuity_nazi();

    // continuity_counter of a packet, 0 to 15 (2.4.3.3).
    static int getCounter(const unsigned char* packet) { return kestrel::ts::continuity_counter(packet); }

    // Whether the packet's counter follows the last one of its PID. Null packets and the first packet of a
    // PID always do. Deliberately stricter than the standard, since in a recording either may hide a loss: a
    // duplicate packet counts as an error and discontinuity_indicator is not consulted. verbose logs both
    // counters under "mpegParseLib".
    bool packetIsCool(const unsigned char* packet, bool verbose);

    // What the last failure was, "" before the first: "expected %d not %d : PID %d".
    [[nodiscard]] const char* message() const noexcept { return m_message; }
    // The last counter of every PID seen so far, in order of PID.
    [[nodiscard]] std::map<int, int> counters() const;

private:
    static constexpr signed char unseen = -1;

    // One slot for each PID rather than a search tree: this runs for every packet of every file.
    std::array<signed char, kestrel::ts::pid_count> m_counters;
    char m_message[64] = {};
};
