// Rebasing from file to file.
#include "foundation/Logger.h"
#include "foundation/UniqueFd.h"
#include "mpeg/CaptureEngUtils.h"
#include "mpeg/gop_rebase.h"
#include "mpeg/regular_file.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace ts = kestrel::ts;

namespace {

constexpr const char* MODULE = "captureEngLib";
constexpr long long PID_SEARCH_BYTES = 500'000;
constexpr int HARNESS_PID = 481;

bool are_one_file(const char* a, const char* b) {
    struct stat first {};
    struct stat second {};
    return stat(a, &first) == 0 && stat(b, &second) == 0 && first.st_dev == second.st_dev &&
           first.st_ino == second.st_ino;
}

// The same as a gop_rebase between a ts_file and a file_packet_sink, packet for packet, in place: whole
// blocks are read, changed and written, so that of most packets only the first bytes are looked at. A packet
// of the video PID is held back until the next one has come, and with it all that follows it.
class BlockRebase {
public:
    // An output that cannot be opened is not reported: the writes go nowhere.
    BlockRebase(const char* in, const char* out, int video_pid, const kestrel::RebasePlan& plan)
        : m_in(in), m_out(open(out, O_WRONLY | O_CREAT | O_TRUNC | O_NOCTTY | O_CLOEXEC, 0666)),
          m_pid(video_pid), m_stage(video_pid, nullptr, plan.mode, plan.offset, plan.level) {
        // All that is ever held, so that growing does not need it twice. Only what is used takes memory.
        m_bytes.reserve(LONGEST_WAIT + 2 * READ_BLOCK);
    }

    // False at the first continuity error; what came before the video packet that was held back is written.
    bool run() {
        for (;;) {
            const bool more = fill();
            if (!take_packets()) {
                write(held());
                return false;
            }
            // Only whole blocks: the bytes that do not fill the last one have always been lost with the
            // stream closed before them, and whoever compares sizes has learnt to expect it. The whole file
            // is what the normalising worker writes.
            write(more ? held() / SINK_BLOCK * SINK_BLOCK : m_next / SINK_BLOCK * SINK_BLOCK);
            if (!more)
                return true;
        }
    }

    [[nodiscard]] const char* message() const { return m_checker.message(); }

private:
    static constexpr std::size_t NONE = SIZE_MAX;
    static constexpr std::size_t SINK_BLOCK = file_packet_sink::block_size;
    static constexpr std::size_t READ_BLOCK = std::size_t{4} * SINK_BLOCK;
    // As far as a video packet waits for the next one.
    static constexpr std::size_t LONGEST_WAIT = unibuffer::max_intervening * ts::packet_size;

    // Where what must stay in memory begins.
    [[nodiscard]] std::size_t held() const { return m_saved == NONE ? m_next : m_saved; }

    // Reads on behind what is there; false at the end of the file.
    bool fill() {
        if (!m_in)
            return false;
        m_bytes.resize(m_end + READ_BLOCK);
        ssize_t got = -1;
        do
            got = read(fileno(m_in.get()), m_bytes.data() + m_end, READ_BLOCK);
        while (got < 0 && errno == EINTR);
        if (got <= 0)
            return false;
        m_end += static_cast<std::size_t>(got);
        return true;
    }

    bool take_packets() {
        for (; m_next + ts::packet_size <= m_end; m_next += ts::packet_size) {
            unsigned char* const packet = m_bytes.data() + m_next;
            if (!m_checker.packetIsCool(packet, true))
                return false;
            if (ts::pid(packet) != m_pid) {
                if (m_saved != NONE && m_next - m_saved > LONGEST_WAIT) {
                    unibuffer::warn_of_silence();
                    m_saved = NONE;
                }
                continue;
            }
            if (m_saved != NONE && ts::payload_unit_start(m_bytes.data() + m_saved)) {
                const std::unique_ptr<byte_sequence> pes(
                    unibuffer::pes_beginning(m_bytes.data() + m_saved, packet));
                m_stage.mangle(*pes, 0);
            }
            m_saved = m_next;
        }
        return true;
    }

    // Writes the first count bytes and moves the rest to the front. A write that fails is not reported.
    void write(std::size_t count) {
        for (std::size_t done = 0; m_out.valid() && done < count;) {
            const ssize_t part = ::write(m_out.get(), m_bytes.data() + done, count - done);
            if (part < 0 && errno == EINTR)
                continue;
            if (part <= 0)
                m_out.reset();
            else
                done += static_cast<std::size_t>(part);
        }
        std::memmove(m_bytes.data(), m_bytes.data() + count, m_end - count);
        m_end -= count;
        m_next -= count;
        if (m_saved != NONE)
            m_saved -= std::min(m_saved, count);
    }

    kestrel::RegularFile m_in;
    kestrel::UniqueFd m_out;
    int m_pid;
    gop_rebase m_stage; // only its mangle is used
    continuity_nazi m_checker;
    std::vector<unsigned char> m_bytes;
    std::size_t m_end = 0;      // bytes in m_bytes
    std::size_t m_next = 0;     // the next packet to be looked at
    std::size_t m_saved = NONE; // the video packet that waits
};

} // namespace

int kestrel::find_video_pid(const char* in, long long max_bytes) {
    int pcr_pid = 0;
    int pmt_pid = 0;
    int video_pid = 0;
    if (const int result = CaptureEngUtils::GetStreamBasicPidInfo(in, pcr_pid, pmt_pid, video_pid, max_bytes);
        result != 0)
        return result;
    return video_pid == 0 ? -2 : video_pid;
}

int kestrel::rebase_packets(const char* in, const char* out, int video_pid, const RebasePlan& plan,
                            bool log_continuity) {
    if (are_one_file(in, out)) {
        LogUtil::Error(MODULE, "Cannot rebase %s onto itself", in);
        return -1;
    }
    // A device such as /dev/zero would have no end, and a pipe has lost what the search for its PID has read.
    if (struct stat status{}; stat(in, &status) == 0 && !S_ISREG(status.st_mode)) {
        LogUtil::Error(MODULE, "Cannot rebase %s: it is not a regular file", in);
        return -1;
    }
    BlockRebase rebase(in, out, video_pid, plan);
    if (rebase.run())
        return 0;
    if (log_continuity)
        LogUtil::Debug(MODULE, "Continuity error: %s", rebase.message());
    return -3;
}

int gop_rebase::rebaseFile(const char* in, const char* out, int level) {
    const int video_pid = kestrel::find_video_pid(in, PID_SEARCH_BYTES);
    if (video_pid < 0)
        return video_pid;
    return kestrel::rebase_packets(in, out, video_pid, {.level = level}, false);
}

int gop_rebase::testHarness(int argc, char** argv) {
    if (argc < 3) {
        LogUtil::Error(MODULE, "Function %s requires args in.mpeg out.mpeg [mode] [timecode]", "testHarness");
        return 1;
    }
    kestrel::RebasePlan plan;
    if (argc > 3) {
        const long mode = std::strtol(argv[3], nullptr, 10);
        // A negative one stays, and changes nothing.
        plan.mode = mode > subtract_offset ? rebase_to_zero : static_cast<int>(std::max(mode, -1L));
    }
    int h = 0;
    int m = 0;
    int s = 0;
    int f = 0;
    if (argc > 4)
        // NOLINTNEXTLINE(cert-err34-c): what is no number stays 0.
        std::sscanf(argv[4], "%d:%d:%d:%d", &h, &m, &s, &f);
    plan.offset = mpeg_timecode(h, m, s, f, false, 5);
    return kestrel::rebase_packets(argv[1], argv[2], HARNESS_PID, plan, true);
}
