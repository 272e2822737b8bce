// Splitting request lines and command lines into arguments.
#include "foundation/AppLaunchUtil.h"
#include "foundation/StringUtil.h"

#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

using Arguments = std::vector<std::string>;
using testing::ElementsAre;
using testing::IsEmpty;

// The slots between two guard rows, all filled beforehand.
struct Slots {
    char before[300];
    char args[50][300];
    char after[300];

    Slots() { std::memset(static_cast<void*>(this), 'x', sizeof *this); }

    Arguments parse(const char* line, const char* separators) {
        const int count = cStringUtil::getArgumentList(line, args, separators);
        EXPECT_GE(count, 0);
        EXPECT_LE(count, 50);
        Arguments result;
        for (int i = 0; i < count; ++i)
            result.emplace_back(args[i]);
        for (const char byte : std::string(before, 300) + std::string(after, 300))
            EXPECT_EQ(byte, 'x');
        return result;
    }
};

Arguments parse(const char* line, const char* separators = ",") {
    return Slots().parse(line, separators);
}

TEST(ArgumentList, SplitsAtEachSeparator) {
    EXPECT_THAT(parse("CAPTURE,JOB_STATUS,guid"), ElementsAre("CAPTURE", "JOB_STATUS", "guid"));
}

TEST(ArgumentList, BlankIsTextUnlessItSeparates) {
    EXPECT_THAT(parse(" a b , c"), ElementsAre(" a b ", " c"));
    EXPECT_THAT(parse("run  -x a,b", " "), ElementsAre("run", "-x", "a,b"));
}

TEST(ArgumentList, AnyCharacterOfTheSetSeparates) {
    EXPECT_THAT(parse("a,b;c d", ",; "), ElementsAre("a", "b", "c", "d"));
}

TEST(ArgumentList, EmptyArgumentsAreDropped) {
    EXPECT_THAT(parse(",a,,b,"), ElementsAre("a", "b"));
    EXPECT_THAT(parse(",,,"), IsEmpty());
    EXPECT_THAT(parse(""), IsEmpty());
}

TEST(ArgumentList, QuotedTextKeepsItsSeparatorsWithoutTheQuotes) {
    EXPECT_THAT(parse("a,\"b,c\",d"), ElementsAre("a", "b,c", "d"));
    EXPECT_THAT(parse("-ini \"/tmp/my file.xml\" -wq q", " "),
                ElementsAre("-ini", "/tmp/my file.xml", "-wq", "q"));
}

TEST(ArgumentList, QuotedTextInTheMiddleIsAppendedAndEndsTheArgument) {
    EXPECT_THAT(parse("ab\"c,d\"ef,g"), ElementsAre("abc,d", "ef", "g"));
}

TEST(ArgumentList, TextDirectlyAfterAClosingQuoteStartsANewArgument) {
    EXPECT_THAT(parse("\"a\"b,c"), ElementsAre("a", "b", "c"));
    EXPECT_THAT(parse("\"a\"\"b\""), ElementsAre("a", "b"));
}

TEST(ArgumentList, QuoteWithoutAPartnerIsAnOrdinaryCharacter) {
    EXPECT_THAT(parse("a\"b,c"), ElementsAre("a\"b", "c"));
    EXPECT_THAT(parse("\"a\",\"b"), ElementsAre("a", "\"b"));
    EXPECT_THAT(parse("\""), ElementsAre("\""));
}

TEST(ArgumentList, QuotesPairUpAcrossSeparators) {
    EXPECT_THAT(parse("5\" disk,6\" disk"), ElementsAre("5 disk,6", " disk"));
}

TEST(ArgumentList, TwoQuotesInARowAreAnEmptyArgumentThatKeepsItsPlace) {
    EXPECT_THAT(parse("a,\"\",b"), ElementsAre("a", "", "b"));
    EXPECT_THAT(parse("\"\""), ElementsAre(""));
    EXPECT_THAT(parse("\"\"\"\""), ElementsAre("", ""));
    EXPECT_THAT(parse("a\"\"b"), ElementsAre("a", "b"));
}

TEST(ArgumentList, EverySlotIsEmptiedBeforehand) {
    Slots slots;
    EXPECT_THAT(slots.parse("a", ","), ElementsAre("a"));
    for (int i = 1; i < 50; ++i)
        EXPECT_EQ(slots.args[i][0], '\0') << i;
    EXPECT_EQ(slots.args[1][1], 'x') << "only the first byte of an unused slot is cleared";
}

TEST(ArgumentList, ArgumentsBeyondTheFiftiethAreDropped) {
    std::string line;
    for (int i = 0; i < 60; ++i)
        line += std::to_string(i) + ",";
    const Arguments found = parse(line.c_str());
    ASSERT_EQ(found.size(), 50u);
    EXPECT_EQ(found.front(), "0");
    EXPECT_EQ(found.back(), "49");
}

