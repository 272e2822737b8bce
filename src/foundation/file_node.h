// Reading a file, or a stream, in records of one size.
#pragma once

#include "foundation/UniqueFd.h"

#include <chrono>
#include <cstddef>
#include <istream>
#include <memory>
#include <sys/types.h>

// Hands out the records of an input one after the other. A file by path is read in large blocks, and records
// are handed out from inside the block. A pipe is waited for five seconds in all, however its writer spreads
// them, and then counts as ended.
class file_node {
public:
    // Opens path for reading records of recordSize bytes. A path that cannot be opened or read, or a size
    // below 1, gives a node without records. A terminal does not become that of the process.
    file_node(const char* path, int recordSize);

    // Reads from a stream of the caller, which must outlive the node.
    file_node(std::istream& in, int recordSize);

    ~file_node();
    file_node(const file_node&) = delete;
    file_node& operator=(const file_node&) = delete;

    // The next record, valid until the next call. Null at the end of the input (a short last record is not
    // handed out) or on a read error, and from then on until resetToBegining.
    unsigned char* get_buff() noexcept {
        // Inline, since it runs for every packet of every file.
        const auto record = static_cast<std::size_t>(size);
        if (m_stream != nullptr || m_failed || m_end - m_begin < record || record == 0)
            return nextRecord();
        unsigned char* const result = m_buffer.get() + m_begin;
        m_begin += record;
        return result;
    }

    // Goes back to offset 0 and clears an end-of-input or error state. Of the five seconds what is left is
    // left.
    void resetToBegining() noexcept;

    // Bytes of a record.
    const int size;

private:
    void allocate(std::size_t capacity) noexcept;
    bool refill() noexcept;
    ssize_t readSome(unsigned char* to, std::size_t room) noexcept;
    bool waitForMore() noexcept;
    unsigned char* nextRecord() noexcept;
    unsigned char* nextFromStream() noexcept;

    kestrel::UniqueFd m_fd;
    std::istream* m_stream = nullptr;
    std::unique_ptr<unsigned char[]> m_buffer;
    std::size_t m_capacity = 0;
    std::size_t m_begin = 0;
    std::size_t m_end = 0;
    std::chrono::nanoseconds m_patience = std::chrono::seconds(5); // for a pipe's writer, in all
    bool m_first = true;                                           // nothing has been read yet
    bool m_failed = false;
};
