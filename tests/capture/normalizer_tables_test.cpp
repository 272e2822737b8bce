// PAT and PMT in a normalized stream: never further apart than 100 ms of its own time.
#include "capture/normalize_streams.h"

#include "capture/PacketSync.h"

#include <algorithm>
#include <climits>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace capture_test;

namespace {

constexpr std::int64_t millisecond = 27'000;
constexpr double most = 100;

// Appends packets of programs whose PCRs are this far apart; each PCR is followed by so many packets.
struct Clocked {
    std::vector<Program> programs{{}};
    std::int64_t begin = 0;
    std::int64_t step = 40 * millisecond;
    int pcrCount = 100;
    int packetsEach = 50;
    int nullsEach = 0; // all at one place, so that the rate without them is uneven
    bool tablesAgain = false;
};

Packets stream(const Clocked& shape) {
    Packets packets;
    std::array<int, 8192> counters{};
    const auto put = [&](Packet packet) {
        int& counter = counters[static_cast<std::size_t>(pid(packet))];
        packet[3] = static_cast<unsigned char>((packet[3] & 0xF0) | (counter & 15));
        counter += (packet[3] & 0x10) ? 1 : 0;
        packets.push_back(packet);
    };
    const auto tables = [&] {
        for (const Packet& packet : sectionPackets(0, patSection(shape.programs)))
            put(packet);
        for (const Program& program : shape.programs)
            for (const Packet& packet : sectionPackets(program.pmtPid, pmtSection(program)))
                put(packet);
    };
    constexpr std::int64_t range = (std::int64_t{1} << 33) * 300;
    for (int i = 0; i < shape.pcrCount; ++i) {
        std::int64_t shift = 0;
        for (const Program& program : shape.programs) {
            put(makePacket({.pid = program.pcrPid, .pcr = (shape.begin + i * shape.step + shift) % range}));
            shift += 1000 * millisecond; // each has a time of its own
            if (i == 0)
                tables();
        }
        if (shape.tablesAgain && i % 10 == 9)
            tables();
        for (int more = 0; more < shape.packetsEach; ++more)
            put(makePacket({.pid = 0x300}));
        for (int more = 0; more < shape.nullsEach; ++more)
            put(nullPacket());
    }
    return packets;
}

int packetsOf(const Packets& packets, int number) {
    return static_cast<int>(std::count_if(packets.begin(), packets.end(),
                                          [&](const Packet& packet) { return pid(packet) == number; }));
}

void expectRepeated(const Clocked& shape, const char* what) {
    const Packets source = stream(shape);
    const Normalized result = normalize(source);
    for (const Program& program : shape.programs) {
        EXPECT_LE(longestTableGap(result.packets, 0, program.pcrPid), most) << what;
        EXPECT_LE(longestTableGap(result.packets, program.pmtPid, program.pcrPid), most) << what;
        EXPECT_GT(longestTableGap(result.packets, 0, program.pcrPid), 0) << what;
        EXPECT_EQ(pcrs(result.packets, program.pcrPid), pcrs(source, program.pcrPid)) << what;
    }
    EXPECT_EQ(brokenCounters(result.packets), 0) << what;
}

TEST(NormalizedTables, AreRepeatedWhereTheSourceHasThemOnce) {
    ASSERT_GT(longestTableGap(stream({}), 0, 0x100), most);
    expectRepeated({}, "every 40 ms");
    expectRepeated({.step = 20 * millisecond}, "every 20 ms");
    expectRepeated({.step = 99 * millisecond}, "every 99 ms");
}

TEST(NormalizedTables, AreRepeatedBetweenTwoPcrsThatAreTooFarApart) {
    expectRepeated({.step = 450 * millisecond, .packetsEach = 200}, "many packets between");
    expectRepeated({.step = 450 * millisecond, .packetsEach = 1}, "hardly any between");
}

TEST(NormalizedTables, AreRepeatedWhereNullPacketsAreDropped) {
    expectRepeated({.nullsEach = 200}, "nulls");
    expectRepeated({.step = 100 * millisecond, .packetsEach = 3, .nullsEach = 200}, "few others");
}

TEST(NormalizedTables, AreRepeatedForEachProgramByItsOwnClock) {
    const std::vector<Program> programs{
        {}, {.number = 2, .pmtPid = 0x1001, .pcrPid = 0x200, .videoPid = 0x200, .videoType = 0x1B}};
    expectRepeated({.programs = programs}, "two programs");
    expectRepeated({.programs = programs, .nullsEach = 100}, "two programs and nulls");
}

TEST(NormalizedTables, AreRepeatedThroughTheWrapOfTheClock) {
    expectRepeated({.begin = ((std::int64_t{1} << 33) - 90'000) * 300}, "wrap");
}

TEST(NormalizedTables, AreRepeatedInAllTheirPackets) {
    expectRepeated({.programs = {{.descriptorBytes = 700}}}, "a PMT of four packets");
    const Normalized result = normalize(stream({.programs = {{.descriptorBytes = 700}}}));
    EXPECT_EQ(packetsOf(result.packets, 0x1000) % 4, 0);
    EXPECT_EQ(packetsOf(result.packets, 0x1000) / 4, packetsOf(result.packets, 0));
}

TEST(NormalizedTables, OfProgramsOnOnePidAreAllRepeated) {
    const Clocked shape{.programs = {{}, {.number = 2, .pcrPid = 0x200, .videoPid = 0x200}}};
    const Normalized result = normalize(stream(shape));
    EXPECT_EQ(packetsOf(result.packets, 0x1000), 2 * packetsOf(result.packets, 0));
    EXPECT_LE(longestTableGap(result.packets, 0, 0x100), most);
}

TEST(NormalizedTables, AreNotAddedWhereTheSourceHasEnough) {
    Packets source = stream({.step = 5 * millisecond, .tablesAgain = true});
    source.erase(source.begin()); // a PCR in front of the tables
    const Normalized result = normalize(source);
    EXPECT_EQ(result.counts.tables, 0U);
    EXPECT_EQ(result.packets, source);
}

TEST(NormalizedTables, AreCopiesOfTheLatest) {
    Clocked before;
    Clocked after{.programs = {{.videoType = 0x1B, .version = 3}}, .begin = 4000 * millisecond};
    Packets source = stream(before);
    const Packets more = stream(after);
    const std::size_t change = source.size();
    source.insert(source.end(), more.begin(), more.end());
    const Normalized result = normalize(source);
    bool changed = false;
    int old = 0;
    int fresh = 0;
    for (const Packet& packet : result.packets) {
        if (pid(packet) != 0x1000)
            continue;
        const bool isNew = (packet[10] >> 1 & 31) == 3;
        EXPECT_TRUE(isNew || !changed);
        changed = changed || isNew;
        (isNew ? fresh : old) += 1;
    }
    EXPECT_GT(old, 20);
    EXPECT_GT(fresh, 20);
    EXPECT_LT(change, result.packets.size());
}

Packets without(Packets packets, const std::function<bool(const Packet&)>& unwanted) {
    std::erase_if(packets, unwanted);
    return packets;
}
bool isTable(const Packet& packet) {
    return pid(packet) == 0 || pid(packet) == 0x1000;
}
// A stream whose first tables are missing: the next ones come 360 ms behind its beginning.
Packets cutStream(Clocked shape = {}) {
    shape.tablesAgain = true;
    Packets packets = stream(shape);
    const auto first = std::find_if(packets.begin(), packets.end(), isTable);
    packets.erase(first, first + 2);
    return packets;
}

// All but the tables, which may get other counters.
void expectTheRestUnchanged(const Packets& result, const Packets& source) {
    EXPECT_EQ(without(result, isTable), without(source, isTable));
}

TEST(NormalizedTables, StandInFrontWhereTheSourceWasCutBehindThem) {
    for (const bool keepNulls : {false, true}) {
        SCOPED_TRACE(keepNulls);
        Packets source = cutStream({.nullsEach = 20});
        source.insert(source.begin(), nullPacket());
        const Normalized result = normalize(source, keepNulls);
        ASSERT_GT(result.packets.size(), 2U);
        EXPECT_EQ(pid(result.packets[0]), 0);
        EXPECT_EQ(pid(result.packets[1]), 0x1000);
        EXPECT_EQ(brokenCounters(result.packets), 0);
        EXPECT_LE(longestTableGap(result.packets, 0, 0x100), most);
        EXPECT_LE(longestTableGap(result.packets, 0x1000, 0x100), most);
        EXPECT_EQ(result.counts.written, result.packets.size());
        const Packets wanted =
            keepNulls ? source : without(source, [](const Packet& packet) { return pid(packet) == 0x1FFF; });
        EXPECT_EQ(result.counts.tables, result.packets.size() - wanted.size());
        expectTheRestUnchanged(result.packets, wanted);
    }
}

TEST(NormalizedTables, StandInFrontOfFramesThatCountThen) {
    Packets source = StreamBuilder().frames(50);
    // Without those of the first 20 frames.
    int seen = 0;
    std::erase_if(source, [&](const Packet& packet) {
        seen += pictures({packet});
        return seen <= 20 && (pid(packet) == 0 || pid(packet) == pmtPid);
    });
    const Normalized result = normalize(source);
    ASSERT_EQ(pid(result.packets.front()), 0);
    EXPECT_EQ(pictures(result.packets), 50);
    EXPECT_EQ(result.frames, 50U);
}

TEST(NormalizedTables, StandInFrontWithoutAChangeToThoseOfTheSource) {
    const Packets source = cutStream({.step = 5 * millisecond});
    const Normalized result = normalize(source);
    EXPECT_EQ(result.counts.tables, 2U);
    EXPECT_EQ(result.counts.renumbered, 0U);
    ASSERT_EQ(result.packets.size(), source.size() + 2);
    EXPECT_EQ(Packets(result.packets.begin() + 2, result.packets.end()), source);
    EXPECT_EQ(brokenCounters(result.packets), 0);
}

TEST(NormalizedTables, StandInFrontWithoutAChangeToAMapThatComesBeforeThePatThatNamesIt) {
    // Cut between a PAT and its maps; the next is 57 ms behind the beginning.
    Packets source = cutStream({.step = 3 * millisecond});
    const auto pat = std::find_if(source.begin(), source.end(), isTable);
    ASSERT_EQ(pid(*pat), 0);
    ASSERT_GE(pat - source.begin(), 2);
    source.erase(pat);
    const auto map = std::find_if(source.begin(), source.end(), isTable);
    ASSERT_EQ(pid(*map), 0x1000);
    const Normalized result = normalize(source);
    EXPECT_EQ(result.counts.tables, 2U);
    EXPECT_EQ(result.counts.renumbered, 0U);
    ASSERT_EQ(result.packets.size(), source.size() + 2);
    EXPECT_EQ(pid(result.packets[0]), 0);
    EXPECT_EQ(pid(result.packets[1]), 0x1000);
    EXPECT_EQ(Packets(result.packets.begin() + 2, result.packets.end()), source);
    EXPECT_EQ(brokenCounters(result.packets), 0);
}

TEST(NormalizedTables, StandInFrontInAllTheirPacketsAndOfAllPrograms) {
    const std::vector<Program> programs{{.descriptorBytes = 700},
                                        {.number = 2, .pmtPid = 0x1001, .pcrPid = 0x200, .videoPid = 0x200}};
    Packets source = stream({.programs = programs});
    source.insert(source.begin(), makePacket({.pid = 0x100, .counter = 15}));
    const Normalized result = normalize(source);
    std::vector<int> first;
    for (std::size_t i = 0; i < 6; ++i)
        first.push_back(pid(result.packets.at(i)));
    EXPECT_EQ(first, (std::vector{0, 0x1000, 0x1000, 0x1000, 0x1000, 0x1001}));
    EXPECT_EQ(brokenCounters(result.packets), 0);
}

TEST(NormalizedTables, StandInFrontWhereThereIsNoClock) {
    Packets source = StreamBuilder({.avc = true}).frames(200);
    const auto picture =
        std::find_if(source.begin(), source.end(), [](const Packet& packet) { return !isTable(packet); });
    ASSERT_NE(picture, source.begin());
    source.erase(source.begin(), picture);
    const Normalized result = normalize(source);
    ASSERT_EQ(result.packets.size(), source.size() + 2);
    EXPECT_EQ(pid(result.packets[0]), 0);
    EXPECT_EQ(pid(result.packets[1]), 0x1000);
    EXPECT_EQ(Packets(result.packets.begin() + 2, result.packets.end()), source);
}

TEST(NormalizedTables, StandInFrontWhereTheFirstOnesAreFarBehind) {
    Packets source = stream({.pcrCount = 200});
    const auto begin = std::find_if(source.begin(), source.end(), isTable);
    const Packets tables(begin, begin + 2);
    source.erase(begin, begin + 2);
    source.insert(source.begin() + 8000, tables.begin(), tables.end());
    ASSERT_GT(8000 * sizeof(Packet), kestrel::capture::shapeSearchBytes);
    for (const std::size_t chunk : {std::size_t{100'000}, SIZE_MAX}) {
        const Normalized result = normalize(joined(source), false, chunk);
        EXPECT_EQ(pid(result.packets.at(0)), 0);
        EXPECT_EQ(pid(result.packets.at(1)), 0x1000);
        EXPECT_EQ(brokenCounters(result.packets), 0);
        EXPECT_LE(longestTableGap(result.packets, 0, 0x100), most);
        expectTheRestUnchanged(result.packets, source);
    }
}

const std::vector<Program> twoPrograms{{},
                                       {.number = 2, .pmtPid = 0x1001, .pcrPid = 0x200, .videoPid = 0x200}};
bool isSecondMap(const Packet& packet) {
    return pid(packet) == 0x1001;
}
// Two programs, without the first so many maps of the second; all other tables stand in front.
Packets lateMapStream(Clocked shape, int missing) {
    shape.programs = twoPrograms;
    shape.tablesAgain = true;
    Packets packets =
        without(stream(shape), [&](const Packet& packet) { return isSecondMap(packet) && missing-- > 0; });
    packets.erase(packets.begin(), std::find_if(packets.begin(), packets.end(), isTable));
    return packets;
}

TEST(NormalizedTables, StandInFrontWhereOnlyTheMapOfALaterProgramIsLate) {
    const Packets source = lateMapStream({.packetsEach = 20}, 3);
    const auto map = std::find_if(source.begin(), source.end(), isSecondMap);
    ASSERT_EQ(pcrs(Packets(source.begin(), map), 0x200).size(), 20U) << "0.8 s";
    for (const std::size_t chunk : {std::size_t{100'000}, SIZE_MAX}) {
        const Normalized result = normalize(joined(source), false, chunk);
        ASSERT_GT(result.packets.size(), source.size() + 3);
        EXPECT_EQ(pid(result.packets[0]), 0);
        EXPECT_EQ(pid(result.packets[1]), 0x1000);
        EXPECT_EQ(pid(result.packets[2]), 0x1001);
        EXPECT_EQ(brokenCounters(result.packets), 0);
        EXPECT_LE(longestTableGap(result.packets, 0x1001, 0x200), most);
        const auto isAnyTable = [](const Packet& packet) { return isTable(packet) || isSecondMap(packet); };
        EXPECT_EQ(without(result.packets, isAnyTable), without(source, isAnyTable));
    }
}

TEST(NormalizedTables, StandInFrontOfALateMapWithoutAChangeToThoseOfTheSource) {
    const Packets source = lateMapStream({.step = 5 * millisecond}, 2);
    ASSERT_EQ(std::find_if(source.begin(), source.begin() + 400, isSecondMap), source.begin() + 400);
    const Normalized result = normalize(source);
    EXPECT_EQ(result.counts.tables, 3U);
    EXPECT_EQ(result.counts.renumbered, 0U);
    ASSERT_EQ(result.packets.size(), source.size() + 3);
    EXPECT_EQ(Packets(result.packets.begin() + 3, result.packets.end()), source);
    EXPECT_EQ(brokenCounters(result.packets), 0);
}

TEST(NormalizedTables, AreNotAddedWhereTheMapOfALaterProgramNeverComes) {
    // Read ahead to the end, and in pieces as far as it goes.
    const std::pair<int, std::size_t> shapes[] = {{100, SIZE_MAX}, {1000, 100'000}};
    for (const auto& [pcrCount, chunk] : shapes) {
        const Packets source = lateMapStream({.step = 5 * millisecond, .pcrCount = pcrCount}, INT_MAX);
        const Normalized result = normalize(joined(source), false, chunk);
        EXPECT_EQ(result.counts.tables, 0U);
        EXPECT_EQ(result.packets, source);
    }
}

TEST(NormalizedTables, AreNotAddedBehindPacketsOfOtherTables) {
    Packets source = StreamBuilder({.avc = true}).frames(20);
    ASSERT_TRUE(isTable(source.front()));
    source.insert(source.begin(), {nullPacket(), makePacket({.pid = 0x11}), makePacket({.pid = 0x12})});
    EXPECT_EQ(normalize(source, true).packets, source);
}

TEST(NormalizedTables, AreNotAddedForAProgramThatIsNotThere) {
    const std::vector<Program> programs{{},
                                        {.number = 2, .pmtPid = 0x1001, .pcrPid = 0x200, .videoPid = 0x200}};
    Packets source = without(stream({.programs = programs, .step = 5 * millisecond, .tablesAgain = true}),
                             [](const Packet& packet) { return pid(packet) >= 0x200 && !isTable(packet); });
    while (!isTable(source.front()))
        source.erase(source.begin());
    const Normalized result = normalize(source);
    EXPECT_EQ(result.counts.tables, 0U);
    EXPECT_EQ(result.packets, source);
}

TEST(NormalizedTables, ThatNeverComeAreNotMadeUp) {
    const Packets source = without(stream({.pcrCount = 1000}), isTable);
    ASSERT_GT(source.size() * sizeof(Packet), 8'000'000U);
    for (const bool keepNulls : {false, true}) {
        const Normalized result = normalize(source, keepNulls);
        EXPECT_TRUE(result.finished);
        EXPECT_EQ(result.counts.tables, 0U);
        EXPECT_EQ(result.packets, source);
    }
    // Of a PAT whose PMT never comes at least the PAT is known.
    const Packets half = without(cutStream(), [](const Packet& packet) { return pid(packet) == 0x1000; });
    EXPECT_EQ(pid(normalize(half).packets.at(0)), 0);
    EXPECT_NE(pid(normalize(half).packets.at(1)), 0);
}

// A copy in the middle of a section that the source spreads over several packets would destroy it.
TEST(NormalizedTables, NeverInterruptASectionOfTheirPid) {
    const Program program{.descriptorBytes = 500};
    Packets source = stream({.programs = {program}, .pcrCount = 10});
    const Packets section = sectionPackets(program.pmtPid, pmtSection(program), 3);
    ASSERT_EQ(section.size(), 3U);
    // Its three packets come 200 ms apart.
    for (int i = 0; i < 3; ++i) {
        const Packets more =
            stream({.programs = {program}, .begin = (400 + i * 200) * millisecond, .pcrCount = 5});
        source.push_back(section[static_cast<std::size_t>(i)]);
        std::copy_if(more.begin(), more.end(), std::back_inserter(source),
                     [&](const Packet& packet) { return pid(packet) != 0 && pid(packet) != program.pmtPid; });
    }
    const Normalized result = normalize(source);
    Packets carriers;
    std::copy_if(result.packets.begin(), result.packets.end(), std::back_inserter(carriers),
                 [&](const Packet& packet) { return pid(packet) == program.pmtPid; });
    ASSERT_GT(carriers.size(), 6U);
    ASSERT_EQ(carriers.size() % 3, 0U);
    for (std::size_t i = 0; i < carriers.size(); ++i)
        EXPECT_EQ((carriers[i][1] & 0x40) != 0, i % 3 == 0) << i;
    EXPECT_EQ(brokenCounters(result.packets), 0);
}

TEST(NormalizedTables, AreLeftAsTheyAreWhereThereIsNoClock) {
    Packets source = StreamBuilder().frames(200); // without PCRs
    const Normalized result = normalize(source);
    EXPECT_EQ(result.counts.tables, 0U);
    EXPECT_EQ(result.packets.size(), source.size());
}

TEST(NormalizedTables, FollowTheNextClockWhenOneGoesSilent) {
    const std::vector<Program> programs{{},
                                        {.number = 2, .pmtPid = 0x1001, .pcrPid = 0x200, .videoPid = 0x200}};
    Packets source = stream({.programs = programs, .pcrCount = 3});
    const Packets rest = stream({.programs = {programs[1]}, .begin = 1120 * millisecond, .pcrCount = 2000});
    std::copy_if(rest.begin(), rest.end(), std::back_inserter(source),
                 [](const Packet& packet) { return pid(packet) == 0x200 || pid(packet) == 0x300; });
    const Normalized result = normalize(source);
    EXPECT_TRUE(result.finished);
    // 80 s of the second clock, less what had to be waited for.
    EXPECT_GT(packetsOf(result.packets, 0), 400);
}

} // namespace
