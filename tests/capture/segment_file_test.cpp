#include "capture/SegmentFile.h"
#include "capture/stream_builder.h"
#include "foundation/ErrorCodes.h"

#include <csignal>
#include <gtest/gtest.h>
#include <sys/resource.h>

using namespace kestrel::capture;

namespace {

TEST(SegmentFile, ReachesTheDiskInWholePackets) {
    capture_test::TemporaryDirectory directory;
    SegmentFile file;
    ASSERT_FALSE(file.create(directory.path("a.ts"), false));
    const auto packets = capture_test::StreamBuilder().frames(300);
    for (const Packet& packet : packets) {
        ASSERT_FALSE(file.append(packet));
        ASSERT_EQ(std::filesystem::file_size(directory.path("a.ts")) % packetSize, 0u);
    }
    ASSERT_FALSE(file.close(true));
    EXPECT_TRUE(capture_test::readPackets(directory.path("a.ts")) == packets);
    EXPECT_EQ(file.bytes(), packets.size() * packetSize);
}

TEST(SegmentFile, AWriteTakenInPartIsCutBackToWholePackets) {
    capture_test::TemporaryDirectory directory;
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit before{};
    getrlimit(RLIMIT_FSIZE, &before);
    SegmentFile file;
    ASSERT_FALSE(file.create(directory.path("a.ts"), false));
    for (int i = 0; i < 100; ++i)
        ASSERT_FALSE(file.append(Packet{0x47}));
    const rlimit limit{10'000, before.rlim_max};
    setrlimit(RLIMIT_FSIZE, &limit);
    const MaybeFailure failed = file.flush();
    setrlimit(RLIMIT_FSIZE, &before);
    ASSERT_TRUE(failed);
    EXPECT_NE(failed->text.find("errno 27"), std::string::npos) << failed->text;
    EXPECT_EQ(std::filesystem::file_size(directory.path("a.ts")), 10'000 / packetSize * packetSize);
    EXPECT_FALSE(file.close(true));
}

TEST(SegmentFile, ItsBytesAreThoseOfTheFileAlsoWhenAWriteFails) {
    capture_test::TemporaryDirectory directory;
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit before{};
    getrlimit(RLIMIT_FSIZE, &before);
    SegmentFile file;
    const std::string path = directory.path("a.ts");
    ASSERT_FALSE(file.create(path, false));
    const rlimit limit{200'000, before.rlim_max};
    setrlimit(RLIMIT_FSIZE, &limit);
    std::uint64_t last = 0;
    int failures = 0;
    for (int i = 0; i < 3000; ++i) {
        failures += file.append(Packet{0x47}) ? 1 : 0;
        EXPECT_GE(file.bytes(), last);
        EXPECT_EQ(file.bytes(), std::filesystem::file_size(path));
        last = file.bytes();
    }
    setrlimit(RLIMIT_FSIZE, &before);
    EXPECT_GT(failures, 1);
    EXPECT_EQ(last, 200'000 / packetSize * packetSize);
    // Once there is room again, the file goes on with a whole packet.
    ASSERT_FALSE(file.append(Packet{0x47}));
    ASSERT_FALSE(file.flush());
    EXPECT_EQ(file.bytes() % packetSize, 0u);
    EXPECT_EQ(file.bytes(), std::filesystem::file_size(path));
    ASSERT_FALSE(file.close(true));
    EXPECT_EQ(file.bytes(), std::filesystem::file_size(path));
}

TEST(SegmentFile, AnExistingFileIsReplacedOnlyWhenAsked) {
    capture_test::TemporaryDirectory directory;
    SegmentFile first;
    ASSERT_FALSE(first.create(directory.path("a.ts"), false));
    SegmentFile second;
    const MaybeFailure failed = second.create(directory.path("a.ts"), false);
    ASSERT_TRUE(failed);
    EXPECT_EQ(failed->code, kestrel::error::fileAlreadyExists);
    ASSERT_FALSE(first.close(false));
    EXPECT_FALSE(second.create(directory.path("a.ts"), true));
}

} // namespace
