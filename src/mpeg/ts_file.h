// Transport-stream packets from a file through a chain of stages to a file.
//
// The caller builds source, stages and sink, gives each packet of get_ts() to the first stage with an index
// that counts from 0, and at the end calls flush(index after the last) on it.
#pragma once

#include "foundation/file_node.h"

#include <array>
#include <iosfwd>

// Where packets (ISO/IEC 13818-1, 2.4.3.2) come from.
class transport_source {
public:
    // A source is deleted through this interface.
    virtual ~transport_source() = default;
    // The next 188-byte packet, null at the end.
    virtual unsigned char* get_ts() = 0;
};

// The packets of a file. A file that cannot be opened is empty; a last record shorter than 188 bytes is not
// returned. Sync bytes are not checked.
class ts_file final : public transport_source {
public:
    // Opens the file at path from its first byte. Never fails: what cannot be opened or read has no packets.
    explicit ts_file(const char* path);
    // Reads from an open stream from where it stands; the stream must outlive this object.
    explicit ts_file(std::istream& in);

    // The next 188 bytes, valid until the next call; they may be changed in place. Null at the end of the
    // file or on a read error.
    unsigned char* get_ts() override {
        if (m_unget)
            m_unget = false;
        else
            m_last = m_node.get_buff();
        return m_last;
    }
    // Makes the next get_ts return what the last one returned: also the null of the end, and null before the
    // first. Asked for twice it counts once.
    void unget_ts() noexcept { m_unget = true; }

private:
    file_node m_node;
    unsigned char* m_last = nullptr;
    bool m_unget = false;
};

// One stage.
class packet_mangler {
public:
    // level: how much a stage that prints tells; kept for it and not looked at here.
    explicit packet_mangler(int level) noexcept : m_level(level) {}
    // A stage is deleted through this interface; it does not delete the next one.
    virtual ~packet_mangler() = default;
    packet_mangler(const packet_mangler&) = delete;
    packet_mangler& operator=(const packet_mangler&) = delete;

    // Takes one packet of 188 bytes, which the stage may change until it returns; index is its ordinal in the
    // input, from 0.
    virtual void process(unsigned char* packet, long index) = 0;
    // Passes on what the stage holds back; index is the one after the last packet.
    virtual void flush(long index) = 0;

protected:
    int m_level; // diagnostic level, for stages that print
};

// A stage that hands its packets on to another, which it does not own.
class pipeline_mangler : public packet_mangler {
public:
    // next: the following stage, which must outlive this one.
    pipeline_mangler(packet_mangler* next, int level) noexcept : packet_mangler(level), m_next(next) {}

    // Flushes the next stage with the same index.
    void flush(long index) override;

protected:
    packet_mangler* m_next;
};

// The last stage: writes packets to a stream in blocks of 65 536 bytes. Write errors are ignored: whoever
// opened the stream asks it for its state.
class file_packet_sink final : public packet_mangler {
public:
    // Bytes of one write.
    static constexpr int block_size = 65'536;

    // out: a binary output stream, or null to write nothing. owns: the sink closes and deletes it.
    file_packet_sink(std::ostream* out, bool owns, int level);
    // Writes what is held and flushes. An owned stream that cannot be closed gets its failure state set
    // before it is deleted.
    ~file_packet_sink() override;

    // Copies the packet; writes exactly one block when one is full.
    void process(unsigned char* packet, long index) override;
    // Flushes the stream only: bytes that do not fill a block stay here until the destructor.
    void flush(long index) override;

private:
    void write(int count);

    std::ostream* m_out;
    bool m_owns;
    std::array<char, block_size + 188> m_buffer{};
    char* m_write;
    int m_held = 0;
};
