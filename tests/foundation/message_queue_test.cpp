// The message-queue wrappers, on real queues.
#include "foundation/PosixWrappers.h"

#include "foundation/Logger.h"
#include "foundation/ScratchDir.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <string>
#include <unistd.h>

namespace {

class MessageQueueTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(initFileLogger(path.c_str()), 1);
        static int number = 0;
        name = "/kestrel_test_" + std::to_string(::getpid()) + "_" + std::to_string(++number);
        mq_unlink(name.c_str());
    }
    void TearDown() override {
        if (queue >= 0)
            closeMsgQueue(queue);
        mq_unlink(name.c_str());
        shutdownFileLogger();
    }

    void create() {
        queue = createMsgQueue(name.c_str(), 0666, attributes);
        ASSERT_GE(queue, 0) << std::strerror(errno);
    }
    [[nodiscard]] std::string logged() const { return contentOf(path); }

    ScratchDir dir;
    std::string path = dir.path("queue.log");
    std::string name;
    long attributes[4] = {0, 10, 1000, 0};
    int queue = -1;
};

TEST_F(MessageQueueTest, CreatedQueueHasItsAttributes) {
    create();
    long read[4] = {-1, -1, -1, -1};
    EXPECT_EQ(getQueueAttr(queue, read), 0);
    EXPECT_EQ(read[0], 0);
    EXPECT_EQ(read[1], 10);
    EXPECT_EQ(read[2], 1000);
    EXPECT_EQ(read[3], 0);
    EXPECT_EQ(sendMsg(queue, "ab", 2), 0);
    EXPECT_EQ(getQueueAttr(queue, read), 0);
    EXPECT_EQ(read[3], 1);
    EXPECT_EQ(logged(), "");
}

TEST_F(MessageQueueTest, CreatingAnExistingQueueFails) {
    create();
    EXPECT_LT(createMsgQueue(name.c_str(), 0666, attributes), 0);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(logged(), "Queue Error EEXIST\n");
}

TEST_F(MessageQueueTest, CreatingWithBadAttributesFails) {
    long bad[4] = {0, 0, 1000, 0};
    EXPECT_LT(createMsgQueue(name.c_str(), 0666, bad), 0);
    EXPECT_EQ(logged(), "Queue Error EINVAL\n");
}

TEST_F(MessageQueueTest, DescriptorsAreClosedOnExec) {
    create();
    EXPECT_TRUE(::fcntl(queue, F_GETFD) & FD_CLOEXEC);
    const int other = connectToMsgQueue(name.c_str(), 0);
    EXPECT_TRUE(::fcntl(other, F_GETFD) & FD_CLOEXEC);
    EXPECT_EQ(closeMsgQueue(other), 0);
}

TEST_F(MessageQueueTest, ConnectedQueueAllowsWhatItsAccessSays) {
    create();
    const struct {
        int access;
        bool reads, writes;
    } rows[] = {{0, true, false}, {1, false, true}, {2, true, true}, {3, true, false}, {-1, true, false}};
    for (const auto& row : rows) {
        const int other = connectToMsgQueue(name.c_str(), row.access);
        ASSERT_GE(other, 0) << row.access;
        EXPECT_EQ(sendMsg(other, "x", 1) == 0, row.writes) << row.access;
        ASSERT_EQ(sendMsg(queue, "y", 1), 0);
        char buffer[1000];
        int received = 0;
        EXPECT_EQ(receiveMsg(other, buffer, sizeof buffer, &received) == 0, row.reads) << row.access;
        EXPECT_EQ(closeMsgQueue(other), 0);
        long state[4];
        getQueueAttr(queue, state);
        for (; state[3] > 0; --state[3])
            receiveMsg(queue, buffer, sizeof buffer, &received);
    }
}

TEST_F(MessageQueueTest, ConnectingToNoQueueFails) {
    EXPECT_LT(connectToMsgQueue(name.c_str(), 2), 0);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(logged(), "Failed to connect to " + name + " queue\nQueue Error ENOENT\n");
}

TEST_F(MessageQueueTest, MessageArrivesWholeWithItsPriority) {
    create();
    const std::string text(1000, 'm');
    EXPECT_EQ(sendMsg(queue, text.data(), 1000), 0);
    char buffer[1000];
    int received = 0;
    unsigned priority = 0;
    EXPECT_EQ(receivePriorityMsg(queue, buffer, sizeof buffer, &received, &priority), 0);
    EXPECT_EQ(std::string(buffer, static_cast<std::size_t>(received)), text);
    EXPECT_EQ(priority, 16U);
    EXPECT_EQ(logged(), "");
}

TEST_F(MessageQueueTest, HigherPriorityIsReceivedFirst) {
    create();
    EXPECT_EQ(sendPriorityMsg(queue, "low", 3, 0), 0);
    EXPECT_EQ(sendMsg(queue, "fixed", 5), 0);
    EXPECT_EQ(sendPriorityMsg(queue, "high", 4, 17), 0);
    char buffer[1000];
    int received = 0;
    std::string order;
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(receiveMsg(queue, buffer, sizeof buffer, &received), 0);
        order += std::string(buffer, static_cast<std::size_t>(received)) + " ";
    }
    EXPECT_EQ(order, "high fixed low ");
}

