// Indexes of source files.
#pragma once

#include "capture/SourceIndex.h"
#include "capture/labelled_stream.h"

#include <atomic>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace capture_test {

inline kestrel::capture::SourceIndex indexOf(const std::string& file) {
    kestrel::capture::SourceIndex index;
    const std::atomic<bool> never{false};
    const kestrel::capture::MaybeFailure failed = kestrel::capture::indexSource(file, never, index);
    EXPECT_FALSE(failed) << failed->text;
    return index;
}

// Of a file that holds these.
inline kestrel::capture::SourceIndex indexOf(const std::vector<CodedFrame>& frames) {
    const TemporaryDirectory directory;
    writePackets(join(frames), directory.path("source.ts"));
    return indexOf(directory.path("source.ts"));
}

// 1000 frames at 25 a second, a GOP of 25 every second from 10:00:00:00 on, with two frames that cannot be
// shown when playing begins there; each frame has 10 packets.
inline kestrel::capture::SourceIndex regular(bool timecodes = true) {
    kestrel::capture::SourceIndex index{1000, 3, {}};
    for (int second = 0; second < 40; ++second)
        index.points.push_back(
            {static_cast<std::uint64_t>(second) * 25 * 10 * 188, static_cast<std::uint64_t>(second) * 25,
             timecodes ? std::optional<int>(10 << 19 | 1 << 12 | second << 6) : std::nullopt,
             second == 0 ? 0 : 2});
    return index;
}

} // namespace capture_test
