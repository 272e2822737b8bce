// The program tables that hold before a place in a file, and how far back they are looked for.
#include "capture/TablesBefore.h"
#include "capture/normalize_streams.h"

#include <algorithm>
#include <array>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace capture_test;
using namespace kestrel::capture;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr std::uint64_t reach = std::uint64_t{358'400} * 188; // 64 MB

class TablesBefore : public testing::Test {
protected:
    void put(const Packets& packets) {
        for (const Packet& packet : packets)
            m_out.write(reinterpret_cast<const char*>(packet.data()), 188);
        m_bytes += packets.size() * 188;
    }
    void putFilling(std::uint64_t packets) {
        const Packets block(800, nullPacket());
        for (; packets > 0; packets -= std::min<std::uint64_t>(packets, block.size()))
            put(Packets(block.begin(),
                        block.begin() + static_cast<std::ptrdiff_t>(std::min<std::uint64_t>(packets, 800))));
    }
    // The PIDs of the tables that hold at the end of the file, in their order.
    std::vector<int> pids() {
        m_out.flush();
        SourceFile file;
        EXPECT_FALSE(file.open(m_directory.path("source.ts")));
        const std::atomic<bool> never{false};
        Packets packets;
        const MaybeFailure failed = tablesBefore(file, m_bytes, never, packets);
        EXPECT_FALSE(failed) << failed->text;
        std::vector<int> found(packets.size());
        std::ranges::transform(packets, found.begin(), [](const Packet& packet) { return pid(packet); });
        return found;
    }

private:
    TemporaryDirectory m_directory;
    std::ofstream m_out{m_directory.path("source.ts"), std::ios::binary};
    std::uint64_t m_bytes = 0;
};

TEST_F(TablesBefore, AreFound64MegabytesBefore) {
    putFilling(10);
    put(sectionPackets(0, patSection({{}})));
    put(sectionPackets(0x1000, pmtSection({})));
    putFilling(reach / 188 - 2);
    EXPECT_THAT(pids(), ElementsAre(0, 0x1000));
}

TEST_F(TablesBefore, AreNotFoundFurtherBefore) {
    putFilling(10);
    put(sectionPackets(0, patSection({{}})));
    put(sectionPackets(0x1000, pmtSection({})));
    putFilling(reach / 188 - 1);
    EXPECT_THAT(pids(), IsEmpty());
}

// It is looked for, and what is known of the others is given all the same.
TEST_F(TablesBefore, AreThoseThereAreWhereThePatNamesAPmtThatNeverComes) {
    for (int i = 0; i < 2; ++i) {
        put(sectionPackets(0, patSection({{.number = 1, .pmtPid = 0x1001}, {.number = 2}}), i));
        put(sectionPackets(0x1000, pmtSection({.number = 2}), i));
        putFilling(10'000);
    }
    EXPECT_THAT(pids(), ElementsAre(0, 0x1000));
}

TEST_F(TablesBefore, AreNoneWhereTheOnlyPmtNeverComes) {
    put(sectionPackets(0, patSection({{}})));
    putFilling(10'000);
    EXPECT_THAT(pids(), IsEmpty());
}

} // namespace
