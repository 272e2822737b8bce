// What happens when the system refuses something that it grants on any healthy machine. The linker sends the
// calls of this program to the functions below (--wrap), which refuse when they are told to.
#include "foundation/Logger.h"
#include "foundation/PosixWrappers.h"
#include "foundation/ScratchDir.h"
#include "foundation/file_io.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <new>
#include <pthread.h>
#include <string>
#include <sys/socket.h>

namespace {

bool refuseAttributes = false;
bool refuseMutexes = false;
bool refuseArrays = false;
bool refuseUnlocks = false;
bool refuseBinds = false;

// What a socket was bound to last.
sockaddr_in boundTo{};

// The datagrams handed to the system, and how it takes the next ones: the first of them fail, or are cut.
int sendTries = 0;
int sendsToFail = 0;
int sendsToCut = 0;

// Sets a flag for the length of a scope.
class Refusal {
public:
    explicit Refusal(bool& flag) : m_flag(flag) { m_flag = true; }
    ~Refusal() { m_flag = false; }
    Refusal(const Refusal&) = delete;
    Refusal& operator=(const Refusal&) = delete;

private:
    bool& m_flag;
};

} // namespace

extern "C" {

int __real_pthread_attr_init(pthread_attr_t* attributes);
int __wrap_pthread_attr_init(pthread_attr_t* attributes) {
    return refuseAttributes ? ENOMEM : __real_pthread_attr_init(attributes);
}

int __real_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes);
int __wrap_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes) {
    return refuseMutexes ? ENOMEM : __real_pthread_mutex_init(mutex, attributes);
}

int __real_pthread_mutex_unlock(pthread_mutex_t* mutex);
int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex) {
    const int result = __real_pthread_mutex_unlock(mutex);
    return refuseUnlocks && mutex == &m_LogMutex ? EPERM : result;
}

int __real_bind(int fd, const sockaddr* address, socklen_t length);
int __wrap_bind(int fd, const sockaddr* address, socklen_t length) {
    if (length == sizeof boundTo)
        std::memcpy(&boundTo, address, sizeof boundTo);
    if (refuseBinds) {
        errno = EADDRINUSE;
        return -1;
    }
    return __real_bind(fd, address, length);
}

// operator new[](std::size_t, const std::nothrow_t&)
void* __real__ZnamRKSt9nothrow_t(std::size_t size, const std::nothrow_t& tag);
void* __wrap__ZnamRKSt9nothrow_t(std::size_t size, const std::nothrow_t& tag) {
    return refuseArrays ? nullptr : __real__ZnamRKSt9nothrow_t(size, tag);
}

ssize_t __real_sendto(int fd, const void* bytes, std::size_t length, int flags, const sockaddr* to,
                      socklen_t toLength);
ssize_t __wrap_sendto(int fd, const void* bytes, std::size_t length, int flags, const sockaddr* to,
                      socklen_t toLength) {
    ++sendTries;
    if (sendsToFail > 0) {
        --sendsToFail;
        errno = ENOBUFS;
        return -1;
    }
    if (sendsToCut > 0) {
        --sendsToCut;
        return static_cast<ssize_t>(length) - 1;
    }
    return __real_sendto(fd, bytes, length, flags, to, toLength);
}
}

namespace {

class SystemFailure : public testing::Test {
protected:
    void TearDown() override { shutdownFileLogger(); }
    [[nodiscard]] std::string logged() const { return contentOf(path); }

