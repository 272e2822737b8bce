// Diagnostic output: the process-wide logging object with its loggers (rolling files, UDP receiver, output
// streams), and a small C-level file log and console print beside it.
//
// Logging never throws, never changes errno, and may be done by any thread at any time: what is logged before
// this library's static initialisers have run is dropped, and the mutex below is never destroyed, so that a
// line written from an exit handler is safe too.
#pragma once

#include "foundation/Mutex.h"

#include <array>
#include <atomic>
#include <concepts>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <iosfwd>
#include <limits>
#include <map>
#include <memory>
#include <pthread.h>
#include <string>
#include <vector>

namespace kestrel {

// A va_list, and nothing that merely converts to one (a literal 0 becomes a null pointer).
template <typename T>
concept VaList =
    !std::integral<T> && !std::same_as<T, std::nullptr_t> && requires(void (*take)(va_list), T args) {
    take(args);
};

// Level filter that is read without a lock; private to the logging object.
class LogLevelTable;

} // namespace kestrel

// One destination of log lines. Not thread-safe by itself: LogUtil serialises the writes.
class BaseLogger {
public:
    enum _LogLevel : std::int32_t { Debug = 0, Info = 1, Warning = 2, Error = 3, Fatal = 4 };

    virtual ~BaseLogger() = default;
    // Writes one complete line. Returns true when it was written.
    virtual bool log(const wchar_t* line) = 0;
    virtual bool log(const char* line) = 0;

    // True while the target is open.
    [[nodiscard]] bool isActive() const noexcept { return m_active; }

    BaseLogger(const BaseLogger&) = delete;
    BaseLogger& operator=(const BaseLogger&) = delete;

protected:
    BaseLogger() = default;
    bool m_active = false;
};

// Printable names of the levels, indexed by level.
inline constexpr std::array<const char*, 5> PRINTABLE_LOGLEVEL{"Debug", "Info", "Warning", "Error", "Fatal"};
static_assert(PRINTABLE_LOGLEVEL.size() == BaseLogger::Fatal + 1);

// A log file for each local day: /var/log/x.log becomes /var/log/x-20261115.log, and so on.
class FileLogger : public BaseLogger {
public:
    using Clock = std::time_t (*)(std::time_t*);

    // Opens today's file. "-%d" (the day) goes before the first dot of the whole path, directories included,
    // or to the end of a path without a dot. The clock is replaced only by tests of the change of day.
    explicit FileLogger(const char* path, Clock clock = &std::time);
    explicit FileLogger(const wchar_t* path, Clock clock = &std::time);
    ~FileLogger() override;

    // Writes and flushes the line, into the file of the current day. A logger whose file could not be opened
    // returns false and tries again when the day changes.
    bool log(const wchar_t* line) override;
    bool log(const char* line) override;

    // Opens the file of the current local day unless it is the one last opened or tried.
    void rolloverIfNecessary();
    // Closes any open file, creates the directory of path and opens path for appending.
    void init(const char* path);
    // Closes the file if one is open.
    void close();
    // Has no effect: the name is fixed at construction.
    void setFilename(const char* path);

private:
    void setPath(const char* path);
    [[nodiscard]] std::int32_t currentDay() const;

    std::FILE* m_file = nullptr;
    // The path is kept as what precedes and what follows the day, so that a '%' in it stays a plain
    // character.
    std::string m_beforeDay;
    std::string m_afterDay;
    std::int32_t m_day = -1;
    Clock m_clock;
};

// Sends each line as one UDP datagram.
class NetLogger : public BaseLogger {
public:
    // ip: dotted IPv4 address, port: UDP port of the receiver.
    NetLogger(const char* ip, int port);

    // Returns false when no socket can be made or bound. A datagram that cannot be sent is tried three times
    // and then counts as written, and so does every line for an address or port that is not valid.
    bool log(const wchar_t* line) override;
    bool log(const char* line) override;

private:
    char m_ip[35] = {};
    std::int32_t m_port;
};

// Writes lines to a stream that the caller owns and keeps alive as long as the logger. A line that cannot be
// written is a failure of that line only: the next one is tried again.
class StreamLogger : public BaseLogger {
public:
    // Active at once, unless stream is null.
    explicit StreamLogger(std::ostream* stream);

    bool log(const wchar_t* line) override;
    bool log(const char* line) override;

private:
    std::ostream* m_stream;
};

