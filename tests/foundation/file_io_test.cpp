// Operations on files.
#include "foundation/CapturedLog.h"
#include "foundation/ScratchDir.h"
#include "foundation/file_io.h"

#include <climits>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

using File = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

File openFile(const std::string& path) {
    return {std::fopen(path.c_str(), "rbe"), &std::fclose};
}

std::string pattern(std::size_t size) {
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<char>((i * 31 + i / 251) & 0xFF);
    return bytes;
}

std::string prefixed(const char* path, const char* prefix, int capacity = 600) {
    std::string field(700, 'x');
    FileIO::AppendPrefix(path, prefix, field.data(), capacity);
    for (std::size_t i = static_cast<std::size_t>(capacity); i < field.size(); ++i)
        EXPECT_EQ(field[i], 'x') << i;
    return field.c_str();
}

std::string newExtension(const char* path) {
    char out[100];
    std::memset(out, 'x', sizeof out);
    FileIO::ChangeFileNameExtension(path, out);
    return out;
}

TEST(OpenFile, WritesANewBinaryFile) {
    const ScratchDir dir;
    const std::string path = dir.file("a.ts", "what was there before");
    const std::unique_ptr<std::ofstream> stream(FileIO::OpenFile(path.c_str()));
    ASSERT_NE(stream, nullptr);
    EXPECT_TRUE(stream->is_open());
    stream->write("a\r\n\0b", 5);
    EXPECT_TRUE(stream->good());
    stream->close();
    EXPECT_EQ(contentOf(path), std::string("a\r\n\0b", 5));
}

TEST(OpenFile, StreamSeeksAndClosesItsDescriptorWhenDeleted) {
    const ScratchDir dir;
    const std::string path = dir.path("a.ts");
    std::unique_ptr<std::ofstream> stream(FileIO::OpenFile(path.c_str()));
    ASSERT_NE(stream, nullptr);
    *stream << "abcdef";
    stream->seekp(2);
    *stream << "X";
    stream.reset();
    EXPECT_EQ(contentOf(path), "abXdef");
    for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        EXPECT_NE(fs::read_symlink(entry.path(), gone), path);
    }
}

