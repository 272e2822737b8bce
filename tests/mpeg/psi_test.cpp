// Program tables (ISO/IEC 13818-1, 2.4.4) and their CRC.
#include "mpeg/CaptureEngUtils.h"
#include "psi_packets.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

TEST(Crc, IsCrc32Mpeg2) {
    char digits[] = "123456789";
    EXPECT_EQ(crc32(digits, 9), 0x0376E6E7U);
    EXPECT_EQ(crc32(digits, 0), 0xFFFFFFFFU);
    EXPECT_EQ(crc32(digits, -1), 0xFFFFFFFFU);
    EXPECT_EQ(crc_table[1], 0x04C11DB7U);
}

TEST(Crc, ASectionWithItsCrcHasTheRemainderZero) {
    Bytes packet = pat({{1, 0x1000}});
    const int length = (packet[6] & 0x0F) << 8 | packet[7];
    EXPECT_EQ(crc32(reinterpret_cast<const char*>(packet.data() + 5), length + 3), 0U);
}

TEST(Pat, TheFirstProgramsPidIsFound) {
    EXPECT_EQ(MPEG::PAT::PID_of_first_PMT(pat({{1, 0x1000}, {2, 0x1001}}).data()), 0x1000);
    EXPECT_EQ(MPEG::PAT::PID_of_first_PMT(pat({{1, 0x1FFE}}, 20).data()), 0x1FFE) << "behind a pointer";
}

TEST(Pat, TheNetworkPidIsSkipped) {
    EXPECT_EQ(MPEG::PAT::PID_of_first_PMT(pat({{0, 0x10}, {7, 0x222}}).data()), 0x222);
    EXPECT_EQ(MPEG::PAT::PID_of_first_PMT(pat({{0, 0x10}}).data()), 0);
    EXPECT_EQ(MPEG::PAT::PID_of_first_PMT(pat({}).data()), 0);
}

TEST(Pmt, ItsEntriesAreWalkedInOrder) {
    const Bytes packet = pmt({entry(0x02, 0x100), entry(0x81, 0x101, AC3_REGISTRATION), entry(0x03, 0x102)});
    EXPECT_THAT(pidsOf(packet), ElementsAre(0x100, 0x101, 0x102));
    EXPECT_THAT(pidsOf(pmt({entry(0x1B, 0x55)}, {0x05, 2, 1, 2})), ElementsAre(0x55))
        << "behind program_info";
    EXPECT_THAT(pidsOf(pmt({})), IsEmpty());
}

TEST(PmtEntry, Ac3NeedsItsRegistrationDescriptor) {
    using namespace MPEG::PMT::PIDInfo;
    EXPECT_TRUE(is_AC3(entry(0x81, 1, AC3_REGISTRATION).data()));
    EXPECT_TRUE(is_AC3(entry(0x06, 1, AC3_REGISTRATION).data()));
    EXPECT_TRUE(is_AC3(entry(0x81, 1, {0x0A, 1, 9, 0x05, 4, 'A', 'C', '-', '3'}).data()));
    EXPECT_FALSE(is_AC3(entry(0x81, 1).data()));
    EXPECT_FALSE(is_PES(entry(0x81, 1).data()));
    EXPECT_FALSE(is_AC3(entry(0x02, 1, AC3_REGISTRATION).data())) << "not a type that is searched";
    EXPECT_FALSE(is_AC3(entry(0x81, 1, {0x05, 4, 'D', 'T', 'S', '1'}).data()));
}

TEST(PmtEntry, FivePointOneIsTold) {
    using namespace MPEG::PMT::PIDInfo;
    EXPECT_TRUE(is_AC3_51(entry(0x81, 1, {0x81, 3, 0, 0, 0x0E}).data()));
    EXPECT_FALSE(is_AC3_51(entry(0x81, 1, {0x81, 3, 0, 0, 0x04}).data()));
    EXPECT_FALSE(is_AC3_51(entry(0x81, 1).data()));
}

TEST(PmtEntry, SubtitlesAreTypeAndLanguage) {
    using namespace MPEG::PMT::PIDInfo;
    EXPECT_TRUE(is_SCTE27(entry(0x82, 1, {0x0A, 4, 'e', 'n', 'g', 0}).data()));
    EXPECT_FALSE(is_SCTE27(entry(0x82, 1).data()));
    EXPECT_FALSE(is_SCTE27(entry(0x81, 1, {0x0A, 4, 'e', 'n', 'g', 0}).data()));
}

TEST(PmtEntry, PesTypes) {
    for (int type = 0; type < 256; ++type) {
        const bool expected = type == 0x01 || type == 0x02 || type == 0x03 || type == 0x04 || type == 0x06 ||
                              type == 0x0F || type == 0x11 || type == 0x1B;
        EXPECT_EQ(MPEG::PMT::PIDInfo::is_PES(entry(type, 1).data()), expected) << type;
    }
    EXPECT_TRUE(MPEG::PMT::PIDInfo::is_PES(entry(0x81, 1, AC3_REGISTRATION).data()));
}

} // namespace
