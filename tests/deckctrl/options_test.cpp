#include "deckctrl/Options.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using kestrel::deck::Options;
using kestrel::deck::parseOptions;
using testing::HasSubstr;

namespace {

Options parse(std::vector<std::string> words) {
    words.insert(words.begin(), "kestrelDeckCtrl");
    std::vector<char*> argv;
    for (std::string& word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    return parseOptions(static_cast<int>(words.size()), argv.data());
}

TEST(DeckOptions, TheServicesCommandLineIsTaken) {
    const Options options = parse(
        {"-log", "/var/log/deck.log", "-loglvl", "2", "-i", "/to_vtr_proc_q", "-o", "/from_vtr_proc_q"});
    EXPECT_EQ(options.error, "");
    EXPECT_EQ(options.logFile, "/var/log/deck.log");
    EXPECT_EQ(options.logLevel, 2);
    EXPECT_EQ(options.readQueue, "/to_vtr_proc_q");
    EXPECT_EQ(options.writeQueue, "/from_vtr_proc_q");
    EXPECT_EQ(options.portMap, "");
    EXPECT_EQ(options.timing.reply.count(), 150);
}

TEST(DeckOptions, TheProfileMayAddItsOwn) {
    const Options options = parse({"-ports", "/etc/decks.xml", "--timeout", "300", "-i", "/a", "-o", "/b"});
    EXPECT_EQ(options.error, "");
    EXPECT_EQ(options.portMap, "/etc/decks.xml");
    EXPECT_EQ(options.timing.reply.count(), 300);
}

TEST(DeckOptions, ALogLevelOutOfRangeIsHeldAtItsEnds) {
    EXPECT_EQ(parse({"-loglvl", "-1", "-i", "/a", "-o", "/b"}).logLevel, 0);
    EXPECT_EQ(parse({"-loglvl", "99", "-i", "/a", "-o", "/b"}).logLevel, 4);
}

TEST(DeckOptions, WhatIsWrongIsSaid) {
    EXPECT_EQ(parse({}).error, "the queues -i and -o are required");
    EXPECT_EQ(parse({"-i", "/a"}).error, "the queues -i and -o are required");
    EXPECT_EQ(parse({"-i", "/a", "-o"}).error, "option -o needs a value");
    EXPECT_EQ(parse({"-x"}).error, "unknown option -x");
    EXPECT_EQ(parse({"-i", "/a", "-o", "/b", "c"}).error, "unexpected argument c");
    EXPECT_EQ(parse({"-loglvl", "much"}).error, "-loglvl much is no number");
    for (const char* value : {"0", "5001", "x", "1.5"})
        EXPECT_THAT(parse({"-timeout", value}).error, HasSubstr("is not 1 to 5000 ms")) << value;
}

TEST(DeckOptions, HelpShowsThePortMap) {
    EXPECT_TRUE(parse({"--help"}).help);
    EXPECT_THAT(kestrel::deck::usage("kestrelDeckCtrl"), HasSubstr("<DeckPorts>"));
    EXPECT_THAT(kestrel::deck::usage("x"), HasSubstr(kestrel::deck::installedPortMap()));
    EXPECT_THAT(kestrel::deck::installedPortMap(), testing::EndsWith("/deck_ports.xml"));
}

} // namespace
