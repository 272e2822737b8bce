#include "foundation/Logger.h"

#include "foundation/ErrnoKeeper.h"
#include "foundation/LogLevelTable.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <string_view>

using kestrel::ErrnoKeeper;
using kestrel::LogLevelTable;

Mutex* LogUtil::m_mutex = new Mutex;
LogUtil* LogUtil::m_instance = nullptr;

namespace {

// Longest text of one message, with its terminating zero.
constexpr std::size_t maxTextSize = 3000;

// What a line has besides the module name and the text: time, brackets, level name, line end.
constexpr std::size_t lineOverhead = 100;

// The levels of the current logging object, null when there is none. Together with the tables that it has
// pointed to it stays valid until the end of the process, so readers need no lock.
std::atomic<const LogLevelTable*> publishedLevels{nullptr};

// Wakes Cleanup when the last line on its way has been written. A condition variable without destructor, like
// the mutex it belongs to.
pthread_cond_t holdsReleased = PTHREAD_COND_INITIALIZER;

const char* nameOf(const char* module) {
    return module ? module : "";
}

const char* nameOf(BaseLogger::_LogLevel level) {
    const int last = static_cast<int>(PRINTABLE_LOGLEVEL.size()) - 1;
    return PRINTABLE_LOGLEVEL[static_cast<std::size_t>(std::clamp(static_cast<int>(level), 0, last))];
}

bool isFiltered(const LogLevelTable* levels, const char* module, BaseLogger::_LogLevel level) {
    return levels && levels->levelOf(nameOf(module)) > level;
}

// Keeps a table for the rest of the process. The caller holds LogUtil::m_mutex.
LogLevelTable* keep(std::unique_ptr<LogLevelTable> table) {
    static auto& kept = *new std::vector<std::unique_ptr<LogLevelTable>>;
    kept.push_back(std::move(table));
    return kept.back().get();
}

void formatInto(char (&text)[maxTextSize], const char* format, va_list args)
    __attribute__((format(printf, 2, 0)));
void formatInto(char (&text)[maxTextSize], const char* format, va_list args) {
    text[0] = '\0';
    if (format)
        std::vsnprintf(text, maxTextSize, format, args);
}

void formatInto(wchar_t (&text)[maxTextSize], const wchar_t* format, va_list args) {
    // vswprintf does not promise to terminate a text that it cuts or fails to convert.
    std::fill(std::begin(text), std::end(text), L'\0');
    if (format)
        std::vswprintf(text, maxTextSize, format, args);
    text[maxTextSize - 1] = L'\0';
}

// Appends texts to a buffer that is known to be large enough.
template <typename Char>
class LineWriter {
public:
    explicit LineWriter(Char* buffer) : m_end(buffer) { *m_end = Char{}; }

    LineWriter& operator<<(const char* text) {
        for (; *text; ++text)
            *m_end++ = static_cast<Char>(static_cast<unsigned char>(*text));
        *m_end = Char{};
        return *this;
    }
    LineWriter& operator<<(const wchar_t* text) requires std::same_as<Char, wchar_t> {
        for (; *text; ++text)
            *m_end++ = *text;
        *m_end = Char{};
        return *this;
    }

private:
    Char* m_end;
};

template <typename Char>
Char* newLine(const LogUtil& log, const char* module, BaseLogger::_LogLevel level, const Char* text) {
    const std::size_t capacity = std::strlen(module) + std::char_traits<Char>::length(text) + lineOverhead;
    auto* line = static_cast<Char*>(std::malloc(capacity * sizeof(Char)));
    if (!line)
        return nullptr;
    LineWriter<Char> out(line);
    if (log.m_showTimestamp) {
        const std::time_t now = std::time(nullptr);
        std::tm local{};
        localtime_r(&now, &local);
        char stamp[40] = "";
        std::strftime(stamp, sizeof stamp, "%Y%m%d.%H:%M:%S", &local);
        out << stamp << ": ";
    }
    const bool showModule = log.m_showModuleName;
    const bool showLevel = log.m_showLogLevel;
    if (showModule || showLevel) {
        out << "[";
        if (showModule)
            out << module;
        if (showModule && showLevel)
            out << ":";
        if (showLevel)
            out << nameOf(level);
        out << "] ";
    }
    out << text;
    if (log.m_endWithCrLf)
        out << "\r\n";
    return line;
}

} // namespace

bool LogUtil::mapCmp::operator()(const char* left, const char* right) const noexcept {
    return std::strcmp(left, right) < 0;
}

// Keeps the logging object from being destroyed while a line is on its way.
class LogUtil::Hold {
public:
    Hold() {
        if (!m_mutex)
            return;
        MutexLock lock(*m_mutex);
        m_log = instanceLocked();
        if (m_log)
            ++m_log->m_holds;
    }
    ~Hold() {
        if (!m_log)
            return;
        MutexLock lock(*m_mutex);
        if (--m_log->m_holds == 0)
            pthread_cond_broadcast(&holdsReleased);
    }
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;

    [[nodiscard]] LogUtil* get() const { return m_log; }

private:
    LogUtil* m_log = nullptr;
};

LogUtil::LogUtil() : m_levels(keep(std::make_unique<LogLevelTable>(-1))) {}

LogUtil::~LogUtil() = default;

LogUtil* LogUtil::instanceLocked() {
    if (!m_instance) {
        try {
            m_instance = new LogUtil;
            m_instance->publishLevels();
        } catch (...) {
            return nullptr;
        }
    }
    return m_instance;
}

