// The verifier's whole pass, and the reports of what it found, on whatever packets.
#include "flowscope/Analysis.h"
#include "flowscope/ReportValues.h"
#include "flowscope/Reports.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <tinyxml.h>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace kestrel::flowscope;
    // The first byte tells how far to read.
    const std::optional<int> seconds = size > 0 && data[0] != 0 ? std::optional<int>(data[0]) : std::nullopt;
    Analysis analysis(seconds);
    for (std::size_t at = 1; at + 188 <= size; at += 188) {
        // A block of its own, so that a read beyond it is noticed.
        const std::vector<unsigned char> packet(data + at, data + at + 188);
        if (!analysis.take(packet.data()))
            break;
    }
    analysis.end();
    if (analysis.video() == nullptr)
        return 0;
    htmlReport(analysis, "f");
    const std::string xml = xmlReport(analysis, "f");
    TiXmlDocument document;
    document.Parse(xml.c_str());
    if (document.Error())
        std::abort(); // the service could not read it
    return 0;
}