// The process-wide logging object.
//
// A message below the level of its module is dropped before any formatting and without taking a lock: the
// levels are read from a table that is published through an atomic pointer and never freed. A message that
// is to be written holds the object in place, so Cleanup may be called while other threads log through the
// static calls: it waits for the lines on their way, and later calls find (or make) a fresh object without
// loggers. Member calls on a pointer from GetInstance must not run at the same time as Cleanup.
class LogUtil {
public:
    using _LogLevel = BaseLogger::_LogLevel;

    // Order of the module names in the level map: strcmp.
    struct mapCmp {
        bool operator()(const char* left, const char* right) const noexcept;
    };

    // The logging object, created on first call; null before static initialisation.
    static LogUtil* GetInstance();
    // Destroys the object and all its loggers.
    static void Cleanup();

    // Create a logger, append it and return whether its target is open. It is added in any case.
    bool addFileLogger(const char* path);
    bool addFileLogger(const wchar_t* path);
    bool addNetLogger(const char* ip, int port);
    bool addStreamLogger(std::ostream* stream);
    // Appends a logger and takes ownership of it; null is ignored.
    void addLogger(BaseLogger* logger);

    // Level from which messages of a module are written; the default level for a module without an entry.
    [[nodiscard]] _LogLevel getLogLevel(const char* module) const;
    // Sets the level of a module. The name is stored as the pointer given and must outlive this object.
    void setLogLevel(const char* module, _LogLevel level);
    // Level of the modules without an entry; -1 (everything is written) after construction.
    [[nodiscard]] std::int32_t getDefaultLogLevel() const noexcept;
    void setDefaultLogLevel(std::int32_t level);

    // Whether lines begin with the date and time.
    void setShowTimestamp(bool on) noexcept { m_showTimestamp = on; }
    // Whether lines show the name of the module, within the brackets.
    void setShowModuleName(bool on) noexcept { m_showModuleName = on; }
    // Whether lines show the name of the level, within the brackets.
    void setShowLogLevel(bool on) noexcept { m_showLogLevel = on; }
    // Whether lines end with CR LF; without, they end with their text.
    void setEndWithCrLf(bool on) noexcept { m_endWithCrLf = on; }

    // Write one message. True when every logger wrote it, or when its level is below that of the module.
    // Texts are cut at 2999 characters.
    bool debug(const char* module, const char* format, ...) __attribute__((format(printf, 3, 4)));
    bool info(const char* module, const char* format, ...) __attribute__((format(printf, 3, 4)));
    bool warning(const char* module, const char* format, ...) __attribute__((format(printf, 3, 4)));
    bool error(const char* module, const char* format, ...) __attribute__((format(printf, 3, 4)));
    bool fatal(const char* module, const char* format, ...) __attribute__((format(printf, 3, 4)));
    bool debug(const char* module, const wchar_t* format, ...);
    bool info(const char* module, const wchar_t* format, ...);
    bool warning(const char* module, const wchar_t* format, ...);
    bool error(const char* module, const wchar_t* format, ...);
    bool fatal(const char* module, const wchar_t* format, ...);
    bool log(const char* module, _LogLevel level, const char* format, ...)
        __attribute__((format(printf, 4, 5)));
    bool log(const char* module, _LogLevel level, const wchar_t* format, ...);
    // The va_list forms are templates so that a literal 0 as the only argument is not taken for a va_list.
    template <kestrel::VaList Args>
    bool log(const char* module, _LogLevel level, const char* format, Args args) {
        return logList(module, level, format, args);
    }
    template <kestrel::VaList Args>
    bool log(const char* module, _LogLevel level, const wchar_t* format, Args args) {
        return logList(module, level, format, args);
    }

