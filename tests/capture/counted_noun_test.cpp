#include "capture/CountedNoun.h"

#include <gtest/gtest.h>

using kestrel::capture::counted;

namespace {

TEST(CountedNoun, OneIsSingularAndAllOthersPlural) {
    EXPECT_EQ(counted(0, "continuity error"), "0 continuity errors");
    EXPECT_EQ(counted(1, "continuity error"), "1 continuity error");
    EXPECT_EQ(counted(2, "continuity error"), "2 continuity errors");
    EXPECT_EQ(counted(18446744073709551615U, "byte"), "18446744073709551615 bytes");
}

} // namespace
