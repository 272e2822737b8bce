// Files that are no profile: whatever stands at the path, a load ends with an answer.
#include "profile_files.h"

#include <cstring>
#include <sys/stat.h>

class HostileFile : public ProfileFiles {
protected:
    bool loads(const std::string& text) const {
        CSettings settings;
        return settings.LoadProfile(write(text).c_str());
    }

    static std::string repeated(const std::string& text, int times) {
        std::string result;
        result.reserve(text.size() * static_cast<std::size_t>(times));
        for (int i = 0; i < times; ++i)
            result += text;
        return result;
    }
};

TEST_F(HostileFile, ADirectoryIsRefused) {
    CSettings settings;
    EXPECT_FALSE(settings.LoadProfile(directory().c_str()));
}

TEST_F(HostileFile, AFifoIsRefusedWithoutWaitingForAWriter) {
    ASSERT_EQ(::mkfifo(path("fifo").c_str(), 0600), 0);
    CSettings settings;
    EXPECT_FALSE(settings.LoadProfile(path("fifo").c_str()));
}

TEST_F(HostileFile, ADeviceIsRefused) {
    CSettings settings;
    EXPECT_FALSE(settings.LoadProfile("/dev/zero"));
}

TEST_F(HostileFile, MoreThan16MiBIsRefused) {
    constexpr std::size_t limit = 16U << 20;
    const std::string head = "<CaptureSettings/><!--";
    const std::string tail = "-->";
    const std::string fits = head + std::string(limit - head.size() - tail.size(), ' ') + tail;
    EXPECT_TRUE(loads(fits));
    EXPECT_FALSE(loads(fits + "\n"));
}

TEST_F(HostileFile, NestingOfAnyDepthDoesNotExhaustTheStack) {
    for (const int depth : {100, 2000, 2048, 2049, 4096, 4097, 100000, 2000000})
        EXPECT_EQ(loads(repeated("<a>", depth) + repeated("</a>", depth)), depth <= 2048) << depth;
    EXPECT_FALSE(loads(repeated("<a>", 4096))) << "never closed";
    EXPECT_FALSE(loads(repeated("<a b=\"/>\">", 1000000))) << "looks closed";
}

TEST_F(HostileFile, AnyNumberOfAttributesEndsInTime) {
    std::string attributes;
    for (int i = 0; i < 1000000; ++i)
        attributes += " a" + std::to_string(i) + "=\"\"";
    EXPECT_FALSE(loads("<CaptureSettings" + attributes + "/>"));
}

TEST_F(HostileFile, BytesThatAreNoTextAreRefused) {
    EXPECT_FALSE(loads(std::string("<CaptureSettings/>\0", 19)));
    EXPECT_FALSE(loads(std::string(1000, '\0')));
    EXPECT_FALSE(loads("\xef"));
    EXPECT_FALSE(loads("\xef\xbb"));
    EXPECT_FALSE(loads(std::string(1000, '\xef')));
    EXPECT_FALSE(loads("<?xml version=\"1.0\" encoding=\"UTF-8\"?><a b=\"\xf0"));
    EXPECT_TRUE(loads("\xef\xbb\xbf<CaptureSettings/>")) << "a byte-order mark is welcome";
}

// Also every place where a declaration, a name, a quote or a reference breaks off.
// An editor of another system puts the mark in front, and a comment has a name in another encoding.
TEST_F(HostileFile, AByteOrderMarkBeforeBytesThatAreNoUtf8IsNoText) {
    const std::string mark = "\xEF\xBB\xBF";
    for (const char* each : {"caf\xE9", "caf\xC3\xA9", "cafe"}) {
        CSettings settings;
        const std::string text = mark + "<?xml version=\"1.0\" encoding=\"UTF-8\"?><!-- " + each +
                                 " --><S><CMD_PARAMS OUTPUT_FILE=\"/" + each + "\"/></S>";
        EXPECT_TRUE(settings.LoadProfile(write(text).c_str())) << each;
        EXPECT_EQ(settings.cmd.outputFile, std::string("/") + each);
    }
}

TEST_F(HostileFile, AProfileCutAtAnyLengthIsRefused) {
    const std::string whole =
        "\xef\xbb\xbf<?xml version=\"1.0\" encoding=\"UTF-8\" ?><!-- profile --><CaptureSettings>"
        "<![CDATA[x]]>" +
        element("VTR_OPTIONS", {{"PORT", "a&amp;b&#x41;\xc3\xa9\xef\xbf\xbd"}, {"PREROLL_TIME_SECS", "12"}}) +
        element("CMD_PARAMS", {{"JOB_TYPE", "VTR"}, {"MARK_IN_TIME", "01:02:03:04"}}) + "</CaptureSettings>";
    EXPECT_TRUE(loads(whole));
    for (std::size_t length = 0; length < whole.size(); ++length)
        EXPECT_FALSE(loads(whole.substr(0, length))) << whole.substr(0, length);
}

TEST_F(HostileFile, AnyByteAnywhereLeavesTheFieldsTerminated) {
    const std::string whole = "<a><CMD_PARAMS JOB_TYPE=\"VTR\" OUTPUT_FILE=\"" + std::string(300, 'x') +
                              "\" MARK_IN_TIME=\"01:02:03:04:05\"/></a>";
    for (const char byte : {'<', '>', '&', '"', '\'', '/', '\xff', '\xf0', '\xef', '\x01', '\n'}) {
        for (std::size_t at = 0; at<whole.size(); at += at> 50 && at < 330 ? 40 : 1) {
            std::string changed = whole;
            changed[at] = byte;
            CSettings settings;
            settings.LoadProfile(write(changed).c_str());
            EXPECT_LT(::strnlen(settings.cmd.outputFile, sizeof settings.cmd.outputFile), 260U);
            EXPECT_LT(::strnlen(settings.cmd.markInTime, sizeof settings.cmd.markInTime), 12U);
        }
    }
}
