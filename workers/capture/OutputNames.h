// The names of the files a recording makes.
#pragma once

#include <ctime>
#include <string>

namespace kestrel::capture {

// The output file: an absolute name as it is, a relative one in the directory (as it is when that is empty).
[[nodiscard]] std::string outputPath(const std::string& outputFile, const std::string& directory);

// The same from the root on: a relative one lies in the directory that the process works in. As it is when
// that is gone.
[[nodiscard]] std::string absolutePath(const std::string& path);

// The file of an encoder, by its number from 0: the output itself for the first, NAME_2.ts and so on beside
// it for the others.
[[nodiscard]] std::string encoderPath(const std::string& output, int encoder);

// A segment that begins at a time: NAME_YYYYMMDD_HHMMSS.ts by the local clock. That clock repeats an hour
// once a year, so further attempts at one name end in -2, -3 ...
[[nodiscard]] std::string segmentPath(const std::string& output, std::time_t begin, int attempt);

} // namespace kestrel::capture
