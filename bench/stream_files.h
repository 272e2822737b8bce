// Long transport streams for benchmarks: one encoded clip, repeated with counters that go on.
#pragma once

#include <string>

namespace kestrel::bench {

// A directory that is removed with what is in it.
class BenchDirectory {
public:
    explicit BenchDirectory(const std::string& parent);
    ~BenchDirectory();
    BenchDirectory(const BenchDirectory&) = delete;
    BenchDirectory& operator=(const BenchDirectory&) = delete;

    [[nodiscard]] std::string path(const std::string& name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

// Encodes a clip of 1080i MPEG-2 at the 18 Mb/s of an HD delivery, with AC-3 (ffmpeg), or ends the program.
void makeClip(const std::string& path);

// The same for 576i MPEG-2 at 5 Mb/s, that of an SD ingest.
void makeSmallClip(const std::string& path);

// Appends the clip to itself until the file has that many bytes. The continuity counters of each PID go on
// over the joints; timestamps start anew.
void repeatClip(const std::string& clip, const std::string& path, long long bytes);

// A file of that size whose beginning and end are the clip and whose middle is a hole.
void makeSparse(const std::string& clip, const std::string& path, long long bytes);

} // namespace kestrel::bench
