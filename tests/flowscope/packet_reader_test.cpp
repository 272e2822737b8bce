// Packets behind damage: what is handed out, and what is passed over.
#include "flowscope/PacketReader.h"
#include "foundation/ScratchDir.h"
#include "foundation/UniqueFd.h"
#include "mpeg/ts_maker.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <random>

using namespace kestrel::flowscope;

namespace {

// Each with its number behind the header.
Bytes packets(int count, int first = 0) {
    Bytes bytes;
    for (int i = first; i < first + count; ++i) {
        Bytes one(188, 0x55);
        one[0] = 0x47;
        one[4] = static_cast<unsigned char>(i >> 8);
        one[5] = static_cast<unsigned char>(i);
        bytes = std::move(bytes) + one;
    }
    return bytes;
}

struct Read {
    std::vector<int> numbers;
    std::vector<std::pair<std::size_t, std::size_t>> strays; // position and bytes
    std::size_t cut = 0;                                     // bytes of a packet in which the file ends
};

Read readAll(const Bytes& bytes) {
    const ScratchDir directory;
    const kestrel::UniqueFd fd(
        open(directory.file("in.ts", std::string(bytes.begin(), bytes.end())).c_str(), O_RDONLY | O_CLOEXEC));
    PacketReader reader(fd.get());
    Read read;
    while (!reader.ended()) {
        const unsigned char* const packet = reader.next();
        if (const auto stray = reader.takeStray())
            read.strays.emplace_back(stray->position, stray->bytes);
        if (packet != nullptr)
            read.numbers.push_back(packet[4] << 8 | packet[5]);
    }
    EXPECT_EQ(reader.error(), 0);
    read.cut = reader.cutPacket().size();
    EXPECT_TRUE(read.cut == 0 || reader.cutPacket()[0] == 0x47);
    return read;
}

using Strays = std::vector<std::pair<std::size_t, std::size_t>>;

std::vector<int> from(int first, int end) {
    std::vector<int> numbers;
    for (int i = first; i < end; ++i)
        numbers.push_back(i);
    return numbers;
}

TEST(PacketReader, HandsOutWholePacketsOnly) {
    for (const std::size_t rest : {0U, 1U, 187U}) {
        const Read read = readAll(packets(5000) + Bytes(rest, 0x47));
        EXPECT_EQ(read.numbers, from(0, 5000)) << "beyond one buffer";
        EXPECT_TRUE(read.strays.empty());
        EXPECT_EQ(read.cut, rest);
    }
    EXPECT_TRUE(readAll({}).numbers.empty());
    EXPECT_TRUE(readAll(Bytes(187, 0x47)).numbers.empty());
    const Read read = readAll(packets(50) + Bytes(10, 0x11));
    EXPECT_EQ(read.numbers, from(0, 50));
    EXPECT_EQ(read.cut, 0U);
    EXPECT_EQ(read.strays, (Strays{{50 * 188, 10}})) << "no packet that was cut";
}

TEST(PacketReader, HandsOutAPacketWhoseSyncByteAloneIsDamaged) {
    for (const std::size_t damaged : {0U, 1U, 3U, 50U, 98U, 99U}) {
        Bytes bytes = packets(100);
        bytes[188 * damaged] = 0;
        const Read read = readAll(bytes);
        EXPECT_EQ(read.numbers, from(0, 100)) << damaged;
        EXPECT_TRUE(read.strays.empty());
    }
}

TEST(PacketReader, FindsThePacketsBehindBytesThatAreNone) {
    for (const std::size_t more : {1U, 100U, 187U, 188U * 10, 50'001U, 3'000'000U}) {
        const Read read = readAll(packets(50) + Bytes(more, 0x11) + packets(50, 50));
        EXPECT_EQ(read.numbers, from(0, 100)) << more;
        EXPECT_EQ(read.strays, (Strays{{50 * 188, more}}));
    }
}

TEST(PacketReader, FindsThePacketsBehindBytesThatAreMissing) {
    for (const std::size_t missing : {1U, 100U, 187U}) {
        Bytes bytes = packets(100);
        bytes.erase(bytes.begin() + 50 * 188 + 1, bytes.begin() + 50 * 188 + 1 + static_cast<long>(missing));
        const Read read = readAll(bytes);
        // The packet that is cut alone.
        ASSERT_EQ(read.numbers.size(), 99U);
        EXPECT_EQ(std::vector<int>(read.numbers.begin() + 50, read.numbers.end()), from(51, 100));
        EXPECT_EQ(read.strays, (Strays{{50 * 188, 188 - missing}}));
    }
}

TEST(PacketReader, TakesNoSyncByteForAPacketBehindWhichTheOthersAreNot) {
    // What is too many begins like a packet, or holds what does.
    for (const std::size_t more : {1U, 2U, 100U, 187U})
        for (const std::size_t at : {std::size_t{0}, more / 2, more - 1}) {
            Bytes stray(more, 0x11);
            stray[at] = 0x47;
            const Read read = readAll(packets(50) + stray + packets(50, 50));
            EXPECT_EQ(read.numbers, from(0, 100)) << more << ", " << at;
            EXPECT_EQ(read.strays, (Strays{{50 * 188, more}}));
        }
    // While a place is sought, and at the beginning of a file: one, two and four 188 bytes apart.
    for (const int run : {1, 2, 4})
        for (const int before : {0, 50}) {
            Bytes stray(5'000, 0x11);
            for (int i = 0; i < run; ++i)
                stray[static_cast<std::size_t>(1'000 + 188 * i)] = 0x47;
            const Read read = readAll(packets(before) + stray + packets(50, before));
            EXPECT_EQ(read.numbers, from(0, before + 50)) << run;
            EXPECT_EQ(read.strays, (Strays{{static_cast<std::size_t>(before) * 188, 5'000}}));
        }
    // A file that begins with one that is none.
    const Read read = readAll(Bytes{0x47} + Bytes(299, 0x11) + packets(50));
    EXPECT_EQ(read.numbers, from(0, 50));
    EXPECT_EQ(read.strays, (Strays{{0, 300}}));
}

TEST(PacketReader, PassesOverAnEndThatIsNoPackets) {
    const Read read = readAll(packets(50) + Bytes(10'000, 0));
    EXPECT_EQ(read.numbers, from(0, 50));
    EXPECT_EQ(read.strays, (Strays{{50 * 188, 10'000}}));
}

TEST(PacketReader, FindsTheFirstPacketBehindThePartOfAnother) {
    const Read read = readAll(Bytes(100, 0x22) + packets(50));
    EXPECT_EQ(read.numbers, from(0, 50));
    EXPECT_EQ(read.strays, (Strays{{0, 100}}));
}

TEST(PacketReader, EndsOnWhateverBytes) {
    std::mt19937 random(7);
    for (int round = 0; round < 20; ++round) {
        Bytes bytes(random() % 600'000);
        for (unsigned char& byte : bytes)
            byte = static_cast<unsigned char>(random() % 4 == 0 ? 0x47 : random());
        const Read read = readAll(bytes);
        std::size_t told = read.numbers.size() * 188;
        for (const auto& stray : read.strays)
            told += stray.second;
        EXPECT_LE(told, bytes.size());
        EXPECT_GT(told + 188, bytes.size()) << "each byte is a packet's or a stray one";
    }
}

TEST(PacketReader, TellsAReadThatFails) {
    const ScratchDir directory;
    const kestrel::UniqueFd fd(open(directory.path("").c_str(), O_RDONLY | O_CLOEXEC | O_DIRECTORY));
    PacketReader reader(fd.get());
    EXPECT_EQ(reader.next(), nullptr);
    EXPECT_TRUE(reader.ended());
    EXPECT_EQ(reader.error(), EISDIR);
}

TEST(FindPackets, WantsARunOfThem) {
    const Bytes five = Bytes(33, 0) + packets(5);
    EXPECT_EQ(findPackets(five.data(), five.size(), 188), 33U);
    const Bytes four = Bytes(33, 0) + packets(4);
    EXPECT_EQ(findPackets(four.data(), four.size(), 188), std::nullopt);
    EXPECT_EQ(findPackets(four.data(), four.size(), 188, 2), 33U) << "the end cuts the run short";
    EXPECT_EQ(findPackets(five.data(), five.size(), 192), std::nullopt);
    EXPECT_EQ(findPackets(nullptr, 0, 188), std::nullopt);
}

} // namespace
