// Program tables at their edges: what is not checked, where a length ends, and when two places are the same.
#include "mpeg/CaptureEngUtils.h"
#include "psi_packets.h"

#include <algorithm>
#include <array>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <numeric>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using namespace MPEG::PMT::PIDInfo;

constexpr std::size_t SECTION = 5; // where it begins behind a pointer of 0

void setSectionLength(Bytes& packet, int length) {
    packet[SECTION + 1] = static_cast<unsigned char>((packet[SECTION + 1] & 0xF0) | length >> 8);
    packet[SECTION + 2] = static_cast<unsigned char>(length);
}

// --- association table

TEST(PatUnchecked, NeitherPusiNorTableIdNorCrcNorAnyOtherFieldCounts) {
    const Bytes good = pat({{0, 0x10}, {1, 0x1234}});
    const auto with = [&](std::size_t at, unsigned char value) {
        Bytes packet = good;
        packet[at] = value;
        return MPEG::PAT::PID_of_first_PMT(packet.data());
    };
    EXPECT_EQ(with(0, 0x00), 0x1234) << "sync_byte";
    EXPECT_EQ(with(1, 0x00), 0x1234) << "payload_unit_start_indicator";
    EXPECT_EQ(with(1, 0xC0), 0x1234) << "transport_error_indicator";
    EXPECT_EQ(with(2, 0x99), 0x1234) << "PID";
    EXPECT_EQ(with(3, 0xC0), 0x1234) << "scrambling, and no payload flag";
    EXPECT_EQ(with(SECTION, 0x02), 0x1234) << "table_id";
    EXPECT_EQ(with(SECTION + 1, 0x00), 0x1234) << "section_syntax_indicator and reserved bits";
    EXPECT_EQ(with(SECTION + 5, 0x00), 0x1234) << "current_next_indicator: a table for later";
    EXPECT_EQ(with(SECTION + 6, 0x07), 0x1234) << "section_number";
    for (std::size_t at = SECTION + 16; at < SECTION + 20; ++at)
        EXPECT_EQ(with(at, static_cast<unsigned char>(good[at] ^ 0xFF)), 0x1234) << "CRC_32";
    EXPECT_EQ(with(SECTION + 14, 0x12), 0x1234) << "the reserved bits before the PID";
}

TEST(PatUnchecked, AnAdaptationFieldBeforeItIsSteppedOver) {
    const Bytes plain = pat({{1, 0x1234}});
    for (const std::size_t field : {0U, 1U, 100U, 166U, 167U}) {
        Bytes packet(plain.begin(), plain.begin() + 4);
        packet[3] = 0x30;
        packet.push_back(static_cast<unsigned char>(field));
        packet.resize(5 + field, 0xFF);
        packet.insert(packet.end(), plain.begin() + 4, plain.end());
        packet.resize(188);
        // 1 byte of pointer and 16 of section have room up to a field of 166.
        EXPECT_EQ(MPEG::PAT::PID_of_first_PMT(packet.data()), field <= 166 ? 0x1234 : 0) << field;
    }
}

TEST(PatEntries, AreAsManyAsTheSectionLengthHoldsWhole) {
    // (section_length - 9) / 4, of which a part of an entry is none.
    Bytes packet = pat({{0, 0x10}, {0, 0x11}, {7, 0x777}});
    const int whole = 9 + 3 * 4;
    for (int length = 0; length <= whole + 3; ++length) {
        setSectionLength(packet, length);
        EXPECT_EQ(MPEG::PAT::PID_of_first_PMT(packet.data()), length >= whole ? 0x777 : 0) << length;
    }
    setSectionLength(packet, 0xFFF);
    EXPECT_EQ(MPEG::PAT::PID_of_first_PMT(packet.data()), 0) << "a section that does not end in its packet";
}

TEST(PatEntries, TheHighByteOfAProgramNumberCounts) {
    EXPECT_EQ(MPEG::PAT::PID_of_first_PMT(pat({{0, 0x10}, {0x100, 0x20}, {1, 0x30}}).data()), 0x20);
    EXPECT_EQ(MPEG::PAT::PID_of_first_PMT(pat({{0xFFFF, 0x1FFF}}).data()), 0x1FFF) << "13 bits";
}

// --- places among the entries of a map table

TEST(PmtPlaces, OfOneIterableAreEqualWhereTheirOffsetsAre) {
    const Bytes packet = pmt({entry(0x02, 0x100), entry(0x03, 0x101), entry(0x06, 0x102)});
    const PMT_PIDInfo_iterable entries(packet.data());
    auto a = entries.begin();
    auto b = entries.begin();
    EXPECT_EQ(a, b);
    ++a;
    EXPECT_NE(a, b);
    EXPECT_EQ(b++, entries.begin()) << "the place before the step";
    EXPECT_EQ(a, b);
    EXPECT_EQ(elementary_PID(*a), 0x101);
    EXPECT_NE(a, entries.end());
    ++a;
    ++a;
    EXPECT_EQ(a, entries.end());
}

