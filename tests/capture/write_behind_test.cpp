// A file that is written behind the one who makes its packets.
#include "capture/WriteBehind.h"
#include "capture/normalize_streams.h"
#include "foundation/ErrorCodes.h"

#include <fstream>
#include <gtest/gtest.h>

using namespace capture_test;
using namespace kestrel::capture;

namespace {

TEST(WriteBehind, WritesAllInOrder) {
    TemporaryDirectory directory;
    const std::string path = directory.path("out.ts");
    const Bytes bytes = joined(StreamBuilder().frames(5000)); // many blocks, and a part of one
    WriteBehind file;
    ASSERT_FALSE(file.create(path, false));
    std::span<const unsigned char> rest(bytes);
    for (std::size_t packets = 1; !rest.empty(); packets = packets % 900 + 37) {
        const std::size_t part = std::min(rest.size(), packets * 188);
        ASSERT_FALSE(file.append(rest.first(part)));
        rest = rest.subspan(part);
    }
    EXPECT_FALSE(file.close());
    EXPECT_EQ(file.bytes(), bytes.size());
    EXPECT_EQ(joined(readPackets(path)), bytes);
}

TEST(WriteBehind, ClosesAnEmptyFile) {
    TemporaryDirectory directory;
    WriteBehind file;
    ASSERT_FALSE(file.create(directory.path("out.ts"), false));
    EXPECT_TRUE(file.isOpen());
    EXPECT_FALSE(file.close());
    EXPECT_FALSE(file.isOpen());
    EXPECT_EQ(file.bytes(), 0U);
}

TEST(WriteBehind, KeepsAFileThatExists) {
    TemporaryDirectory directory;
    std::ofstream(directory.path("out.ts")) << "precious";
    WriteBehind file;
    const auto refused = file.create(directory.path("out.ts"), false);
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->code, kestrel::error::fileAlreadyExists);
    EXPECT_FALSE(file.isOpen());
    EXPECT_EQ(readText(directory.path("out.ts")), "precious");
}

// Without a word from the disk the maker would go on for ever; and it must not wait for room that never
// comes.
TEST(WriteBehind, TellsAFullDiskByALaterCall) {
    const Bytes bytes = joined(StreamBuilder().frames(1000));
    WriteBehind file;
    ASSERT_FALSE(file.create("/dev/full", true));
    MaybeFailure failed;
    for (int i = 0; i < 1000 && !failed; ++i)
        failed = file.append(bytes);
    ASSERT_TRUE(failed);
    EXPECT_EQ(failed->code, kestrel::error::diskFull);
    const auto closing = file.close();
    ASSERT_TRUE(closing);
    EXPECT_EQ(closing->code, kestrel::error::diskFull);
    EXPECT_EQ(file.bytes(), 0U);
}

} // namespace
