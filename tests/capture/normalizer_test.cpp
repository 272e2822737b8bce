// The normalizer, packet for packet.
#include "capture/normalize_streams.h"
#include "streams/gop_reader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace capture_test;
using kestrel::capture::SourceShape;
using kestrel::test::gopsOf;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

constexpr std::int64_t millisecond = 27'000;

std::vector<std::string> timecodes(const Bytes& file, int pid = 0x100) {
    std::vector<std::string> texts;
    for (const auto& gop : gopsOf(file, pid))
        texts.push_back(gop.text());
    return texts;
}

// Appends packets with counters that go on, PID by PID.
class Mux {
public:
    void tables(const std::vector<Program>& programs, int version = 0) {
        section(0, patSection(programs, version));
        for (const Program& program : programs)
            section(program.pmtPid, pmtSection(program));
    }
    void section(int pid, const Bytes& bytes) {
        for (const Packet& packet : sectionPackets(pid, bytes))
            put(packet);
    }
    void add(PacketShape shape, const Bytes& payload = {}) { put(makePacket(shape, payload)); }
    void put(Packet packet) {
        int& counter = m_counters[static_cast<std::size_t>(pid(packet))];
        if (packet[3] & 0x10)
            counter = (counter + 1) & 15;
        packet[3] = static_cast<unsigned char>((packet[3] & 0xF0) | counter);
        packets.push_back(packet);
    }
    Packets packets;

private:
    std::array<int, 8192> m_counters{};
};

// Video with PCRs so far apart, and so many packets each, the tables only at the beginning.
Mux clockedStream(const Program& program, int pcrPackets, std::int64_t pcrStep, int packetsEach) {
    Mux mux;
    mux.tables({program});
    for (int i = 0; i < pcrPackets; ++i) {
        mux.add({.pid = program.pcrPid, .pcr = i * pcrStep});
        for (int more = 1; more < packetsEach; ++more)
            mux.add({.pid = program.videoPid});
    }
    return mux;
}

TEST(Normalizer, LeavesACleanStreamAsItIs) {
    const Packets source = StreamBuilder({.rateCode = 3}).frames(1); // one GOP, at 10:00:00:00
    Normalized result = normalize(source);
    ASSERT_TRUE(result.finished);
    ASSERT_EQ(result.packets.size(), source.size());
    const auto gops = gopsOf(joined(source), videoPid);
    Bytes expected = joined(source);
    for (const std::size_t at : gops.at(0).positions)
        expected[at] = result.bytes[at];
    EXPECT_EQ(result.bytes, expected);
    EXPECT_EQ(result.counts.renumbered, 0U);
    EXPECT_THAT(timecodes(result.bytes), ElementsAre("00:00:00:00"));
}

TEST(Normalizer, RebasesGopTimecodesOfTheWholeFileToZero) {
    Mux mux;
    mux.tables({{}});
    for (int second = 0; second < 5; ++second) {
        mux.add({.start = true}, pesWithGop(10, 59, 58 + second / 10, second));
        mux.add({});
    }
    // The last one begins in the last packet of all.
    mux.add({.start = true}, pesWithGop(11, 0, 3, 7));
    EXPECT_THAT(timecodes(normalize(mux.packets).bytes),
                ElementsAre("00:00:00:00", "00:00:00:01", "00:00:00:02", "00:00:00:03", "00:00:00:04",
                            "00:00:05:07"));
}

TEST(Normalizer, RebasesAGopHeaderThatLiesInTwoPackets) {
    for (std::size_t stuffing = 110; stuffing < 160; ++stuffing) {
        Mux mux;
        mux.tables({{}});
        for (int gop = 0; gop < 2; ++gop) {
            Bytes pes = pesWithGop(1, 2, 3, 4 + gop, stuffing);
            pes.resize(368, 0x20);
            mux.add({.start = true}, Bytes(pes.begin(), pes.begin() + 184));
            mux.add({.pid = 0x300});
            mux.add({}, Bytes(pes.begin() + 184, pes.end()));
        }
        const Bytes bytes = normalize(mux.packets).bytes;
        EXPECT_THAT(timecodes(bytes), ElementsAre("00:00:00:00", "00:00:00:01")) << stuffing;
    }
}

TEST(Normalizer, KeepsClosedGopAndTheOrderOfAllPackets) {
    const Packets source = StreamBuilder().frames(30);
    const Normalized result = normalize(source);
    ASSERT_EQ(result.packets.size() - result.counts.tables, source.size());
    for (const auto& gop : gopsOf(result.bytes, videoPid))
        EXPECT_TRUE(gop.closed);
}

