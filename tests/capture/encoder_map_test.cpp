// The encoder map as a file that may be anything.
#include "capture/EncoderMap.h"
#include "capture/captured_log.h"
#include "foundation/ErrorCodes.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>

using kestrel::capture::EncoderMap;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

class EncoderMapFile : public testing::Test {
protected:
    EncoderMapFile() {
        char name[] = "/tmp/encoder_map_XXXXXX";
        EXPECT_NE(::mkdtemp(name), nullptr);
        m_directory = name;
    }
    ~EncoderMapFile() override {
        std::error_code ignored;
        std::filesystem::remove_all(m_directory, ignored);
    }
    [[nodiscard]] std::string path() const { return m_directory + "/map.xml"; }
    // Why the map is refused; empty when it is not.
    std::string problem(const std::string& text) {
        std::ofstream(path()) << text;
        return problemOfFile(path());
    }
    std::string problemOfFile(const std::string& file) {
        const auto failure = map.load(file);
        if (!failure)
            return {};
        EXPECT_EQ(failure->code, kestrel::error::invalidConfigurationFile);
        return failure->text;
    }
    [[nodiscard]] std::string refusal(const std::string& why) const {
        return "Error: Invalid configuration file. (encoder map " + path() + ": " + why;
    }

    // Why an element in the second line is refused.
    [[nodiscard]] std::string refusalOf(const std::string& element) {
        const std::string text = problem("<Encoders>\n" + element + "</Encoders>");
        const std::string begin = "Error: Invalid configuration file. (encoder map " + path() + ", line 2: ";
        if (!text.starts_with(begin) || !text.ends_with(")"))
            return "not refused so: " + text;
        return text.substr(begin.size(), text.size() - begin.size() - 1);
    }

    EncoderMap map;

private:
    std::string m_directory;
};

TEST_F(EncoderMapFile, IsReadWithItsEncodersAndDecoders) {
    EXPECT_EQ(problem("<Encoders>"
                      "<Encoder CONTROL_ADDRESS=\"10.1.2.3\" STREAM_ADDRESS=\"239.1.1.1\" PORT=\"5000\"/>"
                      "<Decoder CONTROL_ADDRESS=\"10.1.2.4\" RTP=\"TRUE\"/></Encoders>"),
              "");
    ASSERT_EQ(map.entries().size(), 1u);
    EXPECT_EQ(map.entries()[0].port, 5000);
}

TEST_F(EncoderMapFile, IsRefusedWithTheAttributeThatMeansNothing) {
    const std::string port = "expected is a number from 1 to 65535";
    for (const std::string bad : {"50x", "0", "-1", "65536", "5000.0", "0x1388", "", "99999999999"})
        EXPECT_EQ(refusalOf("<Encoder CONTROL_ADDRESS=\"10.1.2.3\" STREAM_ADDRESS=\"239.1.1.1\" PORT=\"" +
                            bad + "\"/>"),
                  "Encoder, PORT=\"" + bad + "\": " + port);
    EXPECT_EQ(refusalOf("<Encoder CONTROL_ADDRESS=\"10.1.2.3\" STREAM_ADDRESS=\"239.1.1.1\"/>"),
              "Encoder, PORT is missing: " + port);
    EXPECT_EQ(refusalOf("<Encoder CONTROL_ADDRESS=\"10.1.2\" PORT=\"1\"/>"),
              "Encoder, CONTROL_ADDRESS=\"10.1.2\": expected is an IPv4 address");
    EXPECT_EQ(
        refusalOf("<Encoder CONTROL_ADDRESS=\"0.0.0.0\" PORT=\"1\"/>"),
        "Encoder, CONTROL_ADDRESS=\"0.0.0.0\": expected is an IPv4 address, that of the equipment itself");
    EXPECT_EQ(refusalOf("<Encoder CONTROL_ADDRESS=\"239.1.1.1\" PORT=\"1\"/>"),
              "Encoder, CONTROL_ADDRESS=\"239.1.1.1\": expected is an IPv4 address, and no multicast group");
    EXPECT_EQ(refusalOf("<Encoder PORT=\"1\"/>"),
              "Encoder, CONTROL_ADDRESS is missing: expected is an IPv4 address");
    EXPECT_EQ(
        refusalOf("<Encoder CONTROL_ADDRESS=\"10.1.2.3\" STREAM_ADDRESS=\"239.1.1.1 \" PORT=\"1\"/>"),
        "Encoder, STREAM_ADDRESS=\"239.1.1.1 \": expected is a multicast group or an address of this host");
    EXPECT_EQ(refusalOf("<Encoder CONTROL_ADDRESS=\"10.1.2.3\" PORT=\"1\" INTERFACE=\"eth0\"/>"),
              "Encoder, INTERFACE=\"eth0\": expected is an IPv4 address");
    EXPECT_EQ(refusalOf("<Encoder CONTROL_ADDRESS=\"10.1.2.3\" PORT=\"1\" INTERFACE=\"239.1.1.1\"/>"),
              "Encoder, INTERFACE=\"239.1.1.1\": expected is an IPv4 address, and no multicast group");
    for (const std::string bad : {"yes", "1", "", "TRUE "}) {
        EXPECT_EQ(refusalOf("<Encoder CONTROL_ADDRESS=\"10.1.2.3\" PORT=\"1\" OVERWRITE=\"" + bad + "\"/>"),
                  "Encoder, OVERWRITE=\"" + bad + "\": expected is TRUE or FALSE");
        EXPECT_EQ(refusalOf("<Decoder CONTROL_ADDRESS=\"10.1.2.4\" RTP=\"" + bad + "\"/>"),
                  "Decoder, RTP=\"" + bad + "\": expected is TRUE or FALSE");
    }
    EXPECT_EQ(refusalOf("<Decoder RTP=\"TRUE\"/>"),
              "Decoder, CONTROL_ADDRESS is missing: expected is an IPv4 address");
}