TEST(ArgumentList, LongArgumentIsCutAtItsSlotAndTerminated) {
    for (const std::size_t length : {298u, 299u, 300u, 301u, 5000u}) {
        const std::string text(length, 'a');
        EXPECT_THAT(parse((text + ",b").c_str()), ElementsAre(text.substr(0, 299), "b")) << length;
        EXPECT_THAT(parse(("\"" + text + "\",b").c_str()), ElementsAre(text.substr(0, 299), "b")) << length;
    }
}

TEST(ArgumentList, NullsAreEmptyTexts) {
    Slots slots;
    EXPECT_THAT(slots.parse(nullptr, ","), IsEmpty());
    EXPECT_EQ(slots.args[49][0], '\0');
    EXPECT_THAT(parse("a,b", nullptr), ElementsAre("a,b"));
    EXPECT_EQ(cStringUtil::getArgumentList("a", nullptr, ","), 0);
}

TEST(ArgumentList, LineCutAtEveryLengthStaysWithinItsSlots) {
    const std::string line = "CAPTURE,\"a,b\",c\"d e\"f,\"\",,\"open";
    for (std::size_t length = 0; length <= line.size(); ++length) {
        const std::string cut = line.substr(0, length);
        EXPECT_LE(parse(cut.c_str()).size(), 8u) << cut;
    }
}

TEST(ArgumentSplit, TellsWhichBoundWasExceeded) {
    using kestrel::splitArguments;
    EXPECT_TRUE(splitArguments("a,b", ",").withinBounds());

    const auto tooLong = splitArguments("a," + std::string(299, 'b') + "," + std::string(300, 'c'), ",");
    EXPECT_FALSE(tooLong.tooMany());
    EXPECT_EQ(tooLong.firstTooLong(), 2u);
    EXPECT_FALSE(tooLong.withinBounds());
    EXPECT_EQ(tooLong.arguments[2].size(), 300u) << "the argument itself is kept whole";

    std::string line(1, 'a');
    for (int i = 1; i < 50; ++i)
        line += ",a";
    EXPECT_TRUE(splitArguments(line, ",").withinBounds());
    EXPECT_TRUE(splitArguments(line + ",a", ",").tooMany());
    EXPECT_EQ(splitArguments(line + ",a", ",").firstTooLong(), std::nullopt);
    EXPECT_EQ(splitArguments(line + ",a", ",").arguments.size(), 51u);
}

TEST(ArgumentVector, SplitsACommandLineAtBlanks) {
    kestrel::ArgumentVector vector("worker -ini \"/tmp/a b.xml\"  -log x");
    EXPECT_THAT(vector.arguments(), ElementsAre("worker", "-ini", "/tmp/a b.xml", "-log", "x"));
    EXPECT_STREQ(vector.file(), "worker");
    EXPECT_TRUE(vector.complete());
    ASSERT_EQ(vector.count(), 5u);
    EXPECT_STREQ(vector.argv()[2], "/tmp/a b.xml");
    EXPECT_EQ(vector.argv()[5], nullptr);
}

TEST(ArgumentVector, CutsAtBothBoundsAndSaysSo) {
    std::string line;
    for (int i = 0; i < 51; ++i)
        line += "a ";
    const kestrel::ArgumentVector many(line);
    EXPECT_EQ(many.count(), 50u);
    EXPECT_FALSE(many.complete());

    kestrel::ArgumentVector wide("a " + std::string(300, 'b'));
    EXPECT_EQ(std::strlen(wide.argv()[1]), 299u);
    EXPECT_FALSE(wide.complete());
}

TEST(ArgumentVector, TakesAListWithoutBounds) {
    kestrel::ArgumentVector vector(Arguments{"worker", "", std::string(1000, 'x')});
    EXPECT_TRUE(vector.complete());
    EXPECT_STREQ(vector.argv()[1], "");
    EXPECT_EQ(std::strlen(vector.argv()[2]), 1000u);
    EXPECT_EQ(vector.argv()[3], nullptr);
}

TEST(ArgumentVector, EmptyLineHasNoProgram) {
    kestrel::ArgumentVector vector("");
    EXPECT_EQ(vector.file(), nullptr);
    EXPECT_EQ(vector.argv()[0], nullptr);
}

TEST(ArgumentVector, PointersSurviveAMove) {
    kestrel::ArgumentVector first("a bb");
    kestrel::ArgumentVector second = std::move(first);
    EXPECT_STREQ(second.argv()[0], "a");
    EXPECT_STREQ(second.argv()[1], "bb");
    EXPECT_EQ(second.argv()[2], nullptr);
}

} // namespace
