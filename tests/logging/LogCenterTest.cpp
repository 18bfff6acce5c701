#include <gtest/gtest.h>

#include <future>
#include <memory>
#include <optional>
#include <string>

#include "RecordingDestination.h"
#include "logging/ConsoleDestination.h"
#include "logging/FileDestination.h"
#include "logging/Filters.h"
#include "logging/LogCenter.h"
#include "platform/DispatchQueue.h"
#include "support/TestEnvironment.h"

namespace morvane::logging {
namespace {

using test::RecordingDestination;

class LogCenterTest : public ::testing::Test {
protected:
    void TearDown() override { LogCenter::removeAllDestinations(); }

    std::shared_ptr<RecordingDestination> added(Level minLevel = Level::verbose) {
        auto destination = std::make_shared<RecordingDestination>();
        destination->setMinLevel(minLevel);
        LogCenter::addDestination(destination);
        return destination;
    }

    // Destinations made without a file set up their default folder in the cache home.
    morvane::test::TempHome home;
};

TEST_F(LogCenterTest, TheSetHoldsEachObjectOnce) {
    auto console = std::make_shared<ConsoleDestination>();
    auto otherConsole = std::make_shared<ConsoleDestination>();
    EXPECT_TRUE(LogCenter::addDestination(console));
    EXPECT_FALSE(LogCenter::addDestination(console));
    EXPECT_EQ(LogCenter::countDestinations(), 1u);
    // Equal settings do not make equal destinations.
    EXPECT_TRUE(LogCenter::addDestination(otherConsole));
    EXPECT_TRUE(LogCenter::addDestination(std::make_shared<FileDestination>(std::nullopt)));
    EXPECT_FALSE(LogCenter::addDestination(nullptr));
    EXPECT_EQ(LogCenter::countDestinations(), 3u);

    EXPECT_TRUE(LogCenter::removeDestination(console));
    EXPECT_FALSE(LogCenter::removeDestination(console));
    EXPECT_FALSE(LogCenter::removeDestination(nullptr));
    EXPECT_EQ(LogCenter::countDestinations(), 2u);
    LogCenter::removeAllDestinations();
    EXPECT_EQ(LogCenter::countDestinations(), 0u);

    EXPECT_EQ(BaseDestination().defaultHashValue(), 0u);
    EXPECT_EQ(console->defaultHashValue(), 1u);
    EXPECT_EQ(FileDestination(std::nullopt).defaultHashValue(), 2u);
}

TEST_F(LogCenterTest, EachDestinationHasItsOwnLabelledSerialQueue) {
    BaseDestination first;
    BaseDestination second;
    ASSERT_TRUE(first.queue() && second.queue());
    EXPECT_EQ(first.queue()->kind(), platform::DispatchQueue::Kind::serial);
    const std::string label = first.queue()->label();
    EXPECT_EQ(label.rfind("logcenter-queue-", 0), 0u);
    const std::string uuid = label.substr(16);
    ASSERT_EQ(uuid.size(), 36u);
    EXPECT_EQ(uuid[14], '4');
    EXPECT_NE(std::string("89AB").find(uuid[19]), std::string::npos);
    EXPECT_NE(first.queue()->label(), second.queue()->label());
}

TEST_F(LogCenterTest, CallerFieldsReachTheDestination) {
    auto destination = added();
    LogCenter::warning("text", "/src/core/TarnLogger.swift", "log(_:level:)", 77, "ctx");
    LogCenter::info(12.5);
    const int line = __LINE__ - 1;
    LogCenter::error([] { return 7; }, std::string("noparen"), "plain", 1);

    const auto calls = destination->calls();
    ASSERT_EQ(calls.size(), 3u);
    EXPECT_EQ(calls[0].level, Level::warning);
    EXPECT_EQ(calls[0].message, "text");
    EXPECT_EQ(calls[0].file, "/src/core/TarnLogger.swift");
    EXPECT_EQ(calls[0].function, "log()");
    EXPECT_EQ(calls[0].line, 77);
    EXPECT_EQ(calls[0].context, "ctx");
    // Logged from the main thread: no thread name.
    EXPECT_EQ(calls[0].thread, "");
    EXPECT_EQ(calls[1].message, "12.5");
    EXPECT_EQ(calls[1].line, line);
    EXPECT_NE(calls[1].file.find("LogCenterTest.cpp"), std::string::npos);
    EXPECT_EQ(calls[1].context, std::nullopt);
    EXPECT_EQ(calls[2].message, "7");
    EXPECT_EQ(calls[2].function, "plain()");
}

TEST_F(LogCenterTest, ThreadNameIsTheQueueLabel) {
    auto destination = added();
    auto queue = platform::DispatchQueue::create("worker-queue");
    queue->sync([] { LogCenter::info("from queue"); });
    std::string fromQueue;
    queue->sync([&] { fromQueue = LogCenter::threadName(); });
    EXPECT_EQ(fromQueue, "worker-queue");
    EXPECT_EQ(LogCenter::threadName(), "");
    const auto calls = destination->calls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].thread, "worker-queue");
}

