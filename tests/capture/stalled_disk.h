// A place for a recording that takes no more than it is asked to.
#pragma once

#include "capture/stream_builder.h"
#include "foundation/UniqueFd.h"

#include <cstddef>
#include <string>
#include <vector>

namespace capture_test {

// A FIFO with room for one page: whoever writes into it waits as long as nothing is read, as for a disk that
// stalls.
class StalledDisk {
public:
    explicit StalledDisk(const std::string& path);
    // Reads until it has had that many bytes in all, or to the end of the file; false when they do not come.
    bool takeUpTo(std::size_t bytes);
    bool takeAll() { return takeUpTo(SIZE_MAX); }
    // What was read.
    const std::vector<unsigned char>& bytes() const { return m_bytes; }
    Packets packets() const;

private:
    kestrel::UniqueFd m_read;
    std::vector<unsigned char> m_bytes;
};

} // namespace capture_test
