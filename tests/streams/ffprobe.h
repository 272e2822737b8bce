// What ffprobe says of a file: the second opinion that the library's answers are compared with.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace kestrel::test {

// One packet (picture) of a stream, in file order. Times in 90 kHz ticks; -1: none.
struct ProbedPacket {
    std::int64_t pts = -1;
    std::int64_t dts = -1;
    int size = 0;
    bool key = false;
};

// Every value of each syntax element of the headers, e.g. of "closed_gop", in file order.
using CodedHeaders = std::map<std::string, std::vector<long>>;

class Ffprobe {
public:
    explicit Ffprobe(std::string path) : m_path(std::move(path)) {}

    // One entry of a stream ("v:0", "a:1"), e.g. "codec_name"; empty when there is none.
    [[nodiscard]] std::string stream(const std::string& which, const std::string& entry) const;
    // "N/D" as a number.
    [[nodiscard]] double frameRate() const;
    // Of a stream, from its "id" (0x...).
    [[nodiscard]] int pid(const std::string& which) const;
    [[nodiscard]] int streams(const std::string& type) const; // "v", "a"
    // Of a stream, in seconds.
    [[nodiscard]] double duration(const std::string& which) const;
    // Of the first MPEG-2 GOP header, "hh:mm:ss:ff", ";" before the frames when drop-frame; empty without.
    [[nodiscard]] std::string firstTimecode() const;
    // What stands in the video's headers. (It is ffmpeg that tells.)
    [[nodiscard]] CodedHeaders codedHeaders() const;
    [[nodiscard]] std::vector<ProbedPacket> packets(const std::string& which) const;
    // Picture types in display order, e.g. "IBBPBB".
    [[nodiscard]] std::string pictureTypes() const;

    // Runs ffprobe with these options on the file, on a kept stream only once; its output, line by line.
    // Throws std::runtime_error when it fails, as every other question then does.
    [[nodiscard]] std::vector<std::string> run(const std::string& options) const;

private:
    std::string m_path;
};

} // namespace kestrel::test
