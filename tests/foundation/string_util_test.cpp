// Strings in two copies, and path helpers.
#include "foundation/StringUtil.h"

#include <clocale>
#include <cstring>
#include <cwchar>
#include <gtest/gtest.h>
#include <string>

namespace {

class StringUtil : public testing::Test {
protected:
    StringUtil() : m_before(std::setlocale(LC_CTYPE, nullptr)) { std::setlocale(LC_CTYPE, "C.UTF-8"); }
    ~StringUtil() override { std::setlocale(LC_CTYPE, m_before.c_str()); }

private:
    std::string m_before;
};

using PathHelper = StringUtil;

std::string dirPath(const char* src) {
    char dst[40];
    std::memset(dst, 'x', sizeof dst);
    cStringUtil::setDirPath(dst, src);
    return dst;
}

std::string fileSpecStripped(std::string path, int expected) {
    EXPECT_EQ(cStringUtil::stripFileSpec(path.data()), expected) << path;
    return path.c_str();
}

std::string extStripped(std::string path) {
    cStringUtil::stripFileExt(path.data());
    return path.c_str();
}

TEST_F(StringUtil, NarrowTextIsConvertedToWide) {
    const cStringUtil text("clip.ts");
    EXPECT_STREQ(text.cstr, "clip.ts");
    EXPECT_STREQ(text.wcstr, L"clip.ts");
    EXPECT_EQ(text.size, 8);
}

TEST_F(StringUtil, WideTextIsConvertedToNarrow) {
    const cStringUtil text(L"clip.ts");
    EXPECT_STREQ(text.cstr, "clip.ts");
    EXPECT_STREQ(text.wcstr, L"clip.ts");
    EXPECT_EQ(text.size, 8);
}

TEST_F(StringUtil, MultibyteCharactersAreConvertedBothWays) {
    const cStringUtil narrow("M\xc3\xbcll \xe2\x82\xac");
    EXPECT_STREQ(narrow.wcstr, L"M\u00fcll \u20ac");
    EXPECT_EQ(narrow.size, 10);
    const cStringUtil wide(L"\u20ac\u20ac\u20ac");
    EXPECT_STREQ(wide.cstr, "\xe2\x82\xac\xe2\x82\xac\xe2\x82\xac");
    EXPECT_EQ(wide.size, 4);
}

TEST_F(StringUtil, ConversionStopsAtTheFirstCharacterItCannotConvert) {
    const cStringUtil narrow("ab\xff\x80"
                             "cd");
    EXPECT_STREQ(narrow.cstr, "ab\xff\x80"
                              "cd");
    EXPECT_STREQ(narrow.wcstr, L"ab");
    const cStringUtil cut("ab\xe2\x82");
    EXPECT_STREQ(cut.wcstr, L"ab");
    const wchar_t bad[] = {L'a', L'b', static_cast<wchar_t>(0xD800), L'c', L'\0'};
    const cStringUtil wide(bad);
    EXPECT_STREQ(wide.cstr, "ab");
    std::setlocale(LC_CTYPE, "C");
    EXPECT_STREQ(cStringUtil(L"a\u20acb").cstr, "a");
}

TEST_F(StringUtil, NullAndEmptyTextsAreEmpty) {
    for (const cStringUtil& text : {cStringUtil(""), cStringUtil(static_cast<const char*>(nullptr)),
                                    cStringUtil(L""), cStringUtil(static_cast<const wchar_t*>(nullptr))}) {
        EXPECT_STREQ(text.cstr, "");
        EXPECT_STREQ(text.wcstr, L"");
        EXPECT_EQ(text.size, 1);
    }
}

TEST_F(StringUtil, CopyHasTextsOfItsOwn) {
    cStringUtil original("abc");
    cStringUtil copy = original;
    original.cstr[0] = 'x';
    EXPECT_STREQ(copy.cstr, "abc");
    copy = original;
    EXPECT_STREQ(copy.cstr, "xbc");
    EXPECT_NE(copy.cstr, original.cstr);
    EXPECT_NE(copy.wcstr, original.wcstr);
    cStringUtil& self = copy;
    copy = self;
    EXPECT_STREQ(copy.cstr, "xbc");
    const cStringUtil wide = cStringUtil(L"\u20ac");
    EXPECT_STREQ(wide.cstr, "\xe2\x82\xac");
}

TEST_F(StringUtil, UpdateFunctionsRefreshTheOtherCopy) {
    cStringUtil text("abc");
    text.cstr[1] = 'x';
    text.updateWcstr();
    EXPECT_STREQ(text.wcstr, L"axc");
    text.wcstr[2] = L'y';
    text.updateCstr();
    EXPECT_STREQ(text.cstr, "axy");
    text.wcstr[0] = L'\u20ac';
    text.updateCstr();
    EXPECT_STREQ(text.cstr, "\xe2\x82\xac") << "a text that outgrows its buffer is cut at a whole character";
}

TEST_F(StringUtil, NarrowTrimRemovesBothEnds) {
    cStringUtil text("  abc \r\n");
    EXPECT_STREQ(text.cstrTrim(" \t\r\n"), "abc");
    EXPECT_STREQ(text.cstr, "abc");
    EXPECT_STREQ(text.wcstr, L"abc");
    EXPECT_EQ(text.size, 9) << "the capacity stays";
}

TEST_F(StringUtil, NarrowTrimKeepsTheInsideAndMayLeaveNothing) {
    cStringUtil inside("\ta b\tc\n");
    EXPECT_STREQ(inside.cstrTrim(" \t\r\n"), "a b\tc");
    cStringUtil blank(" \t ");
    EXPECT_STREQ(blank.cstrTrim(" \t\r\n"), "");
    EXPECT_STREQ(blank.wcstr, L"");
    cStringUtil empty("");
    EXPECT_STREQ(empty.cstrTrim(" "), "");
    cStringUtil noSet(" a ");
    EXPECT_STREQ(noSet.cstrTrim(""), " a ");
    EXPECT_STREQ(noSet.cstrTrim(nullptr), " a ");
}

TEST_F(StringUtil, WideTrimRemovesOnlyTheFront) {
    cStringUtil text(L"  abc  ");
    EXPECT_STREQ(text.wcstrTrim(L" "), L"abc  ");
    EXPECT_STREQ(text.wcstr, L"abc  ");
    EXPECT_STREQ(text.cstr, "abc  ");
    cStringUtil blank(L"   ");
    EXPECT_STREQ(blank.wcstrTrim(L" "), L"");
    EXPECT_STREQ(blank.wcstrTrim(nullptr), L"");
}

TEST_F(StringUtil, MemberFormsWorkOnBothCopies) {
    cStringUtil spec("/a/b/c.ts");
    EXPECT_EQ(spec.stripFileSpec(), 1);
    EXPECT_STREQ(spec.cstr, "/a/b");
    EXPECT_STREQ(spec.wcstr, L"/a/b");
    EXPECT_EQ(spec.stripFileSpec(), 0);

    cStringUtil ext("/a/b/c.ts");
    ext.stripFileExt();
    EXPECT_STREQ(ext.cstr, "/a/b/c");
    EXPECT_STREQ(ext.wcstr, L"/a/b/c");

    cStringUtil name("/a/b/c.ts");
    EXPECT_STREQ(name.getStrippedFilename(), "c.ts");
    EXPECT_STREQ(name.cstr, "c.ts");
    EXPECT_STREQ(name.wcstr, L"c.ts");
}

TEST_F(PathHelper, NullValueIsTheEmptyText) {
    char text[] = "abc";
    const char* constant = text;
    EXPECT_EQ(cStringUtil::cValue(text), text);
    EXPECT_EQ(cStringUtil::cValue(constant), text);
    EXPECT_STREQ(cStringUtil::cValue("literal"), "literal");
    EXPECT_STREQ(cStringUtil::cValue(nullptr), "");
    EXPECT_STREQ(cStringUtil::cValue(static_cast<char*>(nullptr)), "");
    EXPECT_STREQ(cStringUtil::cValue(static_cast<const char*>(nullptr)), "");
}

TEST_F(PathHelper, DirectoryPathEndsWithOneSlash) {
    EXPECT_EQ(dirPath("/x"), "/x/");
    EXPECT_EQ(dirPath("/x/"), "/x/");
    EXPECT_EQ(dirPath("/"), "/");
    EXPECT_EQ(dirPath(""), "/");
    EXPECT_EQ(dirPath(nullptr), "/");
}

TEST_F(PathHelper, FileNameIsTheLastComponent) {
    struct {
        const char* path;
        const char* name;
    } const rows[] = {
        {"/a/b/c.ts", "c.ts"}, {"c.ts", "c.ts"}, {"/c.ts", "c.ts"}, {"a/c", "c"},   {"", ""},
        {"/a/b/", "b/"},       {"a/b/", "b/"},   {"/a/", "/a/"},    {"ab/", "ab/"}, {"a/", "a/"},
        {"//", "//"},          {"/", "/"},       {"/a//", "/"},     {"///", "/"},
    };
    for (const auto& row : rows)
        EXPECT_STREQ(cStringUtil::getStrippedFilename(row.path), row.name) << row.path;
    EXPECT_STREQ(cStringUtil::getStrippedFilename(nullptr), "");
}

TEST_F(PathHelper, FileNamePointsInsideThePath) {
    const char path[] = "/a/b/c.ts";
    EXPECT_EQ(cStringUtil::getStrippedFilename(path), path + 5);
}

TEST_F(PathHelper, FileSpecIsCutOnlyFromADirectoryPartAndOnlyWithADot) {
    EXPECT_EQ(fileSpecStripped("/a/b/c.ts", 1), "/a/b");
    EXPECT_EQ(fileSpecStripped("/a/b/dir", 0), "/a/b/dir") << "without a dot it is taken for a directory";
    EXPECT_EQ(fileSpecStripped("c.ts", 0), "c.ts");
    EXPECT_EQ(fileSpecStripped("/a.b/dir", 0), "/a.b/dir");
    EXPECT_EQ(fileSpecStripped("/a/b.d/", 1), "/a");
    EXPECT_EQ(fileSpecStripped("/c.ts", 1), "");
    EXPECT_EQ(fileSpecStripped("/a/b/", 0), "/a/b/");
    EXPECT_EQ(fileSpecStripped("", 0), "");
    EXPECT_EQ(cStringUtil::stripFileSpec(nullptr), 0);
}

TEST_F(PathHelper, ExtensionIsCutAtTheLastDotWhereverThatIs) {
    EXPECT_EQ(extStripped("/a/b/c.ts"), "/a/b/c");
    EXPECT_EQ(extStripped("c.raw.mpg"), "c.raw");
    EXPECT_EQ(extStripped("/a.b/c"), "/a");
    EXPECT_EQ(extStripped("/a/b/c"), "/a/b/c");
    EXPECT_EQ(extStripped(".ts"), "");
    EXPECT_EQ(cStringUtil::stripFileExt(nullptr), 0);
}

} // namespace
