// One piece of the stream library as a program, so that it can be timed and its memory seen from outside.
//   kestrel_stream_worker check FILE            every packet through the continuity checker
//   kestrel_stream_worker check-verbose FILE    the same with its log calls, which the level filters
//   kestrel_stream_worker rebase IN OUT         the GOP timecodes to zero
//   kestrel_stream_worker duration FILE
//   kestrel_stream_worker nothing               the process alone
// With a further word, it writes its peak of resident memory in KiB into that file.
#include "foundation/Logger.h"
#include "mpeg/MpegWrapper.h"
#include "mpeg/mpeg.h"
#include "mpeg/ts_file.h"

#include <cstdio>
#include <fstream>
#include <string>
#include <string_view>

namespace {

int check(const char* path, bool verbose) {
    ts_file file(path);
    continuity_nazi checker;
    long packets = 0;
    long errors = 0;
    while (unsigned char* const packet = file.get_ts()) {
        ++packets;
        errors += checker.packetIsCool(packet, verbose) ? 0 : 1;
    }
    std::printf("%ld packets, %ld errors\n", packets, errors);
    return 0;
}

int duration(const char* path) {
    mpeg_timecode length(0, 0, 0, 0, false, 3);
    const int result = MpegWrapper::GetDuration(path, false, 3, length);
    std::printf("%s\n", length.windows_string());
    return result;
}

// Of this program alone: what wait4 tells is not below the peak of whoever started it.
void tellPeak(const char* path) {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.starts_with("VmHWM:"))
            std::ofstream(path) << std::stol(line.substr(6)) << '\n';
}

int run(int argc, char** argv) {
    const std::string_view word = argc > 1 ? argv[1] : "";
    if (word == "check" && argc == 3)
        return check(argv[2], false);
    if (word == "check-verbose" && argc == 3)
        return check(argv[2], true);
    if (word == "rebase" && argc == 4)
        return MpegWrapper::rebaseFile(argv[2], argv[3], 0, mpeg_timecode(0, 0, 0, 0, false, 3));
    if (word == "duration" && argc == 3)
        return duration(argv[2]);
    return word == "nothing" ? 0 : 2;
}

} // namespace

int main(int argc, char** argv) {
    LogUtil::GetInstance()->setDefaultLogLevel(BaseLogger::Info);
    const bool tell = argc > 2 && std::string_view(argv[argc - 2]) == "--peak";
    const int result = run(tell ? argc - 2 : argc, argv);
    if (tell)
        tellPeak(argv[argc - 1]);
    return result;
}
