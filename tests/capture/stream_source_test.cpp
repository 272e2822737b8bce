#include "capture/StreamSource.h"
#include "capture/stream_builder.h"

#include <fstream>
#include <gtest/gtest.h>

using namespace kestrel::capture;

namespace {

class StreamSourceTest : public testing::Test {
protected:
    capture_test::TemporaryDirectory m_directory;
    EncoderMap m_map;
    CSettings::EncoderReception m_reception;

    MaybeFailure load(const std::string& text) {
        const std::string path = m_directory.path("map.xml");
        std::ofstream(path) << text;
        return m_map.load(path);
    }
};

constexpr const char* good =
    R"(<Encoders><Encoder CONTROL_ADDRESS="10.1.2.3" STREAM_ADDRESS="239.1.1.1" PORT="6000" INTERFACE="127.0.0.1"
    OVERWRITE="true"/><Encoder CONTROL_ADDRESS="10.1.2.4" PORT="6001"/></Encoders>)";

TEST_F(StreamSourceTest, TheReceptionsOwnAddressComesFirst) {
    ASSERT_FALSE(load(good));
    m_reception.snmpIpAddress = 0x0A010203;
    m_reception.ipAddress = 0xEF020202;
    const StreamSource source = decideStreamSource(m_reception, m_map);
    EXPECT_EQ(source.address, 0xEF020202u);
    EXPECT_EQ(source.port, 5000);
    EXPECT_EQ(source.interfaceAddress, 0x7F000001u);
    EXPECT_EQ(source.sender, 0u);
    m_reception.port = 7000;
    EXPECT_EQ(decideStreamSource(m_reception, m_map).port, 7000);
}

TEST_F(StreamSourceTest, ThenTheMap) {
    ASSERT_FALSE(load(good));
    m_reception.snmpIpAddress = 0x0A010203;
    const StreamSource source = decideStreamSource(m_reception, m_map);
    EXPECT_EQ(source.address, 0xEF010101u);
    EXPECT_EQ(source.port, 6000);
    EXPECT_TRUE(source.overwrite);
    m_reception.snmpIpAddress = 0x0A010204;
    EXPECT_EQ(decideStreamSource(m_reception, m_map).address, 0u);
    EXPECT_FALSE(decideStreamSource(m_reception, m_map).overwrite);
}

TEST_F(StreamSourceTest, ThenWhatTheEncoderSendsToPort5000) {
    m_reception.snmpIpAddress = 0x0A010203;
    const StreamSource source = decideStreamSource(m_reception, m_map);
    EXPECT_EQ(source.address, 0u);
    EXPECT_EQ(source.port, 5000);
    EXPECT_EQ(source.sender, 0x0A010203u);
    EXPECT_EQ(source.shownAddress(), 0x0A010203u);
}

TEST_F(StreamSourceTest, OverwritingMayBeAskedForAllEncoders) {
    EXPECT_FALSE(decideStreamSource(m_reception, m_map).overwrite);
    m_map.setOverwriteAll(true);
    EXPECT_TRUE(decideStreamSource(m_reception, m_map).overwrite) << "one that the map does not name";
    ASSERT_FALSE(load(good));
    m_reception.snmpIpAddress = 0x0A010204;
    EXPECT_TRUE(decideStreamSource(m_reception, m_map).overwrite);
}

TEST_F(StreamSourceTest, AMapWithAMistakeIsRefusedWithItsLine) {
    for (const char* bad : {R"(<Encoders>
<Encoder CONTROL_ADDRESS="10.1.2" PORT="1"/></Encoders>)",
                            R"(<Encoders>
<Encoder PORT="1"/></Encoders>)",
                            R"(<Encoders>
<Encoder CONTROL_ADDRESS="10.1.2.3"/></Encoders>)",
                            R"(<Encoders>
<Encoder CONTROL_ADDRESS="10.1.2.3" PORT="65536"/></Encoders>)"}) {
        const MaybeFailure failed = load(bad);
        ASSERT_TRUE(failed) << bad;
        EXPECT_NE(failed->text.find("line 2"), std::string::npos) << failed->text;
    }
    EXPECT_TRUE(load("<Encoders>"));
    EXPECT_TRUE(m_map.load(m_directory.path("none")));
}

} // namespace