LogUtil* LogUtil::GetInstance() {
    if (!m_mutex)
        return nullptr;
    const ErrnoKeeper keeper;
    MutexLock lock(*m_mutex);
    return instanceLocked();
}

// To those who ask without a lock.
void LogUtil::publishLevels() {
    if (m_instance != this)
        return;
    publishedLevels = m_levels;
    m_lowest = m_levels.load()->lowestLevel();
}

void LogUtil::Cleanup() {
    if (!m_mutex)
        return;
    MutexLock lock(*m_mutex);
    LogUtil* log = m_instance;
    if (!log)
        return;
    m_instance = nullptr;
    publishedLevels = nullptr;
    m_lowest = std::numeric_limits<std::int32_t>::min();
    while (log->m_holds > 0)
        pthread_cond_wait(&holdsReleased, m_mutex->native());
    delete log;
}

bool LogUtil::addFileLogger(const char* path) {
    auto logger = std::make_unique<FileLogger>(path);
    const bool active = logger->isActive();
    addLogger(logger.release());
    return active;
}

bool LogUtil::addFileLogger(const wchar_t* path) {
    auto logger = std::make_unique<FileLogger>(path);
    const bool active = logger->isActive();
    addLogger(logger.release());
    return active;
}

bool LogUtil::addNetLogger(const char* ip, int port) {
    auto logger = std::make_unique<NetLogger>(ip, port);
    const bool active = logger->isActive();
    addLogger(logger.release());
    return active;
}

bool LogUtil::addStreamLogger(std::ostream* stream) {
    auto logger = std::make_unique<StreamLogger>(stream);
    const bool active = logger->isActive();
    addLogger(logger.release());
    return active;
}

void LogUtil::addLogger(BaseLogger* logger) {
    std::unique_ptr<BaseLogger> owned(logger);
    if (!owned)
        return;
    MutexLock lock(*m_mutex);
    m_loggers.push_back(std::move(owned));
}

LogUtil::_LogLevel LogUtil::getLogLevel(const char* module) const {
    return static_cast<_LogLevel>(m_levels.load()->levelOf(nameOf(module)));
}

void LogUtil::setLogLevel(const char* module, _LogLevel level) {
    module = nameOf(module);
    MutexLock lock(*m_mutex);
    m_moduleLevels[module] = level;
    LogLevelTable* const levels = m_levels;
    if (!levels->setLevel(module, level))
        m_levels = keep(levels->with(module, level));
    publishLevels();
}

std::int32_t LogUtil::getDefaultLogLevel() const noexcept {
    return m_levels.load()->defaultLevel();
}

void LogUtil::setDefaultLogLevel(std::int32_t level) {
    MutexLock lock(*m_mutex);
    m_levels.load()->setDefaultLevel(level);
    publishLevels();
}

char* LogUtil::newFormatLogMsg(const char* module, _LogLevel level, const char* text) {
    return newLine(*this, nameOf(module), level, text ? text : "");
}

wchar_t* LogUtil::newFormatLogMsg(const char* module, _LogLevel level, const wchar_t* text) {
    return newLine(*this, nameOf(module), level, text ? text : L"");
}

template <typename Char>
bool LogUtil::writeLine(const Char* line) {
    if (!line)
        return false;
    bool written = true;
    MutexLock lock(*m_mutex);
    for (const auto& logger : m_loggers) {
        try {
            if (!logger->log(line))
                written = false;
        } catch (...) {
            written = false;
        }
    }
    return written;
}

bool LogUtil::write(const char* module, _LogLevel level, const char* format, va_list args) {
    char text[maxTextSize];
    formatInto(text, format, args);
    const std::unique_ptr<char, decltype(&std::free)> line(newFormatLogMsg(module, level, text), &std::free);
    return writeLine(line.get());
}

bool LogUtil::write(const char* module, _LogLevel level, const wchar_t* format, va_list args) {
    wchar_t text[maxTextSize];
    formatInto(text, format, args);
    const std::unique_ptr<wchar_t, decltype(&std::free)> line(newFormatLogMsg(module, level, text),
                                                              &std::free);
    return writeLine(line.get());
}

bool LogUtil::logList(const char* module, _LogLevel level, const char* format, va_list args) {
    if (isFiltered(m_levels, module, level))
        return true;
    const ErrnoKeeper keeper;
    return write(module, level, format, args);
}

bool LogUtil::logList(const char* module, _LogLevel level, const wchar_t* format, va_list args) {
    if (isFiltered(m_levels, module, level))
        return true;
    const ErrnoKeeper keeper;
    return write(module, level, format, args);
}

bool LogUtil::isFilteredByModule(const char* module, _LogLevel level) noexcept {
    return isFiltered(publishedLevels.load(std::memory_order_acquire), module, level);
}

bool LogUtil::LogList(const char* module, _LogLevel level, const char* format, va_list args) {
    if (IsFiltered(module, level))
        return true;
    const ErrnoKeeper keeper;
    const Hold hold;
    keeper.restore();
    return hold.get() && hold.get()->write(module, level, format, args);
}

bool LogUtil::LogList(const char* module, _LogLevel level, const wchar_t* format, va_list args) {
    if (IsFiltered(module, level))
        return true;
    const ErrnoKeeper keeper;
    const Hold hold;
    keeper.restore();
    return hold.get() && hold.get()->write(module, level, format, args);
}