TEST(PmtPlaces, AtOrPastTheEndAreAllEqual) {
    const Bytes packet = pmt({entry(0x02, 0x100)});
    const PMT_PIDInfo_iterable entries(packet.data());
    using Place = PMT_PIDInfo_iterable::iterator;
    const int end = static_cast<int>(SECTION) + 12 + 5;
    const Place atEnd(&entries, end);
    EXPECT_EQ(atEnd, entries.end());
    for (const int past : {end + 1, end + 100, 4095}) {
        EXPECT_EQ(Place(&entries, past), entries.end()) << past;
        EXPECT_EQ(Place(&entries, past), Place(&entries, past + 7)) << past;
        EXPECT_NE(Place(&entries, past), entries.begin()) << past;
    }
    auto stays = entries.end();
    ++stays;
    EXPECT_EQ(stays++, entries.end());
    EXPECT_EQ(stays, entries.end()) << "a step from the end leads nowhere";
}

TEST(PmtPlaces, OfTwoIterablesAreNeverEqual) {
    const Bytes packet = pmt({entry(0x02, 0x100)});
    const PMT_PIDInfo_iterable one(packet.data());
    const PMT_PIDInfo_iterable other(packet.data()); // of the same packet, even
    EXPECT_NE(one.begin(), other.begin());
    EXPECT_NE(one.end(), other.end());
    EXPECT_NE(one.begin(), PMT_PIDInfo_iterable::iterator());
    EXPECT_NE(one.end(), PMT_PIDInfo_iterable::iterator());
    EXPECT_EQ(PMT_PIDInfo_iterable::iterator(), PMT_PIDInfo_iterable::iterator());
}

TEST(PmtPlaces, WorkWithStandardAlgorithms) {
    const Bytes packet = pmt({entry(0x02, 0x100), entry(0x81, 0x101), entry(0x03, 0x102)});
    const PMT_PIDInfo_iterable entries(packet.data());
    EXPECT_EQ(std::distance(entries.begin(), entries.end()), 3);
    const auto ac3 = std::find_if(entries.begin(), entries.end(),
                                  [](const unsigned char* each) { return stream_type(each) == 0x81; });
    ASSERT_NE(ac3, entries.end());
    EXPECT_EQ(elementary_PID(*ac3), 0x101);
}

TEST(PmtEntries, BeginBehindTheProgramsDescriptorsAndEndBeforeTheCrc) {
    for (std::size_t info = 0; info <= 160; ++info) {
        const Bytes packet = pmt({entry(0x1B, 0x55)}, Bytes(info, 0x02));
        ASSERT_THAT(pidsOf(packet), ElementsAre(0x55)) << info;
    }
    Bytes packet = pmt({entry(0x1B, 0x55), entry(0x0F, 0x56)});
    const int whole = 9 + 2 * 5 + 4;
    // With the CRC where the second entry was, or in the middle of it, only the first is left.
    for (int length = 0; length <= whole; ++length) {
        setSectionLength(packet, length);
        const std::size_t expected = length >= whole ? 2 : length >= whole - 5 ? 1 : 0;
        EXPECT_EQ(pidsOf(packet).size(), expected) << length;
    }
}

TEST(PmtEntries, AnEntryThatReachesIntoTheCrcIsNone) {
    Bytes packet = pmt({entry(0x1B, 0x55), entry(0x81, 0x56, AC3_REGISTRATION)});
    const std::size_t info = SECTION + 12 + 5 + 4;
    for (const int length : {0, 6, 7, 255}) {
        packet[info] = static_cast<unsigned char>(length);
        EXPECT_EQ(pidsOf(packet).size(), length <= 6 ? 2U : 1U) << length;
    }
    packet = pmt({entry(0x1B, 0x55)}, {1, 2, 3});
    packet[SECTION + 11] = 200; // program_info_length past the section
    EXPECT_THAT(pidsOf(packet), IsEmpty());
}

// --- descriptors of an entry