    ScratchDir dir;
    std::string path = dir.path("c.log");
};

TEST_F(SystemFailure, StackSizesNeedThreadAttributes) {
    ASSERT_EQ(initFileLogger(path.c_str()), 1);
    const Refusal refusal(refuseAttributes);
    EXPECT_EQ(setPosixThreadStackSize(1 << 20), 1);
    EXPECT_EQ(logged(), "Couldn't get thread attributes\n");
    std::size_t size = 7;
    EXPECT_EQ(getPosixThreadStackSize(&size), 1);
    EXPECT_EQ(logged(), "Couldn't get thread attributes\nCouldn't get thread attributes\n");
    EXPECT_EQ(size, 7U);
}

TEST_F(SystemFailure, MutexThatCannotBeInitialisedIsLoggedWithTheError) {
    ASSERT_EQ(initFileLogger(path.c_str()), 1);
    pthread_mutex_t mutex;
    {
        const Refusal refusal(refuseMutexes);
        EXPECT_EQ(initPosixMutex(&mutex), 1);
    }
    EXPECT_EQ(logged(), "Couldn't ini mutext errno " + std::to_string(ENOMEM) + "\n");
}

TEST_F(SystemFailure, FileLogIsNotOpenedWithoutItsMutex) {
    {
        const Refusal refusal(refuseMutexes);
        EXPECT_EQ(initFileLogger(path.c_str()), 0);
    }
    EXPECT_EQ(m_pLogFile, nullptr);
    EXPECT_FALSE(logMsg("lost"));
    EXPECT_EQ(initFileLogger(path.c_str()), 1);
    EXPECT_TRUE(logMsg("found"));
    EXPECT_EQ(logged(), "found");
}

TEST_F(SystemFailure, LineCountsAsWrittenOnlyWhenTheMutexWasUnlocked) {
    ASSERT_EQ(initFileLogger(path.c_str()), 1);
    {
        const Refusal refusal(refuseUnlocks);
        EXPECT_FALSE(logMsg("written all the same"));
    }
    EXPECT_TRUE(logMsg("."));
    EXPECT_EQ(logged(), "written all the same.");
}

TEST_F(SystemFailure, DatagramIsNotSentWhereNoLocalPortCanBeHad) {
    NetLogger logger("127.0.0.1", 9);
    sendTries = 0;
    {
        const Refusal refusal(refuseBinds);
        EXPECT_FALSE(logger.log("line"));
    }
    EXPECT_EQ(sendTries, 0);
    boundTo.sin_port = 1;
    boundTo.sin_addr.s_addr = 1;
    EXPECT_TRUE(logger.log("line"));
    EXPECT_EQ(boundTo.sin_family, AF_INET);
    EXPECT_EQ(boundTo.sin_addr.s_addr, htonl(INADDR_ANY)) << "any address";
    EXPECT_EQ(boundTo.sin_port, 0) << "and any free port";
}

TEST_F(SystemFailure, FileIsNotCopiedWithoutABuffer) {
    const std::string source = dir.file("source", "content");
    const std::string target = dir.path("target");
    {
        const Refusal refusal(refuseArrays);
        EXPECT_EQ(FileIO::PartialFileCopy(source.c_str(), target.c_str(), 0, -1), -45);
        // What is checked before has its own result all the same.
        EXPECT_EQ(FileIO::PartialFileCopy(source.c_str(), target.c_str(), -1, -1), -40);
    }
    EXPECT_EQ(contentOf(target), "");
    EXPECT_EQ(FileIO::PartialFileCopy(source.c_str(), target.c_str(), 0, -1), 0);
    EXPECT_EQ(contentOf(target), "content");
}

// Logs one line to the discard port and returns how often it was handed to the system.
int triesOfOneLine(int failures, int cuts) {
    NetLogger logger("127.0.0.1", 9);
    sendTries = 0;
    sendsToFail = failures;
    sendsToCut = cuts;
    EXPECT_TRUE(logger.log("line"));
    sendsToFail = 0;
    sendsToCut = 0;
    return sendTries;
}

TEST(SendTries, LineThatIsSentIsSentOnce) {
    EXPECT_EQ(triesOfOneLine(0, 0), 1);
}

TEST(SendTries, LineIsTriedUntilItIsSentAndThreeTimesAtMost) {
    EXPECT_EQ(triesOfOneLine(1, 0), 2);
    EXPECT_EQ(triesOfOneLine(2, 0), 3);
    EXPECT_EQ(triesOfOneLine(INT_MAX, 0), 3);
}

TEST(SendTries, LineThatIsCutIsTriedAgain) {
    EXPECT_EQ(triesOfOneLine(0, 1), 2);
    EXPECT_EQ(triesOfOneLine(1, 1), 3);
    EXPECT_EQ(triesOfOneLine(0, INT_MAX), 3);
}

} // namespace
