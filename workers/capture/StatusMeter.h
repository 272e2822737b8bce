// What a worker tells the service of one recording, once a second.
#pragma once

#include "Limits.h"
#include "foundation/QueueMessages.h"

#include <cstddef>
#include <cstdint>

namespace kestrel::capture {

// Keeps what the bit rate since the record before needs.
class StatusMeter {
public:
    // What one record tells. bytes: in the file.
    struct Numbers {
        std::uint64_t frames = 0;
        int frameRateCode = 0; // 0 while unknown
        std::uint64_t continuityErrors = 0;
        std::uint64_t bytes = 0;
    };

    // Bits count from now on.
    void start(Clock::time_point now) { m_last = now; }
    // index: of the encoder, from 0.
    [[nodiscard]] _CaptureJobStatusData record(std::size_t index, const Numbers& numbers,
                                               Clock::time_point now);

private:
    Clock::time_point m_last{};
    std::uint64_t m_bytes = 0;
};

} // namespace kestrel::capture
