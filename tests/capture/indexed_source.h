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

} // namespace capture_test
