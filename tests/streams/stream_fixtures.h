// Transport streams that tests are run on: made with ffmpeg when first asked for, and kept in the build
// folder.
#pragma once

#include <ostream>
#include <span>
#include <string>
#include <string_view>

namespace kestrel::test {

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
};

// Shown in the names of tests.
void PrintTo(const StreamFixture& fixture, std::ostream* out);

std::span<const StreamFixture> streamFixtures();

// The path of the fixture's file, made if need be. Several processes may ask at once. Throws
// std::runtime_error when there is no such fixture or ffmpeg fails.
std::string streamFile(std::string_view name);

// The same for a stream of a test's own: made once with these ffmpeg options and kept under that name.
std::string makeStream(const std::string& name, const std::string& options);

} // namespace kestrel::test
