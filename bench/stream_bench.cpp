// The stream library against what it is judged by, in pairs in the same run; medians of the rounds.
//   kestrel_stream_bench [continuity] [rebase] [normalize] [queries] [memory] [huge] [verify]
//                        [--dir DIRECTORY=/dev/shm]
#include "figures.h"
#include "minimal_queries.h"
#include "stream_files.h"

#include "foundation/Logger.h"
#include "mpeg/MpegWrapper.h"
#include "mpeg/grab_video_header.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <vector>

using namespace kestrel::bench;

namespace {

constexpr int ROUNDS = 7;
constexpr long long MEGABYTE = 1'000'000;
constexpr long SCAN_LIMIT_PACKETS = 106'383; // of the bounded queries

// A program from start to end, its output thrown away.
double program(std::vector<std::string> words) {
    std::vector<char*> argv;
    for (std::string& word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    int status = -1;
    const double seconds = timed([&] {
        pid_t child = -1;
        if (posix_spawnp(&child, argv[0], &actions, nullptr, argv.data(), environ) == 0)
            waitpid(child, &status, 0);
    });
    posix_spawn_file_actions_destroy(&actions);
    if (status != 0)
        std::printf("  %s failed with status %d\n", argv[0], status);
    return seconds;
}

// A measured call; the limit is called right before or after it, in turn.
void compare(const char* what, const char* against, int rounds, const char* bar,
             const std::function<double()>& ours, const std::function<double()>& limit) {
    std::vector<double> mine;
    std::vector<double> theirs;
    std::vector<double> ratios;
    for (int round = 0; round <= rounds; ++round) {
        double a = 0;
        double b = 0;
        if (round % 2 == 0) {
            a = ours();
            b = limit();
        } else {
            b = limit();
            a = ours();
        }
        if (round == 0)
            continue; // warms the caches
        mine.push_back(a);
        theirs.push_back(b);
        ratios.push_back(a / b);
    }
    std::printf("%-24s %9.3f ms   %-26s %9.3f ms   ratio %.3f [%.3f to %.3f]   (bar: %s)\n", what,
                median(mine) * 1e3, against, median(theirs) * 1e3, median(ratios), quantile(ratios, 0),
                quantile(ratios, 1), bar);
}

void againstFfprobe(const char* what, const std::string& file) {
    compare(
        what, "ffprobe -count_packets", ROUNDS, "0.22",
        [&] {
            return program({KESTREL_STREAM_WORKER, "check", file});
        },
        [&] {
            return program({"ffprobe", "-v", "quiet", "-count_packets", "-show_streams", file});
        });
}

void continuity(const BenchDirectory& directory, const std::string& clip) {
    const std::string file = directory.path("1gb.ts");
    repeatClip(clip, file, 1000 * MEGABYTE);
    const auto ours = [&] { return program({KESTREL_STREAM_WORKER, "check", file}); };
    compare("continuity, 1 GB", "minimal loop", ROUNDS, "1.6, stretch 1.25", ours, [&] {
        return program({KESTREL_MINIMAL_CHECK, file});
    });
    againstFfprobe("continuity, 1 GB of HD", file);
    compare(
        "with filtered log calls", "without", ROUNDS, "1.15",
        [&] {
            return program({KESTREL_STREAM_WORKER, "check-verbose", file});
        },
        ours);
    // The less a frame has, the more of the peer's time goes into frames rather than into reading.
    const std::string small = directory.path("small.ts");
    makeSmallClip(small);
    repeatClip(small, file, 1000 * MEGABYTE);
    againstFfprobe("continuity, 1 GB of SD", file);
    std::filesystem::remove(file);
}

void rebase(const BenchDirectory& directory, const std::string& clip) {
    constexpr int REBASE_ROUNDS = 21;
    const std::string in = directory.path("250mb.ts");
    const std::string out = directory.path("out.ts");
    repeatClip(clip, in, 250 * MEGABYTE);
    const auto fresh = [&](const std::vector<std::string>& words) {
        std::filesystem::remove(out);
        return program(words);
    };
    const auto ours = [&] { return fresh({KESTREL_STREAM_WORKER, "rebase", in, out}); };
    compare("rebase, 250 MB", "cp", REBASE_ROUNDS, "1.35, stretch 1.15", ours, [&] {
        return fresh({"cp", in, out});
    });
    compare("rebase, 250 MB", "ffmpeg -c copy", REBASE_ROUNDS, "0.45", ours, [&] {
        return fresh(
            {"ffmpeg", "-v", "quiet", "-nostdin", "-i", in, "-map", "0", "-c", "copy", "-f", "mpegts", out});
    });
    std::filesystem::remove(in);
    std::filesystem::remove(out);
}

// The worker's whole job, settings, log and all. It has its file on the disk when it ends; what cp wrote is
// only on its way, so cp is also measured with that.
void normalize(const BenchDirectory& directory, const std::string& clip) {
    const std::string in = directory.path("1gb.ts");
    const std::string out = directory.path("out.ts");
    const std::string settings = directory.path("settings.xml");
    repeatClip(clip, in, 1000 * MEGABYTE);
    std::ofstream(settings) << "<CaptureSettings><CMD_PARAMS JOB_TYPE=\"MPEG_NORMALIZE\" SOURCE_FILE=\"" << in
                            << "\" OUTPUT_FILE=\"" << out << "\"/></CaptureSettings>";
    const auto fresh = [&](const std::vector<std::string>& words) {
        std::filesystem::remove(out);
        return program(words);
    };
    const auto ours = [&] {
        return fresh({KESTREL_CAPTURE_PROGRAM, "-ini", settings, "-log", directory.path("log")});
    };
    const char* const bar = "none";
    compare("normalize, 1 GB", "cp", ROUNDS, bar, ours, [&] { return fresh({"cp", in, out}); });
    compare("normalize, 1 GB", "dd conv=fdatasync", ROUNDS, bar, ours, [&] {
        return fresh({"dd", "if=" + in, "of=" + out, "bs=64k", "conv=fdatasync", "status=none"});
    });
    std::filesystem::remove(in);
    std::filesystem::remove(out);
}

// Packets from the beginning of the file up to the second GOP header of the PID and a little more: what a
// query for the headers has to read.
long packetsToSecondGop(const std::string& path, int pid) {
    std::ifstream file(path, std::ios::binary);
    char packet[188];
    long gops = 0;
    for (long count = 0; file.read(packet, sizeof packet); ++count) {
        const int packetPid = (packet[1] & 0x1F) << 8 | static_cast<unsigned char>(packet[2]);
        if (packetPid != pid)
            continue;
        for (std::size_t i = 0; i + 4 <= sizeof packet; ++i)
            if (std::memcmp(packet + i, "\0\0\1\xB8", 4) == 0 && ++gops == 2)
                return count + 3;
    }
    return 0;
}

void queries(const std::string& clip) {
    constexpr int QUERY_ROUNDS = 51;
    constexpr int VIDEO_PID = 0x100; // ffmpeg's first
    const char* const file = clip.c_str();
    const long headerPackets = packetsToSecondGop(clip, VIDEO_PID);
    compare(
        "duration", "minimal reads", QUERY_ROUNDS, "4; 0.3 ms, stretch 0.1 ms",
        [&] {
            mpeg_timecode out(0, 0, 0, 0, false, 3);
            return timed([&] { MpegWrapper::GetDuration(file, false, 3, out); });
        },
        [&] { return timed([&] { minimalBounds(file, VIDEO_PID); }); });
    const auto headers = [&] { return timed([&] { minimalScan(file, headerPackets, VIDEO_PID); }); };
    const char* const headerBar = "2.5; 2 ms, stretch 1 ms";
    compare(
        "frame rate", "minimal scan", QUERY_ROUNDS, headerBar,
        [&] { return timed([&] { MpegWrapper::GetFrameRateFromFile(file); }); }, headers);
    compare(
        "dimensions", "minimal scan", QUERY_ROUNDS, headerBar,
        [&] {
            int width = 0;
            int height = 0;
            std::string name = file;
            return timed([&] { grab_video_header::getDimensions(name.data(), width, height, 0); });
        },
        headers);
    compare(
        "profile and level", "minimal scan", QUERY_ROUNDS, headerBar,
        [&] {
            MpegWrapper::videoProfile profile{};
            MpegWrapper::videoLevel level{};
            return timed([&] { MpegWrapper::GetMpeg2VideoProfileAndLevel(file, profile, level); });
        },
        headers);
    compare(
        "video type", "minimal scan", QUERY_ROUNDS, "2; 6 ms, stretch 4 ms",
        [&] { return timed([&] { MpegWrapper::GetVideoType(file); }); },
        [&] { return timed([&] { minimalScan(file, SCAN_LIMIT_PACKETS, VIDEO_PID); }); });
}

// Peak of a run of the stream worker, in KiB.
long peakOf(const BenchDirectory& directory, const std::vector<std::string>& words) {
    const std::string file = directory.path("peak");
    std::vector<std::string> command{KESTREL_STREAM_WORKER};
    command.insert(command.end(), words.begin(), words.end());
    command.insert(command.end(), {"--peak", file});
    program(command);
    long peak = 0;
    std::ifstream(file) >> peak;
    return peak;
}

void memory(const BenchDirectory& directory, const std::string& clip) {
    const std::string out = directory.path("out.ts");
    for (const long long megabytes : {100, 1000}) {
        const std::string file = directory.path("memory.ts");
        repeatClip(clip, file, megabytes * MEGABYTE);
        const long empty = peakOf(directory, {"nothing"});
        const long checked = peakOf(directory, {"check", file});
        const long rebased = peakOf(directory, {"rebase", file, out});
        std::printf("memory, %4lld MB file      empty process %ld KiB, check +%ld KiB, rebase +%ld KiB   "
                    "(bar: +16384)\n",
                    megabytes, empty, checked - empty, rebased - empty);
        std::filesystem::remove(file);
        std::filesystem::remove(out);
    }
}

void huge(const BenchDirectory& directory, const std::string& clip) {
    const std::string small = directory.path("1gb.ts");
    const std::string large = directory.path("50gb.ts");
    makeSparse(clip, small, 1000 * MEGABYTE);
    makeSparse(clip, large, 50'000 * MEGABYTE);
    compare(
        "duration, 50 GB", "1 GB", 21, "1",
        [&] {
            return program({KESTREL_STREAM_WORKER, "duration", large});
        },
        [&] {
            return program({KESTREL_STREAM_WORKER, "duration", small});
        });
}

void verify(const BenchDirectory& directory, const std::string& clip) {
    const std::string file = directory.path("verify.ts");
    const std::string reports = directory.path("");
    repeatClip(clip, file, 1000 * MEGABYTE);
    compare(
        "verification, 1 GB", "ffprobe -count_packets", ROUNDS, "1, stretch 0.5",
        [&] {
            return program({KESTREL_FLOW_SCOPE, "-report_dst", reports, "-f", file});
        },
        [&] {
            return program({"ffprobe", "-v", "quiet", "-count_packets", "-show_streams", file});
        });
    const std::string large = directory.path("large.ts");
    makeSparse(clip, large, 50'000 * MEGABYTE);
    const auto first = [&](const std::string& path) {
        return program({KESTREL_FLOW_SCOPE, "-report_dst", reports, "-duration", "5", "-f", path});
    };
    compare(
        "first 5 s of 50 GB", "of 1 GB", 21, "1", [&] { return first(large); }, [&] { return first(file); });
    std::filesystem::remove(file);
    std::filesystem::remove(large);
}

} // namespace

int main(int argc, char** argv) {
    std::string parent = "/dev/shm";
    std::vector<std::string> words;
    for (int i = 1; i < argc; ++i) {
        if (std::string(argv[i]) == "--dir" && i + 1 < argc)
            parent = argv[++i];
        else
            words.emplace_back(argv[i]);
    }
    const auto asked = [&](const char* word) {
        return words.empty() || std::find(words.begin(), words.end(), word) != words.end();
    };
    LogUtil::GetInstance()->setDefaultLogLevel(BaseLogger::Info);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    const BenchDirectory directory(parent);
    const std::string clip = directory.path("clip.ts");
    makeClip(clip);
    std::printf("clip: %.1f MB\n",
                static_cast<double>(std::filesystem::file_size(clip)) / static_cast<double>(MEGABYTE));
    if (asked("continuity"))
        continuity(directory, clip);
    if (asked("rebase"))
        rebase(directory, clip);
    if (asked("normalize"))
        normalize(directory, clip);
    if (asked("queries"))
        queries(clip);
    if (asked("memory"))
        memory(directory, clip);
    if (asked("huge"))
        huge(directory, clip);
    if (asked("verify"))
        verify(directory, clip);
    return 0;
}
