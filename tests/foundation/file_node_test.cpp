// Reading an input in records.
#include "foundation/ControllingTerminal.h"
#include "foundation/ScratchDir.h"
#include "foundation/file_node.h"

#include <algorithm>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <iostream>
#include <mutex>
#include <sstream>
#include <stop_token>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr int packet = 188;

std::string records(int count, int size) {
    std::string bytes;
    for (int i = 0; i < count; ++i) {
        std::string record(static_cast<std::size_t>(size), static_cast<char>(i % 251));
        record[0] = static_cast<char>(0x47);
        bytes += record;
    }
    return bytes;
}

std::string readAll(file_node& node) {
    std::string bytes;
    while (const unsigned char* record = node.get_buff())
        bytes.append(reinterpret_cast<const char*>(record), static_cast<std::size_t>(node.size));
    return bytes;
}

TEST(FileNode, HandsOutTheRecordsInOrder) {
    const ScratchDir dir;
    const std::string bytes = records(5, packet);
    file_node node(dir.file("a.ts", bytes).c_str(), packet);
    EXPECT_EQ(node.size, packet);
    EXPECT_EQ(readAll(node), bytes);
}

TEST(FileNode, FileOfSeveralBlocksIsWhole) {
    const ScratchDir dir;
    const std::string bytes = records(20'000, packet);
    ASSERT_GT(bytes.size(), 3u << 20);
    file_node node(dir.file("a.ts", bytes).c_str(), packet);
    EXPECT_EQ(readAll(node), bytes);
}

TEST(FileNode, AnyRecordSizeFitsTheBlocks) {
    const ScratchDir dir;
    const std::string bytes = records(1, 3'000'000);
    const std::string path = dir.file("a.ts", bytes);
    for (const int size : {1000, 1 << 20, (1 << 20) + 1, 1'000'000, 1'500'000, 3'000'000}) {
        file_node node(path.c_str(), size);
        const auto whole = bytes.size() / static_cast<std::size_t>(size) * static_cast<std::size_t>(size);
        EXPECT_EQ(readAll(node), bytes.substr(0, whole)) << size;
    }
}

TEST(FileNode, SingleBytesAreRecordsToo) {
    const ScratchDir dir;
    file_node node(dir.file("a", "xyz").c_str(), 1);
    EXPECT_EQ(readAll(node), "xyz");
}

TEST(FileNode, ShortLastRecordIsNotHandedOut) {
    const ScratchDir dir;
    const std::string bytes = records(3, packet);
    const std::string path = dir.path("a.ts");
    for (std::size_t length = 0; length <= bytes.size(); ++length) {
        dir.file("a.ts", bytes.substr(0, length)).clear();
        file_node fromPath(path.c_str(), packet);
        EXPECT_EQ(readAll(fromPath), bytes.substr(0, length / packet * packet)) << length;
        std::istringstream in(bytes.substr(0, length));
        file_node fromStream(in, packet);
        EXPECT_EQ(readAll(fromStream), bytes.substr(0, length / packet * packet)) << length;
    }
}

TEST(FileNode, EndLastsUntilTheReset) {
    const ScratchDir dir;
    const std::string bytes = records(2, packet);
    const std::string path = dir.file("a.ts", bytes + "rest");
    file_node node(path.c_str(), packet);
    EXPECT_EQ(readAll(node), bytes);
    std::ofstream(path, std::ios::app) << records(2, packet);
    EXPECT_EQ(node.get_buff(), nullptr);
    node.resetToBegining();
    EXPECT_EQ(readAll(node).size(), 4u * packet);
}

TEST(FileNode, ResetStartsAgainFromAnyPlace) {
    const ScratchDir dir;
    const std::string bytes = records(20'000, packet);
    file_node node(dir.file("a.ts", bytes).c_str(), packet);
    for (const int taken : {0, 1, 6000, 20'000, 20'001}) {
        for (int i = 0; i < taken; ++i)
            node.get_buff();
        node.resetToBegining();
        EXPECT_EQ(readAll(node), bytes) << taken;
        node.resetToBegining();
    }
}

TEST(FileNode, InputsThatCannotBeReadHaveNoRecords) {
    const ScratchDir dir;
    file_node missing(dir.path("missing").c_str(), packet);
    EXPECT_EQ(missing.get_buff(), nullptr);
    missing.resetToBegining();
    EXPECT_EQ(missing.get_buff(), nullptr);
    file_node directory(dir.path("").c_str(), packet);
    EXPECT_EQ(directory.get_buff(), nullptr);
    file_node null(static_cast<const char*>(nullptr), packet);
    EXPECT_EQ(null.get_buff(), nullptr);
    file_node empty(dir.file("empty", "").c_str(), packet);
    EXPECT_EQ(empty.get_buff(), nullptr);
}

TEST(FileNode, RecordSizeBelowOneHasNoRecords) {
    const ScratchDir dir;
    const std::string path = dir.file("a.ts", records(2, packet));
    for (const int size : {0, -1, INT_MIN}) {
        file_node node(path.c_str(), size);
        EXPECT_EQ(node.get_buff(), nullptr) << size;
        std::istringstream in("text");
        file_node fromStream(in, size);
        EXPECT_EQ(fromStream.get_buff(), nullptr) << size;
    }
}

TEST(FileNode, PipeWithoutAWriterEndsAtOnce) {
    const ScratchDir dir;
    const std::string path = dir.path("pipe");
    ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
    file_node node(path.c_str(), packet);
    EXPECT_EQ(node.get_buff(), nullptr);
}

TEST(FileNode, PipeIsReadUntilItsWriterEnds) {
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    const std::string bytes = records(2000, packet);
    file_node node(("/dev/fd/" + std::to_string(ends[0])).c_str(), packet);
    std::jthread writer([&] {
        // Pieces that never end with a record.
        for (std::size_t at = 0; at < bytes.size(); at += 1001) {
            const std::size_t length = std::min<std::size_t>(1001, bytes.size() - at);
            EXPECT_EQ(::write(ends[1], bytes.data() + at, length), static_cast<ssize_t>(length));
        }
        ::close(ends[1]);
    });
    EXPECT_EQ(readAll(node), bytes);
    writer.join();
    ::close(ends[0]);
}

TEST(FileNode, RecordOfAPipeComesAsSoonAsItIsWhole) {
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    file_node node(("/dev/fd/" + std::to_string(ends[0])).c_str(), packet);
    const std::string bytes = records(1, packet);
    ASSERT_EQ(::write(ends[1], bytes.data(), bytes.size()), packet);
    const unsigned char* record = node.get_buff();
    ASSERT_NE(record, nullptr);
    EXPECT_TRUE(std::equal(bytes.begin(), bytes.end(), reinterpret_cast<const char*>(record)));
    ::close(ends[1]);
    EXPECT_EQ(node.get_buff(), nullptr);
    ::close(ends[0]);
}

// Ten bytes a second, which would be a record after nineteen.
TEST(FileNode, APipeThatTricklesIsGivenUpAfterFiveSecondsOfWaiting) {
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    file_node node(("/dev/fd/" + std::to_string(ends[0])).c_str(), packet);
    std::jthread writer([&](const std::stop_token& stop) {
        std::mutex mutex;
        std::condition_variable_any stopped;
        std::unique_lock lock(mutex);
        while (!stop.stop_requested()) {
            EXPECT_EQ(::write(ends[1], "G", 1), 1);
            stopped.wait_for(lock, stop, std::chrono::milliseconds(100), [] { return false; });
        }
    });
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(node.get_buff(), nullptr);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::seconds(4));
    writer.request_stop();
    writer.join();
    // What is there is still read, but nothing is waited for a second time.
    const std::string bytes = records(2, packet);
    ASSERT_EQ(::write(ends[1], bytes.data(), bytes.size()), 2 * packet);
    node.resetToBegining();
    EXPECT_NE(node.get_buff(), nullptr);
    EXPECT_NE(node.get_buff(), nullptr);
    const auto again = std::chrono::steady_clock::now();
    EXPECT_EQ(node.get_buff(), nullptr);
    EXPECT_LT(std::chrono::steady_clock::now() - again, std::chrono::seconds(4));
    ::close(ends[1]);
    ::close(ends[0]);
}

TEST(FileNode, ATerminalThatIsReadDoesNotBecomeThatOfTheProcess) {
    const PseudoTerminal terminal;
    ASSERT_TRUE(terminal.type("\x04")) << "the end of its input";
    EXPECT_EQ(terminalAfter([&] {
                  file_node node(terminal.name().c_str(), packet);
                  node.get_buff();
              }),
              0);
    EXPECT_GT(terminalAfter([&] { ::open(terminal.name().c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC); }), 0)
        << "a plain open would have done it";
}

TEST(FileNode, DescriptorIsCloseOnExecAndClosedAtTheEnd) {
    const ScratchDir dir;
    const std::string path = dir.file("a.ts", "x");
    const auto descriptors = [&] {
        int found = 0;
        for (int fd = 0; fd < 256; ++fd) {
            std::error_code none;
            if (std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd), none) != path)
                continue;
            ++found;
            EXPECT_EQ(::fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
        }
        return found;
    };
    {
        const file_node node(path.c_str(), packet);
        EXPECT_EQ(descriptors(), 1);
    }
    EXPECT_EQ(descriptors(), 0);
}

