// The limit programs of the bounded queries: the reads they cannot do without, and as little else as answers
// the question on a well-formed file.
#pragma once

namespace kestrel::bench {

// Reads that many packets of 188 bytes from the beginning and looks at each one's PID; returns how many
// carry the PID.
long minimalScan(const char* path, long packets, int pid);

// First and last decoding time of the PID, from both ends; returns their difference in 90 kHz ticks.
long long minimalBounds(const char* path, int pid);

} // namespace kestrel::bench
