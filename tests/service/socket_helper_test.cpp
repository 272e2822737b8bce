// One client connection.
#include "loopback.h"
#include "service/CSocketHelper.h"
#include "service_directories.h"

#include <cstring>
#include <fcntl.h>
#include <functional>
#include <gmock/gmock.h>
#include <stdexcept>
#include <thread>
#include <unistd.h>
#include <vector>

using kestrel::UniqueFd;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

// A processor that notes what it was asked and answers as it is told.
class Notes : public IMessageProcessor {
public:
    using Answer = std::function<bool(const std::string& request, char* response)>;

    Notes(std::vector<std::string>& heard, Answer answer) : m_heard(heard), m_answer(std::move(answer)) {}
    ~Notes() override { m_heard.emplace_back("(gone)"); }

    bool process(char* text, char* response, int size) override {
        EXPECT_EQ(size, 2000);
        EXPECT_EQ(std::string(response, 2000), std::string(2000, '\0')) << "handed over empty";
        m_heard.emplace_back(text);
        return m_answer(text, response);
    }

private:
    std::vector<std::string>& m_heard;
    Answer m_answer;
};

class SocketHelper : public testing::Test {
protected:
    void SetUp() override { connect(SOCK_STREAM); }

    // Packets keep their bounds, so that several requests can wait at once.
    void connect(int type) {
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, ends), 0);
        client.reset(ends[0]);
        service.reset(ends[1]);
    }

    std::unique_ptr<CSocketHelper> helper(Notes::Answer answer) {
        return std::make_unique<CSocketHelper>(service.release(), new Notes(heard, std::move(answer)));
    }
    std::unique_ptr<CSocketHelper> answering() {
        return helper([](const std::string&, char* response) {
            std::strcpy(response, "answer");
            return true;
        });
    }

    // A client that will send no more; the helper sees the end.
    void finish() const { shutdown(client.get(), SHUT_WR); }

    UniqueFd client;
    UniqueFd service;
    std::vector<std::string> heard;
};

TEST_F(SocketHelper, AnswersWithOneLineFeedAndEnds) {
    ASSERT_TRUE(sendText(client, "PING"));
    answering()->readFromSocket();
    EXPECT_THAT(heard, ElementsAre("PING", "(gone)"));
    EXPECT_EQ(receive(client), "answer\n");
}

TEST_F(SocketHelper, TrimsBlanksTabsAndLineEndsOfBothSides) {
    ASSERT_TRUE(sendText(client, " \t\r\n PING\t a \r\n\t "));
    const auto connection = answering();
    connection->readFromSocket();
    EXPECT_STREQ(connection->m_Message, "PING\t a");
    EXPECT_THAT(heard, ElementsAre("PING\t a"));
}

TEST_F(SocketHelper, ALineOfNothingButBlanksIsAnEmptyRequest) {
    ASSERT_TRUE(sendText(client, " \r\n"));
    answering()->readFromSocket();
    EXPECT_THAT(heard, ElementsAre("", "(gone)"));
    EXPECT_EQ(receive(client), "answer\n");
}

TEST_F(SocketHelper, TwoLinesInOneReceiveAreOneRequest) {
    ASSERT_TRUE(sendText(client, "one\r\ntwo\r\n"));
    const auto connection = answering();
    connection->readFromSocket();
    EXPECT_THAT(heard, ElementsAre("one\r\ntwo"));
}

TEST_F(SocketHelper, ASecondRequestIsNotReadAfterAnAnswer) {
    connect(SOCK_SEQPACKET);
    ASSERT_TRUE(sendText(client, "one"));
    ASSERT_TRUE(sendText(client, "two"));
    const auto connection = answering();
    connection->readFromSocket();
    EXPECT_THAT(heard, ElementsAre("one"));
}

TEST_F(SocketHelper, ReadsOnWhenThereIsNothingToSend) {
    connect(SOCK_SEQPACKET);
    for (const char* text : {"one", "!two", "three"})
        ASSERT_TRUE(sendText(client, text));
    const auto connection = helper([](const std::string& request, char*) { return request[0] == '!'; });
    connection->readFromSocket();
    EXPECT_THAT(heard, ElementsAre("one", "!two"));
    EXPECT_STREQ(connection->m_Message, "!two") << "the last one";
}

TEST_F(SocketHelper, ReadsOnAfterAnAnswerThatCouldNotBeSent) {
    connect(SOCK_SEQPACKET);
    ASSERT_TRUE(sendText(client, "one"));
    ASSERT_TRUE(sendText(client, "two"));
    shutdown(client.get(), SHUT_RDWR);
    const auto connection = answering();
    connection->readFromSocket();
    EXPECT_THAT(heard, ElementsAre("one", "two"));
}

