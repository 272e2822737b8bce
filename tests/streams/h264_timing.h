// Takes the frame rate out of H.264 streams. No encoder at hand leaves it out, but others do.
#pragma once

#include <string>

namespace kestrel::test {

// Copies a transport-stream file, with timing_info_present_flag 0 and without what it announces (ITU-T H.264,
// E.1.1) in every sequence parameter set of the PID. The parameter sets keep their room: zero bytes follow
// them (B.1). They must have VUI parameters with timing, and lie within one packet each. Throws
// std::runtime_error when there is none, or one that is different.
void dropH264Timing(const std::string& in, const std::string& out, int pid);

} // namespace kestrel::test
