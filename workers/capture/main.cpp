// kestrelCapture: records MPEG transport streams from network encoders, as the service's capture jobs ask.

#include "Failure.h"
#include "SessionControl.h"
#include "foundation/FileUtil.h"
#include "foundation/Logger.h"

#include <cerrno>
#include <csignal>
#include <fstream>
#include <iostream>
#include <sys/stat.h>

using namespace kestrel::capture;

namespace {

// Every line goes to exactly the file named, at once.
void openLog(const std::string& path, std::ofstream& file) {
    if (!path.empty()) {
        cFileUtil::CreateDir(path.c_str());
        file.open(path, std::ios::app);
        if (file) {
            file << std::unitbuf;
            LogUtil::GetInstance()->addStreamLogger(&file);
            return;
        }
        std::cerr << "kestrelCapture: cannot open log " << path << ": " << kestrel::errnoText(errno) << '\n';
    }
    LogUtil::GetInstance()->addStreamLogger(&std::cerr);
}

} // namespace

int main(int argc, char** argv) {
    umask(umask(0) | 022); // a detached service has none: what is written here is for others to read only
    const Options options = parseOptions(argc, argv);
    if (options.help) {
        std::cout << usage(argv[0]);
        return exitSuccess;
    }
    if (!options.error.empty())
        std::cerr << "kestrelCapture: " << options.error << '\n' << usage(argv[0]);
    std::signal(SIGPIPE, SIG_IGN);
    std::ofstream log;
    if (options.error.empty() || !options.logFile.empty()) // else standard error has it
        openLog(options.logFile, log);
    const int result = SessionControl(options).run();
    LogUtil::Cleanup();
    return result;
}
