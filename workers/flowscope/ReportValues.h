// The texts of a report: one place for how a value is spelt, whatever the report's form.
#pragma once

#include "Analysis.h"

#include <string>
#include <utility>
#include <vector>

namespace kestrel::flowscope {

std::string rateText(double framesPerSecond);       // "29.97", "25", "23.976"
std::string bitRateText(double bitsPerSecond);      // whole bits per second
std::string durationText(const Analysis& analysis); // hh:mm:ss:ff, ";" before the frames for drop-frame
std::string timecodeText(const Analysis& analysis); // of the first GOP; empty when there is none

// Whether everything that was looked at was as the standards want it.
bool clean(const Analysis& analysis);
// One line: "75 frames, 00:00:03:00, 720x576 at 25, 2 findings".
std::string summary(const Analysis& analysis);

} // namespace kestrel::flowscope