TEST_F(EncoderMapFile, TakesTheWordsInEitherCaseAndBlanksAroundANumber) {
    EXPECT_EQ(problem("<Encoders><Encoder CONTROL_ADDRESS=\"10.1.2.3\" PORT=\" 5004 \" OVERWRITE=\"true\" "
                      "INTERFACE=\"0.0.0.0\"/><Encoder CONTROL_ADDRESS=\"10.1.2.4\" PORT=\"65535\" "
                      "OVERWRITE=\"False\"/><Decoder CONTROL_ADDRESS=\"10.1.2.5\" RTP=\"True\"/></Encoders>"),
              "");
    ASSERT_EQ(map.entries().size(), 2u);
    EXPECT_EQ(map.entries()[0].port, 5004);
    EXPECT_TRUE(map.entries()[0].overwrite);
    EXPECT_EQ(map.entries()[1].port, 65535);
    EXPECT_FALSE(map.entries()[1].overwrite);
    EXPECT_TRUE(map.decoderTakesRtp(0x0A010205));
    EXPECT_FALSE(map.decoderTakesRtp(0x0A010204));
}

TEST_F(EncoderMapFile, WarnsOfWhatItDoesNotKnowAndOfWhatItDoes) {
    const capture_test::CapturedLog log;
    EXPECT_EQ(problem("<Encoders>\n"
                      "<Encoders CONTROL_ADDRESS=\"10.1.2.9\" PORT=\"5009\"/>\n"
                      "<Encoder CONTROL_ADDRESS=\"10.1.2.3\" STREAM_ADDRESS=\"239.1.1.1\" PORT=\"5000\" "
                      "OVERWRITES=\"TRUE\"><INTERFACE>10.1.2.1</INTERFACE></Encoder>\n"
                      "<Decoder CONTROL_ADDRESS=\"10.1.2.4\" rtp=\"TRUE\"/>\n"
                      "</Encoders>\n<Encoder/>"),
              "");
    ASSERT_EQ(map.entries().size(), 1u);
    EXPECT_FALSE(map.entries()[0].overwrite);
    const std::string begin = "[Capture:Warning] encoder map " + path() + ", line ";
    const std::string attributes =
        " of Encoder is not known and is ignored; the attributes are CONTROL_ADDRESS, "
        "STREAM_ADDRESS, PORT, INTERFACE, OVERWRITE\r\n";
    for (const std::string& line :
         {std::string(
              "2: element Encoders is not known and is ignored; the elements are Encoder, Decoder\r\n"),
          "3: attribute OVERWRITES" + attributes, "3: element INTERFACE" + attributes,
          std::string(
              "4: attribute rtp of Decoder is not known and is ignored; the attributes are CONTROL_ADDRESS, "
              "RTP\r\n"),
          std::string("6: element Encoder stands behind the root element and is ignored\r\n")})
        EXPECT_THAT(log.text(), HasSubstr(begin + line));
    EXPECT_EQ(log.count("Warning]"), 5);
}

