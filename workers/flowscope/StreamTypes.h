// What an entry of a program map table says of its stream.
#pragma once

#include "ProgramTables.h"

#include <span>

namespace kestrel::flowscope {

// The entry from its stream_type to the end of its descriptors (ISO/IEC 13818-1, 2.4.4.8 and 2.6).
StreamEntry describeStream(std::span<const unsigned char> entry);

// Whether only its payload tells what it is: stream_type 0x82 is given to subtitles, which come in sections
// (SCTE 27, 5), and to sound, which comes in PES packets (2.4.3.6).
bool undecided(const StreamEntry& stream);
// Makes an undecided one sound where a unit of its payload begins so.
void decideByPayload(std::span<const unsigned char> payload, StreamEntry& stream);

} // namespace kestrel::flowscope
