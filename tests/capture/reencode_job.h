// A re-encode or a mezzanine with the real worker, and the equipment behind it on loopback.
#pragma once

#include "capture/loopback_equipment.h"
#include "capture/worker_process.h"
#include "streams/stream_fixtures.h"

#include <cstdio>
#include <filesystem>
#include <optional>
#include <string>

namespace capture_test {

class ReencodeJob : public Worker {
public:
    explicit ReencodeJob(const std::string& source, int type = CSettings::JOB_TIMED_REENCODE) {
        settings.cmd.jobType = type;
        std::snprintf(settings.cmd.sourceFile, sizeof settings.cmd.sourceFile, "%s", source.c_str());
        encoderPort = addEncoder();
        settings.decoder.ipAddress = 0x7F000001;
    }
    void marks(const char* in, const char* out) {
        std::snprintf(settings.cmd.markInTime, sizeof settings.cmd.markInTime, "%s", in);
        std::snprintf(settings.cmd.markOutTime, sizeof settings.cmd.markOutTime, "%s", out);
    }
    // Puts the equipment behind it.
    Equipment& equipment(Equipment::Behaviour behaviour = {}) {
        settings.decoder.port = m_equipment.emplace(encoderPort, std::move(behaviour)).port();
        return *m_equipment;
    }
    // An encoder that sends all the time.
    RunningEncoder& running(const LabelledShape& shape, const RunningEncoder::Source& source) {
        settings.decoder.port = m_running.emplace(encoderPort, shape, source).port();
        return *m_running;
    }
    void source(const std::string& path) {
        std::snprintf(settings.cmd.sourceFile, sizeof settings.cmd.sourceFile, "%s", path.c_str());
    }
    // A source that takes hours to read: some packets, and a terabyte of nothing behind them.
    void endlessSource() {
        const std::string endless = path("endless.ts");
        std::filesystem::copy(kestrel::test::streamFile("m2_sd_25"), endless);
        std::filesystem::resize_file(endless, std::uintmax_t{1} << 40);
        source(endless);
    }
    int run() {
        start();
        return wait(std::chrono::seconds(60));
    }
    // The same with equipment that is stopped once the log has that, so that what is inside comes out.
    int runUntil(const std::string& logged) {
        start();
        waitForLog(logged);
        m_equipment->stop();
        return wait(std::chrono::seconds(60));
    }
    std::string output() const { return path("out/news.ts"); }
    int encoderPort = 0;

private:
    std::optional<Equipment> m_equipment;
    std::optional<RunningEncoder> m_running;
};

} // namespace capture_test