TEST_F(LogCenterTest, MessageIsTurnedIntoTextOnlyWhenTakenAndOnce) {
    auto quiet = added(Level::error);
    int evaluated = 0;
    auto message = [&evaluated] {
        ++evaluated;
        return std::string("costly");
    };
    LogCenter::info(message);
    EXPECT_EQ(evaluated, 0);

    // Two destinations that take the line, one needing the text for its filter first.
    auto filtered = added();
    filtered->addFilter(Filters::Message::contains({"cost"}, true, true));
    auto plain = added();
    LogCenter::error(message);
    EXPECT_EQ(evaluated, 1);
    EXPECT_EQ(filtered->calls().size(), 1u);
    EXPECT_EQ(plain->calls().size(), 1u);
    EXPECT_EQ(quiet->calls().size(), 1u);
}

TEST_F(LogCenterTest, SynchronousDestinationHasWrittenWhenTheCallReturns) {
    auto destination = std::make_shared<FileDestination>(home.root() / "sync.log");
    destination->setAsynchronously(false);
    destination->setFormat("$L $M");
    destination->setMinLevel(Level::debug);
    LogCenter::addDestination(destination);
    ::testing::internal::CaptureStdout();
    auto console = std::make_shared<ConsoleDestination>();
    console->setFormat("$L $M");
    console->setAsynchronously(false);
    LogCenter::addDestination(console);
    LogCenter::debug("now");
    EXPECT_EQ(morvane::test::readFile(home.root() / "sync.log"), "DEBUG now\n");
    LogCenter::verbose("dropped by the file, printed by the console");
    EXPECT_EQ(::testing::internal::GetCapturedStdout(),
              "DEBUG now\nVERBOSE dropped by the file, printed by the console\n");
    EXPECT_EQ(morvane::test::readFile(home.root() / "sync.log"), "DEBUG now\n");
}

