#include "mpeg/MpegWrapper.h"

#include "foundation/ErrorCodes.h"
#include "foundation/Logger.h"
#include "mpeg/GetDTSBounds.h"
#include "mpeg/gop_rebase.h"
#include "mpeg/regular_file.h"
#include "mpeg/ts_file.h"
#include "mpeg/video_scan.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdio>
#include <iterator>

namespace ts = kestrel::ts;

namespace {

constexpr const char* MODULE = "MpegWrapper";
constexpr const char* HARNESS_MODULE = "CaptureTests";
constexpr long SYNC_TEST_PACKETS = 44;
constexpr long long PID_SEARCH_BYTES = 10'000;

} // namespace

const double MpegWrapper::FrameRateTable[16] = {
    0.0, 23000.0 / 1001, 24, 25, 30000.0 / 1001, 30, 50, 60000.0 / 1001, 60, -1, -1, -1, -1, -1, -1, -1};

double MpegWrapper::GetFrameRate(int code) {
    if (code < 0 || code >= static_cast<int>(std::size(FrameRateTable)))
        return 0.0;
    return std::max(FrameRateTable[code], 0.0);
}

int MpegWrapper::GetFrameRateCode(double fps) {
    if (fps == 0)
        return 0;
    if (fps < 24)
        return 1;
    if (fps == 24)
        return 2;
    if (fps == 25)
        return 3;
    if (fps < 30)
        return 4;
    if (fps == 30)
        return 5;
    if (fps == 50)
        return 6;
    if (fps < 60)
        return 7;
    return fps == 60 ? 8 : 0;
}

double MpegWrapper::GetAC3Bitrate(const char* /*file*/, int) {
    return -1.0;
}

int MpegWrapper::GetDuration(const char* file, bool drop, int rate, mpeg_timecode& out) {
    const kestrel::RegularFile stream(file);
    if (!stream) {
        LogUtil::Error(MODULE, LOG_MSG(kestrel::error::inputFileNotOpened), file);
        return static_cast<int>(kestrel::error::inputFileNotOpened);
    }
    const auto [first, last] = GetDTSBounds::parse_file(stream.get(), stream.length());
    const double seconds = static_cast<double>(last - first) * 0.25 / 90'000;
    const double frames = std::ceil(mpeg_timecode::fps(rate) * seconds);
    if (frames < 0) {
        LogUtil::Error(MODULE, LOG_MSG(kestrel::error::invalidTransportPacket), file);
        return static_cast<int>(kestrel::error::invalidTransportPacket);
    }
    out = mpeg_timecode::from_frames(static_cast<int>(std::min<double>(frames, INT_MAX)), drop, rate);
    return 0;
}

bool MpegWrapper::IsTransportStreamFile(const char* file) {
    ts_file source(file);
    for (long i = 0; i < SYNC_TEST_PACKETS; ++i) {
        const unsigned char* const packet = source.get_ts();
        if (packet == nullptr)
            return true;
        if (packet[0] != ts::sync_byte)
            return false;
    }
    return true;
}

bool MpegWrapper::IsMpeg2HD(const char* file) {
    videoProfile profile{};
    videoLevel level{};
    if (!GetMpeg2VideoProfileAndLevel(file, profile, level)) {
        LogUtil::Error(MODULE, "%s is not an MPEG2 file, IsMpeg2HD function only supports MPEG2 input files",
                       file);
        return false;
    }
    if (level == levelLow || level == levelMain) {
        LogUtil::Info(MODULE, "%s is an SD asset", file);
        return false;
    }
    LogUtil::Info(MODULE, "%s is an HD asset", file);
    return true;
}

int MpegWrapper::GetMpeg2FirstGopTimeCode(const char* file) {
    if (GetVideoType(file) != 0)
        return -10;
    return GetVideoPid(file) == -1 ? -20 : 0;
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): the signature that callers know.
int MpegWrapper::rebaseFile(const char* in, const char* out, int mode, mpeg_timecode offset) {
    const int video_pid = kestrel::find_video_pid(in, PID_SEARCH_BYTES);
    if (video_pid < 0)
        return video_pid;
    return kestrel::rebase_packets(in, out, video_pid, {mode, offset, 0}, false);
}

namespace {

const char* profile_name(int profile) {
    constexpr const char* NAMES[] = {"Reserved", "High",   "Spatial",   "SNR",
                                     "Main",     "Simple", "Multiview", "422"};
    return profile >= 0 && profile < static_cast<int>(std::size(NAMES)) ? NAMES[profile] : "???";
}

const char* level_name(int level) {
    switch (level) {
    case MpegWrapper::levelReserved:
        return "Reserved";
    case MpegWrapper::levelHigh:
        return "High";
    case MpegWrapper::levelHigh1440:
        return "High 1440";
    case MpegWrapper::levelMain:
        return "Main";
    case MpegWrapper::levelLow:
        return "Low";
    default:
        return "???";
    }
}

} // namespace

int MpegWrapper::testHarness(int argc, char** argv) {
    if (argc != 2) {
        LogUtil::Error(HARNESS_MODULE, "Function %s requires arg filename.mpg", "testHarness");
        return 1;
    }
    videoProfile profile{};
    videoLevel level{};
    if (!GetMpeg2VideoProfileAndLevel(argv[1], profile, level)) {
        LogUtil::Error(HARNESS_MODULE,
                       "Error getting MPEG2 Video Profile and Level.  Is this a valid MPEG2 file?");
        return 1;
    }
    std::printf("Video Profile %d:\t%s", static_cast<int>(profile), profile_name(profile));
    std::printf("\nVideo Level %d:\t%s\n", static_cast<int>(level), level_name(level));
    // No line feed behind the last line: scripts compare the whole output.
    std::fputs(IsMpeg2HD(argv[1]) ? "This is an HD file" : "This is an SD file", stdout);
    return 0;
}
