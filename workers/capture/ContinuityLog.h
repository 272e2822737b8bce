// Counts and logs the continuity errors of what is written.
#pragma once

#include "Limits.h"
#include "mpeg/mpeg.h"

#include <cstdint>
#include <string>

namespace kestrel::capture {

class ContinuityLog {
public:
    explicit ContinuityLog(std::string name) : m_name(std::move(name)) {}

    // Checks the next packet; index is its place in the recording, from 0.
    void check(const unsigned char* packet, std::uint64_t index, Clock::time_point now);
    // Logs how many lines were left out, once their second is over.
    void tick(Clock::time_point now);
    [[nodiscard]] std::uint64_t errors() const noexcept { return m_errors; }
    [[nodiscard]] bool pending() const noexcept { return m_unlogged != 0; }

private:
    std::string m_name;
    continuity_nazi m_checker;
    std::uint64_t m_errors = 0;
    Clock::time_point m_second{};
    int m_lines = 0;
    std::uint64_t m_unlogged = 0;
};

} // namespace kestrel::capture