TEST(OpenFile, DescriptorIsCloseOnExec) {
    const ScratchDir dir;
    const std::string path = dir.path("a.ts");
    const std::unique_ptr<std::ofstream> stream(FileIO::OpenFile(path.c_str()));
    ASSERT_NE(stream, nullptr);
    int seen = 0;
    for (int fd = 0; fd < 256; ++fd) {
        std::error_code none;
        if (fs::read_symlink("/proc/self/fd/" + std::to_string(fd), none) != path)
            continue;
        ++seen;
        EXPECT_EQ(::fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    }
    EXPECT_EQ(seen, 1);
}

TEST(OpenFile, FailureIsLoggedAndGivesNull) {
    const CapturedLog log;
    const ScratchDir dir;
    const std::string path = dir.path("missing/a.ts");
    EXPECT_EQ(FileIO::OpenFile(path.c_str()), nullptr);
    EXPECT_EQ(log.text(), "[file_io:Error] Error creating file: " + path + "\r\n");
    EXPECT_EQ(FileIO::OpenFile(nullptr), nullptr);
    EXPECT_EQ(FileIO::OpenFile(dir.path("").c_str()), nullptr) << "a directory";
}

TEST(GetFileLen, IsTheSizeFromTheStatus) {
    const ScratchDir dir;
    EXPECT_EQ(FileIO::GetFileLen(dir.file("a.ts", "12345").c_str()), 5);
    EXPECT_EQ(FileIO::GetFileLen(dir.file("empty", "").c_str()), 0);
    EXPECT_EQ(FileIO::GetFileLen(dir.path("missing").c_str()), -1);
    EXPECT_EQ(FileIO::GetFileLen(nullptr), -1);
    struct stat status {};
    ASSERT_EQ(::stat(dir.path("").c_str(), &status), 0);
    EXPECT_EQ(FileIO::GetFileLen(dir.path("").c_str()), status.st_size) << "a directory";
    const std::string large = dir.file("large", "");
    fs::resize_file(large, 5'000'000'001);
    EXPECT_EQ(FileIO::GetFileLen(large.c_str()), 5'000'000'001);
}

TEST(TruncateFile, CutsOrExtends) {
    const ScratchDir dir;
    const std::string path = dir.file("a.ts", "12345");
    EXPECT_EQ(FileIO::TruncateFile(path.c_str(), 3), 0);
    EXPECT_EQ(contentOf(path), "123");
    EXPECT_EQ(FileIO::TruncateFile(path.c_str(), 3'000'000'000), 0);
    EXPECT_EQ(fs::file_size(path), 3'000'000'000u);
}

TEST(TruncateFile, FailureIsMinus10) {
    const ScratchDir dir;
    EXPECT_EQ(FileIO::TruncateFile(dir.path("missing").c_str(), 0), -10);
    EXPECT_EQ(FileIO::TruncateFile(dir.file("a.ts", "x").c_str(), -1), -10);
    EXPECT_EQ(FileIO::TruncateFile(nullptr, 0), -10);
}

TEST(TruncSeek, SeeksWith64Bits) {
    const ScratchDir dir;
    const File file = openFile(dir.file("a.ts", "12345"));
    EXPECT_EQ(FileIO::TruncSeek(file.get(), 2, SEEK_SET), 0);
    EXPECT_EQ(std::fgetc(file.get()), '3');
    EXPECT_EQ(FileIO::TruncSeek(file.get(), -1, SEEK_END), 0);
    EXPECT_EQ(std::fgetc(file.get()), '5');
    EXPECT_EQ(FileIO::TruncSeek(file.get(), 5'000'000'000, SEEK_SET), 0);
    EXPECT_EQ(::ftello(file.get()), 5'000'000'000);
}

TEST(TruncSeek, FailureIsTheSeeksResult) {
    const ScratchDir dir;
    const File file = openFile(dir.file("a.ts", "12345"));
    EXPECT_EQ(FileIO::TruncSeek(file.get(), -1, SEEK_SET), -1);
    EXPECT_EQ(FileIO::TruncSeek(nullptr, 0, SEEK_SET), -1);
}

TEST(ReadFileContentIntoBuffer, ReadsOneItem) {
    const ScratchDir dir;
    const File file = openFile(dir.file("a.ts", "12345"));
    unsigned char bytes[8] = {};
    EXPECT_EQ(FileIO::ReadFileContentIntoBuffer(file.get(), bytes, 3), 1);
    EXPECT_STREQ(reinterpret_cast<char*>(bytes), "123");
    EXPECT_EQ(FileIO::ReadFileContentIntoBuffer(file.get(), bytes, 3), 0) << "short read";
    EXPECT_EQ(FileIO::ReadFileContentIntoBuffer(nullptr, bytes, 3), 0);
    EXPECT_EQ(FileIO::ReadFileContentIntoBuffer(file.get(), nullptr, 3), 0);
}

TEST(AppendPrefix, PutsThePrefixBeforeTheFileName) {
    EXPECT_EQ(prefixed("/a/b/c.ts", "X_"), "/a/b/X_c.ts");
    EXPECT_EQ(prefixed("/a/b/c.ts", ""), "/a/b/c.ts");
    EXPECT_EQ(prefixed("/c.ts", "X"), "Xc.ts") << "the directory part is empty once its separator is cut";
    EXPECT_EQ(prefixed("/a/dir", "X"), "/a/dir/Xdir");
    EXPECT_EQ(prefixed("", "X"), "X");
    EXPECT_EQ(prefixed(nullptr, nullptr), "");
}

TEST(AppendPrefix, BareFileNameIsKeptAsItsDirectory) {
    EXPECT_EQ(prefixed("a.ts", "X"), "a.ts/Xa.ts");
}

TEST(AppendPrefix, IsCutAtEveryCapacity) {
    const std::string whole = "/a/b/X_c.ts";
    for (int capacity = 1; capacity <= 20; ++capacity)
        EXPECT_EQ(prefixed("/a/b/c.ts", "X_", capacity),
                  whole.substr(0, static_cast<std::size_t>(capacity - 1)));
    char untouched = 'x';
    FileIO::AppendPrefix("/a/b.ts", "X", &untouched, 0);
    FileIO::AppendPrefix("/a/b.ts", "X", &untouched, -5);
    EXPECT_EQ(untouched, 'x');
    FileIO::AppendPrefix("/a/b.ts", "X", nullptr, 10);
}

TEST(AppendPrefix, TakesAtMost260CharactersOfTheName) {
    std::string name(300, 'n');
    name += ".ts";
    EXPECT_EQ(prefixed(("/a/" + name).c_str(), "X"), "/a/X" + std::string(260, 'n'));
}

TEST(ChangeFileNameExtension, ReplacesFromTheLastDot) {
    EXPECT_EQ(newExtension("/a/b/c.ts"), "/a/b/c.raw.mpg");
    EXPECT_EQ(newExtension("c.x.ts"), "c.x.raw.mpg");
    EXPECT_EQ(newExtension("/a.b/c"), "/a.raw.mpg") << "the last dot may stand in a directory's name";
    EXPECT_EQ(newExtension("c"), "c.raw.mpg");
    EXPECT_EQ(newExtension(""), ".raw.mpg");
    EXPECT_EQ(newExtension(nullptr), ".raw.mpg");
    FileIO::ChangeFileNameExtension("a.ts", nullptr);
}

class PartialFileCopy : public testing::Test {
protected:
    int copy(long offset, long length) {
        return FileIO::PartialFileCopy(m_source.c_str(), m_target.c_str(), offset, length);
    }

    const ScratchDir m_dir;
    const std::string m_bytes = pattern(200'000);
    const std::string m_source = m_dir.file("src.ts", m_bytes);
    const std::string m_target = m_dir.path("dst.ts");
};

TEST_F(PartialFileCopy, CopiesTheWholeFile) {
    EXPECT_EQ(copy(0, -1), 0);
    EXPECT_EQ(contentOf(m_target), m_bytes);
}

TEST_F(PartialFileCopy, CopiesAPartAcrossChunks) {
    for (const long length : {0L, 1L, 65535L, 65536L, 65537L, 131072L, 150000L}) {
        EXPECT_EQ(copy(1000, length), 0) << length;
        EXPECT_EQ(contentOf(m_target), m_bytes.substr(1000, static_cast<std::size_t>(length))) << length;
    }
}

TEST_F(PartialFileCopy, CopiesUpToTheEnd) {
    EXPECT_EQ(copy(199'990, -1), 0);
    EXPECT_EQ(contentOf(m_target), m_bytes.substr(199'990));
    EXPECT_EQ(copy(199'990, 10), 0);
    EXPECT_EQ(contentOf(m_target), m_bytes.substr(199'990));
}

TEST_F(PartialFileCopy, ReplacesAnOlderTarget) {
    m_dir.file("dst.ts", std::string(1000, 'o')).clear();
    EXPECT_EQ(copy(0, 3), 0);
    EXPECT_EQ(contentOf(m_target), m_bytes.substr(0, 3));
}

TEST_F(PartialFileCopy, CopiesFromBeyond4Gigabytes) {
    const std::string large = m_dir.file("large.ts", "");
    fs::resize_file(large, 5'000'000'000);
    std::ofstream(large, std::ios::app) << "tail";
    EXPECT_EQ(FileIO::PartialFileCopy(large.c_str(), m_target.c_str(), 5'000'000'000, -1), 0);
    EXPECT_EQ(contentOf(m_target), "tail");
}

TEST_F(PartialFileCopy, NullPathsAreMinus5AndMinus6) {
    EXPECT_EQ(FileIO::PartialFileCopy(nullptr, nullptr, 0, -1), -5);
    EXPECT_EQ(FileIO::PartialFileCopy(m_source.c_str(), nullptr, 0, -1), -6);
}

TEST_F(PartialFileCopy, UnknownSizeIsMinus10) {
    EXPECT_EQ(FileIO::PartialFileCopy(m_dir.path("missing").c_str(), m_target.c_str(), 0, -1), -10);
}

TEST_F(PartialFileCopy, OffsetAtOrBeyondTheEndIsMinus11) {
    EXPECT_EQ(copy(200'000, -1), -11);
    EXPECT_EQ(copy(200'001, 1), -11);
    EXPECT_EQ(copy(LONG_MAX, LONG_MAX), -11);
    EXPECT_FALSE(fs::exists(m_target));
}

TEST_F(PartialFileCopy, TooFewBytesAreMinus12) {
    EXPECT_EQ(copy(199'990, 11), -12);
    EXPECT_EQ(copy(0, 200'001), -12);
    EXPECT_EQ(copy(1, LONG_MAX), -12);
    EXPECT_FALSE(fs::exists(m_target));
}

TEST_F(PartialFileCopy, SourceThatCannotBeOpenedIsMinus20) {
    if (::geteuid() != 0) {
        fs::permissions(m_source, fs::perms::none);
        EXPECT_EQ(copy(0, -1), -20);
        fs::permissions(m_source, fs::perms::owner_all);
    }
    // A socket has a status but cannot be opened; its size of 0 lies beyond an offset of -1.
    const std::string node = m_dir.path("node");
    ASSERT_EQ(::mknod(node.c_str(), S_IFSOCK | 0600, 0), 0);
    EXPECT_EQ(FileIO::PartialFileCopy(node.c_str(), m_target.c_str(), -1, 0), -20);
    EXPECT_FALSE(fs::exists(m_target));
}

TEST_F(PartialFileCopy, TargetThatCannotBeOpenedIsMinus30) {
    EXPECT_EQ(FileIO::PartialFileCopy(m_source.c_str(), m_dir.path("no/dst.ts").c_str(), 0, -1), -30);
    EXPECT_EQ(FileIO::PartialFileCopy(m_source.c_str(), m_dir.path("").c_str(), 0, -1), -30);
}

TEST_F(PartialFileCopy, FileIsNotCopiedOntoItself) {
    EXPECT_EQ(FileIO::PartialFileCopy(m_source.c_str(), m_source.c_str(), 0, -1), -30);
    EXPECT_EQ(contentOf(m_source), m_bytes);
}

TEST_F(PartialFileCopy, NegativeOffsetIsAFailedSeek) {
    EXPECT_EQ(copy(-1, -1), -40);
    EXPECT_EQ(copy(-1, 10), -40);
    EXPECT_EQ(copy(LONG_MIN, -1), -40);
    EXPECT_EQ(copy(LONG_MIN, LONG_MIN), -40);
}

TEST_F(PartialFileCopy, UnreadableContentIsMinus50) {
    // A directory has a size and can be opened, but not read.
    EXPECT_EQ(FileIO::PartialFileCopy("/tmp", m_target.c_str(), 0, -1), -50);
}

TEST_F(PartialFileCopy, FullDiskIsMinus60) {
    EXPECT_EQ(FileIO::PartialFileCopy(m_source.c_str(), "/dev/full", 0, -1), -60);
}

TEST_F(PartialFileCopy, LengthBelowMinus1CopiesNothing) {
    EXPECT_EQ(copy(0, -2), 0);
    EXPECT_EQ(contentOf(m_target), "");
}

} // namespace