TEST(Normalizer, RebasesEachProgramsVideoByItself) {
    const Program first{};
    const Program second{.number = 2, .pmtPid = 0x1001, .pcrPid = 0x200, .videoPid = 0x200, .videoType = 1};
    Mux mux;
    mux.tables({first, second});
    for (int i = 0; i < 3; ++i) {
        mux.add({.pid = 0x100, .start = true}, pesWithGop(10, 0, i, 0));
        mux.add({.pid = 0x200, .start = true}, pesWithGop(20, 30, 2 * i, 12));
    }
    const Bytes bytes = normalize(mux.packets).bytes;
    EXPECT_THAT(timecodes(bytes, 0x100), ElementsAre("00:00:00:00", "00:00:01:00", "00:00:02:00"));
    EXPECT_THAT(timecodes(bytes, 0x200), ElementsAre("00:00:00:00", "00:00:02:00", "00:00:04:00"));
}

TEST(Normalizer, RebasesVideoThatComesBeforeTheTables) {
    Mux mux;
    mux.add({.start = true}, pesWithGop(10, 0, 0, 0));
    mux.add({});
    mux.tables({{}});
    mux.add({.start = true}, pesWithGop(10, 0, 1, 0));
    EXPECT_THAT(timecodes(normalize(mux.packets).bytes), ElementsAre("00:00:00:00", "00:00:01:00"));
}

