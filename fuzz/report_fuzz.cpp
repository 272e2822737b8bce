// The verifier's report, from whatever bytes.
#include "verifier/VerifierJob.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const std::string directory = [] {
        char name[] = "/tmp/kestrel-fuzz-XXXXXX";
        return std::string(mkdtemp(name)) + "/";
    }();
    VerifierJob job("f", directory.c_str(), "0", "ALL", 0, false, false, "", 8, "none");
    if (std::FILE* const file = std::fopen(job.reportFilename, "wb")) {
        std::fwrite(data, 1, size, file);
        std::fclose(file);
    }
    char answer[2001];
    for (int property = 0; property < VerifierJob::PROPERTY_COUNT; ++property) {
        job.property = property;
        job.getJobResults(answer, sizeof answer);
    }
    return 0;
}
