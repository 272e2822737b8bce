// What the fixed texts of a capture worker's refusals leave open, in an operator's words.
#pragma once

#include <string>
#include <string_view>

class CaptureJob;

namespace kestrel {

// The reason behind a job's results where they name an invalid duration or an invalid file name; an empty
// text for any other. The job's output file is looked at, or the one that the results name.
std::string refusalDetail(std::string_view results, const CaptureJob& job);

} // namespace kestrel
