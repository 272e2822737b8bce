#include "StatusMeter.h"

#include "timecode/mpeg_timecode.h"

#include <algorithm>

namespace kestrel::capture {

_CaptureJobStatusData StatusMeter::record(std::size_t index, const Numbers& numbers, Clock::time_point now) {
    _CaptureJobStatusData record{};
    record.encoderIndex = static_cast<std::int32_t>(index);
    record.frames = static_cast<std::uint32_t>(numbers.frames);
    // Before the rate is known there is nothing to count; 25 is a code the service can print 0 with.
    record.frameRateCode = static_cast<std::uint32_t>(numbers.frameRateCode != 0 ? numbers.frameRateCode : 3);
    record.dropFrame = mpeg_timecode::frameRateCodeToDropFrame(static_cast<int>(record.frameRateCode));
    record.statusNumber1 =
        static_cast<std::uint32_t>(std::min<std::uint64_t>(numbers.continuityErrors, UINT32_MAX));
    record.statusNumber2 = numbers.bytes;
    // A write that failed takes back what had been counted ahead of it.
    const std::uint64_t more = numbers.bytes > m_bytes ? numbers.bytes - m_bytes : 0;
    const double seconds = std::chrono::duration<double>(now - m_last).count();
    if (seconds > 0)
        record.statusNumber3 = static_cast<std::uint64_t>(static_cast<double>(more) * 8 / seconds);
    m_bytes = numbers.bytes;
    m_last = now;
    return record;
}

} // namespace kestrel::capture
