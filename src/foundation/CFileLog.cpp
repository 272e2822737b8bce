#include "foundation/ErrnoKeeper.h"
#include "foundation/FixedText.h"
#include "foundation/Logger.h"
#include "foundation/PosixWrappers.h"

std::atomic<std::FILE*> m_pLogFile{nullptr};
pthread_mutex_t m_LogMutex = PTHREAD_MUTEX_INITIALIZER;

namespace {

// Longest text of one call, with its terminating zero.
constexpr std::size_t maxTextSize = 1024;

// Keeps the log from being opened or closed while it is written: m_LogMutex lives only as long as the file is
// open. Usable before static initialisers and never destroyed.
pthread_mutex_t logLifetime = PTHREAD_MUTEX_INITIALIZER;

class LifetimeLock {
public:
    LifetimeLock() { pthread_mutex_lock(&logLifetime); }
    ~LifetimeLock() { pthread_mutex_unlock(&logLifetime); }
    LifetimeLock(const LifetimeLock&) = delete;
    LifetimeLock& operator=(const LifetimeLock&) = delete;
};

// Takes the file out of use first: a failure line of destroyPosixMutex must not find the log open.
void closeLocked() {
    std::FILE* file = m_pLogFile.exchange(nullptr);
    if (!file)
        return;
    destroyPosixMutex(&m_LogMutex);
    std::fflush(file);
    std::fclose(file);
}

} // namespace

int initFileLogger(const char* path) {
    const kestrel::ErrnoKeeper keeper;
    if (!path)
        return 0;
    const LifetimeLock lock;
    closeLocked();
    std::FILE* file = fopen64(path, "ae");
    if (!file)
        return 0;
    if (initPosixMutex(&m_LogMutex) != 0) {
        std::fclose(file);
        return 0;
    }
    m_pLogFile = file;
    return 1;
}

bool logMsg(const char* text) {
    // First without the lock: the service never opens this log.
    if (!text || !m_pLogFile)
        return false;
    const kestrel::ErrnoKeeper keeper;
    const LifetimeLock lock;
    std::FILE* file = m_pLogFile;
    if (!file || lockPosixMutex(&m_LogMutex) != 0)
        return false;
    std::fputs(text, file);
    std::fflush(file);
    return unlockPosixMutex(&m_LogMutex) == 0;
}

void fileLog(const char* format, ...) {
    if (!format || !m_pLogFile)
        return;
    char text[maxTextSize] = {};
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    logMsg(text);
}

int shutdownFileLogger() {
    const LifetimeLock lock;
    closeLocked();
    return 0;
}

int debugPrint(int kind, const char* function, const char* file, int line, const char* format, ...) {
    const kestrel::ErrnoKeeper keeper;
    char text[maxTextSize] = {};
    if (kind == 1)
        kestrel::copyText(text, "INFO: ");
    else if (kind == 2)
        kestrel::formatText(text, "File: %s; Function: %s; Line: %d; ", file ? file : "",
                            function ? function : "", line);
    else
        kestrel::copyText(text, "UNKNOWN LEVEL: ");

    const std::size_t prefix = kestrel::fieldText(text).size();
    if (format) {
        va_list args;
        va_start(args, format);
        keeper.restore();
        std::vsnprintf(text + prefix, sizeof text - prefix, format, args);
        va_end(args);
    }
    return std::printf("%s", text);
}
