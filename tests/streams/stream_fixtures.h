// Transport streams that tests are run on: made with ffmpeg when first asked for, and kept in the build
// folder.
#pragma once

#include <ostream>
#include <span>
#include <string>
#include <string_view>

namespace kestrel::test {

// How the pictures of a stream are coded.
struct Coding {
    const char* profile; // in ffprobe's words
    int level;           // as it is coded
    int gop;             // pictures from one I picture to the next
    int bPictures;       // between two others, 0 or 2
    bool fields = false; // interlaced, top field first
    // MPEG-2 only.
    const char* timecode = ""; // of the first GOP: "10:00:00:00", "10:00:00;02" when drop-frame
    bool closed = false;       // all GOPs; the first one always is
};

// One stream, and what it shows.
struct StreamFixture {
    const char* name;
    const char* source;  // ffmpeg's options of the inputs: one video, then the audios
    const char* options; // and of the encoders and the multiplexer
    // What ffprobe must say of it.
    const char* codec; // "mpeg2video" or "h264"
    int width, height;
    const char* frameRate; // "30000/1001"
    int rateCode;          // MPEG-2 frame_rate_code
    int audios;
    // And what it, or a reading of the headers, must show.
    Coding coding;
    const char* sound = "ac3/2"; // codec and channels of each audio, a blank between two
    int pmtPid = 0x1000;
    int videoPid = 0x100; // the audios follow, one PID each
};

// Shown in the names of tests.
void PrintTo(const StreamFixture& fixture, std::ostream* out);

std::span<const StreamFixture> streamFixtures();

// H.264 whose sequence parameter sets say nothing of the frame rate: their timing_info_present_flag is 0. A
// table of their own, since what is asked of a frame rate has another answer on them.
std::span<const StreamFixture> untimedStreamFixtures();

// The path of the fixture's file, of either table, made if need be. Several processes may ask at once. Throws
// std::runtime_error when there is no such fixture or ffmpeg fails.
std::string streamFile(std::string_view name);

// The same for a stream of a test's own: made once with these ffmpeg options and kept under that name.
std::string makeStream(const std::string& name, const std::string& options);

} // namespace kestrel::test
