// Requests for verifications by a verifier that does what the test says.
#pragma once

#include "system/service_under_test.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <string>

namespace kestrel::test {

inline constexpr const char* GUID = "0123456789abcdef0123456789abcdef";
inline constexpr const char* NO_PROPERTY = "FALSE - Error: Failed to get requested Mpeg Property.";

// A report of a file with these properties; it has no GOP structure and no GOP length.
inline std::string reportOf(const std::string& videoPid, const std::string& runtime) {
    return "<Report><Media><SystemInformation><PMTTable><Pid value='480'/><PcrPid value='481'/></PMTTable>"
           "</SystemInformation><VideoStream><Pid value='" +
           videoPid +
           "'/><VideoResolution value='1920x1080'/></VideoStream></Media>"
           "<MediaSummary><AssetDuration value='" +
           runtime + "'/></MediaSummary></Report>";
}

class VerifierRequests : public testing::Test {
protected:
    VerifierRequests() {
        file = (service.root() / "asset.ts").string();
        std::ofstream(file) << "packets";
        prepared = (service.root() / "prepared.xml").string();
        std::ofstream(prepared) << reportOf("481", "00:00:10:00");
        service.set("MPEGProperties", "NUM_AUDIOS", "0");
    }

    void start(const std::string& verifierOptions) {
        service.setVerifier(verifierOptions);
        service.start();
    }
    std::string verify(const std::string& rest) const {
        return service.ask(std::string("GET_MPEG_PROPERTIES,JOB_BEGIN,") + GUID + "," + file + rest);
    }
    std::string results() const { return service.ask(std::string("JOB_RESULTS,") + GUID); }
    [[nodiscard]] std::string reportPath() const {
        return service.root().string() + "/" + GUID + "-asset.ts.report.xml";
    }

    ServiceUnderTest service;
    std::string file;
    std::string prepared; // the report that the verifier comes to
};

} // namespace kestrel::test
