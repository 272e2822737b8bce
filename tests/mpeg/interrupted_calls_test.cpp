// Reads and writes that a signal interrupts, or that come in pieces. No local file system does that to a
// regular file, but those of a network may: the linker sends the calls of this program to the functions below
// (--wrap), which do it when they are told to.
#include "foundation/Bytes.h"
#include "mpeg/GetDTSBounds.h"
#include "mpeg/gop_rebase.h"
#include "query_files.h"

#include <cerrno>
#include <cstddef>
#include <sys/types.h>

namespace {

// While true each call is interrupted once before it is carried out, and then no more than this many bytes
// go.
bool disturb = false;
constexpr std::size_t PIECE = 30'000;
int interruptions = 0;
bool interruptedLast = false;

// Whether the call ends here, as one that a signal has interrupted.
bool isInterrupted() {
    interruptedLast = disturb && !interruptedLast;
    if (!interruptedLast)
        return false;
    ++interruptions;
    errno = EINTR;
    return true;
}

std::size_t atOnce(std::size_t count) {
    return disturb && count > PIECE ? PIECE : count;
}

class Disturbance {
public:
    Disturbance() {
        interruptions = 0;
        interruptedLast = false;
        disturb = true;
    }
    ~Disturbance() { disturb = false; }
    Disturbance(const Disturbance&) = delete;
    Disturbance& operator=(const Disturbance&) = delete;
};

} // namespace

extern "C" {

ssize_t __real_pread(int fd, void* bytes, std::size_t count, off_t offset);
ssize_t __wrap_pread(int fd, void* bytes, std::size_t count, off_t offset) {
    return isInterrupted() ? -1 : __real_pread(fd, bytes, atOnce(count), offset);
}

ssize_t __real_read(int fd, void* bytes, std::size_t count);
ssize_t __wrap_read(int fd, void* bytes, std::size_t count) {
    return isInterrupted() ? -1 : __real_read(fd, bytes, atOnce(count));
}

ssize_t __real_write(int fd, const void* bytes, std::size_t count);
ssize_t __wrap_write(int fd, const void* bytes, std::size_t count) {
    return isInterrupted() ? -1 : __real_write(fd, bytes, atOnce(count));
}

} // extern "C"

namespace {

class InterruptedCalls : public Queries {
protected:
    // Decoding times at both ends, and between them more than the library reads at once.
    std::string longFile() {
        maker.tables({{0x02, VIDEO}});
        gop(3, 0x48, 720, 576, 7200, 3600);
        for (int i = 0; i < 3'000; ++i)
            maker.packet(0x300, false, filler(184));
        gop(3, 0x48, 720, 576, 14'400, 10'800);
        return write();
    }
};

TEST_F(InterruptedCalls, LeaveTheDecodingTimesOfAFileAsTheyAre) {
    const std::string path = longFile();
    const File file(std::fopen(path.c_str(), "rbe"));
    ASSERT_NE(file, nullptr);
    const Disturbance disturbance;
    const auto [first, last] = GetDTSBounds::parse_file(file.get(), static_cast<long>(maker.bytes.size()));
    EXPECT_EQ(first.ticks(), 3600);
    EXPECT_EQ(last.ticks(), 10'800);
    EXPECT_GT(interruptions, 2);
}

TEST_F(InterruptedCalls, LeaveEveryByteOfARebasedFileAsItIs) {
    const std::string in = longFile();
    const std::string whole = directory.path("whole.ts");
    const std::string disturbed = directory.path("disturbed.ts");
    ASSERT_EQ(gop_rebase::rebaseFile(in.c_str(), whole.c_str(), 0), 0);
    {
        const Disturbance disturbance;
        EXPECT_EQ(gop_rebase::rebaseFile(in.c_str(), disturbed.c_str(), 0), 0);
        EXPECT_GT(interruptions, 20) << "reads and writes";
    }
    const Bytes expected = bytesOfFile(whole);
    ASSERT_GT(expected.size(), 500'000U);
    EXPECT_EQ(bytesOfFile(disturbed), expected);
}

} // namespace
