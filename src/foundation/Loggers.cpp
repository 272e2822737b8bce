#include "foundation/FileUtil.h"
#include "foundation/FixedText.h"
#include "foundation/Logger.h"
#include "foundation/StringUtil.h"
#include "foundation/UniqueFd.h"

#include <arpa/inet.h>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <ostream>
#include <sys/socket.h>
#include <sys/stat.h>

namespace {

// Tries to send one datagram.
constexpr int maxSendTries = 3;

// The narrow form of a wide line, "" for null. The conversion ends at a character that the locale does not
// have; the line's end is kept all the same, so that the next line does not follow on it.
std::string narrow(const wchar_t* text) {
    const std::wstring_view line(text ? text : L"");
    const cStringUtil converted(text ? text : L"");
    std::string result = converted.cstr ? converted.cstr : "";
    if (line.ends_with(L"\r\n") && !result.ends_with("\r\n"))
        result += "\r\n";
    return result;
}

} // namespace

FileLogger::FileLogger(const char* path, Clock clock) : m_clock(clock) {
    setPath(path);
}

FileLogger::FileLogger(const wchar_t* path, Clock clock) : m_clock(clock) {
    setPath(narrow(path).c_str());
}

FileLogger::~FileLogger() {
    close();
}

void FileLogger::setPath(const char* path) {
    const std::string text = path ? path : "";
    // The first dot of the whole path, not of its last component: a directory such as x.y becomes a directory
    // for each day.
    const std::size_t dot = std::min(text.find('.'), text.size());
    m_beforeDay = text.substr(0, dot) + "-";
    m_afterDay = text.substr(dot);
    rolloverIfNecessary();
}

std::int32_t FileLogger::currentDay() const {
    const std::time_t now = m_clock(nullptr);
    std::tm local{};
    if (!localtime_r(&now, &local))
        return m_day;
    return (local.tm_year + 1900) * 10000 + (local.tm_mon + 1) * 100 + local.tm_mday;
}

void FileLogger::rolloverIfNecessary() {
    const std::int32_t day = currentDay();
    if (day == m_day)
        return;
    m_day = day;
    init((m_beforeDay + std::to_string(day) + m_afterDay).c_str());
}

void FileLogger::init(const char* path) {
    m_active = false;
    close();
    if (!path)
        return;
    cFileUtil::CreateDir(path);
    // Whatever the umask of a detached service: nobody else writes into its log. Workers must not inherit the
    // descriptor.
    constexpr mode_t readableByAll = 0644;
    kestrel::UniqueFd file(::open64(path, O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, readableByAll));
    m_file = file.valid() ? fdopen(file.get(), "a+") : nullptr;
    m_active = m_file != nullptr;
    if (m_active)
        (void)file.release();
}

void FileLogger::close() {
    if (m_file)
        std::fclose(m_file);
    m_file = nullptr;
    m_active = false;
}

void FileLogger::setFilename(const char* /*path*/) {}

bool FileLogger::log(const char* line) {
    // Also when not active: a file that could not be opened is tried again on the next day.
    rolloverIfNecessary();
    if (!m_active || !line)
        return false;
    const bool put = std::fputs(line, m_file) >= 0;
    const bool flushed = std::fflush(m_file) == 0;
    if (!put || !flushed)
        std::clearerr(m_file);
    return put && flushed;
}

bool FileLogger::log(const wchar_t* line) {
    rolloverIfNecessary();
    return m_active && log(narrow(line).c_str());
}

NetLogger::NetLogger(const char* ip, int port) : m_port(port) {
    kestrel::copyText(m_ip, ip);
    m_active = true;
}

bool NetLogger::log(const char* line) {
    if (!m_active || !line)
        return false;
    const kestrel::UniqueFd socketFd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!socketFd.valid())
        return false;
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = htonl(INADDR_ANY);
    if (::bind(socketFd.get(), reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0)
        return false;

    // A line that could not be sent is lost, not failed: nobody is told whether a datagram arrives.
    sockaddr_in receiver{};
    receiver.sin_family = AF_INET;
    if (m_port < 0 || m_port > 65535 || inet_pton(AF_INET, m_ip, &receiver.sin_addr) != 1)
        return true;
    receiver.sin_port = htons(static_cast<std::uint16_t>(m_port));

    const std::size_t length = std::strlen(line);
    for (int attempt = 0; attempt < maxSendTries; ++attempt) {
        const ssize_t sent = ::sendto(socketFd.get(), line, length, MSG_NOSIGNAL,
                                      reinterpret_cast<const sockaddr*>(&receiver), sizeof receiver);
        if (sent == static_cast<ssize_t>(length))
            break;
    }
    return true;
}

bool NetLogger::log(const wchar_t* line) {
    return m_active && log(narrow(line).c_str());
}

StreamLogger::StreamLogger(std::ostream* stream) : m_stream(stream) {
    m_active = stream != nullptr;
}

bool StreamLogger::log(const char* line) {
    if (!m_active || !line)
        return false;
    m_stream->write(line, static_cast<std::streamsize>(std::strlen(line)));
    const bool written = m_stream->good();
    // The disk may have room again for the next line.
    if (!written)
        m_stream->clear();
    return written;
}

bool StreamLogger::log(const wchar_t* line) {
    return m_active && log(narrow(line).c_str());
}
