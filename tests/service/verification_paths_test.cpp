// Verifications of files whose names are too long for what is made of them.
#include "service/CMessageProcessor.h"
#include "service_directories.h"

#include <gmock/gmock.h>

using testing::HasSubstr;
using testing::StartsWith;

namespace {

class VerificationPaths : public ServiceDirectories {
protected:
    static std::string answer(std::string line) {
        CMessageProcessor processor;
        char response[2000];
        EXPECT_TRUE(processor.process(line.data(), response, sizeof response));
        return response;
    }
    // A file with a path of that length.
    std::string fileOf(std::size_t length) const {
        std::string path = root;
        while (path.size() + 100 < length) {
            path += std::string(60, 'd') + "/";
            std::filesystem::create_directory(path);
        }
        path += std::string(length - path.size(), 'f');
        std::ofstream(path) << "packets";
        return path;
    }
};

TEST_F(VerificationPaths, ACommandLineThatDoesNotFitIsRefusedAndNothingIsStarted) {
    const std::string program = "/" + std::string(258, 'v');
    writeProfile("<P><Verifier EXE='" + program + "' REPORT_DIR='/" + std::string(257, 'r') + "/'/></P>");
    const std::string deep = fileOf(150);
    const std::string file = deep.substr(0, deep.rfind('/') + 1) + std::string(170, 'n');
    std::ofstream(file) << "packets";
    const CapturedLog lines;
    for (const char* property : {",VIDEO_PID", ",ALL"}) {
        EXPECT_THAT(
            answer("GET_MPEG_PROPERTIES,JOB_BEGIN,0123456789abcdef0123456789abcdef," + file + property),
            StartsWith("FALSE - Error: Could not launch process /vvv"));
        EXPECT_THAT(lines.text(), HasSubstr(program.substr(0, 240)));
    }
    EXPECT_THAT(lines.text(), HasSubstr("the command line is too long and is cut: /vvv"));
    EXPECT_THAT(lines.text(), testing::Not(HasSubstr("Launching Job command")));
    EXPECT_EQ(answer("JOB_STATUS,0123456789abcdef0123456789abcdef"), "TRUE - ERROR") << "the queued one";
}

TEST_F(VerificationPaths, ADoubleQuoteInANameIsRefusedAndNamed) {
    writeProfile("<P><Verifier EXE='/bin/false' REPORT_DIR='" + root + "'/></P>");
    const std::string file = root + "promo 15\".ts";
    std::ofstream(file) << "packets";
    const CapturedLog lines;
    for (const char* property : {",VIDEO_PID", ",ALL"})
        EXPECT_EQ(answer("GET_MPEG_PROPERTIES,JOB_BEGIN,cafe," + file + property),
                  "FALSE - Error: Could not launch process /bin/false: errno 22 (Invalid argument).");
    EXPECT_THAT(lines.text(), HasSubstr("[JobMgmt:Error] Job 0 cafe: a double quote (\") in the name of the "
                                        "file cannot be passed to the verifier: /bin/false -r xml"));
    EXPECT_THAT(lines.text(), testing::Not(HasSubstr("Launching Job command")));
    EXPECT_EQ(answer("JOB_STATUS,cafe"), "TRUE - ERROR") << "the queued one";
}

TEST_F(VerificationPaths, ADoubleQuoteInTheReportDirectoryIsRefusedToo) {
    const std::string directory = root + "re\"ports/";
    std::filesystem::create_directory(directory);
    writeProfile("<P><Verifier EXE='/bin/false' REPORT_DIR='" + directory + "'/></P>");
    const std::string file = root + "a.ts";
    std::ofstream(file) << "packets";
    const CapturedLog lines;
    EXPECT_EQ(answer("GET_MPEG_PROPERTIES,JOB_BEGIN,cafe," + file + ",VIDEO_PID"),
              "FALSE - Error: Could not launch process /bin/false: errno 22 (Invalid argument).");
    EXPECT_THAT(lines.text(), HasSubstr("a double quote (\") in the report's directory cannot be passed"));
}

TEST_F(VerificationPaths, ADoubleQuoteInTheGuidIsRefusedAndNamed) {
    writeProfile("<P><Verifier EXE='/bin/false' REPORT_DIR='" + root + "'/></P>");
    const std::string file = root + "a.ts";
    std::ofstream(file) << "packets";
    for (const char* rest : {",VIDEO_PID", ",ALL,XML", ",ALL"}) {
        const CapturedLog lines;
        EXPECT_EQ(answer("GET_MPEG_PROPERTIES,JOB_BEGIN,ca\"fe," + file + rest),
                  "FALSE - Error: Could not launch process /bin/false: errno 22 (Invalid argument).");
        EXPECT_THAT(lines.text(), HasSubstr("ca\"fe: a double quote (\") in the GUID cannot be passed to the "
                                            "verifier: /bin/false -r xml"));
    }
    for (const auto& entry : std::filesystem::directory_iterator(root))
        EXPECT_THAT(entry.path().filename().string(), testing::Not(StartsWith(".kestrel-")));
}

TEST_F(VerificationPaths, ARequestThatCanHaveNoDirectoryOfItsOwnIsRefused) {
    // A queued verification has the report.
    const std::string directory = root + "reports/";
    std::filesystem::create_directory(directory);
    writeProfile("<P><Verifier EXE='/bin/false' REPORT_DIR='" + directory + "'/></P>");
    const std::string file = root + "a.ts";
    std::ofstream(file) << "packets";
    ASSERT_EQ(answer("GET_MPEG_PROPERTIES,JOB_BEGIN,cafe," + file + ",ALL"), "TRUE");
    std::filesystem::remove(directory);
    for (const char* rest : {",VIDEO_PID", ",ALL,XML"})
        EXPECT_EQ(answer("GET_MPEG_PROPERTIES,JOB_BEGIN,cafe," + file + rest),
                  "FALSE - Error: Could not launch process /bin/false: errno 2 (No such file or directory).");
}

TEST_F(VerificationPaths, ADirectoryOfItsOwnWhosePathDoesNotFitIsRefused) {
    std::string directory = root;
    for (const std::size_t length : {100U, 100U})
        std::filesystem::create_directory(directory += std::string(length, 'd') + "/");
    std::filesystem::create_directory(directory += std::string(258 - directory.size(), 'd') + "/");
    ASSERT_EQ(directory.size(), 259U);
    writeProfile("<P><Verifier EXE='/bin/false' REPORT_DIR='" + directory + "'/></P>");
    const std::string file = root + "a.ts";
    std::ofstream(file) << "packets";
    ASSERT_EQ(answer("GET_MPEG_PROPERTIES,JOB_BEGIN,cafe," + file + ",ALL"), "TRUE");
    for (const char* rest : {",VIDEO_PID", ",ALL,XML"})
        EXPECT_EQ(answer("GET_MPEG_PROPERTIES,JOB_BEGIN,cafe," + file + rest),
                  "FALSE - Error: Could not launch process /bin/false: errno 36 (File name too long).");
    EXPECT_TRUE(std::filesystem::is_empty(directory));
}

TEST_F(VerificationPaths, AFileNameThatIsCutIsWarnedOf) {
    writeProfile("<P/>");
    CManagerLib::GetInstance();
    const CapturedLog lines;
    const std::string file = fileOf(270);
    const std::string cut = file.substr(0, 259);
    EXPECT_EQ(answer("GET_MPEG_PROPERTIES,JOB_BEGIN,1," + file + ",VIDEO_PID"),
              ("FALSE - Error: file " + cut + " could not be found.").substr(0, 8 + 299));
    EXPECT_THAT(lines.text(), HasSubstr("[RequestMessages:Warning] GET_MPEG_PROPERTIES: \"" + file +
                                        "\" is too long and is cut to \"" + cut + "\".\r\n"));
}

} // namespace
