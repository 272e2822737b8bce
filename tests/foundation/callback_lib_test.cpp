// The callback registry.
#include "foundation/CallbackLib.h"

#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr auto vtr = DATA_CALLBACK_VTR_CMD_REQUEST;

// A registrant: its buffer, and what its function was called with.
struct Consumer {
    explicit Consumer(std::string consumerName, std::vector<std::string>* calls = nullptr)
        : name(std::move(consumerName)), allCalls(calls) {}

    bool registerFor(_DataCallback type, int count) {
        return CallbackLib::pInst->registerCallback(type, &Consumer::receive, buffer, name.c_str(), count,
                                                    this);
    }

    static void receive(CallbackLib::_Data* data) {
        auto* self = static_cast<Consumer*>(data->context);
        EXPECT_EQ(data->data, self->buffer);
        self->types.push_back(data->type);
        self->texts.emplace_back(static_cast<char*>(data->data));
        if (self->allCalls)
            self->allCalls->push_back(self->name);
    }

    std::string name;
    std::vector<std::string>* allCalls;
    char buffer[64] = "";
    std::vector<int> types;
    std::vector<std::string> texts;
};

class CallbackLibTest : public testing::Test {
protected:
    void SetUp() override { lib = CallbackLib::initCallBackLib(); }
    void TearDown() override { CallbackLib::ShutDownCallBackLib(); }

    bool send(_DataCallback type, const std::string& text) {
        std::string copy = text;
        return lib->callback(type, copy.data(), static_cast<int>(copy.size() + 1));
    }

    CallbackLib* lib = nullptr;
};

TEST_F(CallbackLibTest, ThereIsOneInstanceUntilShutdown) {
    EXPECT_EQ(CallbackLib::initCallBackLib(), lib);
    EXPECT_EQ(CallbackLib::pInst, lib);
    CallbackLib::ShutDownCallBackLib();
    EXPECT_EQ(CallbackLib::pInst, nullptr);
    CallbackLib::ShutDownCallBackLib();
    lib = CallbackLib::initCallBackLib();
    EXPECT_NE(lib, nullptr);
}

TEST_F(CallbackLibTest, InstanceIsMadeOnceByManyThreads) {
    CallbackLib::ShutDownCallBackLib();
    std::vector<CallbackLib*> made(4);
    std::vector<std::thread> threads;
    for (CallbackLib*& slot : made)
        threads.emplace_back([&slot] { slot = CallbackLib::initCallBackLib(); });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_THAT(made, testing::Each(CallbackLib::pInst));
}

TEST_F(CallbackLibTest, FunctionGetsTypeContextAndACopyOfTheData) {
    Consumer consumer("CManagerLib");
    EXPECT_TRUE(consumer.registerFor(vtr, -1));
    EXPECT_TRUE(send(vtr, "play"));
    EXPECT_STREQ(consumer.buffer, "play");
    EXPECT_THAT(consumer.types, ElementsAre(15));
    EXPECT_THAT(consumer.texts, ElementsAre("play"));
}

TEST_F(CallbackLibTest, WithoutDataTheBufferStaysAndTheFunctionIsCalled) {
    Consumer consumer("c");
    std::strcpy(consumer.buffer, "before");
    consumer.registerFor(vtr, -1);
    char data[] = "new";
    EXPECT_TRUE(lib->callback(vtr, nullptr, 4));
    EXPECT_TRUE(lib->callback(vtr, data, 0));
    EXPECT_TRUE(lib->callback(vtr, data, -1));
    EXPECT_THAT(consumer.texts, ElementsAre("before", "before", "before"));
}

TEST_F(CallbackLibTest, RegistrationWithoutBufferIsCalledWithoutCopy) {
    static int calls;
    calls = 0;
    EXPECT_TRUE(lib->registerCallback(
        vtr, [](CallbackLib::_Data* data) { calls += data->data == nullptr; }, nullptr, "n", -1, nullptr));
    EXPECT_TRUE(send(vtr, "x"));
    EXPECT_EQ(calls, 1);
}

TEST_F(CallbackLibTest, OnlyTheTypeSentIsCalled) {
    Consumer zero("zero");
    Consumer sixteen("sixteen");
    zero.registerFor(DATA_CALLBACK_FIRST, -1);
    sixteen.registerFor(DATA_CALLBACK_LAST, -1);
    EXPECT_TRUE(send(static_cast<_DataCallback>(0), "a"));
    EXPECT_TRUE(send(static_cast<_DataCallback>(16), "b"));
    EXPECT_TRUE(send(vtr, "nobody"));
    EXPECT_THAT(zero.texts, ElementsAre("a"));
    EXPECT_THAT(sixteen.texts, ElementsAre("b"));
}

TEST_F(CallbackLibTest, SameNameReplacesTheRegistrationInItsPlace) {
    std::vector<std::string> calls;
    Consumer first("name", &calls);
    Consumer other("other", &calls);
    Consumer second("name", &calls);
    first.registerFor(vtr, -1);
    other.registerFor(vtr, -1);
    second.registerFor(vtr, -1);
    send(vtr, "x");
    EXPECT_THAT(first.texts, IsEmpty());
    EXPECT_THAT(second.texts, ElementsAre("x"));
    EXPECT_THAT(calls, ElementsAre("name", "other"));
}