TEST_F(LogCenterTest, FlushWaitsForEveryLineHandedOver) {
    auto blocked = added();
    auto other = added();
    // Hold the first destination's queue, so its lines are still pending when flush is called.
    std::promise<void> release;
    blocked->queue()->async([done = release.get_future().share()] { done.wait(); });
    for (int i = 0; i < 100; ++i) {
        LogCenter::info("line");
    }
    auto flushed = std::async(std::launch::async, [] { LogCenter::flush(); });
    EXPECT_EQ(flushed.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    release.set_value();
    flushed.get();
    // Read straight from the records, not through calls(), which would wait by itself.
    EXPECT_EQ(blocked->sentCount(), 100u);
    EXPECT_EQ(other->sentCount(), 100u);
}

// A destination keeps the records of sent lines and writes later lines over them: each
// line must arrive whole, with nothing of a longer line before it.
TEST_F(LogCenterTest, LinesWrittenOverKeptRecordsArriveWhole) {
    auto destination = added();
    const std::string longMessage(300, 'x');
    const std::string longFunction = "aVeryLongFunctionNameThatNeedsRoomOfItsOwn(_:with:)";
    for (int round = 0; round < 3; ++round) {
        LogCenter::info(longMessage, "/a/long/path/to/some/File.cpp", longFunction, 1, "context");
        destination->calls();  // the records are sent and kept before the next line comes
        LogCenter::info("s", "f", "g", 2);
        destination->calls();
    }
    auto queue = platform::DispatchQueue::create("a-queue-label-longer-than-short-text");
    queue->sync([] { LogCenter::info("from a queue", "f", "g(x)", 3, "c"); });
    LogCenter::info("", "", "", 4);

    const auto calls = destination->calls();
    ASSERT_EQ(calls.size(), 8u);
    for (int round = 0; round < 3; ++round) {
        const auto& big = calls[2 * round];
        EXPECT_EQ(big.message, longMessage);
        EXPECT_EQ(big.file, "/a/long/path/to/some/File.cpp");
        EXPECT_EQ(big.function, "aVeryLongFunctionNameThatNeedsRoomOfItsOwn()");
        EXPECT_EQ(big.context, "context");
        const auto& small = calls[2 * round + 1];
        EXPECT_EQ(small.message, "s");
        EXPECT_EQ(small.file, "f");
        EXPECT_EQ(small.function, "g()");
        EXPECT_EQ(small.line, 2);
        EXPECT_EQ(small.context, std::nullopt);
        EXPECT_EQ(small.thread, "");
    }
    EXPECT_EQ(calls[6].thread, "a-queue-label-longer-than-short-text");
    EXPECT_EQ(calls[6].function, "g()");
    EXPECT_EQ(calls[6].context, "c");
    EXPECT_EQ(calls[7].message, "");
    EXPECT_EQ(calls[7].file, "");
    EXPECT_EQ(calls[7].function, "()");
    EXPECT_EQ(calls[7].thread, "");
    EXPECT_EQ(calls[7].context, std::nullopt);
}

// Lines that come while the queue is sending are sent by the same run, after the lines
// before them; those that come after it has gone idle start a new one.
TEST_F(LogCenterTest, LinesQueuedWhileSendingFollowInOrder) {
    class SlowDestination : public RecordingDestination {
    public:
        std::promise<void> firstSending;
        std::shared_future<void> release;
        std::optional<std::string> send(Level level, const std::string& message,
                                        const std::string& thread, const std::string& file,
                                        const std::string& function, int line,
                                        const Context& context) override {
            if (message == "0") {
                firstSending.set_value();
                release.wait();
            }
            return RecordingDestination::send(level, message, thread, file, function, line,
                                              context);
        }
    };
    auto destination = std::make_shared<SlowDestination>();
    std::promise<void> release;
    destination->release = release.get_future().share();
    LogCenter::addDestination(destination);

    LogCenter::info("0");
    destination->firstSending.get_future().wait();
    for (int i = 1; i < 200; ++i) {
        LogCenter::info(std::to_string(i));
    }
    release.set_value();
    destination->queue()->waitUntilIdle();
    LogCenter::info("200");

    const auto calls = destination->calls();
    ASSERT_EQ(calls.size(), 201u);
    for (int i = 0; i <= 200; ++i) {
        EXPECT_EQ(calls[static_cast<std::size_t>(i)].message, std::to_string(i));
    }
}

TEST(Enqueue, DestinationNotSharedIsSentWhileTheCallerWaits) {
    RecordingDestination destination;
    destination.enqueue({Level::error, "m", "", "f", "g()", 1, std::nullopt}, false);
    const auto calls = destination.calls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].message, "m");
}

TEST(Describe, MessageValuesAsText) {
    EXPECT_EQ(LogCenter::describe(0.1), "0.1");
    EXPECT_EQ(LogCenter::describe(-3), "-3");
    EXPECT_EQ(LogCenter::describe(true), "true");
    EXPECT_EQ(LogCenter::describe('x'), "x");
    EXPECT_EQ(LogCenter::describe(std::string_view("sv")), "sv");
    EXPECT_EQ(LogCenter::strippedFunctionName("log(_:level:)"), "log()");
    EXPECT_EQ(LogCenter::strippedFunctionName("void f(int) const"), "void f()");
    EXPECT_EQ(LogCenter::strippedFunctionName(""), "()");
}

}  // namespace
}  // namespace morvane::logging
