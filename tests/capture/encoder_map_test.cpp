// The encoder map as a file that may be anything.
#include "capture/EncoderMap.h"
#include "foundation/ErrorCodes.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>

using kestrel::capture::EncoderMap;
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
    EXPECT_THAT(problem("<Encoders>\n<Encoder"), StartsWith(refusal("line ")));
    EXPECT_THAT(problem(""), StartsWith(refusal("line ")));
    EXPECT_EQ(problem("<!-- nothing -->"), refusal("it has no root element)"));
}

TEST_F(EncoderMapFile, ThatIsNoFileIsRefused) {
    EXPECT_EQ(problemOfFile(path()), refusal("No such file or directory (errno 2))"));
    ASSERT_EQ(::mkfifo(path().c_str(), 0600), 0);
    EXPECT_EQ(problemOfFile(path()), refusal("it is no file of at most 16 MiB)"))
        << "and nobody is waited for";
}

} // namespace
