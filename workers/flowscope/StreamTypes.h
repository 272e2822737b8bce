// What an entry of a program map table says of its stream.
#pragma once

#include "ProgramTables.h"

#include <span>

namespace kestrel::flowscope {

// The entry from its stream_type to the end of its descriptors (ISO/IEC 13818-1, 2.4.4.8 and 2.6).
StreamEntry describeStream(std::span<const unsigned char> entry);

} // namespace kestrel::flowscope
