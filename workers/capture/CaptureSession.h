// A capture job from its settings to its exit code: the control thread.
#pragma once

#include "EncoderChannel.h"
#include "Options.h"
#include "ServiceLink.h"

#include <memory>
#include <string>
#include <vector>

class CSettings;

namespace kestrel::capture {

inline constexpr int exitSuccess = 0;
inline constexpr int exitFailure = 1;
inline constexpr int exitUsage = 2;

class CaptureSession {
public:
    explicit CaptureSession(Options options);

    // Runs the job to its end: reads the settings, records, keeps the service informed. Blocks SIGTERM and
    // SIGINT, which then act as the cancel message. Returns the exit code.
    int run();

private:
    [[nodiscard]] MaybeFailure prepare();
    [[nodiscard]] MaybeFailure addChannels(const CSettings& settings, const EncoderMap& map);
    void controlLoop(int signals);
    void sendStatus();
    int finish(const MaybeFailure& failed);

    const Options m_options;
    ServiceLink m_link;
    WakeEvent m_ended;
    std::vector<std::unique_ptr<EncoderChannel>> m_channels;
    std::vector<std::uint64_t> m_lastBytes; // of each channel at the last status
    Clock::time_point m_lastStatus;
    std::vector<bool> m_reported; // a failed channel's text has been sent
};

} // namespace kestrel::capture
