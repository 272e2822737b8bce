#include "deckctrl/PortNames.h"
#include "deckctrl/deck_bench.h"
#include "foundation/Logger.h"

#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sstream>

using kestrel::deck::PortNames;
using testing::HasSubstr;
using testing::Not;

namespace {

class PortMap : public testing::Test {
protected:
    bool load(const std::string& text) {
        std::ofstream(directory.path("ports.xml")) << text;
        LogUtil::GetInstance()->addStreamLogger(&log);
        const bool loaded = names.load(directory.path("ports.xml"));
        LogUtil::Cleanup();
        return loaded;
    }

    ScratchDir directory;
    PortNames names;
    std::stringstream log;
};

TEST(PortNames, ComPortsCountFromOneAndDevicesFromZero) {
    const PortNames names;
    EXPECT_EQ(names.device("COM1"), "/dev/ttyS0");
    EXPECT_EQ(names.device("com2"), "/dev/ttyS1");
    EXPECT_EQ(names.device("COM256"), "/dev/ttyS255");
    for (const char* name : {"COM0", "COM", "COM257", "COM-1", "COM1x", "COM 1"})
        EXPECT_EQ(names.device(name), "") << name;
}

TEST(PortNames, DevicesArePlainNamesAndPathsAreThemselves) {
    const PortNames names;
    EXPECT_EQ(names.device("ttyS0"), "/dev/ttyS0");
    EXPECT_EQ(names.device("ttyUSB0"), "/dev/ttyUSB0");
    EXPECT_EQ(names.device("/dev/ttyA1"), "/dev/ttyA1");
}

TEST(PortNames, AnythingElseIsNoPort) {
    const PortNames names;
    for (const char* name : {"", "tty", "deck1", "tty../etc", "../dev/x", "ttyS0 ", "dev/ttyS0"})
        EXPECT_EQ(names.device(name), "") << name;
}

TEST_F(PortMap, GivesPortsAnyNameAndOverridesTheOthers) {
    EXPECT_TRUE(load("<DeckPorts>\n"
                     "  <Port NAME=\"Studio A\" DEVICE=\"/dev/serial/by-id/one\"/>\n"
                     "  <Port NAME=\"COM1\" DEVICE=\"/dev/ttyUSB3\"/>\n"
                     "</DeckPorts>\n"));
    EXPECT_EQ(names.device("Studio A"), "/dev/serial/by-id/one");
    EXPECT_EQ(names.device("STUDIO a"), "/dev/serial/by-id/one");
    EXPECT_EQ(names.device("com1"), "/dev/ttyUSB3");
    EXPECT_EQ(names.device("COM2"), "/dev/ttyS1");
    EXPECT_THAT(log.str(), HasSubstr("[Deck:Info] Port COM1 is /dev/ttyUSB3"));
}

TEST_F(PortMap, ALineThatCannotBeUsedIsNamedAndLeftOut) {
    EXPECT_TRUE(load("<DeckPorts>\n"
                     "  <Deck NAME=\"A\" DEVICE=\"/dev/a\"/>\n"
                     "  <Port DEVICE=\"/dev/a\"/>\n"
                     "  <Port NAME=\"longer than that\" DEVICE=\"/dev/a\"/>\n"
                     "  <Port NAME=\"B\"/>\n"
                     "  <Port NAME=\"C\" DEVICE=\"ttyS0\"/>\n"
                     "  <Port NAME=\"D\" DEVICE=\"/dev/d\"/>\n"
                     "  <Port NAME=\"d\" DEVICE=\"/dev/e\"/>\n"
                     "</DeckPorts>\n"));
    for (const char* text :
         {"line 2 is no Port element: left out", "line 3 needs a NAME of 1 to 11 letters: left out",
          "line 4 needs a NAME of 1 to 11 letters: left out",
          "line 5 needs a DEVICE that is a path: left out", "line 6 needs a DEVICE that is a path: left out",
          "line 8 has a NAME that was given before: left out"})
        EXPECT_THAT(log.str(), HasSubstr(text));
    EXPECT_THAT(log.str(), Not(HasSubstr("line 7")));
    EXPECT_EQ(names.device("D"), "/dev/d");
    EXPECT_EQ(names.device("B"), "");
}

TEST_F(PortMap, OneOfAnyDepthIsToldAndLeftOut) {
    for (const std::size_t depth : {4097u, 100'000u, 300'000u}) {
        std::string text = "<Port NAME=\"A\" DEVICE=\"/dev/a\"/>";
        for (std::size_t i = 0; i < depth; ++i)
            text += "<a>";
        EXPECT_FALSE(load("<DeckPorts>" + text));
        EXPECT_THAT(log.str(), HasSubstr("ports.xml cannot be read: it has more than 4096 tags"));
        EXPECT_EQ(names.device("A"), "");
        log.str("");
    }
    EXPECT_FALSE(names.load("/dev/zero")) << "nor is a device read";
}

TEST_F(PortMap, AFileThatIsNoXmlIsTold) {
    EXPECT_FALSE(load("<DeckPorts>\n<Port"));
    EXPECT_THAT(log.str(), HasSubstr("ports.xml cannot be read: at or before line "));
    EXPECT_FALSE(load(""));
    EXPECT_FALSE(load("<!-- nothing -->"));
    EXPECT_THAT(log.str(), HasSubstr("ports.xml cannot be read: it has no root element"));
    PortNames other;
    EXPECT_FALSE(other.load("/no/such/file.xml"));
}

} // namespace
