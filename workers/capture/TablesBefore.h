// The program tables that hold at a place in a transport stream file.
#pragma once

#include "Failure.h"
#include "PacketRing.h"
#include "SourceFile.h"

#include <atomic>
#include <cstdint>
#include <vector>

namespace kestrel::capture {

// Finds the latest PAT and PMTs before that byte, at most 64 MB before it, as whole packets (ISO/IEC 13818-1,
// 2.4.4) whose continuity counters lead up to those of the next ones of their PIDs. No packets where no PMT
// is known there. Ends early when stopped is set. Where the file is read next has to be set anew.
[[nodiscard]] MaybeFailure tablesBefore(SourceFile& file, std::uint64_t place,
                                        const std::atomic<bool>& stopped, std::vector<Packet>& packets);

} // namespace kestrel::capture