TEST_F(EncoderMapFile, AnotherRootIsReadWithAWarning) {
    const capture_test::CapturedLog log;
    EXPECT_EQ(problem("<Encoder CONTROL_ADDRESS=\"10.1.2.3\" STREAM_ADDRESS=\"239.1.1.1\" PORT=\"5000\"/>"),
              "");
    EXPECT_TRUE(map.entries().empty());
    EXPECT_THAT(log.text(), HasSubstr("line 1: root element Encoder is taken for Encoders"));
}

// It would be taken from anybody who sends to that port.
TEST_F(EncoderMapFile, AMisspeltAddressOfTheStreamIsRefused) {
    const capture_test::CapturedLog log;
    EXPECT_EQ(refusalOf("<Encoder CONTROL_ADDRESS=\"10.1.2.3\" STREAM_ADRESS=\"239.1.1.1\" PORT=\"5000\"/>"),
              "Encoder, STREAM_ADDRESS is missing: expected is a multicast group or an address of this host; "
              "not known: STREAM_ADRESS");
    EXPECT_THAT(log.text(), HasSubstr("attribute STREAM_ADRESS of Encoder is not known"));
    EXPECT_EQ(refusalOf("<Encoder CONTROL_ADDRESS=\"10.1.2.3\" PORT=\"5000\">"
                        "<STREAM_ADDRESS>239.1.1.1</STREAM_ADDRESS></Encoder>"),
              "Encoder, STREAM_ADDRESS is missing: expected is a multicast group or an address of this host; "
              "not known: STREAM_ADDRESS");
}

TEST_F(EncoderMapFile, OfTwoLinesForOneEquipmentTheFirstCountsAndTheOtherIsTold) {
    const capture_test::CapturedLog log;
    EXPECT_EQ(problem("<Encoders><Encoder CONTROL_ADDRESS=\"10.1.2.3\" PORT=\"5000\"/>\n"
                      "<Encoder CONTROL_ADDRESS=\"10.1.2.3\" PORT=\"5001\"/>\n"
                      "<Decoder CONTROL_ADDRESS=\"10.1.2.3\"/>\n"
                      "<Decoder CONTROL_ADDRESS=\"10.1.2.3\" RTP=\"TRUE\"/></Encoders>"),
              "");
    ASSERT_EQ(map.entries().size(), 1u);
    EXPECT_EQ(map.entries()[0].port, 5000);
    EXPECT_FALSE(map.decoderTakesRtp(0x0A010203));
    EXPECT_EQ(log.count("Warning]"), 2);
    EXPECT_THAT(
        log.text(),
        HasSubstr("line 2: Encoder with CONTROL_ADDRESS=\"10.1.2.3\" is there before and is ignored"));
    EXPECT_THAT(log.text(), HasSubstr("line 4: Decoder with CONTROL_ADDRESS"));
}

TEST_F(EncoderMapFile, OfAnyDepthIsRefusedWithoutExhaustingTheStack) {
    for (const int depth : {4097, 100'000, 300'000}) {
        std::string text = "<Encoders>";
        for (int i = 0; i < depth; ++i)
            text += "<a>";
        EXPECT_EQ(problem(text), refusal("it has more than 4096 tags or 16384 attributes, or is no text)"));
        EXPECT_TRUE(map.entries().empty());
    }
}

TEST_F(EncoderMapFile, ThatIsNoXmlIsRefusedWithTheLine) {
    EXPECT_THAT(problem("<Encoders>\n<Encoder"), StartsWith(refusal("at or before line ")));
    EXPECT_THAT(problem(""), StartsWith(refusal("at or before line ")));
    EXPECT_EQ(problem("<!-- nothing -->"), refusal("it has no root element)"));
}

TEST_F(EncoderMapFile, ThatIsNoFileIsRefused) {
    EXPECT_EQ(problemOfFile(path()), refusal("No such file or directory (errno 2))"));
    ASSERT_EQ(::mkfifo(path().c_str(), 0600), 0);
    EXPECT_EQ(problemOfFile(path()), refusal("it is no file of at most 16 MiB)"))
        << "and nobody is waited for";
}

} // namespace
