// Bytes to look at through the library's views.
#pragma once

#include "foundation/Bytes.h"
#include "mpeg/mpeg.h"

#include <numeric>

namespace mpeg_test {

// first, first + 1, ...
inline Bytes counting(int count, int first = 0) {
    Bytes bytes(static_cast<std::size_t>(count));
    std::iota(bytes.begin(), bytes.end(), static_cast<unsigned char>(first));
    return bytes;
}

inline array_byte_sequence view(Bytes& bytes) {
    return {bytes.data(), static_cast<int>(bytes.size())};
}

inline Bytes contents(const byte_sequence& sequence) {
    Bytes bytes;
    for (int i = 0; i < sequence.get_length(); ++i)
        bytes.push_back(sequence[i]);
    return bytes;
}

} // namespace mpeg_test
