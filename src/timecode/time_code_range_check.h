// The check of mpeg_timecode::testEntireTimeCodeRange, apart from the stepping that it checks, so that its
// failure can be shown with steps that are wrong on purpose.
#pragma once

#include "timecode/mpeg_timecode.h"

#include <functional>

namespace kestrel {

// Steps from 00:00:00:00 through one day at that frame_rate_code and compares each label with its frame
// number, in both directions; step moves a label one frame on. 1 after more than nine mismatches, else 0.
// Each mismatch is logged at Info under "mpegParseLib". An unsupported code has no frames: logged, 0.
int check_time_code_range(int code, bool dropFrame, const std::function<void(mpeg_timecode&)>& step);

} // namespace kestrel
