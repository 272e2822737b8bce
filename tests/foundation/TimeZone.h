// Another time zone than the host's.
#pragma once

#include <cstdlib>
#include <ctime>
#include <optional>
#include <string>

namespace kestrel::test {

// A zone whose clocks change in the last nights of March and October.
inline constexpr const char* SUMMER_TIME_ZONE = "CET-1CEST,M3.5.0,M10.5.0/3";

// The zone of this process, in the form of TZ, while it lives. Only where no other thread asks for a time.
class TimeZone {
public:
    explicit TimeZone(const char* zone) {
        if (const char* const before = std::getenv("TZ"))
            m_before = before;
        ::setenv("TZ", zone, 1);
        ::tzset();
    }
    ~TimeZone() {
        if (m_before)
            ::setenv("TZ", m_before->c_str(), 1);
        else
            ::unsetenv("TZ");
        ::tzset();
    }
    TimeZone(const TimeZone&) = delete;
    TimeZone& operator=(const TimeZone&) = delete;

private:
    std::optional<std::string> m_before;
};

} // namespace kestrel::test
