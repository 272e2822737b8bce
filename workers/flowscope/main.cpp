// flowScope: reads a finished transport stream and writes a report about it.
#include "Options.h"
#include "VerifierSession.h"
#include "foundation/Logger.h"

#include <csignal>
#include <cstdio>
#include <exception>
#include <iostream>
#include <sys/stat.h>

int main(int argc, char** argv) {
    umask(umask(0) | 022); // a detached service has none: what is written here is for others to read only
    constexpr int usageError = 2;
    constexpr int failure = 1;
    const kestrel::flowscope::Options options = kestrel::flowscope::parseOptions(argc, argv);
    if (options.help) {
        std::cout << kestrel::flowscope::usage(argv[0]);
        return 0;
    }
    if (!options.error.empty()) {
        std::cerr << "flowScope: " << options.error << '\n' << kestrel::flowscope::usage(argv[0]);
        if (!options.outQueue.empty())
            kestrel::flowscope::VerifierSession::refuse(options);
        return usageError;
    }
    std::signal(SIGPIPE, SIG_IGN);
    LogUtil::GetInstance()->addStreamLogger(&std::cerr);
    int result = failure;
    try {
        result = kestrel::flowscope::VerifierSession(options).run();
    } catch (const std::exception& problem) {
        std::cerr << "flowScope: " << problem.what() << '\n';
    }
    LogUtil::Cleanup();
    return result;
}
