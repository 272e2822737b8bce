#include "foundation/file_node.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <poll.h>
#include <unistd.h>
#include <utility>

namespace {

// Bytes of a block: enough to make the calls cheap, and small enough to stay in a processor's cache while its
// records are looked at. The first is smaller, since many questions are answered by the first records.
constexpr std::size_t blockSize = std::size_t{1} << 17;
constexpr std::size_t firstBlockSize = std::size_t{1} << 16;

} // namespace

file_node::file_node(const char* path, int recordSize) : size(recordSize) {
    // Without O_NONBLOCK the open itself would wait for a writer when path names a pipe that has none.
    // Without O_NOCTTY a terminal would become that of a daemon, which leads a session without one, and a
    // Ctrl-C on it would end the daemon.
    if (path != nullptr)
        m_fd.reset(::open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (m_fd.valid())
        ::posix_fadvise(m_fd.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
    if (size > 0) {
        const auto record = static_cast<std::size_t>(size);
        allocate(std::max(blockSize / record, std::size_t{1}) * record);
    }
}

file_node::file_node(std::istream& in, int recordSize) : size(recordSize), m_stream(&in) {
    if (size > 0)
        allocate(static_cast<std::size_t>(size));
}

file_node::~file_node() = default;

void file_node::allocate(std::size_t capacity) noexcept {
    m_buffer.reset(new (std::nothrow) unsigned char[capacity]);
    m_capacity = m_buffer ? capacity : 0;
}

unsigned char* file_node::nextRecord() noexcept {
    if (m_capacity == 0 || m_failed)
        return nullptr;
    if (m_stream != nullptr)
        return nextFromStream();
    const auto record = static_cast<std::size_t>(size);
    if (m_end - m_begin < record && !refill()) {
        m_failed = true;
        return nullptr;
    }
    unsigned char* result = m_buffer.get() + m_begin;
    m_begin += record;
    return result;
}

// Moves the cut record to the front and reads on until it is whole.
bool file_node::refill() noexcept {
    if (!m_fd.valid())
        return false;
    const std::size_t rest = m_end - m_begin;
    std::memmove(m_buffer.get(), m_buffer.get() + m_begin, rest);
    m_begin = 0;
    m_end = rest;
    const std::size_t block =
        std::exchange(m_first, false) ? std::max(firstBlockSize, static_cast<std::size_t>(size)) : m_capacity;
    while (m_end < static_cast<std::size_t>(size)) {
        const ssize_t got = readSome(m_buffer.get() + m_end, std::min(block, m_capacity - m_end));
        if (got <= 0)
            return false;
        m_end += static_cast<std::size_t>(got);
    }
    return true;
}

// Reads what is there, waiting for a pipe's writer. 0 at the end, -1 on an error.
ssize_t file_node::readSome(unsigned char* to, std::size_t room) noexcept {
    while (true) {
        const ssize_t got = ::read(m_fd.get(), to, room);
        if (got >= 0)
            return got;
        if (errno == EAGAIN) {
            if (!waitForMore())
                return 0;
        } else if (errno != EINTR) {
            return -1;
        }
    }
}

// False when the patience is spent. It is one for the whole input: a writer that sends a byte now and then
// would otherwise hold whoever asks for as long as it likes.
bool file_node::waitForMore() noexcept {
    using namespace std::chrono;
    if (m_patience <= m_patience.zero())
        return false;
    const auto begin = steady_clock::now();
    pollfd wait{m_fd.get(), POLLIN, 0};
    const int ready = ::poll(&wait, 1, static_cast<int>(ceil<milliseconds>(m_patience).count()));
    const bool interrupted = ready < 0 && errno == EINTR;
    m_patience -= steady_clock::now() - begin;
    return ready > 0 || interrupted;
}

// The caller's stream may be set to throw; its state says the same.
unsigned char* file_node::nextFromStream() noexcept {
    try {
        m_stream->read(reinterpret_cast<char*>(m_buffer.get()), size);
        return m_stream->good() ? m_buffer.get() : nullptr;
    } catch (...) {
        return nullptr;
    }
}

void file_node::resetToBegining() noexcept {
    m_begin = 0;
    m_end = 0;
    m_failed = false;
    if (m_fd.valid())
        ::lseek(m_fd.get(), 0, SEEK_SET);
    if (m_stream == nullptr)
        return;
    try {
        m_stream->clear();
        m_stream->seekg(0);
    } catch (...) {
        // A stream that cannot seek shows it at the next read.
    }
}