TEST_F(SocketHelper, AnEmptyAnswerIsALineFeed) {
    ASSERT_TRUE(sendText(client, "x"));
    helper([](const std::string&, char*) { return true; })->readFromSocket();
    EXPECT_EQ(receive(client), "\n");
}

TEST_F(SocketHelper, ARequestOfTwoThousandBytesIsWhole) {
    ASSERT_TRUE(sendText(client, std::string(2'000, 'a')));
    const auto connection = answering();
    connection->readFromSocket();
    EXPECT_THAT(heard, ElementsAre(std::string(2'000, 'a')));
}

TEST_F(SocketHelper, CutsARequestAtTwoThousandBytes) {
    ASSERT_TRUE(sendText(client, std::string(2'000, 'a') + std::string(500, 'b')));
    const auto connection = answering();
    connection->readFromSocket();
    EXPECT_THAT(heard, ElementsAre(std::string(2'000, 'a')));
}

TEST_F(SocketHelper, AZeroByteEndsTheRequest) {
    ASSERT_TRUE(sendText(client, std::string("one\0two", 7)));
    const auto connection = answering();
    connection->readFromSocket();
    EXPECT_THAT(heard, ElementsAre("one"));
}

TEST_F(SocketHelper, AClientThatSendsNothingIsNotProcessed) {
    finish();
    answering()->readFromSocket();
    EXPECT_THAT(heard, ElementsAre("(gone)"));
    EXPECT_EQ(receive(client), "");
}

TEST_F(SocketHelper, AClientThatHasGoneRaisesNoSignal) {
    client.reset();
    const auto connection = answering();
    char text[] = "late";
    EXPECT_FALSE(connection->sendToSocket(text));
    connection->readFromSocket();
    EXPECT_THAT(heard, IsEmpty());
}

TEST_F(SocketHelper, ASocketThatIsNoneFails) {
    service.reset();
    CSocketHelper connection(-1, new Notes(heard, nullptr));
    char text[] = "nobody";
    EXPECT_FALSE(connection.sendToSocket(text));
    connection.readFromSocket();
    EXPECT_THAT(heard, IsEmpty());
}

TEST_F(SocketHelper, AnExceptionOfTheProcessorEndsTheConnection) {
    const CapturedLog log;
    ASSERT_TRUE(sendText(client, "x"));
    helper([](const std::string&, char*) -> bool { throw std::runtime_error("broken"); })->readFromSocket();
    EXPECT_EQ(receive(client), "");
    EXPECT_THAT(log.text(), HasSubstr("[CSocketHelper:Error] CSocketHelper::readFromSocket"));
    connect(SOCK_STREAM);
    ASSERT_TRUE(sendText(client, "x"));
    helper([](const std::string&, char*) -> bool { throw 1; })->readFromSocket();
    EXPECT_EQ(receive(client), "");
}

TEST_F(SocketHelper, ItsEndClosesTheSocketAndTakesTheProcessorAlong) {
    const int descriptor = service.get();
    answering().reset();
    EXPECT_THAT(heard, ElementsAre("(gone)"));
    EXPECT_EQ(fcntl(descriptor, F_GETFD), -1);
    EXPECT_TRUE(closedByPeer(client));
}

TEST_F(SocketHelper, AnotherThreadCanEndAWaitingReceive) {
    const auto connection = answering();
    std::thread reader([&] { connection->readFromSocket(); });
    connection->shutDown();
    reader.join();
    EXPECT_THAT(heard, IsEmpty());
}

TEST_F(SocketHelper, EachStepIsLogged) {
    const CapturedLog log;
    ASSERT_TRUE(sendText(client, " PING\r\n"));
    answering()->readFromSocket();
    connect(SOCK_STREAM);
    client.reset();
    {
        const auto connection = answering();
        char text[] = "late";
        connection->sendToSocket(text);
        connection->readFromSocket();
    }
    EXPECT_EQ(log.text(),
              "[CSocketHelper:Info] CSocketHelper::readFromSocket - Received from socket:  PING\r\n\r\n"
              "[CSocketHelper:Info] length of the line: 7\r\n"
              "[CSocketHelper:Info] length of the m_Message: 4\r\n"
              "[CSocketHelper:Debug] CSocketHelper::sendToSocket sent len 7- Exiting\r\n"
              "[CSocketHelper:Info] Socket Helper got destructed...\r\n"
              "[CSocketHelper:Error] CSocketHelper::sendToSocket - Error while sending...\r\n"
              "[CSocketHelper:Debug] CSocketHelper::readFromSocket - Exiting...\r\n"
              "[CSocketHelper:Info] Socket Helper got destructed...\r\n");
}

} // namespace
