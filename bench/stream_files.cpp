#include "stream_files.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdlib.h>
#include <vector>

namespace kestrel::bench {

namespace {

constexpr std::size_t PACKET = 188;

std::vector<unsigned char> contents(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

[[noreturn]] void giveUp(const std::string& why) {
    std::fprintf(stderr, "%s\n", why.c_str());
    std::exit(1);
}

// Renumbers packets so that each PID's counter goes on from the last one.
class Renumbering {
public:
    void apply(unsigned char* packet) {
        const std::size_t pid = (packet[1] & 0x1FU) << 8 | packet[2];
        int& last = m_last[pid];
        if (last >= 0)
            last = (packet[3] & 0x10) != 0 ? (last + 1) & 0x0F : last;
        else
            last = packet[3] & 0x0F;
        packet[3] = static_cast<unsigned char>((packet[3] & 0xF0) | last);
    }

private:
    std::array<int, 8192> m_last = [] {
        std::array<int, 8192> none{};
        none.fill(-1);
        return none;
    }();
};

// 16 s of MPEG-2 with AC-3, interlaced, in GOPs of 12.
void encode(const std::string& picture, const std::string& rate, const std::string& audioRate,
            const std::string& path) {
    const std::string command =
        "ffmpeg -v error -nostdin -f lavfi -i testsrc2=" + picture +
        " -f lavfi -i sine=frequency=1000:sample_rate=48000 -t 16 -c:v mpeg2video " + rate +
        " -flags +ildct+ilme -top 1 -g 12 -bf 2 -timecode 10:00:00:00 -c:a ac3 -b:a " + audioRate +
        " -f mpegts " + path;
    if (std::system(command.c_str()) != 0)
        giveUp("ffmpeg could not make the clip");
}

} // namespace

BenchDirectory::BenchDirectory(const std::string& parent) {
    std::string name = parent + "/kestrel-bench-XXXXXX";
    if (mkdtemp(name.data()) == nullptr)
        giveUp("no directory in " + parent);
    m_path = name;
}

BenchDirectory::~BenchDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

void makeClip(const std::string& path) {
    encode("size=1920x1080:rate=25,noise=alls=40:allf=t", "-b:v 18M -minrate 18M -maxrate 18M -bufsize 8M",
           "384k", path);
}

void makeSmallClip(const std::string& path) {
    encode("size=720x576:rate=25,noise=alls=40:allf=t", "-b:v 5M -minrate 5M -maxrate 5M -bufsize 1835k",
           "192k", path);
}

void repeatClip(const std::string& clip, const std::string& path, long long bytes) {
    std::vector<unsigned char> packets = contents(clip);
    std::ofstream out(path, std::ios::binary);
    Renumbering renumbering;
    for (long long written = 0; written < bytes; written += static_cast<long long>(packets.size())) {
        for (std::size_t at = 0; at + PACKET <= packets.size(); at += PACKET)
            renumbering.apply(packets.data() + at);
        out.write(reinterpret_cast<const char*>(packets.data()),
                  static_cast<std::streamsize>(packets.size()));
    }
    if (!out.flush())
        giveUp("cannot write " + path);
}

void makeSparse(const std::string& clip, const std::string& path, long long bytes) {
    const std::vector<unsigned char> packets = contents(clip);
    std::ofstream out(path, std::ios::binary);
    const auto size = static_cast<std::streamsize>(packets.size());
    out.write(reinterpret_cast<const char*>(packets.data()), size);
    out.seekp(bytes / static_cast<long long>(PACKET) * static_cast<long long>(PACKET) - size);
    out.write(reinterpret_cast<const char*>(packets.data()), size);
    if (!out.flush())
        giveUp("cannot write " + path);
}

} // namespace kestrel::bench
