#include "system/isolation.h"

#include <gtest/gtest.h>

#include <cstring>

int main(int argc, char** argv) {
    // Listing the tests needs no isolation, and the build lists them on every link.
    bool listing = false;
    for (int i = 1; i < argc; ++i)
        listing = listing || std::strcmp(argv[i], "--gtest_list_tests") == 0;
    if (!listing)
        kestrel::test::isolateHostNames();
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