    // The same through the logging object, which is created when there is none; false when there can be none.
    static bool Debug(const char* module, const char* format, ...) __attribute__((format(printf, 2, 3)));
    static bool Info(const char* module, const char* format, ...) __attribute__((format(printf, 2, 3)));
    static bool Warning(const char* module, const char* format, ...) __attribute__((format(printf, 2, 3)));
    static bool Error(const char* module, const char* format, ...) __attribute__((format(printf, 2, 3)));
    static bool Fatal(const char* module, const char* format, ...) __attribute__((format(printf, 2, 3)));
    static bool Debug(const char* module, const wchar_t* format, ...);
    static bool Info(const char* module, const wchar_t* format, ...);
    static bool Warning(const char* module, const wchar_t* format, ...);
    static bool Error(const char* module, const wchar_t* format, ...);
    static bool Fatal(const char* module, const wchar_t* format, ...);
    // Whether a message of that module and level would be dropped: for callers that have several to make,
    // very often. Takes no lock.
    static bool IsFiltered(const char* module, _LogLevel level) noexcept {
        return level < m_lowest.load(std::memory_order_relaxed) || isFilteredByModule(module, level);
    }
    static bool Log(const char* module, _LogLevel level, const char* format, ...)
        __attribute__((format(printf, 3, 4)));
    static bool Log(const char* module, _LogLevel level, const wchar_t* format, ...);
    template <kestrel::VaList Args>
    static bool Log(const char* module, _LogLevel level, const char* format, Args args) {
        return LogList(module, level, format, args);
    }
    template <kestrel::VaList Args>
    static bool Log(const char* module, _LogLevel level, const wchar_t* format, Args args) {
        return LogList(module, level, format, args);
    }

    // Builds one line: date and time, "[module:level] ", the text, CR LF, each as far as its flag is set.
    // The caller releases the line with free(). Null when there is no memory.
    char* newFormatLogMsg(const char* module, _LogLevel level, const char* text);
    wchar_t* newFormatLogMsg(const char* module, _LogLevel level, const wchar_t* text);

    // What a line shows; all true after construction.
    std::atomic<bool> m_showTimestamp{true};
    std::atomic<bool> m_showModuleName{true};
    std::atomic<bool> m_showLogLevel{true};
    std::atomic<bool> m_endWithCrLf{true};

    // Guards creation and destruction of the object, the level map and every write to the loggers. Created by
    // a static initialiser, never destroyed.
    static Mutex* m_mutex;
    static LogUtil* m_instance GUARDED_BY(*m_mutex);

    LogUtil(const LogUtil&) = delete;
    LogUtil& operator=(const LogUtil&) = delete;

private:
    class Hold;

    LogUtil();
    ~LogUtil();

    bool logList(const char* module, _LogLevel level, const char* format, va_list args)
        __attribute__((format(printf, 4, 0)));
    bool logList(const char* module, _LogLevel level, const wchar_t* format, va_list args);
    static bool LogList(const char* module, _LogLevel level, const char* format, va_list args)
        __attribute__((format(printf, 3, 0)));
    static bool LogList(const char* module, _LogLevel level, const wchar_t* format, va_list args);
    bool write(const char* module, _LogLevel level, const char* format, va_list args)
        __attribute__((format(printf, 4, 0)));
    bool write(const char* module, _LogLevel level, const wchar_t* format, va_list args);
    template <typename Char>
    bool writeLine(const Char* line);
    static LogUtil* instanceLocked() REQUIRES(*m_mutex);
    static bool isFilteredByModule(const char* module, _LogLevel level) noexcept;
    void publishLevels() REQUIRES(*m_mutex);

    // Of the one object: its lowest level, so that most of the filtered messages cost one look.
    static inline std::atomic<std::int32_t> m_lowest{std::numeric_limits<std::int32_t>::min()};

    std::vector<std::unique_ptr<BaseLogger>> m_loggers GUARDED_BY(*m_mutex);
    std::map<const char*, _LogLevel, mapCmp> m_moduleLevels GUARDED_BY(*m_mutex);
    std::atomic<kestrel::LogLevelTable*> m_levels;
    int m_holds GUARDED_BY(*m_mutex) = 0;
};

// The C-level file log: one global file for code that does not go through LogUtil.
extern std::atomic<std::FILE*> m_pLogFile;
extern pthread_mutex_t m_LogMutex;

// Opens path for appending as the log file. Returns 1 on success, 0 on failure.
int initFileLogger(const char* path);
// Writes and flushes text as it is. False when no log file is open or it cannot be written.
bool logMsg(const char* text);
// Formats (cut at 1023 bytes) and writes with logMsg.
void fileLog(const char* format, ...) __attribute__((format(printf, 1, 2)));
// Closes the log file. Returns 0.
int shutdownFileLogger();

// Prints to standard output: kind 1 after "INFO: ", kind 2 after file, function and line, any other kind
// after "UNKNOWN LEVEL: "; cut at 1023 bytes in all. Returns the result of printf.
int debugPrint(int kind, const char* function, const char* file, int line, const char* format, ...)
    __attribute__((format(printf, 5, 6)));
