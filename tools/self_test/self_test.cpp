// kestrelSelfTest: runs the self-tests that the library's classes bring along, on this machine and on the
// operator's own files.
#include "foundation/Logger.h"
#include "foundation/UniqueFd.h"
#include "mpeg/GetDTSBounds.h"
#include "mpeg/MpegWrapper.h"
#include "mpeg/gop_rebase.h"
#include "mpeg/mpeg.h"
#include "timecode/mpeg_timecode.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <iostream>
#include <string_view>

namespace {

struct SelfTest {
    std::string_view name;
    const char* arguments;
    const char* what;
    bool needsFile;
    int (*run)(int argc, char** argv); // argv[0] is the name; the result is the exit status
};

constexpr SelfTest SELF_TESTS[] = {
    {"byte_sequence", "", "views of bytes: indexing, joining, unescaping", false,
     [](int, char**) { return byte_sequence::testHarness(); }},
    {"mpeg_timecode", "", "timecode arithmetic over whole days, drop-frame rules", false,
     [](int, char**) { return mpeg_timecode::testHarness(); }},
    {"gop_rebase", "in.mpeg out.mpeg [mode] [timecode]",
     "rewrites the GOP timecodes of PID 481: mode 0 to zero, 1 adds, 2 subtracts hh:mm:ss:ff; the tail\n"
     "      of the file that fills no block of 65,536 bytes is left out, so that a short one comes out empty",
     true, gop_rebase::testHarness},
    {"GetDTSBounds", "in.mpeg firstDTS lastDTS",
     "whether these are the first and the last decoding time, in 90 kHz ticks", true,
     GetDTSBounds::testHarness},
    {"MpegWrapper", "filename.mpg", "MPEG-2 profile and level, SD or HD", true, MpegWrapper::testHarness},
};

constexpr int WRONG_NAME = 2;

void list(std::FILE* to) {
    std::fputs("usage: kestrelSelfTest [-quiet] NAME [ARGS]\n\n", to);
    for (const SelfTest& test : SELF_TESTS)
        std::fprintf(to, "  %s%s%s\n      %s\n", test.name.data(), *test.arguments == '\0' ? "" : " ",
                     test.arguments, test.what);
    std::fputs(
        "  all\n      those that need no file\n\n"
        "  -quiet\n      leaves out the log's Debug lines, of which there is one for every GOP and more\n\n"
        "The exit status is the self-test's result, a negative one 256 higher; 0 is success.\n",
        to);
}

// Some self-tests take a file that is not there for one without packets, and say nothing.
void warnUnlessReadable(const char* path) {
    if (!kestrel::UniqueFd(open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK)).valid())
        std::fprintf(stderr, "%s cannot be read: %s\n", path, std::strerror(errno));
}

// The first failure's result.
int runAllWithoutFile(int argc, char** argv) {
    int result = 0;
    for (const SelfTest& test : SELF_TESTS) {
        if (test.needsFile)
            continue;
        const int one = test.run(argc, argv);
        std::printf("%s: %s\n", test.name.data(), one == 0 ? "passed" : "FAILED");
        if (result == 0)
            result = one;
    }
    return result;
}

int run(std::string_view name, int argc, char** argv) {
    if (name == "--help") {
        list(stdout);
        return 0;
    }
    if (name == "all")
        return runAllWithoutFile(argc, argv);
    for (const SelfTest& test : SELF_TESTS) {
        if (name != test.name)
            continue;
        if (test.needsFile && argc > 1)
            warnUnlessReadable(argv[1]);
        return test.run(argc, argv);
    }
    std::fprintf(stderr, "There is no self-test \"%.*s\".\n", static_cast<int>(name.size()), name.data());
    list(stderr);
    return WRONG_NAME;
}

} // namespace

int main(int argc, char** argv) {
    const bool quiet = argc > 1 && std::string_view(argv[1]) == "-quiet";
    const int first = quiet ? 2 : 1;
    if (argc <= first) {
        list(stdout);
        return 0;
    }
    LogUtil* const log = LogUtil::GetInstance();
    log->setDefaultLogLevel(quiet ? BaseLogger::Info : BaseLogger::Debug);
    log->addStreamLogger(&std::cout);
    const int result = run(argv[first], argc - first, argv + first);
    LogUtil::Cleanup();
    return result;
}
