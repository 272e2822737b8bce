// The two directory globals of the service under test: taken from the test's environment, so that many
// instances run side by side. The shipped program reads no environment.
#include <cstdio>
#include <cstdlib>

extern char KESTREL_CONFIG_PARENT_DIR[260];
extern char KESTREL_LOG_PARENT_DIR[260];
char KESTREL_CONFIG_PARENT_DIR[260] = "";
char KESTREL_LOG_PARENT_DIR[260] = "";

namespace {

const bool directoriesSet = [] {
    const char* root = std::getenv("KESTREL_TEST_ROOT");
    if (root == nullptr) {
        std::fputs("KESTREL_TEST_ROOT is not set\n", stderr);
        std::_Exit(99);
    }
    std::snprintf(KESTREL_CONFIG_PARENT_DIR, sizeof KESTREL_CONFIG_PARENT_DIR, "%s/conf/", root);
    std::snprintf(KESTREL_LOG_PARENT_DIR, sizeof KESTREL_LOG_PARENT_DIR, "%s/logs/", root);
    return true;
}();

} // namespace