TEST(Normalizer, RebasesVideoThatComesLongBeforeTheMapOfItsProgram) {
    const Program first{};
    const Program second{.number = 2, .pmtPid = 0x1001, .pcrPid = 0x200, .videoPid = 0x200};
    Mux mux;
    mux.section(0, patSection({first, second}));
    mux.section(first.pmtPid, pmtSection(first));
    const auto gops = [&](int from) {
        for (int at = from; at < from + 2; ++at) {
            mux.add({.pid = 0x100, .start = true}, pesWithGop(10, 0, at, 0));
            mux.add({.pid = 0x200, .start = true}, pesWithGop(20, 30, at, 12));
        }
    };
    gops(0);
    while (mux.packets.size() * sizeof(Packet) <= kestrel::capture::shapeSearchBytes)
        mux.add({.pid = 0x300});
    gops(2);
    mux.section(second.pmtPid, pmtSection(second));
    gops(4);
    for (const std::size_t chunk : {std::size_t{100'000}, SIZE_MAX}) {
        const Bytes bytes = normalize(joined(mux.packets), false, chunk).bytes;
        for (const int video : {0x100, 0x200})
            EXPECT_THAT(timecodes(bytes, video), ElementsAre("00:00:00:00", "00:00:01:00", "00:00:02:00",
                                                             "00:00:03:00", "00:00:04:00", "00:00:05:00"))
                << video << " in pieces of " << chunk;
    }
}

TEST(Normalizer, TouchesNoBytesOfOtherStreamTypesAndScrambledOnes) {
    for (const int type : {0x1B, 0x0F}) {
        Mux mux;
        mux.tables({{.videoType = type}});
        mux.add({.start = true}, pesWithGop(10, 0, 0, 0));
        EXPECT_THAT(timecodes(normalize(mux.packets).bytes), ElementsAre("10:00:00:00")) << type;
    }
    Mux mux;
    mux.tables({{}});
    mux.add({.start = true}, pesWithGop(10, 0, 0, 0));
    mux.packets.back()[3] |= 0x80;
    EXPECT_THAT(timecodes(normalize(mux.packets).bytes), ElementsAre("10:00:00:00"));
}

TEST(Normalizer, FollowsAVideoPidThatTheProgramChangesTo) {
    Mux mux;
    mux.tables({{}});
    mux.add({.start = true}, pesWithGop(10, 0, 0, 0));
    mux.tables({{.videoPid = 0x180, .version = 1}});
    mux.add({.pid = 0x180, .start = true}, pesWithGop(11, 0, 0, 0));
    mux.add({.pid = 0x100, .start = true}, pesWithGop(12, 0, 0, 0)); // no video any more
    const Bytes bytes = normalize(mux.packets).bytes;
    EXPECT_THAT(timecodes(bytes, 0x100), ElementsAre("00:00:00:00", "12:00:00:00"));
    EXPECT_THAT(timecodes(bytes, 0x180), ElementsAre("00:00:00:00"));
}

TEST(Normalizer, NumbersCountersOfEachPidOnWithoutAGap) {
    Packets source = StreamBuilder().frames(40);
    const std::size_t all = source.size();
    source.erase(source.begin() + 30); // losses
    source.erase(source.begin() + 50, source.begin() + 55);
    ASSERT_GT(brokenCounters(source), 0);
    const Normalized result = normalize(source);
    EXPECT_EQ(brokenCounters(result.packets), 0);
    EXPECT_EQ(result.packets.size() - result.counts.tables, all - 6);
    EXPECT_GT(result.counts.renumbered, 0U);
    EXPECT_GT(result.counts.continuityErrors, 0U);
    EXPECT_THAT(result.log,
                testing::Contains(HasSubstr("continuity error of the source at packet 30: expected")));
}

TEST(Normalizer, LetsAPacketWithoutPayloadRepeatTheCounter) {
    Mux mux;
    mux.tables({{}});
    for (int i = 0; i < 20; ++i) {
        mux.add({});
        if (i % 3 == 0)
            mux.add({.payload = false, .pcr = i * millisecond});
    }
    Packets source = mux.packets;
    for (Packet& packet : source) // numbered wrongly altogether
        packet[3] = static_cast<unsigned char>((packet[3] & 0xF0) | ((packet[3] * 7 + 3) & 15));
    const Normalized result = normalize(source);
    EXPECT_EQ(brokenCounters(result.packets), 0);
    EXPECT_EQ(brokenCounters(mux.packets), 0);
}

TEST(Normalizer, BeginsWithAPacketWithoutPayloadAsIfOneHadBeenBefore) {
    const Normalized result = normalize({makePacket({.counter = 9, .payload = false}),
                                         makePacket({.counter = 4}), makePacket({.counter = 5})});
    ASSERT_EQ(result.packets.size(), 3U);
    EXPECT_EQ(result.packets[0][3] & 15, 9);
    EXPECT_EQ(result.packets[1][3] & 15, 10);
    EXPECT_EQ(result.packets[2][3] & 15, 11);
}

// 13818-1, 2.4.3.3: two, and only two, with all bytes the same but for the PCR.
TEST(Normalizer, GivesADuplicateTheCounterOfItsOriginal) {
    Mux mux;
    mux.tables({{}});
    for (int i = 0; i < 6; ++i)
        mux.add({.pcr = i % 2 == 0 ? i * millisecond : -1});
    Packets source = mux.packets;
    Packet twice = source[2]; // with another PCR
    twice[11] = static_cast<unsigned char>(twice[11] + 5);
    source.insert(source.begin() + 3, twice);
    source.insert(source.begin() + 5, source[4]);
    const Normalized result = normalize(source);
    EXPECT_EQ(result.counts.duplicates, 2U);
    EXPECT_EQ(result.counts.continuityErrors, 0U);
    EXPECT_EQ(result.bytes, joined(source));
}

TEST(Normalizer, CountsAThirdOfTheSameAsAPacketOfItsOwn) {
    Mux mux;
    mux.add({});
    const Packets source(5, mux.packets[0]);
    const Normalized result = normalize(source);
    std::vector<int> counters;
    for (const Packet& packet : result.packets)
        counters.push_back(packet[3] & 15);
    EXPECT_THAT(counters, ElementsAre(1, 1, 2, 2, 3));
}

TEST(Normalizer, TakesTheSameCounterWithOtherBytesForAnError) {
    Packets source{makePacket({.counter = 3}, Bytes(184, 1)), makePacket({.counter = 3}, Bytes(184, 2))};
    const Normalized result = normalize(source);
    EXPECT_EQ(result.counts.duplicates, 0U);
    EXPECT_EQ(result.counts.continuityErrors, 1U);
    EXPECT_EQ(result.packets.at(1)[3] & 15, 4);
}

TEST(Normalizer, RewritesADuplicateLikeItsOriginal) {
    for (std::size_t stuffing = 110; stuffing < 160; ++stuffing) {
        Bytes pes = pesWithGop(1, 2, 3, 4, stuffing);
        pes.resize(368, 0x20);
        Mux mux;
        mux.tables({{}});
        mux.add({.start = true}, Bytes(pes.begin(), pes.begin() + 184));
        mux.packets.push_back(mux.packets.back());
        mux.add({}, Bytes(pes.begin() + 184, pes.end()));
        mux.packets.push_back(mux.packets.back());
        const Normalized result = normalize(mux.packets);
        ASSERT_EQ(result.packets.size(), 6U);
        EXPECT_EQ(result.packets[2], result.packets[3]) << stuffing;
        EXPECT_EQ(result.packets[4], result.packets[5]) << stuffing;
        Bytes once = result.bytes;
        once.erase(once.begin() + 5 * 188, once.end());
        once.erase(once.begin() + 3 * 188, once.begin() + 4 * 188);
        EXPECT_THAT(timecodes(once), ElementsAre("00:00:00:00")) << stuffing;
    }
}

TEST(Normalizer, DoesNotCountAnnouncedDiscontinuitiesAsErrors) {
    const Normalized result =
        normalize({makePacket({.counter = 3}), makePacket({.counter = 9, .discontinuity = true}),
                   makePacket({.counter = 10})});
    EXPECT_EQ(result.counts.continuityErrors, 0U);
    EXPECT_EQ(brokenCounters(result.packets), 0);
}

TEST(Normalizer, DropsNullPacketsUnlessTheyAreToStay) {
    Packets source = StreamBuilder().frames(10);
    const std::size_t others = source.size();
    for (std::size_t at = others; at >= 3; at -= 3)
        source.insert(source.begin() + static_cast<std::ptrdiff_t>(at), nullPacket());
    const Normalized dropped = normalize(source);
    EXPECT_EQ(dropped.counts.nulls, source.size() - others);
    EXPECT_EQ(dropped.packets.size() - dropped.counts.tables, others);
    const Normalized kept = normalize(source, true);
    EXPECT_EQ(kept.counts.nulls, 0U);
    EXPECT_EQ(kept.packets.size() - kept.counts.tables, source.size());
}

TEST(Normalizer, DropsPacketsWithTransportErrorsAndWithoutContent) {
    Packets source = StreamBuilder().frames(10);
    source[5][1] |= 0x80;
    source[9][3] &= 0xCF;
    const Normalized result = normalize(source);
    EXPECT_EQ(result.counts.transportErrors, 1U);
    EXPECT_EQ(result.counts.reserved, 1U);
    EXPECT_EQ(result.counts.written - result.counts.tables, source.size() - 2);
    EXPECT_EQ(brokenCounters(result.packets), 0);
    EXPECT_THAT(result.log, testing::Contains(HasSubstr("packet 5 dropped: transport error, PID 256")));
}

TEST(Normalizer, FindsPacketsAgainBehindForeignBytes) {
    const Packets clean = StreamBuilder().frames(20);
    const Bytes expected = normalize(clean).bytes;
    for (std::size_t size : {1U, 100U, 187U, 188U, 189U, 376U, 5000U}) {
        Bytes source = joined(clean);
        source.insert(source.begin() + 188 * 10, size, 0x47);
        const Normalized result = normalize(source);
        // As many 0x47 as a packet has look like one, but like one without content.
        EXPECT_EQ(result.counts.strayBytes + result.counts.reserved * 188, size);
        EXPECT_EQ(result.bytes, expected) << size;
        source = joined(clean);
        source.insert(source.begin() + 188 * 10, size, 0x11);
        const Normalized other = normalize(source);
        EXPECT_EQ(other.bytes, expected) << size;
        EXPECT_EQ(other.counts.strayBytes, size);
        EXPECT_EQ(other.counts.strayPlaces, 1U);
    }
}

TEST(Normalizer, LosesOnlyThePacketThatIsCut) {
    const Packets clean = StreamBuilder().frames(20);
    Bytes source = joined(clean);
    source.erase(source.begin() + 188 * 10 + 60, source.begin() + 188 * 10 + 100);
    const Normalized result = normalize(source);
    EXPECT_EQ(result.counts.taken, clean.size() - 1);
    EXPECT_EQ(result.counts.strayBytes, 148U);
    EXPECT_EQ(brokenCounters(result.packets), 0);
}

TEST(Normalizer, GivesTheSameWhateverPiecesTheSourceComesIn) {
    Packets packets = StreamBuilder().frames(60);
    packets.insert(packets.begin() + 20, nullPacket());
    Bytes source = joined(packets);
    source.insert(source.begin() + 188 * 25, 50, 0x47);
    const Bytes expected = normalize(source).bytes;
    for (const std::size_t chunk : {1U, 7U, 187U, 188U, 1000U})
        EXPECT_EQ(normalize(source, false, chunk).bytes, expected) << chunk;
}

TEST(Normalizer, TakesAFileCutAtAnyByte) {
    const Bytes source = joined(StreamBuilder().frames(2));
    for (std::size_t size = 0; size <= source.size(); ++size) {
        const Normalized result = normalize(std::span(source).first(size));
        EXPECT_EQ(result.finished, size >= 188) << size;
        EXPECT_EQ(result.counts.taken, size / 188) << size;
        EXPECT_EQ(result.bytes.size() / 188 - result.counts.tables, size / 188) << size;
    }
}

TEST(Normalizer, RefusesWhatIsNoTransportStream) {
    const Normalized text = normalize(Bytes(5000, 'x'));
    EXPECT_FALSE(text.finished);
    EXPECT_EQ(text.shape, SourceShape::other);
    EXPECT_TRUE(text.bytes.empty());
    const Normalized large = normalize(Bytes(3'000'000, 0));
    EXPECT_FALSE(large.finished);
    EXPECT_EQ(large.shape, SourceShape::other);
}

// Noise, with many of the bytes that mean something. Run under the address sanitizer, nothing is read
// outside.
TEST(Normalizer, ComesToTheEndOfAnyBytes) {
    unsigned seed = 7;
    const auto random = [&seed] { return seed = seed * 1664525 + 1013904223; };
    for (int round = 0; round < 60; ++round) {
        Packets packets(400);
        for (Packet& packet : packets) {
            for (unsigned char& byte : packet)
                byte = (random() >> 28) < 4 ? static_cast<unsigned char>(random() >> 30)
                                            : static_cast<unsigned char>(random() >> 16);
            packet[0] = 0x47;
            packet[1] = static_cast<unsigned char>(packet[1] & 0x43); // few PIDs, many of them tables
            packet[2] = static_cast<unsigned char>(packet[2] & 0x03);
        }
        const Packets tables =
            sectionPackets(0, patSection({{.pmtPid = 0x101}, {.number = 2, .pmtPid = 0x102}}));
        packets.insert(packets.begin(), tables.begin(), tables.end());
        const Normalized result = normalize(packets);
        EXPECT_TRUE(result.finished);
        EXPECT_EQ(result.bytes.size() % 188, 0U);
        EXPECT_EQ(brokenCounters(result.packets), 0);
    }
}

// Every packet claims that a second has passed: the tables that would need must not swell the file without
// end.
TEST(Normalizer, BoundsTheTablesThatAClockCanAskFor) {
    const Program program{.descriptorBytes = 900};
    const Mux mux = clockedStream(program, 20'000, 900 * millisecond, 1);
    const Normalized result = normalize(mux.packets);
    EXPECT_TRUE(result.finished);
    EXPECT_LT(result.packets.size(), 4 * mux.packets.size() + 10'000);
    EXPECT_GT(result.counts.tablesLeftOut, 0U);
    EXPECT_THAT(result.log, testing::Contains(HasSubstr("PAT and PMT are not repeated any more")));
}

// A video PID, or the clock, that goes silent for good holds nothing back for ever.
TEST(Normalizer, GoesOnWhenAPidFallsSilent) {
    Mux mux;
    mux.tables({{}});
    mux.add({.start = true, .pcr = 0}, {});
    mux.add({.start = true}, pesWithGop(10, 0, 0, 0));
    for (int i = 0; i < 120'000; ++i)
        mux.add({.pid = 0x300});
    const Bytes source = joined(mux.packets);
    std::size_t most = 0;
    std::size_t given = 0;
    std::size_t taken = 0;
    kestrel::capture::Normalizer normalizer(false, [&](std::span<const unsigned char> packets) {
        given += packets.size();
        return true;
    });
    for (std::size_t done = 0; done < source.size();) {
        const auto room = normalizer.room();
        const std::size_t part = std::min(room.size(), source.size() - done);
        std::copy_n(source.begin() + static_cast<std::ptrdiff_t>(done), part, room.begin());
        ASSERT_TRUE(normalizer.take(part));
        done += part;
        taken += part;
        most = std::max(most, taken - given);
    }
    EXPECT_TRUE(normalizer.finish());
    EXPECT_EQ(given, source.size());
    EXPECT_LT(most, 12'000'000U);
}

TEST(Normalizer, EndsWhenTheSinkWantsNoMore) {
    const Bytes source = joined(StreamBuilder().frames(2000));
    kestrel::capture::Normalizer normalizer(false, [](std::span<const unsigned char>) { return false; });
    std::size_t done = 0;
    bool going = true;
    while (going && done < source.size()) {
        const auto room = normalizer.room();
        const std::size_t part = std::min(room.size(), source.size() - done);
        std::copy_n(source.begin() + static_cast<std::ptrdiff_t>(done), part, room.begin());
        going = normalizer.take(part);
        done += part;
    }
    EXPECT_FALSE(going && normalizer.finish());
}

TEST(Normalizer, CountsTheFramesOfTheFirstProgram) {
    EXPECT_EQ(normalize(StreamBuilder().frames(77)).frames, 77U);
    EXPECT_EQ(normalize(StreamBuilder({.fieldPictures = true}).frames(20)).frames, 20U);
    EXPECT_EQ(normalize(StreamBuilder({.avc = true}).frames(30)).frames, 30U);
}

} // namespace
