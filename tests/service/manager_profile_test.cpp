// The loggers of a profile, and how a manager finds and uses the file.
#include "loopback.h"
#include "service/StopClient.h"
#include "settings_fixture.h"

#include <cstddef>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <thread>

using testing::HasSubstr;
using testing::Not;

namespace {

using ManagerProfile = SettingsTest;

TEST_F(ManagerProfile, WithoutTheLoggersNothingIsLoggedAndNoFileMade) {
    const CapturedLog lines;
    writeProfile("<R><Logging LOG_FILENAME='" + root +
                 "m.log' LOG_LEVEL='4'/><Job HEARTBEAT_TIMEOUT_SECS='x'/></R>");
    EXPECT_EQ(CManagerLib::GetSettings(settings, false, (root + "d.log").c_str(), BaseLogger::Fatal), 0);
    LogUtil::Debug("Manager", "still at the level from before");
    EXPECT_EQ(lines.text(), "[Manager:Debug] still at the level from before\r\n");
    EXPECT_EQ(log(), "");
}

TEST_F(ManagerProfile, TheLoggerFallsBackToTheDefaultFileAndLevel) {
    writeProfile("<R><Logging/></R>");
    EXPECT_EQ(CManagerLib::GetSettings(settings, true, (root + "d.log").c_str(), BaseLogger::Warning), 0);
    LogUtil::Info("Manager", "hidden");
    LogUtil::Warning("Manager", "shown");
    EXPECT_THAT(log(), Not(HasSubstr("hidden")));
    EXPECT_THAT(log(), HasSubstr("[Manager:Warning] shown"));
}

TEST_F(ManagerProfile, ALogReceiverNeedsAddressAndPort) {
    unsigned short port = 0;
    const kestrel::UniqueFd receiver = boundSocket(SOCK_DGRAM, port);
    const std::string number = std::to_string(port);
    const auto load = [&](const std::string& attributes) {
        LogUtil::Cleanup();
        writeProfile("<R><Logging LOG_LEVEL='1' " + attributes + "/><WebServicesComm/></R>");
        EXPECT_EQ(CManagerLib::GetSettings(settings, true, (root + "d.log").c_str(), BaseLogger::Info), 0);
        LogUtil::Info("Manager", "%s", attributes.c_str());
    };
    load("LOG_IP='' LOG_PORT='" + number + "'");
    EXPECT_EQ(settings.portNumber, 1) << "the port is not read for an empty address";
    load("LOG_PORT='" + number + "'");
    load("LOG_IP='127.0.0.1'");
    const std::string both = "LOG_IP='127.0.0.1' LOG_PORT='" + number + "'";
    load(both);
    EXPECT_EQ(settings.portNumber, port) << "the last integer that was read";
    ASSERT_TRUE(readable(receiver, ANSWER_TIMEOUT_MS));
    char datagram[500] = {};
    ASSERT_GT(recv(receiver.get(), datagram, sizeof datagram - 1, 0), 0);
    EXPECT_THAT(datagram,
                HasSubstr("[Manager:Warning] Profile section WebServicesComm, key PORT_NUMBER: absent, "
                          "the integer read before it is taken: " +
                          number))
        << "the first that arrives";
}

TEST_F(ManagerProfile, WithoutAManagerTheProfileIsFoundByItsDirectory) {
    EXPECT_STREQ(CManagerLib::m_kestrelMgrSettingsFname, "");
    EXPECT_EQ(read("<Job HEARTBEAT_TIMEOUT_SECS='3'/>"), 0);
    EXPECT_EQ(settings.heartbeatTimeoutSecs, 3);
    EXPECT_EQ(CManagerLib::m_instance, nullptr);
}

TEST_F(ManagerProfile, AManagerFixesThePathOfTheProfile) {
    writeProfile("<R><Job HEARTBEAT_TIMEOUT_SECS='3'/></R>");
    CManagerLib::GetInstance();
    EXPECT_STREQ(CManagerLib::m_kestrelMgrSettingsFname, profilePath().c_str());
    kestrel::copyText(KESTREL_CONFIG_PARENT_DIR, "/nowhere/");
    EXPECT_EQ(readFile(), 0);
    EXPECT_EQ(settings.heartbeatTimeoutSecs, 3);
}

// The stop client, and a service that answers it as the test says.
class StopClient : public SettingsTest {
protected:
    // What the client prints.
    std::string outputFor(const std::string& answer) {
        unsigned short port = 0;
        const kestrel::UniqueFd listener = boundSocket(SOCK_STREAM, port);
        EXPECT_EQ(listen(listener.get(), 1), 0);
        writeProfile("<R>" + section("WebServicesComm", "PORT_NUMBER", std::to_string(port)) + "</R>");
        std::thread server([&] {
            const kestrel::UniqueFd peer(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
            char buffer[100];
            const ssize_t count = recv(peer.get(), buffer, sizeof buffer, 0);
            request.assign(buffer, count > 0 ? static_cast<std::size_t>(count) : 0);
            sendText(peer, answer);
        });
        testing::internal::CaptureStdout();
        EXPECT_EQ(kestrel::stopService(), 0);
        server.join();
        return testing::internal::GetCapturedStdout();
    }

    std::string request;
};

TEST_F(StopClient, ReadsThePortWithoutAManager) {
    EXPECT_EQ(outputFor("TRUE - a good long answer\n"), "TRUE - a good long answer\n\n");
    EXPECT_EQ(request, "STOP_SERVICE\r\n");
    EXPECT_EQ(CManagerLib::m_instance, nullptr);
    EXPECT_EQ(log(), "") << "the client sets up no logging";
}

TEST_F(StopClient, PrintsTheRestOfItsRequestBehindAShorterAnswer) {
    EXPECT_EQ(outputFor("OK\n"), "OK\nP_SERVICE\r\n\n");
    EXPECT_EQ(outputFor(std::string("OK\0", 3)), "OK\n") << "a zero ends the answer";
}

TEST_F(ManagerProfile, AManagerWithoutAProfileLogsSoIntoTheDefaultFileAtLevelOne) {
    CManagerLib::GetInstance();
    LogUtil::Debug("Manager", "hidden");
    LogUtil::Info("Manager", "shown");
    EXPECT_THAT(log(), HasSubstr("[Manager:Error] Could not load KestrelManager settings file " +
                                 profilePath() + "."));
    EXPECT_THAT(log(), HasSubstr("[Manager:Warning] " + profilePath() +
                                 ": No such file or directory (errno 2). No setting of it is taken, the "
                                 "defaults hold: port 5112, no deck control.\r\n"));
    EXPECT_THAT(log(), HasSubstr("[Manager:Info] shown"));
    EXPECT_THAT(log(), Not(HasSubstr("hidden")));
    EXPECT_TRUE(std::filesystem::is_regular_file([&] {
        for (const auto& entry : std::filesystem::directory_iterator(root))
            if (entry.path().filename().string().starts_with("KestrelManager-"))
                return entry.path();
        return std::filesystem::path();
    }()));
    settings = CManagerLib::GetInstance()->settings();
    expectDefaults();
}

TEST_F(ManagerProfile, AManagerNamesAProfileThatHasNoElement) {
    writeProfile("<!-- empty -->");
    CManagerLib::GetInstance();
    EXPECT_THAT(log(), HasSubstr("[Manager:Error] KestrelManager settings file " + profilePath() +
                                 " does not appear to be a valid xml file."));
}

TEST_F(ManagerProfile, AManagerNamesTheLineWhereAProfileIsNoXml) {
    writeProfile("<R>\n<Job HEARTBEAT_TIMEOUT_SECS='3'/>\n<Capture EXE='/c'</R>\n");
    CManagerLib::GetInstance();
    EXPECT_THAT(log(), HasSubstr("[Manager:Warning] " + profilePath() + ": at or before line 3: "));
    EXPECT_THAT(log(), HasSubstr(". No setting of it is taken"));
    EXPECT_THAT(log(), Not(HasSubstr(".. No setting"))) << "the parser's text has a point of its own";
    EXPECT_EQ(CManagerLib::GetInstance()->settings().heartbeatTimeoutSecs, 120);
}

TEST_F(ManagerProfile, ADirectoryOfReportsThatIsNotThereIsWarnedOf) {
    const auto logOfManager = [this](const std::string& directory) {
        writeProfile("<R><Logging LOG_FILENAME='" + root + "m.log'/><Verifier REPORT_DIR='" + directory +
                     "'/></R>");
        const std::string before = log();
        CManagerLib::GetInstance();
        CManagerLib::Cleanup();
        LogUtil::Cleanup();
        return log().substr(before.size());
    };
    EXPECT_THAT(logOfManager(root + "reports/"),
                HasSubstr("[Manager:Warning] Profile section Verifier, key REPORT_DIR: \"" + root +
                          "reports/\" is no directory: No such file or directory (errno 2). It must exist: "
                          "verifications fail until it does\r\n"));
    std::ofstream(root + "reports") << "a file";
    EXPECT_THAT(logOfManager(root + "reports"), HasSubstr(" is no directory: Not a directory (errno 20)."));
    EXPECT_THAT(logOfManager(root), Not(HasSubstr("is no directory")));
}

TEST_F(ManagerProfile, ALogThatCannotBeOpenedIsTold) {
    const auto failure = [this](const std::string& profile) {
        writeProfile(profile);
        CManagerLib::GetInstance();
        CManagerLib::Cleanup();
        LogUtil::Cleanup();
        return CManagerLib::LogFailure();
    };
    EXPECT_EQ(failure("<R><Logging LOG_FILENAME='/proc/x/K.log'/></R>"),
              "the log /proc/x/K.log cannot be opened: No such file or directory (errno 2); the service runs "
              "without it");
    EXPECT_EQ(failure("<R><Logging LOG_FILENAME='" + root + "m.log'/></R>"), "");
    kestrel::copyText(KESTREL_LOG_PARENT_DIR, "/proc/x/");
    const std::string byDefault = "the log /proc/x/KestrelManager.log cannot be opened: ";
    EXPECT_THAT(failure("<R><Logging LOG_LEVEL='1'/></R>"), HasSubstr(byDefault));
    EXPECT_EQ(failure("<R/>"), "") << "no log was asked for";
    EXPECT_THAT(failure("<broken"), HasSubstr(byDefault)) << "the one that is to say what is wrong";
}

TEST_F(ManagerProfile, AManagersLogLevelAndFileComeFromTheProfile) {
    writeProfile("<R><Logging LOG_FILENAME='" + root + "other.log' LOG_LEVEL='3'/></R>");
    CManagerLib::GetInstance();
    LogUtil::Info("Manager", "hidden");
    LogUtil::Error("Manager", "shown");
    EXPECT_THAT(log(), Not(HasSubstr("hidden")));
    EXPECT_THAT(log(), HasSubstr("shown"));
}

TEST_F(ManagerProfile, AProfileWithoutALoggingElementLeavesNoLogger) {
    writeProfile("<R><Job HEARTBEAT_TIMEOUT_SECS='3'/></R>");
    CManagerLib::GetInstance();
    LogUtil::Error("Manager", "nowhere");
    EXPECT_EQ(log(), "");
}

TEST_F(ManagerProfile, EachManagerReadsTheProfileAnew) {
    for (int timeout = 1; timeout < 4; ++timeout) {
        writeProfile("<R>" + section("Job", "HEARTBEAT_TIMEOUT_SECS", std::to_string(timeout)) + "</R>");
        CManagerLib* const manager = CManagerLib::GetInstance();
        EXPECT_EQ(CManagerLib::GetInstance(), manager);
        EXPECT_EQ(manager->settings().heartbeatTimeoutSecs, timeout);
        CManagerLib::Cleanup();
        EXPECT_EQ(CManagerLib::m_instance, nullptr);
    }
}

} // namespace
