// The variadic calls of the logging object: each collects its arguments and hands them on.
#include "foundation/Logger.h"

// One level: the member call and the static call, each in its narrow and its wide form.
#define DEFINE_LEVEL_CALLS(member, Name)                                                                     \
    bool LogUtil::member(const char* module, const char* format, ...) {                                      \
        va_list args;                                                                                        \
        va_start(args, format);                                                                              \
        const bool written = logList(module, BaseLogger::Name, format, args);                                \
        va_end(args);                                                                                        \
        return written;                                                                                      \
    }                                                                                                        \
    bool LogUtil::member(const char* module, const wchar_t* format, ...) {                                   \
        va_list args;                                                                                        \
        va_start(args, format);                                                                              \
        const bool written = logList(module, BaseLogger::Name, format, args);                                \
        va_end(args);                                                                                        \
        return written;                                                                                      \
    }                                                                                                        \
    bool LogUtil::Name(const char* module, const char* format, ...) {                                        \
        va_list args;                                                                                        \
        va_start(args, format);                                                                              \
        const bool written = LogList(module, BaseLogger::Name, format, args);                                \
        va_end(args);                                                                                        \
        return written;                                                                                      \
    }                                                                                                        \
    bool LogUtil::Name(const char* module, const wchar_t* format, ...) {                                     \
        va_list args;                                                                                        \
        va_start(args, format);                                                                              \
        const bool written = LogList(module, BaseLogger::Name, format, args);                                \
        va_end(args);                                                                                        \
        return written;                                                                                      \
    }

DEFINE_LEVEL_CALLS(debug, Debug)
DEFINE_LEVEL_CALLS(info, Info)
DEFINE_LEVEL_CALLS(warning, Warning)
DEFINE_LEVEL_CALLS(error, Error)
DEFINE_LEVEL_CALLS(fatal, Fatal)

#undef DEFINE_LEVEL_CALLS

bool LogUtil::log(const char* module, _LogLevel level, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const bool written = logList(module, level, format, args);
    va_end(args);
    return written;
}

bool LogUtil::log(const char* module, _LogLevel level, const wchar_t* format, ...) {
    va_list args;
    va_start(args, format);
    const bool written = logList(module, level, format, args);
    va_end(args);
    return written;
}

bool LogUtil::Log(const char* module, _LogLevel level, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const bool written = LogList(module, level, format, args);
    va_end(args);
    return written;
}

bool LogUtil::Log(const char* module, _LogLevel level, const wchar_t* format, ...) {
    va_list args;
    va_start(args, format);
    const bool written = LogList(module, level, format, args);
    va_end(args);
    return written;
}
