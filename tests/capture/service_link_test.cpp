#include "capture/ServiceLink.h"
#include "capture/captured_log.h"
#include "capture/worker_process.h"

#include <gtest/gtest.h>
#include <unistd.h>

using namespace kestrel::capture;
using namespace capture_test;

namespace {

TEST(ServiceLink, StatusIsDroppedWhenTheQueueIsFullAndTheResultsWaitForRoom) {
    ServiceQueues queues;
    ServiceLink link;
    link.connect(queues.updateName(), queues.managerName());
    for (int i = 0; i < 30; ++i)
        link.sendHeartbeat(); // returns at once
    std::thread reader([&queues] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        for (int i = 0; i < 12; ++i)
            queues.receive(std::chrono::seconds(5));
    });
    link.sendResults(std::string(400, 'x'));
    link.sendExit();
    reader.join();
    const auto messages = queues.received();
    ASSERT_EQ(messages.size(), 12u);
    EXPECT_EQ(messages[10].type, RESULTS_MSG);
    EXPECT_EQ(messages[10].text, std::string(299, 'x'));
    EXPECT_EQ(messages[11].type, EXIT_MSG);
}

TEST(ServiceLink, OnlyTheCancelMessageCancels) {
    ServiceQueues queues;
    ServiceLink link;
    link.connect(queues.updateName(), queues.managerName());
    queues.send(STATUS_MSG);
    EXPECT_FALSE(link.cancelReceived());
    queues.send(STATUS_MSG);
    queues.send(CANCEL_MSG);
    EXPECT_TRUE(link.cancelReceived());
    EXPECT_FALSE(link.cancelReceived());
}

// As when the service ends; the name of the queue that is written to.
std::string connectAndRemoveQueues(ServiceLink& link) {
    const ServiceQueues queues;
    link.connect(queues.updateName(), queues.managerName());
    return queues.updateName();
}

TEST(ServiceLink, DoesWithoutQueuesThatAreNotThereOrGoAway) {
    ServiceLink none;
    none.connect("/kestrel_no_such_queue", "");
    none.sendHeartbeat();
    none.sendResults("text");
    EXPECT_FALSE(none.cancelReceived());

    const CapturedLog log;
    ServiceLink link;
    const std::string name = connectAndRemoveQueues(link);
    for (int i = 0; i < 30; ++i)
        link.sendHeartbeat();
    const auto begin = Clock::now();
    link.sendResults("text");
    EXPECT_LT(Clock::now() - begin, std::chrono::seconds(1)) << "nobody to wait for";
    EXPECT_EQ(log.count("Warning] Queue " + name +
                        " has been removed: this process goes on; to end it: kill -TERM " +
                        std::to_string(getpid()) + "\r\n"),
              1)
        << log.text();
    EXPECT_EQ(log.count("does not hear of the end"), 0) << "it was told";
}

TEST(ServiceLink, ARemovalThatResultsFoundIsToldByTheNextHeartbeat) {
    const CapturedLog log;
    ServiceLink link;
    connectAndRemoveQueues(link);
    link.sendResults("Encoder 1: of one of two");
    EXPECT_EQ(log.count("has been removed"), 0);
    link.sendHeartbeat();
    EXPECT_EQ(log.count(" has been removed: this process goes on; to end it: kill -TERM " +
                        std::to_string(getpid()) + "\r\n"),
              1);
    link.sendExit();
    EXPECT_EQ(log.count("has been removed"), 1) << log.text();
}

TEST(ServiceLink, AQueueThatIsFoundRemovedAtTheEndLetsNothingGoOn) {
    const CapturedLog log;
    ServiceLink link;
    const std::string name = connectAndRemoveQueues(link);
    link.sendResults("text");
    link.sendExit();
    EXPECT_EQ(
        log.count("Warning] Queue " + name + " has been removed: the service does not hear of the end\r\n"),
        1)
        << log.text();
    EXPECT_EQ(log.count("goes on"), 0);
}

} // namespace
