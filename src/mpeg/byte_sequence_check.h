// The checks of byte_sequence::testHarness, apart from the views that it makes, so that their failures can be
// shown with views that are broken on purpose.
#pragma once

#include "mpeg/mpeg.h"

#include <span>

namespace kestrel {

// first and second are views of the arrays, which hold 0, 1, 2, ... one behind the other; composite joins the
// two. Returns 0 or the number of the first failed check, which is logged under "CaptureTests". Raises every
// byte by 1 through the composite on the way.
int check_byte_sequences(byte_sequence& first, std::span<const unsigned char> first_array,
                         byte_sequence& second, std::span<const unsigned char> second_array,
                         byte_sequence& composite);

} // namespace kestrel
