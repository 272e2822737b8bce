// A rebase from file to file writes, for whatever bytes, what the same stages write packet by packet.
#include "mpeg/gop_rebase.h"
#include "mpeg/packet_view.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <sstream>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

namespace {

constexpr int VIDEO = 0x100;

// The bytes as packets of two PIDs, over and over, so that whole blocks are written. Counters are mended
// unless the packet's first byte says not to.
std::string stream_of(const std::uint8_t* data, std::size_t size) {
    constexpr std::size_t ENOUGH = 5 * file_packet_sink::block_size;
    std::array<int, 2> counters{};
    std::string stream;
    while (stream.size() < ENOUGH)
        for (std::size_t at = 0; at + 188 <= size; at += 188) {
            std::string packet(reinterpret_cast<const char*>(data) + at, 188);
            const bool video = packet[2] % 2 == 0;
            packet[1] = static_cast<char>((packet[1] & 0x40) | (video ? VIDEO >> 8 : 3));
            packet[2] = 0;
            int& counter = counters[video ? 0 : 1];
            if ((packet[3] & 0x10) != 0)
                ++counter;
            if (static_cast<unsigned char>(packet[0]) != 0xFF || stream.size() < ENOUGH / 2)
                packet[3] = static_cast<char>((packet[3] & 0xF0) | (counter & 0x0F));
            stream += packet;
        }
    return stream;
}

int by_stages(std::string stream, int mode, const mpeg_timecode& offset, std::string& out) {
    std::ostringstream written;
    auto sink = std::make_unique<file_packet_sink>(&written, false, 0);
    gop_rebase stage(VIDEO, sink.get(), mode, offset, 0);
    continuity_nazi checker;
    long index = 0;
    for (std::size_t at = 0; at + 188 <= stream.size(); at += 188) {
        auto* const packet = reinterpret_cast<unsigned char*>(stream.data()) + at;
        if (!checker.packetIsCool(packet, false)) {
            sink.reset();
            out = written.str();
            return -3;
        }
        stage.process(packet, index++);
    }
    stage.flush(index);
    out = written.str(); // what the sink still holds is lost
    return 0;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const int in = memfd_create("in", MFD_CLOEXEC);
    static const int out = memfd_create("out", MFD_CLOEXEC);
    static const std::string in_path = "/proc/self/fd/" + std::to_string(in);
    static const std::string out_path = "/proc/self/fd/" + std::to_string(out);
    if (size < 188)
        return 0;
    const std::string stream = stream_of(data, size);
    const int mode = data[size - 1] % 4;
    const mpeg_timecode offset(data[0] % 24, data[1] % 60, data[2] % 60, data[3] % 24, false, 3);
    if (ftruncate(in, 0) != 0 ||
        pwrite(in, stream.data(), stream.size(), 0) != static_cast<ssize_t>(stream.size()))
        std::abort();

    std::string expected;
    const int result = by_stages(stream, mode, offset, expected);
    if (kestrel::rebase_packets(in_path.c_str(), out_path.c_str(), VIDEO, {mode, offset, 0}, false) != result)
        std::abort();
    std::string found(static_cast<std::size_t>(lseek(out, 0, SEEK_END)), '\0');
    if (pread(out, found.data(), found.size(), 0) != static_cast<ssize_t>(found.size()) || found != expected)
        std::abort();
    return 0;
}
