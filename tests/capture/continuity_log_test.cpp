#include "capture/ContinuityLog.h"

#include "capture/PacketRing.h"
#include "capture/captured_log.h"

#include <gtest/gtest.h>

using namespace kestrel::capture;
using namespace capture_test;
using namespace std::chrono_literals;

namespace {

class ContinuityLogTest : public testing::Test {
protected:
    CapturedLog m_log;
    ContinuityLog m_continuity{"Encoder 1"};
    Clock::time_point m_now{1000s};
    std::uint64_t m_index = 0;
    unsigned m_counter = 0;

    // Packets of PID 256, each of which lacks the one before it.
    void errors(int count) {
        for (int i = 0; i < count; ++i)
            packet(2);
    }
    void packet(unsigned step) {
        m_counter = (m_counter + step) & 15;
        const Packet packet{0x47, 0x01, 0x00, static_cast<unsigned char>(0x10 | m_counter)};
        m_continuity.check(packet.data(), m_index++, m_now);
    }
};

TEST_F(ContinuityLogTest, ALineNamesEncoderPacketAndPid) {
    packet(1);
    packet(1);
    EXPECT_EQ(m_continuity.errors(), 0u);
    packet(2);
    EXPECT_EQ(m_continuity.errors(), 1u);
    EXPECT_EQ(m_log.count("Encoder 1: continuity error at packet 2: expected 3 not 4 : PID 256"), 1)
        << m_log.text();
}

TEST_F(ContinuityLogTest, WithinASecondTheLinesEndAtTheLimitAndTheRestIsTold) {
    packet(1);
    errors(continuityLinesPerSecond + 13);
    EXPECT_EQ(m_continuity.errors(), static_cast<std::uint64_t>(continuityLinesPerSecond) + 13);
    EXPECT_EQ(m_log.count("continuity error at packet"), continuityLinesPerSecond);
    EXPECT_TRUE(m_continuity.pending());
    m_continuity.tick(m_now + 999ms);
    EXPECT_EQ(m_log.count("more continuity errors"), 0) << "the second is not over";
    m_continuity.tick(m_now + 1s);
    EXPECT_EQ(m_log.count("Encoder 1: 13 more continuity errors within that second"), 1) << m_log.text();
    EXPECT_FALSE(m_continuity.pending());
}

TEST_F(ContinuityLogTest, TheNextSecondHasLinesOfItsOwn) {
    packet(1);
    errors(continuityLinesPerSecond + 1);
    m_now += 1s;
    errors(2);
    EXPECT_EQ(m_log.count("Encoder 1: 1 more continuity error within that second"), 1);
    EXPECT_EQ(m_log.count("continuity error at packet"), continuityLinesPerSecond + 2);
    EXPECT_FALSE(m_continuity.pending());
}

} // namespace