TEST(FileNodeOfAStream, ReadsNoFurtherThanItsRecords) {
    const std::string bytes = records(3, packet);
    std::istringstream in(bytes);
    file_node node(in, packet);
    ASSERT_NE(node.get_buff(), nullptr);
    EXPECT_EQ(in.tellg(), packet);
}

TEST(FileNodeOfAStream, StartsWhereTheStreamStandsAndResetsToItsStart) {
    const std::string bytes = records(3, packet);
    std::istringstream in(bytes);
    in.seekg(packet);
    file_node node(in, packet);
    EXPECT_EQ(readAll(node), bytes.substr(packet));
    EXPECT_EQ(node.get_buff(), nullptr);
    node.resetToBegining();
    EXPECT_EQ(readAll(node), bytes);
}

TEST(FileNodeOfAStream, FailedStreamHasNoRecords) {
    std::istringstream in(records(3, packet));
    in.setstate(std::ios::failbit);
    file_node node(in, packet);
    EXPECT_EQ(node.get_buff(), nullptr);
    std::ifstream missing("/nonexistent/a.ts", std::ios::binary);
    file_node ofMissing(missing, packet);
    EXPECT_EQ(ofMissing.get_buff(), nullptr);
    ofMissing.resetToBegining();
    EXPECT_EQ(ofMissing.get_buff(), nullptr);
}

TEST(FileNodeOfAStream, ThrowingStreamOnlyEnds) {
    std::istringstream in(records(1, packet) + "rest");
    in.exceptions(std::ios::eofbit | std::ios::failbit | std::ios::badbit);
    file_node node(in, packet);
    EXPECT_NE(node.get_buff(), nullptr);
    EXPECT_EQ(node.get_buff(), nullptr);
}

} // namespace