TEST_F(MessageQueueTest, FailedSendsAreNamed) {
    create();
    const std::string text(1001, 'm');
    EXPECT_EQ(sendMsg(queue, text.data(), 1001), 1);
    EXPECT_EQ(errno, EMSGSIZE);
    EXPECT_EQ(logged(), "sendMsg: mq_send failed\n");
    EXPECT_EQ(sendPriorityMsg(queue, text.data(), 1001, 3), 1);
    EXPECT_EQ(logged(), "sendMsg: mq_send failed\nsendPriorityMsg: sendPriorityMsg failed\n");
    EXPECT_EQ(sendMsg(queue, text.data(), -1), 1);
    EXPECT_EQ(errno, EMSGSIZE);
}

TEST_F(MessageQueueTest, FailedReceivesAreNamed) {
    create();
    char buffer[1000];
    int received = 77;
    unsigned priority = 0;
    // A buffer smaller than the queue's message size.
    EXPECT_EQ(receiveMsg(queue, buffer, 999, &received), 1);
    EXPECT_EQ(errno, EMSGSIZE);
    EXPECT_EQ(logged(), "receiveMsg: receiveMsg failed\n");
    EXPECT_EQ(receivePriorityMsg(queue, buffer, 999, &received, &priority), 1);
    EXPECT_EQ(logged(), "receiveMsg: receiveMsg failed\nreceivePriorityMsg: receiveMsg failed\n");
    EXPECT_EQ(receiveMsg(queue, buffer, -1, &received), 1);
    EXPECT_EQ(received, 77);
}

TEST_F(MessageQueueTest, EmptyMessageCountsAsFailure) {
    create();
    EXPECT_EQ(sendMsg(queue, "", 0), 0);
    char buffer[1000];
    int received = 77;
    EXPECT_EQ(receiveMsg(queue, buffer, sizeof buffer, &received), 1);
    EXPECT_EQ(received, 77);
}

TEST_F(MessageQueueTest, NonBlockingModeCanBeSet) {
    create();
    long state[4] = {O_NONBLOCK, 0, 0, 0};
    EXPECT_EQ(setQueueAttr(queue, state), 0);
    char buffer[1000];
    int received = 0;
    EXPECT_EQ(receiveMsg(queue, buffer, sizeof buffer, &received), 1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(getQueueAttr(queue, state), 0);
    EXPECT_EQ(state[0], O_NONBLOCK);
    EXPECT_EQ(state[1], 10);
}

TEST_F(MessageQueueTest, DescriptorCanBePolled) {
    create();
    pollfd ready{queue, POLLIN, 0};
    EXPECT_EQ(::poll(&ready, 1, 0), 0);
    sendMsg(queue, "x", 1);
    EXPECT_EQ(::poll(&ready, 1, 5000), 1);
}

TEST_F(MessageQueueTest, ClosedOrUnknownQueuesFail) {
    long state[4];
    create();
    EXPECT_EQ(closeMsgQueue(queue), 0);
    const int closed = std::exchange(queue, -1);
    EXPECT_EQ(closeMsgQueue(closed), 1);
    EXPECT_EQ(getQueueAttr(closed, state), 1);
    long noFlags[4] = {0, 0, 0, 0};
    EXPECT_EQ(setQueueAttr(closed, noFlags), 1);
    EXPECT_EQ(sendMsg(closed, "x", 1), 1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(unlinkMsgQueue(name.c_str()), 0);
    EXPECT_EQ(unlinkMsgQueue(name.c_str()), 1);
}

TEST_F(MessageQueueTest, EachErrorHasItsLine) {
    const struct {
        int error;
        const char* line;
    } rows[] = {
        {ENOENT, "Queue Error ENOENT\n"},
        {EINTR, "Queue Error EINTR\n"},
        {EBADF, "Queue Error EBADF\n"},
        {EAGAIN, "Queue Error EAGAIN\n"},
        {EACCES, "Queue Error EACCES\n"},
        {EEXIST, "Queue Error EEXIST\n"},
        {EINVAL, "Queue Error EINVAL\n"},
        {ENFILE, "Queue Error ENFILE\n"},
        {EMFILE, "Queue Error EMFILE\n"},
        {ENOSPC, "Queue Error ENOSPC\n"},
        {ENAMETOOLONG, "Queue Error ENAMETOOLONG\n"},
        {EMSGSIZE, "Queue Error EMSGSIZE\n"},
        {ETIMEDOUT, "Queue Error ETIMEDOUT\n"},
        {EXDEV, "Queue Error 18\n"},
    };
    std::string expected;
    for (const auto& row : rows) {
        errno = row.error;
        printQueueError();
        EXPECT_EQ(errno, row.error);
        expected += row.line;
        EXPECT_EQ(logged(), expected);
    }
}

} // namespace