// The entry with that many bytes of descriptors, the last of them these, on the heap in exactly its size.
std::unique_ptr<unsigned char[]> entryEndingIn(int type, std::size_t info, const Bytes& last) {
    auto bytes = std::make_unique<unsigned char[]>(5 + info);
    bytes[0] = static_cast<unsigned char>(type);
    bytes[1] = 0xE1;
    bytes[3] = static_cast<unsigned char>(0xF0 | info >> 8);
    bytes[4] = static_cast<unsigned char>(info);
    // What stands before is one private descriptor, or several where one has not enough room.
    std::size_t at = 5;
    for (std::size_t left = info - last.size(); left > 0;) {
        const std::size_t size = left <= 257 ? left : left - 257 == 1 ? 256 : 257;
        bytes[at] = 0xF0;
        bytes[at + 1] = static_cast<unsigned char>(size - 2);
        std::fill_n(bytes.get() + at + 2, size - 2, static_cast<unsigned char>(0x05));
        at += size;
        left -= size;
    }
    std::copy(last.begin(), last.end(), bytes.get() + at);
    return bytes;
}

const Bytes LANGUAGE{0x0A, 4, 'e', 'n', 'g', 0};
const Bytes FIVE_CHANNELS{0x81, 3, 0, 0, 7 << 1};

TEST(PidInfoBoundaries, AnEntryHasFiveToOneHundredAndEightyEightBytes) {
    for (const std::size_t info : {6U, 8U, 100U, 182U, 183U, 184U, 185U, 300U, 0xFFFU}) {
        const bool expected = info + 5 <= 188;
        EXPECT_EQ(is_AC3(entryEndingIn(0x81, info, AC3_REGISTRATION).get()), expected) << info;
        EXPECT_EQ(is_AC3_51(entryEndingIn(0x81, info + 1, FIVE_CHANNELS).get()), info + 6 <= 188) << info;
        EXPECT_EQ(is_SCTE27(entryEndingIn(0x82, info, LANGUAGE).get()), expected) << info;
    }
    for (const int type : {0x06, 0x81, 0x82}) {
        const auto none = entryEndingIn(type, 0, {});
        EXPECT_FALSE(is_AC3(none.get()));
        EXPECT_FALSE(is_AC3_51(none.get()));
        EXPECT_FALSE(is_SCTE27(none.get()));
    }
}

TEST(PidInfoBoundaries, OneByteIsEnoughForATagAndForNothingElse) {
    EXPECT_TRUE(is_SCTE27(entryEndingIn(0x82, 1, {0x0A}).get())) << "only its presence is asked for";
    EXPECT_TRUE(is_SCTE27(entryEndingIn(0x82, 5, {0x0A}).get())) << "behind another one";
    EXPECT_FALSE(is_SCTE27(entryEndingIn(0x82, 1, {0x0B}).get()));
    EXPECT_FALSE(is_AC3(entryEndingIn(0x81, 1, {0x05}).get()));
    EXPECT_FALSE(is_AC3_51(entryEndingIn(0x81, 1, {0x81}).get()));
}

TEST(PidInfoBoundaries, OfADescriptorThatOverrunsItsEntryCountsWhatLiesInIt) {
    EXPECT_TRUE(is_AC3(entryEndingIn(0x81, 6, {0x05, 200, 'A', 'C', '-', '3'}).get()));
    EXPECT_FALSE(is_AC3(entryEndingIn(0x81, 5, {0x05, 4, 'A', 'C', '-'}).get())) << "cut";
    EXPECT_TRUE(is_AC3_51(entryEndingIn(0x81, 5, {0x81, 200, 0, 0, 7 << 1}).get()));
    EXPECT_FALSE(is_AC3_51(entryEndingIn(0x81, 4, {0x81, 3, 0, 0}).get())) << "without its fifth byte";
    EXPECT_TRUE(is_SCTE27(entryEndingIn(0x82, 2, {0x0A, 200}).get()));
    // And nothing is found behind it.
    EXPECT_FALSE(is_AC3(entryEndingIn(0x81, 8, {0xF0, 7, 0x05, 4, 'A', 'C', '-', '3'}).get()));
}

TEST(PidInfoBoundaries, ADescriptorTooShortForWhatIsAskedSaysNothing) {
    EXPECT_FALSE(is_AC3(entryEndingIn(0x81, 6, {0x05, 3, 'A', 'C', '-', '3'}).get()));
    EXPECT_FALSE(is_AC3(entryEndingIn(0x81, 6, {0x05, 0, 'A', 'C', '-', '3'}).get()));
    EXPECT_FALSE(is_AC3_51(entryEndingIn(0x81, 5, {0x81, 2, 0, 0, 7 << 1}).get()));
    EXPECT_TRUE(is_SCTE27(entryEndingIn(0x82, 2, {0x0A, 0}).get())) << "its presence is enough";
}

