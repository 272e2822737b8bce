// What the fixed texts of a capture worker's refusals leave open, in an operator's words.
#pragma once

#include <string>
#include <string_view>

namespace kestrel {

// The reason behind a job's results where they name an invalid duration or an invalid file name; an empty
// text for any other. outputFile is the job's, or null; it is looked at, or the file that the results name.
std::string refusalDetail(std::string_view results, const char* outputFile);

} // namespace kestrel
