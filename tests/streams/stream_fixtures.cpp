#include "streams/stream_fixtures.h"

#include "foundation/UniqueFd.h"
#include "streams/h264_timing.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <sys/file.h>

namespace kestrel::test {

namespace {

// Inputs. The pictures move, so that B pictures are worth coding.
#define VIDEO(size, rate) "-f lavfi -i testsrc2=size=" size ":rate=" rate " "
#define STEREO "-f lavfi -i sine=frequency=440:sample_rate=48000,aformat=channel_layouts=stereo "
#define SURROUND "-f lavfi -i sine=frequency=330:sample_rate=48000,aformat=channel_layouts=5.1 "

#define MPEG2 "-c:v mpeg2video -b:v 2500k -maxrate 4000k -bufsize 1835k "
#define MPEG2_HD "-c:v mpeg2video -b:v 6000k -maxrate 9000k -bufsize 4000k "
#define HIGH1440 "-profile:v 4 -level:v 6 "
#define FIELDS "-flags +ildct+ilme -top 1 "
#define CLOSED "-flags +cgop -sc_threshold 1000000000 "
#define AC3 "-c:a ac3 -b:a 192k "
#define X264 "-c:v libx264 -preset ultrafast -b:v 1500k -sc_threshold 0 "

// Time codes of those that ask for none begin at zero.
#define ZERO "00:00:00:00"
#define TEN "10:00:00:00"

// All of Main profile: level, GOP, B pictures, first time code, interlaced, closed GOPs.
constexpr Coding mpeg2(int level, int gop, int bPictures, const char* timecode, bool fields = false,
                       bool closed = false) {
    return {"Main", level, gop, bPictures, fields, timecode, closed};
}

constexpr Coding h264(const char* profile, int level, int gop, int bPictures, bool fields = false) {
    return {profile, level, gop, bPictures, fields};
}

constexpr StreamFixture FIXTURES[] = {
    // Every MPEG-2 frame rate, SD. Main level ends at 30 frames a second of the full size.
    {"m2_sd_23976", VIDEO("720x480", "24000/1001") STEREO, MPEG2 "-g 12 -bf 2 -timecode 10:00:00:00 " AC3,
     "mpeg2video", 720, 480, "24000/1001", 1, 1, mpeg2(8, 12, 2, TEN)},
    {"m2_sd_24", VIDEO("720x480", "24") STEREO, MPEG2 "-g 12 -bf 2 -timecode 10:00:00:00 " AC3, "mpeg2video",
     720, 480, "24/1", 2, 1, mpeg2(8, 12, 2, TEN)},
    {"m2_sd_25", VIDEO("720x576", "25") STEREO, MPEG2 "-g 12 -bf 2 -timecode 10:00:00:00 " AC3, "mpeg2video",
     720, 576, "25/1", 3, 1, mpeg2(8, 12, 2, TEN)},
    {"m2_sd_2997", VIDEO("720x480", "30000/1001") STEREO, MPEG2 "-g 15 -bf 2 -timecode 10:00:00:00 " AC3,
     "mpeg2video", 720, 480, "30000/1001", 4, 1, mpeg2(8, 15, 2, TEN)},
    {"m2_sd_2997_drop", VIDEO("528x480", "30000/1001") STEREO,
     MPEG2 "-g 15 -bf 2 -timecode 10:00:00\\;02 " AC3, "mpeg2video", 528, 480, "30000/1001", 4, 1,
     mpeg2(8, 15, 2, "10:00:00;02")},
    {"m2_sd_30", VIDEO("720x480", "30") STEREO, MPEG2 "-g 15 -bf 2 -timecode 10:00:00:00 " AC3, "mpeg2video",
     720, 480, "30/1", 5, 1, mpeg2(8, 15, 2, TEN)},
    {"m2_sd_50", VIDEO("352x288", "50") STEREO, MPEG2 "-g 24 -bf 2 " AC3, "mpeg2video", 352, 288, "50/1", 6,
     1, mpeg2(8, 24, 2, ZERO)},
    {"m2_sd_5994", VIDEO("352x240", "60000/1001") STEREO, MPEG2 "-g 30 -bf 2 " AC3, "mpeg2video", 352, 240,
     "60000/1001", 7, 1, mpeg2(8, 30, 2, ZERO)},
    {"m2_sd_50_full", VIDEO("720x576", "50") STEREO, MPEG2 HIGH1440 "-g 12 -bf 2 -timecode 10:00:00:00 " AC3,
     "mpeg2video", 720, 576, "50/1", 6, 1, mpeg2(6, 12, 2, TEN)},
    {"m2_sd_5994_full", VIDEO("720x480", "60000/1001") STEREO,
     MPEG2 HIGH1440 "-g 15 -bf 2 -timecode 10:00:00\\;04 " AC3, "mpeg2video", 720, 480, "60000/1001", 7, 1,
     mpeg2(6, 15, 2, "10:00:00;04")},
    // Interlaced coding, GOPs of other shapes.
    {"m2_sd_25_fields", VIDEO("720x576", "25") STEREO,
     MPEG2 FIELDS "-g 12 -bf 2 -timecode 10:00:00:00 -c:a mp2 -b:a 192k ", "mpeg2video", 720, 576, "25/1", 3,
     1, mpeg2(8, 12, 2, TEN, true), "mp2/2"},
    {"m2_sd_2997_fields", VIDEO("720x480", "30000/1001") STEREO,
     MPEG2 FIELDS "-g 15 -bf 2 -timecode 01:00:00\\;02 " AC3, "mpeg2video", 720, 480, "30000/1001", 4, 1,
     mpeg2(8, 15, 2, "01:00:00;02", true)},
    // A closed GOP of 12 has no place for the two B pictures that would need the next one: it has 10.
    {"m2_sd_closed", VIDEO("720x576", "25") STEREO, MPEG2 CLOSED "-g 12 -bf 2 " AC3, "mpeg2video", 720, 576,
     "25/1", 3, 1, mpeg2(8, 10, 2, ZERO, false, true)},
    {"m2_sd_ip", VIDEO("720x576", "25") STEREO, MPEG2 "-g 15 -bf 0 " AC3, "mpeg2video", 720, 576, "25/1", 3,
     1, mpeg2(8, 15, 0, ZERO)},
    {"m2_sd_intra", VIDEO("352x288", "25") STEREO, MPEG2 "-g 1 -bf 0 " AC3, "mpeg2video", 352, 288, "25/1", 3,
     1, mpeg2(8, 1, 0, ZERO, false, true)},
    // HD.
    {"m2_hd_25_fields", VIDEO("1920x1080", "25") STEREO,
     MPEG2_HD FIELDS "-g 12 -bf 2 -timecode 10:00:00:00 " AC3, "mpeg2video", 1920, 1080, "25/1", 3, 1,
     mpeg2(4, 12, 2, TEN, true)},
    {"m2_hd_2997_fields", VIDEO("1920x1080", "30000/1001") STEREO,
     MPEG2_HD FIELDS "-g 15 -bf 2 -timecode 10:00:00\\;02 " AC3, "mpeg2video", 1920, 1080, "30000/1001", 4, 1,
     mpeg2(4, 15, 2, "10:00:00;02", true)},
    {"m2_hd_23976", VIDEO("1920x1080", "24000/1001") STEREO, MPEG2_HD "-g 12 -bf 2 " AC3, "mpeg2video", 1920,
     1080, "24000/1001", 1, 1, mpeg2(4, 12, 2, ZERO)},
    {"m2_hd_24", VIDEO("1280x720", "24") STEREO, MPEG2_HD "-g 12 -bf 2 -timecode 10:00:00:00 " AC3,
     "mpeg2video", 1280, 720, "24/1", 2, 1, mpeg2(6, 12, 2, TEN)},
    {"m2_hd_25", VIDEO("1280x720", "25") STEREO, MPEG2_HD "-g 12 -bf 2 -timecode 10:00:00:00 " AC3,
     "mpeg2video", 1280, 720, "25/1", 3, 1, mpeg2(6, 12, 2, TEN)},
    {"m2_hd_2997", VIDEO("1280x720", "30000/1001") STEREO, MPEG2_HD "-g 15 -bf 2 -timecode 10:00:00:00 " AC3,
     "mpeg2video", 1280, 720, "30000/1001", 4, 1, mpeg2(6, 15, 2, TEN)},
    {"m2_hd_30", VIDEO("1280x720", "30") STEREO, MPEG2_HD "-g 15 -bf 2 -timecode 10:00:00:00 " AC3,
     "mpeg2video", 1280, 720, "30/1", 5, 1, mpeg2(6, 15, 2, TEN)},
    {"m2_hd_50", VIDEO("1280x720", "50") STEREO, MPEG2_HD "-g 24 -bf 2 " AC3, "mpeg2video", 1280, 720, "50/1",
     6, 1, mpeg2(6, 24, 2, ZERO)},
    {"m2_hd_5994", VIDEO("1280x720", "60000/1001") STEREO,
     MPEG2_HD "-g 30 -bf 2 -timecode 10:00:00\\;04 " AC3, "mpeg2video", 1280, 720, "60000/1001", 7, 1,
     mpeg2(6, 30, 2, "10:00:00;04")},
    // Audio of every kind, and PIDs as a delivery wants them.
    {"m2_surround", VIDEO("352x288", "25") SURROUND, MPEG2 "-g 12 -c:a ac3 -b:a 384k ", "mpeg2video", 352,
     288, "25/1", 3, 1, mpeg2(8, 12, 0, ZERO), "ac3/6"},
    {"m2_aac", VIDEO("352x288", "25") STEREO, MPEG2 "-g 12 -c:a aac -b:a 128k ", "mpeg2video", 352, 288,
     "25/1", 3, 1, mpeg2(8, 12, 0, ZERO), "aac/2"},
    {"m2_eac3", VIDEO("352x288", "25") STEREO, MPEG2 "-g 12 -c:a eac3 -b:a 192k ", "mpeg2video", 352, 288,
     "25/1", 3, 1, mpeg2(8, 12, 0, ZERO), "eac3/2"},
    {"m2_no_audio", VIDEO("352x288", "25"), MPEG2 "-g 12 ", "mpeg2video", 352, 288, "25/1", 3, 0,
     mpeg2(8, 12, 0, ZERO), ""},
    {"m2_four_audios", VIDEO("352x288", "25") STEREO SURROUND STEREO STEREO,
     MPEG2
     "-g 12 -map 0 -map 1 -map 2 -map 3 -map 4 -c:a:0 ac3 -b:a:0 192k -c:a:1 ac3 -b:a:1 384k -c:a:2 mp2 "
     "-b:a:2 192k -c:a:3 aac -b:a:3 128k ",
     "mpeg2video", 352, 288, "25/1", 3, 4, mpeg2(8, 12, 0, ZERO), "ac3/2 ac3/6 mp2/2 aac/2"},
    {"m2_delivery_pids", VIDEO("528x480", "30000/1001") STEREO STEREO,
     MPEG2 "-g 15 -bf 2 -map 0 -map 1 -map 2 -timecode 01:00:00\\;02 " AC3
           "-mpegts_pmt_start_pid 480 -streamid 0:481 -streamid 1:482 -streamid 2:483 ",
     "mpeg2video", 528, 480, "30000/1001", 4, 2, mpeg2(8, 15, 2, "01:00:00;02"), "ac3/2 ac3/2", 480, 481},
    // H.264. Only what the transform of 8x8 blocks needs makes a stream of the preset High.
    {"h264_baseline", VIDEO("720x576", "25") STEREO, X264 "-profile:v baseline -g 25 " AC3, "h264", 720, 576,
     "25/1", 3, 1, h264("Constrained Baseline", 30, 25, 0)},
    {"h264_main", VIDEO("720x576", "25") STEREO, X264 "-profile:v main -bf 2 -g 12 " AC3, "h264", 720, 576,
     "25/1", 3, 1, h264("Main", 30, 12, 2)},
    {"h264_high_2997", VIDEO("1280x720", "30000/1001") STEREO,
     X264 "-profile:v high -x264-params 8x8dct=1 -bf 2 -g 15 " AC3, "h264", 1280, 720, "30000/1001", 4, 1,
     h264("High", 31, 15, 2)},
    {"h264_high_50", VIDEO("1280x720", "50") STEREO,
     X264 "-profile:v high -x264-params 8x8dct=1 -bf 2 -g 24 " AC3, "h264", 1280, 720, "50/1", 6, 1,
     h264("High", 32, 24, 2)},
    {"h264_high_23976", VIDEO("1920x1080", "24000/1001") STEREO,
     X264 "-profile:v high -x264-params 8x8dct=1 -bf 2 -g 12 -c:a aac -b:a 128k ", "h264", 1920, 1080,
     "24000/1001", 1, 1, h264("High", 40, 12, 2), "aac/2"},
    {"h264_fields", VIDEO("720x576", "25") STEREO,
     X264 "-profile:v main -flags +ildct+ilme -x264-params tff=1 -bf 0 -g 12 " AC3, "h264", 720, 576, "25/1",
     3, 1, h264("Main", 30, 12, 0, true)},
};

constexpr StreamFixture UNTIMED[] = {
    {"h264_untimed_25", VIDEO("720x576", "25") STEREO, X264 "-profile:v main -bf 2 -g 12 " AC3, "h264", 720,
     576, "25/1", 3, 1, h264("Main", 30, 12, 2)},
    {"h264_untimed_2997", VIDEO("720x480", "30000/1001") STEREO,
     X264 "-profile:v high -x264-params 8x8dct=1 -bf 2 -g 15 " AC3, "h264", 720, 480, "30000/1001", 4, 1,
     h264("High", 30, 15, 2)},
};

// Alone until it goes out of scope, among all processes and threads.
class FileLock {
public:
    explicit FileLock(const std::string& path)
        : m_fd(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)) {
        int result = -1;
        do
            result = flock(m_fd.get(), LOCK_EX);
        while (result != 0 && errno == EINTR);
        if (result != 0)
            throw std::runtime_error("cannot lock " + path);
    }

private:
    UniqueFd m_fd;
};

// Calls make(path of a new file) once for a name and a recipe; another recipe is another file. What make
// leaves unfinished never bears the final name.
template <typename Make>
std::string keep(const std::string& name, const std::string& recipe, Make&& make) {
    std::filesystem::create_directories(KESTREL_STREAM_DIRECTORY);
    const std::string path = std::string(KESTREL_STREAM_DIRECTORY "/") + name + "-" +
                             std::to_string(std::hash<std::string>{}(recipe)) + ".ts";
    const FileLock lock(path + ".lock");
    if (std::filesystem::exists(path))
        return path;
    const std::string part = path + ".part";
    make(part);
    std::filesystem::rename(part, path);
    return path;
}

const StreamFixture* find(std::span<const StreamFixture> table, std::string_view name) {
    for (const StreamFixture& fixture : table)
        if (name == fixture.name)
            return &fixture;
    return nullptr;
}

std::string optionsOf(const StreamFixture& fixture) {
    return std::string(fixture.source) + "-t 3 -threads 1 " + fixture.options;
}

} // namespace

void PrintTo(const StreamFixture& fixture, std::ostream* out) {
    *out << fixture.name;
}

std::span<const StreamFixture> streamFixtures() {
    return FIXTURES;
}

std::span<const StreamFixture> untimedStreamFixtures() {
    return UNTIMED;
}

std::string makeStream(const std::string& name, const std::string& options) {
    return keep(name, options, [&options](const std::string& part) {
        const std::string command = "ffmpeg -v error -nostdin -y " + options + " -f mpegts " + part;
        if (std::system(command.c_str()) != 0)
            throw std::runtime_error("ffmpeg failed: " + command);
    });
}

std::string streamFile(std::string_view name) {
    if (const StreamFixture* const fixture = find(FIXTURES, name))
        return makeStream(fixture->name, optionsOf(*fixture));
    const StreamFixture* const untimed = find(UNTIMED, name);
    if (untimed == nullptr)
        throw std::runtime_error("no stream fixture " + std::string(name));
    const std::string timed = makeStream(std::string(name) + "_timed", optionsOf(*untimed));
    return keep(untimed->name, optionsOf(*untimed),
                [&](const std::string& part) { dropH264Timing(timed, part, untimed->videoPid); });
}

} // namespace kestrel::test