TEST(PidInfoBoundaries, TheFirstDescriptorThatSaysSoIsEnoughWhateverComesBefore) {
    EXPECT_TRUE(
        is_AC3(entryEndingIn(0x81, 12, {0x05, 4, 'D', 'T', 'S', '1', 0x05, 4, 'A', 'C', '-', '3'}).get()));
    EXPECT_TRUE(is_AC3(entryEndingIn(0x81, 8, {0xF0, 0, 0x05, 4, 'A', 'C', '-', '3'}).get()))
        << "behind an empty one";
    EXPECT_TRUE(is_AC3(entryEndingIn(0x81, 8, {0x05, 6, 'A', 'C', '-', '3', 1, 2}).get())) << "a longer one";
    EXPECT_FALSE(is_AC3(entryEndingIn(0x81, 6, {0x05, 4, 'a', 'c', '-', '3'}).get())) << "letter for letter";
}

TEST(PidInfoTypes, DescriptorsAreSearchedAt6AndFrom80On) {
    for (int type = 0; type < 256; ++type) {
        const bool searched = type == 0x06 || type >= 0x80;
        EXPECT_EQ(is_AC3(entryEndingIn(type, 6, AC3_REGISTRATION).get()), searched) << type;
        EXPECT_EQ(is_AC3_51(entryEndingIn(type, 5, FIVE_CHANNELS).get()), searched) << type;
        EXPECT_EQ(is_SCTE27(entryEndingIn(type, 6, LANGUAGE).get()), type == 0x82) << type;
        if (searched) {
            EXPECT_TRUE(is_PES(entryEndingIn(type, 6, AC3_REGISTRATION).get())) << type;
        }
    }
}

TEST(PidInfoTypes, OfTheFifthByteFourBitsTellTheChannels) {
    for (int byte = 0; byte < 256; ++byte) {
        const Bytes descriptor{0x81, 3, 0xFF, 0xFF, static_cast<unsigned char>(byte)};
        EXPECT_EQ(is_AC3_51(entryEndingIn(0x81, 5, descriptor).get()), (byte >> 1 & 0x0F) == 7) << byte;
    }
}

TEST(PidInfoTypes, FieldsAreReadWithoutTheirReservedBits) {
    for (const unsigned char reserved : std::to_array<unsigned char>({0x00, 0xF0})) {
        const Bytes each{0x1B, static_cast<unsigned char>((reserved & 0xE0) | 0x1A), 0xBC,
                         static_cast<unsigned char>(reserved | 0x0D), 0xEF};
        EXPECT_EQ(stream_type(each.data()), 0x1B);
        EXPECT_EQ(elementary_PID(each.data()), 0x1ABC);
        EXPECT_EQ(ES_info_length(each.data()), 0xDEF);
    }
}

// --- CRC

TEST(CrcEdges, OfKnownBytes) {
    const std::vector<std::pair<std::string, std::uint32_t>> rows{
        {"", 0xFFFFFFFF},
        {std::string(1, '\0'), 0x4E08BFB4},
        {std::string(4, '\xFF'), 0x00000000}, // bytes are not signed
        {std::string("\x00\xB0\x0D\x00\x01\xC1\x00\x00\x00\x01\xF0\x00", 12), 0x2AB104B2},
    };
    for (const auto& [bytes, crc] : rows)
        EXPECT_EQ(crc32(bytes.data(), static_cast<int>(bytes.size())), crc) << bytes.size();
    EXPECT_EQ(crc_table[0], 0U);
    EXPECT_EQ(crc_table[255], 0xB1F740B4U);
}

TEST(CrcEdges, EveryTableRowIsTheRemainderOfItsByte) {
    ASSERT_EQ(crc_table.size(), 256U);
    for (std::uint32_t byte = 0; byte < 256; ++byte) {
        std::uint32_t remainder = 0;
        for (int bit = 7; bit >= 0; --bit)
            remainder = remainder << 1 ^ ((remainder >> 31 ^ (byte >> bit & 1)) != 0 ? 0x04C11DB7U : 0U);
        EXPECT_EQ(crc_table[byte], remainder) << byte;
    }
}

TEST(CrcEdges, IsStoredInTheLastFourBytesOfItsSectionAndNowhereElse) {
    for (int length = 0; length <= 40; ++length) {
        Bytes section(64);
        std::iota(section.begin(), section.end(), static_cast<unsigned char>(100));
        section[1] = 0xF0; // the bits beside the length do not count
        section[2] = static_cast<unsigned char>(length);
        Bytes expected = section;
        if (length >= 4) {
            const int at = length - 1;
            const std::uint32_t crc = crc32(reinterpret_cast<const char*>(section.data()), at);
            for (int i = 0; i < 4; ++i)
                expected[static_cast<std::size_t>(at + i)] = static_cast<unsigned char>(crc >> (24 - 8 * i));
        }
        MPEG::PMT::recalc_CRC(section.data());
        EXPECT_EQ(section, expected) << length;
    }
}

} // namespace
