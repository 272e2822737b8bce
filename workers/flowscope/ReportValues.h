// The texts of a report: one place for how a value is spelt, whatever the report's form.
#pragma once

#include "Analysis.h"

#include <string>

namespace kestrel::flowscope {

// "29.97", "25", "23.976"; empty for no rate.
std::string rateText(double framesPerSecond);
// Whole bits per second; empty for none.
std::string bitRateText(double bitsPerSecond);
// hh:mm:ss:ff, ";" before the frames for drop-frame; empty where there is no frame rate.
std::string durationText(const Analysis& analysis);
// The first time code, likewise; empty when there is none.
std::string timecodeText(const Analysis& analysis);
// "1920x1080"; empty where the stream does not tell it.
std::string sizeText(const Analysis& analysis);
// "MPEG2" or "H.264".
std::string encodingText(const Analysis& analysis);
// What the map says of the audio, "AC3 Audio (ATSC A/52)".
std::string audioTypeText(const Analysis& analysis, const Analysis::Audio& audio);

// Whether everything that was looked at was as the standards want it.
bool clean(const Analysis& analysis);
// "no findings", or how many there were, with those whose texts are not kept.
std::string findingsText(const Analysis& analysis);
// "1 jump", "2 jumps".
std::string counted(unsigned long long number, const char* thing);
// "75 frames", those in the stream; "223 frames that last as long as 225" where the duration is not theirs:
// some are missing, or shown for longer.
std::string framesText(const Analysis& analysis);
// One line: "75 frames, 00:00:03:00, 720x576 at 25, 2 findings".
std::string summary(const Analysis& analysis);

} // namespace kestrel::flowscope
