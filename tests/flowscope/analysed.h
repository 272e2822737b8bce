#pragma once

// Streams looked through to their end, and what is expected of their findings.

#include "flowscope/Analysis.h"

#include <gtest/gtest.h>
#include <optional>
#include <span>

namespace kestrel::flowscope {

// All whole packets, or as far as the analysis wants them.
inline Analysis analysed(std::span<const unsigned char> bytes, std::optional<int> seconds = std::nullopt) {
    constexpr std::size_t PACKET = 188;
    Analysis analysis(seconds);
    for (; bytes.size() >= PACKET; bytes = bytes.subspan(PACKET))
        if (!analysis.take(bytes.data()))
            break;
    analysis.end();
    return analysis;
}

// Each finding is a failure.
inline void expectClean(const Analysis& analysis) {
    for (const Finding& finding : analysis.findings().first())
        ADD_FAILURE() << finding.kind << ": " << finding.text;
}

} // namespace kestrel::flowscope