TEST_F(CallbackLibTest, AReplacedRegistrationHasTheNewCount) {
    Consumer consumer("name");
    consumer.registerFor(vtr, -1);
    consumer.registerFor(vtr, 1);
    send(vtr, "x");
    send(vtr, "y");
    EXPECT_THAT(consumer.texts, ElementsAre("x"));
}

TEST_F(CallbackLibTest, SameNameUnderAnotherTypeIsAnotherRegistration) {
    Consumer first("name");
    Consumer second("name");
    first.registerFor(vtr, -1);
    second.registerFor(DATA_CALLBACK_FIRST, -1);
    send(vtr, "x");
    EXPECT_THAT(first.texts, ElementsAre("x"));
    EXPECT_THAT(second.texts, IsEmpty());
}

TEST_F(CallbackLibTest, DifferentNamesAreCalledInOrderOfRegistration) {
    std::vector<std::string> calls;
    Consumer zebra("zebra", &calls);
    Consumer ant("ant", &calls);
    zebra.registerFor(vtr, -1);
    ant.registerFor(vtr, -1);
    send(vtr, "x");
    EXPECT_THAT(calls, ElementsAre("zebra", "ant"));
}

TEST_F(CallbackLibTest, CountLimitsTheCalls) {
    Consumer once("once");
    Consumer twice("twice");
    Consumer never("never");
    Consumer always("always");
    once.registerFor(vtr, 1);
    twice.registerFor(vtr, 2);
    never.registerFor(vtr, 0);
    always.registerFor(vtr, -1);
    for (int i = 0; i < 5; ++i)
        send(vtr, "x");
    EXPECT_EQ(once.texts.size(), 1U);
    EXPECT_EQ(twice.texts.size(), 2U);
    EXPECT_EQ(never.texts.size(), 0U);
    EXPECT_EQ(always.texts.size(), 5U);
}

TEST_F(CallbackLibTest, UsedUpRegistrationCanBeRenewed) {
    Consumer once("once");
    once.registerFor(vtr, 1);
    send(vtr, "a");
    send(vtr, "b");
    once.registerFor(vtr, 1);
    send(vtr, "c");
    EXPECT_THAT(once.texts, ElementsAre("a", "c"));
}

TEST_F(CallbackLibTest, UnregisteredFunctionIsNotCalled) {
    Consumer consumer("name");
    char name[] = "name";
    char unknown[] = "unknown";
    consumer.registerFor(vtr, -1);
    EXPECT_FALSE(lib->unregisterCallback(vtr, unknown));
    EXPECT_FALSE(lib->unregisterCallback(DATA_CALLBACK_FIRST, name));
    EXPECT_TRUE(lib->unregisterCallback(vtr, name));
    EXPECT_TRUE(send(vtr, "x"));
    EXPECT_THAT(consumer.texts, IsEmpty());
    // It stays in the list, inactive.
    EXPECT_TRUE(lib->unregisterCallback(vtr, name));
}

TEST_F(CallbackLibTest, TypesOutsideTheRangeAreRefused) {
    Consumer consumer("name");
    char name[] = "name";
    for (const int number : {17, 1000, -1}) {
        const auto type = static_cast<_DataCallback>(number);
        EXPECT_FALSE(consumer.registerFor(type, -1)) << number;
        EXPECT_FALSE(send(type, "x")) << number;
        EXPECT_FALSE(lib->unregisterCallback(type, name)) << number;
    }
    EXPECT_THAT(consumer.texts, IsEmpty());
}

TEST_F(CallbackLibTest, NullFunctionIsRefused) {
    EXPECT_FALSE(lib->registerCallback(vtr, nullptr, nullptr, "n", -1, nullptr));
    EXPECT_TRUE(send(vtr, "x"));
}

TEST_F(CallbackLibTest, OverlongNameIsCutAndStillFound) {
    std::string longName(300, 'n');
    Consumer consumer(longName);
    consumer.registerFor(vtr, -1);
    consumer.registerFor(vtr, -1);
    send(vtr, "x");
    EXPECT_EQ(consumer.texts.size(), 1U);
    EXPECT_TRUE(lib->unregisterCallback(vtr, longName.data()));
}

TEST_F(CallbackLibTest, ThreadsMayRegisterAndSendAtTheSameTime) {
    std::vector<std::thread> threads;
    std::vector<Consumer> consumers;
    for (int i = 0; i < 4; ++i)
        consumers.emplace_back("consumer" + std::to_string(i));
    for (Consumer& consumer : consumers) {
        threads.emplace_back([&] {
            for (int i = 0; i < 100; ++i) {
                consumer.registerFor(vtr, -1);
                send(vtr, "data");
                lib->unregisterCallback(vtr, consumer.name.data());
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    for (const Consumer& consumer : consumers)
        EXPECT_GE(consumer.texts.size(), 100U);
}

} // namespace
