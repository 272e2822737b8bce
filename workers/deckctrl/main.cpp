// kestrelDeckCtrl: drives tape decks over serial ports for the service.

#include "DeckSession.h"
#include "Failure.h"
#include "foundation/Logger.h"

#include <csignal>
#include <exception>
#include <iostream>
#include <sys/stat.h>

using namespace kestrel::deck;

namespace {

void openLog(const Options& options) {
    LogUtil* const log = LogUtil::GetInstance();
    log->setDefaultLogLevel(options.logLevel);
    if (!options.logFile.empty() && log->addFileLogger(options.logFile.c_str()))
        return;
    if (!options.logFile.empty())
        std::cerr << "kestrelDeckCtrl: cannot open log " << options.logFile << '\n';
    log->addStreamLogger(&std::cerr);
}

} // namespace

int main(int argc, char** argv) {
    umask(umask(0) | 022); // a detached service has none: what is written here is for others to read only
    const Options options = parseOptions(argc, argv);
    if (options.help) {
        std::cout << usage(argv[0]);
        return exitSuccess;
    }
    if (!options.error.empty()) {
        std::cerr << "kestrelDeckCtrl: " << options.error << '\n' << usage(argv[0]);
        return exitUsage;
    }
    std::signal(SIGPIPE, SIG_IGN);
    openLog(options);
    int result = exitFailure;
    try {
        result = DeckSession(options).run();
    } catch (const std::exception& problem) {
        LogUtil::Fatal("Deck", "Ends: %s", problem.what());
    }
    LogUtil::Cleanup();
    return result;
}
